// diag/timeline.h - the timeline: every switch, wait, post and completion of a few seconds, for a viewer.
//
// A tool outside the process asks for it by setting gTimelineWanted to its process number, so that a second tool knows
// whom to leave alone, and reads the rings with the system's call for reading another process's memory. A scheduler
// notices at its next timer check, and from then on writes an event of 24 bytes for each thing that happens on it, two
// for a switch. While nobody asks, a switch pays one branch on a word of its scheduler.
//
// Protocol: a ring is written by its scheduler's thread only; an event first, then Written with release order. A reader
// takes Written, copies, takes Written again, and drops what may have been overwritten meanwhile. A ring is never
// freed: asked for again, it goes on.
#ifndef ZVX_DIAG_TIMELINE_H
#define ZVX_DIAG_TIMELINE_H

#include "sched/records.h"

namespace zvx {

enum TimelineKind : uint16_t {
    kTimelineRun = 1,     // F got the processor
    kTimelineYield = 2,   // F gave it up; Arg is the reason
    kTimelinePost = 3,    // the running thread posted F
    kTimelineDone = 4,    // an operation of F ended; Arg is 1 by packet, 0 polled
    kTimelineIdle = 5,    // the scheduler is about to wait in its port; Arg in milliseconds
    kTimelineAwake = 6,   // and has come back
};

struct TimelineEvent {
    uint64_t Tsc;       // cycle counter
    uint32_t Serial;    // Fiber.ShellSerial, 0 for none
    uint16_t Kind;      // TimelineKind
    uint16_t Arg;
    const char *Tag;    // Fiber.Tag then; the text may have changed since
};

constexpr uint32_t kTimelineEvents = 1u << 16;  // a power of two

struct TimelineRing {
    std::atomic<uint64_t> Written;  // events ever written; the latest is at (Written - 1) % kTimelineEvents
    TimelineEvent Events[kTimelineEvents];
};

extern std::atomic<uint32_t> gTimelineWanted;  // atomic: the process number of the tool that asks, 0 for none

// The scheduler's own thread. They take no lock, allocate nothing, read the cycle counter.
// F yielded with `reason` and N is about to run. The yield happened at S->DispatchTsc: a tool sorts by time.
void RecordSwitch(Scheduler *S, const Fiber *F, uint32_t reason, const Fiber *N);
void RecordTimeline(Scheduler *S, TimelineKind kind, const Fiber *F, uint32_t arg);
inline void NoteTimeline(Scheduler *S, TimelineKind kind, const Fiber *F, uint32_t arg) {
    if (S->Timeline != nullptr) [[unlikely]] RecordTimeline(S, kind, F, arg);
}
// At the timer check, when gTimelineWanted and S->Timeline differ. Maps the ring the first time it is asked for.
void StartOrStopTimeline(Scheduler *S);

}  // namespace zvx

#endif  // ZVX_DIAG_TIMELINE_H
