// The common part of the benchmarks: a registry of operations and the loop that measures one.
//
// An operation is one row of the table for one peer. It sets itself up and then works as long as
// next() returns true. Google Benchmark measures its time. If BENCH_COUNT is in the environment, it
// instead runs a fixed number of rounds between two marks, and strace, callgrind and the plugin for
// qemu count between these.
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

    // True if there is another round to do. The first call starts the clock, the last one stops it.
    bool next();

    // Runs `body` in each round.
    template <class Body>
    void each(Body body) {
        while (next()) body();
    }

    // Sets the time of the last round, for operations of Clock::kOwn.
    void took(double seconds);
    // Sets the additional memory that the operation has used at its peak.
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
    kCpu,   // CPU time of the thread that measures.
    kWall,  // Elapsed time, if several threads work.
    kOwn,   // The operation measures; see Loop::took().
};

struct Settings {
    double items = 1;  // Units per round; the table shows the time of one.
    Clock clock = Clock::kCpu;
    unsigned rounds = 20;  // Of a run that counts; 0 leaves the operation out.
};

// Registers the operation of `peer` for a row of the table. The library's name is "tessra", and the
// name of a raw limit begins with "bare".
void add(const std::string& row, const std::string& peer, std::function<void(Loop&)> operation,
         Settings settings = {});

// Keeps the compiler from removing the code that computes the value.
template <class Value>
void keep(const Value& value) {
    asm volatile("" : : "g"(&value) : "memory");
}

struct Pipe {
    int ends[2];
    Pipe() {
        if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) != 0) abort();
    }
    ~Pipe() {
        for (const int end : ends) close(end);
    }
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

// The CPU time of a process with that of its children, and its peak of memory.
struct Cost {
    double seconds;
    double kib;
};
Cost wait_for(pid_t pid);

// Runs a shell command in a folder, with `out` as its standard output.
Cost run_command(const char* command, const char* folder, int out);

// If there is no such program, prints a line and returns false.
bool has_program(const std::string& program);

// Generates the same numbers in every run.
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
