// sched/fiber.cpp - records of user threads: made, started, ended, recycled; thread-local slots.
//
// Records are made eight at a time and never given back; an exited thread's record returns to the free list
// of its node with its generation raised, so that every reference to the old thread goes stale. gFreeShells
// is shared by the schedulers of a node and locked; everything else runs on the fiber's own scheduler.
#include <cstring>

#include "alloc/alloc.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "sched/internal.h"
#include "sched/upcalls.h"

namespace zvx {

static os::CriticalSection gTlsLock;

constexpr uint32_t kExitedBeforeReuse = 4;

// ---- Operating-system fibers -------------------------------------------------------------------------

// The stack of a user thread, touched first on the node's processors. A recycled one needs neither a system
// call nor the change of priority and affinity, which cost more than all the rest of a creation.
static os::FiberContext *FAlloc(Scheduler *S, uint8_t node, Fiber *F) {
    if (os::FiberContext *recycled = os::CreateFiberRecycled(gStackSize, FiberStart, F)) return recycled;
    HANDLE thread = os::GetCurrentThread();
    if (!os::SetThreadPriority(thread, THREAD_PRIORITY_TIME_CRITICAL))
        FatalExit("FAlloc: Unable to set priority %d", static_cast<int>(os::GetLastError()));
    if (os::SetThreadAffinityMask(thread, gNodeMasks[node] & gProcessAffinityMask) == 0)
        FatalExit("FAlloc: Unable to set SetThreadAffinityMask  E[%d]\n", static_cast<int>(os::GetLastError()));
    os::FiberContext *fiber = os::CreateFiber(gStackSize, FiberStart, F);
    DWORD error = os::GetLastError();
    if (os::SetThreadAffinityMask(thread, S->AffinityMask) == 0)
        FatalExit("FAlloc: Unable to restore SetThreadAffinityMask E[%d]\n", static_cast<int>(os::GetLastError()));
    if (!os::SetThreadPriority(thread, S->CurPriority))
        FatalExit("FAlloc: Unable to restore priority %d", static_cast<int>(os::GetLastError()));
    if (fiber == nullptr) os::SetLastError(error);
    return fiber;
}

// ---- Records -----------------------------------------------------------------------------------------

// Everything afresh but OsFiber, ShellSerial and Generation. What stale references read at any time is
// stored word by word; the rest is nobody else's.
static void ResetFiber(Fiber *F, Scheduler *S) {
    std::memset(reinterpret_cast<char *>(F) + offsetof(Fiber, CpuCycles), 0,
                offsetof(Fiber, Sched) - offsetof(Fiber, CpuCycles));
    std::memset(F->TlsValues, 0, sizeof F->TlsValues);
    F->SuspendCount.store(0, std::memory_order_relaxed);
    F->OsThreadId.store(0, std::memory_order_relaxed);
    F->TlsCaptured.store(0, std::memory_order_relaxed);
    F->RoutineEpoch.store(0, std::memory_order_relaxed);
    F->SuspendRequests.store(0, std::memory_order_relaxed);
    for (auto &answer : F->SuspendAnswer) answer.store(0, std::memory_order_relaxed);
    F->LastRunStamp = 0;
    F->LastError = 0;
    F->Flags = FIBER_IN_USE;
    F->SchedClass = CLASS_BACKGROUND;
    F->Role = ROLE_NONE;
    F->State = FSTATE_RUNNING;
    F->Tag.store("UID", std::memory_order_relaxed);
    SetSched(F, S, std::memory_order_relaxed);
    F->StaticTls = gProcessTls;
    F->ExitCode = STILL_ACTIVE;
    InitLink(&F->RunLink);
    InitLink(&F->CritSecWaitLink);
    InitLink(&F->SchedFibersLink);
    InitList(&F->PollSetOvs);
    InitList(&F->FileOvs);
    InitList(&F->SocketOvs);
    InitList(&F->OwnedCritSecs);
    for (FIBEROVERLAPPED &rec : F->OwnOvs) InitOv(&rec, F);
    F->CurOv = &F->OwnOvs[0].Ov;
}

static bool MakeShellBlock(Scheduler *S, uint8_t node, FreeShellList *list) {
    constexpr uint32_t kBlock = 8;
    constexpr uint32_t kBytes = kBlock * sizeof(Fiber) + alignof(Fiber);
    void *memory = KVTAllocSched(kBytes, S, node);
    if (memory == nullptr) return false;
    std::memset(memory, 0, kBytes);
    auto address = (reinterpret_cast<uintptr_t>(memory) + alignof(Fiber) - 1) & ~(uintptr_t{alignof(Fiber)} - 1);
    auto *block = reinterpret_cast<Fiber *>(address);
    for (uint32_t i = 0; i < kBlock; ++i) {
        Fiber *F = &block[i];
        F->OsFiber = FAlloc(S, node, F);
        AppendLink(&list->Shells, &F->RunLink);
        uint32_t serial = gShellSerial.fetch_add(1, std::memory_order_relaxed) + 1;
        F->ShellSerial = serial;
        if (serial < 20) gFirstShells[serial - 1] = F;
        F->Generation.store(1, std::memory_order_relaxed);
    }
    return true;
}

// S is the calling thread's scheduler.
Fiber *AllocFiberShell(Scheduler *S, uint8_t node) {
    FreeShellList *list = &gFreeShells[node];
    Fiber *F;
    // A scheduler that makes and ends threads without an idle moment reuses warm stacks rather than map new ones.
    // The caller runs, so none of the exited is in use.
    if (S->ExitedFibers.Count >= kExitedBeforeReuse) FreeExitedFibers(S);
    {
        SpinGuard guard(&list->Lock);
        if (IsEmpty(&list->Shells) && !MakeShellBlock(S, node, list)) return nullptr;
        F = FiberOfRunLink(FirstLink(&list->Shells));
        if (F->OsFiber == nullptr) F->OsFiber = FAlloc(S, node, F);
        if (F->OsFiber == nullptr) return nullptr;
        UnlinkFrom(&list->Shells, &F->RunLink);
    }
    ResetFiber(F, S);
    return F;
}

void FreeFiberShell(Fiber *F, bool deleteOsFiber) {
    if (deleteOsFiber && F->OsFiber != nullptr) {
        os::DeleteFiber(F->OsFiber);
        F->OsFiber = nullptr;
    }
    FreeShellList *list = &gFreeShells[SchedOf(F)->NumaNode];
    SpinGuard guard(&list->Lock);
    AppendLink(&list->Shells, &F->RunLink);
    F->Flags |= FIBER_IN_USE;
    uint32_t generation = F->Generation.load(std::memory_order_relaxed) + 1;
    F->Generation.store(generation != 0 ? generation : 1, std::memory_order_release);
}

bool CreateInternalFiber(LPTHREAD_START_ROUTINE routine, Scheduler *S, const char *tag) {
    Fiber *F = AllocFiberShell(S, S->NumaNode);
    if (F == nullptr) return false;
    if (!SetUpInternalThread(F, S)) {
        FreeFiberShell(F, true);
        return false;
    }
    F->Role = ROLE_INTERNAL;
    F->Tag.store(tag, std::memory_order_release);
    F->State = FSTATE_SCHED_YIELD;
    F->StartRoutine = routine;
    F->StartParam = nullptr;
    F->Flags &= ~static_cast<uint32_t>(FIBER_USER_THREAD);
    AppendRunQueue(S, gORQ, F);
    S->BackgroundRunnable++;
    return true;
}

// ---- A user thread's life ----------------------------------------------------------------------------

void FiberStart(void *fiber) {
    auto *F = static_cast<Fiber *>(fiber);
    F->Flags |= FIBER_STARTED;
    AppendLink(&SchedOf(F)->AllFibers, &F->SchedFibersLink);
    SchedYield(F, Yield_USER);  // a fresh fiber gives way once before its routine runs
    os::GetThreadDesktop(os::GetCurrentThreadId());
    F->ExitCode = F->StartRoutine(F->StartParam);
    ExitUserThread(F, F->ExitCode, false);
    FatalExit("a user thread returned from its exit");
}

static bool OwnIoPending(const Fiber *F) {
    for (const FIBEROVERLAPPED &rec : F->OwnOvs)
        if (os::LoadStatus(&rec.Ov) == STATUS_PENDING) return true;
    return false;
}

static bool PacketsOwed(const Fiber *F) {
    for (const FIBEROVERLAPPED &rec : F->OwnOvs)
        if (rec.SkipPackets != 0) return true;
    return false;
}

// The platform may still write to an OVERLAPPED of the host's own that lies in this stack.
static void AwaitOperationsOnStack(Fiber *F) {
    const char *low = nullptr;
    const char *high = nullptr;
    os::FiberStackBounds(F->OsFiber, &low, &high);
    while (os::CancelIoInRange(low, high) != 0) SchedYield(F, Yield_SCHED);
}

void LeaveRole(Fiber *F) {
    Scheduler *S = SchedOf(F);
    if ((OptionSet(su_BoostLGWROSThreadPri) && F->Role == ROLE_LGWR) ||
        (OptionSet(su_BoostDBWOSThreadPri) && F->Role == ROLE_DBWR)) {
        os::SetThreadPriority(os::GetCurrentThread(), S->BasePriority);
        S->CurPriority = S->BasePriority;
    }
    if (S->LgwrFiber.load(std::memory_order_relaxed) == F) S->LgwrFiber.store(nullptr, std::memory_order_relaxed);
    if (S->DbwrFiber.load(std::memory_order_relaxed) == F) S->DbwrFiber.store(nullptr, std::memory_order_relaxed);
    if (S->HighPriPostWaiter == F) S->HighPriPostWaiter = nullptr;
}

void FiberExit(Fiber *F, bool terminateBacking) {
    Scheduler *S = SchedOf(F);
    if (F->Flags & FIBER_USER_THREAD)
        S->FiberCount.store(S->FiberCount.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    LeaveRole(F);
    ReleaseOwnedSections(F);
    while (F->PendingApcIos != 0) SleepEx(10, TRUE);
    CancelOwnIo(S, F);
    while (OwnIoPending(F)) SchedYield(F, Yield_SCHED);
    while (PacketsOwed(F)) {
        PollPort(S, 0);
        if (PacketsOwed(F)) SchedYield(F, Yield_SCHED);
    }
    AwaitOperationsOnStack(F);
    if (F->OsThreadHandle != nullptr) {
        // The slots of a running fiber are the record's own, so TlsValues is up to date as it stands.
        EndBackingThread(F, terminateBacking);
        F->StaticTls = gProcessTls;
        S->Os->StaticTls = gProcessTls;
        std::memcpy(F->TlsValues, S->InitFiber->TlsValues, sizeof F->TlsValues);
    }
    UnlinkFrom(&S->AllFibers, &F->SchedFibersLink);
    if (IsDynamic(S) && (F->Flags & FIBER_USER_THREAD)) ReleaseDynamicScheduler(S);
    SchedYield(F, Yield_EXIT);
    FatalExit("an exited user thread was dispatched");
}

void FreeExitedFibers(Scheduler *S) {
    while (ListLink *link = PopLink(&S->ExitedFibers)) FreeFiberShell(FiberOfRunLink(link), true);
}

// ---- Thread-local slots ------------------------------------------------------------------------------

void CaptureTls(Fiber *F) {
    uint32_t highWater = gTlsHighWater.load(std::memory_order_relaxed);
    if (highWater >= os::kTlsSlots) FatalExit("We need more dynamic TLS slots %u\n", highWater);
    F->StaticTls = os::CurrentThreadBlock()->StaticTls;
    if (F->StaticTls == nullptr) FatalExit("The static TLS HEAP is NULL\n");
    // Slots 0 to 63 of the calling thread in one go.
    std::memcpy(F->TlsValues, os::CurrentThreadBlock()->Slots, sizeof F->TlsValues);
    F->TlsCaptured.store(FIBER_TLS_CAPTURED, std::memory_order_release);
}

void RestoreTls(Fiber *F) {
    std::memcpy(os::CurrentThreadBlock()->Slots, F->TlsValues, sizeof F->TlsValues);
    F->TlsCaptured.store(FIBER_TLS_CAPTURED, std::memory_order_release);
}

DWORD TlsAlloc() {
    DWORD index = os::TlsAlloc();
    uint32_t seen = gTlsHighWater.load(std::memory_order_relaxed);
    while (index > seen && !gTlsHighWater.compare_exchange_weak(seen, index, std::memory_order_relaxed)) {
    }
    return index;
}

BOOL TlsFree(DWORD index) { return os::TlsFree(index); }

void ProbeTlsSlots() {
    os::InitializeCriticalSection(&gTlsLock);
    os::EnterCriticalSection(&gTlsLock);
    uint32_t old = gTlsHighWater.load(std::memory_order_relaxed);
    DWORD index = TlsAlloc();
    if (index != TLS_OUT_OF_INDEXES) {
        TlsFree(index);
        uint32_t now = gTlsHighWater.load(std::memory_order_relaxed);
        if (now > old) gTlsHighWater.store(now - 1, std::memory_order_relaxed);
    }
    os::LeaveCriticalSection(&gTlsLock);
}

}  // namespace zvx
