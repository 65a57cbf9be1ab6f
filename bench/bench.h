// What the benchmarks share: a registry of operations and the loop that measures one.
//
// An operation is one row of the table done by one peer. It sets itself up and then works for as
// long as next() says so. Timed by Google Benchmark, or with BENCH_COUNT in the environment run a
// fixed number of rounds between two marks, at which strace, callgrind and the plugin for qemu
// count.
#ifndef TESSRA_BENCH_BENCH_H
#define TESSRA_BENCH_BENCH_H

#include <fcntl.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

namespace benchmark {
class State;
}

namespace bench {

class Loop {
public:
    explicit Loop(benchmark::State* state) : state_(state) {}

    // True if there is another round to do. Starts the clock at first, and stops it in the end.
    bool next();

    // Does rounds of `body` until the end.
    template <class Body>
    void each(Body body) {
        while (next()) body();
    }

    // The time of the round that was just done, for operations of Clock::kOwn.
    void took(double seconds);
    // Additional memory that the operation has used at its peak.
    void peak(double kib);

    static bool counting();

    Loop& counted(const std::string& name, double items, unsigned rounds);

private:
    benchmark::State* state_;
    std::string mark_;
    unsigned rounds_ = 0;
    unsigned done_ = 0;
};

enum class Clock {
    kCpu,   // Of the thread that measures.
    kWall,  // Where several threads work.
    kOwn,   // The operation tells, see Loop::took().
};

struct Settings {
    double items = 1;  // What one round does: the table tells the time of each.
    Clock clock = Clock::kCpu;
    unsigned rounds = 20;  // When counted; 0 not to.
};

// Registers what `peer` does for a row of the table. The library goes by "tessra"; what nobody can
// beat begins with "bare".
void add(const std::string& row, const std::string& peer, std::function<void(Loop&)> operation,
         Settings settings = {});

// Keeps the compiler from leaving out what computes the value.
template <class Value>
void keep(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

struct Pipe {
    int ends[2];
    Pipe() {
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) abort();
    }
    ~Pipe() { close(ends[0]), close(ends[1]); }
    void put() const { (void)!write(ends[1], "x", 1); }
    void take() const {
        char byte;
        (void)!read(ends[0], &byte, 1);
    }
};

// CPU time of the calling thread.
inline double thread_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// What a process has used, CPU time with that of its children.
struct Cost {
    double seconds;
    double kib;
};
Cost wait_for(pid_t pid);

// A command of the shell in a folder, with `out` as its standard output.
Cost run_command(const char* command, const char* folder, int out);

// False, and a word about it, if there is no such program.
bool has_program(const std::string& program);

// The same numbers in every run.
class Random {
public:
    uint32_t operator()() {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return static_cast<uint32_t>(state_ >> 33);
    }

private:
    uint64_t state_ = 88172645463325252U;
};

}  // namespace bench

#endif
