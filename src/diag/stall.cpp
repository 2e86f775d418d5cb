// diag/stall.cpp - who keeps a scheduler from everybody else, and where in the code.
//
// A kernel thread of its own looks at every scheduler a few times within the limit. One that has made no selection pass
// for that long, and neither idles nor waits, runs a user thread that does not give way: its kernel thread is asked
// where it is, and the trace log gets the thread's tag and the functions. Once a stall, and once more when it is over.
// The watcher touches nothing of a scheduler but its atomics, so a report costs the schedulers only the question.
#include "diag/stall.h"

#include <cstdio>

#include "config/settings.h"
#include "diag/ringlog.h"
#include "diag/trace.h"
#include "sched/sched.h"

namespace zvx {

namespace {

// What the watcher remembers of a scheduler.
struct Watched {
    uint32_t Passes;
    bool Reported;
    uint64_t Since;   // tick at which Passes was seen first
    uint64_t Waited;  // what its kernel thread had waited for a processor when Passes was seen again; 0 before that
};

bool RunsHostCode(const Scheduler *S) {
    return S->Running.load(std::memory_order_acquire) != 0 && S->Idling.load(std::memory_order_relaxed) == 0 &&
           S->BlockedInPort.load(std::memory_order_relaxed) == 0 &&
           S->BlockedOutside.load(std::memory_order_relaxed) != 1;
}

void Report(const Scheduler *S, uint64_t heldMs) {
    os::ThreadSample sample;
    if (!os::SampleThread(S->OsThreadId, &sample)) return;
    // Records of user threads are never freed; whether this one still runs there is a matter of luck, as it must be.
    const auto *F = static_cast<const Fiber *>(sample.FiberData);
    if (F == nullptr || reinterpret_cast<uintptr_t>(F) == os::kNoFiberData || F == S->InitFiber) return;
    const char *tag = F->Tag.load(std::memory_order_acquire);
    const uint32_t id = F->OsThreadId.load(std::memory_order_relaxed);
    TraceLog(false, false, true, "Stall: user thread %s (x%X) has kept scheduler %u for %u ms, at:\n",
             tag != nullptr ? tag : "NULL", id, S->Index, static_cast<unsigned>(heldMs));
    for (uint32_t i = 0; i < sample.Count; ++i) {
        char where[512];
        os::DescribeCode(sample.Frames[i], where, sizeof where);
        TraceLog(false, i + 1 == sample.Count, false, "    %s%s\n", i < sample.Sure ? "" : "? ", where);
        if (i == 0)
            RingLogPrintf("stall: %s (x%X) has kept scheduler %u for %u ms at %s\n", tag != nullptr ? tag : "NULL", id,
                          S->Index, static_cast<unsigned>(heldMs), where);
    }
}

void Look(uint32_t index, Watched *watched, uint64_t now) {
    const Scheduler *S = gSchedulers[index];
    const uint32_t passes = S->SwitchCount.load(std::memory_order_relaxed);
    if (passes != watched->Passes || !RunsHostCode(S)) {
        if (watched->Reported) {
            // On a loaded machine it may be nobody's fault: the thread could run, and was not let.
            const uint64_t waited = os::ProcessorWaitMs(S->OsThreadId) - watched->Waited;
            TraceLog(false, true, true, "Stall: scheduler %u goes on after %u ms, %u of them without a processor\n",
                     index, static_cast<unsigned>(now - watched->Since), static_cast<unsigned>(waited));
        }
        *watched = {passes, false, now, 0};
        return;
    }
    if (watched->Waited == 0) watched->Waited = os::ProcessorWaitMs(S->OsThreadId);
    if (watched->Reported || now - watched->Since < gStallReportMs) return;
    watched->Reported = true;
    Report(S, now - watched->Since);
}

DWORD StallWatch(void *) {
    static Watched watched[kMaxSchedulers];
    const uint32_t step = gStallReportMs >= 4 ? gStallReportMs / 4 : 1;
    for (;;) {
        os::Sleep(step);
        const uint64_t now = os::GetTickCount64();
        const uint32_t made = gSchedulersMade.load(std::memory_order_acquire);
        for (uint32_t i = 0; i < made; ++i) Look(i, &watched[i], now);
    }
}

}  // namespace

void StartStallWatch() {
    if (gStallReportMs == 0) return;
    const HANDLE thread = os::CreateThread(nullptr, gStackSize, StallWatch, nullptr, 0, nullptr);
    if (thread != nullptr && thread != INVALID_HANDLE_VALUE) os::CloseHandle(thread);
}

}  // namespace zvx
