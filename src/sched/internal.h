// sched/internal.h - list operations that keep Scheduler.QueueMask exact, shared by the files of sched/.
//
// Every insertion into and removal from ReadyList, LatchSleepers and the run queues goes through here, so
// that selection is a test of one word. Owner thread only.
#ifndef ZVX_SCHED_INTERNAL_H
#define ZVX_SCHED_INTERNAL_H

#include "base/assert.h"
#include "sched/sched.h"

namespace zvx {

inline Fiber *FiberOfRunLink(ListLink *link) { return ZVX_RECORD_OF(link, Fiber, RunLink); }
inline FIBEROVERLAPPED *OvOfPollLink(ListLink *link) { return ZVX_RECORD_OF(link, FIBEROVERLAPPED, PollLink); }
inline FIBEROVERLAPPED *OvOfEndedLink(ListLink *link) { return ZVX_RECORD_OF(link, FIBEROVERLAPPED, EndedLink); }
inline FIBEROVERLAPPED *OvOfLink(ListLink *link) { return ZVX_RECORD_OF(link, FIBEROVERLAPPED, Link); }

inline ListHead *MaskedList(Scheduler *S, uint32_t bit) {
    if (bit == kMaskReady) return &S->ReadyList;
    if (bit == kMaskLatch) return &S->LatchSleepers;
    return &S->RunQueues[static_cast<uint32_t>(__builtin_ctz(bit))];
}

inline void AppendMasked(Scheduler *S, ListHead *list, uint32_t bit, Fiber *F) {
    AppendLink(list, &F->RunLink);
    S->QueueMask |= bit;
}
inline void PushMasked(Scheduler *S, ListHead *list, uint32_t bit, Fiber *F) {
    PushLink(list, &F->RunLink);
    S->QueueMask |= bit;
}
inline void UnlinkMasked(Scheduler *S, ListHead *list, uint32_t bit, Fiber *F) {
    UnlinkFrom(list, &F->RunLink);
    if (list->Count == 0) S->QueueMask &= ~bit;
}

inline bool NoPortCheck(const Scheduler *S) { return (S->Attention & kAttNoPortCheck) != 0; }

inline bool IsFileRecord(const FIBEROVERLAPPED *rec) { return (rec->Flags & OV_ANY_FILE) != 0; }
inline PollIndex PollListOf(const FIBEROVERLAPPED *rec) {
    if (rec->Fiber->SchedClass >= CLASS_HIGH) return kPollHigh;
    return IsFileRecord(rec) ? kPollFile : kPollSocket;
}
inline bool HasEnded(const FIBEROVERLAPPED *rec) { return os::LoadStatus(&rec->Ov) != STATUS_PENDING; }

inline const PostLane::Slot *NextInLane(const PostLane *lane) {
    const uint32_t taken = lane->Taken.load(std::memory_order_relaxed);
    const PostLane::Slot *slot = &lane->Slots[taken % kLaneSlots];
    return slot->Seq.load(std::memory_order_acquire) == taken + 1 ? slot : nullptr;
}
inline bool PostsWaiting(const Scheduler *S) {
    for (uint32_t mask = S->LaneMask.load(std::memory_order_relaxed); mask != 0; mask &= mask - 1)
        if (NextInLane(&gPostLanes[S->Index][__builtin_ctz(mask)]) != nullptr) return true;
    return false;
}
inline bool MessagesWaiting(const Scheduler *S) {
    return S->Messages.load(std::memory_order_relaxed) != nullptr || PostsWaiting(S);
}
inline bool IoWaiting(const Scheduler *S) { return os::IoNeedsAttention(S->Io) || S->Io->EndedHead != nullptr; }

// queues.cpp: puts those that InsertByStamp left at the head of a queue in their places.
void SortQueue(Scheduler *S, uint32_t queue);
// F is about to be appended to a queue in which some wait for their places.
void NoteAppended(Scheduler *S, uint32_t queue, const Fiber *F);

// idle.cpp: consumes what has ended of one poll list.
void ConsumeEnded(Scheduler *S, uint32_t pollList, bool deep);

}  // namespace zvx

#endif  // ZVX_SCHED_INTERNAL_H
