// platform/system/io_common.cpp - engines, requests, and how an operation begins and ends on either back end.
//
// Runs on the engine's owner, except the choice of the back end, CancelObject, PushDone and WakeEngine, which any
// thread may call. The steady path takes requests and messages from free chains and neither allocates nor locks; it
// enters the kernel only through the back end.
#include "platform/system/io_engine.h"

#include <errno.h>
#include <linux/futex.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <new>

#include "platform/base/futex.h"
#include "platform/base/thread_block.h"

namespace os {

std::atomic<uint32_t> gStatusWaiters{0};

namespace {

InnerLock gEnginesLock;
std::atomic<Engine *> gEngines{nullptr};  // every engine ever made; pushed under the lock, walked without
Engine *gFreeEngines = nullptr;           // [gEnginesLock]
std::atomic<uint32_t> gNextSerial{0};     // of IoObjects

InnerLock gBackendLock;
std::atomic<const EngineOps *> gBackend{nullptr};
char gBackendNote[192];  // written before gBackend, never again

const EngineOps *ChooseBackend() {
    const char *wanted = getenv("ZVXKVT_IO");
    if (wanted != nullptr && strcmp(wanted, "epoll") == 0) return &kEpollOps;
    if (RingsAllowed()) return &kRingOps;
    const int reason = errno;
    const bool asked = wanted != nullptr && strcmp(wanted, "io_uring") == 0;
    snprintf(gBackendNote, sizeof gBackendNote,
             "io_uring is %srefused here (error %d, %s): epoll and file threads are used.",
             asked ? "asked for by ZVXKVT_IO but " : "", reason, strerrordesc_np(reason));
    return &kEpollOps;
}

// An engine's memory, recycled when there is one.
Engine *TakeEngine() {
    {
        InnerGuard guard(&gEnginesLock);
        if (Engine *engine = gFreeEngines) {
            gFreeEngines = engine->NextFree;
            return engine;
        }
    }
    Engine *engine = new (std::nothrow) Engine;
    if (engine == nullptr) return nullptr;
    void *chunks = mmap(nullptr, kMaxChunks * sizeof(Request *), PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    engine->WakeFd = ShouldFailInside("eventfd") != 0 ? -1 : eventfd(0, EFD_CLOEXEC);
    if (chunks == MAP_FAILED || engine->WakeFd < 0) {
        if (chunks != MAP_FAILED) munmap(chunks, kMaxChunks * sizeof(Request *));
        if (engine->WakeFd >= 0) close(engine->WakeFd);
        delete engine;
        return nullptr;
    }
    engine->Chunks = static_cast<Request **>(chunks);
    engine->Outstanding.Next = engine->Outstanding.Prev = &engine->Outstanding;
    InnerGuard guard(&gEnginesLock);
    Engine *first = gEngines.load(std::memory_order_relaxed);
    engine->Index = first == nullptr ? 0 : first->Index + 1;
    engine->NextEngine = first;
    gEngines.store(engine, std::memory_order_release);
    return engine;
}

void GiveBackEngine(Engine *engine) {
    InnerGuard guard(&gEnginesLock);
    engine->NextFree = gFreeEngines;
    gFreeEngines = engine;
}

// The exit hook: a thread that ends with a port takes its operations with it.
void ThreadEndsWithEngine(ThreadLocals *locals) {
    Engine *engine = EngineOf(locals->Block.Io);
    if (engine != nullptr) CloseEngine(engine);
}

// Off the steady path: one more chunk of requests.
bool GrowRequests(Engine *engine) {
    if (engine->ChunkCount == kMaxChunks) return false;
    Request *chunk = new (std::nothrow) Request[kRequestsPerChunk];
    if (chunk == nullptr) return false;
    const uint32_t base = engine->ChunkCount * kRequestsPerChunk;
    for (uint32_t i = kRequestsPerChunk; i-- > 0;) {
        chunk[i].Owner = engine;
        chunk[i].Index = base + i;
        chunk[i].Next = engine->FreeRequests;
        engine->FreeRequests = &chunk[i];
    }
    engine->Chunks[engine->ChunkCount++] = chunk;
    return true;
}

Request *AllocRequest(Engine *engine) {
    if (ShouldFailInside("request") != 0 || (engine->FreeRequests == nullptr && !GrowRequests(engine))) return nullptr;
    Request *request = engine->FreeRequests;
    engine->FreeRequests = request->Next;
    Request *head = &engine->Outstanding;
    request->Next = head;
    request->Prev = head->Prev;
    head->Prev->Next = request;
    head->Prev = request;
    request->Status = STATUS_PENDING;
    request->Stage.store(RequestStage::kStarting, std::memory_order_relaxed);
    request->Cancelled.store(false, std::memory_order_relaxed);
    engine->Io.Outstanding++;
    return request;
}

void FreeRequest(Engine *engine, Request *request) {
    if (request->HostOwned) engine->HostOwned--;
    request->HostOwned = false;
    request->Prev->Next = request->Next;
    request->Next->Prev = request->Prev;
    request->Stage.store(RequestStage::kFree, std::memory_order_relaxed);
    request->Call.Ov = nullptr;
    request->Next = engine->FreeRequests;
    engine->FreeRequests = request;
    engine->Io.Outstanding--;
}

bool IsClosed(const IoObject *object) {
    return object->Handles.load(std::memory_order_seq_cst) == 0;
}

// Notes that the engine may have operations on the object, for CancelObject. Returns true when the last handle went
// away meanwhile: its closer may have looked at the mask before, so the operation is to be cancelled by the issuer.
bool NoteEngine(Engine *engine, IoObject *object) {
    const uint64_t bit = 1ull << (engine->Index & 63);
    // A bit that is there already was seen by any closer, whose message this thread handles after the issue of its own
    // call. A call that came in a message itself may be behind that one: IssueForOther looks.
    if ((object->EngineMask.load(std::memory_order_relaxed) & bit) != 0) return false;
    object->EngineMask.fetch_or(bit, std::memory_order_seq_cst);
    return IsClosed(object);
}

// The part of every successful or failed end that comes after Internal is final. The OVERLAPPED may be gone.
void AnnounceEnd(Engine *engine, IoCall *call, DWORD status, DWORD bytes) {
    if (call->Event != nullptr) {
        SetEventObject(call->Event);
        UnrefObject(call->Event);
    }
    PortObject *port = call->NoPacket ? nullptr : call->Target->Port.load(std::memory_order_acquire);
    if (port != nullptr) QueuePacket(engine, port, call->Target->Key, call->Op, call->Ov, status, bytes);
    if (call->Routine != nullptr) QueueEndRoutine(call->Routine, status, bytes);
}

// The end of an operation that was answered as pending: what the owner of the OVERLAPPED sees, in the order in which
// it may look. Takes over the call's references.
void EndCall(Engine *engine, IoCall *call, DWORD status) {
    ReleaseExtras(call);
    StoreBytes(call->Ov, call->Done);
    if (IoOp *op = call->Op) {
        op->Request = nullptr;
        StoreStatus(call->Ov, status);
        // A record that was issued again before its owner took the chain is in it already.
        if ((op->State & kOpInEnded) == 0) {
            op->State |= kOpInEnded;
            op->NextEnded = nullptr;
            if (engine->Io.EndedTail != nullptr)
                engine->Io.EndedTail->NextEnded = op;
            else
                engine->Io.EndedHead = op;
            engine->Io.EndedTail = op;
        }
    } else {
        // Somebody may sleep on the status word. From the exchange on the memory is the host's, and may be gone: only
        // its address is used, and a wake-up that hits a new tenant is one that every futex user must expect.
        DWORD *word = &call->Ov->Internal;
        std::atomic_ref<DWORD>(*word).exchange(status, std::memory_order_seq_cst);
        if (gStatusWaiters.load(std::memory_order_seq_cst) != 0)
            syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
    }
    PortObject *port = call->Target->Port.load(std::memory_order_acquire);
    if (call->NoPacket || port == nullptr || port->Owner != engine) engine->EndedWithoutPacket++;
    AnnounceEnd(engine, call, status, call->Done);
    UnrefObject(call->Target);
}

// Fills the request and starts it. True when it ended at once: Status is final, and nobody has been told.
bool BeginRequest(Engine *engine, Request *request, const IoCall &call) {
    bool orphaned = NoteEngine(engine, call.Target);
    if (call.Accepted != nullptr) orphaned |= NoteEngine(engine, call.Accepted);
    // While the operation runs its byte count means nothing; a cancelling owner finds the request by this number.
    StoreBytes(call.Ov, request->Index);
    StoreStatus(call.Ov, STATUS_PENDING);
    request->Call = call;
    if (call.Parts != nullptr && !call.PartsOnHeap) {
        memcpy(request->InlineParts, call.Parts, call.PartCount * sizeof(iovec));
        request->Call.Parts = request->InlineParts;
    }
    request->HostOwned = call.Op == nullptr;
    if (request->HostOwned) engine->HostOwned++;
    if (call.Kind == RequestKind::kLock)
        ParkLock(engine, request);
    else if (engine->Ops->Start(engine, request))
        return true;
    if (call.Op != nullptr) call.Op->Request = request;
    if (orphaned) CancelRequest(engine, request);
    return false;
}

// Sleeps once, unless something is there to be seen; see the protocol in io_engine.h.
bool SleepEngine(Engine *engine, int64_t ns) {
    engine->Blocked.store(1, std::memory_order_seq_cst);
    if (engine->InboxCount.load(std::memory_order_seq_cst) != 0 ||
        engine->Io.Tail->load(std::memory_order_seq_cst) != engine->Io.Head) {
        engine->Blocked.store(0, std::memory_order_relaxed);
        ReapEngine(engine);
        return false;
    }
    const bool timedOut = engine->Ops->Wait(engine, ns);
    engine->Blocked.store(0, std::memory_order_relaxed);
    if (engine->InboxCount.load(std::memory_order_relaxed) != 0) DrainInbox(engine);
    return timedOut;
}

}  // namespace

const EngineOps *Backend() {
    const EngineOps *ops = gBackend.load(std::memory_order_acquire);
    if (ops != nullptr) return ops;
    InnerGuard guard(&gBackendLock);
    ops = gBackend.load(std::memory_order_relaxed);
    if (ops == nullptr) {
        AddThreadExitHook(ThreadEndsWithEngine);
        ops = ChooseBackend();
        gBackend.store(ops, std::memory_order_release);
    }
    return ops;
}

const char *IoBackendName() {
    return Backend()->Name;
}

const char *IoBackendNote() {
    Backend();
    return gBackendNote;
}

Engine *OpenEngine(const EngineOps *ops) {
    Engine *engine = TakeEngine();
    if (engine == nullptr) {
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return nullptr;
    }
    ForgetStreams(engine);
    engine->Ops = ops;
    bool open = ops->Open(engine);
    if (!open && ops != &kEpollOps) {
        // Rings may run out (locked memory, descriptors) although the probe found them allowed.
        engine->Ops = &kEpollOps;
        open = kEpollOps.Open(engine);
    }
    if (!open) {
        SetLastError(ErrorOfErrno(errno));
        GiveBackEngine(engine);
        return nullptr;
    }
    engine->EndedWithoutPacket = 0;
    engine->Io.Unsubmitted = 0;
    engine->Io.EndedHead = engine->Io.EndedTail = nullptr;
    engine->Blocked.store(0, std::memory_order_relaxed);
    InnerGuard guard(&engine->InboxLock);
    engine->Open = true;
    return engine;
}

void CloseEngine(Engine *engine) {
    for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding;) {
        Request *next = request->Next;
        CancelRequest(engine, request);
        request = next;
    }
    // What cannot be cancelled (a write that the disk is working on) is awaited: the kernel still uses its buffer.
    const uint64_t deadline = DeadlineAfter(10000);
    while (engine->Io.Outstanding != 0 && MonotonicNs() < deadline) WaitEngine(engine, 100000000);
    {
        InnerGuard guard(&engine->InboxLock);
        engine->Open = false;
        engine->Serial++;
    }
    FlushInbox(engine);
    CurrentThreadBlock()->Io = nullptr;
    if (engine->Io.Outstanding != 0) return;  // stuck in a driver: the engine stays with it
    engine->Ops->Close(engine);
    GiveBackEngine(engine);
}

void InitIoObject(IoObject *object, int fd) {
    object->Fd = fd;
    do {
        object->Serial = gNextSerial.fetch_add(1, std::memory_order_relaxed) + 1;
    } while (object->Serial == 0);
    object->Seekable = object->Pollable = object->EndIsBreak = object->Direct = false;
    object->Transfers = nullptr;
    object->Key = 0;
    object->Port.store(nullptr, std::memory_order_relaxed);
    object->EngineMask.store(0, std::memory_order_relaxed);
}

void EndIoObject(IoObject *object) {
    if (object->Fd >= 0) close(object->Fd);
    object->Fd = -1;
    PortObject *port = object->Port.load(std::memory_order_relaxed);
    object->Port.store(nullptr, std::memory_order_relaxed);
    if (port != nullptr) UnrefObject(port);
}

void CancelObject(IoObject *object) {
    // Only the closer's reference: nothing is outstanding and nobody is about to issue.
    if (object->Refs.load(std::memory_order_seq_cst) == 1) return;
    const uint64_t mask = object->EngineMask.fetch_or(0, std::memory_order_seq_cst);
    if (mask == 0) return;
    Engine *own = CurrentEngine();
    for (Engine *engine = gEngines.load(std::memory_order_acquire); engine != nullptr; engine = engine->NextEngine) {
        if ((mask >> (engine->Index & 63) & 1) == 0) continue;
        if (engine == own) {
            for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding;) {
                Request *next = request->Next;
                if (request->Call.Target == object || request->Call.Accepted == object) CancelRequest(engine, request);
                request = next;
            }
            continue;
        }
        uint32_t serial;
        {
            InnerGuard guard(&engine->InboxLock);
            if (!engine->Open) continue;
            serial = engine->Serial;
        }
        IoCall call;
        call.Target = object;
        RefObject(object);
        if (!SendCall(engine, serial, MessageKind::kCancelObject, call)) UnrefObject(object);
    }
}

