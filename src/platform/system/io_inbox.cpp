// platform/system/io_inbox.cpp - how other threads reach an engine: posted packets, cancellations, service calls.
//
// The Send functions run on any thread and hold the inbox lock for a few pointer moves; the rest runs on the
// engine's owner, which takes the whole inbox at once. Messages are recycled: a sender takes a free one from the
// receiver's inbox, and the owner gives its spare ones back whenever it has the lock anyway. Only a receiver that
// has more messages under way than ever before costs an allocation.
#include <new>

#include "platform/system/io_engine.h"

namespace os {

namespace {

constexpr uint32_t kMessagesPerChunk = 16;

Message *GrowMessages() {
    if (ShouldFailInside("messages") != 0) return nullptr;
    Message *chunk = new (std::nothrow) Message[kMessagesPerChunk];
    if (chunk == nullptr) return nullptr;
    for (uint32_t i = 0; i + 1 < kMessagesPerChunk; i++) chunk[i].Next = &chunk[i + 1];
    chunk[kMessagesPerChunk - 1].Next = nullptr;
    return chunk;
}

// Appends a message that `fill` completes under the lock, and wakes the owner.
template <class Fill>
bool Send(Engine *engine, uint32_t serial, Fill fill) {
    Message *grown = nullptr;
    for (;;) {
        {
            InnerGuard guard(&engine->InboxLock);
            if (grown != nullptr) {
                Message *last = grown;
                while (last->Next != nullptr) last = last->Next;
                last->Next = engine->InboxFree;
                engine->InboxFree = grown;
                grown = nullptr;
            }
            if (!engine->Open || engine->Serial != serial) {
                SetLastError(ERROR_INVALID_HANDLE);
                return false;
            }
            if (Message *message = engine->InboxFree) {
                engine->InboxFree = message->Next;
                fill(message);
                message->Next = nullptr;
                if (engine->InboxTail != nullptr)
                    engine->InboxTail->Next = message;
                else
                    engine->InboxHead = message;
                engine->InboxTail = message;
                engine->InboxCount.fetch_add(1, std::memory_order_seq_cst);
                break;
            }
        }
        grown = GrowMessages();
        if (grown == nullptr) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return false;
        }
    }
    WakeEngine(engine);
    return true;
}

// Takes the inbox, and leaves the spare messages there when senders have run out of free ones.
Message *TakeInbox(Engine *engine) {
    InnerGuard guard(&engine->InboxLock);
    Message *list = engine->InboxHead;
    engine->InboxHead = engine->InboxTail = nullptr;
    engine->InboxCount.store(0, std::memory_order_relaxed);
    if (engine->InboxFree == nullptr) {
        engine->InboxFree = engine->Spare;
        engine->Spare = nullptr;
    }
    return list;
}

void CancelWhere(Engine *engine, const Message *message) {
    for (Request *request = engine->Outstanding.Next; request != &engine->Outstanding;) {
        Request *next = request->Next;
        const IoCall &call = request->Call;
        const bool meant = call.Target == message->Call.Target ||
                           (call.Accepted == message->Call.Target && message->Kind == MessageKind::kCancelObject);
        if (meant && (message->Kind != MessageKind::kCancelOne || call.Ov == message->Call.Ov) &&
            (message->Kind != MessageKind::kCancelThread || call.ThreadId == message->Call.ThreadId))
            CancelRequest(engine, request);
        request = next;
    }
}

}  // namespace

Message *AllocMessage(Engine *engine) {
    if (engine->Spare == nullptr) {
        InnerGuard guard(&engine->InboxLock);
        engine->Spare = engine->InboxFree;
        engine->InboxFree = nullptr;
    }
    if (engine->Spare == nullptr) engine->Spare = GrowMessages();
    Message *message = engine->Spare;
    if (message != nullptr) engine->Spare = message->Next;
    return message;
}

void FreeMessage(Engine *engine, Message *message) {
    message->Next = engine->Spare;
    engine->Spare = message;
}

bool SendCall(Engine *engine, uint32_t serial, MessageKind kind, const IoCall &call) {
    return Send(engine, serial, [&](Message *message) {
        message->Kind = kind;
        message->Call = call;
    });
}

bool SendPacket(PortObject *port, MessageKind kind, DWORD bytes, uintptr_t key, OVERLAPPED *ov, DWORD status) {
    RefObject(port);
    const bool sent = Send(port->Owner, port->OwnerSerial, [&](Message *message) {
        message->Kind = kind;
        message->Port = port;
        message->Bytes = bytes;
        message->Key = key;
        message->Ov = ov;
        message->Status = status;
    });
    if (!sent) UnrefObject(port);
    return sent;
}

void DrainInbox(Engine *engine) {
    for (Message *message = TakeInbox(engine); message != nullptr;) {
        Message *next = message->Next;
        PortObject *port = message->Port;
        switch (message->Kind) {
            case MessageKind::kPacket:
                // The port's own queue takes the message; what held the port in the inbox does not follow it there.
                AppendMessagePacket(port, message);
                UnrefObject(port);
                break;
            case MessageKind::kPortGone:
                DropPackets(port);
                FreeMessage(engine, message);
                UnrefObject(port);
                break;
            case MessageKind::kIssue: {
                IoCall call = message->Call;
                FreeMessage(engine, message);
                IssueForOther(engine, &call);
                break;
            }
            case MessageKind::kCancelObject:
            case MessageKind::kCancelOne:
            case MessageKind::kCancelThread: {
                IoObject *object = message->Call.Target;
                CancelWhere(engine, message);
                FreeMessage(engine, message);
                UnrefObject(object);
                break;
            }
        }
        message = next;
    }
}

void FlushInbox(Engine *engine) {
    for (Message *message = TakeInbox(engine); message != nullptr;) {
        Message *next = message->Next;
        if (message->Kind == MessageKind::kPacket || message->Kind == MessageKind::kPortGone)
            UnrefObject(message->Port);
        else if (message->Kind == MessageKind::kIssue)
            DropCall(&message->Call);
        else
            UnrefObject(message->Call.Target);
        FreeMessage(engine, message);
        message = next;
    }
}

}  // namespace os
