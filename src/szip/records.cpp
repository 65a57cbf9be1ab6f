#include "szip/records.h"

#include <cstring>

namespace tessra {

namespace {

constexpr uint16_t kVersionPlain = 20;
constexpr uint16_t kVersionZip64 = 45;
constexpr uint16_t kSizesFollowData = 8;  // Bit 3, the only general purpose flag that is set.
constexpr uint16_t kStored = 0;
constexpr uint16_t kZip64Extra = 1;
constexpr uint16_t kMarker16 = 0xffff;
constexpr uint32_t kMarker32 = 0xffffffff;

#define TESSRA_AT(record, field, offset) \
    static_assert(offsetof(record, field) == (offset), #record "." #field)
TESSRA_AT(szip_local_header_t, crc, 14);
TESSRA_AT(szip_local_header_t, extra_len, 28);
TESSRA_AT(szip_64_extra_local_t, size_compressed, 12);
TESSRA_AT(szip_data32_desc_t, size_uncompressed, 12);
TESSRA_AT(szip_data64_desc_t, size_uncompressed, 16);
TESSRA_AT(szip_central_header_t, time, 12);
TESSRA_AT(szip_central_header_t, name_len, 28);
TESSRA_AT(szip_central_header_t, file_attr_ex, 38);
TESSRA_AT(szip_central_header_t, local_offset, 42);
TESSRA_AT(szip_64_extra_central_t, local_offset, 20);
TESSRA_AT(szip_64_central_end_header_t, central_num_disk, 24);
TESSRA_AT(szip_64_central_end_header_t, central_offset, 48);
TESSRA_AT(szip_64_central_end_locator_t, num_disks, 16);
TESSRA_AT(szip_central_end_header_t, central_size, 12);
TESSRA_AT(szip_central_end_header_t, comment_len, 20);
#undef TESSRA_AT

static_assert(sizeof(szip_local_header_t) == 30 && alignof(szip_local_header_t) == 1);
static_assert(sizeof(szip_extra_local_t) == 20);
static_assert(sizeof(szip_data32_desc_t) == 16);
static_assert(sizeof(szip_data64_desc_t) == 24);
static_assert(sizeof(szip_central_header_t) == 46);
static_assert(sizeof(szip_extra_central_t) == 28);
static_assert(sizeof(szip_64_central_end_header_t) == 56);
static_assert(sizeof(szip_64_central_end_locator_t) == 20);
static_assert(sizeof(szip_central_end_header_t) == 22);
static_assert(kLocalFixed == 74 && kCentralFixed == 74 && kZip64End == 98 && kPlainEnd == 22);
static_assert(kPlainSaving ==
              sizeof(szip_extra_local_t) + sizeof(szip_data64_desc_t) - sizeof(szip_data32_desc_t));
static_assert(kPlainSaving == sizeof(szip_extra_central_t));

// Both fields of an MS-DOS time stamp, in local time. A year before 1980 becomes 1980. A time that
// localtime_r() can't convert becomes the first day of 1980.
struct MsdosStamp {
    uint16_t time;
    uint16_t date;
};

MsdosStamp msdos_stamp(time_t time) {
    struct tm local;
    if (localtime_r(&time, &local) == nullptr) {
        return {0, 1 << 5 | 1};
    }
    const int year = local.tm_year < 80 ? 0 : local.tm_year - 80;
    return {
        static_cast<uint16_t>(local.tm_hour << 11 | local.tm_min << 5 | local.tm_sec / 2),
        static_cast<uint16_t>(static_cast<unsigned int>(year) << 9 |
                              static_cast<unsigned int>((local.tm_mon + 1) & 0xf) << 5 |
                              static_cast<unsigned int>(local.tm_mday & 0x1f)),
    };
}

uint16_t version_needed(const szip_info_t* info) {
    return info->zip64 ? kVersionZip64 : kVersionPlain;
}

uint16_t name_length(const szip_upi_t* upi) { return static_cast<uint16_t>(strlen(upi->rel)); }

template <typename Descriptor, typename Size>
unsigned int fill_descriptor(const szip_upi_t* upi, Descriptor* descriptor) {
    descriptor->signature = 0x08074b50;
    descriptor->crc = upi->crc32;
    descriptor->size_compressed = static_cast<Size>(upi->size);
    descriptor->size_uncompressed = static_cast<Size>(upi->size);
    return sizeof *descriptor;
}

uint64_t central_size(szip_info_t* info) { return szip_calc_size(info, 1); }

// A stream doesn't count its bytes, so the start of the directory is computed from the last entry.
uint64_t central_offset(const szip_info_t* info) {
    const szip_upi_t* last = &info->upi[info->count - 1];
    const uint64_t fixed = info->zip64 ? kLocalFixed : kLocalFixed - kPlainSaving;
    return last->local_offset + last->size + fixed + strlen(last->rel);
}

}  // namespace

void szip_create_local_header(const szip_info_t* info, const szip_upi_t* upi,
                              szip_local_header_t* lh) {
    const MsdosStamp stamp = msdos_stamp(upi->time);
    lh->signature = 0x04034b50;
    lh->version_needed = version_needed(info);
    lh->flag = kSizesFollowData;
    lh->compression = kStored;
    lh->time = stamp.time;
    lh->date = stamp.date;
    lh->crc = 0;
    lh->size_compressed = 0;
    lh->size_uncompressed = 0;
    lh->name_len = name_length(upi);
    lh->extra_len = info->zip64 ? sizeof(szip_extra_local_t) : 0;
}

void szip_create_local_extra(szip_extra_local_t* elh) {
    elh->zip64.header.id = kZip64Extra;
    elh->zip64.header.size = sizeof(szip_64_extra_local_t) - sizeof(szip_extra_header_t);
    elh->zip64.size_uncompressed = 0;
    elh->zip64.size_compressed = 0;
}

unsigned int szip_create_data_desc(const szip_info_t* info, const szip_upi_t* upi,
                                   szip_data_desc_t* dd) {
    if (info->zip64) return fill_descriptor<szip_data64_desc_t, uint64_t>(upi, dd);
    return fill_descriptor<szip_data32_desc_t, uint32_t>(upi,
                                                         reinterpret_cast<szip_data32_desc_t*>(dd));
}

void szip_create_central_entry(const szip_info_t* info, const szip_upi_t* upi,
                               szip_central_header_t* ch) {
    const MsdosStamp stamp = msdos_stamp(upi->time);
    const bool in_extra = exceeds_32_bits(upi->size) || exceeds_32_bits(upi->local_offset);
    const uint32_t size = in_extra ? kMarker32 : static_cast<uint32_t>(upi->size);
    ch->signature = 0x02014b50;
    ch->version_made = kVersionZip64;
    ch->version_needed = version_needed(info);
    ch->flag = kSizesFollowData;
    ch->compression = kStored;
    ch->time = stamp.time;
    ch->date = stamp.date;
    ch->crc = upi->crc32;
    ch->size_compressed = size;
    ch->size_uncompressed = size;
    ch->name_len = name_length(upi);
    ch->extra_len = info->zip64 ? sizeof(szip_extra_central_t) : 0;
    ch->comment_len = 0;
    ch->disk = 0;
    ch->file_attr_i = 0;
    ch->file_attr_ex = 0;
    ch->local_offset = in_extra ? kMarker32 : static_cast<uint32_t>(upi->local_offset);
}

void szip_create_central_extra(const szip_upi_t* upi, szip_extra_central_t* ech) {
    ech->zip64.header.id = kZip64Extra;
    ech->zip64.header.size = sizeof(szip_64_extra_central_t) - sizeof(szip_extra_header_t);
    ech->zip64.size_uncompressed = upi->size;
    ech->zip64.size_compressed = upi->size;
    ech->zip64.local_offset = upi->local_offset;
}

void szip_64_create_central_end(szip_info_t* info, szip_64_central_end_header_t* ceh) {
    ceh->signature = 0x06064b50;
    ceh->size = sizeof *ceh - offsetof(szip_64_central_end_header_t, version_made);
    ceh->version_made = kVersionZip64;
    ceh->version_needed = kVersionZip64;
    ceh->disk_nr = 0;
    ceh->central_disk = 0;
    ceh->central_num_disk = info->count;
    ceh->central_num_total = info->count;
    ceh->central_size = central_size(info);
    ceh->central_offset = central_offset(info);
}

void szip_64_create_central_loc(szip_info_t* info, szip_64_central_end_locator_t* clh) {
    clh->signature = 0x07064b50;
    clh->central_disk = 0;
    clh->central_offset = central_offset(info) + central_size(info);
    clh->num_disks = 0;
}

void szip_create_central_end_entry(szip_info_t* info, szip_central_end_header_t* ceh) {
    const uint64_t size = central_size(info);
    const uint64_t offset = central_offset(info);
    const bool in_zip64 =
        info->count > kMaxCount16 || exceeds_32_bits(size) || exceeds_32_bits(offset);
    const uint16_t count = in_zip64 ? kMarker16 : static_cast<uint16_t>(info->count);
    ceh->signature = 0x06054b50;
    ceh->disk_nr = 0;
    ceh->central_disk = 0;
    ceh->central_num_disk = count;
    ceh->central_num_total = count;
    ceh->central_size = in_zip64 ? kMarker32 : static_cast<uint32_t>(size);
    ceh->central_offset = in_zip64 ? kMarker32 : static_cast<uint32_t>(offset);
    ceh->comment_len = 0;
}

}  // namespace tessra
