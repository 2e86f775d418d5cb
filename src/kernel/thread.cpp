// kernel/thread.cpp - user threads as the host sees them: made, ended, suspended, terminated, timed.
//
// Runs on the calling user thread (creation of "FMAIN": on an init fiber). A function about another thread never
// touches that thread's Fiber beyond its atomics: it sends a message to the scheduler that has the thread, and waits
// by sleeping through the library. It keeps no handle entry across such a sleep; Fiber records are never freed, and
// the generation tells whether the record still stands for the same thread.
#include "kernel/thread.h"

#include "alloc/alloc.h"
#include "base/assert.h"
#include "diag/timesource.h"
#include "kernel/handles.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

namespace {

std::atomic<uintptr_t> sSuspendSerial{0};  // numbers the requests to suspend, from 1
constexpr DWORD kSuspendFailed = 0xFFFFFFFF;
constexpr uint32_t kMostSuspends = 127;
constexpr size_t kPassThroughStack = 0x100000;

uint64_t Join(const FILETIME &time) {
    return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

void Split(uint64_t time, FILETIME *out) {
    out->dwLowDateTime = static_cast<DWORD>(time);
    out->dwHighDateTime = static_cast<DWORD>(time >> 32);
}

// ---- The backing thread ------------------------------------------------------------------------------

// Both run inside a resume, as the backing thread: with its identifier, its slots and outside any fiber.
void CaptureForFiber(void *fiber) {
    CaptureTls(static_cast<Fiber *>(fiber));
}

DWORD EndForFiber(void *fiber) {
    auto *F = static_cast<Fiber *>(fiber);
    RestoreTls(F);  // what the process does at the end of a thread sees the user thread's values
    return F->ExitCode;
}

// Makes F's backing thread and completes `entry` for it; on failure nothing is left of it and the last error says
// why. S is the calling thread's scheduler. The host's security attributes and stack size are not for this thread.
bool MakeBackingThread(Fiber *F, Scheduler *S, uint32_t mask, PSEHAND *entry, uint32_t type) {
    F->TlsCaptured.store(0, std::memory_order_relaxed);
    DWORD id = 0;
    const HANDLE handle = os::CreateBackingThread(&gNullDaclSecurity, CaptureForFiber, EndForFiber, F, &id);
    if (handle == nullptr) return false;
    if (mask != 0) os::SetThreadAffinityMask(handle, mask);
    os::SetThreadPriority(handle, S->CurPriority);
    if (os::ResumeThread(handle) == kSuspendFailed) {
        const DWORD error = os::GetLastError();
        os::TerminateThread(handle, 0);
        os::CloseHandle(handle);
        os::SetLastError(error);
        return false;
    }
    ZVX_CHECK(F->TlsCaptured.load(std::memory_order_acquire) == FIBER_TLS_CAPTURED);
    FILETIME creation{}, exit{}, kernel{}, user{};
    os::GetThreadTimes(handle, &creation, &exit, &kernel, &user);
    entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle));
    entry->Type = type;
    entry->OwnerFiber = F;
    entry->OwnerGeneration = Generation(F);
    entry->CreationTime = Join(creation);
    F->OsThreadHandle = handle;
    F->OsThreadId.store(id, std::memory_order_relaxed);
    F->ThreadHandleRec = entry;
    return true;
}

bool TerminateBacking(Fiber *F, HANDLE handle) {
    if (!os::TerminateThread(handle, F->ExitCode)) return false;
    F->TlsCaptured.store(FIBER_TLS_CAPTURED, std::memory_order_release);
    return true;
}

// Resumes the backing thread until its end has run, by our hand or by another's. False when it cannot be resumed and
// has not ended either.
bool RunBackingEnd(Fiber *F, HANDLE handle) {
    F->TlsCaptured.store(0, std::memory_order_relaxed);
    DWORD previous;
    do {
        previous = os::ResumeThread(handle);  // the host may have suspended the object behind our back
    } while (previous != kSuspendFailed && previous > 1);
    while (F->TlsCaptured.load(std::memory_order_acquire) == 0 && os::WaitForSingleObject(handle, 0) == WAIT_TIMEOUT) {
        if (previous == kSuspendFailed) return false;
        os::Sleep(0);  // somebody else's resume is running it on another kernel thread
    }
    return true;
}

// ---- Where a new thread goes -------------------------------------------------------------------------

