// sched/startup.h - the library's entry point for a host process.
#ifndef ZVX_SCHED_STARTUP_H
#define ZVX_SCHED_STARTUP_H

#include "config/settings.h"
#include "zvxkvt/ostypes.h"

namespace zvx {

// The host's parameter block; the public header declares the same five fields.
struct InitParams {
    uint32_t *QuantumIndicator;   // the host's word, or null
    void *Reserved;               // not read
    const char *TraceDirectory;   // or null
    uint8_t DebugGlobal;          // non-zero: the debugger event is named in the global namespace
    LookupValueFunc LookupValue;  // null: the process environment
};

// Never returns in fiber mode; in pass-through runs `routine` on the calling thread and returns. A second call
// does nothing.
void InitUserThreadScheduler(LPTHREAD_START_ROUTINE routine, void *param, const InitParams *params);

// Tells trace.h what writes the dumps of a fatal error. Start-up does it, and the library when it is loaded: an error
// may come before start-up, or in a process that never starts it.
void RegisterDumps();

// Settings that unit tests prepare by themselves: the processor cursor and the process-wide lists.
void InitSchedulerGlobals();
extern uint8_t gDebugGlobal;                // init
extern uint32_t gNextBitMask;               // start-up thread: one-bit cursor of NextSchedulerMask
extern intptr_t (*gDsGetDcNameA)();         // init: or null

}  // namespace zvx

#endif  // ZVX_SCHED_STARTUP_H
