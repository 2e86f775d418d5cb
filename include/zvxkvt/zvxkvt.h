/* zvxkvt/zvxkvt.h - the scheduler's own functions, and the functions of the operating system that it replaces.
 *
 * Link with -lzvxkvt; usable from C and C++. zvxkvt/osapi.h has the functions that a host needs besides and that the
 * library leaves as they are.
 *
 * Fiber mode. After InitUserThreadScheduler every thread that the host makes with CreateThread is a user thread: a
 * fiber that one of a few kernel threads (the schedulers) runs until it calls a function here that waits. "Yields"
 * below means that other user threads of the same scheduler run meanwhile, and that thread-local C++ variables
 * belong to the scheduler's kernel thread: hold no lock of the C or C++ library across such a call. "Blocks" means
 * that the kernel thread itself waits.
 *
 * Pass-through. Where fiber mode is not active, or the caller is not a user thread, each function is the operating
 * system's function of that name and blocks where it waits.
 *
 * Every function may be called from any thread; one of which neither yielding nor blocking is said does neither. A
 * failure is the return value that is named, else FALSE or null, with the reason in GetLastError; each user thread has
 * its own. A failure of the library's own has the reason 0xFFFFFFFF. Handles that stand for nothing give
 * ERROR_INVALID_HANDLE.
 */
#ifndef ZVXKVT_ZVXKVT_H
#define ZVXKVT_ZVXKVT_H

#include "zvxkvt/ostypes.h"
#include "zvxkvt/pipes.h"
#include "zvxkvt/processtypes.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ZVXKVT_API
#define ZVXKVT_API __attribute__((visibility("default")))
#endif

/* ---- Start-up ---------------------------------------------------------------------------------------- */

/* The host's value lookup: stores at most `capacity` characters of the value of `name` in `buffer`, without a
 * terminating zero, and returns how many; below 1 means that the name has no value. Called during start-up only, on
 * the host's thread, with names such as "ZVX_FIBERS_Schedulers". */
typedef int (*ZVXKVT_LOOKUP_VALUE)(const char *name, char *buffer, int capacity);

typedef struct _ZVXKVT_INIT_PARAMS {
    uint32_t *QuantumIndicator;      /* the library writes 1 while some user thread of a static scheduler has run for
                                        too long, else 0; null for none. Must stay valid for the life of the process. */
    void *Reserved;                  /* not read */
    const char *TraceDirectory;      /* where the trace log, dumps and the ring log go; null for the current
                                        directory. Copied. */
    unsigned char DebugGlobal;       /* non-zero: the debugger event is named in the global namespace */
    ZVXKVT_LOOKUP_VALUE LookupValue; /* null: settings come from the environment */
} ZVXKVT_INIT_PARAMS;

/* Reads the settings, starts the schedulers and runs routine(param) as the first user thread. In fiber mode it never
 * returns: the calling thread sleeps, and the process ends through ExitProcess. With the setting "DisableFibers" 1 or
 * "FiberModeReq" 0 it runs the routine on the calling thread and returns. A second call does nothing. A failure ends
 * the process with a message. `params` may be null. */
ZVXKVT_API void WINAPI InitUserThreadScheduler(LPTHREAD_START_ROUTINE routine, LPVOID param,
                                               const ZVXKVT_INIT_PARAMS *params);

/* Accepted for the sake of older hosts; does nothing. */
ZVXKVT_API void WINAPI EnableThreadTrace(LPCSTR directory);

/* ---- Time -------------------------------------------------------------------------------------------- */

/* Yields for `ms` milliseconds; 0 lets the others run once, INFINITE never returns. A short sleep (setting "LFI") of a
 * thread that is identified as a session, a database writer or the log writer is a plain yield. */
ZVXKVT_API void WINAPI Sleep(DWORD ms);

/* Sleep that, when `alertable`, also runs the completion routines of the caller's own operations as they end. Returns
 * WAIT_IO_COMPLETION when one ran, 0 when the time was up. */
ZVXKVT_API DWORD WINAPI SleepEx(DWORD ms, BOOL alertable);

/* Sleeps alertably until *counter has reached `target` or *outstanding is 0. The routines of the caller's operations
 * are expected to change both words, which must stay valid until the return. FALSE when the sleep ended for another
 * reason. `reserved` is not read. */
