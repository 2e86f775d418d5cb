// diag/dump.h - crash dumps: at a fatal error, and whenever the debugger event is signalled.
//
// A sweep switches to every user thread of one scheduler in turn, and a dump is written while each of them is the
// running fiber: the stack of the scheduler's thread in the file is that user thread's own.
#ifndef ZVX_DIAG_DUMP_H
#define ZVX_DIAG_DUMP_H

#include "sched/records.h"

namespace zvx {

// Thread routine: one dump file, whose name begins with the text `name`. Returns 0. Waits for gDumpLock, and blocks for
// as long as the file system does. A file that cannot be had costs the dump, nothing else.
DWORD WriteMiniDump(void *name);
// Runs WriteMiniDump(name) on a fresh kernel thread and waits for its end, so that the stack of the caller is at rest;
// on the calling thread when there is none to be had. Blocks.
void WriteDumpOnHelperThread(const char *name);
// A dump of the caller and, when it is a user thread, of every other user thread of its scheduler; nobody else of the
// scheduler runs meanwhile. The caller's last error, errno and slots are what they were. `prefix` begins each name. Any
// thread; blocks until the files are written, yields never.
void DumpProcess(const char *prefix);
void DumpDebug();  // DumpProcess("zvxkvt_debug")
// FatalExit's way to DumpProcess: from here on no lock is waited for without a limit.
void DumpForFatalExit(const char *prefix);
// The SwitchHook of a sweep, on the fiber that was switched to: writes its dump and gives the Fiber to go on with.
void *DumpFiberHook();
// Who comes after the calling fiber, or first; the fiber that began the sweep comes last.
Fiber *NextDumpFiber(bool first);
// Once, at start-up, after gNullDaclSecurity and the settings are there.
void StartDebuggerThread();
// Thread routine: waits for the event. Each signal writes the state of the allocator and the handle table to the trace
// and asks every static scheduler for a sweep; what arrives meanwhile is merged.
DWORD DebuggerThread(void *);

}  // namespace zvx

#endif  // ZVX_DIAG_DUMP_H
