// The plan of an archive, shared by the files of the ZIP writer.
#ifndef TESSRA_SZIP_SZIP_PRIVATE_H
#define TESSRA_SZIP_SZIP_PRIVATE_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "tessra/szip.h"

// One entry.
struct szip_upi_t {
    char* abs;               // Full path, owned by the plan; a directory's ends in '/'.
    char* rel;               // Name in the archive: the end of abs, never empty.
    u_int64_t local_offset;  // Of the local header, from the start of the archive.
    u_int64_t size;          // Bytes of data promised.
    u_int32_t crc32;         // Of the data, noted by each stream.
    time_t time;             // Modification time.
};

// The plan. The entries follow it in the same block, at a multiple of kEntryAlignment.
struct szip_info {
    szip_upi_t* upi;
    unsigned int count;  // At least 1.
    u_int8_t zip64;      // 1: all records in their ZIP64 form.
};

namespace tessra {

inline constexpr uint16_t kMaxCount16 = 0xffff;
inline constexpr uint64_t kMax32 = 0xffffffff;

// What an entry of a plain archive is shorter by, in its local and in its central part.
inline constexpr unsigned int kPlainSaving = 28;

inline bool exceeds_32_bits(uint64_t value) { return value > kMax32; }

}  // namespace tessra

#endif