bool TakeEvent(IoCall *call) {
    const uintptr_t value = reinterpret_cast<uintptr_t>(call->Ov->hEvent);
    if (value == 0) return true;
    const HANDLE handle = reinterpret_cast<HANDLE>(value);
    if ((value & 1) != 0) {
        call->NoPacket = true;
        if (value == 1) return true;
        // Nearly always the event that stays signalled: two loads then, and no reference.
        const Object *seen = PeekHandle(handle);
        if (seen != nullptr && seen->Kept) return true;
    }
    call->Event = RefHandle(handle, ObjectType::kEvent);
    if (call->Event == nullptr) return false;
    if (call->Event->Ops->Shared || call->Event->Signalled.load(std::memory_order_relaxed) != 0)
        ResetEventObject(call->Event);
    return true;
}

void DropCall(IoCall *call) {
    if (call->Event != nullptr) UnrefObject(call->Event);
    if (call->Routine != nullptr) {
        UnrefAlert(call->Routine->Alert);
        free(call->Routine);
    }
    ReleaseExtras(call);
    UnrefObject(call->Target);
}

BOOL FailAtOnce(IoCall *call, DWORD status) {
    if (call->Accepted != nullptr) SettleAccept(call);
    StoreBytes(call->Ov, status == STATUS_BUFFER_OVERFLOW ? call->Done : 0);
    StoreStatus(call->Ov, status);
    DropCall(call);
    SetLastError(ErrorOfStatus(status));
    return FALSE;
}

