// Checks the archive plan's paths. An input is a byte, then strings, each up to a NUL: base, zbase
// and the files. This program is the file system: every path exists, one that ends in 'd' is a
// directory, and the byte sets the size of files. A model computes names, sizes and failures again.
#include <sys/stat.h>
#include <tessra/szip.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr uint64_t kMostBytes = INT64_MAX;
constexpr size_t kLongestPath = 4095;
unsigned char sizes;

void check(bool holds) {
    if (!holds) abort();
}

bool is_directory(const std::string& path) { return path.back() == 'd'; }
uint64_t size_of(const std::string& path) {
    if (is_directory(path)) return 0;
    return sizes < 128 ? 0 : uint64_t{path.size()} << (sizes - 128) % 57;
}

// Plan and archive as the header describes them.
struct Model {
    std::vector<std::string> names;
    uint64_t bytes = 0, names_bytes = 0;
    bool zip64 = false;

    // Returns 0, or the error number of a plan with this file.
    int add(const std::string& file, const std::string& base, const std::string& zbase) {
        std::string path = file;
        if (file.substr(0, 1) != "/") {
            path = base.substr(0, 1) == "/" ? base : "/" + base;
            path += path.back() == '/' ? file : "/" + file;
        }
        if (path.size() > kLongestPath) return ENAMETOOLONG;
        const uint64_t size = size_of(path);
        if (is_directory(path)) path += "/";
        const std::string below = path.substr(1), top = zbase.substr(zbase.substr(0, 1) == "/");
        if (below.compare(0, top.size(), top) != 0) return EINVAL;
        std::string name = below.substr(top.size());
        if (!top.empty() && top.back() != '/' && name.substr(0, 1) != "/") return EINVAL;
        if (name.substr(0, 1) == "/") name.erase(0, 1);
        if (name.empty()) return EINVAL;
        names.push_back(name);
        zip64 = zip64 || size > UINT32_MAX;
        bytes += size + 30 + 20 + 24;  // As in ZIP64: header, extra field, descriptor.
        names_bytes += name.size();
        return size > kMostBytes || archive() > kMostBytes ? EFBIG : 0;
    }
    uint64_t archive() const {
        const uint64_t entries = names.size(), whole = bytes + 2 * names_bytes;
        const uint64_t plain = whole + entries * (46 - 28) + 22;
        const bool large = zip64 || plain > UINT32_MAX;
        return large ? whole + entries * (46 + 28) + 56 + 20 + 22 : plain;
    }
};

struct Sink {
    uint64_t count = 0;
    std::vector<std::string> pieces;
};
ssize_t take(void* to, const void* bytes, size_t count) {
    static_cast<Sink*>(to)->count += count;
    static_cast<Sink*>(to)->pieces.emplace_back(static_cast<const char*>(bytes), count);
    return static_cast<ssize_t>(count);
}

}  // namespace

extern "C" {

int stat64(const char* path, struct stat64* into) noexcept {
    *into = {};
    into->st_mode = is_directory(path) ? S_IFDIR : S_IFREG;
    into->st_size = static_cast<off64_t>(size_of(path));
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    sizes = data[0];
    std::vector<std::string> texts(1);
    for (size_t n = 1; n < size; ++n) {
        if (data[n] == 0) {
            texts.emplace_back();
        } else {
            texts.back() += static_cast<char>(data[n]);
        }
    }
    if (texts.size() < 3) return 0;
    Model model;
    int error = 0;
    std::vector<const char*> files;
    for (size_t n = 2; n < texts.size(); ++n) {
        files.push_back(texts[n].c_str());
        if (error == 0) error = model.add(texts[n], texts[0], texts[1]);
    }
    const auto count = static_cast<unsigned>(files.size());
    szip_info_t* const plan =
        szip_create_info(files.data(), count, texts[0].c_str(), texts[1].c_str());
    check((plan != nullptr) == (error == 0) && (plan || errno == error));
    if (!plan) return 0;
    check(szip_calc_size(plan, 0) == model.archive());
    Sink sink;
    if (model.archive() < 1 << 20 && sizes < 128) {
        check(szip_stream_zip(plan, take, &sink, 64) == 1 && sink.count == model.archive());
        for (size_t n = 0; n < count; ++n) {  // Header, name, descriptor of an empty file.
            check(sink.pieces[3 * n + 1] == model.names[n]);
            check(sink.pieces[3 * count + 2 * n + 1] == model.names[n]);
        }
    }
    szip_free_info(plan);
    return 0;
}

}  // extern "C"
