// kernel/critsec.cpp - the critical sections that the library gives to user threads.
//
// Runs on the calling user thread. Entering a free section is one compare-and-exchange, leaving one without waiters an
// exchange; a lock is taken only to queue, and nothing is allocated. A contender spins a little while the owner runs on
// another scheduler, and otherwise waits for the post of a leaver. Whoever is posted is not given the section: it tries
// again, in turn with whoever comes along, and keeps its place in the queue until it has got it.
//
// A section that was initialised outside fiber mode belongs to the operating system until a user thread enters it.
#include "kernel/critsec.h"

#include <new>

#include "alloc/alloc.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "postwait/postwait.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

std::atomic<uint32_t> gOsCritSecCount{0};
SpinLock FiberCritSecWrapLock;

namespace {

static_assert(sizeof(CRITICAL_SECTION) == sizeof(os::CriticalSection));
static_assert(offsetof(CRITICAL_SECTION, OwningThread) == offsetof(os::CriticalSection, LibraryRecord));

os::CriticalSection *OsSection(CRITICAL_SECTION *section) {
    return reinterpret_cast<os::CriticalSection *>(section);
}

// The host structure's fourth word. Release and acquire: whoever finds a record finds it complete.
std::atomic_ref<HANDLE> RecordWord(CRITICAL_SECTION *section) {
    return std::atomic_ref<HANDLE>(section->OwningThread);
}
FIBER_CRITICAL_SECTION *RecordIn(CRITICAL_SECTION *section) {
    return static_cast<FIBER_CRITICAL_SECTION *>(RecordWord(section).load(std::memory_order_acquire));
}

FIBER_CRITICAL_SECTION *NewRecord(Fiber *F, uint32_t spinCount, bool takenOver) {
    Scheduler *S = SchedOf(F);
    void *chunk = AllocChunk(&gAllocTypes[ALLOC_FIBER_CRITICAL_SECTION], S, S->NumaNode);
    auto *r = new (chunk) FIBER_CRITICAL_SECTION{};
    InitLink(&r->OwnedLink);
    InitList(&r->Waiters);
    InitLink(&r->Retire.Link);
    InitSpinLock(&r->WaitersLock, &gStats[STAT_CritSectionWaitersLock]);
    r->SpinCount = spinCount;
    r->Creator = F;
    r->CreatorGeneration = Generation(F);
    r->TakenOver = takenOver;
    return r;
}

void ReleaseRecord(Scheduler *S, RetireEntry *retired) {
    FreeChunk(&gAllocTypes[ALLOC_FIBER_CRITICAL_SECTION], S, ZVX_RECORD_OF(retired, FIBER_CRITICAL_SECTION, Retire),
              S->NumaNode);
}

[[gnu::noinline]] FIBER_CRITICAL_SECTION *TakeOver(CRITICAL_SECTION *section, Fiber *F) {
    // Made outside the lock, because an allocation may take a while.
    FIBER_CRITICAL_SECTION *made = NewRecord(F, 0, true);
    AcquireSpinLock(&FiberCritSecWrapLock);
    FIBER_CRITICAL_SECTION *r = RecordIn(section);
    if (r == nullptr) {
        if (gOsCritSecCount.load(std::memory_order_relaxed) == 0) {
            ReleaseSpinLock(&FiberCritSecWrapLock);
            FatalExit("EnterCriticalSection: unwrapped critical section\n");
        }
        gOsCritSecCount.fetch_sub(1, std::memory_order_relaxed);
        r = made;
        made = nullptr;
        RecordWord(section).store(r, std::memory_order_release);
    }
    ReleaseSpinLock(&FiberCritSecWrapLock);
    if (made != nullptr) FreeChunk(&gAllocTypes[ALLOC_FIBER_CRITICAL_SECTION], SchedOf(F), made, SchedOf(F)->NumaNode);
    return r;
}

inline FIBER_CRITICAL_SECTION *RecordFor(CRITICAL_SECTION *section, Fiber *F) {
    FIBER_CRITICAL_SECTION *r = RecordIn(section);
    return r != nullptr ? r : TakeOver(section, F);
}

// Null when the section was free and is the caller's now, else the owner that was seen. Sequentially consistent: it
// is the waiter's look after it has queued. With one scheduler a plain store would do, and was measured to be slower:
// an entry reads what the exit before has just written, and the exchange lets that reach the cache first.
inline Fiber *TryOwn(FIBER_CRITICAL_SECTION *r, Fiber *F) {
    Fiber *seen = nullptr;
    r->Owner.compare_exchange_strong(seen, F, std::memory_order_seq_cst, std::memory_order_seq_cst);
    return seen;
}

inline void BeginOwning(FIBER_CRITICAL_SECTION *r, Fiber *F) {
    AppendLink(&F->OwnedCritSecs, &r->OwnedLink);
    r->RecursionCount = 1;
}

// ---- Waiters -----------------------------------------------------------------------------------------

void Queue(FIBER_CRITICAL_SECTION *r, Fiber *F) {
    SpinGuard guard(&r->WaitersLock);
    AppendLink(&r->Waiters, &F->CritSecWaitLink);
    r->WaiterCount.store(r->Waiters.Count, std::memory_order_seq_cst);
}

void Unqueue(FIBER_CRITICAL_SECTION *r, Fiber *F) {
    SpinGuard guard(&r->WaitersLock);
    UnlinkFrom(&r->Waiters, &F->CritSecWaitLink);
    r->WaiterCount.store(r->Waiters.Count, std::memory_order_seq_cst);
}

// Posts whoever has waited longest. The generation is read under the lock, where a waiter cannot leave and be reused.
[[gnu::noinline]] void PostFirstWaiter(FIBER_CRITICAL_SECTION *r, Fiber *F, PostMode mode) {
    Fiber *first;
    uint32_t generation;
    {
        SpinGuard guard(&r->WaitersLock);
        if (IsEmpty(&r->Waiters)) return;
        first = ZVX_RECORD_OF(FirstLink(&r->Waiters), Fiber, CritSecWaitLink);
        generation = Generation(first);
    }
    Post(first, generation, mode, F, POST_SECTION);
}

// The waiter is terminated or interrupted. It may have been posted already, and nobody else would be: if the section is
// free the post goes on to whoever is first now. An owner that comes later posts when it leaves.
void WaiterCleanup(Fiber *F, Scheduler *S, uintptr_t *args, uint32_t code) {
    auto *r = reinterpret_cast<FIBER_CRITICAL_SECTION *>(args[0]);
    uintptr_t bits[3] = {POST_SECTION, 0, 0};
    PostWaiterCleanup(F, S, bits, code);
    if (code == 3) {
        Queue(r, F);
        F->PostPending |= POST_SECTION;  // its wait ends at once, and it tries again
        return;
    }
    Unqueue(r, F);
    F->PostPending &= ~POST_SECTION;
    if (r->Owner.load(std::memory_order_seq_cst) == nullptr) PostFirstWaiter(r, F, kPostQuiet);
}

[[gnu::noinline]] void EnterContended(FIBER_CRITICAL_SECTION *r, Fiber *F, Fiber *owner) {
    bool queued = false;
    for (;;) {
        uint32_t spins = r->SpinCount + 1;
        for (;;) {
            if (!queued) {
                F->TermCleanup.Args[TermCleanupFuncSet(F, WaiterCleanup)][0] = reinterpret_cast<uintptr_t>(r);
                Queue(r, F);
                queued = true;
                // Behind the queueing: who was seen before it may have left in between, and its record may stand for
                // another thread by now. Whoever owns the section from here on posts when it leaves.
                if ((owner = TryOwn(r, F)) == nullptr) break;
            }
            if (owner->Sched.load(std::memory_order_relaxed) == SchedOf(F) || --spins == 0) break;
            os::CpuRelax();
            owner = TryOwn(r, F);
            if (owner == nullptr) break;
        }
        if (owner == nullptr) break;
        PostWait(F, INFINITE, POST_SECTION, false);
        owner = TryOwn(r, F);
        if (owner == nullptr) break;
    }
    Unqueue(r, F);
    TermCleanupFuncRemove(F, WaiterCleanup);
}

// The caller does not own the section: `seen` does, or nobody.
[[gnu::noinline, noreturn]] void CannotFree(const Fiber *F, const Fiber *seen) {
    FatalExit("Couldn't free critical section: current[%u] owner[%u]\n",
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(F)),
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(seen)));
}

