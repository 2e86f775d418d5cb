// kernel/thread.h - the exported thread functions, and what start-up and the scheduler use of them.
//
// A thread that the host creates is a user thread. Its handle and identifier are those of a backing thread: an
// object of the operating system without a kernel thread, which captures its (empty) slots for the user thread at
// the start and ends with the user thread's exit code. Waits on the handle, duplicates and exit codes therefore work
// as for any thread.
#ifndef ZVX_KERNEL_THREAD_H
#define ZVX_KERNEL_THREAD_H

#include "sched/records.h"

namespace zvx {

// A user thread under `tag` and `role`, both in place before it can run; null with the limit that was hit as last
// error. The caller is a fiber of a scheduler (start-up creates "FMAIN" from an init fiber). A null tag leaves the
// thread unidentified.
HANDLE CreateUserThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine, void *param,
                        DWORD flags, DWORD *threadId, uint32_t mask, Scheduler *CS, const char *tag, uint32_t role);

// Exported.
HANDLE CreateThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine, void *param,
                    DWORD flags, DWORD *threadId);
HANDLE ZCreateThreadWithAffinity(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE routine,
                                 void *param, DWORD flags, DWORD *threadId, DWORD mask);
HANDLE CreateRemoteThread(HANDLE process, SECURITY_ATTRIBUTES *security, size_t stackBytes,
                          LPTHREAD_START_ROUTINE routine, void *param, DWORD flags, DWORD *threadId);
void ExitThread(DWORD exitCode);
HANDLE GetCurrentThread();
DWORD GetCurrentThreadId();
DWORD SuspendThread(HANDLE thread);
DWORD ResumeThread(HANDLE thread);
BOOL TerminateThread(HANDLE thread, DWORD exitCode);
BOOL GetExitCodeThread(HANDLE thread, DWORD *exitCode);
BOOL GetThreadTimes(HANDLE thread, FILETIME *creation, FILETIME *exit, FILETIME *kernel, FILETIME *user);
DWORD SetThreadAffinityMask(HANDLE thread, DWORD mask);

}  // namespace zvx

#endif  // ZVX_KERNEL_THREAD_H
