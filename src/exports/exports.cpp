// exports/exports.cpp - the functions that leave the library under the operating system's names.
//
// Each calls the function of the same name in zvx or in os and does nothing else. zvxkvt.map says under which
// version a name is exported; table.tsv says which of the library's own names are here.
#include <cstddef>

#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "kernel/handles.h"
#include "kernel/query.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "platform/os.h"
#include "postwait/postwait.h"
#include "sched/sched.h"
#include "sched/startup.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

// The host fills the public structure, the library reads its own.
static_assert(sizeof(ZVXKVT_INIT_PARAMS) == sizeof(zvx::InitParams));
static_assert(offsetof(ZVXKVT_INIT_PARAMS, QuantumIndicator) == offsetof(zvx::InitParams, QuantumIndicator));
static_assert(offsetof(ZVXKVT_INIT_PARAMS, TraceDirectory) == offsetof(zvx::InitParams, TraceDirectory));
static_assert(offsetof(ZVXKVT_INIT_PARAMS, DebugGlobal) == offsetof(zvx::InitParams, DebugGlobal));
static_assert(offsetof(ZVXKVT_INIT_PARAMS, LookupValue) == offsetof(zvx::InitParams, LookupValue));

[[gnu::constructor]] static void AtLoad() {
    zvx::RegisterDumps();
}

extern "C" {

// ---- ZVXKVT_3.1: start-up, time, slots ---------------------------------------------------------------

void InitUserThreadScheduler(LPTHREAD_START_ROUTINE routine, LPVOID param, const ZVXKVT_INIT_PARAMS *params) {
    zvx::InitUserThreadScheduler(routine, param, reinterpret_cast<const zvx::InitParams *>(params));
}
void EnableThreadTrace(LPCSTR directory) {
    zvx::EnableThreadTrace(directory);
}
void Sleep(DWORD ms) {
    zvx::Sleep(ms);
}
DWORD SleepEx(DWORD ms, BOOL alertable) {
    return zvx::SleepEx(ms, alertable);
}
BOOL ZSleepExN(DWORD reserved, DWORD target, LPDWORD counter, LPDWORD outstanding) {
    return zvx::ZSleepExN(reserved, target, counter, outstanding);
}
void UserThreadQuantumExpiredCheck(void) {
    zvx::UserThreadQuantumExpiredCheck();
}
DWORD TlsAlloc(void) {
    return zvx::TlsAlloc();
}
BOOL TlsFree(DWORD index) {
    return zvx::TlsFree(index);
}
LPVOID TlsGetValue(DWORD index) {
    return os::TlsGetValue(index);
}
BOOL TlsSetValue(DWORD index, LPVOID value) {
    return os::TlsSetValue(index, value);
}
DWORD GetLastError(void) {
    return os::GetLastError();
}
void SetLastError(DWORD error) {
    os::SetLastError(error);
}
HMODULE GetModuleHandleA(LPCSTR name) {
    return os::GetModuleHandleA(name);
}

// ---- Handles and files -------------------------------------------------------------------------------

BOOL CloseHandle(HANDLE handle) {
    return zvx::CloseHandle(handle);
}
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target, DWORD access,
                     BOOL inherit, DWORD options) {
    return zvx::DuplicateHandle(sourceProcess, source, targetProcess, target, access, inherit, options);
}
HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    return zvx::CreateFileA(name, access, share, security, disposition, flags, templateFile);
}
HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    return zvx::CreateFileW(name, access, share, security, disposition, flags, templateFile);
}
BOOL ReadFile(HANDLE file, LPVOID buffer, DWORD count, LPDWORD got, LPOVERLAPPED overlapped) {
    return zvx::ReadFile(file, buffer, count, got, overlapped);
}
BOOL WriteFile(HANDLE file, LPCVOID buffer, DWORD count, LPDWORD put, LPOVERLAPPED overlapped) {
    return zvx::WriteFile(file, buffer, count, put, overlapped);
}
BOOL ReadFileEx(HANDLE file, LPVOID buffer, DWORD count, LPOVERLAPPED overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    return zvx::ReadFileEx(file, buffer, count, overlapped, routine);
}
BOOL WriteFileEx(HANDLE file, LPCVOID buffer, DWORD count, LPOVERLAPPED overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    return zvx::WriteFileEx(file, buffer, count, overlapped, routine);
}
BOOL LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high, LPOVERLAPPED overlapped) {
    return zvx::LockFileEx(file, flags, reserved, low, high, overlapped);
}
BOOL GetOverlappedResult(HANDLE file, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait) {
    return zvx::GetOverlappedResult(file, overlapped, bytes, wait);
}
DWORD SetFilePointer(HANDLE file, LONG distance, PLONG distanceHigh, DWORD method) {
    return zvx::SetFilePointer(file, distance, distanceHigh, method);
}