// Gives r up, which F must own. At the last of the recursive entries posts the first waiter. The store to Owner comes
// before the look for waiters, as a waiter queues before its last look at Owner; only F ends its own possession.
inline void Release(FIBER_CRITICAL_SECTION *r, Fiber *F, PostMode mode) {
    const Fiber *seen = r->Owner.load(std::memory_order_relaxed);
    if (seen != F) [[unlikely]]
        CannotFree(F, seen);
    if (--r->RecursionCount != 0) return;
    UnlinkFrom(&F->OwnedCritSecs, &r->OwnedLink);
    r->Owner.store(nullptr, std::memory_order_seq_cst);
    if (r->WaiterCount.load(std::memory_order_seq_cst) != 0) [[unlikely]]
        PostFirstWaiter(r, F, mode);
}

// Entering what is not simply free: it has no record yet, F owns it already, or another one does. Out of line, so that
// the common entry keeps its few registers to itself.
[[gnu::noinline]] void EnterSlowly(CRITICAL_SECTION *section, Fiber *F) {
    FIBER_CRITICAL_SECTION *r = RecordFor(section, F);
    Fiber *owner = TryOwn(r, F);
    if (owner == F) {
        r->RecursionCount++;
        return;
    }
    if (owner != nullptr) EnterContended(r, F, owner);
    BeginOwning(r, F);
}

}  // namespace