void FinishAtOnce(Engine *engine, IoCall *call) {
    ReleaseExtras(call);
    StoreBytes(call->Ov, call->Done);
    StoreStatus(call->Ov, STATUS_SUCCESS);
    AnnounceEnd(engine, call, STATUS_SUCCESS, call->Done);
    UnrefObject(call->Target);
}

BOOL IssueCall(Engine *engine, IoCall *call) {
    // Who is bound later reports what begins later: nobody expects a packet for this one, not even its issuer.
    if (call->Target->Port.load(std::memory_order_acquire) == nullptr) call->NoPacket = true;
    if (engine == nullptr) {
        engine = ServiceEngine();
        if (engine == nullptr) return FailAtOnce(call, StatusOfError(GetLastError()));
        // Before the message: the service may end the operation before this thread runs again.
        StoreStatus(call->Ov, STATUS_PENDING);
        if (!SendCall(engine, engine->Serial, MessageKind::kIssue, *call))
            return FailAtOnce(call, StatusOfError(GetLastError()));
        SetLastError(ERROR_IO_PENDING);
        return FALSE;
    }
    Request *request = AllocRequest(engine);
    if (request == nullptr) return FailAtOnce(call, StatusOfError(ERROR_NOT_ENOUGH_MEMORY));
    if (BeginRequest(engine, request, *call)) {
        const DWORD status = request->Status;
        *call = request->Call;
        FreeRequest(engine, request);
        if (IsFailure(status)) return FailAtOnce(call, status);
        FinishAtOnce(engine, call);
        return TRUE;
    }
    SetLastError(ERROR_IO_PENDING);
    return FALSE;
}

