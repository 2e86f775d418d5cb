// dedicated/dedicated.h - calls that run on an operating-system thread of their own, and routines that one user
// thread runs on the stack of another.
#ifndef ZVX_DEDICATED_DEDICATED_H
#define ZVX_DEDICATED_DEDICATED_H

#include "sched/records.h"
#include "zvxkvt/processtypes.h"

namespace zvx {

enum DedicatedOpcode : uint32_t {
    kDedicatedReadConsole = 1,    // console, buffer, characters to read, characters read, reserved
    kDedicatedCallNamedPipe = 2,  // pipe name, in buffer, in size, out buffer, out size, bytes read, time-out
    kDedicatedWaitInputIdle = 3,  // process, milliseconds
    kDedicatedGetDcName = 4,      // computer, domain, domain's identifier, site, flags, pointer to the result
};

// One blocking call and its outcome; on the caller's stack. The dedicated thread never sees it: it works on a copy.
struct DedicatedRequest {
    uint32_t Opcode;
    uint32_t LastError;  // the thread's last error right after the call
    uintptr_t Args[12];  // in the order of the call's arguments; at most seven are used
    uint32_t Result;     // what the call returned, or the opcode's preset value when it was left by a fault
};

// Makes the call on a thread of its own and parks the calling user thread until that has ended. False, with the last
// error set, when there is no such thread to be had or it was ended by somebody else.
bool ExecInDedicatedThread(Fiber *F, DedicatedRequest *request);

// Exported.
BOOL ReadConsoleA(HANDLE console, void *buffer, DWORD characters, DWORD *read, void *reserved);
BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms);
DWORD WaitForInputIdle(HANDLE process, DWORD ms);
FARPROC GetProcAddress(HMODULE module, const char *name);
BOOL UserThreadExecRoutine(HANDLE thread, ZVXKVT_ROUTINE routine);

// What GetProcAddress hands out for "DsGetDcNameA".
DWORD FiberDsGetDcNameA(const char *computer, const char *domain, const void *domainId, const char *site, DWORD flags,
                        void **result);

// For tests: calls whose user thread was terminated, and whose dedicated thread had not ended when last looked at.
uint32_t OrphanedCalls();

}  // namespace zvx

#endif  // ZVX_DEDICATED_DEDICATED_H
