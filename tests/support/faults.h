// Runs an operation once with every fault of every call that it makes.
#ifndef TESSRA_TESTS_FAULTS_H
#define TESSRA_TESTS_FAULTS_H

#include <ostream>
#include <string>
#include <vector>

#include "harness.h"

namespace tessra_test {

// The effect that a fault must have.
enum class Outcome {
    kFails,          // The documented failure, and errno is the fault's.
    kFailsSilently,  // The documented failure, whatever errno is.
    kGoesOn,         // Success, as without the fault.
    kEither,         // One of the two above.
    kExits1,
    kExits255,
    kAborts,
    kCannotBe  // The kernel doesn't give this error here.
};

// A fault beside those of the calls: the limit refuses the nth descriptor.
constexpr int FAKE_DESCRIPTORS = FAKE_CALLS;

// An operation of the public interface, with its checks and its clean-up.
struct Operation {
    const char* name;
    // Returns 0 after success, -1 after a documented failure; reports all else as a failed test.
    int (*run)();
    struct Exception {
        int call;
        Outcome outcome;
        std::vector<int> errors = {};  // Empty: all.
        int from = 1;                  // The exception holds from this call on, counted from 1.
    };
    std::vector<Exception> exceptions;  // From Outcome::kFails. The last one that fits counts.
    bool warm = true;                   // Runs once before, since the first run may keep blocks.
    friend void PrintTo(const Operation& it, std::ostream* to) { *to << it.name; }
};

// Runs the operation in a process of its own for each fault: each error of each call that it makes,
// no memory from each allocation on, and 0, 1... descriptors left. Then the operation runs again,
// and must succeed and leave no block and no descriptor behind. Returns the number of faults that
// the operation met.
int drive_faults(const Operation& operation);

}  // namespace tessra_test

#endif
