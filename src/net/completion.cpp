// net/completion.cpp - delivery of socket operations that have a completion routine.
//
// No socket function is exported yet.
#include "diag/trace.h"
#include "sched/upcalls.h"

namespace zvx {

// No record of this kind can exist before the socket functions do; one here means a record was overwritten.
void DeliverSocketCompletion(FIBEROVERLAPPED *rec, Fiber *) {
    FatalExit("DeliverSocketCompletion: unexpected record %p\n", static_cast<void *>(rec));
}

}  // namespace zvx
