// base/spinlock.h - the library's spin lock: one word, and the statistic it is named after.
//
// Held for a handful of instructions. It spins briefly and then gives the processor away, because the
// holder may be a kernel thread that was preempted on the same processor. Never held across SchedYield.
#ifndef ZVX_BASE_SPINLOCK_H
#define ZVX_BASE_SPINLOCK_H

#include <atomic>
#include <cstdint>

#include "platform/os.h"

namespace zvx {

struct StatRecord;

struct SpinLock {
    std::atomic<uint32_t> Word;  // 0 free, 1 held; the acquiring exchange pairs with the releasing store
    const StatRecord *Name;      // init: the statistic of the same name, or null
};

// The name is taken by the lock's owner after the statistics exist; a zeroed lock works without one.
inline void InitSpinLock(SpinLock *lock, const StatRecord *name) {
    lock->Word.store(0, std::memory_order_relaxed);
    lock->Name = name;
}

inline void AcquireSpinLock(SpinLock *lock) {
    uint32_t free = 0;
    if (lock->Word.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
    for (uint32_t spins = 0;;) {
        while (lock->Word.load(std::memory_order_relaxed) != 0) {
            if (++spins < 200) {
                os::CpuRelax();
            } else {
                spins = 0;
                os::YieldProcessor();
            }
        }
        free = 0;
        if (lock->Word.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
    }
}

inline void ReleaseSpinLock(SpinLock *lock) { lock->Word.store(0, std::memory_order_release); }

struct SpinGuard {
    explicit SpinGuard(SpinLock *lock) : Lock(lock) { AcquireSpinLock(lock); }
    ~SpinGuard() { ReleaseSpinLock(Lock); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;
    SpinLock *Lock;
};

}  // namespace zvx

#endif  // ZVX_BASE_SPINLOCK_H
