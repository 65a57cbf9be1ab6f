#include "faults.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

namespace tessra_test {

namespace {

constexpr int kMostFaults = 400;
constexpr unsigned kSecondsEach = 20;
constexpr int kDayAndMinute = 1441, kHourBack = -60;

// The errors of a call, from its manual page.
struct Errors {
    int call;
    const char* name;
    std::vector<int> errors;
    int lasts = 0;  // If not 0, all later calls in the operation fail, too.
};
const Errors kErrors[] = {
    {FAKE_ALLOC, "allocation", {ENOMEM}},
    {FAKE_ALLOC, "all memory from allocation", {ENOMEM}, 1},
    {FAKE_MKFIFO,
     "mkfifo",
     {EACCES, EDQUOT, EEXIST, ELOOP, ENAMETOOLONG, ENOENT, ENOSPC, ENOTDIR, EROFS}},
    {FAKE_OPEN,
     "open",
     {EACCES, EAGAIN, EINTR, EISDIR, ELOOP, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, ENXIO, EPERM,
      EROFS}},
    {FAKE_STAT, "stat", {EACCES, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
    {FAKE_FSTAT, "fstat", {EIO, ENOMEM, EOVERFLOW}},
    {FAKE_FCNTL, "fcntl", {EACCES, EAGAIN, EBADF, EDEADLK, EINTR, EINVAL, ENOLCK}},
    {FAKE_FTRUNCATE, "ftruncate", {EFBIG, EINTR, EINVAL, EIO, EROFS}},
    {FAKE_READ, "read", {EAGAIN, EINTR, EIO, EISDIR, FAKE_SHORT}},
    {FAKE_WRITE, "write", {EAGAIN, EFBIG, EINTR, EIO, ENOSPC, EPIPE, FAKE_SHORT}},
    {FAKE_CLOSE, "close", {EINTR, EIO}},
    {FAKE_UNLINK, "unlink", {EACCES, EBUSY, EIO, ENOENT, EPERM, EROFS}},
    {FAKE_SELECT, "select", {EBADF, EINTR, EINVAL, ENOMEM}},
    {FAKE_CLOCK, "clock jump", {kDayAndMinute, kHourBack}},
    {FAKE_GETRLIMIT, "getrlimit", {EINVAL}},
    {FAKE_SYSINFO, "sysinfo", {EFAULT}},
    {FAKE_WAITPID, "waitpid", {ECHILD, EINTR}},
    {FAKE_WAIT4, "wait4", {ECHILD, EINTR}},
    {FAKE_SIGACTION, "sigaction", {EINVAL}},
    {FAKE_SIGMASK, "pthread_sigmask", {EINVAL}},
    {FAKE_SYSCALL, "close_range", {EINVAL, EMFILE, ENOMEM, ENOSYS}},
    {FAKE_VFORK, "vfork", {EAGAIN, ENOMEM}},
    {FAKE_EXEC, "exec", {E2BIG, EACCES, EMFILE, ENOENT, ENOEXEC, ENOMEM}},
    {FAKE_SETMNTENT, "setmntent", {EACCES, EMFILE, ENOENT}},
    {FAKE_POPEN, "popen", {EAGAIN, EMFILE, ENFILE, ENOMEM}},
    {FAKE_FREAD, "fread", {EINTR, EIO}},
    {FAKE_PTHREAD_CREATE, "pthread_create", {EAGAIN, EPERM}},
    {FAKE_MUTEX_INIT, "mutex_init", {EAGAIN, ENOMEM}},
    {FAKE_MUTEX_DESTROY, "mutex_destroy", {EBUSY}},
    {FAKE_COND_INIT, "cond_init", {EAGAIN, ENOMEM}},
    {FAKE_COND_DESTROY, "cond_destroy", {EBUSY}},
    {FAKE_COND_SIGNAL, "cond_signal", {EINVAL}},
    {FAKE_PIPE, "pipe2", {EMFILE, ENFILE}},
    {FAKE_ATFORK, "atfork", {ENOMEM}},
    {FAKE_DESCRIPTORS, "descriptors", {EMFILE}},
};

Outcome outcome_of(const Operation& operation, int call, int nth, int error) {
    Outcome outcome = Outcome::kFails;
    for (const auto& each : operation.exceptions) {
        const auto& errors = each.errors;
        const bool meant =
            errors.empty() || std::find(errors.begin(), errors.end(), error) != errors.end();
        if (each.call == call && nth >= each.from && meant) outcome = each.outcome;
    }
    return outcome;
}

void limit_descriptors(int more) {
    rlimit now;
    getrlimit(RLIMIT_NOFILE, &now);
    const int lowest_free = dup(0);
    close(lowest_free);
    now.rlim_cur = more < 0 ? now.rlim_max : static_cast<rlim_t>(lowest_free + more);
    setrlimit(RLIMIT_NOFILE, &now);
}

// Makes the C library allocate the blocks that it keeps for the life of the process.
void warm_up(const Operation& operation) {
    const time_t now = 0;
    tm local;
    localtime_r(&now, &local);
    std::thread([] {}).join();
    trace.reserve(1000);
    fprintf(stderr, "%s", "");
    errno = 0;
    if (operation.warm) EXPECT_EQ(0, operation.run());
}

// Runs the operation with one fault, in its process.
void meet(const Operation& operation, Outcome outcome, struct fault* fault) {
    alarm(kSecondsEach);
    warm_up(operation);
    const int descriptors = open_descriptors();
    const long blocks = fakes.blocks;
    memset(fault->calls, 0, sizeof fault->calls);
    if (fault->call == FAKE_DESCRIPTORS) limit_descriptors(fault->nth - 1);
    fault->calls[FAKE_DESCRIPTORS] = fault->nth;
    fakes.fault = fault;
    errno = 0;
    const int result = operation.run();
    const int error = errno;
    fakes.fault = nullptr;
    if (fault->call == FAKE_DESCRIPTORS) limit_descriptors(-1);
    if (result == 0) fault->calls[FAKE_DESCRIPTORS] = 0;
    if (fault->calls[fault->call] < fault->nth) outcome = Outcome::kGoesOn;
    if (outcome == Outcome::kGoesOn) EXPECT_EQ(0, result);
    if (outcome == Outcome::kFails || outcome == Outcome::kFailsSilently) EXPECT_EQ(-1, result);
    if (outcome == Outcome::kFails && fault->error > 0) EXPECT_EQ(fault->error, error);
    EXPECT_LT(outcome, Outcome::kExits1) << "the process goes on";
    errno = 0;
    EXPECT_EQ(0, operation.run()) << "once more";
    // A failed unlink() has left the FIFO's name.
    (void)unlink(("/tmp/evtloop" + std::to_string(getpid())).c_str());
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_LE(fakes.blocks, blocks);
}

// Returns whether the operation met the fault.
bool met(const Operation& operation, Outcome outcome, struct fault* fault) {
    const ChildEnd end = run_child([&] { meet(operation, outcome, fault); });
    const bool hit = fault->calls[fault->call] >= fault->nth;
    if (hit && outcome >= Outcome::kExits1) {
        EXPECT_EQ(outcome == Outcome::kAborts ? SIGABRT : 0, end.signal);
        EXPECT_EQ(outcome == Outcome::kExits1     ? 1
                  : outcome == Outcome::kExits255 ? 255
                                                  : -1,
                  end.exit_code);
    } else {
        EXPECT_TRUE(end.completed && end.exit_code == 0)
            << "exit code " << end.exit_code << ", signal " << end.signal << "\n"
            << end.output;
    }
    return hit;
}

}  // namespace

int drive_faults(const Operation& operation) {
    auto* fault = static_cast<struct fault*>(mmap(
        nullptr, sizeof(struct fault), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    int points = 0;
    for (const auto& [call, name, errors, lasts] : kErrors) {
        for (const int error : errors) {
            for (int nth = 1; nth < kMostFaults; ++nth) {
                const Outcome outcome = outcome_of(operation, call, nth, error);
                if (outcome == Outcome::kCannotBe) break;
                SCOPED_TRACE(std::string(operation.name) + ": " + name + " " + std::to_string(nth) +
                             ", error " + std::to_string(error));
                *fault = {call, nth, error, lasts, {}};
                if (!met(operation, outcome, fault) || testing::Test::HasFailure()) break;
                ++points;
            }
            // The operation doesn't make this call, so no other error is tried.
            if (fault->call == call && fault->calls[call] == 0) break;
        }
    }
    munmap(fault, sizeof *fault);
    return points;
}

}  // namespace tessra_test
