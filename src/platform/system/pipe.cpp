// platform/system/pipe.cpp - the ends of named pipes: making, connecting, reading and writing, closing.
//
// Runs on any thread; MoveConnect also on the engines' owners. A thread with an engine issues its overlapped operations
// there, a thread without one gives them to the service engine, and on a handle that is not overlapped the calling
// thread waits in poll. State and channel of an end change under its lock, which is held over system calls that do not
// block, and over those of pipe_names.cpp when an instance begins to listen, or ends.
#include "platform/system/pipe.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/object_pool.h"
#include "platform/base/text.h"

namespace os {

namespace {

constexpr uint16_t kDaclPresent = 0x4;
constexpr DWORD kDefaultWaitMs = 50;
constexpr DWORD kReadAccess = GENERIC_READ | GENERIC_ALL | 0x1u;
constexpr DWORD kWriteAccess = GENERIC_WRITE | GENERIC_ALL | 0x2u | 0x4u;

void PipeHandlesGone(Object *object);
void PipeDestroy(Object *object);
BOOL TransferPipe(IoObject *object, IoCall *call, DWORD *done);

const ObjectOps kPipeOps{PipeHandlesGone, PipeDestroy, nullptr, nullptr};
const TransferOps kPipeTransfers{TransferPipe};
ObjectPool<PipeObject> gPipePool(ObjectType::kPipe, &kPipeOps);

// [pipe] Ends what the end has: wakes whoever uses it, and lets go of it.
void LeaveChannelLocked(PipeObject *pipe) {
    PipeChannel *channel = pipe->Channel;
    pipe->Channel = nullptr;
    pipe->State = PipeState::kDisconnected;
    if (channel == nullptr) return;
    syscall(SYS_shutdown, channel->Fd, SHUT_RDWR);
    UnrefObject(channel);
}

void PipeHandlesGone(Object *object) {
    PipeObject *pipe = static_cast<PipeObject *>(object);
    CancelObject(pipe);
    InnerGuard guard(&pipe->Lock);
    LeaveChannelLocked(pipe);
    ReleaseInstance(&pipe->Lease);
}

void PipeDestroy(Object *object) {
    PipeObject *pipe = static_cast<PipeObject *>(object);
    // One that never had a handle.
    if (pipe->Channel != nullptr) UnrefObject(pipe->Channel);
    pipe->Channel = nullptr;
    ReleaseInstance(&pipe->Lease);
    EndIoObject(pipe);
    FreeObject(&gPipePool, pipe);
}

PipeObject *NewPipe(bool overlapped, bool canRead, bool canWrite, bool messages) {
    PipeObject *pipe = AllocObject(&gPipePool);
    if (pipe == nullptr) return nullptr;
    InitIoObject(pipe, -1);
    pipe->Transfers = &kPipeTransfers;
    pipe->Server = false;
    pipe->Overlapped = overlapped;
    pipe->CanRead = canRead;
    pipe->CanWrite = canWrite;
    pipe->Messages = messages;
    pipe->ReadMessages.store(false, std::memory_order_relaxed);
    pipe->State = PipeState::kDisconnected;
    pipe->Connecting = false;
    pipe->Channel = nullptr;
    pipe->Lease = PipeLease{};
    return pipe;
}

HANDLE FailHandle(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

BOOL Report(DWORD error) {
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

// Gives the complete object its handle, or drops it.
HANDLE Publish(PipeObject *pipe, DWORD error) {
    const HANDLE handle = error == ERROR_SUCCESS ? NewHandle(pipe) : nullptr;
    if (handle != nullptr) return handle;
    if (error == ERROR_SUCCESS) error = GetLastError();
    UnrefObject(pipe);
    return FailHandle(error);
}

// The end behind a handle, with a reference; null with ERROR_INVALID_HANDLE.
PipeObject *RefPipe(HANDLE handle) {
    return static_cast<PipeObject *>(RefHandle(handle, ObjectType::kPipe));
}

// A descriptor whose access list is there and null: everybody.
bool IsForEverybody(const SECURITY_ATTRIBUTES *security) {
    if (security == nullptr || security->lpSecurityDescriptor == nullptr) return false;
    uint16_t control;
    memcpy(&control, static_cast<const char *>(security->lpSecurityDescriptor) + 2, sizeof control);
    return (control & kDaclPresent) != 0;
}

// [pipe] Takes the client that waits at the listening socket. 0, or the reason.
DWORD AcceptLocked(PipeObject *pipe) {
    PipeChannel *listener = pipe->Channel;
    // Nobody else gets in from here on: the instance has one client.
    syscall(SYS_shutdown, listener->Fd, SHUT_RD);
    int fd;
    do fd = static_cast<int>(syscall(SYS_accept4, listener->Fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return ErrorOfErrno(errno);
    PipeChannel *channel = NewChannel(fd, pipe->Messages);
    StopListening(pipe->Lease);
    if (channel == nullptr) {
        LeaveChannelLocked(pipe);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    pipe->Channel = channel;
    pipe->State = PipeState::kConnected;
    UnrefObject(listener);
    return ERROR_SUCCESS;
}

// [pipe] A client may have come although nobody waits for one. 0 when the end is connected, else the reason.
DWORD NeedClientLocked(PipeObject *pipe) {
    if (pipe->State == PipeState::kListening && !pipe->Connecting && ClientWaits(pipe->Channel)) {
        const DWORD error = AcceptLocked(pipe);
        if (error != ERROR_SUCCESS) return error;
    }
    return pipe->State == PipeState::kConnected   ? ERROR_SUCCESS
           : pipe->State == PipeState::kListening ? ERROR_PIPE_LISTENING
                                                  : ERROR_PIPE_NOT_CONNECTED;
}

// A reference on the connection's channel; null with *error.
PipeChannel *RefChannel(PipeObject *pipe, DWORD *error) {
    InnerGuard guard(&pipe->Lock);
    *error = NeedClientLocked(pipe);
    if (*error != ERROR_SUCCESS) return nullptr;
    RefObject(pipe->Channel);
    return pipe->Channel;
}

// A status of an operation whose handle was closed meanwhile.
DWORD StatusIfClosed(const IoObject *pipe, DWORD status) {
    const bool closed = pipe->Handles.load(std::memory_order_seq_cst) == 0;
    return closed && IsFailure(status) && status != STATUS_BUFFER_OVERFLOW ? STATUS_CANCELLED : status;
}

// Makes the call on the calling thread until it is final; the status.
DWORD RunPipeCall(IoCall *call) {
    DWORD status;
    while (!MovePipe(call, &status)) WaitForChannel(static_cast<PipeChannel *>(call->Channel), call->Kind);
    return status;
}

BOOL FinishSynchronous(IoCall *call, DWORD *done) {
    if (call->Ov != nullptr) StoreStatus(call->Ov, STATUS_PENDING);
    const DWORD status = RunPipeCall(call);
    if (done != nullptr) *done = call->Done;
    if (call->Ov != nullptr) {
        if (IsFailure(status)) return FailAtOnce(call, status);
        FinishAtOnce(CurrentEngine(), call);
        return TRUE;
    }
    DropCall(call);
    return Report(ErrorOfStatus(status));
}

BOOL IssuePipeCall(IoCall *call, DWORD *done) {
    ThreadBlock *block = CurrentThreadBlock();
    // Routines always by the service: a thread that sleeps alertably does not look at its own engine.
    Engine *engine = call->Routine != nullptr ? nullptr : EngineOf(block->Io);
    call->ThreadId = block->ThreadId;
    if (engine != nullptr && block->InlineBudget == 0) {
        // This one makes the user thread wait, so that others run; then it may go on. Not where it would wait for the
        // socket to report what was taken from it already.
        block->InlineBudget = kInlineIoBudget;
        call->Later = static_cast<PipeChannel *>(call->Channel)->EarlyBytes.load(std::memory_order_relaxed) == 0;
    }
    const BOOL result = IssueCall(engine, call);
    if (result && engine != nullptr && block->InlineBudget != 0) block->InlineBudget--;
    if (done != nullptr && (result || GetLastError() == ERROR_MORE_DATA)) *done = call->Done;
    return result;
}

BOOL Refuse(IoCall *call, DWORD error) {
    DropCall(call);
    return Report(error);
}

// ReadFile and WriteFile, with and without routines.
BOOL TransferPipe(IoObject *object, IoCall *call, DWORD *done) {
    PipeObject *pipe = static_cast<PipeObject *>(object);
    const bool read = call->Kind == RequestKind::kRead;
    if (!(read ? pipe->CanRead : pipe->CanWrite)) return Refuse(call, ERROR_ACCESS_DENIED);
    if ((call->Ov == nullptr && pipe->Overlapped) || (call->Routine != nullptr && !pipe->Overlapped))
        return Refuse(call, ERROR_INVALID_PARAMETER);
    DWORD error;
    PipeChannel *channel = RefChannel(pipe, &error);
    if (channel == nullptr) return Refuse(call, error);
    call->Channel = channel;
    call->Kind = read ? RequestKind::kPipeRead : RequestKind::kPipeWrite;
    call->Offset = 0;
    call->MsgFlags = pipe->ReadMessages.load(std::memory_order_relaxed) ? 1 : 0;
    if (call->Ov != nullptr && call->Routine == nullptr && !TakeEvent(call)) return Refuse(call, ERROR_INVALID_HANDLE);
    return pipe->Overlapped ? IssuePipeCall(call, done) : FinishSynchronous(call, done);
}

DWORD CheckModes(DWORD openMode, DWORD pipeMode, DWORD maxInstances) {
    constexpr DWORD kKnown = PIPE_NOWAIT | PIPE_READMODE_MESSAGE | PIPE_TYPE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS;
    if ((openMode & PIPE_ACCESS_DUPLEX) == 0 || (pipeMode & ~kKnown) != 0) return ERROR_INVALID_PARAMETER;
    if (maxInstances == 0 || maxInstances > PIPE_UNLIMITED_INSTANCES) return ERROR_INVALID_PARAMETER;
    if ((pipeMode & PIPE_READMODE_MESSAGE) != 0 && (pipeMode & PIPE_TYPE_MESSAGE) == 0) return ERROR_INVALID_PARAMETER;
    return (pipeMode & PIPE_NOWAIT) != 0 ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS;
}

// [pipe] Begins to listen; for a fresh instance on the socket that its claim made.
DWORD ListenLocked(PipeObject *pipe, int listener) {
    pipe->Channel = NewChannel(listener, pipe->Messages);
    if (pipe->Channel == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    pipe->State = PipeState::kListening;
    return ERROR_SUCCESS;
}

HANDLE CreatePipe(const char *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD defaultMs,
                  const SECURITY_ATTRIBUTES *security) {
    PipeName parsed;
    DWORD error = ParsePipeName(name, &parsed);
    if (error == ERROR_SUCCESS) error = CheckModes(openMode, pipeMode, maxInstances);
    if (error != ERROR_SUCCESS) return FailHandle(error);
    const PipeTraits traits{openMode & PIPE_ACCESS_DUPLEX, (pipeMode & PIPE_TYPE_MESSAGE) != 0 ? 1u : 0u, maxInstances,
                            defaultMs == 0 ? kDefaultWaitMs : defaultMs};
    PipeObject *pipe = NewPipe((openMode & FILE_FLAG_OVERLAPPED) != 0, (traits.Access & PIPE_ACCESS_INBOUND) != 0,
                               (traits.Access & PIPE_ACCESS_OUTBOUND) != 0, traits.Messages != 0);
    if (pipe == nullptr) return INVALID_HANDLE_VALUE;
    pipe->Server = true;
    pipe->ReadMessages.store((pipeMode & PIPE_READMODE_MESSAGE) != 0, std::memory_order_relaxed);
    int listener = -1;
    error = ClaimInstance(parsed, traits, (openMode & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0, IsForEverybody(security),
                          &pipe->Lease, &listener);
    // No handle yet, so no lock is needed.
    if (error == ERROR_SUCCESS) error = ListenLocked(pipe, listener);
    return Publish(pipe, error);
}

// Makes the end ready for an operation that waits for a client, whose channel is *channel then; else the error.
DWORD BeginConnect(PipeObject *pipe, PipeChannel **channel) {
    if (!pipe->Server) return ERROR_INVALID_FUNCTION;
    InnerGuard guard(&pipe->Lock);
    if (pipe->Connecting) return ERROR_PIPE_LISTENING;
    DWORD error = NeedClientLocked(pipe);
    if (error == ERROR_SUCCESS) return OtherEndGone(pipe->Channel) ? ERROR_NO_DATA : ERROR_PIPE_CONNECTED;
    if (pipe->State == PipeState::kDisconnected) {
        // One whose last handle was closed has no place any more.
        int listener;
        error = pipe->Lease.Fd < 0 ? ERROR_INVALID_HANDLE : ListenAgain(pipe->Lease, &listener);
        if (error == ERROR_SUCCESS) error = ListenLocked(pipe, listener);
        if (error != ERROR_SUCCESS) return error;
    } else if (error != ERROR_PIPE_LISTENING) {
        return error;
    }
    pipe->Connecting = true;
    RefObject(pipe->Channel);
    *channel = pipe->Channel;
    return ERROR_SUCCESS;
}

// A wide name in the kernel's encoding, for the calls that take one.
struct NarrowName {
    explicit NarrowName(const WCHAR *wide) : Text(NarrowCopy(wide)) {}
    ~NarrowName() { free(Text); }
    NarrowName(const NarrowName &) = delete;
    NarrowName &operator=(const NarrowName &) = delete;
    char *const Text;
};

}  // namespace

bool MoveConnect(IoCall *call, DWORD *status) {
    PipeObject *pipe = static_cast<PipeObject *>(call->Target);
    PipeChannel *listener = static_cast<PipeChannel *>(call->Channel);
    if (!ClientWaits(listener)) return false;
    InnerGuard guard(&pipe->Lock);
    // The end may have been disconnected or closed, which wakes this operation too.
    const DWORD error = pipe->Channel == listener ? AcceptLocked(pipe) : ERROR_PIPE_NOT_CONNECTED;
    *status = StatusIfClosed(pipe, StatusOfError(error));
    return true;
}

HANDLE OpenPipe(const char *name, DWORD access, DWORD flags) {
    PipeName parsed;
    const bool canRead = (access & kReadAccess) != 0, canWrite = (access & kWriteAccess) != 0;
    DWORD error = ParsePipeName(name, &parsed);
    int fd = -1;
    PipeTraits traits;
    if (error == ERROR_SUCCESS) error = ConnectToInstance(parsed, canRead, canWrite, &fd, &traits);
    if (error != ERROR_SUCCESS) return FailHandle(error);
    PipeChannel *channel = NewChannel(fd, traits.Messages != 0);
    PipeObject *pipe = channel == nullptr
                           ? nullptr
                           : NewPipe((flags & FILE_FLAG_OVERLAPPED) != 0, canRead, canWrite, traits.Messages != 0);
    if (pipe == nullptr) {
        if (channel != nullptr) UnrefObject(channel);
        return INVALID_HANDLE_VALUE;
    }
    pipe->Channel = channel;
    pipe->State = PipeState::kConnected;
    return Publish(pipe, ERROR_SUCCESS);
}

bool FlushPipe(HANDLE handle) {
    // What was written stays readable whatever happens to the writer, so there is nothing to wait for.
    const Object *object = PeekHandle(handle);
    return object != nullptr && object->Type == ObjectType::kPipe;
}

HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security) {
    static_cast<void>(outBytes);
    static_cast<void>(inBytes);
    if (ShouldFail("CreateNamedPipeA")) return INVALID_HANDLE_VALUE;
    return CreatePipe(name, openMode, pipeMode, maxInstances, defaultMs, security);
}

HANDLE CreateNamedPipeW(const WCHAR *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security) {
    static_cast<void>(outBytes);
    static_cast<void>(inBytes);
    if (ShouldFail("CreateNamedPipeW")) return INVALID_HANDLE_VALUE;
    const NarrowName narrow(name);
    if (name != nullptr && narrow.Text == nullptr) return INVALID_HANDLE_VALUE;
    return CreatePipe(narrow.Text, openMode, pipeMode, maxInstances, defaultMs, security);
}

BOOL ConnectNamedPipe(HANDLE handle, OVERLAPPED *overlapped, IoOp *op) {
    if (ShouldFail("ConnectNamedPipe")) return FALSE;
    PipeObject *pipe = RefPipe(handle);
    if (pipe == nullptr) return FALSE;
    IoCall call;
    call.Target = pipe;
    call.Ov = overlapped;
    call.Op = op;
    call.Kind = RequestKind::kPipeConnect;
    if (overlapped == nullptr && pipe->Overlapped) return Refuse(&call, ERROR_INVALID_PARAMETER);
    PipeChannel *channel = nullptr;
    const DWORD error = BeginConnect(pipe, &channel);
    if (error != ERROR_SUCCESS) return Refuse(&call, error);
    call.Channel = channel;
    if (overlapped != nullptr && !TakeEvent(&call)) return Refuse(&call, ERROR_INVALID_HANDLE);
    return pipe->Overlapped ? IssuePipeCall(&call, nullptr) : FinishSynchronous(&call, nullptr);
}

BOOL DisconnectNamedPipe(HANDLE handle) {
    if (ShouldFail("DisconnectNamedPipe")) return FALSE;
    PipeObject *pipe = RefPipe(handle);
    if (pipe == nullptr) return FALSE;
    DWORD error = pipe->Server ? ERROR_SUCCESS : ERROR_INVALID_FUNCTION;
    if (error == ERROR_SUCCESS) {
        InnerGuard guard(&pipe->Lock);
        if (pipe->Channel == nullptr) {
            error = ERROR_PIPE_NOT_CONNECTED;
        } else {
            // A client that has come unseen goes with the listening socket.
            if (pipe->State == PipeState::kListening) StopListening(pipe->Lease);
            pipe->Channel->Cut.store(true, std::memory_order_release);
            LeaveChannelLocked(pipe);
        }
    }
    UnrefObject(pipe);
    return Report(error);
}

BOOL SetNamedPipeHandleState(HANDLE handle, DWORD *mode, DWORD *maxCollection, DWORD *collectMs) {
    if (ShouldFail("SetNamedPipeHandleState")) return FALSE;
    if (maxCollection != nullptr || collectMs != nullptr) return Report(ERROR_INVALID_PARAMETER);
    PipeObject *pipe = RefPipe(handle);
    if (pipe == nullptr) return FALSE;
    DWORD error = ERROR_SUCCESS;
    if (mode == nullptr) {
        // Nothing is to change.
    } else if ((*mode & ~(PIPE_NOWAIT | PIPE_READMODE_MESSAGE)) != 0 ||
               ((*mode & PIPE_READMODE_MESSAGE) != 0 && !pipe->Messages)) {
        error = ERROR_INVALID_PARAMETER;
    } else if ((*mode & PIPE_NOWAIT) != 0) {
        error = ERROR_NOT_SUPPORTED;
    } else {
        pipe->ReadMessages.store((*mode & PIPE_READMODE_MESSAGE) != 0, std::memory_order_relaxed);
    }
    UnrefObject(pipe);
    return Report(error);
}

BOOL PeekNamedPipe(HANDLE handle, void *buffer, DWORD bytes, DWORD *read, DWORD *available, DWORD *left) {
    if (ShouldFail("PeekNamedPipe")) return FALSE;
    PipeObject *pipe = RefPipe(handle);
    if (pipe == nullptr) return FALSE;
    DWORD error = ERROR_ACCESS_DENIED, counts[3] = {};
    PipeChannel *channel = pipe->CanRead ? RefChannel(pipe, &error) : nullptr;
    if (channel != nullptr) {
        const bool messages = pipe->ReadMessages.load(std::memory_order_relaxed);
        error = ErrorOfStatus(PeekChannel(channel, messages, static_cast<char *>(buffer), buffer == nullptr ? 0 : bytes,
                                          &counts[0], &counts[1], &counts[2]));
        UnrefObject(channel);
    }
    UnrefObject(pipe);
    if (read != nullptr) *read = counts[0];
    if (available != nullptr) *available = counts[1];
    if (left != nullptr) *left = counts[2];
    return Report(error);
}

BOOL TransactNamedPipe(HANDLE handle, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read,
                       OVERLAPPED *overlapped) {
    if (ShouldFail("TransactNamedPipe")) return FALSE;
    if (read != nullptr) *read = 0;
    PipeObject *pipe = RefPipe(handle);
    if (pipe == nullptr) return FALSE;
    IoCall call;
    call.Target = pipe;
    call.Buffer = static_cast<char *>(in);
    call.Count = inBytes;
    call.Kind = RequestKind::kPipeWrite;
    if (!pipe->CanRead || !pipe->CanWrite) return Refuse(&call, ERROR_ACCESS_DENIED);
    if (!pipe->ReadMessages.load(std::memory_order_relaxed)) return Refuse(&call, ERROR_BAD_PIPE);
    if (overlapped == nullptr && pipe->Overlapped) return Refuse(&call, ERROR_INVALID_PARAMETER);
    DWORD error;
    call.Channel = RefChannel(pipe, &error);
    if (call.Channel == nullptr) return Refuse(&call, error);
    if (!FinishSynchronous(&call, nullptr)) return FALSE;
    return ReadFile(handle, out, outBytes, read, overlapped);
}

BOOL WaitNamedPipeW(const WCHAR *name, DWORD ms) {
    if (ShouldFail("WaitNamedPipeW")) return FALSE;
    const NarrowName narrow(name);
    if (name != nullptr && narrow.Text == nullptr) return FALSE;
    return WaitNamedPipeA(narrow.Text, ms);
}

BOOL CallNamedPipeW(const WCHAR *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms) {
    if (ShouldFail("CallNamedPipeW")) return FALSE;
    *read = 0;
    const NarrowName narrow(name);
    if (name != nullptr && narrow.Text == nullptr) return FALSE;
    return CallNamedPipeA(narrow.Text, in, inBytes, out, outBytes, read, ms);
}

}  // namespace os
