// postwait/postwait.h - who a user thread is, and how one user thread wakes another.
//
// A post sets a bit on its target; the target's wait consumes it. There are two bits: the host's posts
// (PostUserThread) and the hand-over of a critical section, and neither ends a wait for the other.
#ifndef ZVX_POSTWAIT_POSTWAIT_H
#define ZVX_POSTWAIT_POSTWAIT_H

#include "kernel/psehand.h"
#include "sched/records.h"

namespace zvx {

// What Post does beyond waking its target.
enum PostMode : uint32_t {
    kPostSingle,    // may hand the processor over at once
    kPostMultiple,  // one of a list: a batch for another scheduler waits for the end of the list
    kPostQuiet,     // never hands over: the poster is in the middle of something
};

// Posts T on behalf of P, which is the caller and may yield with kPostSingle. `generation` is the one under which T was
// found: T may end at any time, and its record become another thread's, to which nothing happens. The BitMaskId of T's
// scheduler when a batch for it is waiting in the poster's PendingPosts, else 0.
uint32_t Post(Fiber *T, uint32_t generation, PostMode mode, Fiber *P, uint32_t postBit);
// Waits until F, the caller, has one of the posts in `postBits`, and consumes it: 0, or 258 when the time is up. With
// `cleanup` the wait is undone by a function of its own when F is terminated or interrupted; without, the caller's
// registered function calls PostWaiterCleanup, args[0] being `postBits`.
DWORD PostWait(Fiber *F, DWORD ms, uint32_t postBits, bool cleanup);
void PostWaiterCleanup(Fiber *F, Scheduler *S, uintptr_t *args, uint32_t code);

// Whether a thread with F's tag may move to a dynamic scheduler.
bool DynamicCandidate(const Fiber *F);
bool IsSlaveTag(const char *tag);  // "P", any character, two digits

// Exported.
void IdentifyUserThread(const char *tag, HANDLE postEvent);
void UnidentifyUserThread(DWORD reserved);
void MigrateUserThread(const char *tag);
BOOL PostUserThread(HANDLE event);
int PostMultipleUserThreads(const HANDLE *events);
DWORD WaitForUserThreadPost(HANDLE event, DWORD ms);

}  // namespace zvx

#endif  // ZVX_POSTWAIT_POSTWAIT_H
