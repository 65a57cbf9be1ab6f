/**
 * @file szip_test.cpp
 * Archives byte for byte against a second writer, and what becomes of files that change.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/harness.h"
#include "tessra/szip.h"

namespace {

using tessra_test::open_descriptors;
using Pieces = std::vector<std::string>;
using Plan = std::unique_ptr<szip_info_t, void (*)(szip_info_t*)>;

constexpr uint64_t k4GiB = 1ull << 32;
constexpr time_t kStamp = 1000000001;  // 9 September 2001, 01:46:41 UTC,
constexpr unsigned kDosTime = 1 << 11 | 46 << 5 | 20, kDosDate = 21 << 9 | 9 << 5 | 9;

/** Large pieces are compared by their length. */
std::string shown(const std::string& piece) {
    return piece.size() > 4096 ? "#" + std::to_string(piece.size()) : piece;
}

/** A directory of files; in memory if possible, where reading holes costs nothing. */
struct Tree {
    Tree() {
        char memory[] = "/dev/shm/szip-XXXXXX", disk[] = "/tmp/szip-XXXXXX";
        const char* made = mkdtemp(memory);
        root = made ? made : mkdtemp(disk);
        setenv("TZ", "UTC", 1);
    }
    ~Tree() { std::filesystem::remove_all(root); }
    std::string path(const std::string& name) const { return root + "/" + name; }
    void put(const std::string& name, const std::string& data, uint64_t size) const {
        if (name.back() == '/') {
            std::filesystem::create_directories(path(name));
            return;
        }
        std::ofstream(path(name), std::ios::binary) << data;
        ASSERT_EQ(0, truncate(path(name).c_str(), static_cast<off_t>(size)));
    }
    void put(const std::string& name, const std::string& data) const {
        put(name, data, data.size());
    }
    void stamp(const std::string& name, time_t time = kStamp) const {
        const timespec times[] = {{0, 0}, {time, 999999999}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, path(name).c_str(), times, 0));
    }
    Plan plan(const Pieces& names) const {
        std::vector<const char*> files;
        for (const std::string& name : names) files.push_back(name.c_str());
        return {szip_create_info(files.data(), unsigned(files.size()), root.c_str(), root.c_str()),
                szip_free_info};
    }
    std::string root;
};

/** Takes pieces until the one with the number fail_at, which comes up short. */
struct Sink {
    Pieces pieces;
    uint64_t bytes = 0;
    size_t fail_at = SIZE_MAX;

    static ssize_t write(void* arg, const void* buf, size_t count) {
        auto& sink = *static_cast<Sink*>(arg);
        sink.bytes += count;
        sink.pieces.push_back(count > 4096 ? "#" + std::to_string(count)
                                           : std::string(static_cast<const char*>(buf), count));
        return ssize_t(count) - (sink.pieces.size() == sink.fail_at);
    }
    int stream(const Plan& plan, unsigned chunk_size) {
        return szip_stream_zip(plan.get(), write, this, chunk_size);
    }
};

struct Field {
    int width;
    uint64_t value;
};

std::string record(std::initializer_list<Field> fields) {
    std::string bytes;
    for (const Field& field : fields)
        for (int i = 0; i < field.width; i++) bytes += char(field.value >> 8 * i);
    return bytes;
}

struct Entry {
    std::string name;
    uint64_t size;  // All of it zeros, or data.
    uint32_t crc;
    std::string data = {};
};

