// The table of mounted file systems.

#include <fcntl.h>
#include <mntent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/guards.h"
#include "tessra/misc.h"

namespace tessra {

namespace {

// Returns true if a field of the table encodes this text. The table writes a blank, a tab, a
// newline or a backslash as a backslash and an octal number, or it writes a backslash as two. Any
// other backslash is an ordinary character.
bool field_is(const char* field, const char* text) {
    for (;; ++text) {
        char character = *field++;
        if (character == '\\') {
            const char* code = "040 011\t012\n134\\";
            while (*code != 0 && strncmp(field, code, 3) != 0) code += 4;
            if (*code != 0) {
                character = code[3];
                field += 3;
            } else if (*field == '\\') {
                ++field;
            }
        }
        if (character != *text) return false;
        if (character == 0) return true;
    }
}

// Returns true if a line of the table is an entry for the directory. Splits the line in place. An
// autofs file system with the option "ignore" asks programs to ignore its entry. Some versions of
// hasmntopt() also find the word inside another option, but the kernel writes no such option.
bool is_entry_of(char* line, const char* path) {
    char* fields[4];
    char* position = nullptr;
    for (char*& field : fields) {
        field = strtok_r(line, " \t\n", &position);
        line = nullptr;
    }
    const auto& [device, directory, type, options] = fields;
    if (directory == nullptr || *device == '#') return false;
    struct mntent entry;
    entry.mnt_opts = options;
    if (options != nullptr && strcmp(type, "autofs") == 0 &&
        hasmntopt(&entry, "ignore") != nullptr) {
        return false;
    }
    return field_is(directory, path);
}

// getmntent_r() isn't used. In some C libraries it doesn't decode \040, doesn't skip "ignore"
// entries, and takes the rest of a line that is longer than the buffer for the next line.
class MountTable : NotCopyable {
public:
    MountTable() : file_(setmntent("/etc/mtab", "r")) {}
    ~MountTable() {
        if (file_ != nullptr) (void)endmntent(file_);
        free(line_);
    }

    bool has(const char* path) {
        if (file_ == nullptr) return false;
        // Only the setmntent() of glibc sets this flag itself. With other C libraries, a process
        // that another thread starts between the two calls inherits the descriptor.
        (void)fcntl(fileno(file_), F_SETFD, FD_CLOEXEC);
        while (getline(&line_, &line_size_, file_) != -1) {
            if (is_entry_of(line_, path)) return true;
        }
        return false;
    }

private:
    FILE* file_;
    char* line_ = nullptr;
    size_t line_size_ = 0;
};

}  // namespace

}  // namespace tessra

int is_mountpoint(const char* path) {
    if (path == nullptr) return 0;
    tessra::MountTable table;
    return table.has(path) ? 1 : 0;
}