void IssueForOther(Engine *engine, IoCall *call) {
    Request *request = AllocRequest(engine);
    if (request == nullptr)
        EndCall(engine, call, StatusOfError(ERROR_NOT_ENOUGH_MEMORY));
    else if (BeginRequest(engine, request, *call))
        EndRequest(engine, request);
    else if (IsClosed(call->Target) || (call->Accepted != nullptr && IsClosed(call->Accepted)))
        CancelRequest(engine, request);  // the closer's message may have come before the call did
}

bool AccountTransfer(IoCall *call, int64_t result, bool cancelled, DWORD *status) {
    if (IsSocketKind(call->Kind)) return AccountSocket(call, result, cancelled, status);
    if (IsPipeKind(call->Kind)) return AccountPipe(call, result, cancelled, status);
    const IoObject *object = call->Target;
    const bool read = call->Kind == RequestKind::kRead;
    if (result < 0) {
        const int error = static_cast<int>(-result);
        if ((error == EINTR || error == EAGAIN) && !cancelled) return false;
        if (error == ECANCELED || cancelled) {
            *status = STATUS_CANCELLED;
        } else if (error == EINVAL && read && object->Direct && call->Done != 0) {
            *status = STATUS_SUCCESS;  // the file was cut to an odd length while it was read
        } else {
            *status = StatusOfErrno(error);
            call->Done = 0;
        }
        return true;
    }
    call->Done += static_cast<DWORD>(result);
    *status = STATUS_SUCCESS;
    if (call->Done >= call->Count) return true;
    if (result == 0) {
        if (!read)
            *status = kStatusDiskFull;  // nothing was taken and nothing refused: a full device
        else if (call->Done == 0 && object->Seekable)
            *status = STATUS_END_OF_FILE;
        else if (call->Done == 0 && object->EndIsBreak)
            *status = kStatusBrokenPipe;
        return true;
    }
    // What comes from a stream is a whole answer; so is a piece of a sector from a file without cache.
    if (read && (!object->Seekable || (object->Direct && (result & 511) != 0))) return true;
    if (!cancelled) return false;
    *status = STATUS_CANCELLED;
    return true;
}

