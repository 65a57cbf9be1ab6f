// Output of commands, the device environment, mount points, error lines, PID file and locks.
#include <dlfcn.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "support/harness.h"
#include "tessra/create_pid_file.h"
#include "tessra/error_functions.h"
#include "tessra/misc.h"
#include "tessra/region_locking.h"

using namespace tessra_test;

namespace {

FILE* mount_table;
int mount_table_flags;  // Flags of its descriptor, at the time of endmntent().

std::string owned(char* text) {
    const std::string copy = text ? text : "null";
    free(text);
    return copy;
}

// A temporary file, which the destructor removes.
struct TempFile {
    explicit TempFile(const std::string& text) {
        close(mkstemp(&path[0]));
        std::ofstream(path) << text;
    }
    ~TempFile() { unlink(name()); }
    const char* name() const { return path.c_str(); }
    std::string text() const { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }
    std::string path = "/tmp/tessra-misc-XXXXXX";
};

}  // namespace

extern "C" {
FILE* setmntent(const char* path, const char*) __THROW {
    return strcmp(path, "/etc/mtab") == 0 ? mount_table : nullptr;
}
int endmntent(FILE* table) __THROW {
    mount_table_flags = fcntl(fileno(table), F_GETFD);
    fclose(table);
    return 1;
}
}

