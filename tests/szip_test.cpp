// Compares archives byte for byte with those of a second writer, also of files that change.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <thread>
#include <tuple>

#include "support/harness.h"
#include "tessra/szip.h"

namespace {

using tessra_test::open_descriptors;
using Pieces = std::vector<std::string>;
using Plan = std::unique_ptr<szip_info_t, void (*)(szip_info_t*)>;

constexpr uint64_t k4GiB = 1ull << 32;
constexpr time_t kStamp = 1000000001;  // 9 September 2001, 01:46:41 UTC,
constexpr unsigned kDosTime = 1 << 11 | 46 << 5 | 20, kDosDate = 21 << 9 | 9 << 5 | 9;

// Large pieces are compared by their length.
std::string shown(const char* bytes, uint64_t count) {
    return count > 4096 ? "#" + std::to_string(count) : std::string(bytes, count);
}

// A directory of files. It is in memory if possible, where reading holes costs nothing.
struct Tree {
    Tree() {
        char memory[] = "/dev/shm/szip-XXXXXX", disk[] = "/tmp/szip-XXXXXX";
        const char* made = mkdtemp(memory);
        root = made ? made : mkdtemp(disk);
        setenv("TZ", "UTC", 1);
    }
    ~Tree() { std::filesystem::remove_all(root); }
    std::string path(const std::string& name) const { return root + "/" + name; }
    void put(const std::string& name, const std::string& data, uint64_t size = 0) const {
        if (name.back() == '/') {
            std::filesystem::create_directories(path(name));
        } else {
            std::ofstream(path(name), std::ios::binary) << data;
            std::filesystem::resize_file(path(name), std::max<uint64_t>(size, data.size()));
        }
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

// Takes pieces, and refuses a byte of the one with the number fail_at.
struct Sink {
    Pieces pieces;
    uint64_t bytes = 0;
    size_t fail_at = SIZE_MAX;

    static ssize_t write(void* arg, const void* buf, size_t count) {
        auto& sink = *static_cast<Sink*>(arg);
        sink.bytes += count;
        sink.pieces.push_back(shown(static_cast<const char*>(buf), count));
        return ssize_t(count) - (sink.pieces.size() == sink.fail_at);
    }
    int stream(const Plan& plan, unsigned chunk_size) {
        return szip_stream_zip(plan.get(), write, this, chunk_size);
    }
};

// Returns little-endian numbers of these widths.
std::string record(const char* widths, std::initializer_list<uint64_t> values) {
    std::string bytes;
    for (const uint64_t value : values) {
        for (int i = 0; i < *widths - '0'; ++i) bytes += char(value >> 8 * i);
        ++widths;
    }
    return bytes;
}

struct Entry {
    std::string name;
    uint64_t size;  // Of zeros, or of data.
    uint32_t crc;
    std::string data = {};
};

const char zeros[4096] = {};

// Returns the pieces of an archive as the format's own document defines them.
Pieces archive(const std::vector<Entry>& entries, bool zip64, uint64_t chunk_size) {
    Pieces pieces, directory;
    uint64_t offset = 0;
    const auto add = [&](const std::string& piece) {
        offset += piece.size();
        pieces.push_back(shown(piece.data(), piece.size()));
    };
    const uint64_t version = zip64 ? 45 : 20, all = UINT32_MAX;
    for (const auto& [entry_name, size, crc, data] : entries) {
        const uint64_t name = entry_name.size(), local = offset;
        add(record("42222244422", {0x04034b50, version, 8, 0, kDosTime, kDosDate, 0, 0, 0, name,
                                   zip64 ? 20u : 0}));
        add(entry_name);
        if (zip64) add(record("2288", {1, 16, 0, 0}));
        for (uint64_t done = 0; done < size; done += chunk_size) {
            const uint64_t count = std::min(chunk_size, size - done);
            offset += count;
            pieces.push_back(shown(data.empty() ? zeros : data.data() + done, count));
        }
        add(record(zip64 ? "4488" : "4444", {0x08074b50, crc, size, size}));
        const bool mark = size > all || local > all;
        const uint64_t told = mark ? all : size;
        directory.push_back(record("42222224442222244",
                                   {0x02014b50, 45, version, 8, 0, kDosTime, kDosDate, crc, told,
                                    told, name, zip64 ? 28u : 0, 0, 0, 0, 0, mark ? all : local}));
        directory.push_back(entry_name);
        if (zip64) directory.push_back(record("22888", {1, 24, size, size, local}));
    }
    const uint64_t start = offset, count = entries.size();
    for (const std::string& piece : directory) add(piece);
    const uint64_t length = offset - start;
    if (zip64) {
        add(record("4822448888", {0x06064b50, 44, 45, 45, 0, 0, count, count, length, start}));
        add(record("4484", {0x07064b50, 0, start + length, 0}));
    }
    const bool mark = count > 65535 || length > all || start > all;
    const uint64_t told = mark ? 65535 : count;
    add(record("42222442",
               {0x06054b50, 0, 0, told, told, mark ? all : length, mark ? all : start, 0}));
    return pieces;
}

// Streams the entries twice and compares with the second writer.
void expect_archive(const std::vector<Entry>& entries, bool zip64, unsigned chunk_size) {
    const Tree tree;
    Pieces names;
    for (const Entry& entry : entries) {
        if (names.empty() || names.back() != entry.name) {
            tree.put(entry.name, entry.data, entry.size);
        }
        names.push_back(entry.name);
    }
    for (const std::string& name : std::set<std::string>(names.begin(), names.end())) {
        tree.stamp(name);
    }
    const Plan plan = tree.plan(names);
    ASSERT_NE(nullptr, plan) << strerror(errno);
    const Pieces expected = archive(entries, zip64, chunk_size);
    for (int round = 0; round < (entries[0].size < k4GiB / 2 ? 2 : 1); ++round) {
        Sink sink;
        ASSERT_EQ(1, sink.stream(plan, chunk_size));
        EXPECT_EQ(sink.bytes, szip_calc_size(plan.get(), 0));
        ASSERT_EQ(expected.size(), sink.pieces.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            ASSERT_EQ(expected[i], sink.pieces[i]) << "piece " << i;
        }
    }
    if (!zip64 || entries[0].size != 0) return;
    // A short write of the first extra record, the last one, or an end is the last write.
    const size_t count = expected.size();
    for (const size_t k : {size_t{3}, count - 3, count - 2, count - 1}) {
        Sink sink;
        sink.fail_at = k;
        EXPECT_EQ(0, sink.stream(plan, chunk_size));
        EXPECT_EQ(k, sink.pieces.size());
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

// The largest plain archive, and the smallest one that is ZIP64 because of its size. All values of
// the second still fit the plain records.
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

// One entry has markers because of its size, the next because of its offset alone.
TEST(Szip, Zip64BySize) {
    expect_archive({{"big", k4GiB + 5, 0xb1c2a1a3}, {"small", 9, 0xcbf43926, "123456789"}}, true,
                   1 << 20);
}

std::vector<uint64_t> stat_sizes;  // stat() gives these to the files "0", "1" and so on.

// With a name of one byte the records of an entry take 150 bytes; those behind all entries take 98.
TEST(Szip, LongerArchiveThanAnOffsetCountsIsPlanned) {
    constexpr uint64_t longest = INT64_MAX;
    const struct {
        std::vector<uint64_t> sizes;
        bool fits;
    } rows[] = {
        {{longest - 98 - 150}, true},   {{longest - 98 - 149}, false},
        {{0, longest - 398}, true},     {{longest - 397, 0}, false},
        {{longest - 75, 0}, false},  // The second entry begins at the largest offset.
        {{longest, longest, 2}, false}, {{longest - 248, longest}, false},  // The sums wrap.
        {{UINT64_MAX}, false},  // The file system reports a size of -1.
    };
    const Tree tree;
    fakes.after_stat = [](const char* path, struct stat64* info) {
        info->st_size = off64_t(stat_sizes[size_t(path[strlen(path) - 1] - '0')]);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        stat_sizes = row.sizes;
        Pieces names;
        for (size_t n = 0; n < row.sizes.size(); ++n) tree.put(names.emplace_back(1, '0' + n), "");
        errno = 0;
        const Plan plan = tree.plan(names);
        EXPECT_EQ(row.fits ? 0 : EFBIG, errno);
        EXPECT_EQ(row.fits ? longest : 0, szip_calc_size(plan.get(), 0));
    }
    fakes.after_stat = nullptr;
}

TEST(Szip, TimeStampsAreLocalAndEven) {
    const std::tuple<const char*, time_t, unsigned, unsigned> rows[] = {
        {"UTC", kStamp, kDosTime, kDosDate},
        {"XXX-2", kStamp, kDosTime + (2 << 11), kDosDate},
        {"UTC", 315532799, 23 << 11 | 59 << 5 | 29, 0 << 9 | 12 << 5 | 31},  // The end of 1979.
        {"UTC", 315532800, 0, 0 << 9 | 1 << 5 | 1},
        {"UTC", INT64_MAX, 0, 0 << 9 | 1 << 5 | 1},  // struct tm can't hold such a year.
    };
    const Tree tree;
    static time_t stat_time;
    fakes.after_stat = [](const char*, struct stat64* info) { info->st_mtime = stat_time; };
    for (const auto& [zone, stamp, time, date] : rows) {
        if (stamp < 0) continue;  // INT64_MAX as a time_t of 32 bits.
        setenv("TZ", zone, 1);
        tzset();
        tree.put("f", "");
        stat_time = stamp;
        Sink sink;
        ASSERT_EQ(1, sink.stream(tree.plan({"f"}), 1));
        const std::string expected = record("22", {time, date});
        EXPECT_EQ(expected, sink.pieces[0].substr(10, 4));
        EXPECT_EQ(expected, sink.pieces[3].substr(12, 4));
    }
    fakes.after_stat = nullptr;
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
        {t + "/a/b/", t + "/a/b/", "c", "c"},
        {t + "/a/b", "", "c", bare + "/a/b/c"},
        {"/unrelated", t + "/a/b", t + "/a/b/c", "c"},
        {"/" + t, "/", "a/bc", bare + "/a/bc"},
        {bare + "/a", t + "/a", "bc", "bc"},
        {t + "/a", t + "/a", "b", "b/"},
        {t + "/a", t + "/a", "b/", "b/"},
        {t + "/a", t + "/a", "./b/../link", "./b/../link"},
        {t + "/a", t + "/a/b", "b//c", "/c"},
        {t + "/a", t + "/a/b", "b/", none, EINVAL},
        {t + "/a", t + "/a/bc", "bc", none, EINVAL},
        {t + "/a", t, "gone", none, ENOENT},
        {t + "/a", t, "bc/x", none, ENOTDIR},
        {t, t, std::string(4096, '/'), none, ENAMETOOLONG},
        {std::string(4096, '/'), "", "tmp", none, ENAMETOOLONG},  // Not "/tmp".
        {std::string(2048, '/'), "", std::string(2049 - 4, '.') + "/a/b", none, ENAMETOOLONG},
    };
    for (const auto& row : rows) {
        const char* files[] = {row.file.c_str()};
        fakes.fail[FAKE_FREE] = EIO;  // An old C library's free() may change errno.
        errno = 0;
        const Plan plan(szip_create_info(files, 1, row.base.c_str(), row.zbase.c_str()),
                        szip_free_info);
        fakes.fail[FAKE_FREE] = 0;
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
    if (sizeof(size_t) == 4) EXPECT_EQ(nullptr, szip_create_info(missing, UINT_MAX, "/", "/"));
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

// A file changes after it was planned with ten bytes.
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
        {"removed", replace([](auto) { return 0; }), 4, 100, {}, 0},
        {"a directory", replace([](auto path) { return mkdir(path, 0700); }), 4, 100, {}, 0},
        {"a FIFO", replace([](auto path) { return mkfifo(path, 0600); }), 4, 9, {4, 4, 2}, 0},
    };
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);  // The file gets this number.
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
        fakes.fail[FAKE_CLOSE] = EIO;
        EXPECT_EQ(row.result, sink.stream(plan, row.chunk_size));
        EXPECT_NE(EIO, errno);
        fakes.fail[FAKE_CLOSE] = 0;
        fakes.on_read = nullptr;
        Lengths lengths;
        for (size_t i = 2; i < sink.pieces.size(); ++i) lengths.push_back(sink.pieces[i].size());
        EXPECT_EQ(row.lengths, lengths);
        const std::string last = sink.pieces.back(), fill(last.size(), 0);
        EXPECT_EQ(row.result || lengths.empty() ? last : fill, last);
        for (const size_t count : reads) EXPECT_LE(count, row.chunk_size);
    }
    EXPECT_EQ(descriptors, open_descriptors());
    dup2(input, STDIN_FILENO);
    close(input);
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

// A short write is the last one, whichever it is. The plan can still be streamed.
TEST(Szip, AShortWriteIsTheLast) {
    const Tree tree;
    tree.put("f", "0123456789");
    tree.put("d/", "");
    const Plan plan = tree.plan({"f", "d"});
    Sink whole;
    ASSERT_EQ(1, whole.stream(plan, 4));
    const int descriptors = open_descriptors();
    for (size_t k = 1; k <= whole.pieces.size(); ++k) {
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

std::atomic<bool> handled;

ssize_t write_all(void* arg, const void* buf, size_t count) {
    for (size_t done = 0; done < count;) {
        const ssize_t taken =
            write(*static_cast<int*>(arg), static_cast<const char*>(buf) + done, count - done);
        if (taken < 0 && errno != EINTR) return -1;
        if (taken > 0) done += size_t(taken);
    }
    return ssize_t(count);
}

// The two ways to stream while signals arrive, and the effect of having neither.
TEST(Szip, HandledSignalCutsAStreamShort) {
    const struct {
        const char* what;
        bool blocked, goes_on;
    } rows[] = {{"neither", false, false}, {"blocked", true, false}, {"goes on", false, true}};
    const Tree tree;
    tree.put("f", "", 1 << 20);
    const Plan plan = tree.plan({"f"});
    struct sigaction action = {}, before;
    action.sa_handler = [](int) { handled = true; };
    action.sa_flags = SA_RESTART;
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &before));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        int ends[2], whole = -1;
        ASSERT_EQ(0, pipe(ends));
        handled = false;
        std::thread stream([&] {
            sigset_t all, mask;
            sigfillset(&all);
            if (row.blocked) pthread_sigmask(SIG_SETMASK, &all, &mask);
            whole = row.goes_on ? szip_stream_zip(plan.get(), write_all, &ends[1], 65536)
                                : szip_stream_zip_fd(ends[1], plan.get(), 65536);
            close(ends[1]);
            EXPECT_EQ(!row.blocked, handled);
            if (row.blocked) pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        });
        // A chunk is larger than the room in the pipe, so the write has begun and waits.
        for (pollfd room = {ends[1], POLLOUT, 0}; poll(&room, 1, 0) != 0;) sched_yield();
        pthread_kill(stream.native_handle(), SIGUSR1);
        while (!row.blocked && !handled) sched_yield();
        uint64_t arrived = 0;
        std::vector<char> bytes(65536);
        for (ssize_t got; (got = read(ends[0], bytes.data(), bytes.size())) > 0;) {
            arrived += uint64_t(got);
        }
        stream.join();
        close(ends[0]);
        EXPECT_TRUE(handled);
        const bool is_whole = row.blocked || row.goes_on;
        EXPECT_EQ(is_whole, whole);
        EXPECT_EQ(is_whole, arrived == szip_calc_size(plan.get(), 0)) << arrived;
    }
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
