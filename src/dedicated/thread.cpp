// dedicated/thread.cpp - operating-system calls that cannot be made asynchronous, each on a thread made for it.
//
// The calling user thread parks in a polled wait until its dedicated thread has ended; its scheduler runs others
// meanwhile. The dedicated thread is an ordinary kernel thread: it yields nowhere and knows no scheduler.
//
// The dedicated thread works on a DedicatedCall, a heap copy of the request and of everything that its pointers lead
// to. A user thread that is terminated while it waits leaves at once, and its stack and its buffers go with it; the
// dedicated thread can be ended only where it is blocked in a system call, and until then it may still write.
//
// Whose the call is:
//   - the caller's, from its making to the return of ExecInDedicatedThread, unless the wait is cut short;
//   - nobody's when the caller is terminated first: it lies on gOrphans with the handle of its thread, and whoever
//     makes or abandons a call later frees those whose thread has ended. A thread that is ended from outside runs
//     nothing more, so it could not free the call itself.
#include <cstring>

#include "config/settings.h"
#include "dedicated/dedicated.h"
#include "diag/trace.h"
#include "platform/os_pipe.h"
#include "platform/os_process.h"
#include "sched/sched.h"
#include "sched/startup.h"

namespace zvx {

namespace {

constexpr DWORD kResumeFailed = 0xFFFFFFFF;
constexpr DWORD kTerminatedUnstarted = 0;
constexpr size_t kDomainIdBytes = 16;

struct DedicatedCall {
    DedicatedRequest Request;        // its pointers lead into this block; the dedicated thread's until it has ended
    DedicatedRequest *Caller;        // what the user thread asked for, with its own pointers
    std::atomic<uint32_t> Finished;  // the dedicated thread has stored its results (release)
    DedicatedCall *NextOrphan;       // [gOrphanLock]
    HANDLE Thread;                   // [gOrphanLock] of an orphan
    alignas(16) char Data[];
};

SpinLock gOrphanLock;
DedicatedCall *gOrphans;  // [gOrphanLock]

using DsGetDcNameFunc = DWORD (*)(const char *, const char *, const void *, const char *, DWORD, void **);

// Through a pointer without a type, which no compiler takes for a mistake.
DsGetDcNameFunc SystemsDsGetDcName() {
    return reinterpret_cast<DsGetDcNameFunc>(reinterpret_cast<void *>(gDsGetDcNameA));
}

bool ValidOpcode(uint32_t opcode) {
    return opcode >= kDedicatedReadConsole && opcode <= kDedicatedGetDcName;
}

uint32_t PresetResult(uint32_t opcode) {
    switch (opcode) {
        case kDedicatedWaitInputIdle: return WAIT_FAILED;
        case kDedicatedGetDcName: return ERROR_INVALID_DOMAINNAME;
        default: return FALSE;
    }
}

template <typename T>
T Arg(const DedicatedRequest *request, int index) {
    return reinterpret_cast<T>(request->Args[index]);
}

DWORD WordArg(const DedicatedRequest *request, int index) {
    return static_cast<DWORD>(request->Args[index]);
}

// ---- The copy ----------------------------------------------------------------------------------------

// What an argument leads to: `Bytes` of memory that the call reads, or writes, or both.
struct Buffer {
    int Index;
    size_t Bytes;
    bool Read;
    bool Written;
};

size_t TextBytes(const DedicatedRequest *request, int index) {
    const char *text = Arg<const char *>(request, index);
    return text != nullptr ? std::strlen(text) + 1 : 0;
}

// The buffers behind the request's pointers; how many. A null pointer stays null whatever its size.
int BuffersOf(const DedicatedRequest *request, Buffer (&buffers)[6]) {
    int count = 0;
    auto add = [&](int index, size_t bytes, bool read, bool written) {
        if (request->Args[index] != 0) buffers[count++] = {index, bytes, read, written};
    };
    switch (request->Opcode) {
        case kDedicatedReadConsole:
            add(1, WordArg(request, 2), false, true);
            add(3, sizeof(DWORD), false, true);
            break;
        case kDedicatedCallNamedPipe:
            add(0, TextBytes(request, 0), true, false);
            add(1, WordArg(request, 2), true, false);
            add(3, WordArg(request, 4), false, true);
            add(5, sizeof(DWORD), false, true);
            break;
        case kDedicatedGetDcName:
            add(0, TextBytes(request, 0), true, false);
            add(1, TextBytes(request, 1), true, false);
            add(2, kDomainIdBytes, true, false);
            add(3, TextBytes(request, 3), true, false);
            add(5, sizeof(void *), true, true);
            break;
        default: break;
    }
    return count;
}

constexpr size_t RoundUp(size_t bytes) {
    return (bytes + 15) & ~size_t{15};
}

// Runs guarded, because the host's pointers may lead nowhere. The call, or null without memory.
struct CopyJob {
    DedicatedRequest *Request;
    DedicatedCall *Call;
};

void CopyIn(void *arg) {
    auto *job = static_cast<CopyJob *>(arg);
    Buffer buffers[6];
    const int count = BuffersOf(job->Request, buffers);
    size_t size = 0;
    for (int i = 0; i < count; i++) size += RoundUp(buffers[i].Bytes);
    auto *call = static_cast<DedicatedCall *>(os::LocalAlloc(0x40, sizeof(DedicatedCall) + size));
    if (call == nullptr) return;
    job->Call = call;  // from here on whoever called this frees it, also after a fault
    call->Request = *job->Request;
    call->Caller = job->Request;
    char *at = call->Data;
    for (int i = 0; i < count; i++) {
        const Buffer &buffer = buffers[i];
        if (buffer.Read) std::memcpy(at, Arg<const void *>(job->Request, buffer.Index), buffer.Bytes);
        call->Request.Args[buffer.Index] = reinterpret_cast<uintptr_t>(at);
        at += RoundUp(buffer.Bytes);
    }
}

// How much of what the call wrote means anything; the rest of the caller's buffer is left as it is.
size_t WrittenBytes(const DedicatedRequest *done, const Buffer &buffer) {
    size_t bytes = buffer.Bytes;
    const bool data = (done->Opcode == kDedicatedReadConsole && buffer.Index == 1) ||
                      (done->Opcode == kDedicatedCallNamedPipe && buffer.Index == 3);
    const DWORD *moved = Arg<const DWORD *>(done, done->Opcode == kDedicatedReadConsole ? 3 : 5);
    if (data && moved != nullptr && *moved < bytes) bytes = *moved;
    return bytes;
}

void CopyOut(void *arg) {
    auto *call = static_cast<DedicatedCall *>(arg);
    Buffer buffers[6];
    const int count = BuffersOf(call->Caller, buffers);
    for (int i = 0; i < count; i++) {
        const Buffer &buffer = buffers[i];
        if (buffer.Written)
            std::memcpy(Arg<void *>(call->Caller, buffer.Index), Arg<const void *>(&call->Request, buffer.Index),
                        WrittenBytes(&call->Request, buffer));
    }
}

void ReportFault(DedicatedRequest *request) {
    request->LastError = ERROR_INVALID_PARAMETER;
    request->Result = PresetResult(request->Opcode);
}

// ---- On the dedicated thread -------------------------------------------------------------------------

void MakeCall(void *arg) {
    auto *request = static_cast<DedicatedRequest *>(arg);
    switch (request->Opcode) {
        case kDedicatedReadConsole:
            request->Result = static_cast<uint32_t>(os::ReadConsoleA(Arg<HANDLE>(request, 0), Arg<void *>(request, 1),
                                                                     WordArg(request, 2), Arg<DWORD *>(request, 3),
                                                                     Arg<void *>(request, 4)));
            break;
        case kDedicatedCallNamedPipe:
            request->Result = static_cast<uint32_t>(os::CallNamedPipeA(
                Arg<const char *>(request, 0), Arg<void *>(request, 1), WordArg(request, 2), Arg<void *>(request, 3),
                WordArg(request, 4), Arg<DWORD *>(request, 5), WordArg(request, 6)));
            break;
        case kDedicatedWaitInputIdle:
            request->Result = os::WaitForInputIdle(Arg<HANDLE>(request, 0), WordArg(request, 1));
            break;
        case kDedicatedGetDcName:
            request->Result = SystemsDsGetDcName()(Arg<const char *>(request, 0), Arg<const char *>(request, 1),
                                                   Arg<const void *>(request, 2), Arg<const char *>(request, 3),
                                                   WordArg(request, 4), Arg<void **>(request, 5));
            break;
        default: break;
    }
    request->LastError = os::GetLastError();
}

DWORD DedicatedThreadStartRoutine(void *param) {
    auto *call = static_cast<DedicatedCall *>(param);
    DedicatedRequest *request = &call->Request;
    if (!ValidOpcode(request->Opcode)) FatalExit("DedicatedThreadStartRoutine, Invalid Opcode %u", request->Opcode);
    request->Result = PresetResult(request->Opcode);
    if (!os::CallGuarded(MakeCall, request)) ReportFault(request);
    call->Finished.store(1, std::memory_order_release);
    return 0;
}

// ---- On the user thread ------------------------------------------------------------------------------

void FreeEndedOrphans() {
    DedicatedCall *ended = nullptr;
    {
        SpinGuard guard(&gOrphanLock);
        for (DedicatedCall **link = &gOrphans; *link != nullptr;) {
            DedicatedCall *call = *link;
            // A handle that the host closed under us tells nothing, so such a call is kept.
            if (os::WaitForSingleObject(call->Thread, 0) != WAIT_OBJECT_0) {
                link = &call->NextOrphan;
                continue;
            }
            *link = call->NextOrphan;
            call->NextOrphan = ended;
            ended = call;
        }
    }
    while (ended != nullptr) {
        DedicatedCall *call = ended;
        ended = call->NextOrphan;
        os::CloseHandle(call->Thread);
        os::LocalFree(call);
    }
}

// The caller is gone or has given up; the thread may still be at work on the call.
void Abandon(DedicatedCall *call, HANDLE thread) {
    call->Thread = thread;
    {
        SpinGuard guard(&gOrphanLock);
        call->NextOrphan = gOrphans;
        gOrphans = call;
    }
    FreeEndedOrphans();
}

// Slot: the thread's handle, the call. An injected routine leaves the dedicated thread at its work.
void TerminateDedicatedThread(Fiber *F, Scheduler *, uintptr_t *args, uint32_t code) {
    if (code != 1) return;
    const HANDLE thread = reinterpret_cast<HANDLE>(args[0]);
    os::TerminateThread(thread, F->ExitCode);
    Abandon(reinterpret_cast<DedicatedCall *>(args[1]), thread);
}

// Whether the dedicated thread has ended; its exit code, or the error that hides it.
bool ExecInDedicatedThreadCT(Fiber *, uintptr_t codeOut, uintptr_t thread, uintptr_t request, uintptr_t, uintptr_t) {
    const uint32_t opcode = reinterpret_cast<const DedicatedRequest *>(request)->Opcode;
    if (!ValidOpcode(opcode)) FatalExit("ExecInDedicatedThreadCT, Invalid Opcode %u", opcode);
    auto *code = reinterpret_cast<DWORD *>(codeOut);
    if (os::GetExitCodeThread(reinterpret_cast<HANDLE>(thread), code)) return *code != STILL_ACTIVE;
    *code = os::GetLastError();
    if (*code == ERROR_INVALID_HANDLE) *code = 0;
    return true;
}

// A running thread for the call, or null with the last error set.
HANDLE StartDedicatedThread(DedicatedCall *call) {
    DWORD threadId = 0;
    const HANDLE thread =
        os::CreateThread(nullptr, gStackSize, DedicatedThreadStartRoutine, call, CREATE_SUSPENDED, &threadId);
    if (thread == nullptr || thread == INVALID_HANDLE_VALUE) return nullptr;
    SetSchedThreadAffinityAndPriority(thread, nullptr, false, THREAD_PRIORITY_ABOVE_NORMAL, threadId, true);
    if (os::ResumeThread(thread) != kResumeFailed) return thread;
    // A thread that is ended before it was resumed never enters its routine, so the call stays ours.
    const DWORD error = os::GetLastError();
    os::TerminateThread(thread, kTerminatedUnstarted);
    os::CloseHandle(thread);
    os::SetLastError(error);
    return nullptr;
}

// The thread has ended: hands its results to the caller and lets go of both.
void TakeResults(DedicatedCall *call, HANDLE thread) {
    DedicatedRequest *request = call->Caller;
    if (call->Finished.load(std::memory_order_acquire) == 0) {
        // Ended by somebody else, or its handle was closed under us and nobody knows whether it still runs.
        request->Result = PresetResult(request->Opcode);
        Abandon(call, thread);
        return;
    }
    request->LastError = call->Request.LastError;
    request->Result = call->Request.Result;
    if (!os::CallGuarded(CopyOut, call)) ReportFault(request);
    os::CloseHandle(thread);
    os::LocalFree(call);
}

}  // namespace

bool ExecInDedicatedThread(Fiber *F, DedicatedRequest *request) {
    request->LastError = 0;
    FreeEndedOrphans();
    CopyJob job{request, nullptr};
    if (!os::CallGuarded(CopyIn, &job)) {
        // The call would have faulted on the same pointer.
        os::LocalFree(job.Call);
        ReportFault(request);
        return true;
    }
    if (job.Call == nullptr) {
        os::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    DedicatedCall *call = job.Call;
    const HANDLE thread = StartDedicatedThread(call);
    if (thread == nullptr) {
        const DWORD error = os::GetLastError();
        os::LocalFree(call);
        os::SetLastError(error);
        return false;
    }
    DWORD code = STILL_ACTIVE;
    F->WaitTimeoutMs = INFINITE;
    uintptr_t *slot = F->TermCleanup.Args[TermCleanupFuncSet(F, TerminateDedicatedThread)];
    slot[0] = reinterpret_cast<uintptr_t>(thread);
    slot[1] = reinterpret_cast<uintptr_t>(call);
    WaitWithPolling(F, ExecInDedicatedThreadCT, reinterpret_cast<uintptr_t>(&code), reinterpret_cast<uintptr_t>(thread),
                    reinterpret_cast<uintptr_t>(request));
    TermCleanupFuncRemove(F, TerminateDedicatedThread);
    TakeResults(call, thread);
    if (code == 0) return true;
    os::SetLastError(code);
    return false;
}

uint32_t OrphanedCalls() {
    SpinGuard guard(&gOrphanLock);
    uint32_t count = 0;
    for (const DedicatedCall *call = gOrphans; call != nullptr; call = call->NextOrphan) count++;
    return count;
}

// ---- Exported ----------------------------------------------------------------------------------------

BOOL ReadConsoleA(HANDLE console, void *buffer, DWORD characters, DWORD *read, void *reserved) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::ReadConsoleA(console, buffer, characters, read, reserved);
    DedicatedRequest request{kDedicatedReadConsole,
                             0,
                             {reinterpret_cast<uintptr_t>(console), reinterpret_cast<uintptr_t>(buffer), characters,
                              reinterpret_cast<uintptr_t>(read), reinterpret_cast<uintptr_t>(reserved)},
                             0};
    if (!ExecInDedicatedThread(F, &request)) return FALSE;
    os::SetLastError(request.LastError);
    return static_cast<BOOL>(request.Result);
}

BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::CallNamedPipeA(name, in, inBytes, out, outBytes, read, ms);
    DedicatedRequest request{kDedicatedCallNamedPipe,
                             0,
                             {reinterpret_cast<uintptr_t>(name), reinterpret_cast<uintptr_t>(in), inBytes,
                              reinterpret_cast<uintptr_t>(out), outBytes, reinterpret_cast<uintptr_t>(read), ms},
                             0};
    if (!ExecInDedicatedThread(F, &request)) return FALSE;
    os::SetLastError(request.LastError);
    return static_cast<BOOL>(request.Result);
}

