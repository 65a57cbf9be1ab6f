// Drives an operation through every fault that the calls it makes can give.
#ifndef TESSRA_TESTS_FAULTS_H
#define TESSRA_TESTS_FAULTS_H

#include <ostream>
#include <string>
#include <vector>

#include "harness.h"

namespace tessra_test {

// What must come of a fault.
enum class Outcome {
    kFails,          // The documented failure, and errno is the fault's.
    kFailsSilently,  // The documented failure, whatever errno is.
    kGoesOn,         // As if nothing had been.
    kEither,         // One of the two above.
    kExits1,
    kExits255,
    kAborts,
    kCannotBe  // The kernel doesn't give this error here.
};

// Beside the calls: the nth descriptor can't be made.
constexpr int FAKE_DESCRIPTORS = FAKE_CALLS;

// An operation of the public interface, with its checks and everything that ends it.
struct Operation {
    const char* name;
    // Returns 0 if it was done, -1 if it failed as documented; what else is seen it reports.
    int (*run)();
    struct Exception {
        int call;
        Outcome outcome;
        std::vector<int> errors = {};  // All if empty.
        int from = 1;                  // The first of these calls for which this counts.
    };
    std::vector<Exception> exceptions;  // From Outcome::kFails; later ones count for more.
    bool warm = true;                   // Its first run may leave blocks for the process's life.
    friend void PrintTo(const Operation& it, std::ostream* to) { *to << it.name; }
};

// Runs the operation in a process of its own for each call that it makes and each error of that
// call, with all memory gone from each allocation on, and with 0, 1... descriptors left. Afterwards
// it must succeed when it is run again, with no block and no descriptor left behind. Returns the
// number of faults that were hit.
int drive_faults(const Operation& operation);

}  // namespace tessra_test

#endif
