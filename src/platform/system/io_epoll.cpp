// platform/system/io_epoll.cpp - the engine where rings are refused: readiness, and a pool for files.
//
// Descriptors that the kernel reports readiness for (FIFOs, terminals, sockets) are tried without blocking, and a
// request that would block is parked in the descriptor's watch until an edge is reported; they never occupy a file
// thread. Everything else goes to the pool. A descriptor is entered in the engine's set once, edge-triggered for both
// directions, so that an operation costs no epoll_ctl: what was ready before the request was parked is found by the
// try itself, what becomes ready afterwards is an edge.
//
// The owner of the engine runs all of this. The two words of IoNeedsAttention are the number of requests that the
// file threads have pushed, and one that is set while requests are parked: readiness has no word in memory, so the
// owner must come here to ask.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "platform/system/socket.h"

namespace os {

struct EpollState {
    int SetFd;
    uint32_t Parked;              // requests in streams
    uint32_t CallsWaited;         // reaps since the set was last asked
    std::atomic<uint32_t> Tasks;  // Io.Tasks: 1 while Parked is not 0
};

namespace {

constexpr uint64_t kWakeTag = UINT64_MAX;
// Asking costs a microsecond; once in 16 calls of a busy owner that is 60 ns a call, and readiness is noticed within a
// few microseconds.
constexpr uint32_t kAskCalls = 16;
constexpr int kEventsAtOnce = 64;

void CountParked(EpollState *state, int by) {
    state->Parked += static_cast<uint32_t>(by);
    state->Tasks.store(state->Parked != 0, std::memory_order_relaxed);
}

epoll_event EventOf(const IoObject *object) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLPRI | EPOLLRDHUP | EPOLLET;
    event.data.u64 = static_cast<uint64_t>(object->Serial) << 32 | static_cast<uint32_t>(object->Fd);
    return event;
}

// Enters the object in the set. The set forgot what had the number before when that was closed. False when the kernel
// has no room for it now. What it cannot watch at all goes to the file threads; nothing else may, because an operation
// that waits there for its peer can be neither cancelled nor ended.
bool Watch(EpollState *state, Stream *stream, const IoObject *object) {
    // From now on it is tried before it is waited for. Only overlapped handles come here, so no blocking call is hurt,
    // and a ring of another thread waits for such a descriptor all the same. Sockets are told with each call.
    const int flags = object->Type == ObjectType::kSocket ? O_NONBLOCK : fcntl(object->Fd, F_GETFL);
    if ((flags & O_NONBLOCK) == 0) fcntl(object->Fd, F_SETFL, flags | O_NONBLOCK);
    epoll_event event = EventOf(object);
    int result = -1;
    errno = ShouldFailInside("epoll_ctl");
    if (errno == 0) result = epoll_ctl(state->SetFd, EPOLL_CTL_ADD, object->Fd, &event);
    // Still there under its old name when a child process kept the descriptor open.
    if (result != 0 && errno == EEXIST) result = epoll_ctl(state->SetFd, EPOLL_CTL_MOD, object->Fd, &event);
    stream->Refused = result != 0 && errno == EPERM;
    stream->Watched = result == 0 || stream->Refused;
    return stream->Watched;
}

// Makes the kernel report the descriptor once more if it is ready.
void AskAgain(EpollState *state, const IoObject *object) {
    epoll_event event = EventOf(object);
    epoll_ctl(state->SetFd, EPOLL_CTL_MOD, object->Fd, &event);
}

// A receive that got less than it asked for has emptied the stream: the next one has to wait for a report anyway, and
// is spared a call that would only say so. (Of datagrams it got one, and more may be there.) The end, an error and
// urgent data may have been reported together with what was received, and are not reported again.
void NoteDrained(Engine *engine, const IoCall &call) {
    Stream *stream = &engine->Streams[call.Target->Fd];
    stream->Drained[DirectionOf(call.Kind)] = !stream->Unsure;
}

// Makes the call without blocking until it is final (true, Status) or would block.
bool Attempt(Engine *engine, Request *request) {
    IoCall *call = &request->Call;
    if (IsPipeKind(call->Kind)) return MovePipe(call, &request->Status);
    if (IsSocketKind(call->Kind)) {
        for (;;) {
            const uint32_t left = call->Count - call->Done;
            const int64_t moved = MoveSocket(call, MSG_DONTWAIT);
            if (moved == -EAGAIN) {
                NoteDrained(engine, *call);
                return false;
            }
            if (!AccountTransfer(call, moved, false, &request->Status)) continue;
            if (call->Kind == RequestKind::kReceive && moved > 0 && moved < left && (call->MsgFlags & MSG_PEEK) == 0 &&
                static_cast<const SocketObject *>(call->Target)->SocketType == SOCK_STREAM)
                NoteDrained(engine, *call);
            return true;
        }
    }
    for (;;) {
        char *at = call->Buffer + call->Done;
        const size_t left = ShortOf(call->Count - call->Done);
        const int fd = call->Target->Fd;
        const ssize_t moved = call->Kind == RequestKind::kRead ? read(fd, at, left) : write(fd, at, left);
        if (moved < 0 && errno == EAGAIN) return false;
        if (AccountTransfer(call, moved < 0 ? -errno : moved, false, &request->Status)) return true;
    }
}

// An edge: tries the parked requests of one direction in their order until one would block.
void TryParked(Engine *engine, uint32_t index, uint32_t direction) {
    engine->Streams[index].Drained[direction] = false;
    // Ending a request may enlarge the table of streams, so nothing of it is kept over that.
    while (Request *request = engine->Streams[index].Head[direction]) {
        if (!Attempt(engine, request)) return;
        CountParked(engine->Epoll, -1);
        EndRequest(engine, request);
    }
}

// Asks the set, sleeping at most `ms`. False when nothing was reported.
bool Ask(Engine *engine, int ms) {
    EpollState *state = engine->Epoll;
    state->CallsWaited = 0;
    epoll_event events[kEventsAtOnce];
    const int count = ShouldFailInside("epoll_wait") != 0 ? -1 : epoll_wait(state->SetFd, events, kEventsAtOnce, ms);
    for (int i = 0; i < count; i++) {
        const uint64_t tag = events[i].data.u64;
        // The eventfd is edge-triggered too: every write is reported, and its count is of no interest.
        if (tag == kWakeTag) continue;
        const uint32_t index = static_cast<uint32_t>(tag);
        if (engine->Streams[index].Serial != tag >> 32) continue;
        const uint32_t seen = events[i].events;
        if ((seen & (EPOLLPRI | EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0) engine->Streams[index].Unsure = true;
        if ((seen & (EPOLLIN | EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0) TryParked(engine, index, 0);
        if ((seen & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0) TryParked(engine, index, 1);
    }
    return count != 0;
}

bool EpollOpen(Engine *engine) {
    if (engine->Epoll == nullptr) engine->Epoll = static_cast<EpollState *>(calloc(1, sizeof(EpollState)));
    EpollState *state = engine->Epoll;
    if (state == nullptr) {
        errno = ENOMEM;
        return false;
    }
    errno = ShouldFailInside("epoll_create");
    state->SetFd = errno != 0 ? -1 : epoll_create1(EPOLL_CLOEXEC);
    if (state->SetFd < 0) return false;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = kWakeTag;
    if (epoll_ctl(state->SetFd, EPOLL_CTL_ADD, engine->WakeFd, &event) != 0) {
        close(state->SetFd);
        return false;
    }
    state->Parked = state->CallsWaited = 0;
    state->Tasks.store(0, std::memory_order_relaxed);
    engine->Io.Tail = &engine->DoneCount;
    engine->Io.Head = engine->DoneCount.load(std::memory_order_relaxed);
    engine->Io.Tasks = &state->Tasks;
    engine->Io.TaskMask = 1;
    return true;
}

void EpollClose(Engine *engine) {
    close(engine->Epoll->SetFd);
}

bool EpollStart(Engine *engine, Request *request) {
    EpollState *state = engine->Epoll;
    IoObject *object = DescriptorOf(request->Call);
    if (request->Call.Kind == RequestKind::kAccept) NeverBlock(object);  // accepting has no flag of its own for that
    Stream *stream = object->Pollable ? StreamOf(engine, object) : nullptr;
    if (object->Pollable && (stream == nullptr || (!stream->Watched && !Watch(state, stream, object)))) {
        request->Status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
        return true;
    }
    if (stream == nullptr || stream->Refused) {
        PoolSubmit(request);
        return false;
    }
    // Not past those that wait already, and not at once when the caller shall wait.
    const uint32_t direction = DirectionOf(request->Call.Kind);
    const bool first = stream->Head[direction] == nullptr;
    if (first && !request->Call.Later && !stream->Drained[direction] && Attempt(engine, request)) return true;
    AppendToStream(stream, request);
    request->Stage.store(RequestStage::kParked, std::memory_order_relaxed);
    CountParked(state, 1);
    if (first && request->Call.Later) AskAgain(state, object);
    return false;
}

void EpollCancel(Engine *engine, Request *request) {
    if (request->InStream) {
        // Those behind it wait for the same readiness that it did not find.
        RemoveFromStream(engine, request);
        CountParked(engine->Epoll, -1);
    } else if (!PoolWithdraw(request)) {
        return;  // a file thread has it: it ends with what the call gives, or between two calls
    }
    request->Status = STATUS_CANCELLED;
    PushDone(engine, request);
}

void EpollReap(Engine *engine) {
    EpollState *state = engine->Epoll;
    if (state->Parked != 0 && ++state->CallsWaited >= kAskCalls) Ask(engine, 0);
}

void EpollSubmit(Engine *) {}

bool EpollWait(Engine *engine, int64_t ns) {
    const int64_t ms = ns < 0 ? -1 : (ns + 999999) / 1000000;
    const bool timedOut = !Ask(engine, ms > INT32_MAX ? INT32_MAX : static_cast<int>(ms));
    ReapDone(engine);
    return timedOut;
}

}  // namespace

constexpr EngineOps kEpollOps{"epoll",     EpollOpen, EpollClose,  EpollStart, nullptr,
                              EpollCancel, EpollReap, EpollSubmit, EpollWait};

}  // namespace os
