/* zvxkvt/osapi.h - what a host needs of the operating system besides zvxkvt/zvxkvt.h.
 *
 * The library does not replace these but for FlushFileBuffers: they act at once, on any thread, and block the kernel
 * thread where they wait. Inside a user thread prefer what zvxkvt.h has. A failure is FALSE, null or the value that is
 * named, with the reason in GetLastError. They are exported under the version ZVXKVT_OS; those at the end, whose names
 * begin with Zvx, are for tools and examples, under ZVXKVT_PRIVATE, and may change.
 */
#ifndef ZVXKVT_OSAPI_H
#define ZVXKVT_OSAPI_H

#include "zvxkvt/ostypes.h"
#include "zvxkvt/processtypes.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ZVXKVT_API
#define ZVXKVT_API __attribute__((visibility("default")))
#endif

/* ---- Clocks ------------------------------------------------------------------------------------------ */

ZVXKVT_API DWORD WINAPI GetTickCount(void); /* milliseconds since some start; wraps after 49.7 days */
ZVXKVT_API ULONGLONG WINAPI GetTickCount64(void);
ZVXKVT_API BOOL WINAPI QueryPerformanceCounter(LARGE_INTEGER *count);
ZVXKVT_API BOOL WINAPI QueryPerformanceFrequency(LARGE_INTEGER *frequency); /* counts a second */
ZVXKVT_API void WINAPI GetSystemTimeAsFileTime(LPFILETIME time);
ZVXKVT_API void WINAPI GetLocalTime(LPSYSTEMTIME time);

/* ---- Files ------------------------------------------------------------------------------------------- */

/* What was written before is on the medium when it returns, with the metadata that reading it back needs. Any thread; a
   user thread parks, a thread of the operating system blocks. FALSE with ERROR_INVALID_HANDLE, with ERROR_ACCESS_DENIED
   when the file is not open for writing, or with the error of the medium. */
ZVXKVT_API BOOL WINAPI FlushFileBuffers(HANDLE file);
/* Cuts or grows the file to the operating system's position, which SetFilePointer with FILE_BEGIN or FILE_END sets. */
ZVXKVT_API BOOL WINAPI SetEndOfFile(HANDLE file);
ZVXKVT_API BOOL WINAPI GetFileSizeEx(HANDLE file, LARGE_INTEGER *size);
ZVXKVT_API BOOL WINAPI UnlockFileEx(HANDLE file, DWORD reserved, DWORD low, DWORD high, LPOVERLAPPED overlapped);
ZVXKVT_API BOOL WINAPI DeleteFileA(LPCSTR name);
/* MOVEFILE_REPLACE_EXISTING replaces in one step; MOVEFILE_WRITE_THROUGH returns when the change is durable. */
ZVXKVT_API BOOL WINAPI MoveFileExA(LPCSTR from, LPCSTR to, DWORD flags);

/* ---- Overlapped operations --------------------------------------------------------------------------- */

/* Asks for the end of every operation of the calling kernel thread on the handle. */
ZVXKVT_API BOOL WINAPI CancelIo(HANDLE file);
/* Asks for the end of that operation; it still ends by itself, with ERROR_OPERATION_ABORTED or its own result. FALSE
 * with ERROR_NOT_FOUND when there is none. */
ZVXKVT_API BOOL WINAPI CancelIoEx(HANDLE file, LPOVERLAPPED overlapped);
/* Whether the operation has ended. Collects what has ended first, so that a loop over it comes to an end. */
ZVXKVT_API BOOL WINAPI HasOverlappedIoCompleted(LPOVERLAPPED overlapped);

/* ---- Process, processors and priorities -------------------------------------------------------------- */

/* Ends the process, in fiber mode the only way to. Standard output and error are flushed; destructors do not run. */
ZVXKVT_API void WINAPI ExitProcess(DWORD exitCode) __attribute__((noreturn));
ZVXKVT_API HANDLE WINAPI GetCurrentProcess(void); /* a pseudo handle */
ZVXKVT_API DWORD WINAPI GetCurrentProcessId(void);
/* Characters stored without the terminating zero; the size that is needed when `size` is too small; 0 with
 * ERROR_ENVVAR_NOT_FOUND. */
ZVXKVT_API DWORD WINAPI GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size);
/* Bit i is the i-th processor that the process may use. */
ZVXKVT_API BOOL WINAPI GetProcessAffinityMask(HANDLE process, LPDWORD processMask, LPDWORD systemMask);
/* A priority that the kernel refuses to an ordinary user is remembered, which is no error. */
ZVXKVT_API BOOL WINAPI SetThreadPriority(HANDLE thread, int priority);
ZVXKVT_API int WINAPI GetThreadPriority(HANDLE thread); /* THREAD_PRIORITY_ERROR_RETURN on failure */

/* An event that has the name, see CreateMutexA; null with ERROR_FILE_NOT_FOUND. */
ZVXKVT_API HANDLE WINAPI OpenEventA(DWORD access, BOOL inherit, LPCSTR name);
/* STILL_ACTIVE while it runs. Of an exit the kernel keeps eight bits; a signal gives 128 plus its number. FALSE with
 * ERROR_ACCESS_DENIED for one that somebody else started and that has ended. */
ZVXKVT_API BOOL WINAPI GetExitCodeProcess(HANDLE process, LPDWORD exitCode);
/* At once and with that code; a child's parent sees all of its 32 bits. */
ZVXKVT_API BOOL WINAPI TerminateProcess(HANDLE process, DWORD exitCode);
/* The handle of a standard stream (STD_INPUT_HANDLE and so on), the same at every call until it is closed;
 * INVALID_HANDLE_VALUE when there is none. */
ZVXKVT_API HANDLE WINAPI GetStdHandle(DWORD which);

/* ---- Memory ------------------------------------------------------------------------------------------ */

/* `bytes` of zero-filled pages: MEM_RESERVE, MEM_COMMIT, MEM_LARGE_PAGES; null on failure. */
ZVXKVT_API LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protect);
ZVXKVT_API BOOL WINAPI VirtualFree(LPVOID address, SIZE_T bytes, DWORD type);

/* ---- For tools and examples -------------------------------------------------------------------------- */

ZVXKVT_API const char *WINAPI ZvxIoBackendName(void); /* "io_uring" or "epoll" */
/* A line for the operator when io_uring is refused by this machine and epoll is used for that reason; else empty. */
ZVXKVT_API const char *WINAPI ZvxIoBackendNote(void);
ZVXKVT_API DWORD WINAPI ZvxKernelThreadCount(void); /* kernel threads of this process now */
ZVXKVT_API DWORD WINAPI ZvxSchedulerCount(void);    /* static schedulers; 0 outside fiber mode */
/* User threads of a scheduler now, and how often it has picked one to run (wraps). FALSE for no such scheduler. */
ZVXKVT_API BOOL WINAPI ZvxSchedulerFigures(DWORD index, LPDWORD userThreads, LPDWORD switches);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_OSAPI_H */