void StepRequest(Engine *engine, Request *request, int32_t result) {
    const bool cancelled = request->Cancelled.load(std::memory_order_relaxed);
    if (!AccountTransfer(&request->Call, result, cancelled, &request->Status) && !engine->Ops->Start(engine, request))
        return;
    EndRequest(engine, request);
}

void EndRequest(Engine *engine, Request *request) {
    if (request->InStream) {
        Request *next = RemoveFromStream(engine, request);
        if (next != nullptr && engine->Ops->StartNext != nullptr) engine->Ops->StartNext(engine, next);
    }
    IoCall call = request->Call;
    const DWORD status = request->Status;
    FreeRequest(engine, request);
    EndCall(engine, &call, status);
}

void CancelRequest(Engine *engine, Request *request) {
    if (request->Cancelled.load(std::memory_order_relaxed) ||
        request->Stage.load(std::memory_order_relaxed) == RequestStage::kEnded)
        return;
    request->Cancelled.store(true, std::memory_order_relaxed);
    if (request->Stage.load(std::memory_order_relaxed) == RequestStage::kLocking)
        RetryLocksSoon(engine);
    else
        engine->Ops->Cancel(engine, request);
}

Request *FindRequest(Engine *engine, const OVERLAPPED *overlapped) {
    if (LoadStatus(overlapped) != STATUS_PENDING) return nullptr;
    const DWORD index = LoadBytes(overlapped);
    if (index / kRequestsPerChunk < engine->ChunkCount) {
        Request *request = &engine->Chunks[index / kRequestsPerChunk][index % kRequestsPerChunk];
        if (request->Stage.load(std::memory_order_relaxed) != RequestStage::kFree && request->Call.Ov == overlapped)
            return request;
    }
    // The host wrote over the number.
    for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding; request = request->Next)
        if (request->Call.Ov == overlapped) return request;
    return nullptr;
}

