// Lets each call of the library fail once, with each error that the call can give. Allocations also
// fail from each one on to the end.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>
#include <iterator>

#include "support/faults.h"
#include "tessra/base64.h"
#include "tessra/binarytree.h"
#include "tessra/create_pid_file.h"
#include "tessra/dns.h"
#include "tessra/list.h"
#include "tessra/memchk.h"
#include "tessra/misc.h"
#include "tessra/region_locking.h"
#include "tessra/szip.h"

using namespace tessra_test;

// In this program vfork() is fork(), so a child has its own memory, and exec can fail.
extern "C" {
pid_t vfork() __THROW { return FAULT_HITS(FAKE_VFORK) ? -1 : fork(); }
#define EXEC(call, find_env)                                         \
    int call(const char* path, const char* sh, ...) __THROW {        \
        va_list args;                                                \
        va_start(args, sh);                                          \
        char* argv[4] = {const_cast<char*>(sh)};                     \
        for (int n = 1; n < 4; ++n) argv[n] = va_arg(args, char*);   \
        char** const env = find_env;                                 \
        va_end(args);                                                \
        return FAULT_HITS(FAKE_EXEC) ? -1 : execve(path, argv, env); \
    }
EXEC(execl, environ)
EXEC(execle, va_arg(args, char**))
FILE* setmntent(const char*, const char* mode) __THROW {
    return FAULT_HITS(FAKE_SETMNTENT) ? nullptr : fopen("/proc/self/mounts", mode);
}
}