// ---- Threads -----------------------------------------------------------------------------------------

HANDLE CreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes, LPTHREAD_START_ROUTINE routine, LPVOID param,
                    DWORD flags, LPDWORD threadId) {
    return zvx::CreateThread(security, stackBytes, routine, param, flags, threadId);
}
HANDLE ZCreateThreadWithAffinity(LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes, LPTHREAD_START_ROUTINE routine,
                                 LPVOID param, DWORD flags, LPDWORD threadId, DWORD mask) {
    return zvx::ZCreateThreadWithAffinity(security, stackBytes, routine, param, flags, threadId, mask);
}
HANDLE CreateRemoteThread(HANDLE process, LPSECURITY_ATTRIBUTES security, SIZE_T stackBytes,
                          LPTHREAD_START_ROUTINE routine, LPVOID param, DWORD flags, LPDWORD threadId) {
    return zvx::CreateRemoteThread(process, security, stackBytes, routine, param, flags, threadId);
}
void ExitThread(DWORD exitCode) {
    zvx::ExitThread(exitCode);
}
HANDLE GetCurrentThread(void) {
    return zvx::GetCurrentThread();
}
DWORD GetCurrentThreadId(void) {
    return zvx::GetCurrentThreadId();
}
DWORD SuspendThread(HANDLE thread) {
    return zvx::SuspendThread(thread);
}
DWORD ResumeThread(HANDLE thread) {
    return zvx::ResumeThread(thread);
}
BOOL TerminateThread(HANDLE thread, DWORD exitCode) {
    return zvx::TerminateThread(thread, exitCode);
}
BOOL GetExitCodeThread(HANDLE thread, LPDWORD exitCode) {
    return zvx::GetExitCodeThread(thread, exitCode);
}
BOOL GetThreadTimes(HANDLE thread, LPFILETIME creation, LPFILETIME exit, LPFILETIME kernel, LPFILETIME user) {
    return zvx::GetThreadTimes(thread, creation, exit, kernel, user);
}
DWORD SetThreadAffinityMask(HANDLE thread, DWORD mask) {
    return zvx::SetThreadAffinityMask(thread, mask);
}
DWORD SetOSThreadAffinityMask(HANDLE thread, DWORD mask) {
    return os::SetThreadAffinityMask(thread, mask);
}

// ---- Waits and events --------------------------------------------------------------------------------

DWORD WaitForSingleObject(HANDLE handle, DWORD ms) {
    return zvx::WaitForSingleObject(handle, ms);
}
DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms) {
    return zvx::WaitForMultipleObjects(count, handles, waitAll, ms);
}
DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable) {
    return zvx::WaitForSingleObjectEx(handle, ms, alertable);
}
DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, BOOL alertable) {
    return zvx::WaitForMultipleObjectsEx(count, handles, waitAll, ms, alertable);
}
HANDLE CreateEventA(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initiallySet, LPCSTR name) {
    return zvx::CreateEventA(security, manualReset, initiallySet, name);
}
BOOL SetEvent(HANDLE event) {
    return zvx::SetEvent(event);
}
BOOL ResetEvent(HANDLE event) {
    return zvx::ResetEvent(event);
}

// ---- Identity, posts, critical sections --------------------------------------------------------------

void IdentifyUserThread(LPCSTR tag, HANDLE postEvent) {
    zvx::IdentifyUserThread(tag, postEvent);
}
void UnidentifyUserThread(DWORD reserved) {
    zvx::UnidentifyUserThread(reserved);
}
void MigrateUserThread(LPCSTR tag) {
    zvx::MigrateUserThread(tag);
}
BOOL PostUserThread(HANDLE event) {
    return zvx::PostUserThread(event);
}
int PostMultipleUserThreads(const HANDLE *events) {
    return zvx::PostMultipleUserThreads(events);
}
DWORD WaitForUserThreadPost(HANDLE event, DWORD ms) {
    return zvx::WaitForUserThreadPost(event, ms);
}
void InitializeCriticalSection(LPCRITICAL_SECTION section) {
    zvx::InitializeCriticalSection(section);
}
BOOL InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spinCount) {
    return zvx::InitializeCriticalSectionAndSpinCount(section, spinCount);
}
DWORD SetCriticalSectionSpinCount(LPCRITICAL_SECTION section, DWORD spinCount) {
    return zvx::SetCriticalSectionSpinCount(section, spinCount);
}
void DeleteCriticalSection(LPCRITICAL_SECTION section) {
    zvx::DeleteCriticalSection(section);
}
void EnterCriticalSection(LPCRITICAL_SECTION section) {
    zvx::EnterCriticalSection(section);
}
BOOL TryEnterCriticalSection(LPCRITICAL_SECTION section) {
    return zvx::TryEnterCriticalSection(section);
}
void LeaveCriticalSection(LPCRITICAL_SECTION section) {
    zvx::LeaveCriticalSection(section);
}