namespace {

TEST(SystemOutput, OutputIsCutOrChanged) {
    for (const int size : {0, 1023, 1024, 1025, 2048}) {
        EXPECT_EQ(std::string(static_cast<size_t>(size), 'x'),
                  owned(system_output("head -c %d /dev/zero | tr '\\0' x", size)));
    }
    const std::string x(2000, 'x');
    const std::string rows[][2] = {
        {"printf 'a\\nb\\n\\n'", "a\nb\n"}, {"printf '\\n'", ""},    {"printf 'a\\0b'", "a"},
        {"/none 2>/dev/null", ""},          {"echo 1; exit 3", "1"}, {"echo " + x, x.substr(982)}};
    const int next = dup(STDIN_FILENO);
    close(next);
    for (const auto& row : rows) {
        at_call(FAKE_FREAD, [next] { EXPECT_EQ(FD_CLOEXEC, fcntl(next, F_GETFD)); });
        EXPECT_EQ(row[1], owned(system_output("%s", row[0].c_str())));
    }
    EXPECT_EQ("null", owned(system_output("echo 1 %ls", L"\x20ac")));  // Not "1".
}

ISOLATED_TEST(DeviceEnvironment, VariableOrRevisionIsReadWrongly) {
    const TempFile fw("name\na=1\nname=x=y\n");
    setenv("PATH", (std::string(TESSRA_TOOLS ":") + getenv("PATH")).c_str(), 1);
    setenv("TESSRA_FW_ENV", fw.name(), 1);
    EXPECT_EQ("x=y", owned(get_fw_printenv("name")));
    EXPECT_EQ("", owned(get_fw_printenv("name=x")));  // Not "x=y" or "y".
    const struct {
        const char* value;
        int major, minor;
    } rows[] = {{"2.1", 2, 1}, {"2-10", 2, 10},
                {"3", 3, 7},   {"3.", 3, 7},
                {"4.x", 4, 0}, {"x5", 0, 5},
                {"", 0, 7},    {"99999999999.-99999999999", INT_MAX, INT_MIN}};
    for (const auto& row : rows) {
        const TempFile nrv(std::string("hw_rev=") + row.value);
        setenv("TESSRA_NRV_ENV", nrv.name(), 1);
        int major = 7, minor = 7;
        get_hw_rev(&major, &minor);
        EXPECT_TRUE(major == row.major && minor == row.minor) << row.value << major << ' ' << minor;
        fail_allocation = 1;
        get_hw_rev(&major, &minor);
        EXPECT_TRUE(major == 0 && minor == 0);
    }
}

// Returns the directories of a table as glibc reads it; with other C libraries none, since these
// decode less.
std::set<std::string> directories_by_libc([[maybe_unused]] const char* table) {
    std::set<std::string> directories;
#if __GLIBC_PREREQ(2, 31)
    FILE* const file = fopen(table, "r");
    while (const mntent* entry = getmntent(file)) directories.insert(entry->mnt_dir);
    fclose(file);
#endif
    return directories;
}

TEST(MountPoint, PathIsFoundOrMissed) {
    const std::string x(4096, 'x');
    const TempFile table("dev / ext4 rw 0 0\n#dev /no ext4 rw 0 0\ndev /a\\040b ext4 rw 0 0\n\n" +
                         x.substr(9) + " /long x" + x + " /no\n" + x.substr(5) +
                         " /not cut\none\n" +
                         R"(dev /\\040\\\\134\134\011\0128\01\ ext4 rw
a /x\101\043\000 ext4 rw
  \043a	/hash	ext4 	ignore
  #a /no ext4 rw
a /auto autofs rw,direct,ignore,pipe_ino=1 0 0
a /auto1 autofs ignore=1
a /direct autofs rw ignore
a /bare autofs
dev	/\134040\08)");
    const std::set<std::string> by_libc = directories_by_libc(table.name());
    // '+' is found, '-' is missed: first by the library, then by glibc, which cuts long lines and
    // finds an entry without a directory.
    for (const char* path :
         {"++/", "++/a b", "++/long", "+-/not", "-+/no", "-+", "--one", "--/a", "--/a b/",
          "++/\\040\\\\134\\\t\n8\\01\\", "++/x\\101\\043\\000", "--/x", "++/hash", "--/auto",
          "--/auto1", "++/direct", "++/bare", "++/\\040\\08"}) {
        mount_table = fopen(table.name(), "r");
        EXPECT_EQ(path[0] == '+', is_mountpoint(path + 2)) << path;
        EXPECT_EQ(FD_CLOEXEC, mount_table_flags);
        if (!by_libc.empty()) EXPECT_EQ(path[1] == '+', by_libc.count(path + 2) == 1) << path;
    }
    mount_table = nullptr;
    EXPECT_TRUE(is_mountpoint("/") == 0 && is_mountpoint(nullptr) == 0);
}

#ifdef __UCLIBC__
const char* strerrorname_np(int) { return nullptr; }
#endif

// Compares the names with those of the C library.
TEST(Errors, NameOrErrnoIsWrong) {
    if (!strerrorname_np(EPERM)) GTEST_SKIP() << "a C library that doesn't know them";
    std::string expected;
    for (int n = -1; n <= 135; ++n) {
        const char* known = n > 0 && n < 134 ? strerrorname_np(n) : "?UNKNOWN?";
        std::string name = known ? known : "";
        name += n == EAGAIN ? "/EWOULDBLOCK" : n == EDEADLK ? "/EDEADLOCK" : "";
        if (n == EOPNOTSUPP) name = "EOPNOTSUPP/ENOTSUP";
        expected += "ERROR [" + name + ' ' + strerror(n) + "] number " + std::to_string(n) + '\n';
    }
    const ChildEnd end = run_child([] {
        for (int n = -1; n <= 136; ++n) {
            if (n == 136) close(STDERR_FILENO);
            errno = n;
            errMsg("number %d", n);
            EXPECT_EQ(n, errno);
        }
    });
    EXPECT_TRUE(end.completed);
    EXPECT_EQ(expected, end.output);
}

#if defined(__SANITIZE_THREAD__)
#define UNFLUSHED "out"  // ThreadSanitizer's _exit() writes out all buffers.
#else
#define UNFLUSHED ""
#endif

TEST(Errors, LineOrEndIsWrong) {
    const std::string x(600, 'x');
    const char* const many = x.c_str();
    const struct {
        Step body;
        std::string output;
        const char* core = "";  // The value of EF_DUMPCORE.
    } rows[] = {
        {[] { errExit("open %s", "f"); }, "outERROR [ENOENT No such file or directory] open f\n"},
        {[] { err_exit("%d", 1); }, "ERROR [ENOENT No such file or directory] 1\n" UNFLUSHED},
        {[] { err_exit("e"); }, "ERROR [ENOENT No such file or directory] e\n" UNFLUSHED, "0"},
        {[] { errExitEN(EIO, "e"); }, "outERROR [EIO Input/output error] e\n"},
        {[] { fatal("f"); }, "outERROR: f\n", "1"},
        {[=] { fatal("%s", many); }, "outERROR: " + x.substr(0, 492)},
        {[=] { fatal("%.491s", many); }, "outERROR: " + x.substr(0, 491) + "\n"},
        {[] { usageErr("%s -x\n", "prog"); }, "outUsage: prog -x\n"},
        {[=] { cmdLineErr("%s", many); }, "outCommand-line usage error: " + x},
    };
    for (const auto& row : rows) {
        const ChildEnd end = run_child([&row] {
            setenv("EF_DUMPCORE", row.core, 1);
            printf("out");
            errno = ENOENT;
            row.body();
        });
        EXPECT_EQ(row.output, end.output);
        EXPECT_EQ(*row.core ? SIGABRT : 0, end.signal) << row.output;
        EXPECT_EQ(*row.core ? -1 : 1, end.exit_code) << row.output;
    }
}

// A process that runs the body, which reports with one byte, and waits until it is killed.
struct Holder {
    explicit Holder(const std::function<void(int)>& body) {
        pid = fork_process([&] {
            body(done.out);
            pause();
        });
        (void)!read(done.in, &answer, 1);
    }
    ~Holder() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    Pipe done;
    char answer = 0;
    pid_t pid;
};

ISOLATED_TEST(PidFile, SecondInstanceStartsOrOldNumberStays) {
    const TempFile file("12345678901234567890\nmore\n");
    const std::string locked =
        "ERROR: PID file '" + file.path + "' is locked; probably 'prog' is already running\n";
    for (const int flags : {6, 1}) {
        const Holder first([&](int done) {
            createPidFile("prog", file.name(), flags);
            dup2(done, STDOUT_FILENO);
            execl("/bin/sh", "sh", "-c", "echo; exec sleep 100", nullptr);
        });
        const std::string number = std::to_string(first.pid) + "\n";
        EXPECT_EQ(number, file.text());
        const ChildEnd second = run_child([&] { createPidFile("prog", file.name(), 0); });
        run_child([&] {
            close(STDERR_FILENO);
            createPidFile("prog", file.name(), 0);
        });
        EXPECT_EQ(flags == 6 ? locked : "", second.output);
        EXPECT_EQ(flags == 6, second.exit_code == 1 && file.text() == number);
    }
    unlink(file.name());
    umask(0);
    struct stat info;
    EXPECT_TRUE(fstat(createPidFile("", file.name(), 0), &info) == 0 && info.st_mode == 0100600);
}

TEST(PidFile, FailureHasAnotherMessage) {
    // memfd_create("pid", MFD_ALLOW_SEALING); fcntl(fd, F_ADD_SEALS, F_SEAL_WRITE);
    const int fd = static_cast<int>(syscall(SYS_memfd_create, "pid", 2));
    fcntl(fd, 1033, 8);
    const std::string sealed = "/proc/self/fd/" + std::to_string(fd);
    const std::pair<std::string, std::string> rows[] = {
        {"/none/such",
         "ERROR [ENOENT No such file or directory] Could not open PID file /none/such\n"},
        {"/dev/full", "ERROR [EINVAL Invalid argument] Could not truncate PID file '/dev/full'\n"},
        {sealed, "ERROR: Writing to PID file '" + sealed + "'\n"}};
    for (const auto& [path, output] : rows) {
        EXPECT_EQ(output, run_child([&p = path] { createPidFile("", p.c_str(), 1); }).output);
    }
}

void limit_descriptors(rlim_t limit) {
    rlimit limits;
    getrlimit(RLIMIT_NOFILE, &limits);
    limits.rlim_cur = std::min(limit, limits.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limits);
}

// Closes the first descriptors, and sets a limit of descriptors. exit() raises the limit, since
// sanitizers need some.
void leave_descriptors(int closed, rlim_t limit) {
    atexit([] { limit_descriptors(1024); });
    for (int fd = 0; fd < closed; ++fd) close(fd);
    limit_descriptors(limit);
}

TEST(PidFile, StandardNumberIsNeverTaken) {
    const TempFile file("old\n");
    const std::string none = file.path + "-none";
    for (const std::string& path : {file.path, none}) {
        const ChildEnd end = run_child([&] {
            leave_descriptors(1, 3);
            createPidFile("", path.c_str(), 0);
        });
        EXPECT_EQ("ERROR [EMFILE Too many open files] Could not open PID file " + path + '\n',
                  end.output);
    }
    EXPECT_EQ("old\n", file.text());
    EXPECT_EQ(-1, access(none.c_str(), F_OK));
    const ChildEnd last = run_child([&] {
        leave_descriptors(4, 4);
        EXPECT_EQ(3, createPidFile("", file.name(), 0));
        for (int fd = 0; fd < 3; ++fd) EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    });
    EXPECT_TRUE(last.completed);
}

ISOLATED_TEST(RegionLocks, RegionIsLockedOtherwise) {
    const TempFile file(std::string(100, 'x'));
    const int fd = open(file.name(), O_RDWR);
    lseek(fd, 50, SEEK_SET);
    const Holder holder([&](int done) {
        const int own = open(file.name(), O_RDWR);
        struct flock plain = {F_WRLCK, SEEK_SET, 10, 10, 0};  // Shows a shift of all offsets.
        const bool locked = !fcntl(own, F_SETLK, &plain) &&
                            !lockRegionWait(own, F_RDLCK, SEEK_SET, 30, 10) &&
                            !lockRegion(own, F_WRLCK, SEEK_END, -10, 0) &&
                            !lockRegion(own, F_UNLCK, SEEK_SET, 10, 1) &&
                            !regionIsLocked(own, F_WRLCK, SEEK_SET, 0, 0);
        EXPECT_EQ(1, write(done, locked ? "y" : "n", 1));
    });
    EXPECT_EQ('y', holder.answer);
    const struct {
        int type, whence, start, len;
        bool held;
    } rows[] = {{F_WRLCK, SEEK_SET, 0, 11, false},    {F_WRLCK, SEEK_SET, 11, 1, true},
                {F_RDLCK, SEEK_SET, 19, 1, true},     {F_RDLCK, SEEK_SET, 20, 20, false},
                {F_WRLCK, SEEK_CUR, -20, 1, true},    {F_WRLCK, SEEK_CUR, -10, 50, false},
                {F_RDLCK, SEEK_SET, 100000, 1, true}, {F_WRLCK, SEEK_SET, 50, 0, true}};
    for (const auto& [type, whence, start, len, held] : rows) {
        EXPECT_EQ(held ? holder.pid : 0, regionIsLocked(fd, type, whence, start, len)) << start;
        EXPECT_EQ(held ? -1 : 0, lockRegion(fd, type, whence, start, len)) << start;
        EXPECT_TRUE(!held || errno == EAGAIN || errno == EACCES);
    }
    EXPECT_EQ(-2, lockRegion(-1, F_WRLCK, 0, 0, 0) + regionIsLocked(-1, F_WRLCK, 0, 0, 0));
    // A signal interrupts a wait.
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    const pid_t pest = fork_process([parent = getpid()] {
        while (kill(parent, SIGUSR1) == 0) sched_yield();
    });
    EXPECT_TRUE(lockRegionWait(fd, F_WRLCK, SEEK_SET, 11, 9) == -1 && errno == EINTR);
    kill(pest, SIGKILL);
}

}  // namespace