// The static scheduler with the least load that runs on a processor of `mask`, or on any when it is 0; the first
// one when no processor fits. Threads that are on their way count, or a burst of creations would all go to one.
Scheduler *ChooseScheduler(uint32_t mask) {
    Scheduler *best = nullptr;
    uint32_t bestLoad = 0;
    for (uint32_t i = 0; i < gNumSchedulers; i++) {
        Scheduler *S = gSchedulers[i];
        if (mask != 0 && (S->AffinityMask & mask) == 0) continue;
        uint32_t load = S->FiberCount.load(std::memory_order_relaxed) + S->InTransit.load(std::memory_order_relaxed);
        if (S->LgwrFiber.load(std::memory_order_relaxed) != nullptr) load += gAlterDistributionLGWR;
        if (S->DbwrFiber.load(std::memory_order_relaxed) != nullptr) load += gAlterDistributionDBWR;
        if (best == nullptr || load < bestLoad) {
            best = S;
            bestLoad = load;
        }
    }
    return best != nullptr ? best : gSchedulers[0];
}

// A record with a stack. Those that have ended on this scheduler are taken back first: it may have been too busy to
// do so, and their stacks are both at hand and in the cache. Whatever is out of memory without saying so has said it.
Fiber *AllocFiberOrSayWhy(Scheduler *S, uint8_t node) {
    FreeExitedFibers(S);
    const DWORD before = os::GetLastError();
    os::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    Fiber *F = AllocFiberShell(S, node);
    if (F != nullptr) os::SetLastError(before);
    return F;
}

// ---- Messages about a thread -------------------------------------------------------------------------

// The thread that a thread handle stood for when it was looked up.
struct Target {
    Fiber *Thread;
    uint32_t Generation;
};

bool IsSame(const Target &target) {
    return Generation(target.Thread) == target.Generation;
}

BOOL StaleHandle() {
    os::SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
}

// The scheduler that has the thread. Between two schedulers there is nobody to talk to: waits for its arrival.
// Null when the thread has ended meanwhile.
Scheduler *HomeOf(const Target &target) {
    for (uint32_t looks = 0;; looks++) {
        Scheduler *S = target.Thread->Sched.load(std::memory_order_acquire);
        if (S != nullptr) return S;
        if (!IsSame(target)) return nullptr;
        AwaitAnswer(looks);
    }
}

// A scheduler that runs user threads looks at its messages soon: our own by a full sweep now, another one because
// its running user thread is told that its quantum is over.
void HurryMessages(Fiber *C, Scheduler *TS) {
    if (TS == SchedOf(C)) {
        TS->SelectPasses = kFullSweepPasses + 1;
        SchedYield(C, Yield_USER);
    } else {
        TS->QuantumStartTick.store(0, std::memory_order_relaxed);
        UpdateQuantumIndicator(true);
    }
}

// May yield. False when the thread has ended before there was a scheduler to send to.
bool SendAbout(Fiber *C, const Target &target, uint8_t kind, uintptr_t second, uintptr_t third = 0) {
    Scheduler *TS = HomeOf(target);
    if (TS == nullptr) return false;
    FIBER_MESSAGE *msg = AllocMessage(SchedOf(C), TS, kind);
    msg->Count = 1;
    msg->Generation = target.Generation;
    msg->One.Target = target.Thread;
    msg->One.ExitCode = second;
    msg->One.Routine = reinterpret_cast<void *>(third);
    SendMessage(TS, msg);
    HurryMessages(C, TS);
    return true;
}

}  // namespace

bool SetUpInternalThread(Fiber *F, Scheduler *S) {
    PSEHAND *entry = AllocHandleEntry(S, S->NumaNode);
    if (!MakeBackingThread(F, S, S->AffinityMask, entry, PHAND_HTYPE_CreateSchedThread)) {
        FreeHandleEntry(entry, S);
        return false;
    }
    InsertHandle(entry);
    return true;
}

void EndBackingThread(Fiber *F, bool terminate) {
    const HANDLE handle = F->OsThreadHandle;
    // The time comes first: who waits for the handle and then asks for it must find it.
    if (PSEHAND *entry = LookUpHandle(handle); entry != nullptr) {
        FILETIME now{};
        os::GetSystemTimeAsFileTime(&now);
        entry->ExitTime.store(Join(now), std::memory_order_relaxed);
    }
    // The other way where the first one is refused: who waits for the handle must see the end.
    if (!terminate || !TerminateBacking(F, handle)) {
        if (!RunBackingEnd(F, handle)) TerminateBacking(F, handle);
    }
    // The thread entry's own reference; the host's handle keeps the entry alive.
    CloseHandleOn(SchedOf(F), handle);
    F->OsThreadHandle = nullptr;
    F->OsThreadId.store(0, std::memory_order_relaxed);
}

void ExitUserThread(Fiber *F, DWORD exitCode, bool terminateBacking) {
    if ((F->Flags & FIBER_EXITING) != 0) return;
    F->ExitCode = exitCode;
    CancelFiberOvs(F);
    RunTermCleanups(F, SchedOf(F));
    F->Flags |= FIBER_EXITING;
    FiberExit(F, terminateBacking);
}

