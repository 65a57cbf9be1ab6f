// The library's assumptions about the platform, checked at compile time.
#ifndef TESSRA_INTERNAL_ASSUMPTIONS_H
#define TESSRA_INTERNAL_ASSUMPTIONS_H

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <climits>

namespace tessra {

static_assert(CHAR_BIT == 8 && sizeof(int) == 4, "the record layouts count on it");
static_assert(sizeof(siginfo_t) == 128, "a signal message is one byte and this record");
static_assert(CLOCK_MONOTONIC_RAW == 4, "the loop's clock");
static_assert(SIGCHLD == 17 && SA_SIGINFO == 0x4 && SA_RESTART == 0x10000000,
              "the signal numbers and flags of ARM and x86");

// The signal catcher and the wake-up use atomics where a lock would deadlock. The library doesn't
// link libatomic. ARM before version 6 has no instructions for atomics, so the compiler promises
// nothing there. But it calls helpers that the kernel gives every process, which take no lock.
#if !defined(__ARM_ARCH) || __ARM_ARCH >= 6
static_assert(std::atomic<int>::is_always_lock_free);
static_assert(std::atomic<unsigned char>::is_always_lock_free);
static_assert(std::atomic<pthread_t>::is_always_lock_free);
static_assert(std::atomic<void*>::is_always_lock_free);
#endif
static_assert(sizeof(std::atomic<int>) == sizeof(int));
static_assert(sizeof(std::atomic<unsigned char>) == 1);
static_assert(sizeof(std::atomic<pthread_t>) == sizeof(pthread_t));

}  // namespace tessra

#endif