/** The pieces of an archive as the format's own document has them. */
Pieces archive(const std::vector<Entry>& entries, bool zip64, uint64_t chunk_size) {
    Pieces pieces, directory;
    uint64_t offset = 0, directory_size = 0, local_offset = 0;
    const auto add = [&](const std::string& piece) {
        offset += piece.size();
        pieces.push_back(shown(piece));
    };
    const int wide = zip64 ? 8 : 4;
    const uint64_t version = zip64 ? 45 : 20, all = UINT32_MAX;
    for (const Entry& entry : entries) {
        const uint64_t size = entry.size, name = entry.name.size();
        local_offset = offset;
        add(record({{4, 0x04034b50},
                    {2, version},
                    {2, 8},
                    {2, 0},
                    {2, kDosTime},
                    {2, kDosDate},
                    {4, 0},
                    {4, 0},
                    {4, 0},
                    {2, name},
                    {2, zip64 ? 20u : 0}}));
        add(entry.name);
        if (zip64) add(record({{2, 1}, {2, 16}, {8, 0}, {8, 0}}));
        for (uint64_t done = 0; done < size; done += chunk_size) {
            const uint64_t count = std::min(chunk_size, size - done);
            offset += count;
            pieces.push_back(count > 4096         ? "#" + std::to_string(count)
                             : entry.data.empty() ? std::string(count, '\0')
                                                  : entry.data.substr(done, count));
        }
        add(record({{4, 0x08074b50}, {4, entry.crc}, {wide, size}, {wide, size}}));
        const bool mark = size > all || local_offset > all;
        directory.push_back(record({{4, 0x02014b50},
                                    {2, 45},
                                    {2, version},
                                    {2, 8},
                                    {2, 0},
                                    {2, kDosTime},
                                    {2, kDosDate},
                                    {4, entry.crc},
                                    {4, mark ? all : size},
                                    {4, mark ? all : size},
                                    {2, name},
                                    {2, zip64 ? 28u : 0},
                                    {2, 0},
                                    {2, 0},
                                    {2, 0},
                                    {4, 0},
                                    {4, mark ? all : local_offset}}));
        directory.push_back(entry.name);
        if (zip64)
            directory.push_back(record({{2, 1}, {2, 24}, {8, size}, {8, size}, {8, local_offset}}));
    }
    const uint64_t start = offset, count = entries.size();
    for (const std::string& piece : directory) add(piece);
    directory_size = offset - start;
    if (zip64) {
        add(record({{4, 0x06064b50},
                    {8, 44},
                    {2, 45},
                    {2, 45},
                    {4, 0},
                    {4, 0},
                    {8, count},
                    {8, count},
                    {8, directory_size},
                    {8, start}}));
        add(record({{4, 0x07064b50}, {4, 0}, {8, start + directory_size}, {4, 0}}));
    }
    const bool mark = count > 65535 || directory_size > all || start > all;
    add(record({{4, 0x06054b50},
                {2, 0},
                {2, 0},
                {2, mark ? 65535 : count},
                {2, mark ? 65535 : count},
                {4, mark ? all : directory_size},
                {4, mark ? all : start},
                {2, 0}}));
    return pieces;
}

/** Streams the entries twice and compares with the second writer. */
void expect_archive(const std::vector<Entry>& entries, bool zip64, unsigned chunk_size) {
    const Tree tree;
    Pieces names;
    for (const Entry& entry : entries) {
        if (names.empty() || names.back() != entry.name)
            tree.put(entry.name, entry.data, entry.size);
        names.push_back(entry.name);
    }
    for (size_t i = 0; i < names.size(); i++)
        if (i == 0 || names[i] != names[i - 1]) tree.stamp(names[i]);
    const Plan plan = tree.plan(names);
    ASSERT_NE(nullptr, plan) << strerror(errno);
    const Pieces expected = archive(entries, zip64, chunk_size);
    for (int round = 0; round < (entries[0].size < k4GiB / 2 ? 2 : 1); round++) {
        Sink sink;
        ASSERT_EQ(1, sink.stream(plan, chunk_size));
        EXPECT_EQ(sink.bytes, szip_calc_size(plan.get(), 0));
        ASSERT_EQ(expected.size(), sink.pieces.size());
        for (size_t i = 0; i < expected.size(); i++)
            ASSERT_EQ(expected[i], sink.pieces[i]) << "piece " << i;
    }
}