ZVXKVT_API BOOL WINAPI ZSleepExN(DWORD reserved, DWORD target, LPDWORD counter, LPDWORD outstanding);

/* Yields if the calling user thread has run for longer than its quantum; to be called by long computations that find
 * the quantum indicator set. Without an indicator nobody counts, and it never yields. */
ZVXKVT_API void WINAPI UserThreadQuantumExpiredCheck(void);

/* ---- Thread-local slots and the last error ----------------------------------------------------------- */

/* A slot index for every thread of the process, TLS_OUT_OF_INDEXES when none is left. Slots 0 to 63 follow a user
 * thread; a process that uses more cannot start user threads. */
ZVXKVT_API DWORD WINAPI TlsAlloc(void);
ZVXKVT_API BOOL WINAPI TlsFree(DWORD index);
/* The calling thread's value, null where none was stored. Sets the last error to 0 on success, so that a null value
 * and a failure can be told apart. */
ZVXKVT_API LPVOID WINAPI TlsGetValue(DWORD index);
ZVXKVT_API BOOL WINAPI TlsSetValue(DWORD index, LPVOID value);

ZVXKVT_API DWORD WINAPI GetLastError(void);
ZVXKVT_API void WINAPI SetLastError(DWORD error);

/* ---- Handles ----------------------------------------------------------------------------------------- */

/* Closes a handle of any kind. Operations that are outstanding on it are cancelled. Does not yield. */
ZVXKVT_API BOOL WINAPI CloseHandle(HANDLE handle);

/* A second handle for what `source` stands for, in *target (which may be null). Both must be this process, else FALSE
 * with ERROR_INVALID_PARAMETER; in fiber mode by GetCurrentProcess(): any other handle of it ends the process. With
 * DUPLICATE_CLOSE_SOURCE the source is closed. FALSE with ERROR_INVALID_HANDLE when `source` is none. */
ZVXKVT_API BOOL WINAPI DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target,
                                       DWORD access, BOOL inherit, DWORD options);

/* ---- Files ------------------------------------------------------------------------------------------- */

/* Opens or creates a file; the name is taken literally. INVALID_HANDLE_VALUE on failure. Blocks for as long as the
 * file system takes. `share`, `security` and `templateFile` are not read: every file is shared. Without
 * FILE_FLAG_OVERLAPPED in `flags` the handle has a file position, shared by its duplicates, and reads and writes wait
 * by yielding; with it the caller drives its own operations. */
ZVXKVT_API HANDLE WINAPI CreateFileA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                     DWORD disposition, DWORD flags, HANDLE templateFile);
ZVXKVT_API HANDLE WINAPI CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                     DWORD disposition, DWORD flags, HANDLE templateFile);

/* Reads or writes `count` bytes; *got (may be null) receives how many were moved. On a handle without
 * FILE_FLAG_OVERLAPPED, or without an OVERLAPPED: yields until done, at the file position or at the OVERLAPPED's
 * Offset, and puts the position behind what was moved; at the end of the file a read returns TRUE with 0 bytes. With
 * both: at the Offset, FALSE with ERROR_IO_PENDING while the operation runs, and buffer and OVERLAPPED must stay valid
 * until it has ended. hEvent may get its low bit set; the functions of this header take it with and without that bit.
 */
ZVXKVT_API BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD got, LPOVERLAPPED overlapped);
ZVXKVT_API BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD put, LPOVERLAPPED overlapped);

/* Starts an operation at the OVERLAPPED's Offset; `routine` runs on the calling user thread, in a later alertable
 * wait of it and never before. Needs a handle with FILE_FLAG_OVERLAPPED (else FALSE with 0xFFFFFFFF). Buffer and
 * OVERLAPPED must stay valid until the routine ran. Does not yield. */
ZVXKVT_API BOOL WINAPI ReadFileEx(HANDLE file, LPVOID buffer, DWORD count, LPOVERLAPPED overlapped,
                                  LPOVERLAPPED_COMPLETION_ROUTINE routine);
ZVXKVT_API BOOL WINAPI WriteFileEx(HANDLE file, LPCVOID buffer, DWORD count, LPOVERLAPPED overlapped,
                                   LPOVERLAPPED_COMPLETION_ROUTINE routine);

