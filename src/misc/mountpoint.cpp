// The table of mounted file systems.

#include <mntent.h>

#include <cstring>

#include "internal/guards.h"

namespace tessra {

namespace {

class MountTable : NotCopyable {
public:
    MountTable() : file_(setmntent("/etc/mtab", "r")) {}
    ~MountTable() {
        if (file_ != nullptr) (void)endmntent(file_);
    }

    // False at the end of the table. The plain getmntent() has one buffer for all threads.
    bool next(const char*& directory) {
        mntent entry = {};
        if (file_ == nullptr) return false;
        if (getmntent_r(file_, &entry, line_, sizeof line_) == nullptr) return false;
        directory = entry.mnt_dir;
        return true;
    }

private:
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
        if (directory != nullptr && strcmp(directory, path) == 0) return 1;
    }
    return 0;
}