void InitCriticalSections() {
    InitSpinLock(&FiberCritSecWrapLock, &gStats[STAT_FiberCritSecWrapLock]);
}

void ReleaseOwnedSections(Fiber *F) {
    while (!IsEmpty(&F->OwnedCritSecs))
        Release(ZVX_RECORD_OF(FirstLink(&F->OwnedCritSecs), FIBER_CRITICAL_SECTION, OwnedLink), F, kPostQuiet);
}

void InitializeCriticalSection(CRITICAL_SECTION *section) {
    Fiber *F = CallingFiber();
    os::InitializeCriticalSection(OsSection(section));
    if (F == nullptr) {
        gOsCritSecCount.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    RecordWord(section).store(NewRecord(F, 0, false), std::memory_order_release);
}

BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION *section, DWORD spinCount) {
    Fiber *F = CallingFiber();
    const BOOL done = os::InitializeCriticalSectionAndSpinCount(OsSection(section), spinCount);
    if (F == nullptr) {
        gOsCritSecCount.fetch_add(1, std::memory_order_relaxed);
        return done;
    }
    RecordWord(section).store(NewRecord(F, spinCount & 0x7FFFFFFF, false), std::memory_order_release);
    return TRUE;
}

DWORD SetCriticalSectionSpinCount(CRITICAL_SECTION *section, DWORD spinCount) {
    if (CallingFiber() != nullptr) FatalExit("SetCriticalSectionSpinCount is not supported\n");
    return os::SetCriticalSectionSpinCount(OsSection(section), spinCount);
}

void EnterCriticalSection(CRITICAL_SECTION *section) {
    Fiber *F = CallingFiber();
    if (F == nullptr) {
        os::EnterCriticalSection(OsSection(section));
        return;
    }
    FIBER_CRITICAL_SECTION *r = RecordIn(section);
    if (r == nullptr || TryOwn(r, F) != nullptr) [[unlikely]] {
        EnterSlowly(section, F);
        return;
    }
    BeginOwning(r, F);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION *section) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::TryEnterCriticalSection(OsSection(section));
    FIBER_CRITICAL_SECTION *r = RecordFor(section, F);
    Fiber *owner = TryOwn(r, F);
    if (owner == F) {
        r->RecursionCount++;
        return TRUE;
    }
    if (owner != nullptr) return FALSE;
    BeginOwning(r, F);
    return TRUE;
}

void LeaveCriticalSection(CRITICAL_SECTION *section) {
    Fiber *F = CallingFiber();
    if (F == nullptr) {
        os::LeaveCriticalSection(OsSection(section));
        return;
    }
    FIBER_CRITICAL_SECTION *r = RecordIn(section);
    if (r == nullptr) [[unlikely]]
        CannotFree(F, nullptr);
    Release(r, F, kPostSingle);
}

void DeleteCriticalSection(CRITICAL_SECTION *section) {
    Fiber *F = CallingFiber();
    FIBER_CRITICAL_SECTION *r = F != nullptr ? RecordIn(section) : nullptr;
    if (r == nullptr) {
        os::DeleteCriticalSection(OsSection(section));
        // One that was never initialised was never counted.
        uint32_t count = gOsCritSecCount.load(std::memory_order_relaxed);
        while (count != 0 && !gOsCritSecCount.compare_exchange_weak(count, count - 1, std::memory_order_relaxed)) {
        }
        return;
    }
    RecordWord(section).store(nullptr, std::memory_order_release);
    Fiber *owner = r->Owner.load(std::memory_order_acquire);
    if (owner != nullptr && owner != F)
        FatalExit("DeleteCriticalSection: Owner not null: owner[%u] current[%u]\n",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(owner)),
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(F)));
    if (owner == F) UnlinkFrom(&F->OwnedCritSecs, &r->OwnedLink);
    const uint32_t waiting = r->WaiterCount.load(std::memory_order_seq_cst);
    if (waiting != 0)
        FatalExit("DeleteCriticalSection: Waiters list not null: num_waiters[%d]\n", static_cast<int>(waiting));
    const bool takenOver = r->TakenOver != 0;
    r->Retire.Release = ReleaseRecord;
    RetireRecord(SchedOf(F), &r->Retire);
    if (takenOver) os::DeleteCriticalSection(OsSection(section));
}

}  // namespace zvx
