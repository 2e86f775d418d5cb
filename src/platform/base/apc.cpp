// platform/base/apc.cpp - routines that a host queues to a kernel thread, over the queue of its alert state.
//
// Any thread queues; the owner runs what is queued, oldest first, in its alertable waits.
#include "platform/base/apc.h"

#include <new>

namespace os {

namespace {

struct Apc {
    AlertRoutine Node;
    PAPCFUNC Routine;
    ULONG_PTR Data;
};

void RunApc(void *arg) {
    Apc *apc = static_cast<Apc *>(arg);
    const Apc copy = *apc;
    delete apc;  // first: the routine may not come back
    copy.Routine(copy.Data);
}

void DropApc(void *arg) {
    delete static_cast<Apc *>(arg);
}

}  // namespace

BOOL QueueApc(AlertState *state, PAPCFUNC routine, ULONG_PTR data) {
    Apc *apc = new (std::nothrow) Apc{{nullptr, RunApc, DropApc, nullptr}, routine, data};
    if (apc == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    apc->Node.Arg = apc;
    if (QueueRoutine(state, &apc->Node)) return TRUE;
    delete apc;
    SetLastError(ERROR_GEN_FAILURE);
    return FALSE;
}

}  // namespace os
