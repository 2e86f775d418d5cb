// sched/quantum.cpp - a coarse clock that tells the host when a user thread has run for too long.
//
// The library cannot take the processor from a user thread; it writes a word of the host's instead, which the
// host's long-running code reads. The quantum thread is a kernel thread outside the schedulers; the lock makes
// the scan and the write of the word one step. A quantum is three ticks.
#include "diag/trace.h"
#include "sched/internal.h"

namespace zvx {

uint32_t *gQuantumIndicator;
os::CriticalSection gQuantumLock;

uint32_t ElapsedQuantumTicks(const Scheduler *S) {
    uint32_t tick = gQuantumTick.load(std::memory_order_relaxed);
    uint32_t start = S->QuantumStartTick.load(std::memory_order_relaxed);
    return tick >= start ? tick - start : tick;
}

bool UpdateQuantumIndicator(bool takeLock) {
    if (takeLock) os::EnterCriticalSection(&gQuantumLock);
    bool expired = false;
    for (uint32_t i = 0; i < gNumSchedulers && i < kMaxSchedulers; ++i) {
        const Scheduler *S = gSchedulers[i];
        // One that waits in its port runs nobody, however long the host lets it wait.
        if (S == nullptr || S->Idling.load(std::memory_order_relaxed) != 0) continue;
        if (ElapsedQuantumTicks(S) > 3) expired = true;
    }
    if (gQuantumIndicator != nullptr)
        std::atomic_ref<uint32_t>(*gQuantumIndicator).store(expired ? 1 : 0, std::memory_order_relaxed);
    if (takeLock) os::LeaveCriticalSection(&gQuantumLock);
    return expired;
}

static DWORD FiberQuantumUpdateThread(void *) {
    if (gQuantumIndicator == nullptr) return 0;  // nothing to report to; the clock stays at 0
    for (;;) {
        uint32_t remaining = gQuantumUpdateInterval;
        while (remaining != 0) {
            uint32_t start = os::GetTickCount();
            os::Sleep(remaining + 16);
            uint32_t now = os::GetTickCount();
            uint32_t slept = now >= start ? now - start : now;
            if (slept >= remaining) break;
            remaining -= slept;
        }
        os::EnterCriticalSection(&gQuantumLock);
        gQuantumTick.fetch_add(1, std::memory_order_relaxed);
        UpdateQuantumIndicator(false);
        os::LeaveCriticalSection(&gQuantumLock);
    }
}

void StartQuantumUpdateThread() {
    DWORD threadId = 0;
    HANDLE thread =
        os::CreateThread(nullptr, gStackSize, FiberQuantumUpdateThread, nullptr, CREATE_SUSPENDED, &threadId);
    if (thread == nullptr || thread == INVALID_HANDLE_VALUE) FatalExit("Unable to spawn FiberQuantumUpdateThread");
    SetSchedThreadAffinityAndPriority(thread, nullptr, false, THREAD_PRIORITY_TIME_CRITICAL, threadId, true);
    if (os::ResumeThread(thread) == 0xFFFFFFFFu)
        FatalExit("Unable to resume suspended timer thread %d\n", static_cast<int>(os::GetLastError()));
    os::CloseHandle(thread);
}

void UserThreadQuantumExpiredCheck() {
    Fiber *F = CallingFiber();
    if (F == nullptr) return;
    Scheduler *S = SchedOf(F);
    if (ElapsedQuantumTicks(S) <= 3) return;
    S->QuantumStartTick.store(gQuantumTick.load(std::memory_order_relaxed), std::memory_order_relaxed);
    UpdateQuantumIndicator(true);
    S->SelectPasses = kFullSweepPasses + 1;
    SchedYield(F, Yield_USER);
}

}  // namespace zvx
