// platform/base/futex.h - sleeping on a word, and the clock that its deadlines are measured by.
//
// Inline wrappers over the kernel's futex for the platform's own use, on any thread. A deadline is absolute, in
// nanoseconds of the monotonic clock, so that a wait that is woken for nothing simply waits again. Words are
// private to the process. Nothing here touches the last error, and errno is preserved.
#ifndef ZVX_PLATFORM_BASE_FUTEX_H
#define ZVX_PLATFORM_BASE_FUTEX_H

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace os {

constexpr uint64_t kNoDeadline = UINT64_MAX;
constexpr uint32_t kForever = 0xFFFFFFFFu;  // INFINITE, without the host's header

inline uint64_t MonotonicNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t DeadlineAfter(uint32_t ms) {
    return ms == kForever ? kNoDeadline : MonotonicNs() + static_cast<uint64_t>(ms) * 1000000u;
}

// Sleeps while *word is `expected`. False when the deadline has passed; true for every other end (woken, a
// signal, the word had changed already), after which the caller looks at its condition again.
inline bool FutexWait(std::atomic<uint32_t> *word, uint32_t expected, uint64_t deadline) {
    const int savedErrno = errno;
    timespec until;
    timespec *limit = nullptr;
    if (deadline != kNoDeadline) {
        until.tv_sec = static_cast<time_t>(deadline / 1000000000u);
        until.tv_nsec = static_cast<long>(deadline % 1000000000u);
        limit = &until;
    }
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET | FUTEX_PRIVATE_FLAG, expected, limit, nullptr,
                                FUTEX_BITSET_MATCH_ANY);
    const bool timedOut = result < 0 && errno == ETIMEDOUT;
    errno = savedErrno;
    return !timedOut;
}

inline void FutexWake(std::atomic<uint32_t> *word, int count) {
    const int savedErrno = errno;
    syscall(SYS_futex, word, FUTEX_WAKE | FUTEX_PRIVATE_FLAG, count, nullptr, nullptr, 0);
    errno = savedErrno;
}

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_FUTEX_H