namespace {

using enum Outcome;

// While this lives, no fault is armed, so the test's own calls meet none.
struct Unarmed {
    ~Unarmed() { fakes.fault = armed; }
    struct fault* armed = std::exchange(fakes.fault, nullptr);
};

// The result of a call that reports a failure only in errno.
int result_by_errno() { return errno ? -1 : 0; }

// Returns a result to a caller that also reads errno, which clean-up may have changed.
int with_errno(int error, int result) {
    errno = error;
    return result;
}

void expect_unarmed() {
    EXPECT_EQ(0, event_timer_exists(note_timer, nullptr));
    EXPECT_EQ("", trace);
}

// Adds a watcher in a running loop. If the add succeeds, the watcher must run as expected; if it
// fails, never.
int run_added(const Step& add, const char* expected, const Step& trigger) {
    int result = 0, error = 0;
    trace.clear();
    set_clock(1000);
    const Step add_and_see = [&] {
        errno = 0;
        add();
        error = errno;
        result = result_by_errno();
    };
    if (drive(nullptr, {add_and_see, trigger, trigger}).result != 0) return -1;
    EXPECT_EQ(result ? "" : expected, trace);
    return with_errno(error, result);
}

int add_timer() {
    return run_added([] { event_timer_add(note_timer, arg("t"), 10); }, "t", [] {});
}

int add_descriptor() {
    static const Pipe pipe;
    static Step read_it;
    char byte;
    read_it = [&] {
        trace += 'f';
        EXPECT_EQ(1, read(pipe.in, &byte, 1));
    };
    bool written = false;
    const int result =
        run_added([&] { event_fd_add(run_fd, &read_it, pipe.in, EVENT_FD_READ); }, "f",
                  [&] {
                      if (!std::exchange(written, true)) EXPECT_EQ(1, write(pipe.out, "x", 1));
                  });
    const int error = errno;
    if (result && written) EXPECT_EQ(1, read(pipe.in, &byte, 1));
    return with_errno(error, result);
}

int add_signal() {
    return run_added([] { event_signal_add(note_signal, arg("s"), SIGUSR1); }, "ss",
                     [] { raise(SIGUSR1); });
}

// The loop must report the exit once, at the latest with the next SIGCHLD. Only one run of the loop
// in a process reports children, so nothing is left to do after a success.
int add_child() {
    static bool done;
    if (done) return 0;
    const pid_t pid = fork_process([] {});
    await_child(pid);
    const int result = run_added([pid] { event_process_add(pid, note_process, arg("c")); }, "c",
                                 [] { raise(SIGCHLD); });
    const int error = errno;
    done = result == 0;
    waitpid(pid, nullptr, WNOHANG);
    return with_errno(error, result);
}

int make_context() {
    event_loop_ctx_tp context = event_mc_init();
    event_mc_free(context);
    return context ? 0 : -1;
}

// Watchers survive a start that fails: the next run has them all.
int run_loop() {
    static const Pipe pipe;
    static event_loop_ctx_tp context;
    Step read_it = [&] {
        char byte;
        EXPECT_EQ(1, read(pipe.in, &byte, 1));
        trace += "f";
    };
    trace.clear();
    set_clock(1000);
    {
        const Unarmed adds_have_their_rows;
        context = event_mc_init();
        event_timer_add_mc(context, note_timer, arg("t"), 10);
        event_fd_add_mc(context, run_fd, &read_it, pipe.in, EVENT_FD_READ);
        event_signal_add_mc(context, note_signal, arg("s"), SIGUSR1);
    }
    const auto run = [&] {
        return drive(context,
                     {[&] { EXPECT_EQ(1, write(pipe.out, "x", 1)); }, [] { raise(SIGUSR1); }})
            .result;
    };
    const int result = run(), error = errno;
    const Unarmed from_now_on;
    EXPECT_TRUE(result == 0 || trace.empty());
    if (result != 0) EXPECT_EQ(0, run());
    std::sort(trace.begin(), trace.end());  // A jump of the clock can put the timer first.
    EXPECT_EQ("fst", trace);
    event_mc_free(context);
    return with_errno(error, result);
}

int run_nested_pass() {
    int result = 0, error = 0;
    struct fault* fault = nullptr;
    Step nest = [&] {
        event_timer_add(note_timer, arg("n"), 0);
        errno = 0;
        fakes.fault = fault;
        result = do_events(0);
        error = errno;
        fakes.fault = nullptr;
    };
    trace.clear();
    set_clock(1000);
    const Unarmed but_the_pass;
    fault = but_the_pass.armed;
    event_timer_add(run_timer, &nest, 0);
    EXPECT_EQ(0, drive(nullptr).result);
    EXPECT_EQ("n", trace);
    return with_errno(error, result);
}

int start_thread() {
    set_clock(100000000);
    trace.clear();
    {
        const Unarmed not_this;
        event_timer_add(note_timer, arg("t"), 100 * 86400000ULL);
    }
    const int result = event_loop_async_start();
    if (result == 0) EXPECT_EQ(0, event_loop_async_stop());
    EXPECT_EQ(0, event_timer_exists(event_loop_wait_for_async_loop_ready, nullptr));
    EXPECT_EQ(result != 0, event_timer_exists(note_timer, nullptr));
    EXPECT_EQ(0, fakes.threads);
    event_timer_del(note_timer, nullptr);
    expect_unarmed();
    return result;
}

template <bool with_env>
int run_command() {
    static const char* env[] = {"N=3", nullptr};
    struct sigaction before = {}, after;
    before.sa_handler = [](int) {};
    for (const int signal : {SIGINT, SIGQUIT, SIGCHLD}) sigaction(signal, &before, nullptr);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    const int status = with_env ? event_system_env(env, "exit $N") : event_system("exit %d", 3);
    const int error = errno;
    for (const int signal : {SIGINT, SIGQUIT, SIGCHLD}) {
        sigaction(signal, nullptr, &after);
        EXPECT_EQ(before.sa_handler, after.sa_handler) << signal;
    }
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(signal == SIGUSR2, sigismember(&blocked, signal));
    }
    while (waitpid(-1, nullptr, 0) > 0) {  // The child of a failed wait may still be there.
    }
    const bool no_shell = fakes.fault && fakes.fault->call == FAKE_EXEC;
    EXPECT_TRUE(status == 3 << 8 || status == (no_shell ? 127 << 8 : -1)) << status;
    return with_errno(error, status == 3 << 8 ? 0 : -1);
}

int run_task() {
    static char command[] = "exit 1";
    static bg_task_t task;
    task = {command, 10, 0};
    set_clock(100000);
    errno = 0;
    run_bg_task(&task);
    const int result = result_by_errno(), error = errno;
    if (drive(nullptr).result != 0) return -1;
    while (waitpid(-1, nullptr, 0) > 0) {
    }
    return with_errno(error, result);
}

int get_output() {
    char* const output = system_output("echo 1; head -c 3000 /dev/zero");
    const bool complete = output && output[0] == '1' && output[2001] == 0;  // Of 3002 bytes.
    const int error = errno;
    free(output);
    EXPECT_EQ(-1, waitpid(-1, nullptr, WNOHANG));
    return with_errno(error, complete ? 0 : -1);
}

