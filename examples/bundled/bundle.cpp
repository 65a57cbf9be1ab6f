#include "bundle.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "log.h"

namespace bundled {

namespace {

// How often the list is made if files on it vanish before they are planned.
constexpr unsigned int kMaxPlans = 5;

/** An open directory. */
class Folder {
public:
    explicit Folder(const std::string& path) : stream_(opendir(path.c_str())) {}
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() {
        if (stream_ != nullptr) {
            (void)closedir(stream_);
        }
    }

    bool is_open() const { return stream_ != nullptr; }

    /** Returns the next name except "." and ".."; null after a failure, at the end with errno 0. */
    const char* next() {
        const dirent* item;
        do {
            errno = 0;
            item = readdir(stream_);
        } while (item != nullptr && is_dots(item->d_name));
        return item != nullptr ? item->d_name : nullptr;
    }

private:
    static bool is_dots(std::string_view name) { return name == "." || name == ".."; }

    DIR* stream_;
};

std::string join(const std::string& folder, std::string_view name) {
    std::string path = folder;
    if (path.back() != '/') {
        path += '/';
    }
    return path.append(name);
}

bool is_file_or_folder(const struct stat& info) {
    return S_ISREG(info.st_mode) || S_ISDIR(info.st_mode);
}

// A file that can't be opened would cut each stream of the bundle short.
bool is_readable(const std::string& path, const struct stat& info) {
    return access(path.c_str(), S_ISDIR(info.st_mode) ? R_OK | X_OK : R_OK) == 0;
}

void log_left_out(const std::string& path) {
    log_line("bundle: left out %s: %s", path.c_str(), std::strerror(errno));
}

/** The paths of the entries, and the directories that walk() must still read. */
struct Listing {
    TextTree entries{checked(BT_create(compare_texts))};
    PointerList folders{checked(LL_create())};  ///< Texts of the tree, and the base.

    // A path that was named twice is already in the tree, and walk() knows its directory.
    void take(const std::string& path, const struct stat& info) {
        Text text = copy(path);
        if (!enter(*entries, text.get(), text.get())) {
            return;
        }
        char* entry = text.release();
        if (S_ISDIR(info.st_mode)) {
            push(*folders, entry);
        }
    }
};

void take_found(Listing& listing, const std::string& path) {
    struct stat info;
    if (lstat(path.c_str(), &info) != 0) {
        log_left_out(path);
    } else if (is_file_or_folder(info)) {
        if (is_readable(path, info)) {
            listing.take(path, info);
        } else {
            log_left_out(path);
        }
    }
}

// Reads the directories one after another, until it finds no new ones.
bool walk(Listing& listing) {
    while (listing.folders->itemcount != 0) {
        const std::string path = static_cast<const char*>(LL_pop(listing.folders.get()));
        Folder folder(path);
        while (const char* name = folder.is_open() ? folder.next() : nullptr) {
            if (listing.entries->itemcount >= kMaxBundleEntries) {
                log_line("bundle: refused, more than %zu entries", kMaxBundleEntries);
                return false;
            }
            take_found(listing, join(path, name));
        }
        if (errno != 0) {
            log_line("bundle: left out the rest of %s: %s", path.c_str(), std::strerror(errno));
        }
    }
    return true;
}

bool take_named(Listing& listing, const BundleSettings& settings, std::string_view name) {
    const std::string path = name == "." ? settings.base : join(settings.base, name);
    struct stat info;
    const bool known = stat(path.c_str(), &info) == 0;
    if (!known || (is_file_or_folder(info) && !is_readable(path, info))) {
        log_line("bundle: refused, %s: %s", path.c_str(), std::strerror(errno));
        return false;
    }
    if (!is_file_or_folder(info) || (name == "." && !S_ISDIR(info.st_mode))) {
        log_line("bundle: refused, %s is of the wrong kind", path.c_str());
        return false;
    }
    if (name == ".") {
        push(*listing.folders, const_cast<char*>(settings.base.c_str()));  // No entry.
    } else {
        listing.take(path, info);
    }
    return true;
}

bool list_entries(const BundleSettings& settings, Listing& listing) {
    for (const LinkedListElement* path = settings.paths->head; path != nullptr; path = path->next) {
        if (!take_named(listing, settings, static_cast<char*>(path->value)) || !walk(listing)) {
            return false;
        }
    }
    if (listing.entries->itemcount == 0) {
        log_line("bundle: refused, nothing is in it");
    }
    return listing.entries->itemcount != 0;
}

szip_info_t* plan_entries(const BundleSettings& settings, BinaryTree& entries) {
    std::vector<const char*> files;
    files.reserve(entries.itemcount);
    for_each<const char>(entries, [&files](const char* path) { files.push_back(path); });
    return szip_create_info(files.data(), static_cast<unsigned int>(files.size()),
                            settings.base.c_str(), settings.base.c_str());
}

}  // namespace

szip_info_t* plan_bundle(const BundleSettings& settings) {
    for (unsigned int plans = 1;; ++plans) {
        Listing listing;
        if (!list_entries(settings, listing)) {
            return nullptr;
        }
        szip_info_t* info = plan_entries(settings, *listing.entries);
        if (info != nullptr) {
            return info;
        }
        const bool vanished = errno == ENOENT || errno == ENOTDIR;
        if (!vanished || plans == kMaxPlans) {
            log_line("bundle: refused, not planned: %s", std::strerror(errno));
            return nullptr;
        }
    }
}

}  // namespace bundled
