// dedicated/exec.cpp - routines that one user thread runs on the stack of another.
//
// Nothing sends such a request yet: the function that does is not exported.
#include "diag/trace.h"
#include "sched/upcalls.h"

namespace zvx {

// Called for a thread with a pending routine. None can be pending before there is a sender.
bool ExecRoutineInFiber(Scheduler *, Fiber *F, uint32_t *) {
    FatalExit("ExecRoutineInFiber: unexpected request for fiber %p\n", static_cast<void *>(F));
}

}  // namespace zvx