// ---- ZVXKVT_OS ---------------------------------------------------------------------------------------

DWORD GetTickCount(void) {
    return os::GetTickCount();
}
ULONGLONG GetTickCount64(void) {
    return os::GetTickCount64();
}
BOOL QueryPerformanceCounter(LARGE_INTEGER *count) {
    return os::QueryPerformanceCounter(count);
}
BOOL QueryPerformanceFrequency(LARGE_INTEGER *frequency) {
    return os::QueryPerformanceFrequency(frequency);
}
void GetSystemTimeAsFileTime(LPFILETIME time) {
    os::GetSystemTimeAsFileTime(time);
}
void GetLocalTime(LPSYSTEMTIME time) {
    os::GetLocalTime(time);
}
BOOL FlushFileBuffers(HANDLE file) {
    return zvx::FlushFileBuffers(file);
}
BOOL SetEndOfFile(HANDLE file) {
    return os::SetEndOfFile(file);
}
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER *size) {
    return os::GetFileSizeEx(file, size);
}
BOOL UnlockFileEx(HANDLE file, DWORD reserved, DWORD low, DWORD high, LPOVERLAPPED overlapped) {
    return os::UnlockFileEx(file, reserved, low, high, overlapped);
}
BOOL DeleteFileA(LPCSTR name) {
    return os::DeleteFileA(name);
}
BOOL MoveFileExA(LPCSTR from, LPCSTR to, DWORD flags) {
    return os::MoveFileExA(from, to, flags);
}
BOOL CancelIo(HANDLE file) {
    return os::CancelIo(file);
}
BOOL CancelIoEx(HANDLE file, LPOVERLAPPED overlapped) {
    return os::CancelIoEx(file, overlapped);
}
BOOL HasOverlappedIoCompleted(LPOVERLAPPED overlapped) {
    return os::HasOverlappedIoCompleted(overlapped);
}
void ExitProcess(DWORD exitCode) {
    os::ExitProcess(exitCode);
}
HANDLE GetCurrentProcess(void) {
    return os::GetCurrentProcess();
}
DWORD GetCurrentProcessId(void) {
    return os::GetCurrentProcessId();
}
DWORD GetEnvironmentVariableA(LPCSTR name, LPSTR buffer, DWORD size) {
    return os::GetEnvironmentVariableA(name, buffer, size);
}
BOOL GetProcessAffinityMask(HANDLE process, LPDWORD processMask, LPDWORD systemMask) {
    return os::GetProcessAffinityMask(process, processMask, systemMask);
}
BOOL SetThreadPriority(HANDLE thread, int priority) {
    return os::SetThreadPriority(thread, priority);
}
int GetThreadPriority(HANDLE thread) {
    return os::GetThreadPriority(thread);
}
LPVOID VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protect) {
    return os::VirtualAlloc(address, bytes, type, protect);
}
BOOL VirtualFree(LPVOID address, SIZE_T bytes, DWORD type) {
    return os::VirtualFree(address, bytes, type);
}

// ---- ZVXKVT_PRIVATE ----------------------------------------------------------------------------------

const char *ZvxIoBackendName(void) {
    return os::IoBackendName();
}
const char *ZvxIoBackendNote(void) {
    return os::IoBackendNote();
}
DWORD ZvxKernelThreadCount(void) {
    return os::KernelThreadCount();
}
DWORD ZvxSchedulerCount(void) {
    return zvx::SchedulerCount();
}
BOOL ZvxSchedulerFigures(DWORD index, LPDWORD userThreads, LPDWORD switches) {
    return zvx::SchedulerFigures(index, userThreads, switches);
}

}  // extern "C"
