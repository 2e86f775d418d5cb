// kernel/pipe.cpp - creating named pipes, and waiting for the other side.
//
// Runs on the calling user thread. A connection is waited for as a read of a file is, on one of the records inside the
// Fiber, and always ends through the port where the pipe is bound to the thread's own: clients come seldom, and a
// listener that was polled would keep its scheduler from sleeping. Waiting for a pipe of somebody else has no
// completion, so it is a polled wait, and each look blocks the scheduler thread for at most the pipe's own time-out.
#include "kernel/pipe.h"

#include "kernel/file.h"
#include "platform/os_pipe.h"
#include "sched/sched.h"

namespace zvx {

namespace {

constexpr DWORD kNoReason = 0xFFFFFFFF;

template <typename Name,
          HANDLE (*OsCreate)(const Name *, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, SECURITY_ATTRIBUTES *)>
HANDLE CreatePipe(uint32_t type, const Name *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                  DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return OsCreate(name, openMode, pipeMode, maxInstances, outBytes, inBytes, defaultMs, security);
    Scheduler *S = SchedOf(F);
    PSEHAND *entry = AllocHandleEntry(S, S->NumaNode);
    const bool byCaller = (openMode & FILE_FLAG_OVERLAPPED) != 0;
    const HANDLE pipe =
        OsCreate(name, openMode | FILE_FLAG_OVERLAPPED, pipeMode, maxInstances, outBytes, inBytes, defaultMs, security);
    if (pipe == INVALID_HANDLE_VALUE) {
        FreeHandleEntry(entry, S);
        return INVALID_HANDLE_VALUE;
    }
    entry->Type = type;
    entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(pipe));
    // Unlike files, pipes are bound in the polling model too.
    if (os::CreateIoCompletionPort(pipe, S->Port, reinterpret_cast<uintptr_t>(pipe), 0) != S->Port) {
        FreeHandleEntry(entry, S);
        os::CloseHandle(pipe);
        os::SetLastError(kNoReason);
        return INVALID_HANDLE_VALUE;
    }
    entry->Flags.store((byCaller ? PHAND_FLAG_ASYNC_CALLER : PHAND_FLAG_ASYNC_ADDED) | PHAND_FLAG_ON_PORT,
                       std::memory_order_relaxed);
    entry->PortIndex = S->Index;
    entry->OwnerFiber = F;
    InsertHandle(entry);
    return pipe;
}

BOOL ConnectAndWait(Fiber *F, HANDLE pipe, PSEHAND *entry, OVERLAPPED *caller) {
    FIBEROVERLAPPED *rec = PrepareOwnOv(F, caller, entry, true, OP_CONNECT_NAMED_PIPE);
    BOOL result = os::ConnectNamedPipe(pipe, &rec->Ov, &rec->Io);
    if (result) {
        AccountPacket(rec);
    } else if (os::GetLastError() == ERROR_IO_PENDING) {
        WaitForCurOv(F);
        DWORD bytes = 0;
        result = os::LoadStatus(&rec->Ov) == STATUS_SUCCESS || os::GetOverlappedResult(pipe, &rec->Ov, &bytes, FALSE);
    } else {
        ForgetFailedOv(rec);
    }
    if (caller != nullptr) {
        caller->InternalHigh = rec->Ov.InternalHigh;
        os::StoreStatus(caller, os::LoadStatus(&rec->Ov));
    }
    return result;
}

// Over when the pipe can be had, and when the operating system's own wait timed out under that name; every other
// failure (no such pipe yet, all instances taken) may pass.
template <typename Name, BOOL (*OsWait)(const Name *, DWORD)>
bool PipeTest(Fiber *, uintptr_t result, uintptr_t name, uintptr_t, uintptr_t, uintptr_t) {
    BOOL *answer = reinterpret_cast<BOOL *>(result);
    *answer = OsWait(reinterpret_cast<const Name *>(name), NMPWAIT_USE_DEFAULT_WAIT);
    return *answer || os::GetLastError() == WAIT_TIMEOUT;
}

template <typename Name, BOOL (*OsWait)(const Name *, DWORD)>
BOOL WaitForPipe(const Name *name, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return OsWait(name, ms);
    BOOL result = FALSE;
    F->WaitTimeoutMs = ms;
    const bool over = WaitWithPolling(F, PipeTest<Name, OsWait>, reinterpret_cast<uintptr_t>(&result),
                                      reinterpret_cast<uintptr_t>(name));
    return over ? result : FALSE;
}

}  // namespace

HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security) {
    return CreatePipe<char, os::CreateNamedPipeA>(PHAND_HTYPE_CreateNamedPipeA, name, openMode, pipeMode, maxInstances,
                                                  outBytes, inBytes, defaultMs, security);
}

HANDLE CreateNamedPipeW(const WCHAR *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security) {
    return CreatePipe<WCHAR, os::CreateNamedPipeW>(PHAND_HTYPE_CreateNamedPipeW, name, openMode, pipeMode, maxInstances,
                                                   outBytes, inBytes, defaultMs, security);
}

BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpHandle(pipe) : nullptr;
    if (entry == nullptr) return os::ConnectNamedPipe(pipe, overlapped);
    const uint32_t flags = entry->Flags.load(std::memory_order_acquire);
    if ((flags & PHAND_FLAG_ASYNC_ADDED) == 0 && overlapped != nullptr) {
        // The host waits for this one itself; its packet would only wake our scheduler.
        if ((flags & PHAND_FLAG_ON_PORT) != 0) overlapped->hEvent = WithoutPacket(overlapped->hEvent);
        return os::ConnectNamedPipe(pipe, overlapped);
    }
    return ConnectAndWait(F, pipe, entry, overlapped);
}

BOOL WaitNamedPipeA(const char *name, DWORD ms) {
    return WaitForPipe<char, os::WaitNamedPipeA>(name, ms);
}

BOOL WaitNamedPipeW(const WCHAR *name, DWORD ms) {
    return WaitForPipe<WCHAR, os::WaitNamedPipeW>(name, ms);
}

}  // namespace zvx
