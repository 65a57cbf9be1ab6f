// CRC-32 as ZIP, gzip and Ethernet use it: reflected, polynomial 0xEDB88320.
#ifndef TESSRA_SZIP_CRC32_H
#define TESSRA_SZIP_CRC32_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace tessra {

// Extends crc, the CRC of all bytes so far (0 if there are none), by size bytes. Any split of the
// bytes into calls gives the same result.
u_int32_t calc_crc32(u_int32_t crc, const void* buf, size_t size);

// The same by tables alone. The argument state and the result are inverted CRCs.
uint32_t crc32_by_tables(uint32_t state, const uint8_t* p, size_t size);

#if defined(__x86_64__)
// The same by carry-less multiplication. size must be a multiple of 16 and at least 64.
inline constexpr size_t kClmulBlock = 16;
inline constexpr size_t kClmulMin = 64;
bool cpu_has_clmul();
uint32_t crc32_by_clmul(uint32_t state, const uint8_t* p, size_t size);

// The same on registers of twice the width. size must be a multiple of 16 and at least 128.
inline constexpr size_t kWideClmulMin = 128;
bool cpu_has_wide_clmul();
uint32_t crc32_by_wide_clmul(uint32_t state, const uint8_t* p, size_t size);
#endif

}  // namespace tessra

#endif