int find_mount_point() { return is_mountpoint("/proc") - 1; }

// Returns a file name that is the same in all processes of this test.
std::string file_name(const char* what) {
    return "/tmp/tessra-faults-" + std::to_string(getppid()) + what;
}

int make_pid_file() {
    const std::string name = file_name("pid");
    const int fd = createPidFile("prog", name.c_str(), PID_FILE_CLOEXEC);
    const Unarmed from_now_on;
    std::string text;
    std::ifstream(name) >> text;
    EXPECT_EQ(std::to_string(getpid()), text);
    close(fd);
    unlink(name.c_str());
    return 0;
}

int lock_regions() {
    char name[] = "/tmp/tessra-faults-XXXXXX";
    const int fd = mkstemp(name);
    unlink(name);
    errno = 0;
    const int failed = lockRegion(fd, F_WRLCK, SEEK_SET, 0, 10) |
                       lockRegionWait(fd, F_WRLCK, SEEK_SET, 20, 10) |
                       regionIsLocked(fd, F_WRLCK, SEEK_SET, 0, 0);
    const int error = errno;
    close(fd);
    return with_errno(error, failed);
}

int plan_archive() {
    const char* files[] = {"/etc/passwd", "tmp"};
    szip_info_t* const info = szip_create_info(files, 2, "/", "/");
    szip_free_info(info);  // Keeps errno.
    return info ? 0 : -1;
}

