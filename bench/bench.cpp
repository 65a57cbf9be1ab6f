#include "bench.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#ifdef TESSRA_BENCH_GOOGLE
#include <benchmark/benchmark.h>
#endif
#if __has_include(<valgrind/callgrind.h>) && !defined(__arm__)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS (void)0
#define CALLGRIND_DUMP_STATS_AT(name) (void)(name)
#endif

namespace bench {

namespace {

constexpr unsigned kWarmUpRounds = 2;

struct Entry {
    std::string name;
    std::function<void(Loop&)> operation;
    Settings settings;
};

std::vector<Entry>& entries() {
    static std::vector<Entry> all;
    return all;
}

// Makes a failing system call at which the tools begin or stop counting. The text is ready before,
// so that only the call is added to the count.
void mark(char kind, std::string& text) {
    text[0] = kind;
    if (kind == 'B') CALLGRIND_ZERO_STATS;
    if (kind == 'E') CALLGRIND_DUMP_STATS_AT(text.c_str());
    (void)syscall(SYS_write, -1, text.data(), text.size());
    if (kind == 'E') puts(text.c_str());
}

// Some peers leave the upper halves of the vector registers in use, which slows down all SSE code
// after them.
#if defined(__x86_64__)
__attribute__((target("avx"))) void clear_upper_halves() {
    if (__builtin_cpu_supports("avx")) __builtin_ia32_vzeroupper();
}
#else
void clear_upper_halves() {}
#endif

void count_all(const char* wanted) {
    for (const Entry& entry : entries()) {
        if (entry.name.find(wanted) == std::string::npos) continue;
        if (entry.settings.rounds == 0) continue;
        Loop loop(nullptr);
        entry.operation(loop.counted(entry.name, entry.settings.items, entry.settings.rounds));
    }
}

#ifdef TESSRA_BENCH_GOOGLE
void time_all(int argc, char** argv) {
    for (const Entry& entry : entries()) {
        auto* timed =
            benchmark::RegisterBenchmark(entry.name.c_str(), [entry](benchmark::State& state) {
                clear_upper_halves();
                Loop loop(&state);
                entry.operation(loop);
                state.counters["items"] = entry.settings.items;
            });
        if (entry.settings.clock == Clock::kWall) timed->UseRealTime();
        if (entry.settings.clock == Clock::kOwn) timed->UseManualTime();
    }
    benchmark::Initialize(&argc, argv);
    (void)benchmark::RunSpecifiedBenchmarks();
}
#else
void time_all(int, char**) { fputs("no Google Benchmark: BENCH_COUNT only\n", stderr); }
#endif

}  // namespace

bool Loop::counting() { return getenv("BENCH_COUNT") != nullptr; }

Loop& Loop::counted(const std::string& name, double items, unsigned rounds) {
    char operations[32];
    (void)snprintf(operations, sizeof operations, "B %.0f ", rounds * items);
    mark_ = operations + name;
    rounds_ = rounds;
    return *this;
}

bool Loop::next() {
#ifdef TESSRA_BENCH_GOOGLE
    if (state_ != nullptr) return state_->KeepRunning();
#endif
    const unsigned warm_up = rounds_ < kWarmUpRounds ? 0 : kWarmUpRounds;
    if (done_ == warm_up) mark('B', mark_);
    if (done_ < warm_up + rounds_) {
        ++done_;
        return true;
    }
    mark('E', mark_);
    return false;
}

void Loop::took([[maybe_unused]] double seconds) {
#ifdef TESSRA_BENCH_GOOGLE
    if (state_ != nullptr) state_->SetIterationTime(seconds);
#endif
}

void Loop::peak([[maybe_unused]] double kib) {
#ifdef TESSRA_BENCH_GOOGLE
    if (state_ != nullptr) state_->counters["peak"] = kib;
#endif
}

Cost wait_for(pid_t pid) {
    rusage usage;
    int status;
    wait4(pid, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fputs("bench: a process failed\n", stderr);
    const auto seconds = [](const timeval& time) {
        return double(time.tv_sec) + double(time.tv_usec) * 1e-6;
    };
    return {seconds(usage.ru_utime) + seconds(usage.ru_stime), double(usage.ru_maxrss)};
}

Cost run_command(const char* command, const char* folder, int out) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(folder) != 0 || dup2(out, STDOUT_FILENO) < 0) _exit(1);
        execl("/bin/sh", "sh", "-c", command, nullptr);
        _exit(127);
    }
    return wait_for(pid);
}

bool has_program(const std::string& program) {
    if (system(("command -v " + program + " >/dev/null").c_str()) == 0) return true;
    fprintf(stderr, "bench: without %s\n", program.c_str());
    return false;
}

void add(const std::string& row, const std::string& peer, std::function<void(Loop&)> operation,
         Settings settings) {
    entries().push_back({row + "/" + peer, std::move(operation), settings});
}

}  // namespace bench

// Each program defines this with its operations.
void register_operations();

int main(int argc, char** argv) {
    register_operations();
    if (bench::Loop::counting()) {
        bench::count_all(argc > 1 ? argv[1] : "");
    } else {
        bench::time_all(argc, argv);
    }
}
