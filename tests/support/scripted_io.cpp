// tests/support/scripted_io.cpp - ports, overlapped operations and files by script.
//
// Runs on the test's thread. An operation is a Request in one list from its issue until the reap that makes it
// final; a port is a queue of packets and the IoThread of whoever made it. The only call from foreign threads is
// PostQueuedCompletionStatus, so the queues have a lock. Nothing here blocks.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "platform/base/object.h"
#include "platform/base/object_pool.h"
#include "scripted_os.h"

namespace os {

namespace script {

namespace {

struct File : Object {
    HANDLE Port;  // null until it is associated
    uintptr_t Key;
    uint64_t Position;
    uint32_t Flags;  // as given to CreateFileA
};

// The words behind IoNeedsAttention: Tail moves when an operation ends, Tasks never.
struct PortState {
    IoThread Io;
    std::atomic<uint32_t> Tail{0};
    std::atomic<uint32_t> Tasks{0};
    HANDLE Handle = nullptr;
    std::deque<Packet> Queue;  // [gQueueLock]
    uint32_t EmptyPolls = 0;   // polls without waiting that found nothing, in a row
};

struct Port : Object {
    PortState *State;
};

void DestroyFile(Object *object);
void DestroyPort(Object *object);
const ObjectOps kFileOps{nullptr, DestroyFile};
const ObjectOps kPortOps{nullptr, DestroyPort};
ObjectPool<File> gFiles(ObjectType::kFile, &kFileOps);
ObjectPool<Port> gPorts(ObjectType::kPort, &kPortOps);

std::mutex gQueueLock;
std::vector<std::unique_ptr<PortState>> gPortStates;  // never freed: their IoThreads stay in thread blocks
std::list<Request> gRequests;                         // outstanding, in the order of issue
std::list<Request> gEndedRequests;                    // ended and not reaped, in the order of ending

void DestroyFile(Object *object) {
    FreeObject(&gFiles, static_cast<File *>(object));
}
void DestroyPort(Object *object) {
    FreeObject(&gPorts, static_cast<Port *>(object));
}

[[noreturn]] void Misuse(const char *what) {
    std::fprintf(stderr, "scripted os: %s\n", what);
    std::abort();
}

// Null with ERROR_INVALID_HANDLE. The caller unrefs.
File *RefFile(HANDLE handle) {
    Object *object = RefHandle(handle, ObjectType::kAny);
    if (object == nullptr) return nullptr;
    if (object->Ops == &kFileOps) return static_cast<File *>(object);
    UnrefObject(object);
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

PortState *StateOf(HANDLE handle) {
    for (const auto &state : gPortStates)
        if (state->Handle == handle) return state.get();
    return nullptr;
}

PortState *StateOf(const IoThread *io) {
    for (const auto &state : gPortStates)
        if (&state->Io == io) return state.get();
    Misuse("an IoThread that no port made");
}

bool LowBit(const OVERLAPPED *ov) {
    return (reinterpret_cast<uintptr_t>(ov->hEvent) & 1) != 0;
}

// The last steps of an operation's life, in the order that a poller of Internal relies on.
void MakeFinal(const IoCall &call, DWORD status, DWORD bytes) {
    OVERLAPPED *ov = call.Ov;
    const bool packet = !LowBit(ov);
    const HANDLE event = ov->hEvent;
    ov->InternalHigh = bytes;
    StoreStatus(ov, status);
    const HANDLE realEvent = reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) & ~uintptr_t{1});
    if (realEvent != nullptr) SetEvent(realEvent);
    if (!packet) return;
    File *file = RefFile(call.File);
    if (file == nullptr) return;
    if (file->Port != nullptr && call.Routine == nullptr)
        QueuePacket(file->Port, {bytes, file->Key, ov, false, ErrorOfStatus(status), call.Op});
    UnrefObject(file);
}

void Finish(Request request) {
    if (request.Thread != nullptr) request.Thread->Outstanding--;
    IoOp *op = request.Call.Op;
    if (op != nullptr) {
        op->Request = nullptr;
        op->State = 0;
        op->NextEnded = nullptr;
        if (request.Thread != nullptr) {
            if (request.Thread->EndedTail != nullptr)
                request.Thread->EndedTail->NextEnded = op;
            else
                request.Thread->EndedHead = op;
            request.Thread->EndedTail = op;
        }
    }
    MakeFinal(request.Call, request.Status, request.Bytes);
    if (request.Call.Routine != nullptr)
        request.Call.Routine(ErrorOfStatus(request.Status), request.Bytes, request.Call.Ov);
}

bool AskForEnd(Request &request) {
    if (request.Ended) return true;
    request.CancelAsked = true;
    if (!gScript.HoldCancels) EndOperation(request.Call.Ov, STATUS_CANCELLED, 0);
    return true;
}

BOOL StartNamed(const char *name, const IoCall &call, DWORD *transferred) {
    if (ShouldFail(name)) return FALSE;
    return IssueIo(call, transferred);
}

uint64_t OffsetOf(HANDLE handle, const OVERLAPPED *ov) {
    if (ov != nullptr) return static_cast<uint64_t>(ov->OffsetHigh) << 32 | ov->Offset;
    File *file = RefFile(handle);
    if (file == nullptr) return 0;
    const uint64_t position = file->Position;
    UnrefObject(file);
    return position;
}

HANDLE OpenFile(std::string name, DWORD flags) {
    gScript.Opened.push_back(std::move(name));
    File *file = AllocObject(&gFiles);
    if (file == nullptr) return INVALID_HANDLE_VALUE;
    file->Port = nullptr;
    file->Key = 0;
    file->Position = 0;
    file->Flags = flags;
    HANDLE handle = NewHandle(file);
    if (handle == nullptr) {
        UnrefObject(file);
        return INVALID_HANDLE_VALUE;
    }
    return handle;
}

}  // namespace

DWORD ErrorOfStatus(DWORD status) {
    switch (status) {
        case STATUS_SUCCESS: return 0;
        case STATUS_PENDING: return ERROR_IO_PENDING;
        case STATUS_END_OF_FILE: return ERROR_HANDLE_EOF;
        case STATUS_CANCELLED: return ERROR_OPERATION_ABORTED;
        default: return (status & 0xFFFF0000u) == 0xC0070000u ? status & 0xFFFFu : ERROR_GEN_FAILURE;
    }
}

DWORD StatusOfError(DWORD error) {
    switch (error) {
        case 0: return STATUS_SUCCESS;
        case ERROR_HANDLE_EOF: return STATUS_END_OF_FILE;
        case ERROR_OPERATION_ABORTED: return STATUS_CANCELLED;
        default: return 0xC0070000u | error;
    }
}

HANDLE NewFile() {
    HANDLE handle = OpenFile("", FILE_FLAG_OVERLAPPED);
    gScript.Opened.pop_back();
    return handle;
}

Request *FindRequest(const OVERLAPPED *ov) {
    for (Request &request : gRequests)
        if (request.Call.Ov == ov) return &request;
    for (Request &request : gEndedRequests)
        if (request.Call.Ov == ov) return &request;
    return nullptr;
}

uint32_t OutstandingRequests() {
    return static_cast<uint32_t>(gRequests.size() + gEndedRequests.size());
}

void EndOperation(OVERLAPPED *ov, DWORD status, DWORD bytes) {
    for (auto it = gRequests.begin(); it != gRequests.end(); ++it) {
        if (it->Call.Ov != ov) continue;
        it->Ended = true;
        it->Status = status;
        it->Bytes = bytes;
        if (it->Thread == nullptr) {
            Request request = *it;
            gRequests.erase(it);
            Finish(request);
            return;
        }
        StateOf(it->Thread)->Tail.fetch_add(1, std::memory_order_release);
        gEndedRequests.splice(gEndedRequests.end(), gRequests, it);
        return;
    }
    Misuse("EndOperation of an OVERLAPPED that has no running operation");
}

void QueuePacket(HANDLE port, const Packet &packet) {
    std::lock_guard<std::mutex> guard(gQueueLock);
    PortState *state = StateOf(port);
    if (state == nullptr) return;  // the port was closed
    if (packet.Op != nullptr) packet.Op->PacketsQueued++;
    state->Queue.push_back(packet);
}

uint32_t QueuedPackets(HANDLE port) {
    std::lock_guard<std::mutex> guard(gQueueLock);
    const PortState *state = StateOf(port);
    return state == nullptr ? 0 : static_cast<uint32_t>(state->Queue.size());
}

IoThread *IoThreadOf(HANDLE port) {
    PortState *state = StateOf(port);
    return state == nullptr ? nullptr : &state->Io;
}

BOOL IssueIo(const IoCall &call, DWORD *transferred) {
    File *file = RefFile(call.File);
    if (file == nullptr) return FALSE;
    NoteProgress();
    if (transferred != nullptr) *transferred = 0;
    gScript.Calls.push_back(call);
    IoAnswer answer = gScript.OnIo ? gScript.OnIo(call) : (call.Ov != nullptr ? Pending() : Done(call.Count));
    if (answer.Result == IoResult::kFailed) {
        UnrefObject(file);
        SetLastError(answer.Error);
        return FALSE;
    }
    if (answer.Result == IoResult::kDone) {
        if (transferred != nullptr) *transferred = answer.Bytes;
        if (call.Ov != nullptr)
            MakeFinal(call, STATUS_SUCCESS, answer.Bytes);
        else
            file->Position += answer.Bytes;
        UnrefObject(file);
        return TRUE;
    }
    UnrefObject(file);
    if (call.Ov == nullptr) Misuse("a synchronous operation was answered as pending");
    if (FindRequest(call.Ov) != nullptr) Misuse("an OVERLAPPED was used while its operation is outstanding");
    IoThread *io = CurrentThreadBlock()->Io;
    call.Ov->InternalHigh = 0;
    StoreStatus(call.Ov, STATUS_PENDING);
    gRequests.push_back({call, io, false, false, 0, 0});
    if (call.Op != nullptr) {
        call.Op->Request = &gRequests.back();
        call.Op->State = 1;
    }
    if (io != nullptr) io->Outstanding++;
    SetLastError(ERROR_IO_PENDING);
    return FALSE;
}

}  // namespace script

