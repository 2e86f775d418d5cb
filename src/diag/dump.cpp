// diag/dump.cpp - diagnostic requests to a running scheduler.
//
// The thread that makes such requests does not exist yet.
#include "sched/upcalls.h"

namespace zvx {

// Clears the request so that it is served once; there is nothing to write for it yet.
void ServeDebugRequest(Scheduler *S) {
    S->DebugRequest.store(0, std::memory_order_relaxed);
}

}  // namespace zvx
