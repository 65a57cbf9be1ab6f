#include "bench.h"

#include <sys/syscall.h>
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

// A system call that fails and that those who count look for.
void mark(char kind, const std::string& name, double operations) {
    char text[200];
    const int length = snprintf(text, sizeof text, "%c %.0f %s", kind, operations, name.c_str());
    if (kind == 'B') CALLGRIND_ZERO_STATS;
    if (kind == 'E') CALLGRIND_DUMP_STATS_AT(text);
    (void)syscall(SYS_write, -1, text, static_cast<size_t>(length));
    if (kind == 'E') puts(text);
}

void count_all(const char* wanted) {
    for (const Entry& entry : entries()) {
        if (entry.name.find(wanted) == std::string::npos) continue;
        Loop loop(nullptr);
        entry.operation(loop.named(entry.name, entry.settings.items, entry.settings.rounds));
    }
}

#ifdef TESSRA_BENCH_GOOGLE
void time_all(int argc, char** argv) {
    for (const Entry& entry : entries()) {
        auto* timed =
            benchmark::RegisterBenchmark(entry.name.c_str(), [entry](benchmark::State& state) {
                Loop loop(&state);
                entry.operation(loop.named(entry.name, entry.settings.items, 0));
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

Loop& Loop::named(const std::string& name, double items, unsigned rounds) {
    name_ = name;
    items_ = items;
    rounds_ = rounds;
    return *this;
}

bool Loop::next() {
#ifdef TESSRA_BENCH_GOOGLE
    if (state_ != nullptr) return state_->KeepRunning();
#endif
    const unsigned warm_up = rounds_ < kWarmUpRounds ? 0 : kWarmUpRounds;
    if (done_ == warm_up) mark('B', name_, rounds_ * items_);
    if (done_ < warm_up + rounds_) return ++done_ != 0;
    mark('E', name_, rounds_ * items_);
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

void add(const std::string& row, const std::string& peer, std::function<void(Loop&)> operation,
         Settings settings) {
    entries().push_back({row + "/" + peer, std::move(operation), settings});
}

}  // namespace bench

// Each program's table of operations.
void register_operations();

int main(int argc, char** argv) {
    register_operations();
    if (bench::Loop::counting()) {
        bench::count_all(argc > 1 ? argv[1] : "");
    } else {
        bench::time_all(argc, argv);
    }
}