// The check value of the CRC is that of "123456789"; those of zeros were computed with zlib.
TEST(Szip, PlainArchives) {
    expect_archive({{"a", 9, 0xcbf43926, "123456789"}}, false, 64);
    expect_archive({{"a.txt", 9, 0xcbf43926, "123456789"},
                    {"sub/", 0, 0},
                    {"sub/b.bin", 1280, 0xfcc39d65},
                    {"empty", 0, 0}},
                   false, 1000);
    expect_archive(std::vector<Entry>(65535, {"e", 0, 0}), false, 1);
}

TEST(Szip, Zip64ByCount) { expect_archive(std::vector<Entry>(65536, {"e", 0, 0}), true, 1); }

// The largest plain archive, and the smallest one in ZIP64 mode by its size, all of whose values
// still fit the plain records.
TEST(Szip, ArchiveOfExactly4GiBLess1StaysPlain) {
    const uint64_t size = k4GiB - 1 - (114 + 2);
    const auto version_of = [](const Plan& plan) {
        Sink sink;
        sink.fail_at = 1;
        EXPECT_EQ(0, sink.stream(plan, 1));
        return int{sink.pieces[0][4]};
    };
    const Tree tree;
    tree.put("p", "", size);
    tree.put("z", "", size + 1);
    EXPECT_EQ(k4GiB - 1, szip_calc_size(tree.plan({"p"}).get(), 0));
    EXPECT_EQ(20, version_of(tree.plan({"p"})));
    EXPECT_EQ(45, version_of(tree.plan({"z"})));
    EXPECT_EQ(k4GiB + 28 + 28 + 76, szip_calc_size(tree.plan({"z"}).get(), 0));
    expect_archive({{"z", size + 1, 0x3e012a1a}}, true, 1 << 20);
}

// Markers for one entry because of its size, for the next because of its offset alone.
TEST(Szip, Zip64BySize) {
    expect_archive({{"big", k4GiB + 5, 0xb1c2a1a3}, {"small", 9, 0xcbf43926, "123456789"}}, true,
                   1 << 20);
}

TEST(Szip, TimeStampsAreLocalAndEven) {
    const struct {
        const char* zone;
        time_t stamp;
        unsigned time, date;
    } rows[] = {
        {"UTC", kStamp, kDosTime, kDosDate},
        {"XXX-2", kStamp, kDosTime + (2 << 11), kDosDate},
        {"UTC", 315532799, 23 << 11 | 59 << 5 | 29, 0 << 9 | 12 << 5 | 31},  // The end of 1979.
        {"UTC", 315532800, 0, 0 << 9 | 1 << 5 | 1},
    };
    const Tree tree;
    for (const auto& row : rows) {
        setenv("TZ", row.zone, 1);
        tzset();
        tree.put("f", "");
        tree.stamp("f", row.stamp);
        Sink sink;
        ASSERT_EQ(1, sink.stream(tree.plan({"f"}), 1));
        EXPECT_EQ(record({{2, row.time}, {2, row.date}}), sink.pieces[0].substr(10, 4));
        EXPECT_EQ(record({{2, row.time}, {2, row.date}}), sink.pieces[3].substr(12, 4));
    }
    setenv("TZ", "UTC", 1);
}

