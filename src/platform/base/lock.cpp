// platform/base/lock.cpp - critical sections and the spin lock's slow path.
//
// A critical section blocks the kernel thread, so it is for short sections that never switch fibers. The word has the
// three values of a futex lock: free, held, held with sleepers; owner and recursion lie outside it and are written
// by the owner only.
#include <sched.h>

#include "platform/base/futex.h"
#include "platform/base/spin.h"
#include "platform/base/thread_block.h"
#include "platform/os.h"

namespace os {

namespace {

// Rounds of pause before sleeping. A section held by a running thread is usually free again within a microsecond,
// which is less than a sleep and a wake-up cost; a pause is 10 to 40 ns on the processors of today.
constexpr int kSpins = 40;

uintptr_t OwnId(const ThreadBlock *block) {
    const uintptr_t data = reinterpret_cast<uintptr_t>(block->FiberData);
    return data != kNoFiberData ? data : reinterpret_cast<uintptr_t>(block);
}

bool TakeFree(CriticalSection *section) {
    uint32_t free = 0;
    return section->State.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
}

__attribute__((noinline)) void EnterSlow(CriticalSection *section) {
    const uintptr_t spins = section->SpinCount != 0 ? section->SpinCount : kSpins;
    for (uintptr_t i = 0; i < spins; ++i) {
        CpuRelax();
        if (section->State.load(std::memory_order_relaxed) == 0 && TakeFree(section)) return;
    }
    // Whoever has slept takes the section as "with sleepers", because others may still sleep; the price is one wake-up
    // too many at the end.
    while (section->State.exchange(2, std::memory_order_acquire) != 0) FutexWait(&section->State, 2, kNoDeadline);
}

void Own(CriticalSection *section, ThreadBlock *block, uintptr_t self) {
    section->OwnerId.store(self, std::memory_order_relaxed);
    section->Recursion = 1;
#ifdef ZVX_CHECKS
    ++block->SpinLocksHeld;
#else
    static_cast<void>(block);
#endif
}

}  // namespace

void InitializeCriticalSection(CriticalSection *section) {
    section->State.store(0, std::memory_order_relaxed);
    section->OwnerId.store(0, std::memory_order_relaxed);
    section->Recursion = 0;
    section->LibraryRecord = nullptr;
    section->Reserved = section->SpinCount = 0;
}

BOOL InitializeCriticalSectionAndSpinCount(CriticalSection *section, DWORD spinCount) {
    if (ShouldFail("InitializeCriticalSectionAndSpinCount")) return FALSE;
    InitializeCriticalSection(section);
    SetCriticalSectionSpinCount(section, spinCount);
    return TRUE;
}

DWORD SetCriticalSectionSpinCount(CriticalSection *section, DWORD spinCount) {
    const DWORD before = static_cast<DWORD>(section->SpinCount);
    // The top bit asked for memory in advance where that was needed; an uninterrupted spin of a minute helps nobody.
    section->SpinCount = spinCount & 0x7FFFFFFF;
    return before;
}

void DeleteCriticalSection(CriticalSection *section) {
    InitializeCriticalSection(section);
}

// OwnerId can only equal our own identity if we stored it, so a relaxed load decides.
void EnterCriticalSection(CriticalSection *section) {
    ThreadBlock *block = CurrentThreadBlock();
    const uintptr_t self = OwnId(block);
    if (section->OwnerId.load(std::memory_order_relaxed) == self) {
        ++section->Recursion;
        return;
    }
    if (!TakeFree(section)) EnterSlow(section);
    Own(section, block, self);
}

BOOL TryEnterCriticalSection(CriticalSection *section) {
    ThreadBlock *block = CurrentThreadBlock();
    const uintptr_t self = OwnId(block);
    if (section->OwnerId.load(std::memory_order_relaxed) == self) {
        ++section->Recursion;
        return TRUE;
    }
    if (!TakeFree(section)) return FALSE;
    Own(section, block, self);
    return TRUE;
}

void LeaveCriticalSection(CriticalSection *section) {
    if (--section->Recursion != 0) return;
#ifdef ZVX_CHECKS
    --CurrentThreadBlock()->SpinLocksHeld;
#endif
    section->OwnerId.store(0, std::memory_order_relaxed);
    if (section->State.exchange(0, std::memory_order_release) == 2) FutexWake(&section->State, 1);
}

void CpuRelax() {
    __builtin_ia32_pause();
}

void YieldProcessor() {
    sched_yield();
}

void SpinSlow(std::atomic<uint32_t> *word) {
    for (int round = 1;; ++round) {
        if (word->load(std::memory_order_relaxed) == 0 && word->exchange(1, std::memory_order_acquire) == 0) return;
        if (round % kSpins == 0) {
            sched_yield();
        } else {
            CpuRelax();
        }
    }
}

}  // namespace os
