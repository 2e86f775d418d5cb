// platform/base/alertable.h - how a kernel thread that sleeps alertably is woken and handed routines.
//
// Every kernel thread has one AlertState, made when it is first asked for. Any thread may queue a routine to it or
// just wake it; the owner runs what is queued, in the order of queueing, when it waits alertably. The overlapped
// operations with completion routines queue here when they end, user APCs too, and the waits for objects sleep on
// the same word, so that one sleep ends for either reason.
//
// The protocol of a sleeper (lost wake-ups are impossible because Word is read before the condition):
//
//     for (;;) {
//         const uint32_t seen = AlertSnapshot(state);
//         if (<condition>) break;                       // objects: may be skipped by a plain sleep
//         if (alertable && RunQueuedRoutines() != 0) return WAIT_IO_COMPLETION;
//         if (!WaitAlert(state, seen, deadline)) return WAIT_TIMEOUT;
//     }
//
// and of a waker: make the condition true, then WakeAlert. A wake-up that nobody needed costs one round of the loop.
#ifndef ZVX_PLATFORM_BASE_ALERTABLE_H
#define ZVX_PLATFORM_BASE_ALERTABLE_H

#include <atomic>
#include <cstdint>

namespace os {

// One queued routine. The memory is the queuer's (embed it in the record of the operation) until Run or Discard
// is called with Arg; the platform does not touch the node after that, so either may free it.
struct AlertRoutine {
    AlertRoutine *Next;          // platform: chain in the queue
    void (*Run)(void *arg);      // on the owning thread, which waits alertably
    void (*Discard)(void *arg);  // the thread ended first; may be null; runs on the ending thread
    void *Arg;
};

// Owned by its kernel thread and by everyone who holds a reference: an operation that will queue a routine later
// takes one (RefAlert), because the thread may end before the operation does. The last reference frees it.
struct AlertState {
    std::atomic<uint32_t> Word{0};               // futex: raised by every wake-up and every queued routine
    std::atomic<uint32_t> Refs{1};               // the thread's own reference, and the holders'
    std::atomic<AlertRoutine *> Queue{nullptr};  // newest first; a sentinel once the thread has ended
};

// The calling thread's state, made now if need be; null without memory.
AlertState *CurrentAlertState();
void RefAlert(AlertState *state);
void UnrefAlert(AlertState *state);

// Queues a routine and wakes the owner, from any thread that holds a reference. False when the thread has ended:
// nothing was queued, the node is still the caller's, and neither Run nor Discard will be called.
bool QueueRoutine(AlertState *state, AlertRoutine *routine);
// The same with a node from the heap, for callers without a record of their own; false without memory too.
bool QueueRoutine(AlertState *state, void (*run)(void *), void *arg);
// Owner: runs everything queued to the calling thread, also what the routines queue meanwhile; how many ran.
uint32_t RunQueuedRoutines();
// Whether anything is queued; owner or anyone, a snapshot.
bool AlertPending(const AlertState *state);

inline uint32_t AlertSnapshot(const AlertState *state) {
    return state->Word.load(std::memory_order_acquire);
}
// Owner: sleeps until Word differs from `seen` or the deadline (nanoseconds of the monotonic clock, kNoDeadline for
// none) has passed; false when it has. Other returns mean "look again".
bool WaitAlert(AlertState *state, uint32_t seen, uint64_t deadline);
// Raises Word and wakes the owner if it sleeps. Any thread that holds a reference.
void WakeAlert(AlertState *state);

// The end of the owner (thread_block.cpp only): discards what is queued, refuses what comes, drops its reference.
void CloseAlert(AlertState *state);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_ALERTABLE_H
