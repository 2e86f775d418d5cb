// platform/system/pipe_channel.cpp - what goes through a pipe: bytes, and messages made of bytes.
//
// Runs on the engines' owners, and on threads that block in a call. Nothing here blocks but WaitForChannel. A message
// that arrives whole goes from the socket to its reader's buffer; one that arrives in pieces is gathered here, and
// never more of it than somebody has a buffer for.
#include "platform/system/pipe.h"

#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/object_pool.h"
#include "platform/system/socket.h"

namespace os {

namespace {

void ChannelDestroy(Object *object);

const ObjectOps kChannelOps{nullptr, ChannelDestroy, nullptr, nullptr};
ObjectPool<PipeChannel> gChannelPool(ObjectType::kPipe, &kChannelOps);

void ChannelDestroy(Object *object) {
    PipeChannel *channel = static_cast<PipeChannel *>(object);
    free(channel->Early);
    free(channel->Rest);
    channel->Early = channel->Rest = nullptr;
    EndIoObject(channel);
    FreeObject(&gChannelPool, channel);
}

// What the socket has, without waiting: a count, 0 at the end, or minus errno. A connection that was reset is an end.
int64_t Receive(const PipeChannel *channel, void *to, size_t bytes, int flags) {
    long got;
    do got = syscall(SYS_recvfrom, channel->Fd, to, bytes, MSG_DONTWAIT | flags, nullptr, nullptr);
    while (got < 0 && errno == EINTR);
    if (got >= 0) return got;
    return errno == ECONNRESET || errno == ENOTCONN ? 0 : -errno;
}

int64_t SendParts(const PipeChannel *channel, iovec *parts, size_t count) {
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = count;
    long put;
    do put = syscall(SYS_sendmsg, channel->Fd, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    while (put < 0 && errno == EINTR);
    return put < 0 ? -errno : put;
}

DWORD EndStatus(const PipeChannel *channel, bool read) {
    if (channel->Cut.load(std::memory_order_acquire)) return StatusOfError(ERROR_PIPE_NOT_CONNECTED);
    return read ? kStatusBrokenPipe : StatusOfError(ERROR_NO_DATA);
}

DWORD FailedStatus(const PipeChannel *channel, int error, bool read) {
    return error == 0 || error == EPIPE || error == ECONNRESET || error == ENOTCONN ? EndStatus(channel, read)
                                                                                    : StatusOfErrno(error);
}

// ---- Reading -----------------------------------------------------------------------------------------

bool ReadBytes(PipeChannel *channel, IoCall *call, DWORD *status) {
    char none;
    const bool only = call->Count == 0;  // waits until there is something, and takes nothing
    const int64_t got = Receive(channel, only ? &none : call->Buffer, only ? 1 : call->Count, only ? MSG_PEEK : 0);
    if (got == -EAGAIN) return false;
    call->Done = got > 0 && !only ? static_cast<DWORD>(got) : 0;
    *status = got > 0 ? STATUS_SUCCESS : FailedStatus(channel, static_cast<int>(-got), true);
    return true;
}

// [channel] Takes the length of the next message. True when it is there, or with *status when nothing will come.
bool TakeHeaderLocked(PipeChannel *channel, DWORD *status) {
    *status = STATUS_SUCCESS;
    while (channel->HeaderGot < kMessageHeader) {
        const int64_t got =
            Receive(channel, channel->Header + channel->HeaderGot, kMessageHeader - channel->HeaderGot, 0);
        if (got == -EAGAIN) return false;
        if (got <= 0) {
            *status = FailedStatus(channel, static_cast<int>(-got), true);
            return true;
        }
        channel->HeaderGot += static_cast<uint32_t>(got);
        if (channel->HeaderGot == kMessageHeader) memcpy(&channel->Left, channel->Header, kMessageHeader);
    }
    return true;
}

// [channel] Room for `bytes` of a message's beginning.
bool GrowEarlyLocked(PipeChannel *channel, uint32_t bytes) {
    if (bytes <= channel->EarlyRoom) return true;
    char *grown = static_cast<char *>(realloc(channel->Early, bytes));
    if (grown == nullptr) return false;
    channel->Early = grown;
    channel->EarlyRoom = bytes;
    return true;
}

// [channel] Gathers `wanted` bytes of the message, the first ones in `buffer` where nothing was gathered before. True
// when they are there, or with *status.
bool GatherLocked(PipeChannel *channel, char *buffer, uint32_t wanted, DWORD *status) {
    uint32_t have = channel->EarlyBytes.load(std::memory_order_relaxed);
    bool direct = have == 0;
    while (have < wanted) {
        // Room as it is needed: the length is the sender's word.
        const uint32_t step = direct ? wanted : have + (wanted - have < 65536 ? wanted - have : 65536);
        if (!direct && !GrowEarlyLocked(channel, step)) {
            *status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
            return true;
        }
        char *to = direct ? buffer : channel->Early + have;
        const int64_t got = Receive(channel, to, step - (direct ? 0 : have), 0);
        if (got == -EAGAIN) return false;
        if (got <= 0) {
            *status = FailedStatus(channel, static_cast<int>(-got), true);
            return true;
        }
        if (direct && static_cast<uint32_t>(got) == wanted) return true;
        if (direct) {
            // In pieces after all.
            if (!GrowEarlyLocked(channel, static_cast<uint32_t>(got))) {
                *status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
                return true;
            }
            memcpy(channel->Early, buffer, static_cast<size_t>(got));
            direct = false;
        }
        have += static_cast<uint32_t>(got);
        channel->EarlyBytes.store(have, std::memory_order_relaxed);
    }
    if (direct) return true;
    memcpy(buffer, channel->Early, wanted);
    memmove(channel->Early, channel->Early + wanted, have - wanted);
    channel->EarlyBytes.store(have - wanted, std::memory_order_relaxed);
    if (have == wanted && channel->EarlyRoom > 65536) {
        free(channel->Early);
        channel->Early = nullptr;
        channel->EarlyRoom = 0;
    }
    return true;
}

bool ReadMessage(PipeChannel *channel, IoCall *call, DWORD *status) {
    const bool whole = call->MsgFlags != 0;  // message mode; else bytes, wherever the messages end
    for (;;) {
        if (!TakeHeaderLocked(channel, status)) return false;
        if (IsFailure(*status)) return true;
        // In byte mode an empty message is nothing.
        if (channel->Left != 0 || whole) break;
        channel->HeaderGot = 0;
    }
    uint32_t wanted = call->Count < channel->Left ? call->Count : channel->Left;
    // A reader of bytes is content with what has come.
    if (!whole && wanted != 0) {
        const uint32_t early = channel->EarlyBytes.load(std::memory_order_relaxed);
        int queued = 0;
        ioctl(channel->Fd, FIONREAD, &queued);
        const uint64_t there = uint64_t{early} + static_cast<uint32_t>(queued > 0 ? queued : 0);
        if (there != 0 && there < wanted) wanted = static_cast<uint32_t>(there);
    }
    if (!GatherLocked(channel, call->Buffer, wanted, status)) return false;
    if (IsFailure(*status)) return true;
    call->Done = wanted;
    channel->Left -= wanted;
    if (channel->Left == 0) channel->HeaderGot = 0;
    if (channel->Left != 0 && whole) *status = STATUS_BUFFER_OVERFLOW;
    return true;
}

// ---- Writing -----------------------------------------------------------------------------------------

bool WriteBytes(PipeChannel *channel, IoCall *call, DWORD *status) {
    *status = STATUS_SUCCESS;
    while (call->Done < call->Count) {
        iovec part{call->Buffer + call->Done, call->Count - call->Done};
        const int64_t put = SendParts(channel, &part, 1);
        if (put == -EAGAIN) return false;
        if (put < 0) {
            *status = FailedStatus(channel, static_cast<int>(-put), false);
            return true;
        }
        call->Done += static_cast<DWORD>(put);
    }
    if (call->Count == 0 && OtherEndGone(channel)) *status = EndStatus(channel, false);
    return true;
}

// [channel] Sends the rest of an earlier message. True when none is left, or with *status.
bool SendRestLocked(PipeChannel *channel, DWORD *status) {
    *status = STATUS_SUCCESS;
    while (channel->RestBegin < channel->RestEnd) {
        iovec part{channel->Rest + channel->RestBegin, channel->RestEnd - channel->RestBegin};
        const int64_t put = SendParts(channel, &part, 1);
        if (put == -EAGAIN) return false;
        if (put < 0) {
            *status = FailedStatus(channel, static_cast<int>(-put), false);
            return true;
        }
        channel->RestBegin += static_cast<uint64_t>(put);
    }
    free(channel->Rest);
    channel->Rest = nullptr;
    channel->RestBegin = channel->RestEnd = 0;
    channel->RestTicket = 0;
    return true;
}

bool WriteMessage(PipeChannel *channel, IoCall *call, DWORD *status) {
    if (!SendRestLocked(channel, status)) return false;
    if (IsFailure(*status)) return true;
    if (call->Offset != 0) {
        // It was this call's rest, which whoever came here since has helped along.
        call->Done = call->Count;
        return true;
    }
    char header[kMessageHeader];
    memcpy(header, &call->Count, sizeof header);
    iovec parts[2] = {{header, sizeof header}, {call->Buffer, call->Count}};
    const int64_t put = SendParts(channel, parts, 2);
    if (put == -EAGAIN) return false;
    if (put < 0) {
        *status = FailedStatus(channel, static_cast<int>(-put), false);
        return true;
    }
    const uint64_t total = uint64_t{kMessageHeader} + call->Count;
    const uint64_t sent = static_cast<uint64_t>(put);
    if (sent == total) {
        call->Done = call->Count;
        return true;
    }
    channel->Rest = static_cast<char *>(malloc(total - sent));
    if (channel->Rest == nullptr) {
        syscall(SYS_shutdown, channel->Fd, SHUT_WR);  // the reader must not wait for what will never come
        *status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
        return true;
    }
    const uint64_t inHeader = sent < kMessageHeader ? kMessageHeader - sent : 0;
    const uint64_t inBody = sent < kMessageHeader ? 0 : sent - kMessageHeader;
    memcpy(channel->Rest, header + (kMessageHeader - inHeader), inHeader);
    memcpy(channel->Rest + inHeader, call->Buffer + inBody, call->Count - inBody);
    channel->RestBegin = 0;
    channel->RestEnd = total - sent;
    channel->RestTicket = call->Offset = ++channel->LastTicket;
    if (!SendRestLocked(channel, status)) return false;
    if (!IsFailure(*status)) call->Done = call->Count;
    return true;
}

}  // namespace

PipeChannel *NewChannel(int fd, bool messages) {
    PipeChannel *channel = AllocObject(&gChannelPool);
    if (channel == nullptr) {
        close(fd);
        return nullptr;
    }
    InitIoObject(channel, fd);
    channel->Pollable = true;
    channel->Messages = messages;
    channel->Cut.store(false, std::memory_order_relaxed);
    channel->HeaderGot = channel->Left = 0;
    channel->Early = channel->Rest = nullptr;
    channel->EarlyBytes.store(0, std::memory_order_relaxed);
    channel->EarlyRoom = 0;
    channel->RestBegin = channel->RestEnd = channel->RestTicket = channel->LastTicket = 0;
    return channel;
}

void WaitForChannel(const PipeChannel *channel, RequestKind kind) {
    pollfd wanted{channel->Fd, static_cast<short>(kind == RequestKind::kPipeWrite ? POLLOUT : POLLIN), 0};
    if (poll(&wanted, 1, -1) < 0 && errno == EINTR) AfterSignal();
}

bool ClientWaits(const PipeChannel *listener) {
    pollfd wanted{listener->Fd, POLLIN, 0};
    int ready;
    do ready = poll(&wanted, 1, 0);
    while (ready < 0 && errno == EINTR);
    return ready > 0;
}

bool OtherEndGone(const PipeChannel *channel) {
    pollfd wanted{channel->Fd, 0, 0};
    int ready;
    do ready = poll(&wanted, 1, 0);
    while (ready < 0 && errno == EINTR);
    return ready > 0 && (wanted.revents & POLLHUP) != 0;
}

bool MoveChannel(PipeChannel *channel, IoCall *call, DWORD *status) {
    InnerGuard guard(&channel->Lock);
    const bool read = call->Kind == RequestKind::kPipeRead;
    if (channel->Messages) return read ? ReadMessage(channel, call, status) : WriteMessage(channel, call, status);
    return read ? ReadBytes(channel, call, status) : WriteBytes(channel, call, status);
}

bool MovePipe(IoCall *call, DWORD *status) {
    if (call->Kind == RequestKind::kPipeConnect) return MoveConnect(call, status);
    return MoveChannel(static_cast<PipeChannel *>(call->Channel), call, status);
}

bool AccountPipe(IoCall *call, int64_t result, bool cancelled, DWORD *status) {
    if (cancelled || result == -ECANCELED) {
        *status = STATUS_CANCELLED;
        return true;
    }
    return MovePipe(call, status);
}

void DropChannel(IoCall *call) {
    PipeChannel *channel = static_cast<PipeChannel *>(call->Channel);
    call->Channel = nullptr;
    if (call->Kind == RequestKind::kPipeConnect) {
        PipeObject *pipe = static_cast<PipeObject *>(call->Target);
        InnerGuard guard(&pipe->Lock);
        pipe->Connecting = false;
    } else if (call->Kind == RequestKind::kPipeWrite && call->Offset != 0) {
        InnerGuard guard(&channel->Lock);
        if (channel->RestTicket == call->Offset) {
            // Cancelled in the middle of a message. Nothing can follow it, and its reader shall learn that.
            free(channel->Rest);
            channel->Rest = nullptr;
            channel->RestBegin = channel->RestEnd = channel->RestTicket = 0;
            syscall(SYS_shutdown, channel->Fd, SHUT_WR);
        }
    }
    UnrefObject(channel);
}

DWORD PeekChannel(PipeChannel *channel, bool messages, char *buffer, DWORD bytes, DWORD *read, DWORD *available,
                  DWORD *left) {
    InnerGuard guard(&channel->Lock);
    *read = *available = *left = 0;
    DWORD status = STATUS_SUCCESS;
    if (channel->Messages) {
        TakeHeaderLocked(channel, &status);
        if (IsFailure(status)) return status;
        if (channel->HeaderGot < kMessageHeader) return OtherEndGone(channel) ? EndStatus(channel, true) : status;
    }
    int queued = 0;
    ioctl(channel->Fd, FIONREAD, &queued);
    const uint32_t early = channel->EarlyBytes.load(std::memory_order_relaxed);
    const size_t there = early + static_cast<size_t>(queued > 0 ? queued : 0);
    char *all = static_cast<char *>(malloc(there + 1));
    if (all == nullptr) return StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
    if (early != 0) memcpy(all, channel->Early, early);
    const int64_t got = there == early ? 0 : Receive(channel, all + early, there - early, MSG_PEEK);
    const size_t have = early + static_cast<size_t>(got > 0 ? got : 0);
    if (!channel->Messages) {
        *available = static_cast<DWORD>(have);
        *read = bytes < have ? bytes : *available;
        if (*read != 0) memcpy(buffer, all, *read);
        if (have == 0 && OtherEndGone(channel)) status = EndStatus(channel, true);
    } else {
        // Message by message: what is there of each counts; in byte mode all of them are one text.
        uint64_t expected = channel->Left;
        bool first = true;
        for (size_t at = 0; at <= have;) {
            const size_t part = expected < have - at ? static_cast<size_t>(expected) : have - at;
            *available += static_cast<DWORD>(part);
            if (first || !messages) {
                const DWORD room = bytes - *read;
                const DWORD taken = room < part ? room : static_cast<DWORD>(part);
                if (taken != 0) memcpy(buffer + *read, all + at, taken);
                *read += taken;
            }
            if (first && messages) *left = static_cast<DWORD>(expected) - *read;
            first = false;
            at += part;
            if (have - at < kMessageHeader) break;
            uint32_t length;
            memcpy(&length, all + at, sizeof length);
            expected = length;
            at += kMessageHeader;
        }
    }
    free(all);
    return status;
}

}  // namespace os