/* Locks the bytes from the OVERLAPPED's Offset on, `high` and `low` being the two words of their number. Yields
 * until the range is free, unless LOCKFILE_FAIL_IMMEDIATELY asks for ERROR_LOCK_VIOLATION; on a handle with
 * FILE_FLAG_OVERLAPPED FALSE with ERROR_IO_PENDING meanwhile, and the caller waits itself. `reserved` is 0. */
ZVXKVT_API BOOL WINAPI LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high,
                                  LPOVERLAPPED overlapped);

/* Result of an operation that the caller drives; *bytes receives how many bytes it moved. With `wait` yields until it
 * has ended, looking every 10 milliseconds; without, FALSE with ERROR_IO_INCOMPLETE while it runs. */
ZVXKVT_API BOOL WINAPI GetOverlappedResult(HANDLE file, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait);

/* Moves the file position by the signed distance (its high word in *distanceHigh, which then receives that of the new
 * position, or null for a 32-bit distance) from FILE_BEGIN, FILE_CURRENT or FILE_END. The low word of the new
 * position; INVALID_SET_FILE_POINTER with a last error that is not 0 on failure. ERROR_NEGATIVE_SEEK leaves the
 * position where it was. */
ZVXKVT_API DWORD WINAPI SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method);

/* ---- Threads ----------------------------------------------------------------------------------------- */

/* A user thread that runs routine(param) on the scheduler with the least load; null on failure, the last error naming
 * the limit (ERROR_NOT_ENOUGH_MEMORY: no stack, ERROR_TOO_MANY_OPEN_FILES: no handle). `threadId` may be null. Flags:
 * CREATE_SUSPENDED. Stacks have the size of the setting "StackPages" whatever `stackBytes` says. The handle is
 * signalled when the thread has ended. Called by a thread that is no user thread it makes one that the operating system
 * schedules, with a stack of `stackBytes`. */
ZVXKVT_API HANDLE WINAPI CreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes, LPTHREAD_START_ROUTINE routine,
                                      LPVOID param, DWORD flags, LPDWORD threadId);
/* The same on a scheduler that runs on a processor of `mask`; 0 for any. Where it makes no user thread the thread is
 * bound to `mask`, and its stack has 1 MiB. */
ZVXKVT_API HANDLE WINAPI ZCreateThreadWithAffinity(LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes,
                                                   LPTHREAD_START_ROUTINE routine, LPVOID param, DWORD flags,
                                                   LPDWORD threadId, DWORD mask);
/* Always a kernel thread of this process; null with ERROR_NOT_SUPPORTED for another one. */
ZVXKVT_API HANDLE WINAPI CreateRemoteThread(HANDLE process, LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes,
                                            LPTHREAD_START_ROUTINE routine, LPVOID param, DWORD flags,
                                            LPDWORD threadId);

/* Ends the calling thread. Its own operations are cancelled and their routines do not run. Destructors of automatic
 * variables do not run either. Returns only when the thread is ending already. */
ZVXKVT_API void WINAPI ExitThread(DWORD exitCode);

/* Of a user thread: its real handle (not to be closed) and identifier. Otherwise the operating system's. */
ZVXKVT_API HANDLE WINAPI GetCurrentThread(void);
ZVXKVT_API DWORD WINAPI GetCurrentThreadId(void);

/* Stops a thread, or lets it go on once every suspension is taken back. The count before, or 0xFFFFFFFF: with
 * ERROR_INVALID_HANDLE when the thread has ended, with 0xFFFFFFFF when the count is 127. Both yield; SuspendThread
 * until the thread has stopped. */
ZVXKVT_API DWORD WINAPI SuspendThread(HANDLE thread);
ZVXKVT_API DWORD WINAPI ResumeThread(HANDLE thread);

/* Has a user thread end itself when it next runs, whatever it waits for, and yields until it has ended. FALSE with
 * ERROR_INVALID_HANDLE when it had ended before. */
ZVXKVT_API BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode);

/* *exitCode is STILL_ACTIVE while the thread runs. */
ZVXKVT_API BOOL WINAPI GetExitCodeThread(HANDLE thread, LPDWORD exitCode);

/* File times (100-nanosecond units since 1601) of creation and end (0 while it runs), and the thread's processor time
 * in the same units: up to now when a user thread asks about itself, else as it was when it last did. The kernel time
 * of a user thread is 0. */
ZVXKVT_API BOOL WINAPI GetThreadTimes(HANDLE thread, LPFILETIME creation, LPFILETIME exit, LPFILETIME kernel,
                                      LPFILETIME user);

