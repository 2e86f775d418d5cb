// platform/system/socket_events.cpp - network events of sockets, signalled to event objects.
//
// One thread of the process, started by the first WSAEventSelect and never ended, sleeps in an epoll set of the sockets
// that were asked about. What it finds it records in the socket's EventRecord and signals the event. An event that was
// recorded is not recorded again until the host has called the function that makes room for the next (FD_READ: a
// receive; FD_ACCEPT: an accept; FD_WRITE: a send that found no room); the end of that call has the set report anew.
// While receives or accepts are pending, what comes is theirs: it is reported once the last of them has ended.
//
// Records are never given back to the system, and the set knows them by index and generation, so that a report which
// was on its way when the socket was closed finds nothing. One lock guards all of it. System calls are made under it,
// none of which can block; a host with many sockets uses overlapped operations.
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <new>

#include "platform/system/socket.h"

namespace os {

// All fields [gEventsLock].
struct EventRecord {
    uint32_t Index = 0;
    uint32_t Generation = 0;  // raised when the record is taken
    EventRecord *NextFree = nullptr;
    SocketObject *Socket = nullptr;  // null while free; no reference: the socket ends its record
    Object *Event = nullptr;         // a reference
    LONG Mask = 0;                   // asked for
    LONG Recorded = 0;               // not enumerated yet
    LONG Disabled = 0;               // recorded and not re-enabled, or a pending call's
    int Errors[FD_MAX_EVENTS] = {};
};

namespace {

constexpr LONG kTaken = FD_READ | FD_ACCEPT;  // what pending calls take; a socket has one of them, as it listens or not
constexpr uint32_t kMaxRecords = 65536;
constexpr int kAtOnce = 64;

InnerLock gEventsLock;
EventRecord *gRecords[kMaxRecords];  // [gEventsLock]
uint32_t gRecordCount = 0;           // [gEventsLock]
EventRecord *gFreeRecords = nullptr;
std::atomic<int> gSet{-1};  // set once

int SocketError(int fd) {
    int error = 0;
    socklen_t length = sizeof error;
    syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

void Note(EventRecord *record, LONG *found, LONG event, int bit, DWORD error) {
    *found |= event;
    if ((record->Disabled & event) == 0) record->Errors[bit] = static_cast<int>(error);
}

// Data, the end, or neither: what a receive would find.
void LookForData(EventRecord *record, LONG *found) {
    SocketObject *socket = record->Socket;
    char byte;
    const long got = syscall(SYS_recvfrom, socket->Fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT, nullptr, nullptr);
    if (got > 0) {
        Note(record, found, FD_READ, FD_READ_BIT, 0);
    } else if (got == 0) {
        Note(record, found, FD_CLOSE, FD_CLOSE_BIT, (FlagsOf(socket) & kSocketReset) != 0 ? WSAECONNRESET : 0);
    } else if (errno != EAGAIN && errno != EINTR) {
        // The kernel tells it once; the host's own receive shall hear it too.
        if (errno == ECONNRESET) AddFlags(socket, kSocketReset);
        Note(record, found, FD_CLOSE, FD_CLOSE_BIT, SocketErrorOfErrno(errno));
    }
}

// [gEventsLock] What a report of the set means, by what the socket is.
LONG Interpret(EventRecord *record, uint32_t seen) {
    SocketObject *socket = record->Socket;
    LONG found = 0;
    const uint32_t flags = FlagsOf(socket);
    if ((flags & kSocketListening) != 0) {
        if ((seen & EPOLLIN) != 0) Note(record, &found, FD_ACCEPT, FD_ACCEPT_BIT, 0);
        return found;
    }
    if ((flags & (kSocketConnecting | kSocketConnected)) == kSocketConnecting) {
        const int error = SocketError(socket->Fd);
        if (error == 0 && !IsConnected(socket)) return 0;
        Note(record, &found, FD_CONNECT, FD_CONNECT_BIT, error == 0 ? 0 : SocketErrorOfErrno(error));
        if (error != 0) return found;
    } else if (!IsConnected(socket)) {
        return 0;
    } else if ((flags & kSocketConnecting) != 0) {
        // connect found its end itself.
        Note(record, &found, FD_CONNECT, FD_CONNECT_BIT, 0);
    }
    socket->Flags.fetch_and(~kSocketConnecting, std::memory_order_relaxed);
    if ((seen & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) LookForData(record, &found);
    if ((seen & EPOLLPRI) != 0) Note(record, &found, FD_OOB, FD_OOB_BIT, 0);
    if ((seen & EPOLLOUT) != 0) Note(record, &found, FD_WRITE, FD_WRITE_BIT, 0);
    return found;
}

void HandleReport(uint64_t tag, uint32_t seen) {
    const uint32_t index = static_cast<uint32_t>(tag >> 32);
    InnerGuard guard(&gEventsLock);
    EventRecord *record = gRecords[index];
    if (record->Socket == nullptr || record->Generation != static_cast<uint32_t>(tag)) return;
    const LONG found = Interpret(record, seen) & record->Mask & ~record->Disabled;
    if (found == 0) return;
    record->Recorded |= found;
    record->Disabled |= found;
    SetEventObject(record->Event);
}

void *WatchMain(void *) {
    pthread_setname_np(pthread_self(), "zvx-net-events");
    for (;;) {
        epoll_event reports[kAtOnce];
        const int count = epoll_wait(gSet.load(std::memory_order_relaxed), reports, kAtOnce, -1);
        for (int i = 0; i < count; i++) HandleReport(reports[i].data.u64, reports[i].events);
    }
}

// [gEventsLock] 0 or the reason.
DWORD StartWatchingLocked() {
    if (gSet.load(std::memory_order_relaxed) >= 0) return 0;
    const int set = epoll_create1(EPOLL_CLOEXEC);
    if (set < 0) return SocketErrorOfErrno(errno);
    gSet.store(set, std::memory_order_relaxed);
    const int error = StartHelperThread(WatchMain, nullptr);
    if (error == 0) return 0;
    gSet.store(-1, std::memory_order_relaxed);
    close(set);
    return WSAENOBUFS;
}

// [gEventsLock] Adds the record's socket to the set, or has it reported anew if it is ready.
bool ArmLocked(const EventRecord *record, int operation) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET;
    event.data.u64 = static_cast<uint64_t>(record->Index) << 32 | record->Generation;
    return epoll_ctl(gSet.load(std::memory_order_relaxed), operation, record->Socket->Fd, &event) == 0;
}

EventRecord *TakeRecordLocked() {
    if (EventRecord *record = gFreeRecords) {
        gFreeRecords = record->NextFree;
        return record;
    }
    if (gRecordCount == kMaxRecords) return nullptr;
    EventRecord *record = new (std::nothrow) EventRecord;
    if (record == nullptr) return nullptr;
    record->Index = gRecordCount;
    gRecords[gRecordCount++] = record;
    return record;
}

// [gEventsLock] The event whose reference the caller drops outside the lock.
Object *EndLocked(SocketObject *socket) {
    EventRecord *record = socket->Events.load(std::memory_order_relaxed);
    if (record == nullptr) return nullptr;
    epoll_ctl(gSet.load(std::memory_order_relaxed), EPOLL_CTL_DEL, socket->Fd, nullptr);
    Object *event = record->Event;
    record->Socket = nullptr;
    record->Event = nullptr;
    record->NextFree = gFreeRecords;
    gFreeRecords = record;
    socket->Events.store(nullptr, std::memory_order_release);
    return event;
}

// [gEventsLock] Begins anew with the event (whose reference it takes over when it succeeds) and the mask.
DWORD SelectLocked(SocketObject *socket, Object *event, LONG events, Object **old) {
    *old = nullptr;
    if (const DWORD error = StartWatchingLocked()) return error;
    EventRecord *record = socket->Events.load(std::memory_order_relaxed);
    int operation = EPOLL_CTL_MOD;
    if (record == nullptr) {
        record = TakeRecordLocked();
        if (record == nullptr) return WSAENOBUFS;
        operation = EPOLL_CTL_ADD;
    }
    *old = record->Event;
    record->Generation++;
    record->Socket = socket;
    record->Event = event;
    record->Mask = events;
    record->Recorded = 0;
    record->Disabled = socket->Takers != 0 ? kTaken : 0;
    memset(record->Errors, 0, sizeof record->Errors);
    socket->Events.store(record, std::memory_order_release);
    if (ArmLocked(record, operation)) return 0;
    const DWORD error = SocketErrorOfErrno(errno);
    EndLocked(socket);
    return error;
}

// The whole, for a socket with a descriptor. Takes over the reference on the event.
DWORD Select(SocketObject *socket, Object *event, LONG events) {
    socket->NonBlocking.store(true, std::memory_order_seq_cst);
    ApplyMode(socket);
    Object *old;
    DWORD error;
    {
        InnerGuard guard(&gEventsLock);
        error = SelectLocked(socket, event, events, &old);
    }
    if (old != nullptr) UnrefObject(old);
    if (error != 0) UnrefObject(event);
    return error;
}

// [gEventsLock]
void EnableLocked(const SocketObject *socket, LONG events) {
    EventRecord *record = socket->Events.load(std::memory_order_relaxed);
    if (record == nullptr) return;
    record->Disabled &= ~events;
    ArmLocked(record, EPOLL_CTL_MOD);
}

}  // namespace

void EnableEvents(SocketObject *socket, LONG events) {
    if (events == 0) return;
    InnerGuard guard(&gEventsLock);
    EnableLocked(socket, socket->Takers != 0 ? events & ~kTaken : events);
}

void DisableEvents(SocketObject *socket) {
    InnerGuard guard(&gEventsLock);
    socket->Takers++;
    if (EventRecord *record = socket->Events.load(std::memory_order_relaxed)) record->Disabled |= kTaken;
}

void ReenableEvents(const IoCall *call) {
    SocketObject *socket = static_cast<SocketObject *>(call->Target);
    InnerGuard guard(&gEventsLock);
    if (--socket->Takers == 0) EnableLocked(socket, kTaken);
}

void EndEvents(SocketObject *socket) {
    Object *event;
    {
        InnerGuard guard(&gEventsLock);
        event = EndLocked(socket);
    }
    if (event != nullptr) UnrefObject(event);
}

void InheritEvents(SocketObject *accepted, SocketObject *listener) {
    Object *event = nullptr;
    LONG events = 0;
    {
        InnerGuard guard(&gEventsLock);
        if (const EventRecord *record = listener->Events.load(std::memory_order_relaxed)) {
            event = record->Event;
            events = record->Mask;
            RefObject(event);
        }
    }
    if (event != nullptr) Select(accepted, event, events);
}

int WSAEventSelect(SOCKET s, WSAEVENT event, LONG events) {
    if (ShouldFail("WSAEventSelect")) return SOCKET_ERROR;
    constexpr LONG kKnown = FD_READ | FD_WRITE | FD_OOB | FD_ACCEPT | FD_CONNECT | FD_CLOSE;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    DWORD error = 0;
    if (events == 0) {
        EndEvents(socket);
    } else if ((events & ~kKnown) != 0 || event == nullptr) {
        error = WSAEINVAL;
    } else if (Object *object = RefHandle(event, ObjectType::kEvent)) {
        error = NeedDescriptor(socket);
        if (error == 0)
            error = Select(socket, object, events);
        else
            UnrefObject(object);
    } else {
        error = WSA_INVALID_HANDLE;
    }
    UnrefObject(socket);
    return error == 0 ? 0 : FailSocket(error);
}

int WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, WSANETWORKEVENTS *result) {
    if (ShouldFail("WSAEnumNetworkEvents")) return SOCKET_ERROR;
    if (result == nullptr) return FailSocket(WSAEFAULT);
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    Object *object = event == nullptr ? nullptr : RefHandle(event, ObjectType::kEvent);
    DWORD error = event != nullptr && object == nullptr ? WSAENOTSOCK : 0;
    if (error == 0) {
        memset(result, 0, sizeof *result);
        InnerGuard guard(&gEventsLock);
        // In one step with the look: what is recorded later signals again.
        if (object != nullptr) ResetEventObject(object);
        if (EventRecord *record = socket->Events.load(std::memory_order_relaxed)) {
            result->lNetworkEvents = record->Recorded;
            for (int bit = 0; bit < FD_MAX_EVENTS; bit++)
                if ((record->Recorded >> bit & 1) != 0) result->iErrorCode[bit] = record->Errors[bit];
            record->Recorded = 0;
        }
    }
    if (object != nullptr) UnrefObject(object);
    UnrefObject(socket);
    return error == 0 ? 0 : FailSocket(error);
}

int WSAAsyncSelect(SOCKET s, HANDLE window, DWORD message, LONG events) {
    static_cast<void>(window);
    static_cast<void>(message);
    static_cast<void>(events);
    if (ShouldFail("WSAAsyncSelect")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    UnrefObject(socket);
    return FailSocket(WSAEINVAL);
}

WSAEVENT WSACreateEvent() {
    if (ShouldFail("WSACreateEvent")) return WSA_INVALID_EVENT;
    return CreateEventA(nullptr, TRUE, FALSE, nullptr);
}

BOOL WSACloseEvent(WSAEVENT event) {
    if (ShouldFail("WSACloseEvent")) return FALSE;
    return CloseHandle(event);
}

BOOL WSAResetEvent(WSAEVENT event) {
    if (ShouldFail("WSAResetEvent")) return FALSE;
    return ResetEvent(event);
}

BOOL WSASetEvent(WSAEVENT event) {
    if (ShouldFail("WSASetEvent")) return FALSE;
    return SetEvent(event);
}

DWORD WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms, BOOL alertable) {
    if (ShouldFail("WSAWaitForMultipleEvents")) return WSA_WAIT_FAILED;
    // The results have the same numbers.
    return WaitForMultipleObjectsEx(count, events, waitAll, ms, alertable);
}

}  // namespace os
