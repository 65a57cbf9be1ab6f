// The table of mounted file systems.

#include <mntent.h>

#include <cstdio>
#include <cstring>

#include "internal/guards.h"

namespace tessra {

namespace {

bool is_octal(char digit) { return digit >= '0' && digit <= '7'; }

// The kernel writes \040 for a space, and likewise what else would break the line apart.
void decode(char* text) {
    char* to = text;
    for (const char* from = text; *from != 0; ++to) {
        if (from[0] == '\\' && is_octal(from[1]) && is_octal(from[2]) && is_octal(from[3])) {
            *to = static_cast<char>((from[1] - '0') * 64 + (from[2] - '0') * 8 + (from[3] - '0'));
            from += 4;
        } else {
            *to = *from++;
        }
    }
    *to = 0;
}

// Not by getmntent_r(): some C libraries leave \040 as it is, and take the rest of a line that is
// longer than the buffer for the next one.
class MountTable : NotCopyable {
public:
    MountTable() : file_(setmntent("/etc/mtab", "r")) {}
    ~MountTable() {
        if (file_ != nullptr) (void)endmntent(file_);
    }

    // False at the end of the table.
    bool next(const char*& directory) {
        while (file_ != nullptr && fgets(line_, sizeof line_, file_) != nullptr) {
            const bool cut = skip_rest_of_line();
            char* position = nullptr;
            const char* const device = strtok_r(line_, kBlanks, &position);
            char* const field = strtok_r(nullptr, kBlanks, &position);
            if (field == nullptr || *device == '#') continue;
            if (cut && strtok_r(nullptr, kBlanks, &position) == nullptr) continue;
            decode(field);
            directory = field;
            return true;
        }
        return false;
    }

private:
    static constexpr char kBlanks[] = " \t\n";

    // True if there was one.
    bool skip_rest_of_line() {
        if (strchr(line_, '\n') != nullptr) return false;
        bool cut = false;
        for (int c = fgetc(file_); c != EOF && c != '\n'; c = fgetc(file_)) cut = true;
        return cut;
    }

    FILE* file_;
    char line_[4096];
};

}  // namespace

}  // namespace tessra

int is_mountpoint(const char* path) {
    if (path == nullptr) return 0;
    tessra::MountTable table;
    const char* directory = nullptr;
    while (table.next(directory)) {
        if (strcmp(directory, path) == 0) return 1;
    }
    return 0;
}