/* For a user thread: changes nothing and returns the mask of its scheduler. Yields only while that thread is on its way
 * to a scheduler of its own; 0 with ERROR_INVALID_HANDLE when it ends meanwhile. */
ZVXKVT_API DWORD WINAPI SetThreadAffinityMask(HANDLE thread, DWORD mask);
/* The operating system's function: the mask of a kernel thread before the change, 0 on failure. Bit i is the i-th
 * processor that the process may use. */
ZVXKVT_API DWORD WINAPI SetOSThreadAffinityMask(HANDLE thread, DWORD mask);

/* ---- Waits and events -------------------------------------------------------------------------------- */

/* Yields until the object is signalled or `ms` milliseconds have passed (0 tests once, INFINITE waits for good).
 * WAIT_OBJECT_0, WAIT_ABANDONED_0, WAIT_TIMEOUT or WAIT_FAILED. A change that another process makes to a named object
 * is seen at the next look, every few milliseconds (setting "TimerInterval"). */
ZVXKVT_API DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD ms);
/* The same for 1 to 64 objects, one of them (result plus its index) or all of them at one time. */
ZVXKVT_API DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms);
/* The same; when `alertable`, completion routines of the caller's own operations run as these end, and the wait ends
 * with WAIT_IO_COMPLETION. */
ZVXKVT_API DWORD WINAPI WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable);
ZVXKVT_API DWORD WINAPI WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms,
                                                 BOOL alertable);

/* An event, null on failure; `name` may be null. Does not yield. */
ZVXKVT_API HANDLE WINAPI CreateEventA(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initiallySet, LPCSTR name);
ZVXKVT_API BOOL WINAPI SetEvent(HANDLE event);
ZVXKVT_API BOOL WINAPI ResetEvent(HANDLE event);

/* ---- Identity, post and wait ------------------------------------------------------------------------- */

/* Says who the calling user thread is, and by which event others post it (an event handle of its own that the host
 * made; nobody sets that event in fiber mode). Without one, null, it cannot be posted, and WaitForUserThreadPost with
 * null waits for the time-out. Tags decide the scheduling class: null, "" or "SHAD" a session; "LGWR" the
 * log writer; "DBW..." a database writer; "PMON" the monitor; "P" any character and two digits a slave; others are
 * background. The string is kept by pointer and must outlive the thread's identity. Identifying twice without
 * UnidentifyUserThread ends the process. Does nothing outside fiber mode. Does not yield. */
ZVXKVT_API void WINAPI IdentifyUserThread(LPCSTR tag, HANDLE postEvent);
/* Takes the identity back; to be called before the thread ends. `reserved` is not read. */
ZVXKVT_API void WINAPI UnidentifyUserThread(DWORD reserved);
/* Gives the calling user thread a tag, and, where that is "LGWR" or begins with "DBW" and the setting
 * "DynamicSchedulersEnabled" allows it, a scheduler of its own: the thread runs there when the call returns, and until
 * it ends. Yields until none of its operations is outstanding, without delivering completion routines; a post that
 * arrives during the move may be dropped. The caller's kernel thread is another one afterwards. The seventeenth such
 * thread at a time ends the process, with more than sixteen schedulers an earlier one. Called before
 * IdentifyUserThread, whose classes take the move into account; the string is kept by pointer as there. A second move
 * of the same thread records the tag only. Does nothing outside fiber mode. */
ZVXKVT_API void WINAPI MigrateUserThread(LPCSTR tag);

/* Wakes the user thread that identified itself with `event`, or lets its next WaitForUserThreadPost end at once;
 * several posts before a wait count as one. For any other event - so also before the thread has identified itself -
 * SetEvent, which its WaitForUserThreadPost does not see. TRUE as well when the event is gone. May yield to a thread of
 * a higher class (setting "YieldAfterHPPost"). */
ZVXKVT_API BOOL WINAPI PostUserThread(HANDLE event);
/* The same for a list that ends with a 0 entry; one message for up to 16 targets on one scheduler. -1, or the index of
 * the first event that could not be posted; those before it are posted all the same. Does not yield. */
