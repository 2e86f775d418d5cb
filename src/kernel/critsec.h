// kernel/critsec.h - critical sections: the record behind the host's structure, and the exported functions.
#ifndef ZVX_KERNEL_CRITSEC_H
#define ZVX_KERNEL_CRITSEC_H

#include "sched/records.h"

namespace zvx {

// FIBER_CRITICAL_SECTION: a section that is owned by a user thread. Its address is in the host structure's fourth word.
//
// States: free (Owner null), owned (on the owner's OwnedCritSecs, RecursionCount at least 1). A user thread is on
// Waiters from its first failed attempt until it has acquired the section.
//
// No wake-up is lost. A waiter appends itself (WaiterCount, sequentially consistent) and then tries Owner once more;
// the leaver stores Owner and then looks at WaiterCount. One of them sees the other. That holds for whoever owns the
// section behind the queueing, and for nobody who was seen before it.
//
// After Owner is null the leaver still reads WaiterCount and, when it is not 0, the first waiter under WaitersLock. A
// new owner may delete the section meanwhile, but not its memory: that comes back only after every scheduler has made a
// selection pass (grace.cpp), and the leaver has not yielded.
struct FIBER_CRITICAL_SECTION {
    ListLink OwnedLink;                 // owner: in Fiber.OwnedCritSecs
    std::atomic<Fiber *> Owner;         // changed by compare-and-exchange only
    uint32_t RecursionCount;            // owner
    uint32_t SpinCount;                 // init: further attempts while the owner runs on another scheduler
    ListHead Waiters;                   // [WaitersLock] by CritSecWaitLink, in order of arrival
    std::atomic<uint32_t> WaiterCount;  // [WaitersLock] to write: Waiters.Count, read without
    SpinLock WaitersLock;               // "CritSectionWaitersLock"
    Fiber *Creator;                     // init
    uint32_t CreatorGeneration;         // init
    uint8_t TakenOver;                  // init: the operating system had initialised the host's structure
    RetireEntry Retire;                 // after deletion
};
static_assert(sizeof(FIBER_CRITICAL_SECTION) <= 256, "one chunk holds one section");

extern std::atomic<uint32_t> gOsCritSecCount;  // sections that the operating system initialised and still has
extern SpinLock FiberCritSecWrapLock;          // held while one is taken over
void InitCriticalSections();                   // start-up: names the lock

// Exported.
void InitializeCriticalSection(CRITICAL_SECTION *section);
BOOL InitializeCriticalSectionAndSpinCount(CRITICAL_SECTION *section, DWORD spinCount);
DWORD SetCriticalSectionSpinCount(CRITICAL_SECTION *section, DWORD spinCount);
void DeleteCriticalSection(CRITICAL_SECTION *section);
void EnterCriticalSection(CRITICAL_SECTION *section);
BOOL TryEnterCriticalSection(CRITICAL_SECTION *section);
void LeaveCriticalSection(CRITICAL_SECTION *section);

}  // namespace zvx

#endif  // ZVX_KERNEL_CRITSEC_H
