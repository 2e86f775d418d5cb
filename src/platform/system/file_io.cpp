// platform/system/file_io.cpp - ReadFile, WriteFile and what becomes of their operations.
//
// Runs on any thread. A thread with an engine issues on it; a thread without one calls the kernel directly where the
// handle is synchronous or the answer is in the page cache, and gives the rest to the service engine. The way of a
// cached read takes a reference, makes one system call and drops the reference: no lock, no allocation, no request.
#include <errno.h>
#include <linux/futex.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "platform/system/file.h"

namespace os {

namespace {

inline bool HasTransfers(ObjectType type) {
    return type == ObjectType::kFile || type == ObjectType::kPipe || type == ObjectType::kSocket;
}

inline uint64_t OffsetOf(const OVERLAPPED *overlapped) {
    return static_cast<uint64_t>(overlapped->OffsetHigh) << 32 | overlapped->Offset;
}

// Puts the caller's offset into the call. All ones mean the end of the file, for writes.
bool TakeOffset(IoCall *call) {
    call->Offset = OffsetOf(call->Ov);
    if (call->Offset == UINT64_MAX && call->Kind == RequestKind::kWrite) {
        call->Append = true;
        call->Offset = 0;
    }
    return call->Offset <= INT64_MAX;
}

enum class Now { kPending, kDone, kFailed };

// Tries the transfer without blocking. What was moved counts, even if the rest must wait.
Now TryNow(FileObject *file, IoCall *call, DWORD *status) {
    const bool read = call->Kind == RequestKind::kRead;
    std::atomic<bool> &allowed = read ? file->NowaitRead : file->NowaitWrite;
    if (!allowed.load(std::memory_order_relaxed)) return Now::kPending;
    const int flags = RWF_NOWAIT | (call->Append ? RWF_APPEND : 0);
    for (;;) {
        iovec part{call->Buffer + call->Done, call->Count - call->Done};
        const off_t offset = static_cast<off_t>(call->Offset + call->Done);
        const ssize_t moved =
            read ? preadv2(file->Fd, &part, 1, offset, flags) : pwritev2(file->Fd, &part, 1, offset, flags);
        if (moved < 0) {
            if (errno == EAGAIN) return Now::kPending;
            if (errno == EOPNOTSUPP) {
                // Some file systems (tmpfs among them) cannot tell; they are not asked again.
                allowed.store(false, std::memory_order_relaxed);
                return Now::kPending;
            }
        }
        // A short piece goes on: either the end comes next, or the rest is not in the cache.
        if (AccountTransfer(call, moved < 0 ? -errno : moved, false, status))
            return IsFailure(*status) ? Now::kFailed : Now::kDone;
    }
}

// A transfer on a handle that was opened for synchronous use: blocks, and moves the position.
DWORD TransferAndMove(FileObject *file, IoCall *call) {
    if (!file->Seekable) return RunBlocking(call, nullptr);
    std::lock_guard<std::mutex> guard(file->PositionLock);
    if (call->Ov == nullptr) call->Offset = file->Position.load(std::memory_order_relaxed);
    const DWORD status = RunBlocking(call, nullptr);
    uint64_t position = call->Offset + call->Done;
    struct stat info;
    if (call->Append && fstat(file->Fd, &info) == 0) position = static_cast<uint64_t>(info.st_size);
    if (!IsFailure(status)) file->Position.store(position, std::memory_order_relaxed);
    return status;
}

BOOL TransferSynchronous(FileObject *file, Engine *engine, IoCall *call, DWORD *done) {
    if (call->Ov != nullptr) StoreStatus(call->Ov, STATUS_PENDING);
    DWORD status = TransferAndMove(file, call);
    // The end of the data is an empty answer to somebody who reads along, and an error at a given offset.
    if (status == STATUS_END_OF_FILE && call->Ov == nullptr) status = STATUS_SUCCESS;
    if (done != nullptr) *done = call->Done;
    if (call->Ov != nullptr) {
        if (IsFailure(status)) return FailAtOnce(call, status);
        FinishAtOnce(engine, call);
        return TRUE;
    }
    DropCall(call);
    if (!IsFailure(status)) return TRUE;
    SetLastError(ErrorOfStatus(status));
    return FALSE;
}

BOOL Refuse(IoCall *call, DWORD error) {
    DropCall(call);
    SetLastError(error);
    return FALSE;
}

BOOL TransferFile(FileObject *file, IoCall *call, DWORD *done) {
    const bool read = call->Kind == RequestKind::kRead;
    if (!(read ? file->CanRead : file->CanWrite)) return Refuse(call, ERROR_ACCESS_DENIED);
    if (call->Ov == nullptr && file->Overlapped) return Refuse(call, ERROR_INVALID_PARAMETER);
    if (call->Ov != nullptr) {
        if (!TakeOffset(call)) return Refuse(call, ERROR_INVALID_PARAMETER);
        if (!TakeEvent(call)) return Refuse(call, ERROR_INVALID_HANDLE);
    }
    ThreadBlock *block = CurrentThreadBlock();
    Engine *engine = EngineOf(block->Io);
    if (!file->Overlapped) return TransferSynchronous(file, engine, call, done);
    call->ThreadId = block->ThreadId;
    // A thread without an engine has nobody to be fair to.
    if (engine == nullptr || block->InlineBudget != 0) {
        DWORD status;
        const Now outcome = TryNow(file, call, &status);
        if (outcome == Now::kDone) [[likely]] {
            if (engine != nullptr) block->InlineBudget--;
            if (done != nullptr) *done = call->Done;
            FinishAtOnce(engine, call);
            return TRUE;
        }
        if (outcome == Now::kFailed) return FailAtOnce(call, status);
    } else {
        // This one makes the user thread wait, so that others run; then it may go on.
        block->InlineBudget = kInlineIoBudget;
        call->Later = true;
    }
    const BOOL result = IssueCall(engine, call);
    if (result && done != nullptr) *done = call->Done;
    return result;
}

BOOL Transfer(RequestKind kind, HANDLE file, char *buffer, DWORD count, DWORD *done, OVERLAPPED *overlapped, IoOp *op) {
    if (done != nullptr) *done = 0;
    Object *object = RefHandle(file);
    if (object == nullptr) return FALSE;
    if (!HasTransfers(object->Type)) {
        UnrefObject(object);
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    IoCall call;
    call.Target = static_cast<IoObject *>(object);
    call.Ov = overlapped;
    call.Op = op;
    call.Buffer = buffer;
    call.Count = count;
    call.Kind = kind;
    if (object->Type == ObjectType::kFile) [[likely]]
        return TransferFile(static_cast<FileObject *>(object), &call, done);
    return call.Target->Transfers->Transfer(call.Target, &call, done);
}

void FreeEndRoutine(EndRoutine *routine) {
    UnrefAlert(routine->Alert);
    free(routine);
}

BOOL TransferEx(RequestKind kind, HANDLE file, char *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (overlapped == nullptr || routine == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Object *object = RefHandle(file);
    if (object == nullptr) return FALSE;
    IoCall call;
    call.Target = static_cast<IoObject *>(object);
    call.Ov = overlapped;
    call.Buffer = buffer;
    call.Count = count;
    call.Kind = kind;
    call.ThreadId = GetCurrentThreadId();
    const bool isFile = object->Type == ObjectType::kFile;
    if (!HasTransfers(object->Type)) return Refuse(&call, ERROR_INVALID_HANDLE);
    if (isFile) {
        const FileObject *opened = static_cast<const FileObject *>(object);
        if (!(kind == RequestKind::kRead ? opened->CanRead : opened->CanWrite))
            return Refuse(&call, ERROR_ACCESS_DENIED);
        if (!opened->Overlapped || !TakeOffset(&call)) return Refuse(&call, ERROR_INVALID_PARAMETER);
    }
    // Either a routine or a packet tells of an end. The event is the host's to use as it likes.
    if (call.Target->Port.load(std::memory_order_acquire) != nullptr) return Refuse(&call, ERROR_INVALID_PARAMETER);
    AlertState *alert = CurrentAlertState();
    call.Routine = alert == nullptr ? nullptr : static_cast<EndRoutine *>(calloc(1, sizeof(EndRoutine)));
    if (call.Routine == nullptr) return Refuse(&call, ERROR_NOT_ENOUGH_MEMORY);
    RefAlert(alert);
    call.Routine->Alert = alert;
    call.Routine->Routine = routine;
    call.Routine->Ov = overlapped;
    // Always by the service: a thread that sleeps alertably does not look at its own engine.
    if (isFile)
        IssueCall(nullptr, &call);
    else
        call.Target->Transfers->Transfer(call.Target, &call, nullptr);
    if (GetLastError() != ERROR_IO_PENDING) return FALSE;
    SetLastError(ERROR_SUCCESS);
    return TRUE;
}

// Sleeps until somebody else's engine has stored a final status. Only the service engine looks for sleepers with the
// full order of stores that this needs; for the others the time-out stands in.
void SleepOnStatus(OVERLAPPED *overlapped) {
    constexpr timespec kRecheck{0, 10 * 1000 * 1000};
    gStatusWaiters.fetch_add(1, std::memory_order_seq_cst);
    while (std::atomic_ref<DWORD>(overlapped->Internal).load(std::memory_order_seq_cst) == STATUS_PENDING)
        syscall(SYS_futex, &overlapped->Internal, FUTEX_WAIT_PRIVATE, STATUS_PENDING, &kRecheck, nullptr, 0);
    gStatusWaiters.fetch_sub(1, std::memory_order_relaxed);
}

BOOL NotFound() {
    SetLastError(ERROR_NOT_FOUND);
    return FALSE;
}

// Asks the service engine to cancel what it runs for this thread; false when it runs nothing.
bool CancelAtService(IoObject *object, OVERLAPPED *overlapped) {
    Engine *service = PeekServiceEngine();
    if (service == nullptr) return false;
    IoCall call;
    call.Target = object;
    call.Ov = overlapped;
    call.ThreadId = GetCurrentThreadId();
    RefObject(object);
    const MessageKind kind = overlapped != nullptr ? MessageKind::kCancelOne : MessageKind::kCancelThread;
    if (SendCall(service, service->Serial, kind, call)) return true;
    UnrefObject(object);
    return false;
}

// Cancels the operations of this thread on `object` (null: on any) whose OVERLAPPED lies in [low, high). How many.
uint32_t CancelOwn(Engine *engine, const IoObject *object, uintptr_t low, uintptr_t high) {
    uint32_t found = 0;
    for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding;) {
        Request *next = request->Next;
        const uintptr_t at = reinterpret_cast<uintptr_t>(request->Call.Ov);
        if ((object == nullptr || request->Call.Target == object) && at >= low && at < high) {
            CancelRequest(engine, request);
            found++;
        }
        request = next;
    }
    return found;
}

bool Between(const void *address, const void *low, const void *high) {
    return address >= low && address < high;
}

// The object of a handle that operations run on, with a reference.
IoObject *RefIoObject(HANDLE handle) {
    Object *object = RefHandle(handle);
    if (object == nullptr || HasTransfers(object->Type)) return static_cast<IoObject *>(object);
    UnrefObject(object);
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

}  // namespace

BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *got, OVERLAPPED *overlapped, IoOp *op) {
    if (ShouldFail("ReadFile")) return FALSE;
    return Transfer(RequestKind::kRead, file, static_cast<char *>(buffer), count, got, overlapped, op);
}

BOOL WriteFile(HANDLE file, const void *buffer, DWORD count, DWORD *put, OVERLAPPED *overlapped, IoOp *op) {
    if (ShouldFail("WriteFile")) return FALSE;
    char *bytes = const_cast<char *>(static_cast<const char *>(buffer));
    return Transfer(RequestKind::kWrite, file, bytes, count, put, overlapped, op);
}

BOOL FlushFileBuffers(HANDLE file, OVERLAPPED *overlapped, IoOp *op) {
    if (ShouldFail("FlushFileBuffers")) return FALSE;
    IoObject *object = RefIoObject(file);
    if (object == nullptr) return FALSE;
    IoCall call;
    call.Target = object;
    call.Ov = overlapped;
    call.Op = op;
    call.Kind = RequestKind::kFlush;
    call.ThreadId = GetCurrentThreadId();
    if (object->Type == ObjectType::kSocket) return Refuse(&call, ERROR_INVALID_HANDLE);
    if (object->Type == ObjectType::kFile && !static_cast<FileObject *>(object)->CanWrite)
        return Refuse(&call, ERROR_ACCESS_DENIED);
    if (!TakeEvent(&call)) return Refuse(&call, ERROR_INVALID_HANDLE);
    Engine *engine = CurrentEngine();
    if (object->Seekable) return IssueCall(engine, &call);
    FinishAtOnce(engine, &call);  // streams buffer nothing of ours
    return TRUE;
}

BOOL ReadFileEx(HANDLE file, void *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (ShouldFail("ReadFileEx")) return FALSE;
    return TransferEx(RequestKind::kRead, file, static_cast<char *>(buffer), count, overlapped, routine);
}

BOOL WriteFileEx(HANDLE file, const void *buffer, DWORD count, OVERLAPPED *overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (ShouldFail("WriteFileEx")) return FALSE;
    char *bytes = const_cast<char *>(static_cast<const char *>(buffer));
    return TransferEx(RequestKind::kWrite, file, bytes, count, overlapped, routine);
}

void QueueEndRoutine(EndRoutine *routine, DWORD status, DWORD bytes) {
    routine->Error = ErrorOfStatus(status);
    routine->Bytes = bytes;
    routine->Node.Arg = routine;
    routine->Node.Run = [](void *arg) {
        EndRoutine *self = static_cast<EndRoutine *>(arg);
        const EndRoutine copy = *self;
        FreeEndRoutine(self);  // first: the host's routine may end the thread
        if (copy.SocketRoutine != nullptr)
            copy.SocketRoutine(copy.Error, copy.Bytes, copy.Ov, 0);
        else
            copy.Routine(copy.Error, copy.Bytes, copy.Ov);
    };
    routine->Node.Discard = [](void *arg) { FreeEndRoutine(static_cast<EndRoutine *>(arg)); };
    if (!QueueRoutine(routine->Alert, &routine->Node)) FreeEndRoutine(routine);
}

BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait) {
    static_cast<void>(file);
    if (ShouldFail("GetOverlappedResult")) return FALSE;
    if (!wait) HasOverlappedIoCompleted(overlapped);
    DWORD status = LoadStatus(overlapped);
    if (status == STATUS_PENDING && wait) {
        Engine *engine = CurrentEngine();
        while (engine != nullptr && FindRequest(engine, overlapped) != nullptr) WaitEngine(engine, -1);
        if (LoadStatus(overlapped) == STATUS_PENDING) SleepOnStatus(overlapped);
        status = LoadStatus(overlapped);
    }
    if (status == STATUS_PENDING) {
        SetLastError(ERROR_IO_INCOMPLETE);
        return FALSE;
    }
    if (bytes != nullptr) *bytes = LoadBytes(overlapped);
    if (!IsFailure(status)) return TRUE;
    SetLastError(ErrorOfStatus(status));
    return FALSE;
}

BOOL HasOverlappedIoCompleted(OVERLAPPED *overlapped) {
    if (LoadStatus(overlapped) != STATUS_PENDING) return TRUE;
    if (Engine *engine = CurrentEngine()) ReapEngine(engine);
    return LoadStatus(overlapped) != STATUS_PENDING ? TRUE : FALSE;
}

BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped) {
    if (ShouldFail("CancelIoEx")) return FALSE;
    IoObject *object = RefIoObject(file);
    if (object == nullptr) return FALSE;
    Engine *engine = CurrentEngine();
    bool found = false;
    if (overlapped == nullptr) {
        found = engine != nullptr && CancelOwn(engine, object, 0, UINTPTR_MAX) != 0;
        if (engine == nullptr) found = CancelAtService(object, nullptr);
    } else if (LoadStatus(overlapped) == STATUS_PENDING) {
        Request *request = engine == nullptr ? nullptr : FindRequest(engine, overlapped);
        if (request != nullptr && request->Call.Target == object) {
            CancelRequest(engine, request);
            found = true;
        } else if (engine == nullptr) {
            found = CancelAtService(object, overlapped);
        }
    }
    UnrefObject(object);
    return found ? TRUE : NotFound();
}

