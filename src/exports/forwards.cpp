// exports/forwards.cpp - names that lead to the operating system's function whether or not user threads run, and the
// exports of dedicated/.
//
// A forward blocks the kernel thread where the operating system's function does. One of them ends a thread and is no
// plain forward: a user thread ends through the library, or its scheduler would end in its place.
#include "dedicated/dedicated.h"
#include "kernel/thread.h"
#include "platform/os_process.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

extern "C" {

// ---- ZVXKVT_3.1: mutexes and semaphores --------------------------------------------------------------

HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES security, BOOL initiallyOwned, LPCSTR name) {
    return os::CreateMutexA(security, initiallyOwned, name);
}
HANDLE CreateMutexW(LPSECURITY_ATTRIBUTES security, BOOL initiallyOwned, LPCWSTR name) {
    return os::CreateMutexW(security, initiallyOwned, name);
}
HANDLE OpenMutexA(DWORD access, BOOL inherit, LPCSTR name) {
    return os::OpenMutexA(access, inherit, name);
}
HANDLE OpenMutexW(DWORD access, BOOL inherit, LPCWSTR name) {
    return os::OpenMutexW(access, inherit, name);
}
BOOL ReleaseMutex(HANDLE mutex) {
    return os::ReleaseMutex(mutex);
}
HANDLE CreateSemaphoreA(LPSECURITY_ATTRIBUTES security, LONG initial, LONG maximum, LPCSTR name) {
    return os::CreateSemaphoreA(security, initial, maximum, name);
}
HANDLE CreateSemaphoreW(LPSECURITY_ATTRIBUTES security, LONG initial, LONG maximum, LPCWSTR name) {
    return os::CreateSemaphoreW(security, initial, maximum, name);
}
HANDLE OpenSemaphoreA(DWORD access, BOOL inherit, LPCSTR name) {
    return os::OpenSemaphoreA(access, inherit, name);
}
HANDLE OpenSemaphoreW(DWORD access, BOOL inherit, LPCWSTR name) {
    return os::OpenSemaphoreW(access, inherit, name);
}
BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, PLONG previous) {
    return os::ReleaseSemaphore(semaphore, count, previous);
}

// ---- Processes, modules, asynchronous routines -------------------------------------------------------

BOOL CreateProcessA(LPCSTR application, LPSTR commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                    LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                    LPCSTR directory, LPSTARTUPINFOA startup, LPPROCESS_INFORMATION information) {
    return os::CreateProcessA(application, commandLine, processSecurity, threadSecurity, inherit, flags, environment,
                              directory, startup, information);
}
BOOL CreateProcessW(LPCWSTR application, WCHAR *commandLine, LPSECURITY_ATTRIBUTES processSecurity,
                    LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags, LPVOID environment,
                    LPCWSTR directory, LPSTARTUPINFOW startup, LPPROCESS_INFORMATION information) {
    return os::CreateProcessW(application, commandLine, processSecurity, threadSecurity, inherit, flags, environment,
                              directory, startup, information);
}
HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD processId) {
    return os::OpenProcess(access, inherit, processId);
}
HMODULE LoadLibraryA(LPCSTR name) {
    return os::LoadLibraryA(name);
}
HMODULE LoadLibraryExA(LPCSTR name, HANDLE file, DWORD flags) {
    return os::LoadLibraryExA(name, file, flags);
}
BOOL FreeLibrary(HMODULE module) {
    return os::FreeLibrary(module);
}
void FreeLibraryAndExitThread(HMODULE module, DWORD exitCode) {
    os::FreeLibrary(module);
    zvx::ExitThread(exitCode);
    // A user thread that is ending already comes back here, and its exit goes on in the caller's callers.
}
BOOL QueueUserAPC(PAPCFUNC routine, HANDLE thread, ULONG_PTR data) {
    return os::QueueUserAPC(routine, thread, data);
}

// ---- dedicated/ --------------------------------------------------------------------------------------

FARPROC GetProcAddress(HMODULE module, LPCSTR name) {
    return zvx::GetProcAddress(module, name);
}
BOOL ReadConsoleA(HANDLE console, LPVOID buffer, DWORD characters, LPDWORD read, LPVOID reserved) {
    return zvx::ReadConsoleA(console, buffer, characters, read, reserved);
}
DWORD WaitForInputIdle(HANDLE process, DWORD ms) {
    return zvx::WaitForInputIdle(process, ms);
}
BOOL UserThreadExecRoutine(HANDLE thread, ZVXKVT_ROUTINE routine) {
    return zvx::UserThreadExecRoutine(thread, routine);
}

// ---- ZVXKVT_OS ---------------------------------------------------------------------------------------

HANDLE OpenEventA(DWORD access, BOOL inherit, LPCSTR name) {
    return os::OpenEventA(access, inherit, name);
}
BOOL GetExitCodeProcess(HANDLE process, LPDWORD exitCode) {
    return os::GetExitCodeProcess(process, exitCode);
}
BOOL TerminateProcess(HANDLE process, DWORD exitCode) {
    return os::TerminateProcess(process, exitCode);
}
HANDLE GetStdHandle(DWORD which) {
    return os::GetStdHandle(which);
}

}  // extern "C"
