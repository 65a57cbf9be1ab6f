// The streaming ZIP writer compared with other archivers, in process and as commands, and with the
// same system calls without a checksum. Each archive is made by a process of its own, of which the
// CPU time and the peak of memory are measured.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "bench.h"
#include "tessra/szip.h"

#ifdef BENCH_HAS_archive
#include <archive.h>
#include <archive_entry.h>
#endif
#ifdef BENCH_HAS_minizip
#include <minizip/zip.h>
#endif

namespace bench {

namespace {

constexpr unsigned kChunk = 65536;

struct Tree {
    std::string name;
    std::filesystem::path folder;
    std::vector<std::string> files;  // Names in the folder.
    std::vector<const char*> pointers;

    Tree(const std::string& title, unsigned count, size_t size) : name(title) {
        std::string last = "tessra-bench-" + title;
        std::replace(last.begin(), last.end(), ' ', '-');
        folder = std::filesystem::temp_directory_path() / last;
        std::filesystem::create_directories(folder);
        std::string data(size < kChunk ? size : kChunk, 0);
        Random random;
        for (char& c : data) c = char(random());
        for (unsigned n = 0; n < count; ++n) {
            files.push_back("file" + std::to_string(n));
            const auto path = folder / files.back();
            if (std::filesystem::exists(path) && std::filesystem::file_size(path) == size) continue;
            std::ofstream file(path, std::ios::binary);
            for (size_t done = 0; done < size; done += data.size()) file << data;
        }
        for (const std::string& file : files) pointers.push_back(file.c_str());
    }
};

using Writer = void (*)(const Tree& tree, int out);

void write_tessra(const Tree& tree, int out) {
    auto** names = const_cast<const char**>(tree.pointers.data());
    const std::string base = tree.folder.string();
    szip_info_t* plan =
        szip_create_info(names, unsigned(tree.files.size()), base.c_str(), base.c_str());
    if (szip_stream_zip_fd(out, plan, kChunk) != 1) abort();
    szip_free_info(plan);
}

// Makes the same calls with the same sizes: stat, three writes around each file's data, two in the
// directory.
void write_bare(const Tree& tree, int out) {
    std::vector<char> buffer(kChunk);
    const auto put = [&](std::initializer_list<size_t> counts) {
        for (const size_t count : counts) (void)!write(out, buffer.data(), count);
    };
    const bool zip64 = tree.files.size() > 65535;
    std::vector<off_t> sizes;
    for (const std::string& file : tree.files) {
        struct stat status;
        stat((tree.folder / file).c_str(), &status);
        sizes.push_back(status.st_size);
    }
    for (size_t n = 0; n < sizes.size(); ++n) {
        put({30, tree.files[n].size()});
        if (zip64) put({20});
        if (sizes[n] != 0) {
            const int fd = open((tree.folder / tree.files[n]).c_str(), O_RDONLY | O_CLOEXEC);
            for (off_t left = sizes[n]; left > 0;) {
                const ssize_t got =
                    read(fd, buffer.data(), size_t(left) < kChunk ? size_t(left) : kChunk);
                put({size_t(got)});
                left -= got;
            }
            close(fd);
        }
        put({zip64 ? 24U : 16U});
    }
    for (const std::string& file : tree.files) {
        put({46, file.size()});
        if (zip64) put({28});
    }
    if (zip64) put({56, 20});
    put({22});
}

#ifdef BENCH_HAS_archive
void write_libarchive(const Tree& tree, int out) {
    struct archive* archive = archive_write_new();
    archive_write_set_format_zip(archive);
    archive_write_zip_set_compression_store(archive);
    archive_write_open_fd(archive, out);
    std::vector<char> buffer(kChunk);
    for (const std::string& file : tree.files) {
        const std::string path = tree.folder / file;
        struct stat status;
        stat(path.c_str(), &status);
        archive_entry* entry = archive_entry_new();
        archive_entry_copy_stat(entry, &status);
        archive_entry_set_pathname(entry, file.c_str());
        archive_write_header(archive, entry);
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        for (ssize_t got; (got = read(fd, buffer.data(), kChunk)) > 0;) {
            archive_write_data(archive, buffer.data(), size_t(got));
        }
        close(fd);
        archive_entry_free(entry);
    }
    archive_write_close(archive);
    archive_write_free(archive);
}
#endif

#ifdef BENCH_HAS_minizip
// minizip seeks back to each header, so it never writes to a pipe.
void write_minizip(const Tree& tree, int) {
    zipFile archive = zipOpen64("/dev/null", APPEND_STATUS_CREATE);
    std::vector<char> buffer(kChunk);
    for (const std::string& file : tree.files) {
        const zip_fileinfo info = {};
        zipOpenNewFileInZip64(archive, file.c_str(), &info, nullptr, 0, nullptr, 0, nullptr, 0, 0,
                              1);
        const int fd = open((tree.folder / file).c_str(), O_RDONLY | O_CLOEXEC);
        for (ssize_t got; (got = read(fd, buffer.data(), kChunk)) > 0;) {
            zipWriteInFileInZip(archive, buffer.data(), unsigned(got));
        }
        close(fd);
        zipCloseFileInZip(archive);
    }
    zipClose(archive, nullptr);
}
#endif

// Returns a field of /proc/self/status, in KiB.
double memory(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) return atof(line.c_str() + strlen(field) + 1);
    }
    return 0;
}

