// diag/timeline.cpp - records what happens on a scheduler while somebody watches (see timeline.h).
//
// Runs on the scheduler threads; a ring is mapped at the first request and kept.
#include "diag/timeline.h"

#include "config/settings.h"
#include "diag/timesource.h"

namespace zvx {

std::atomic<uint32_t> gTimelineWanted;

static void Write(Scheduler *S, uint64_t tsc, TimelineKind kind, const Fiber *F, uint32_t arg) {
    TimelineRing *ring = S->Timeline;
    uint64_t n = ring->Written.load(std::memory_order_relaxed);
    TimelineEvent *event = &ring->Events[n % kTimelineEvents];
    event->Tsc = tsc;
    event->Serial = F != nullptr ? F->ShellSerial : 0;
    event->Kind = kind;
    event->Arg = static_cast<uint16_t>(arg);
    event->Tag = F != nullptr ? F->Tag.load(std::memory_order_relaxed) : nullptr;
    // Release: whoever sees the count sees the event.
    ring->Written.store(n + 1, std::memory_order_release);
}

void RecordTimeline(Scheduler *S, TimelineKind kind, const Fiber *F, uint32_t arg) {
    Write(S, ReadTsc(), kind, F, arg);
}

void RecordSwitch(Scheduler *S, const Fiber *F, uint32_t reason, const Fiber *N) {
    uint64_t now = ReadTsc();
    Write(S, gNumContextSwitchesBeforePolling != 0 ? S->DispatchTsc : now, kTimelineYield, F, reason);
    Write(S, now, kTimelineRun, N, 0);
}

void StartOrStopTimeline(Scheduler *S) {
    if (gTimelineWanted.load(std::memory_order_relaxed) == 0) {
        S->Timeline = nullptr;
        return;
    }
    if (S->TimelineMemory == nullptr)
        S->TimelineMemory = static_cast<TimelineRing *>(
            os::VirtualAlloc(nullptr, sizeof(TimelineRing), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    S->Timeline = S->TimelineMemory;  // still null when there is no memory: asked again at the next check
}

}  // namespace zvx