void WakeEngine(Engine *engine) {
    // The caller's append comes before this load, the owner's announcement before its last look at the inbox.
    if (engine->Blocked.load(std::memory_order_seq_cst) == 0) return;
    if (engine->Blocked.exchange(0, std::memory_order_seq_cst) == 0) return;
    const uint64_t one = 1;
    const int saved = errno;
    while (write(engine->WakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
    errno = saved;
}

void PushDone(Engine *engine, Request *request) {
    request->Stage.store(RequestStage::kEnded, std::memory_order_relaxed);
    Request *first = engine->DoneList.load(std::memory_order_relaxed);
    do {
        request->QueueNext = first;
    } while (
        !engine->DoneList.compare_exchange_weak(first, request, std::memory_order_release, std::memory_order_relaxed));
    engine->DoneCount.fetch_add(1, std::memory_order_seq_cst);
    WakeEngine(engine);
}

void ReapDone(Engine *engine) {
    if (engine->DoneList.load(std::memory_order_relaxed) == nullptr) return;
    Request *list = engine->DoneList.exchange(nullptr, std::memory_order_acquire);
    Request *ordered = nullptr;
    while (list != nullptr) {
        Request *next = list->QueueNext;
        list->QueueNext = ordered;
        ordered = list;
        list = next;
    }
    while (ordered != nullptr) {
        Request *request = ordered;
        ordered = request->QueueNext;
        // On the epoll back end this count is what Io.Tail is compared with.
        if (engine->Ops == &kEpollOps) engine->Io.Head++;
        EndRequest(engine, request);
    }
}

void ReapEngine(Engine *engine) {
    if (engine->InboxCount.load(std::memory_order_relaxed) != 0) DrainInbox(engine);
    if (engine->LockHead != nullptr) RetryLocks(engine);
    ReapDone(engine);
    engine->Ops->Reap(engine);
}

bool WaitEngine(Engine *engine, int64_t ns) {
    if (engine->LockHead != nullptr) {
        // The next try of a byte range bounds the sleep.
        const uint64_t now = MonotonicNs();
        const int64_t untilTry = engine->LockNextTry > now ? static_cast<int64_t>(engine->LockNextTry - now) : 0;
        if (ns < 0 || untilTry < ns) {
            if (untilTry > 0) SleepEngine(engine, untilTry);
            RetryLocksSoon(engine);
            ReapEngine(engine);
            return false;
        }
    }
    return SleepEngine(engine, ns);
}

void ReapIo(IoThread *io) {
    ReapEngine(EngineOf(io));
}

void SubmitIo(IoThread *io) {
    Engine *engine = EngineOf(io);
    engine->Ops->Submit(engine);
    // What ended at once makes way for what waits behind it in its stream.
    for (uint32_t turns = io->Outstanding; turns != 0; turns--) {
        if (io->Tail->load(std::memory_order_relaxed) == io->Head) return;
        ReapEngine(engine);
        engine->Ops->Submit(engine);
    }
}

IoOp *TakeEndedOps(IoThread *io) {
    IoOp *first = io->EndedHead;
    io->EndedHead = io->EndedTail = nullptr;
    for (IoOp *op = first; op != nullptr; op = op->NextEnded) op->State &= ~kOpInEnded;
    return first;
}

}  // namespace os
