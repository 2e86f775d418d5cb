// platform/base/inner_lock.cpp - short locks and regions in which a thread is not to be stopped.
//
// Runs on every thread. Never allocates and never touches the last error. A contended lock spins for about
// a microsecond, which covers the holders' few dozen instructions, and then sleeps: its holder was
// preempted.
#include "platform/base/inner_lock.h"

#include "platform/base/futex.h"
#include "platform/base/thread_block.h"

namespace os {

std::atomic<void (*)()> gServePendingRequest{nullptr};

namespace {

constexpr int kSpins = 60;  // pauses of some 20 ns

constinit thread_local InnerRegion tRegion{};

}  // namespace

ZVX_THREAD_ACCESSOR InnerRegion *CurrentInnerRegion() {
    InnerRegion *region = &tRegion;
    asm volatile("" : "+r"(region));  // clang's link-time optimiser takes the address for a constant
    return region;
}

void EnterInnerRegion() {
    InnerRegion *region = CurrentInnerRegion();
    region->Depth.store(region->Depth.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    // The handler runs on this thread: only the compiler could move the protected work above the store.
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

void LeaveInnerRegion() {
    InnerRegion *region = CurrentInnerRegion();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    uint32_t depth = region->Depth.load(std::memory_order_relaxed) - 1;
    region->Depth.store(depth, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    // A request that arrives from here on finds depth 0 and is served by the handler itself.
    if (depth == 0 && region->Pending.load(std::memory_order_relaxed) != 0) [[unlikely]] {
        region->Pending.store(0, std::memory_order_relaxed);
        if (auto serve = gServePendingRequest.load(std::memory_order_acquire)) serve();
    }
}

[[gnu::noinline]] static void AcquireInnerSlow(InnerLock *lock) {
    for (int spin = 0; spin < kSpins; spin++) {
        __builtin_ia32_pause();
        uint32_t free = 0;
        if (lock->State.load(std::memory_order_relaxed) == 0 &&
            lock->State.compare_exchange_weak(free, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
    }
    // From here on the lock is taken as 2, because others may sleep beside this thread.
    while (lock->State.exchange(2, std::memory_order_acquire) != 0) FutexWait(&lock->State, 2, kNoDeadline);
}

void AcquireInner(InnerLock *lock) {
    EnterInnerRegion();
    uint32_t free = 0;
    if (!lock->State.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed))
        [[unlikely]]
        AcquireInnerSlow(lock);
}

void ReleaseInner(InnerLock *lock) {
    if (lock->State.exchange(0, std::memory_order_release) == 2) [[unlikely]]
        FutexWake(&lock->State, 1);
    LeaveInnerRegion();
}

}  // namespace os
