// tests/support/scripted_io.cpp - ports and overlapped operations by script.
//
// Runs on the test's thread. An operation is a Request in one list from its issue until the reap that makes it
// final; a port is a queue of packets and the IoThread of whoever made it. Nothing here blocks.
#include <deque>
#include <list>
#include <memory>
#include <utility>

#include "platform/base/object.h"
#include "platform/base/object_pool.h"
#include "scripted_os.h"

namespace os {

namespace script {

namespace {

// What is behind the handle of a file. A port has one too, for its handle; the rest of it is its PortState.
struct File : Object {
    HANDLE Port;  // null until it is associated
    uintptr_t Key;
};

// The words behind IoNeedsAttention: Tail moves when an operation ends, Tasks never.
struct PortState {
    IoThread Io{};
    std::atomic<uint32_t> Tail{0};
    std::atomic<uint32_t> Tasks{0};
    HANDLE Handle = nullptr;
    std::deque<Packet> Queue;
    uint32_t EmptyPolls = 0;  // polls without waiting that found nothing, in a row
};

// A pending operation, from its issue until it was reaped.
struct Request {
    IoCall Call;
    IoThread *Thread;
    bool Ended;    // not reaped
    DWORD Status;  // what the reap will store then
    DWORD Bytes;
};

void DestroyFile(Object *object);
const ObjectOps kFileOps{nullptr, DestroyFile};
ObjectPool<File> gFiles(ObjectType::kFile, &kFileOps);

std::vector<std::unique_ptr<PortState>> gPortStates;  // never freed: their IoThreads stay in thread blocks
std::list<Request> gRequests;                         // in the order of issue; those that ended, of ending

void DestroyFile(Object *object) {
    FreeObject(&gFiles, static_cast<File *>(object));
}

// Null with ERROR_INVALID_HANDLE. Good while the handle is open.
File *FileOf(HANDLE handle) {
    Object *file = RefHandle(handle, ObjectType::kFile);
    if (file != nullptr) UnrefObject(file);
    return static_cast<File *>(file);
}

// The outstanding operation of `ov`; null when there is none.
Request *RequestOf(const OVERLAPPED *ov) {
    for (Request &request : gRequests)
        if (request.Call.Ov == ov) return &request;
    return nullptr;
}

PortState *StateOf(HANDLE handle) {
    for (const auto &state : gPortStates)
        if (state->Handle == handle) return state.get();
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

DWORD ErrorOfStatus(DWORD status) {
    switch (status) {
        case STATUS_SUCCESS: return 0;
        case STATUS_PENDING: return ERROR_IO_PENDING;
        case STATUS_END_OF_FILE: return ERROR_HANDLE_EOF;
        case STATUS_CANCELLED: return ERROR_OPERATION_ABORTED;
        default: return (status & 0xFFFF0000u) == 0xC0070000u ? status & 0xFFFFu : ERROR_GEN_FAILURE;
    }
}

// The last steps of an operation's life, in the order that a poller of Internal relies on.
void MakeFinal(const IoCall &call, DWORD status, DWORD bytes) {
    OVERLAPPED *ov = call.Ov;
    const auto event = reinterpret_cast<uintptr_t>(ov->hEvent);
    ov->InternalHigh = bytes;
    StoreStatus(ov, status);
    if (event > 1) SetEvent(reinterpret_cast<HANDLE>(event & ~uintptr_t{1}));
    const File *file = (event & 1) == 0 ? FileOf(call.File) : nullptr;
    if (file == nullptr || file->Port == nullptr) return;
    if (call.Op != nullptr) call.Op->PacketsQueued++;
    StateOf(file->Port)->Queue.push_back({bytes, file->Key, ov, ErrorOfStatus(status), call.Op});
}

BOOL Issue(const char *name, const IoCall &call, DWORD *moved) {
    if (ShouldFail(name) || FileOf(call.File) == nullptr) return FALSE;
    if (call.Ov == nullptr) Misuse("a synchronous operation");
    NoteProgress();
    if (moved != nullptr) *moved = 0;
    gScript.Calls.push_back(call);
    const IoAnswer answer = gScript.OnIo ? gScript.OnIo(call) : Pending();
    if (answer.Result == IoResult::kDone) {
        if (moved != nullptr) *moved = answer.Bytes;
        MakeFinal(call, STATUS_SUCCESS, answer.Bytes);
        return TRUE;
    }
    if (answer.Result == IoResult::kPending) {
        if (RequestOf(call.Ov) != nullptr) Misuse("an OVERLAPPED was used while its operation is outstanding");
        IoThread *io = CurrentThreadBlock()->Io;
        call.Ov->InternalHigh = 0;
        StoreStatus(call.Ov, STATUS_PENDING);
        gRequests.push_back({call, io, false, 0, 0});
        io->Outstanding++;
    }
    SetLastError(answer.Result == IoResult::kPending ? ERROR_IO_PENDING : answer.Error);
    return FALSE;
}

}  // namespace

HANDLE NewFile() {
    File *file = AllocObject(&gFiles);
    file->Port = nullptr;
    file->Key = 0;
    return NewHandle(file);
}

void EndOperation(OVERLAPPED *ov, DWORD status, DWORD bytes) {
    for (auto it = gRequests.begin(); it != gRequests.end(); ++it) {
        if (it->Call.Ov != ov || it->Ended) continue;
        it->Ended = true;
        it->Status = status;
        it->Bytes = bytes;
        for (const auto &state : gPortStates)
            if (&state->Io == it->Thread) state->Tail.fetch_add(1, std::memory_order_release);
        gRequests.splice(gRequests.end(), gRequests, it);
        return;
    }
    Misuse("EndOperation of an OVERLAPPED that has no running operation");
}

HANDLE RunningOn(const OVERLAPPED *ov) {
    const Request *request = RequestOf(ov);
    return request != nullptr && !request->Ended ? request->Call.File : nullptr;
}

uint32_t QueuedPackets(HANDLE port) {
    return static_cast<uint32_t>(StateOf(port)->Queue.size());
}

IoThread *IoThreadOf(HANDLE port) {
    return &StateOf(port)->Io;
}

}  // namespace script

using namespace script;

// ---- Reaping -----------------------------------------------------------------------------------------

void SubmitIo(IoThread *) {}

void ReapIo(IoThread *io) {
    for (auto it = gRequests.begin(); it != gRequests.end();) {
        const auto at = it++;
        if (!at->Ended || at->Thread != io) continue;
        const Request request = *at;
        gRequests.erase(at);
        io->Head++;
        io->Outstanding--;
        if (IoOp *op = request.Call.Op; op != nullptr) {
            op->NextEnded = nullptr;
            (io->EndedTail != nullptr ? io->EndedTail->NextEnded : io->EndedHead) = op;
            io->EndedTail = op;
        }
        MakeFinal(request.Call, request.Status, request.Bytes);
    }
}

IoOp *TakeEndedOps(IoThread *io) {
    io->EndedTail = nullptr;
    return std::exchange(io->EndedHead, nullptr);
}

// ---- Ports -------------------------------------------------------------------------------------------

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE port, uintptr_t key, DWORD) {
    if (ShouldFail("CreateIoCompletionPort")) return nullptr;
    if (port == nullptr) {
        auto state = std::make_unique<PortState>();
        state->Io.Tail = &state->Tail;
        state->Io.Tasks = &state->Tasks;
        state->Io.TaskMask = 1;
        state->Handle = NewFile();
        CurrentThreadBlock()->Io = &state->Io;
        gPortStates.push_back(std::move(state));
        return gPortStates.back()->Handle;
    }
    File *target = FileOf(file);
    if (target == nullptr) return nullptr;
    if (target->Port != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    target->Port = port;
    target->Key = key;
    gScript.BoundKeys.push_back(key);
    return port;
}

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped, DWORD ms) {
    *overlapped = nullptr;
    PortState *state = StateOf(port);
    if (state == nullptr) return FALSE;
    NoteProgress();
    const uint32_t headBefore = state->Io.Head;
    ReapIo(&state->Io);
    std::deque<Packet> &queue = state->Queue;
    // What was reaped without a packet ends the wait too.
    if (queue.empty() && state->Io.Head == headBefore && (ms != 0 || ++state->EmptyPolls > gScript.SpinLimit)) {
        state->EmptyPolls = 0;
        if (ms != 0) gScript.LastPortWaitMs = ms;
        gScript.OnPortWait(port, ms);
        ReapIo(&state->Io);
    }
    if (queue.empty()) {
        SetLastError(WAIT_TIMEOUT);
        return FALSE;
    }
    const Packet packet = queue.front();
    queue.pop_front();
    state->EmptyPolls = 0;
    if (packet.Op != nullptr) packet.Op->PacketsQueued--;
    if (packet.Error != 0) SetLastError(packet.Error);
    *bytes = packet.Bytes;
    *key = packet.Key;
    *overlapped = packet.Ov;
    return packet.Error == 0;
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, uintptr_t key, OVERLAPPED *overlapped) {
    PortState *state = StateOf(port);
    if (state == nullptr) return FALSE;
    state->Queue.push_back({bytes, key, overlapped, 0, nullptr});
    gScript.Posted.push_back(state->Queue.back());
    return TRUE;
}

// ---- Reads and writes --------------------------------------------------------------------------------

HANDLE CreateFileA(const char *name, DWORD, DWORD, SECURITY_ATTRIBUTES *, DWORD, DWORD, HANDLE) {
    return gScript.OnCreate && !gScript.OnCreate(name) ? INVALID_HANDLE_VALUE : NewFile();
}

BOOL ReadFile(HANDLE file, void *, DWORD count, DWORD *got, OVERLAPPED *overlapped, IoOp *op) {
    return Issue("ReadFile", {file, count, overlapped, op}, got);
}

BOOL WriteFile(HANDLE file, const void *, DWORD count, DWORD *put, OVERLAPPED *overlapped, IoOp *op) {
    return Issue("WriteFile", {file, count, overlapped, op}, put);
}

BOOL GetOverlappedResult(HANDLE, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait) {
    if (!HasOverlappedIoCompleted(overlapped)) {
        if (wait) Misuse("GetOverlappedResult would wait for ever");
        SetLastError(ERROR_IO_INCOMPLETE);
        return FALSE;
    }
    *bytes = overlapped->InternalHigh;
    const DWORD error = ErrorOfStatus(LoadStatus(overlapped));
    if (error != 0) SetLastError(error);
    return error == 0;
}

BOOL HasOverlappedIoCompleted(OVERLAPPED *overlapped) {
    if (IoThread *io = CurrentThreadBlock()->Io) ReapIo(io);
    return LoadStatus(overlapped) != STATUS_PENDING;
}

BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped) {
    gScript.Cancels++;
    const bool found = RunningOn(overlapped) == file;
    if (found && !gScript.HoldCancels) EndOperation(overlapped, STATUS_CANCELLED, 0);
    return found;
}

BOOL CancelOp(const IoOp *op) {
    const HANDLE file = RunningOn(op->Ov);
    return file != nullptr && CancelIoEx(file, op->Ov);
}

BOOL FlushFileBuffers(HANDLE file, OVERLAPPED *overlapped, IoOp *op) {
    return Issue("FlushFileBuffers", {file, 0, overlapped, op}, nullptr);
}

uint32_t IoOutstandingInRange(const void *low, const void *high) {
    uint32_t outstanding = 0;
    for (const Request &request : gRequests)
        outstanding += request.Thread == CurrentThreadBlock()->Io && request.Call.Ov >= low && request.Call.Ov < high;
    return outstanding;
}

uint32_t CancelIoInRange(const void *low, const void *high) {
    const std::list<Request> requests = gRequests;
    for (const Request &request : requests)
        if (request.Thread == CurrentThreadBlock()->Io && request.Call.Ov >= low && request.Call.Ov < high &&
            !request.Ended)
            CancelIoEx(request.Call.File, request.Call.Ov);
    return IoOutstandingInRange(low, high);
}

}  // namespace os
