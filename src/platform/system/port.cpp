// platform/system/port.cpp - completion ports.
//
// A port belongs to the thread that created it; its queue of packets is touched by that thread alone. Packets of
// operations that the owner ends are queued directly: through the link inside the library's record where there is
// one (a record that is queued already only counts one more), else in a recycled message. Packets from other threads
// come through the inbox of the owner's engine. Any thread may create, bind, post to and close a port.
#include <new>

#include "platform/base/futex.h"
#include "platform/base/object_pool.h"
#include "platform/system/io_engine.h"

namespace os {

namespace {

InnerLock gBindLock;  // guards the binding of handles to ports
std::atomic<uint32_t> gNextPortSerial{0};

void PortHandlesGone(Object *object);
void PortDestroy(Object *object);

const ObjectOps kPortOps{PortHandlesGone, PortDestroy, nullptr, nullptr};
ObjectPool<PortObject> gPortPool(ObjectType::kPort, &kPortOps);

inline bool OwnsPort(const Engine *engine, const PortObject *port) {
    return engine != nullptr && port->Owner == engine && port->OwnerSerial == engine->Serial;
}

void Append(PortObject *port, IoOp *link) {
    link->NextPacket = nullptr;
    if (port->Tail != nullptr)
        port->Tail->NextPacket = link;
    else
        port->Head = link;
    port->Tail = link;
}

void RemoveHead(PortObject *port) {
    port->Head = port->Head->NextPacket;
    if (port->Head == nullptr) port->Tail = nullptr;
}

inline Message *MessageOf(IoOp *link) {
    return reinterpret_cast<Message *>(link);
}

// The last handle is gone. What is queued goes away on the owner's thread, now or when it looks.
void PortHandlesGone(Object *object) {
    PortObject *port = static_cast<PortObject *>(object);
    if (OwnsPort(CurrentEngine(), port))
        DropPackets(port);
    else
        SendPacket(port, MessageKind::kPortGone, 0, 0, nullptr, 0);
}

void PortDestroy(Object *object) {
    PortObject *port = static_cast<PortObject *>(object);
    // Only a port whose owner ended still has packets; their records may be gone with it, so they are not looked at.
    port->Head = port->Tail = nullptr;
    FreeObject(&gPortPool, port);
}

HANDLE CreatePort() {
    ThreadBlock *block = CurrentThreadBlock();
    Engine *engine = EngineOf(block->Io);
    if (engine == nullptr) {
        engine = OpenEngine(Backend());
        if (engine == nullptr) return nullptr;
        block->Io = &engine->Io;
    }
    PortObject *port = AllocObject(&gPortPool);
    if (port == nullptr) return nullptr;
    port->Owner = engine;
    port->OwnerSerial = engine->Serial;
    do {
        port->Serial = (gNextPortSerial.fetch_add(1, std::memory_order_relaxed) + 1) & (kSerialLimit - 1);
    } while (port->Serial == 0);
    port->Head = port->Tail = nullptr;
    const HANDLE handle = NewHandle(port);
    if (handle == nullptr) UnrefObject(port);
    return handle;
}

bool CanBeBound(ObjectType type) {
    return type == ObjectType::kFile || type == ObjectType::kPipe || type == ObjectType::kSocket;
}

// Binds `file` to `port`; 0 or the reason.
DWORD Bind(Object *file, PortObject *port, uintptr_t key) {
    if (!CanBeBound(file->Type)) return ERROR_INVALID_HANDLE;
    IoObject *object = static_cast<IoObject *>(file);
    InnerGuard guard(&gBindLock);
    if (object->Port.load(std::memory_order_relaxed) != nullptr) return ERROR_INVALID_PARAMETER;
    RefObject(port);
    object->Key = key;
    object->Port.store(port, std::memory_order_release);
    return ERROR_SUCCESS;
}

// Takes the oldest packet of a port that has one.
BOOL TakePacket(Engine *engine, PortObject *port, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped) {
    IoOp *link = port->Head;
    DWORD status;
    if ((link->State & kOpIsMessage) != 0) {
        Message *message = MessageOf(link);
        status = message->Status;
        *bytes = message->Bytes;
        *key = message->Key;
        *overlapped = message->Ov;
        RemoveHead(port);
        FreeMessage(engine, message);
    } else {
        // A record that was issued again since is pending; the packet of its earlier operation was a success as far
        // as anybody can still tell, and whoever issued it again has accounted for the packet.
        status = LoadStatus(link->Ov);
        *bytes = status == STATUS_PENDING ? 0 : LoadBytes(link->Ov);
        *key = link->PacketKey;
        *overlapped = link->Ov;
        if (--link->PacketsQueued == 0) {
            RemoveHead(port);
            link->State &= kOpInEnded;
        }
    }
    if (!IsFailure(status)) return TRUE;
    SetLastError(ErrorOfStatus(status));
    return FALSE;
}

// Fills the port's queue if that can be done without sleeping longer than `ms`. False when there is no packet and
// nothing more to wait for.
bool FindPacket(Engine *engine, PortObject *port, DWORD ms) {
    if (port->Head != nullptr) return true;
    const uint32_t endedBefore = engine->EndedWithoutPacket;
    ReapEngine(engine);
    if (port->Head != nullptr) return true;
    // Operations that were reaped before this call and not yet taken are news as well.
    if (ms == 0 || engine->EndedWithoutPacket != endedBefore || engine->Io.EndedHead != nullptr) return false;
    const uint64_t deadline = DeadlineAfter(ms);
    int64_t left = ms == INFINITE ? -1 : static_cast<int64_t>(ms) * 1000000;
    for (;;) {
        const bool timedOut = WaitEngine(engine, left);
        if (port->Head != nullptr) return true;
        if (timedOut || engine->EndedWithoutPacket != endedBefore || port->Handles.load(std::memory_order_relaxed) == 0)
            return false;
        // Woken for something that is nobody's packet: a cancellation, a byte range tried in vain, a signal.
        if (ms == INFINITE) continue;
        const uint64_t now = MonotonicNs();
        if (now >= deadline) return false;
        left = static_cast<int64_t>(deadline - now);
    }
}

}  // namespace

void AppendMessagePacket(PortObject *port, Message *message) {
    if (port->Handles.load(std::memory_order_relaxed) == 0) {
        FreeMessage(port->Owner, message);
        return;
    }
    message->Link.State = kOpIsMessage;
    Append(port, &message->Link);
}

void DropPackets(PortObject *port) {
    while (IoOp *link = port->Head) {
        RemoveHead(port);
        if ((link->State & kOpIsMessage) != 0) {
            FreeMessage(port->Owner, MessageOf(link));
        } else {
            link->PacketsQueued = 0;
            link->State &= kOpInEnded;
        }
    }
}

void QueuePacket(Engine *engine, PortObject *port, uintptr_t key, IoOp *op, OVERLAPPED *ov, DWORD status, DWORD bytes) {
    if (!OwnsPort(engine, port)) {
        // The operation has ended whether or not its packet can be delivered: an owner that is gone loses nothing.
        const DWORD lastError = GetLastError();
        if (!SendPacket(port, MessageKind::kPacket, bytes, key, ov, status)) SetLastError(lastError);
        return;
    }
    const uint32_t serial = op == nullptr ? 0 : op->State & (kSerialLimit - 1);
    if (op != nullptr && (serial == 0 || serial == port->Serial)) {
        op->PacketKey = key;
        if (op->PacketsQueued++ != 0) return;
        if (port->Handles.load(std::memory_order_relaxed) == 0) {
            op->PacketsQueued = 0;
            return;
        }
        op->State |= port->Serial;
        Append(port, op);
        return;
    }
    // The host's own operation, or a record that still lies in another port's queue.
    Message *message = AllocMessage(engine);
    if (message == nullptr) return;  // without memory for a few bytes; the status word is final all the same
    message->Ov = ov;
    message->Key = key;
    message->Bytes = bytes;
    message->Status = status;
    AppendMessagePacket(port, message);
}

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE port, uintptr_t key, DWORD concurrency) {
    static_cast<void>(concurrency);  // one thread serves a port
    if (ShouldFail("CreateIoCompletionPort")) return nullptr;
    if (file == INVALID_HANDLE_VALUE) {
        if (port == nullptr) return CreatePort();
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    PortObject *target = static_cast<PortObject *>(RefHandle(port, ObjectType::kPort));
    if (target == nullptr) return nullptr;
    Object *object = RefHandle(file);
    const DWORD error = object == nullptr ? ERROR_INVALID_HANDLE : Bind(object, target, key);
    if (object != nullptr) UnrefObject(object);
    UnrefObject(target);
    if (error == ERROR_SUCCESS) return port;
    SetLastError(error);
    return nullptr;
}

BOOL GetQueuedCompletionStatus(HANDLE port, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped, DWORD ms) {
    *overlapped = nullptr;
    *bytes = 0;
    if (ShouldFail("GetQueuedCompletionStatus")) return FALSE;
    PortObject *object = static_cast<PortObject *>(RefHandle(port, ObjectType::kPort));
    if (object == nullptr) return FALSE;
    Engine *engine = CurrentEngine();
    BOOL result = FALSE;
    if (!OwnsPort(engine, object)) {
        SetLastError(ERROR_INVALID_PARAMETER);  // somebody else's port
    } else if (FindPacket(engine, object, ms)) {
        result = TakePacket(engine, object, bytes, key, overlapped);
    } else {
        SetLastError(object->Handles.load(std::memory_order_relaxed) != 0 ? WAIT_TIMEOUT : kErrorAbandonedWait);
    }
    UnrefObject(object);
    return result;
}

BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, uintptr_t key, OVERLAPPED *overlapped) {
    if (ShouldFail("PostQueuedCompletionStatus")) return FALSE;
    PortObject *object = static_cast<PortObject *>(RefHandle(port, ObjectType::kPort));
    if (object == nullptr) return FALSE;
    Engine *engine = CurrentEngine();
    bool queued;
    if (OwnsPort(engine, object)) {
        // What others posted earlier comes first.
        if (engine->InboxCount.load(std::memory_order_relaxed) != 0) DrainInbox(engine);
        Message *message = AllocMessage(engine);
        queued = message != nullptr;
        if (queued) {
            message->Ov = overlapped;
            message->Key = key;
            message->Bytes = bytes;
            message->Status = STATUS_SUCCESS;
            AppendMessagePacket(object, message);
        } else {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        }
    } else {
        queued = SendPacket(object, MessageKind::kPacket, bytes, key, overlapped, STATUS_SUCCESS);
    }
    UnrefObject(object);
    return queued ? TRUE : FALSE;
}

}  // namespace os