std::string text_of(const std::string& name) {
    std::ifstream in(name);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Streams into a file, which must have the announced size and be the same as without faults.
int stream_archive() {
    const std::string name = file_name("file"), to = file_name("zip");
    const char* const file = name.c_str();
    Unarmed but_one_stream;
    std::ofstream(name) << "0123456789";
    szip_info_t* const info = szip_create_info(const_cast<const char**>(&file), 1, "/", "/");
    std::string archives[2];
    int results[2], error = 0;
    for (int n : {1, 0}) {
        const int fd = open(to.c_str(), O_CREAT | O_TRUNC | O_RDWR, 0600);
        fakes.fault = n == 0 ? but_one_stream.armed : nullptr;
        results[n] = szip_stream_zip_fd(fd, info, 4) - 1;
        error = errno;
        fakes.fault = nullptr;
        archives[n] = text_of(to);
        close(fd);
    }
    EXPECT_EQ(szip_calc_size(info, 0), archives[1].size());
    EXPECT_TRUE(results[1] == 0 && (results[0] != 0 || archives[0] == archives[1]));
    szip_free_info(info);
    unlink(name.c_str());
    unlink(to.c_str());
    return with_errno(error, results[0]);
}

int compare_addresses(void* a, void* b) { return a < b ? -1 : a > b; }

// The tree must have exactly the entries whose insertion succeeded.
int fill_tree() {
    static int entries[4];
    BinaryTree* const tree = BT_create(compare_addresses);
    if (!tree) return -1;
    unsigned inserted = 0, count = 0;
    for (int& entry : entries) inserted += BT_insert(tree, &entry, &entry) == 1;
    LinkedList* const pairs = BT_pairs(tree);
    LinkedList* const keys = BT_keys(tree);
    void** const array = BT_toarray(tree, &count);
    BinaryTreeEnum* const cursor = BT_newenum(tree);
    const bool complete = inserted == 4 && pairs && keys && array && cursor;
    EXPECT_EQ(inserted, tree->itemcount);
    EXPECT_TRUE(!pairs || pairs->itemcount == inserted);
    while (pairs && pairs->itemcount) free(LL_pop(pairs));
    if (pairs) LL_delete(pairs);
    if (keys) {
        LL_push(keys, nullptr);
        LL_delete(keys);
    }
    if (cursor) BT_enumdelete(cursor);
    free(array);
    BT_delete(tree);
    return complete ? result_by_errno() : -1;
}

int fill_tables() {
    hashtable_t* const flags = hashtable_alloc(3);
    hashtable_t* const strings = hashtable_alloc(3);
    char* texts[4];
    {
        const Unarmed ours;
        for (char*& text : texts) text = strdup("text");
    }
    list_t values;
    for (const char* name : {"flag", "gone"}) {
        if (flags) named_flag_set(flags, name);
    }
    unsigned put = 0;
    for (char** text : {texts, texts + 2}) {
        if (strings && str_hashtable_put(strings, text[0], text[1])) {
            ++put;
        } else {
            for (int n : {0, 1}) free(text[n]);
        }
    }
    str_hashtable_values(strings, &values);
    EXPECT_EQ(put, str_hashtable_count(strings, "text"));
    list_free_items(&values, nullptr);
    if (flags) {
        EXPECT_TRUE((named_flag_has(flags, "flag") && named_flag_clr(flags, "gone")) || errno);
    }
    hashtable_free(flags, nullptr);
    str_hashtable_free(strings);
    return result_by_errno();
}

void ignore(int, char*, ...) {}

int track_blocks() {
    char* const block = static_cast<char*>(memchk_calloc(1, 4, __FILE__, 1));
    char* const text = memchk_dup("text", __FILE__, 2);
    for (int dump = 0; dump < 3; ++dump) dump_allocation_tree(0, ignore);
    EXPECT_TRUE((block && text) || errno);
    memchk_free(block, __FILE__, 3);
    memchk_free(text, __FILE__, 3);
    dump_allocation_tree(0, ignore);
    return result_by_errno();
}

int decode() {
    static const unsigned char reply[] = {0, 1,   0x80, 0, 0, 1, 0, 1,    0,  0, 0, 0,
                                          1, 'a', 0,    0, 1, 0, 1, 0xC0, 12, 0, 1, 0,
                                          1, 0,   0,    0, 0, 0, 4, 1,    2,  3, 4};
    static char message[65536];
    memcpy(message, reply, sizeof reply);
    char* name = nullptr;
    in_addr address = {};
    uint8_t *text = nullptr, *bytes = nullptr;
    size_t length = 0;
    EXPECT_EQ(1, dns_parse_reply(message, &name, &address));
    const auto* const in = reinterpret_cast<const uint8_t*>("abcd");
    const int codes[] = {base64_encode_alloc(in, 4, &text, &length),
                         base64_decode_alloc(in, 4, &bytes, &length)};
    for (const int code : codes) EXPECT_TRUE(code == BASE64_OK || code == BASE64_NOMEM) << code;
    const bool complete = name && text && bytes;
    void* const blocks[] = {name, text, bytes};
    for (void* const block : blocks) free(block);
    return complete ? 0 : -1;
}

// The exceptions of all operations that run a loop.
const std::vector<Operation::Exception> kRunning = {
    {FAKE_FSTAT, kFailsSilently},              // EPERM, as for a file that is no FIFO.
    {FAKE_MKFIFO, kGoesOn, {EEXIST, ENOENT}},  // Another start has the name, too.
    {FAKE_OPEN, kGoesOn, {ENOENT, ENXIO}},
    {FAKE_MUTEX_INIT, kGoesOn},  // The library makes this call for a thread only.
    {FAKE_MUTEX_DESTROY, kGoesOn},
    {FAKE_UNLINK, kGoesOn},
    {FAKE_CLOSE, kGoesOn},
    {FAKE_CLOCK, kGoesOn},
    {FAKE_WRITE, kGoesOn},
    {FAKE_READ, kGoesOn},
    {FAKE_READ, kCannotBe, {EAGAIN, EIO, EISDIR}},  // A ready channel has a whole message.
    {FAKE_SELECT, kExits1},
    {FAKE_SELECT, kGoesOn, {EINTR}},
    {FAKE_FCNTL, kExits255},
};
std::vector<Operation::Exception> running(std::vector<Operation::Exception> more) {
    more.insert(more.begin(), kRunning.begin(), kRunning.end());
    return more;
}

// The sanitizers look up the stack of a new thread, and can't handle a failure of that.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr Outcome kThreadFault = kCannotBe;
#else
constexpr Outcome kThreadFault = kFailsSilently;
#endif

// If the system lets a command change something, it also lets it change that back.
const std::vector<Operation::Exception> kCommand = {
    {FAKE_SIGACTION, kGoesOn}, {FAKE_SIGACTION, kCannotBe, {}, 4},
    {FAKE_SIGMASK, kGoesOn},   {FAKE_SIGMASK, kCannotBe, {}, 2},
    {FAKE_GETRLIMIT, kGoesOn}, {FAKE_SYSCALL, kGoesOn},
    {FAKE_CLOSE, kGoesOn},     {FAKE_EXEC, kFailsSilently}};

const Operation kOperations[] = {
    {"context", make_context, {{FAKE_MUTEX_INIT, kGoesOn}, {FAKE_MUTEX_DESTROY, kGoesOn}}},
    {"timer", add_timer, running({})},
    {"descriptor", add_descriptor, running({})},
    {"signal", add_signal, running({{FAKE_WRITE, kGoesOn}})},
    {"child", add_child, running({{FAKE_WAITPID, kGoesOn}}), false},
    {"loop", run_loop, running({{FAKE_WRITE, kGoesOn}, {FAKE_DESCRIPTORS, kCannotBe}})},
    {"nested_pass", run_nested_pass,
     running(
         {{FAKE_SELECT, kGoesOn}, {FAKE_SELECT, kFails, {EINTR}}, {FAKE_DESCRIPTORS, kCannotBe}})},
    {"thread", start_thread,
     running({{FAKE_ALLOC, kThreadFault},
              {FAKE_PTHREAD_CREATE, kFails},
              {FAKE_DESCRIPTORS, kThreadFault},
              {FAKE_CLOCK, kCannotBe, {-60}},  // Nobody reads it between the add and the loop.
              {FAKE_WRITE, kCannotBe},         // Wake-ups: only a full channel refuses one.
              {FAKE_MUTEX_INIT, kAborts},
              {FAKE_MUTEX_DESTROY, kAborts},
              {FAKE_COND_INIT, kAborts},
              {FAKE_COND_DESTROY, kAborts},
              {FAKE_COND_SIGNAL, kAborts}})},
    {"command", run_command<false>, kCommand, false},
    {"command_env", run_command<true>, kCommand, false},
    {"task", run_task,
     running({{FAKE_GETRLIMIT, kGoesOn},
              {FAKE_SYSINFO, kGoesOn},
              {FAKE_SIGACTION, kGoesOn},
              {FAKE_SIGMASK, kGoesOn},
              {FAKE_SYSCALL, kGoesOn},
              {FAKE_VFORK, kGoesOn},
              {FAKE_WAIT4, kGoesOn},
              {FAKE_EXEC, kGoesOn}})},  // A command that fails counts as a run.
    {"output", get_output, {{FAKE_FREAD, kEither}, {FAKE_ALLOC, kEither}, {FAKE_FCNTL, kGoesOn}}},
    {"mount_point", find_mount_point, {{FAKE_ALLOC, kEither}, {FAKE_FCNTL, kGoesOn}}},
    {"pid_file",
     make_pid_file,
     {{FAKE_OPEN, kExits1},
      {FAKE_CLOSE, kGoesOn},
      {FAKE_FCNTL, kExits1},
      {FAKE_FTRUNCATE, kExits1},
      {FAKE_WRITE, kExits1},
      {FAKE_DESCRIPTORS, kCannotBe}}},
    {"locks", lock_regions, {{FAKE_DESCRIPTORS, kCannotBe}}},
    {"plan", plan_archive, {{FAKE_DESCRIPTORS, kCannotBe}}},
    {"stream",
     stream_archive,
     {{FAKE_READ, kGoesOn, {EINTR, FAKE_SHORT}},
      {FAKE_OPEN, kGoesOn, {EAGAIN}},
      {FAKE_DESCRIPTORS, kCannotBe},
      {FAKE_CLOSE, kGoesOn}}},
    {"tree", fill_tree, {}},
    {"tables", fill_tables, {}},
    {"tracker", track_blocks, {}},
    {"codecs", decode, {{FAKE_ALLOC, kFailsSilently}}},
};

class Faults : public testing::TestWithParam<Operation> {};

int all_points;

TEST_P(Faults, CrashLeakOrLoseSomething) {
    if (getenv("TESSRA_EMULATED")) {
        GTEST_SKIP() << "qemu-user's child of fork() now and then hangs, and this forks a lot";
    }
    const int points = drive_faults(GetParam());
    all_points += points;
    printf("%s: %d faults, %d so far\n", GetParam().name, points, all_points);
    EXPECT_GT(points, 0);
}

INSTANTIATE_TEST_SUITE_P(Each, Faults, testing::ValuesIn(kOperations),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
