// The output of shell commands, and the device's variables, which two of its tools print.

#include <fcntl.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "internal/guards.h"
#include "tessra/misc.h"

namespace tessra {

namespace {

// The size of the command text's buffer, and of each step in which the output is read.
constexpr size_t kBlockSize = 1024;

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
bool read_all(const Command& command, HeapBlock& block, size_t& length) {
    length = 0;
    for (size_t size = kBlockSize;; size += kBlockSize) {
        if (!block.resize(size)) return false;
        const size_t got = command.read(block.bytes() + (size - kBlockSize), kBlockSize);
        length += got;
        if (got != kBlockSize) return true;
    }
}

__attribute__((format(printf, 1, 0))) char* output_of(const char* format, va_list arguments) {
    HeapBlock block(kBlockSize);
    if (!block) return nullptr;
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
