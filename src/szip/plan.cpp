// Planning turns a list of paths into names, sizes and offsets. It writes nothing.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/export.h"
#include "internal/guards.h"
#include "szip/records.h"
#include "szip/szip_private.h"

namespace tessra {

namespace {

constexpr size_t kPathBuffer = 4096;
constexpr size_t kEntryAlignment = 16;
static_assert(alignof(szip_upi_t) <= kEntryAlignment);

// The length of the longest archive, in bytes.
constexpr uint64_t kMaxArchive = INT64_MAX;

// Builds a path in a buffer. fits() returns false if the path is too long for the buffer, since a
// path that is cut would name another file.
class PathBuilder {
public:
    explicit PathBuilder(char* buf) : buf_(buf) { clear(); }

    void clear() {
        length_ = 0;
        fits_ = true;
        buf_[0] = '\0';
    }

    void append(const char* text) {
        const size_t count = strlen(text);
        fits_ = fits_ && count < kPathBuffer - length_;
        if (fits_) {
            memcpy(buf_ + length_, text, count + 1);
            length_ += count;
        }
    }

    bool ends_in_slash() const { return length_ > 0 && buf_[length_ - 1] == '/'; }
    bool fits() const { return fits_; }

private:
    char* buf_;
    size_t length_;
    bool fits_;
};

bool szip_util_abs_path(const char* file, const char* base, PathBuilder& path) {
    path.clear();
    if (file[0] != '/') {
        if (base[0] != '/') path.append("/");
        path.append(base);
        if (!path.ends_in_slash()) path.append("/");
    }
    path.append(file);
    return path.fits();
}

// Returns the part of abs below base, or null if abs isn't there.
char* szip_util_relative(char* abs, const char* base) {
    char* p = abs + (abs[0] == '/');
    const char* b = base + (base[0] == '/');
    const size_t length = strlen(b);
    if (strncmp(p, b, length) != 0) return nullptr;
    const bool at_boundary = length == 0 || b[length - 1] == '/' || p[length] == '/';
    if (!at_boundary) return nullptr;
    p += length;
    return p + (*p == '/');
}

char* strdup_append(const char* str, const char* suffix) {
    const size_t length = strlen(str);
    const size_t suffix_size = strlen(suffix) + 1;
    auto* joined = static_cast<char*>(malloc(length + suffix_size));
    if (joined != nullptr) {
        memcpy(joined, str, length + 1);
        memcpy(joined + length, suffix, suffix_size);
    }
    return joined;
}

// Returns the plan and its entries in one zeroed block, or null.
szip_info_t* new_plan(unsigned int numfiles) {
    size_t size;
    if (__builtin_mul_overflow(size_t{numfiles}, sizeof(szip_upi_t), &size) ||
        __builtin_add_overflow(size, sizeof(szip_info_t) + kEntryAlignment, &size)) {
        errno = ENOMEM;
        return nullptr;
    }
    auto* info = static_cast<szip_info_t*>(calloc(1, size));
    if (info != nullptr) {
        const uintptr_t end = reinterpret_cast<uintptr_t>(info) + sizeof *info;
        const size_t gap = -end & (kEntryAlignment - 1);
        info->upi = reinterpret_cast<szip_upi_t*>(reinterpret_cast<char*>(info + 1) + gap);
        info->count = numfiles;
    }
    return info;
}

bool fail(int error) {
    errno = error;
    return false;
}

// Fills an entry except for its offset. The plan owns what this allocates, even after a failure.
bool plan_entry(const char* path, const PathBuilder& builder, const char* zbase, szip_upi_t* upi) {
    struct stat st;
    if (stat(path, &st) != 0) return false;
    const bool directory = S_ISDIR(st.st_mode);
    upi->size = directory ? 0 : static_cast<uint64_t>(st.st_size);
    upi->abs = strdup_append(path, directory && !builder.ends_in_slash() ? "/" : "");
    if (upi->abs == nullptr) return false;
    upi->time = st.st_mtime;
    upi->rel = szip_util_relative(upi->abs, zbase);
    return (upi->rel != nullptr && *upi->rel != '\0') || fail(EINVAL);
}

bool plan_entries(szip_info_t* info, const char** files, const char* base, const char* zbase) {
    const HeapBlock buf(kPathBuffer);
    if (!buf) return false;
    char* const text = buf.bytes();
    PathBuilder path(text);
    uint64_t offset = 0;
    uint64_t length = kZip64End;  // The length of a ZIP64 archive of the entries so far.
    for (unsigned int i = 0; i < info->count; ++i) {
        szip_upi_t* upi = &info->upi[i];
        if (files[i] == nullptr) return fail(EINVAL);
        if (!szip_util_abs_path(files[i], base, path)) return fail(ENAMETOOLONG);
        if (!plan_entry(text, path, zbase, upi)) return false;
        upi->local_offset = offset;
        info->zip64 |= exceeds_32_bits(upi->size);
        // Both are kMaxArchive at most, so that their sum with the records doesn't wrap around.
        if (upi->size > kMaxArchive) return fail(EFBIG);
        const size_t name = strlen(upi->rel);
        const uint64_t records = kLocalFixed + kCentralFixed + 2 * name;
        offset += kLocalFixed + name + upi->size;
        length += upi->size;
        if (length > kMaxArchive - records) return fail(EFBIG);
        length += records;
    }
    return true;
}

void choose_mode(szip_info_t* info) {
    if (info->zip64) return;
    if (info->count > kMaxCount16 || exceeds_32_bits(szip_calc_size(info, 0))) {
        info->zip64 = 1;
        return;
    }
    // plan_entries() has computed the offsets for ZIP64 mode.
    for (unsigned int i = 0; i < info->count; ++i) {
        info->upi[i].local_offset -= uint64_t{kPlainSaving} * i;
    }
}

}  // namespace

}  // namespace tessra

using namespace tessra;

TESSRA_EXPORTED szip_info_t* szip_create_info(const char** files, unsigned int numfiles,
                                              const char* base, const char* zbase) {
    if (files == nullptr || base == nullptr || zbase == nullptr || numfiles == 0) {
        errno = EINVAL;
        return nullptr;
    }
    szip_info_t* info = new_plan(numfiles);
    if (info == nullptr) return nullptr;
    if (!plan_entries(info, files, base, zbase)) {
        szip_free_info(info);
        return nullptr;
    }
    choose_mode(info);
    return info;
}

TESSRA_EXPORTED u_int64_t szip_calc_size(szip_info_t* info, int cdir) {
    if (info == nullptr) return 0;
    const bool whole = cdir == 0;
    uint64_t fixed = whole ? kLocalFixed + kCentralFixed : kCentralFixed;
    uint64_t size = 0;
    if (!info->zip64) fixed -= whole ? 2 * kPlainSaving : kPlainSaving;
    if (whole) size = info->zip64 ? kZip64End : kPlainEnd;
    for (unsigned int i = 0; i < info->count; ++i) {
        const szip_upi_t* upi = &info->upi[i];
        const uint64_t name = strlen(upi->rel);
        size += fixed + (whole ? upi->size + 2 * name : name);
    }
    return size;
}

TESSRA_EXPORTED void szip_free_info(szip_info_t* info) {
    if (info == nullptr) return;
    const ErrnoKeeper errno_keeper;
    for (unsigned int i = 0; i < info->count; ++i) free(info->upi[i].abs);
    free(info);
}