DWORD WaitForInputIdle(HANDLE process, DWORD ms) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WaitForInputIdle(process, ms);
    DedicatedRequest request{kDedicatedWaitInputIdle, 0, {reinterpret_cast<uintptr_t>(process), ms}, 0};
    if (!ExecInDedicatedThread(F, &request)) return WAIT_FAILED;
    os::SetLastError(request.LastError);
    return request.Result;
}

DWORD FiberDsGetDcNameA(const char *computer, const char *domain, const void *domainId, const char *site, DWORD flags,
                        void **result) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return SystemsDsGetDcName()(computer, domain, domainId, site, flags, result);
    DedicatedRequest request{kDedicatedGetDcName,
                             0,
                             {reinterpret_cast<uintptr_t>(computer), reinterpret_cast<uintptr_t>(domain),
                              reinterpret_cast<uintptr_t>(domainId), reinterpret_cast<uintptr_t>(site), flags,
                              reinterpret_cast<uintptr_t>(result)},
                             0};
    if (!ExecInDedicatedThread(F, &request)) return ERROR_NOT_ENOUGH_MEMORY;
    os::SetLastError(request.LastError);
    return request.Result;
}

FARPROC GetProcAddress(HMODULE module, const char *name) {
    const FARPROC found = os::GetProcAddress(module, name);
    if (reinterpret_cast<uintptr_t>(name) < 0x10000 || CallingFiber() == nullptr || gDsGetDcNameA == nullptr)
        return found;
    // Whatever the module: a host gets the form that does not stop its scheduler.
    if (std::strcmp(name, "DsGetDcNameA") == 0)
        return reinterpret_cast<FARPROC>(reinterpret_cast<void *>(FiberDsGetDcNameA));
    return found;
}

}  // namespace zvx