ZVXKVT_API int WINAPI PostMultipleUserThreads(const HANDLE *events);
/* Yields until the caller is posted or `ms` milliseconds have passed: 0 or WAIT_TIMEOUT. `event` is the one the caller
 * identified itself with, or null if that was null. Another handle that the library knows (of a file, a socket, a
 * thread, or with which somebody else is identified) stands for the caller's own posts, too; any other is waited for as
 * WaitForSingleObject does. */
ZVXKVT_API DWORD WINAPI WaitForUserThreadPost(HANDLE event, DWORD ms);

/* ---- Critical sections ------------------------------------------------------------------------------- */

/* A recursive lock that belongs to a user thread. Entering a section that another thread owns yields until that one has
 * left; leaving wakes whoever has waited longest, which then tries again. A thread that ends leaves what it owns. The
 * structure must not move. Errors end the process with a message: a section that was never initialised, leaving one
 * that another thread owns, deleting one that another thread owns or waits for.
 * Sections that were initialised before fiber mode are taken over at their first entry by a user thread; they must be
 * free then. */
ZVXKVT_API void WINAPI InitializeCriticalSection(LPCRITICAL_SECTION section);
/* `spinCount`: attempts that a waiter makes while the owner runs on another scheduler. Always TRUE. */
ZVXKVT_API BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
/* Outside fiber mode only; a user thread's call ends the process. The previous count. */
ZVXKVT_API DWORD WINAPI SetCriticalSectionSpinCount(LPCRITICAL_SECTION section, DWORD spinCount);
ZVXKVT_API void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section);
ZVXKVT_API void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section);
/* FALSE when another thread owns it. Does not yield. */
ZVXKVT_API BOOL WINAPI TryEnterCriticalSection(LPCRITICAL_SECTION section);
/* May yield to a waiter of a higher class (setting "YieldAfterHPPost"). */
ZVXKVT_API void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section);

/* ---- Mutexes and semaphores --------------------------------------------------------------------------- */

/* Null on failure; `name` may be null. A name is known to every process of the same user, with or without "Global\"
 * or "Local\" before it, until the last one that has the object open closes it or ends. Creating what exists opens it,
 * and the last error is ERROR_ALREADY_EXISTS then, 0 otherwise. A mutex belongs to the user thread, or else the kernel
 * thread, that waited for it; one whose owner ended without releasing it gives the next waiter WAIT_ABANDONED_0. A user
 * thread's end does not count as that. */
ZVXKVT_API HANDLE WINAPI CreateMutexA(LPSECURITY_ATTRIBUTES security, BOOL initiallyOwned, LPCSTR name);
ZVXKVT_API HANDLE WINAPI CreateMutexW(LPSECURITY_ATTRIBUTES security, BOOL initiallyOwned, LPCWSTR name);
ZVXKVT_API HANDLE WINAPI CreateSemaphoreA(LPSECURITY_ATTRIBUTES security, LONG initial, LONG maximum, LPCSTR name);
ZVXKVT_API HANDLE WINAPI CreateSemaphoreW(LPSECURITY_ATTRIBUTES security, LONG initial, LONG maximum, LPCWSTR name);
/* Null with ERROR_FILE_NOT_FOUND when nobody has such an object open. */
ZVXKVT_API HANDLE WINAPI OpenMutexA(DWORD access, BOOL inherit, LPCSTR name);
ZVXKVT_API HANDLE WINAPI OpenMutexW(DWORD access, BOOL inherit, LPCWSTR name);
ZVXKVT_API HANDLE WINAPI OpenSemaphoreA(DWORD access, BOOL inherit, LPCSTR name);
ZVXKVT_API HANDLE WINAPI OpenSemaphoreW(DWORD access, BOOL inherit, LPCWSTR name);
/* FALSE with ERROR_NOT_OWNER (288) when the caller does not own the mutex. */
ZVXKVT_API BOOL WINAPI ReleaseMutex(HANDLE mutex);
/* *previous (may be null) receives the count before; FALSE with ERROR_TOO_MANY_POSTS beyond the maximum. */
ZVXKVT_API BOOL WINAPI ReleaseSemaphore(HANDLE semaphore, LONG count, PLONG previous);

/* ---- Processes and consoles -------------------------------------------------------------------------- */

