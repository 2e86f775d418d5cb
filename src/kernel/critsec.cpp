// kernel/critsec.cpp - the critical sections that the library gives to user threads.
//
// Not exported yet. What the scheduler needs of them at the exit of a user thread is here.
#include "base/assert.h"
#include "sched/upcalls.h"

namespace zvx {

// No exported function takes a section yet, so none can be owned.
void ReleaseOwnedSections(Fiber *F) {
    ZVX_CHECK(F->OwnedCritSecs.Count == 0);
}

}  // namespace zvx
