// sched/migrate.cpp - the hand-over of user threads from one scheduler to another.
//
// No thread asks for a move yet: neither the identification of threads nor dynamic schedulers exist.
#include "base/assert.h"
#include "diag/trace.h"
#include "sched/upcalls.h"

namespace zvx {

// Called when MigrationQueue is not empty, which takes a yield that nobody makes yet.
void ProcessMigrationQueue(Scheduler *S) {
    ZVX_CHECK(S->MigrationQueue.Count != 0);
    FatalExit("ProcessMigrationQueue: unexpected fiber on scheduler %u\n", S->Index);
}

}  // namespace zvx