/* Starts a program: `application`, or the first word of the command line, which is looked for beside the calling
 * program and then along PATH. Of the caller's handles the child gets its standard streams only: the caller's own, or
 * those of STARTF_USESTDHANDLES. Flags: CREATE_NEW_PROCESS_GROUP, DETACHED_PROCESS, CREATE_UNICODE_ENVIRONMENT;
 * CREATE_SUSPENDED is refused with ERROR_NOT_SUPPORTED. Both handles are signalled when the child has ended and are to
 * be closed. Blocks until the kernel has loaded the program. */
ZVXKVT_API BOOL WINAPI CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                                      LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags,
                                      LPVOID environment, LPCSTR directory, LPSTARTUPINFOA startup,
                                      LPPROCESS_INFORMATION information);
ZVXKVT_API BOOL WINAPI CreateProcessW(LPCWSTR application, WCHAR *commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                                      LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags,
                                      LPVOID environment, LPCWSTR directory, LPSTARTUPINFOW startup,
                                      LPPROCESS_INFORMATION information);
/* A handle that is signalled when the process has ended; null with ERROR_INVALID_PARAMETER when there is none. `access`
 * and `inherit` are not read. */
ZVXKVT_API HANDLE WINAPI OpenProcess(DWORD access, BOOL inherit, DWORD processId);

/* Waits until a process waits for its user's input. No process here has windows: WAIT_FAILED with
 * ERROR_NOT_GUI_PROCESS. Yields. */
ZVXKVT_API DWORD WINAPI WaitForInputIdle(HANDLE process, DWORD ms);

/* Reads a line from a terminal (GetStdHandle, or CreateFileA on "/dev/tty"), or as much of it as has room; it ends with
 * "\r\n". *read receives the number of characters, 0 at the end of the input. Yields: the read runs on a kernel thread
 * of its own, which is ended with the calling user thread. */
ZVXKVT_API BOOL WINAPI ReadConsoleA(HANDLE console, LPVOID buffer, DWORD characters, LPDWORD read, LPVOID reserved);

/* ---- Routines on other threads ----------------------------------------------------------------------- */

/* Has the user thread that is identified by the post event `thread` run the routine on its own stack, at its next
 * dispatch, whatever it waits for; afterwards it goes back to that wait, an alertable one without operations excepted,
 * which ends as if a completion routine had run. While one routine is pending for a thread another one is dropped.
 * FALSE with ERROR_INVALID_HANDLE when the event identifies no living user thread, with 0xFFFFFFFF outside fiber mode.
 * Yields only while that thread is on its way to a scheduler of its own. */
ZVXKVT_API BOOL WINAPI UserThreadExecRoutine(HANDLE thread, ZVXKVT_ROUTINE routine);

/* Queues routine(data) for the next alertable wait of a kernel thread. The handle of a user thread stands for its
 * backing thread, which never waits: such a routine is accepted and never runs (UserThreadExecRoutine is what reaches a
 * user thread). FALSE with ERROR_GEN_FAILURE when the thread has ended. */
ZVXKVT_API BOOL WINAPI QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR data);

/* ---- Modules ----------------------------------------------------------------------------------------- */

/* The module of that name if the process has loaded it, null with ERROR_MOD_NOT_FOUND. */
ZVXKVT_API HMODULE WINAPI GetModuleHandleA(LPCSTR name);

/* Loads a shared object by the loader's own search: under the name as given, and a name "x" or "x.dll" as libx.so and
 * x.so too. Null with ERROR_MOD_NOT_FOUND. Runs the object's initialisers and blocks meanwhile. LoadLibraryExA:
 * `file` must be null; DONT_RESOLVE_DLL_REFERENCES delays the binding of symbols, other flags have no effect. */
ZVXKVT_API HMODULE WINAPI LoadLibraryA(LPCSTR name);
ZVXKVT_API HMODULE WINAPI LoadLibraryExA(LPCSTR name, HANDLE file, DWORD flags);
/* Runs the object's finalisers when it was the last user of it, and blocks meanwhile. */
ZVXKVT_API BOOL WINAPI FreeLibrary(HMODULE module);
/* Then ends the calling thread, as ExitThread does. */
ZVXKVT_API void WINAPI FreeLibraryAndExitThread(HMODULE module, DWORD exitCode);
/* The module's function of that name; null with ERROR_PROC_NOT_FOUND, also for every ordinal (a "name" below 0x10000).
 * In fiber mode a user thread that asks for "DsGetDcNameA", where the process can have it at all, is given a form of it
 * that yields while the query runs. */
ZVXKVT_API FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_ZVXKVT_H */
