// platform/os_process.h - the contract of the operating system, second half: objects by name, processes, modules,
// the console, asynchronous routines.
//
// The rules of platform/os.h hold: unless a comment says otherwise a function may be called from any thread, does
// not block, and reports a failure by its return value with the reason in the calling thread's last-error value.
#ifndef ZVX_PLATFORM_OS_PROCESS_H
#define ZVX_PLATFORM_OS_PROCESS_H

#include "platform/os.h"
#include "zvxkvt/processtypes.h"

namespace os {

// ---- Objects by name ---------------------------------------------------------------------------------
//
// The name of an event, mutex or semaphore is known to every process of the same user, and is free again when the
// last of those that have the object open has closed it or ended. "Global\" and "Local\" at its beginning mean the
// same name; beyond that it holds no backslash (ERROR_PATH_NOT_FOUND) and has at most 255 bytes
// (ERROR_FILENAME_EXCED_RANGE). Creating what exists opens it, with ERROR_ALREADY_EXISTS as last error after success;
// ERROR_INVALID_HANDLE when an object of another type bears the name. Where the kernel gives no shared memory, names
// are known within the process only.

HANDLE CreateMutexW(SECURITY_ATTRIBUTES *security, BOOL initiallyOwned, const WCHAR *name);
HANDLE CreateSemaphoreW(SECURITY_ATTRIBUTES *security, LONG initial, LONG maximum, const WCHAR *name);
// Null with ERROR_FILE_NOT_FOUND when nobody has such an object open. `access` and `inherit` have no effect.
HANDLE OpenEventA(DWORD access, BOOL inherit, const char *name);
HANDLE OpenMutexA(DWORD access, BOOL inherit, const char *name);
HANDLE OpenMutexW(DWORD access, BOOL inherit, const WCHAR *name);
HANDLE OpenSemaphoreA(DWORD access, BOOL inherit, const char *name);
HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, const WCHAR *name);

// ---- Processes ---------------------------------------------------------------------------------------

// Starts a program: `application`, or the first word of `commandLine`, which is looked for beside the calling
// program and then along PATH. The command line is split as C programs of the imitated system split theirs. The child
// gets no handle but its three standard streams (the caller's, or those of STARTF_USESTDHANDLES), the environment
// block or the caller's environment, and the directory or the caller's. Handles are closed by whoever closes them in
// *information. Blocks for as long as the kernel takes to start the program. CREATE_SUSPENDED is refused with
// ERROR_NOT_SUPPORTED: there is no way to stop a child before its first instruction and let go of it later.
BOOL CreateProcessA(const char *application, char *commandLine, SECURITY_ATTRIBUTES *processSecurity,
                    SECURITY_ATTRIBUTES *threadSecurity, BOOL inherit, DWORD flags, void *environment,
                    const char *directory, STARTUPINFOA *startup, PROCESS_INFORMATION *information);
BOOL CreateProcessW(const WCHAR *application, WCHAR *commandLine, SECURITY_ATTRIBUTES *processSecurity,
                    SECURITY_ATTRIBUTES *threadSecurity, BOOL inherit, DWORD flags, void *environment,
                    const WCHAR *directory, STARTUPINFOW *startup, PROCESS_INFORMATION *information);
// Null with ERROR_INVALID_PARAMETER when there is no such process.
HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD processId);
// STILL_ACTIVE while it runs. Of an exit the kernel keeps eight bits; a signal gives 128 plus its number, and
// TerminateProcess the code that it was given. Only a parent learns the code: for a process that somebody else
// started FALSE with ERROR_ACCESS_DENIED once it has ended.
BOOL GetExitCodeProcess(HANDLE process, DWORD *code);
// Ends the process at once. Of the calling process: does not return.
BOOL TerminateProcess(HANDLE process, DWORD code);
DWORD GetProcessId(HANDLE process);
// No process here has a window to be idle: WAIT_FAILED with ERROR_NOT_GUI_PROCESS at once, as for a program without
// windows on the imitated system; with ERROR_INVALID_HANDLE when it is no process.
DWORD WaitForInputIdle(HANDLE process, DWORD ms);

// ---- Console -----------------------------------------------------------------------------------------

// The handle of a stream (STD_INPUT_HANDLE, ...), the same at every call until it is closed, which leaves the stream
// itself open. INVALID_HANDLE_VALUE with ERROR_INVALID_HANDLE when the process has no such stream.
HANDLE GetStdHandle(DWORD which);
// A line, or as much of it as has room, with "\r\n" at its end; nothing, and TRUE, at the end of the input. Blocks
// until there is a line; the thread can be ended meanwhile. ERROR_INVALID_HANDLE when the file is no terminal.
BOOL ReadConsoleA(HANDLE console, void *buffer, DWORD characters, DWORD *read, void *reserved);

// ---- Asynchronous routines and modules ---------------------------------------------------------------

// Queues routine(data) for the next alertable wait of a kernel thread, in order. One for a backing thread is taken
// and never runs, since such a thread never waits. ERROR_GEN_FAILURE when the thread has ended.
BOOL QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR data);
// As LoadLibraryA. `file` must be null; of the flags DONT_RESOLVE_DLL_REFERENCES delays the binding of symbols and
// the others have no effect.
HMODULE LoadLibraryExA(const char *name, HANDLE file, DWORD flags);

// Runs fn(arg) on the calling thread; false when it was left by a memory fault, an arithmetic fault or a C++
// exception. After a fault nothing that fn held is released, so this is for code that holds nothing: `fn` neither
// yields nor takes locks of the library, and a platform function that it calls touches its arguments without locks.
bool CallGuarded(void (*fn)(void *), void *arg);

}  // namespace os

#endif  // ZVX_PLATFORM_OS_PROCESS_H
