// platform/base/alertable.cpp - alert states: one word to sleep on and a queue of routines per kernel thread.
//
// Any thread queues and wakes, the owner sleeps and runs. The queue is a stack of nodes that pushers grow by
// compare-and-swap and the owner takes whole; the end of the owner leaves a sentinel in it, after which pushes fail.
// Nothing here allocates except the first CurrentAlertState of a thread and the form of QueueRoutine that says so.
#include "platform/base/alertable.h"

#include <new>

#include "platform/base/futex.h"
#include "platform/base/thread_block.h"

namespace os {

namespace {

// In Queue once the owner has ended. Never dereferenced.
constinit AlertRoutine gClosedMark{};

// Takes the whole queue, leaving `mark`, and turns it round: oldest first.
AlertRoutine *TakeQueue(AlertState *state, AlertRoutine *mark) {
    // Acquire pairs with the release of the push: what the queuer wrote before is visible to the routine.
    AlertRoutine *newest = state->Queue.exchange(mark, std::memory_order_acquire);
    AlertRoutine *oldest = nullptr;
    while (newest != nullptr) {
        AlertRoutine *next = newest->Next;
        newest->Next = oldest;
        oldest = newest;
        newest = next;
    }
    return oldest;
}

struct HeapRoutine {
    AlertRoutine Node;
    void (*Run)(void *);
    void *Arg;
};

void RunHeapRoutine(void *arg) {
    HeapRoutine *heap = static_cast<HeapRoutine *>(arg);
    void (*run)(void *) = heap->Run;
    void *runArg = heap->Arg;
    delete heap;
    run(runArg);
}

void DiscardHeapRoutine(void *arg) {
    delete static_cast<HeapRoutine *>(arg);
}

}  // namespace

AlertState *CurrentAlertState() {
    ThreadLocals *locals = CurrentThreadLocals();
    if (locals->Alert == nullptr) locals->Alert = new (std::nothrow) AlertState;
    return locals->Alert;
}

void RefAlert(AlertState *state) {
    state->Refs.fetch_add(1, std::memory_order_relaxed);
}

void UnrefAlert(AlertState *state) {
    // Acquire and release, so that the last holder frees what every other holder has finished with.
    if (state->Refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete state;
}

void CloseAlert(AlertState *state) {
    for (AlertRoutine *node = TakeQueue(state, &gClosedMark); node != nullptr;) {
        AlertRoutine *next = node->Next;
        if (node->Discard != nullptr) node->Discard(node->Arg);
        node = next;
    }
    UnrefAlert(state);
}

bool QueueRoutine(AlertState *state, AlertRoutine *routine) {
    AlertRoutine *top = state->Queue.load(std::memory_order_relaxed);
    do {
        if (top == &gClosedMark) return false;
        routine->Next = top;
    } while (!state->Queue.compare_exchange_weak(top, routine, std::memory_order_release, std::memory_order_relaxed));
    WakeAlert(state);
    return true;
}

bool QueueRoutine(AlertState *state, void (*run)(void *), void *arg) {
    HeapRoutine *heap = new (std::nothrow) HeapRoutine{{}, run, arg};
    if (heap == nullptr) return false;
    heap->Node.Run = RunHeapRoutine;
    heap->Node.Discard = DiscardHeapRoutine;
    heap->Node.Arg = heap;
    if (QueueRoutine(state, &heap->Node)) return true;
    delete heap;
    return false;
}

uint32_t RunQueuedRoutines() {
    AlertState *state = CurrentThreadLocals()->Alert;
    if (state == nullptr) return 0;
    uint32_t ran = 0;
    while (state->Queue.load(std::memory_order_relaxed) != nullptr) {
        for (AlertRoutine *node = TakeQueue(state, nullptr); node != nullptr; ++ran) {
            AlertRoutine *next = node->Next;  // first: the routine may free its node
            node->Run(node->Arg);
            node = next;
        }
    }
    return ran;
}

bool AlertPending(const AlertState *state) {
    return state->Queue.load(std::memory_order_acquire) != nullptr;
}

bool WaitAlert(AlertState *state, uint32_t seen, uint64_t deadline) {
    return FutexWait(&state->Word, seen, deadline);
}

void WakeAlert(AlertState *state) {
    // Release pairs with AlertSnapshot. The wake-up is a system call even when the owner runs: routines and object
    // signals for plain kernel threads are rare, and a sleeper's mark would cost every sleep two more stores.
    state->Word.fetch_add(1, std::memory_order_release);
    FutexWake(&state->Word, 1);
}

}  // namespace os
