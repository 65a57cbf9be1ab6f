// Streaming writes the bytes of a planned archive, strictly forward.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "internal/export.h"
#include "internal/guards.h"
#include "szip/crc32.h"
#include "szip/records.h"
#include "szip/szip_private.h"

namespace tessra {

namespace {

// Passes bytes to the caller's write function.
class Sink {
public:
    Sink(szip_write_func write, void* arg) : write_(write), arg_(arg) {}

    bool take(const void* buf, size_t count) const {
        return write_(arg_, buf, count) == static_cast<ssize_t>(count);
    }
    bool take_name(const szip_upi_t* upi) const { return take(upi->rel, strlen(upi->rel)); }

private:
    szip_write_func write_;
    void* arg_;
};

ssize_t read_some(int fd, void* buf, size_t count) {
    ssize_t got;
    do {
        got = read(fd, buf, count);
    } while (got < 0 && errno == EINTR);
    return got;
}

// If a FIFO has replaced a file, O_NONBLOCK lets open() return without waiting for a writer. The
// flag has no effect on a file, unless another process holds a lease on it: open() then fails with
// EWOULDBLOCK, and the second open() waits for the end of the lease.
int open_to_read(const char* path) {
    const int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    return fd < 0 && errno == EWOULDBLOCK ? open(path, O_RDONLY | O_CLOEXEC) : fd;
}

// Adds zeros to the data of a file that has shrunk, so that the entry keeps its planned length. The
// archive is useless anyway, so the results of these writes don't matter.
void fill_up(uint64_t left, void* buf, size_t chunk_size, const Sink& sink) {
    memset(buf, 0, chunk_size);
    while (left != 0) {
        const auto towrite = static_cast<size_t>(std::min<uint64_t>(left, chunk_size));
        (void)sink.take(buf, towrite);
        left -= towrite;
    }
}

bool szip_stream_single_file(szip_upi_t* upi, const Sink& sink, unsigned int chunk_size) {
    const HeapBlock buf(chunk_size);
    if (!buf) return false;
    const UniqueFd file(open_to_read(upi->abs));
    if (!file) return false;
    upi->crc32 = 0;
    uint64_t left = upi->size;
    while (left != 0) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(left, chunk_size));
        const ssize_t got = read_some(file.get(), buf.bytes(), wanted);
        if (got < 0) return false;
        if (got == 0) {
            fill_up(left, buf.bytes(), chunk_size, sink);
            return false;
        }
        const auto towrite = static_cast<size_t>(got);
        upi->crc32 = calc_crc32(upi->crc32, buf.bytes(), towrite);
        if (!sink.take(buf.bytes(), towrite)) return false;
        left -= towrite;
    }
    return true;
}

bool stream_entry(const szip_info_t* info, szip_upi_t* upi, const Sink& sink,
                  unsigned int chunk_size) {
    szip_local_header_t header;
    szip_create_local_header(info, upi, &header);
    if (!sink.take(&header, sizeof header) || !sink.take_name(upi)) return false;
    if (info->zip64) {
        szip_extra_local_t extra;
        szip_create_local_extra(&extra);
        if (!sink.take(&extra, sizeof extra)) return false;
    }
    if (upi->size != 0 && !szip_stream_single_file(upi, sink, chunk_size)) return false;
    szip_data_desc_t descriptor;
    const unsigned int size = szip_create_data_desc(info, upi, &descriptor);
    return sink.take(&descriptor, size);
}

bool stream_central_entry(const szip_info_t* info, const szip_upi_t* upi, const Sink& sink) {
    szip_central_header_t header;
    szip_create_central_entry(info, upi, &header);
    if (!sink.take(&header, sizeof header) || !sink.take_name(upi)) return false;
    if (!info->zip64) return true;
    szip_extra_central_t extra;
    szip_create_central_extra(upi, &extra);
    return sink.take(&extra, sizeof extra);
}

bool stream_zip64_end(szip_info_t* info, const Sink& sink) {
    szip_64_central_end_header_t end;
    szip_64_create_central_end(info, &end);
    if (!sink.take(&end, sizeof end)) return false;
    szip_64_central_end_locator_t locator;
    szip_64_create_central_loc(info, &locator);
    return sink.take(&locator, sizeof locator);
}

bool stream_archive(szip_info_t* info, const Sink& sink, unsigned int chunk_size) {
    for (unsigned int i = 0; i < info->count; ++i) {
        if (!stream_entry(info, &info->upi[i], sink, chunk_size)) return false;
    }
    for (unsigned int i = 0; i < info->count; ++i) {
        if (!stream_central_entry(info, &info->upi[i], sink)) return false;
    }
    if (info->zip64 && !stream_zip64_end(info, sink)) return false;
    szip_central_end_header_t end;
    szip_create_central_end_entry(info, &end);
    return sink.take(&end, sizeof end);
}

ssize_t szip_dflt_write(void* arg, const void* buf, size_t count) {
    return write(*static_cast<const int*>(arg), buf, count);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

TESSRA_EXPORTED int szip_stream_zip(szip_info_t* info, szip_write_func szip_write, void* warg,
                                    unsigned int chunk_size) {
    if (info == nullptr || szip_write == nullptr || chunk_size == 0) {
        errno = EINVAL;
        return 0;
    }
    return stream_archive(info, {szip_write, warg}, chunk_size) ? 1 : 0;
}

TESSRA_EXPORTED int szip_stream_zip_fd(int fd, szip_info_t* info, unsigned int chunk_size) {
    return szip_stream_zip(info, szip_dflt_write, &fd, chunk_size);
}
