// The plan of an archive, shared by the files of the ZIP writer.
#ifndef TESSRA_SZIP_SZIP_PRIVATE_H
#define TESSRA_SZIP_SZIP_PRIVATE_H

#include <time.h>

#include <cstddef>
#include <cstdint>

#include "tessra/szip.h"

// One entry.
struct szip_upi_t {
    char* abs;               // Full path, owned by the plan; a directory's ends in '/'.
    char* rel;               // Name in the archive: the last part of abs, never empty.
    u_int64_t local_offset;  // Offset of the local header from the start of the archive.
    u_int64_t size;          // Planned number of bytes of data.
    u_int32_t crc32;         // CRC-32 of the data, set by each stream.
    time_t time;             // Modification time.
};

// The plan. The entries follow it in the same block, at a multiple of kEntryAlignment.
struct szip_info {
    szip_upi_t* upi;
    unsigned int count;  // At least 1.
    u_int8_t zip64;      // 1 if all records have their ZIP64 form, else 0.
};

namespace tessra {

inline constexpr uint16_t kMaxCount16 = 0xffff;
inline constexpr uint64_t kMax32 = 0xffffffff;

// The number of bytes by which an entry of a plain archive is shorter than one of a ZIP64 archive:
// in its local part, and again in its central part.
inline constexpr unsigned int kPlainSaving = 28;

inline bool exceeds_32_bits(uint64_t value) { return value > kMax32; }

}  // namespace tessra

#endif