using namespace script;

// ---- Reaping -----------------------------------------------------------------------------------------

void ReapIo(IoThread *io) {
    for (auto it = gEndedRequests.begin(); it != gEndedRequests.end();) {
        if (it->Thread != io) {
            ++it;
            continue;
        }
        Request request = *it;
        it = gEndedRequests.erase(it);
        io->Head++;
        Finish(request);
    }
    io->Unsubmitted = 0;
}

IoOp *TakeEndedOps(IoThread *io) {
    IoOp *first = io->EndedHead;
    io->EndedHead = nullptr;
    io->EndedTail = nullptr;
    return first;
}

void SubmitIo(IoThread *io) {
    io->Unsubmitted = 0;
}

// ---- Ports -------------------------------------------------------------------------------------------

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE port, uintptr_t key, DWORD concurrency) {
    static_cast<void>(concurrency);
    if (ShouldFail("CreateIoCompletionPort")) return nullptr;
    if (file == INVALID_HANDLE_VALUE && port == nullptr) {
        Port *object = AllocObject(&gPorts);
        if (object == nullptr) return nullptr;
        auto state = std::make_unique<PortState>();
        std::memset(static_cast<void *>(&state->Io), 0, sizeof(state->Io));
        state->Io.Tail = &state->Tail;
        state->Io.Tasks = &state->Tasks;
        state->Io.TaskMask = 1;
        object->State = state.get();
        state->Handle = NewHandle(object);
        CurrentThreadBlock()->Io = &state->Io;
        HANDLE handle = state->Handle;
        std::lock_guard<std::mutex> guard(gQueueLock);
        gPortStates.push_back(std::move(state));
        return handle;
    }
    File *target = RefFile(file);
    if (target == nullptr) return nullptr;
    if (StateOf(port) == nullptr || target->Port != nullptr) {
        SetLastError(target->Port != nullptr ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
        UnrefObject(target);
        return nullptr;
    }
    target->Port = port;
    target->Key = key;
    UnrefObject(target);
    gScript.Associations.push_back({file, port, key});
    return port;
}

namespace {

// Takes the first packet; false when there is none.
bool TakePacket(PortState *state, Packet *packet) {
    std::lock_guard<std::mutex> guard(gQueueLock);
    if (state->Queue.empty()) return false;
    *packet = state->Queue.front();
    state->Queue.pop_front();
    if (packet->Op != nullptr) packet->Op->PacketsQueued--;
    return true;
}

BOOL GivePacket(const Packet &packet, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped) {
    *bytes = packet.Bytes;
    *key = packet.Key;
    *overlapped = packet.Ov;
    if (packet.Error == 0) return TRUE;
    SetLastError(packet.Error);
    return FALSE;
}

}  // namespace

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped, DWORD ms) {
    *overlapped = nullptr;
    if (ShouldFail("GetQueuedCompletionStatus")) return FALSE;
    PortState *state = StateOf(port);
    if (state == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    NoteProgress();
    Packet packet;
    uint32_t headBefore = state->Io.Head;
    ReapIo(&state->Io);
    if (TakePacket(state, &packet)) {
        state->EmptyPolls = 0;
        return GivePacket(packet, bytes, key, overlapped);
    }
    const bool reaped = state->Io.Head != headBefore;  // ends the wait without a packet
    const bool spinning = ms == 0 && !reaped && ++state->EmptyPolls > gScript.SpinLimit;
    if ((ms != 0 && !reaped) || spinning) {
        state->EmptyPolls = 0;
        if (ms != 0) {
            gScript.PortWaits++;
            gScript.LastPortWaitMs = ms;
        }
        if (gScript.OnPortWait)
            gScript.OnPortWait(port, ms);
        else if (ms == INFINITE)
            Misuse("an endless wait in a port with nothing queued and no OnPortWait");
        else
            AdvanceClock(ms);
        ReapIo(&state->Io);
        if (TakePacket(state, &packet)) return GivePacket(packet, bytes, key, overlapped);
    }
    SetLastError(WAIT_TIMEOUT);
    return FALSE;
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, uintptr_t key, OVERLAPPED *overlapped) {
    if (ShouldFail("PostQueuedCompletionStatus")) return FALSE;
    const Packet packet{bytes, key, overlapped, true, 0, nullptr};
    std::lock_guard<std::mutex> guard(gQueueLock);
    PortState *state = StateOf(port);
    if (state == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    state->Queue.push_back(packet);
    gScript.Posted.push_back(packet);
    return TRUE;
}

// ---- Reads and writes --------------------------------------------------------------------------------

BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *got, OVERLAPPED *overlapped, IoOp *op) {
    return StartNamed("ReadFile",
                      {IoKind::kRead, file, buffer, count, OffsetOf(file, overlapped), overlapped, op, nullptr}, got);
}

BOOL WriteFile(HANDLE file, const void *buffer, DWORD count, DWORD *put, OVERLAPPED *overlapped, IoOp *op) {
    return StartNamed(
        "WriteFile",
        {IoKind::kWrite, file, const_cast<void *>(buffer), count, OffsetOf(file, overlapped), overlapped, op, nullptr},
        put);
}

// The routine runs at the reap; these succeed when the operation is under way.
BOOL ReadFileEx(HANDLE file, void *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    return StartNamed("ReadFileEx",
                      {IoKind::kRead, file, buffer, count, OffsetOf(file, overlapped), overlapped, nullptr, routine},
                      nullptr) ||
           GetLastError() == ERROR_IO_PENDING;
}

BOOL WriteFileEx(HANDLE file, const void *buffer, DWORD count, OVERLAPPED *overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    return StartNamed("WriteFileEx",
                      {IoKind::kWrite, file, const_cast<void *>(buffer), count, OffsetOf(file, overlapped), overlapped,
                       nullptr, routine},
                      nullptr) ||
           GetLastError() == ERROR_IO_PENDING;
}

BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait) {
    static_cast<void>(file);
    if (!HasOverlappedIoCompleted(overlapped)) {
        if (wait) Misuse("GetOverlappedResult would wait for ever");
        SetLastError(ERROR_IO_INCOMPLETE);
        return FALSE;
    }
    *bytes = overlapped->InternalHigh;
    const DWORD error = ErrorOfStatus(LoadStatus(overlapped));
    if (error == 0) return TRUE;
    SetLastError(error);
    return FALSE;
}

