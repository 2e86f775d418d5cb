// platform/base/process_object.cpp - objects of processes, and what needs no more than the object.
//
// Any thread; nothing blocks. Starting, watching and ending processes is done in system/process.cpp.
#include "platform/base/process_object.h"

#include <unistd.h>

#include "platform/base/object_pool.h"
#include "platform/base/thread_object.h"

namespace os {

namespace {

void DestroyProcess(Object *object);
constexpr ObjectOps kProcessOps = {nullptr, DestroyProcess};
constinit ObjectPool<ProcessObject> gProcesses(ObjectType::kProcess, &kProcessOps);

std::atomic<ProcessObject *> gSelf{nullptr};  // with a reference that is never dropped

void DestroyProcess(Object *object) {
    ProcessObject *process = static_cast<ProcessObject *>(object);
    if (process->PidFd >= 0) close(process->PidFd);
    if (process->FirstThread != nullptr) UnrefObject(process->FirstThread);
    process->FirstThread = nullptr;
    FreeObject(&gProcesses, process);
}

}  // namespace

ProcessObject *NewProcessObject(DWORD id, int pidFd, bool child) {
    ProcessObject *process = AllocObject(&gProcesses);
    if (process == nullptr) return nullptr;
    process->Id.store(id, std::memory_order_relaxed);
    process->ExitCode.store(STILL_ACTIVE, std::memory_order_relaxed);
    process->CodeKnown.store(true, std::memory_order_relaxed);
    process->KillCode.store(0, std::memory_order_relaxed);
    process->PidFd = pidFd;
    process->Child = child;
    process->FirstThread = nullptr;
    process->NextWatched = nullptr;
    return process;
}

Object *RefCurrentProcess() {
    ProcessObject *self = gSelf.load(std::memory_order_acquire);
    if (self == nullptr) {
        ProcessObject *made = NewProcessObject(GetCurrentProcessId(), -1, false);
        if (made == nullptr) return nullptr;
        if (gSelf.compare_exchange_strong(self, made, std::memory_order_acq_rel))
            self = made;
        else
            UnrefObject(made);
    }
    RefObject(self);
    return self;
}

BOOL GetExitCodeProcess(HANDLE handle, DWORD *code) {
    if (ShouldFail("GetExitCodeProcess")) return FALSE;
    ProcessObject *process = static_cast<ProcessObject *>(RefHandle(handle, ObjectType::kProcess));
    if (process == nullptr) return FALSE;
    // As of a thread: who sees it ended must find its handle signalled.
    const bool ended = process->Signalled.load(std::memory_order_acquire) != 0;
    const DWORD last = process->ExitCode.load(std::memory_order_relaxed);
    const bool known = process->CodeKnown.load(std::memory_order_relaxed);
    UnrefObject(process);
    if (ended && !known) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    *code = ended ? last : STILL_ACTIVE;
    return TRUE;
}

DWORD GetProcessId(HANDLE handle) {
    if (ShouldFail("GetProcessId")) return 0;
    if (handle == GetCurrentProcess()) return GetCurrentProcessId();  // also in a forked copy of the process
    ProcessObject *process = static_cast<ProcessObject *>(RefHandle(handle, ObjectType::kProcess));
    if (process == nullptr) return 0;
    const DWORD id = process->Id.load(std::memory_order_relaxed);
    UnrefObject(process);
    return id;
}

DWORD WaitForInputIdle(HANDLE handle, DWORD ms) {
    static_cast<void>(ms);
    if (ShouldFail("WaitForInputIdle")) return WAIT_FAILED;
    Object *process = RefHandle(handle, ObjectType::kProcess);
    if (process == nullptr) return WAIT_FAILED;
    UnrefObject(process);
    SetLastError(ERROR_NOT_GUI_PROCESS);
    return WAIT_FAILED;
}

}  // namespace os
