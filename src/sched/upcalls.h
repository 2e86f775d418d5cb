// sched/upcalls.h - the few places where the scheduler calls what lies above it. Declared here with what
// the scheduler promises and expects; defined above. There is no other upward call.
#ifndef ZVX_SCHED_UPCALLS_H
#define ZVX_SCHED_UPCALLS_H

#include "sched/records.h"

namespace zvx {

// kernel/thread.cpp. F is the caller and runs; does not return unless FIBER_EXITING is already set.
void ExitUserThread(Fiber *F, DWORD exitCode, bool terminateBacking);
// kernel/thread.cpp. F is the caller, its slots installed. Ends the backing thread and drops the thread
// entry's own reference; OsThreadHandle is null afterwards. Does not yield.
void EndBackingThread(Fiber *F, bool terminate);
// kernel/thread.cpp. Creates the backing thread and the thread entry of an internal fiber that is not
// running yet; false when either could not be had.
bool SetUpInternalThread(Fiber *F, Scheduler *S);
// kernel/handles.cpp. Identifying text and type name of the entry for a handle value; false when unwrapped.
bool DescribeHandle(uintptr_t handle, const char **hid, const char **typeName);
// kernel/file.cpp. `rec` (kind OV_FILE_ROUTINE) has ended and is unlinked from FileOvs and every poll list:
// deliver it to the caller's routine on F, which runs; then free it.
void DeliverFileCompletion(FIBEROVERLAPPED *rec, Fiber *F);
// net: the same for OV_SOCKET_ROUTINE.
void DeliverSocketCompletion(FIBEROVERLAPPED *rec, Fiber *F);
// kernel/critsec.cpp. Releases every section that F owns, at its exit.
void ReleaseOwnedSections(Fiber *F);
// dedicated/exec.cpp. Runs the injected routine on F's own stack inside SchedYield; true when F must wait
// again for *reason.
bool ExecRoutineInFiber(Scheduler *S, Fiber *F, uint32_t *reason);
// diag/dump.cpp. Serves S.DebugRequest and clears it.
void ServeDebugRequest(Scheduler *S);

}  // namespace zvx

#endif  // ZVX_SCHED_UPCALLS_H