BOOL HasOverlappedIoCompleted(OVERLAPPED *overlapped) {
    if (IoThread *io = CurrentThreadBlock()->Io) ReapIo(io);
    return LoadStatus(overlapped) != STATUS_PENDING;
}

// ---- Cancelling --------------------------------------------------------------------------------------

BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped) {
    gScript.Cancels.push_back({file, overlapped});
    if (ShouldFail("CancelIoEx")) return FALSE;
    Request *request = FindRequest(overlapped);
    if (request != nullptr && request->Call.File == file) return AskForEnd(*request);
    SetLastError(ERROR_NOT_FOUND);
    return FALSE;
}

BOOL CancelIo(HANDLE file) {
    gScript.Cancels.push_back({file, nullptr});
    if (ShouldFail("CancelIo")) return FALSE;
    std::vector<OVERLAPPED *> targets;
    for (const Request &request : gRequests)
        if (request.Call.File == file && request.Thread == CurrentThreadBlock()->Io) targets.push_back(request.Call.Ov);
    for (OVERLAPPED *ov : targets) AskForEnd(*FindRequest(ov));
    return TRUE;
}

uint32_t CancelIoInRange(const void *low, const void *high) {
    const IoThread *io = CurrentThreadBlock()->Io;
    std::vector<OVERLAPPED *> targets;
    for (const auto *list : {&gRequests, &gEndedRequests})
        for (const Request &request : *list)
            if (request.Thread == io && static_cast<const void *>(request.Call.Ov) >= low &&
                static_cast<const void *>(request.Call.Ov) < high)
                targets.push_back(request.Call.Ov);
    for (OVERLAPPED *ov : targets) {
        gScript.Cancels.push_back({FindRequest(ov)->Call.File, ov});
        AskForEnd(*FindRequest(ov));
    }
    return static_cast<uint32_t>(targets.size());
}