TEST(Szip, NamesAreThePathsBelowTheBase) {
    const Tree tree;
    tree.put("a/b/", "");
    tree.put("a/b/c", "");
    tree.put("a/bc", "");
    tree.put("a/link-target", "x");
    ASSERT_EQ(0, symlink("link-target", tree.path("a/link").c_str()));
    const std::string t = tree.root, bare = t.substr(1), none = "-";
    const struct {
        std::string base, zbase, file, name;  // "-" and the error number for a failed plan.
        int error = 0;
    } rows[] = {
        {bare + "/a/b", bare + "/a/b", "c", "c"},
        {t + "/a/b/", t + "/a/b/", "c", "c"},
        {t + "/a/b", t + "/a/b/", "c", "c"},
        {t + "/a/b", bare + "/a", "c", "b/c"},
        {t + "/a/b", "", "c", bare + "/a/b/c"},
        {"/", "/", bare + "/a/b/c", bare + "/a/b/c"},
        {"", "", bare + "/a/b/c", bare + "/a/b/c"},
        {"/unrelated", t + "/a/b", t + "/a/b/c", "c"},
        {"/" + t, "/", "a/bc", bare + "/a/bc"},
        {t + "/a", t + "/a", "b", "b/"},
        {t + "/a", t + "/a", "b/", "b/"},
        {t + "/a", t + "/a", "./b/../link", "./b/../link"},
        {t + "/a", t + "/a", "b//c", "b//c"},
        {t + "/a", t + "/a/b", "b//c", "/c"},
        {t + "/a", t + "/a/b", "bc", none, EINVAL},
        {t + "/a", t + "/a/b", "b", none, EINVAL},
        {t + "/a", t + "/a/b", "b/", none, EINVAL},
        {t + "/a", t + "/a/b/c/d", "b", none, EINVAL},
        {t + "/a", t + "/a/bc", "bc", none, EINVAL},
        {t + "/a", t, "gone", none, ENOENT},
        {t + "/a", t, "bc/x", none, ENOTDIR},
        {t, t, "", none, EINVAL},
        {t, t, std::string(4096, '/'), none, ENAMETOOLONG},
        {std::string(2048, '/'), "", std::string(2049 - 4, '.') + "/a/b", none, ENAMETOOLONG},
    };
    for (const auto& row : rows) {
        const char* files[] = {row.file.c_str()};
        errno = 0;
        const Plan plan(szip_create_info(files, 1, row.base.c_str(), row.zbase.c_str()),
                        szip_free_info);
        Sink sink;
        sink.fail_at = 2;
        if (plan) sink.stream(plan, 1);
        EXPECT_EQ(row.name, plan ? sink.pieces[1] : none) << row.base << " " << row.file;
        if (!plan) EXPECT_EQ(row.error, errno) << row.file;
    }
    const char* missing[] = {"a/bc", nullptr};
    EXPECT_EQ(nullptr, szip_create_info(missing, 2, t.c_str(), ""));
    EXPECT_EQ(nullptr, szip_create_info(missing, 0, t.c_str(), ""));
    EXPECT_EQ(nullptr, szip_create_info(missing, 1, nullptr, ""));
    EXPECT_EQ(nullptr, szip_create_info(missing, 1, t.c_str(), nullptr));
    EXPECT_EQ(nullptr, szip_create_info(nullptr, 1, t.c_str(), ""));
    EXPECT_EQ(0u, szip_calc_size(nullptr, 0));
    szip_free_info(nullptr);
}

size_t read_limit;
std::vector<size_t> reads;

ssize_t limited_read(int fd, void* bytes, size_t count) {
    reads.push_back(count);
    if (reads.size() == 2) {
        errno = EINTR;
        return -1;
    }
    return real_read(fd, bytes, std::min(count, read_limit));
}

std::vector<size_t> data_lengths(const Sink& sink) {
    std::vector<size_t> lengths;
    for (size_t i = 2; i < sink.pieces.size(); i++) lengths.push_back(sink.pieces[i].size());
    return lengths;
}