Cost in_child(Writer writer, const Tree& tree, int out) {
    const Pipe result;
    const pid_t pid = fork();
    if (pid == 0) {
        std::ofstream("/proc/self/clear_refs") << "5";
        const double before = memory("VmRSS:");
        const double begin = thread_seconds();
        writer(tree, out);
        const Cost cost = {thread_seconds() - begin, memory("VmHWM:") - before};
        (void)!write(result.ends[1], &cost, sizeof cost);
        _exit(0);
    }
    Cost cost = wait_for(pid);
    (void)!read(result.ends[0], &cost, sizeof cost);
    return cost;
}

// Takes all that is written: /dev/null, or a pipe that a thread reads.
class Output {
public:
    explicit Output(bool piped) {
        if (!piped) {
            fd_ = open("/dev/null", O_WRONLY | O_CLOEXEC);
            return;
        }
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) abort();
        fd_ = ends[1];
        thread_ = std::thread([from = ends[0]] {
            std::vector<char> buffer(1 << 20);
            while (read(from, buffer.data(), buffer.size()) > 0) {
            }
            close(from);
        });
    }
    ~Output() {
        close(fd_);
        if (thread_.joinable()) thread_.join();
    }
    int fd() const { return fd_; }

private:
    int fd_;
    std::thread thread_;
};

void add_writer(const Tree& tree, bool piped, const char* peer, Writer writer) {
    add("zip of " + tree.name + (piped ? " to a pipe" : " to /dev/null"), peer,
        [&tree, piped, writer](Loop& loop) {
            const Output output(piped);
            while (loop.next()) {
                if (Loop::counting()) {
                    writer(tree, output.fd());
                    continue;
                }
                const Cost cost = in_child(writer, tree, output.fd());
                loop.took(cost.seconds);
                loop.peak(cost.kib);
            }
        },
        {1, Clock::kOwn, 1});
}

// Adds a whole command, run in the folder. If the archive goes to a pipe, the command prints it.
void add_command(const Tree& tree, bool piped, const char* peer, const char* command) {
    if (Loop::counting()) return;
    if (strcmp(peer, "tessra") != 0 && !has_program({peer, strcspn(peer, " ")})) return;
    add("zip of " + tree.name + " by a command to a " + (piped ? "pipe" : "file"), peer,
        [&tree, piped, command](Loop& loop) {
            const Output output(piped);
            while (loop.next()) {
                const Cost cost = run_command(command, tree.folder.c_str(), output.fd());
                loop.took(cost.seconds);
                loop.peak(cost.kib);
            }
        },
        {1, Clock::kOwn, 0});
}

void add_tree(const Tree& tree) {
    for (const bool piped : {false, true}) {
        add_writer(tree, piped, "tessra", write_tessra);
        add_writer(tree, piped, "bare calls", write_bare);
#ifdef BENCH_HAS_archive
        add_writer(tree, piped, "libarchive", write_libarchive);
#endif
#ifdef BENCH_HAS_minizip
        if (!piped) add_writer(tree, piped, "minizip", write_minizip);
#endif
    }
    // The commands, among them the library's filter.
    add_command(tree, true, "tessra", "ls -U | " TESSRA_BENCH_ZIPSTREAM " - 2>/dev/null");
    add_command(tree, true, "zip -0", "ls -U | exec zip -q -0 - -@");
    add_command(tree, true, "bsdtar",
                "ls -U | exec bsdtar -cf - --format zip --options zip:compression=store -T -");
    add_command(tree, true, "python3 zipfile",
                "exec python3 -c 'import os, sys, zipfile\nwith zipfile.ZipFile(sys.stdout.buffer, "
                "\"w\") as z:\n for n in os.listdir(): z.write(n)'");
    // 7-Zip seeks back in its archive, so these commands write to a file.
    add_command(tree, false, "tessra",
                "ls -U | " TESSRA_BENCH_ZIPSTREAM " - 2>/dev/null >../bench.zip");
    add_command(tree, false, "7zz -mx0",
                "rm -f ../bench.zip; exec 7zz a -tzip -mx0 -bd -bso0 ../bench.zip .");
}

}  // namespace

}  // namespace bench

void register_operations() {
    static const bench::Tree trees[] = {{"1 dense file of 512 MB", 1, 512U << 20},
                                        {"10,000 files of 2 KB", 10000, 2048},
                                        {"70,000 empty files", 70000, 0}};
    for (const bench::Tree& tree : trees) bench::add_tree(tree);
}