const char *IoBackendName() {
    return "scripted";
}
const char *IoBackendNote() {
    return "";
}

// ---- Files -------------------------------------------------------------------------------------------

HANDLE CreateFileA(const char *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    static_cast<void>(access), static_cast<void>(share), static_cast<void>(security);
    static_cast<void>(disposition), static_cast<void>(templateFile);
    if (ShouldFail("CreateFileA")) return INVALID_HANDLE_VALUE;
    return OpenFile(name, flags);
}

HANDLE CreateFileW(const WCHAR *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    static_cast<void>(access), static_cast<void>(share), static_cast<void>(security);
    static_cast<void>(disposition), static_cast<void>(templateFile);
    if (ShouldFail("CreateFileW")) return INVALID_HANDLE_VALUE;
    std::string narrow;
    for (; *name != 0; name++) narrow.push_back(*name < 0x80 ? static_cast<char>(*name) : '?');
    return OpenFile(narrow, flags);
}

BOOL LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped) {
    static_cast<void>(flags), static_cast<void>(reserved), static_cast<void>(high);
    return StartNamed("LockFileEx",
                      {IoKind::kLock, file, nullptr, low, OffsetOf(file, overlapped), overlapped, nullptr, nullptr},
                      nullptr);
}

BOOL UnlockFileEx(HANDLE file, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped) {
    static_cast<void>(file), static_cast<void>(reserved), static_cast<void>(low);
    static_cast<void>(high), static_cast<void>(overlapped);
    return !ShouldFail("UnlockFileEx");
}