BOOL CancelOp(const IoOp *op) {
    if (ShouldFail("CancelOp")) return FALSE;
    Engine *engine = CurrentEngine();
    Request *request = static_cast<Request *>(op->Request);
    if (engine == nullptr || request == nullptr || request->Owner != engine) return NotFound();
    CancelRequest(engine, request);
    return TRUE;
}

BOOL CancelIo(HANDLE file) {
    if (ShouldFail("CancelIo")) return FALSE;
    IoObject *object = RefIoObject(file);
    if (object == nullptr) return FALSE;
    if (Engine *engine = CurrentEngine()) CancelOwn(engine, object, 0, UINTPTR_MAX);
    CancelAtService(object, nullptr);  // completion routines run there for every thread
    UnrefObject(object);
    return TRUE;
}

uint32_t CancelIoInRange(const void *low, const void *high) {
    Engine *engine = CurrentEngine();
    // Records of the library lie in no stack. With none of the host's own outstanding there is nothing to walk, so
    // that the end of a thread costs the same however many others have operations running.
    if (engine == nullptr || engine->HostOwned == 0) return 0;
    return CancelOwn(engine, nullptr, reinterpret_cast<uintptr_t>(low), reinterpret_cast<uintptr_t>(high));
}

uint32_t IoOutstandingInRange(const void *low, const void *high) {
    Engine *engine = CurrentEngine();
    if (engine == nullptr || engine->HostOwned == 0) return 0;
    uint32_t found = 0;
    for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding; request = request->Next)
        found += Between(request->Call.Ov, low, high);
    return found;
}

}  // namespace os