// ---- Creation ----------------------------------------------------------------------------------------

HANDLE CreateUserThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine, void *param,
                        DWORD flags, DWORD *threadId, uint32_t mask, Scheduler *CS, const char *tag, uint32_t role) {
    Scheduler *T = ChooseScheduler(mask);
    Fiber *F = AllocFiberOrSayWhy(CS, T->NumaNode);
    if (F == nullptr) return nullptr;
    PSEHAND *entry = AllocHandleEntry(CS, T->NumaNode);
    if (!MakeBackingThread(F, CS, T->AffinityMask, entry, PHAND_HTYPE_CreateThread)) {
        const DWORD error = os::GetLastError();
        FreeHandleEntry(entry, CS);
        FreeFiberShell(F, true);
        os::SetLastError(error);
        return nullptr;
    }
    F->StartRoutine = routine;
    F->StartParam = param;
    F->StackSize = static_cast<uint32_t>(stackBytes);
    F->Flags |= FIBER_USER_THREAD;
    if (security != nullptr && security->nLength != 0) F->SecurityAttributes = *security;
    if ((flags & CREATE_SUSPENDED) != 0) F->SuspendCount.store(1, std::memory_order_relaxed);
    F->Role = role;
    if (tag != nullptr) F->Tag.store(tag, std::memory_order_release);
    F->State = FSTATE_CREATED;
    InsertHandle(entry);
    if (threadId != nullptr) *threadId = F->OsThreadId.load(std::memory_order_relaxed);

    HANDLE copy = nullptr;
    const HANDLE process = os::GetCurrentProcess();
    if (!os::DuplicateHandle(process, F->OsThreadHandle, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        const DWORD error = os::GetLastError();
        EndBackingThread(F, false);  // and with it the entry
        FreeFiberShell(F, true);
        os::SetLastError(error);
        return nullptr;
    }
    RecordDuplicate(copy, F->OsThreadHandle, CS, T->NumaNode);
    SetSched(F, T, std::memory_order_release);
    T->InTransit.fetch_add(1, std::memory_order_relaxed);
    SendFiberToScheduler(F, CS, T);  // from here on F is T's, and may have ended already
    return copy;
}

HANDLE ZCreateThreadWithAffinity(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine,
                                 void *param, DWORD flags, DWORD *threadId, DWORD mask) {
    if (const Fiber *C = CallingFiber(); C != nullptr) {
        return CreateUserThread(security, stackBytes, routine, param, flags, threadId, mask, SchedOf(C), nullptr,
                                ROLE_NONE);
    }
    const DWORD osFlags = mask != 0 ? flags | CREATE_SUSPENDED : flags;
    const HANDLE thread = os::CreateThread(security, kPassThroughStack, routine, param, osFlags, threadId);
    if (thread != nullptr && mask != 0) {
        os::SetThreadAffinityMask(thread, mask);
        if ((flags & CREATE_SUSPENDED) == 0) os::ResumeThread(thread);
    }
    return thread;
}

HANDLE CreateThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine, void *param,
                    DWORD flags, DWORD *threadId) {
    if (CallingFiber() == nullptr) return os::CreateThread(security, stackBytes, routine, param, flags, threadId);
    return ZCreateThreadWithAffinity(security, stackBytes, routine, param, flags, threadId, 0);
}

// Always a kernel thread, and only in this process: no other one lets us start threads in it.
HANDLE CreateRemoteThread(HANDLE process, SECURITY_ATTRIBUTES *security, size_t stackBytes,
                          LPTHREAD_START_ROUTINE routine, void *param, DWORD flags, DWORD *threadId) {
    if (process == os::GetCurrentProcess()) {
        return os::CreateThread(security, stackBytes, routine, param, flags, threadId);
    }
    os::SetLastError(ERROR_NOT_SUPPORTED);
    return nullptr;
}

void ExitThread(DWORD exitCode) {
    Fiber *F = CallingFiber();
    if (F == nullptr) os::ExitThread(exitCode);
    ExitUserThread(F, exitCode, true);
}

// ---- The calling thread ------------------------------------------------------------------------------

HANDLE GetCurrentThread() {
    const Fiber *F = CallingFiber();
    return F != nullptr ? F->OsThreadHandle : os::GetCurrentThread();
}

DWORD GetCurrentThreadId() {
    const Fiber *F = CallingFiber();
    return F != nullptr ? F->OsThreadId.load(std::memory_order_relaxed) : os::GetCurrentThreadId();
}

// ---- Other threads -----------------------------------------------------------------------------------