DWORD SetFilePointer(HANDLE handle, LONG distance, LONG *distanceHigh, DWORD method) {
    if (ShouldFail("SetFilePointer")) return INVALID_SET_FILE_POINTER;
    File *file = RefFile(handle);
    if (file == nullptr) return INVALID_SET_FILE_POINTER;
    int64_t offset = distance;
    if (distanceHigh != nullptr)
        offset = static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(*distanceHigh)) << 32 |
                                      static_cast<uint32_t>(distance));
    uint64_t base = method == FILE_CURRENT ? file->Position : method == FILE_END ? gScript.FileSize : 0;
    const int64_t position = static_cast<int64_t>(base) + offset;
    if (position < 0) {
        UnrefObject(file);
        SetLastError(ERROR_NEGATIVE_SEEK);
        return INVALID_SET_FILE_POINTER;
    }
    file->Position = static_cast<uint64_t>(position);
    UnrefObject(file);
    if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(position >> 32);
    SetLastError(0);
    return static_cast<DWORD>(position);
}

BOOL SetEndOfFile(HANDLE file) {
    static_cast<void>(file);
    return !ShouldFail("SetEndOfFile");
}
BOOL SetFileLength(HANDLE file, uint64_t bytes) {
    static_cast<void>(file);
    if (ShouldFail("SetFileLength")) return FALSE;
    gScript.FileSize = bytes;
    return TRUE;
}
BOOL FlushFileBuffers(HANDLE file) {
    static_cast<void>(file);
    return !ShouldFail("FlushFileBuffers");
}
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER *size) {
    static_cast<void>(file);
    if (ShouldFail("GetFileSizeEx")) return FALSE;
    size->QuadPart = static_cast<LONGLONG>(gScript.FileSize);
    return TRUE;
}
DWORD GetFileSize(HANDLE file, DWORD *high) {
    static_cast<void>(file);
    if (ShouldFail("GetFileSize")) return INVALID_FILE_SIZE;
    if (high != nullptr) *high = static_cast<DWORD>(gScript.FileSize >> 32);
    return static_cast<DWORD>(gScript.FileSize);
}
BOOL DeleteFileA(const char *name) {
    static_cast<void>(name);
    return !ShouldFail("DeleteFileA");
}
BOOL MoveFileExA(const char *from, const char *to, DWORD flags) {
    static_cast<void>(from), static_cast<void>(to), static_cast<void>(flags);
    return !ShouldFail("MoveFileExA");
}

}  // namespace os
