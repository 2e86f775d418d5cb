// diag/trace.h - the trace log, the console and the end of the process on an internal inconsistency.
#ifndef ZVX_DIAG_TRACE_H
#define ZVX_DIAG_TRACE_H

#include <atomic>
#include <cstdint>

#include "platform/os.h"

namespace zvx {

extern char gSid[260];             // [gTraceLock] instance name, or empty
extern char gTraceDir[260];        // [gTraceLock] empty, or ending in a separator
extern char gTraceFileName[288];   // [gTraceLock] at most 255 characters, the longest name that a file may have
extern SYSTEMTIME gStartTime;      // init: local time of the first TraceInit
extern os::CriticalSection gTraceLock;
extern os::CriticalSection gDumpLock;
extern std::atomic<uint8_t> gDying;  // set once FatalExit has written its dumps

// Any thread may call these; none yields, and a write blocks the caller's kernel thread for its length. A line that
// cannot be written is lost. errno and the last error are what they were, but for TraceInit.
//
// Sets up what there is once, and the directory (null: the current one) at the first call and whenever one is given.
void TraceInit(const char *dir);
// `stamp`: with date and time in front, to which `hires` adds the performance counter.
void WriteTraceLine(const char *text, bool flush, bool stamp, bool hires);
void TracePrintf(const char *format, ...) __attribute__((format(printf, 1, 2)));  // flushed, with date and time
// `prefix`: with the last error and who writes in front; then nothing is written for the thread "PMON".
void TraceLog(bool prefix, bool flush, bool stamp, const char *format, ...) __attribute__((format(printf, 4, 5)));
// Records the message, dumps, tells the console and ends the process with exit code 1. Of several callers the first
// claims the exit: a second call on the same thread (from within a dump) skips the dumps, other threads wait for the
// end of the process. Locks that are in the way are waited for a second and then done without, and a watchdog ends
// the process when nothing has been written for thirty, so it ends whatever the caller or anyone else holds.
[[noreturn]] void FatalExit(const char *format, ...) __attribute__((format(printf, 1, 2)));
void EnableThreadTrace(const char *dir);  // exported; does nothing

// For dumps written on the way out of the process: enters `section`, giving up after a second once a fatal exit has
// been claimed by the calling thread. False when the lock was not had; the caller then does without.
bool EnterUnlessDying(os::CriticalSection *section);
// Tells the watchdog of a fatal exit that the dumps are making progress; trace lines do so by themselves.
void NoteFatalProgress();

// [gTraceLock] gTraceDir as the path of a file begins; at most 259 characters.
void CopyTraceDir(char *path);
// Removes a character that was cut in two from the end of `text`, which was cut at `length` bytes; the new length.
size_t DropPartialChar(char *text, size_t length);

// What lies above registers itself (RegisterDumps): the internal-variable dump and the crash dumps. Null: there is
// none.
extern void (*gDumpVariables)();
extern void (*gDumpProcess)(const char *namePrefix);

}  // namespace zvx

#endif  // ZVX_DIAG_TRACE_H
