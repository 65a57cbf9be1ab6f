// The output of shell commands, and the device's variables, which two of its tools print.

#include "tessra/misc.h"

#include <fcntl.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/guards.h"

namespace tessra {

namespace {

// The size of the command text's buffer, and of each step in which the output is read.
constexpr size_t kBlockSize = 1024;

// A block of the heap. Its destructor doesn't change errno, which the caller reads after a failure.
class Block : NotCopyable {
public:
    Block() : bytes_(static_cast<char*>(calloc(kBlockSize, 1))) {}
    ~Block() {
        const ErrnoKeeper keep_errno;
        free(bytes_);
    }

    bool resize(size_t size) {
        void* const moved = realloc(bytes_, size);
        if (moved == nullptr) return false;
        bytes_ = static_cast<char*>(moved);
        return true;
    }
    char* release() {
        char* const bytes = bytes_;
        bytes_ = nullptr;
        return bytes;
    }
    char* bytes() const { return bytes_; }

private:
    char* bytes_;
};

// The standard output of a shell command. The destructor waits until the shell has terminated.
class Command : NotCopyable {
public:
    explicit Command(const char* text) : stream_(popen(text, "r")) {  // NOLINT(cert-env33-c)
        if (stream_ != nullptr) (void)fcntl(fileno(stream_), F_SETFD, FD_CLOEXEC);
    }
    ~Command() {
        const ErrnoKeeper keep_errno;
        if (stream_ != nullptr) (void)pclose(stream_);
    }

    bool runs() const { return stream_ != nullptr; }
    size_t read(char* bytes, size_t count) const { return fread(bytes, 1, count, stream_); }

private:
    FILE* stream_;
};

// Reads the whole output. The block is then larger than the output, so that a terminator fits.
// Returns false if memory is short.
bool read_all(const Command& command, Block& block, size_t& length) {
    length = 0;
    for (size_t size = kBlockSize;; size += kBlockSize) {
        if (!block.resize(size)) return false;
        const size_t got = command.read(block.bytes() + (size - kBlockSize), kBlockSize);
        length += got;
        if (got != kBlockSize) return true;
    }
}

__attribute__((format(printf, 1, 0))) char* output_of(const char* format, va_list arguments) {
    Block block;
    if (block.bytes() == nullptr) return nullptr;
    // If this fails, the buffer may hold a part of the command, which must not run.
    if (vsnprintf(block.bytes(), kBlockSize, format, arguments) < 0) return nullptr;
    const Command command(block.bytes());
    size_t length = 0;
    if (!command.runs() || !read_all(command, block, length)) return nullptr;
    char* const text = block.release();
    if (length != 0 && text[length - 1] == '\n') --length;
    text[length] = 0;
    return text;
}

// Parses a number and limits it to the range of an int, as strtol() does if a long has that range.
int parse_int(const char* text, char** end) {
    const long value = strtol(text, end, 10);
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

}  // namespace

}  // namespace tessra

using namespace tessra;

char* system_output(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* const output = output_of(format, arguments);
    va_end(arguments);
    return output;
}

char* get_fw_printenv(const char* part) { return system_output("fw_printenv -n %s", part); }

char* get_nrv_printenv(const char* part) { return system_output("nrv_printenv -n %s", part); }

void get_hw_rev(int* major, int* minor) {
    if (major == nullptr || minor == nullptr) return;
    char* const text = get_nrv_printenv("hw_rev");
    if (text == nullptr) {
        *major = 0;
        *minor = 0;
        return;
    }
    char* end = nullptr;
    *major = parse_int(text, &end);
    if (*end != 0) ++end;  // The separator may be any character.
    if (*end != 0) *minor = parse_int(end, nullptr);
    free(text);
}
