// The records of a ZIP archive, byte for byte as APPNOTE.TXT defines them, and their builders.
//
// Each builder sets every field of the record and can't fail. None allocates memory, except that
// the C library may do so for the time zone in the first localtime_r().
#ifndef TESSRA_SZIP_RECORDS_H
#define TESSRA_SZIP_RECORDS_H

#include <time.h>

#include <cstddef>
#include <cstdint>

#include "szip/szip_private.h"

namespace tessra {

// An unsigned integer in little-endian order on any host, without alignment.
template <typename T>
class LittleEndian {
public:
    LittleEndian& operator=(T value) {
        for (uint8_t& byte : bytes_) {
            byte = static_cast<uint8_t>(value);
            value = static_cast<T>(static_cast<uint64_t>(value) >> 8);
        }
        return *this;
    }

private:
    uint8_t bytes_[sizeof(T)];
};

using Le16 = LittleEndian<uint16_t>;
using Le32 = LittleEndian<uint32_t>;
using Le64 = LittleEndian<uint64_t>;

// The entry's name follows this record, then in ZIP64 mode the extra field.
struct szip_local_header_t {
    Le32 signature;
    Le16 version_needed;
    Le16 flag;
    Le16 compression;
    Le16 time;
    Le16 date;
    Le32 crc;
    Le32 size_compressed;
    Le32 size_uncompressed;
    Le16 name_len;
    Le16 extra_len;
};

struct szip_extra_header_t {
    Le16 id;
    Le16 size;  // Number of bytes after this header.
};

struct szip_64_extra_local_t {
    szip_extra_header_t header;
    Le64 size_uncompressed;
    Le64 size_compressed;
};

struct szip_extra_local_t {
    szip_64_extra_local_t zip64;
};

struct szip_data32_desc_t {
    Le32 signature;
    Le32 crc;
    Le32 size_compressed;
    Le32 size_uncompressed;
};

struct szip_data64_desc_t {
    Le32 signature;
    Le32 crc;
    Le64 size_compressed;
    Le64 size_uncompressed;
};

using szip_data_desc_t = szip_data64_desc_t;

struct szip_central_header_t {
    Le32 signature;
    Le16 version_made;
    Le16 version_needed;
    Le16 flag;
    Le16 compression;
    Le16 time;
    Le16 date;
    Le32 crc;
    Le32 size_compressed;
    Le32 size_uncompressed;
    Le16 name_len;
    Le16 extra_len;
    Le16 comment_len;
    Le16 disk;
    Le16 file_attr_i;
    Le32 file_attr_ex;
    Le32 local_offset;
};

struct szip_64_extra_central_t {
    szip_extra_header_t header;
    Le64 size_uncompressed;
    Le64 size_compressed;
    Le64 local_offset;
};

struct szip_extra_central_t {
    szip_64_extra_central_t zip64;
};

struct szip_64_central_end_header_t {
    Le32 signature;
    Le64 size;  // Number of bytes after this field.
    Le16 version_made;
    Le16 version_needed;
    Le32 disk_nr;
    Le32 central_disk;
    Le64 central_num_disk;
    Le64 central_num_total;
    Le64 central_size;
    Le64 central_offset;
};

struct szip_64_central_end_locator_t {
    Le32 signature;
    Le32 central_disk;
    Le64 central_offset;  // Offset of the ZIP64 end record.
    Le32 num_disks;
};

struct szip_central_end_header_t {
    Le32 signature;
    Le16 disk_nr;
    Le16 central_disk;
    Le16 central_num_disk;
    Le16 central_num_total;
    Le32 central_size;
    Le32 central_offset;
    Le16 comment_len;
};

// Sizes of an entry's fixed parts in ZIP64 form, and of the records behind the central directory.
inline constexpr unsigned int kLocalFixed =
    sizeof(szip_local_header_t) + sizeof(szip_extra_local_t) + sizeof(szip_data64_desc_t);
inline constexpr unsigned int kCentralFixed =
    sizeof(szip_central_header_t) + sizeof(szip_extra_central_t);
inline constexpr unsigned int kPlainEnd = sizeof(szip_central_end_header_t);
inline constexpr unsigned int kZip64End =
    sizeof(szip_64_central_end_header_t) + sizeof(szip_64_central_end_locator_t) + kPlainEnd;

void szip_create_local_header(const szip_info_t* info, const szip_upi_t* upi,
                              szip_local_header_t* lh);
void szip_create_local_extra(szip_extra_local_t* elh);

// Returns the number of bytes of dd to send: 16, or 24 in ZIP64 mode.
unsigned int szip_create_data_desc(const szip_info_t* info, const szip_upi_t* upi,
                                   szip_data_desc_t* dd);

void szip_create_central_entry(const szip_info_t* info, const szip_upi_t* upi,
                               szip_central_header_t* ch);
void szip_create_central_extra(const szip_upi_t* upi, szip_extra_central_t* ech);
void szip_64_create_central_end(szip_info_t* info, szip_64_central_end_header_t* ceh);
void szip_64_create_central_loc(szip_info_t* info, szip_64_central_end_locator_t* clh);
void szip_create_central_end_entry(szip_info_t* info, szip_central_end_header_t* ceh);

}  // namespace tessra

#endif