// What the writer does with a file that changed after it was planned with ten bytes.
TEST(Szip, ChangedFiles) {
    using Lengths = std::vector<size_t>;
    const auto put = [](const char* data) {
        return [data](const Tree& tree) { tree.put("f", data); };
    };
    const auto replace = [](const std::function<int(const char*)>& make) {
        return [make](const Tree& tree) {
            ASSERT_EQ(0, unlink(tree.path("f").c_str()));
            ASSERT_EQ(0, make(tree.path("f").c_str()));
        };
    };
    const struct {
        const char* what;
        std::function<void(const Tree&)> change;
        unsigned chunk_size;
        size_t read_limit;
        Lengths lengths;  // Of all pieces behind the name.
        int result;
    } rows[] = {
        {"not at all", put("0123456789"), 4, 100, {4, 4, 2, 16, 46, 1, 22}, 1},
        {"short reads", put("0123456789"), 4, 3, {3, 3, 3, 1, 16, 46, 1, 22}, 1},
        {"one piece", put("0123456789"), 100, 100, {10, 16, 46, 1, 22}, 1},
        {"grown", put("0123456789abc"), 100, 100, {10, 16, 46, 1, 22}, 1},
        {"shrunken", put("012"), 4, 100, {3, 4, 3}, 0},
        {"emptied", put(""), 4, 100, {4, 4, 2}, 0},
        {"removed", replace([](const char*) { return 0; }), 4, 100, {}, 0},
        {"a directory", replace([](const char* path) { return mkdir(path, 0700); }), 4, 100, {}, 0},
        {"a FIFO",
         replace([](const char* path) { return mkfifo(path, 0600); }),
         4,
         100,
         {4, 4, 2},
         0},
    };
    const int descriptors = open_descriptors();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const Tree tree;
        tree.put("f", "0123456789");
        const Plan plan = tree.plan({"f"});
        row.change(tree);
        Sink sink;
        read_limit = row.read_limit;
        reads.clear();
        fakes.on_read = limited_read;
        EXPECT_EQ(row.result, sink.stream(plan, row.chunk_size));
        fakes.on_read = nullptr;
        EXPECT_EQ(row.lengths, data_lengths(sink));
        for (const size_t count : reads) EXPECT_LE(count, row.chunk_size);
    }
    EXPECT_EQ(descriptors, open_descriptors());
}

TEST(Szip, AnEntryWithoutBytesIsNotOpened) {
    const Tree tree;
    tree.put("e", "");
    tree.put("d/", "");
    const Plan plan = tree.plan({"e", "d"});
    std::filesystem::remove_all(tree.path("e"));
    std::filesystem::remove_all(tree.path("d"));
    Sink sink;
    EXPECT_EQ(1, sink.stream(plan, 1));
    EXPECT_EQ(std::string("d/"), sink.pieces[4]);
}

// Whichever write comes up short, it is the last, and the plan can still be streamed.
TEST(Szip, AShortWriteIsTheLast) {
    const Tree tree;
    tree.put("f", "0123456789");
    tree.put("d/", "");
    const Plan plan = tree.plan({"f", "d"});
    Sink whole;
    ASSERT_EQ(1, whole.stream(plan, 4));
    const int descriptors = open_descriptors();
    for (size_t k = 1; k <= whole.pieces.size(); k++) {
        Sink sink;
        sink.fail_at = k;
        EXPECT_EQ(0, sink.stream(plan, 4));
        EXPECT_EQ(Pieces(whole.pieces.begin(), whole.pieces.begin() + long(k)), sink.pieces);
    }
    EXPECT_EQ(descriptors, open_descriptors());
    Sink none;
    EXPECT_EQ(0, none.stream(plan, 0));
    EXPECT_EQ(0, szip_stream_zip(plan.get(), nullptr, &none, 4));
    EXPECT_EQ(0, none.stream({nullptr, szip_free_info}, 4));
    EXPECT_TRUE(none.pieces.empty());
}

TEST(Szip, WritesToADescriptor) {
    const Tree tree;
    tree.put("f", "0123456789");
    const Plan plan = tree.plan({"f"});
    Sink sink;
    sink.stream(plan, 64);
    std::string expected, got(4096, '\0');
    for (const std::string& piece : sink.pieces) expected += piece;
    const tessra_test::Pipe pipe;
    ASSERT_EQ(1, szip_stream_zip_fd(pipe.out, plan.get(), 64));
    got.resize(size_t(read(pipe.in, got.data(), got.size())));
    EXPECT_EQ(expected, got);
    ASSERT_EQ(0, fcntl(pipe.out, F_SETFL, O_NONBLOCK));
    while (write(pipe.out, "", 1) == 1) continue;
    EXPECT_EQ(0, szip_stream_zip_fd(pipe.out, plan.get(), 64));
}

TEST(Szip, MoreEntriesThanMemory) {
    const char* file = "f";
    if (sizeof(size_t) == 4) EXPECT_EQ(nullptr, szip_create_info(&file, UINT_MAX, "/", "/"));
}

}  // namespace
