// Scope guards: each acquires one resource and releases it at the end of the scope.
#ifndef TESSRA_INTERNAL_GUARDS_H
#define TESSRA_INTERNAL_GUARDS_H

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace tessra {

// Base of all guards: each resource has one owner.
class NotCopyable {
public:
    NotCopyable(const NotCopyable&) = delete;
    NotCopyable& operator=(const NotCopyable&) = delete;

protected:
    NotCopyable() = default;
    ~NotCopyable() = default;
};

// Holds a plain mutex. Locking a valid default mutex can't fail, so the results are ignored.
class MutexLock : NotCopyable {
public:
    explicit MutexLock(pthread_mutex_t& mutex) : mutex_(mutex) {
        (void)pthread_mutex_lock(&mutex_);
    }
    ~MutexLock() { (void)pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t& mutex_;
};

// Defers the cancellation of the calling thread: a cancelled thread runs no destructor of a guard.
class CancelDisabled : NotCopyable {
public:
    CancelDisabled() { (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~CancelDisabled() { (void)pthread_setcancelstate(before_, nullptr); }

private:
    int before_;
};

// Restores errno at the end: for signal handlers, and for code that must not hide an earlier error.
class ErrnoKeeper : NotCopyable {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() {
        // GCC assumes that free() doesn't change errno, and would leave out the store. In C
        // libraries such as glibc before 2.33 free() may change errno.
        asm volatile("" : : : "memory");
        errno = saved_;
    }

private:
    int saved_;
};

// Owns a block of the heap. It converts to false if the allocation has failed.
class HeapBlock : NotCopyable {
public:
    explicit HeapBlock(size_t size) : block_(malloc(size)) {}
    ~HeapBlock() {
        const ErrnoKeeper errno_keeper;
        free(block_);
    }

    explicit operator bool() const { return block_ != nullptr; }
    char* bytes() const { return static_cast<char*>(block_); }

    // Returns false if memory is short. The block is then as it was.
    bool resize(size_t size) {
        void* const moved = realloc(block_, size);
        if (moved == nullptr) return false;
        block_ = moved;
        return true;
    }
    char* release() {
        char* const bytes = static_cast<char*>(block_);
        block_ = nullptr;
        return bytes;
    }

private:
    void* block_;
};

// Owns a descriptor. It converts to false if the descriptor is negative.
class UniqueFd : NotCopyable {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() {
        if (fd_ >= 0) {
            const ErrnoKeeper errno_keeper;
            (void)close(fd_);
        }
    }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }

private:
    int fd_;
};

// Blocks every signal for the calling thread, if pthread_sigmask() succeeds.
class AllSignalsBlocked : NotCopyable {
public:
    AllSignalsBlocked() {
        sigset_t all;
        (void)sigfillset(&all);
        blocked_ = pthread_sigmask(SIG_SETMASK, &all, &before_) == 0;
    }
    ~AllSignalsBlocked() { restore(); }

    void restore() const {
        if (blocked_) (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    sigset_t before_;
    bool blocked_;
};

}  // namespace tessra

#endif