DWORD SuspendThread(HANDLE thread) {
    Fiber *C = CallingFiber();
    const PSEHAND *entry = C != nullptr ? LookUpHandle(thread) : nullptr;
    if (entry == nullptr) return os::SuspendThread(thread);
    const Target target{entry->OwnerFiber, entry->OwnerGeneration};
    const uint32_t previous = target.Thread->SuspendCount.load(std::memory_order_acquire);
    if (previous >= kMostSuspends) {
        os::SetLastError(0xFFFFFFFF);
        return kSuspendFailed;
    }
    const uintptr_t request = sSuspendSerial.fetch_add(1, std::memory_order_relaxed) + 1;
    auto *answer = &C->SuspendAnswer[(C->Flags & FIBER_EXEC_RUNNING) != 0];
    if (IsSame(target) && SendAbout(C, target, MSG_SUSPEND, reinterpret_cast<uintptr_t>(answer), request)) {
        // Counted means stopped: the thread does not run again before it is resumed.
        uint32_t looks = 0;
        while (answer->load(std::memory_order_acquire) != request && IsSame(target)) AwaitAnswer(looks++);
    }
    if (IsSame(target)) return previous;
    StaleHandle();
    return kSuspendFailed;
}

DWORD ResumeThread(HANDLE thread) {
    Fiber *C = CallingFiber();
    const PSEHAND *entry = C != nullptr ? LookUpHandle(thread) : nullptr;
    if (entry == nullptr) return os::ResumeThread(thread);
    const Target target{entry->OwnerFiber, entry->OwnerGeneration};
    // While a routine is pending the visible count is 0 and the real one is put aside, where it must go down. A resume
    // that takes that 0 for the truth is lost for good.
    const uint32_t epoch = target.Thread->RoutineEpoch.load(std::memory_order_acquire);
    const uint32_t previous = target.Thread->SuspendCount.load(std::memory_order_acquire);
    const bool real = (epoch & 1) == 0 && target.Thread->RoutineEpoch.load(std::memory_order_acquire) == epoch;
    if (!IsSame(target)) {
        StaleHandle();
        return kSuspendFailed;
    }
    if (previous == 0 && real) return 0;
    SendAbout(C, target, MSG_RESUME, 0);
    Sleep(1);
    return previous;
}

BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
    Fiber *C = CallingFiber();
    const PSEHAND *entry = C != nullptr ? LookUpHandle(thread) : nullptr;
    if (entry == nullptr) return os::TerminateThread(thread, exitCode);
    const Target target{entry->OwnerFiber, entry->OwnerGeneration};
    if (!IsSame(target)) return StaleHandle();
    SendAbout(C, target, MSG_TERMINATE, exitCode);
    DWORD code = 0;
    uint32_t looks = 0;
    while (IsSame(target) && os::GetExitCodeThread(thread, &code) && code == STILL_ACTIVE) AwaitAnswer(looks++);
    return TRUE;
}

BOOL GetExitCodeThread(HANDLE thread, DWORD *exitCode) {
    return os::GetExitCodeThread(thread, exitCode);
}

BOOL GetThreadTimes(HANDLE thread, FILETIME *creation, FILETIME *exit, FILETIME *kernel, FILETIME *user) {
    Fiber *C = CallingFiber();
    PSEHAND *entry = C != nullptr ? LookUpHandle(thread) : nullptr;
    if (entry == nullptr) return os::GetThreadTimes(thread, creation, exit, kernel, user);
    PSEHAND *root = RootOf(entry);
    if (root->OwnerFiber == C && root->OwnerGeneration == Generation(C) && C->State == FSTATE_RUNNING) {
        // Only the thread itself may read its cycle account; others see what it computed last.
        AccountCpu(SchedOf(C), C);
        StartCpuClock(SchedOf(C));
        const double units = static_cast<double>(C->CpuCycles) / (gCpuFrequency / 10000000.0);
        root->UserTime.store(static_cast<uint64_t>(units), std::memory_order_relaxed);
    }
    Split(root->CreationTime, creation);
    Split(root->ExitTime.load(std::memory_order_relaxed), exit);
    Split(0, kernel);
    Split(root->UserTime.load(std::memory_order_relaxed), user);
    return TRUE;
}

// A user thread runs where its scheduler runs: nothing changes, and that is what the caller is told.
DWORD SetThreadAffinityMask(HANDLE thread, DWORD mask) {
    const PSEHAND *entry = CallingFiber() != nullptr ? LookUpHandle(thread) : nullptr;
    if (entry == nullptr) return os::SetThreadAffinityMask(thread, mask);
    const Scheduler *S = HomeOf(Target{entry->OwnerFiber, entry->OwnerGeneration});
    if (S == nullptr) {
        StaleHandle();
        return 0;
    }
    return S->AffinityMask;
}

}  // namespace zvx
