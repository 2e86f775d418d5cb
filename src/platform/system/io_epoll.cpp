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
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "platform/system/io_engine.h"

namespace os {

namespace {

// The requests of one descriptor. Found by descriptor number; Serial tells whether it is still the same object.
struct Watch {
    uint32_t Serial;   // 0: never used; object of this serial is in the set, or was refused by it
    bool Refused;      // the kernel reports no readiness for it (a device like /dev/null): the pool serves it
    Request *Head[2];  // parked requests by direction, oldest first: reads, writes
    Request *Tail[2];
};

}  // namespace

struct EpollState {
    int SetFd;
    uint32_t WatchLimit;
    Watch *Watches;               // by descriptor; grows, never shrinks
    uint32_t Parked;              // requests in watches
    uint32_t CallsWaited;         // reaps since the set was last asked
    std::atomic<uint32_t> Tasks;  // Io.Tasks: 1 while Parked is not 0
};

namespace {

constexpr uint64_t kWakeTag = UINT64_MAX;
// Asking costs some 300 ns; once in 16 calls of a busy owner that is 20 ns a call, and readiness is noticed within a
// few microseconds.
constexpr uint32_t kAskCalls = 16;
constexpr int kEventsAtOnce = 64;

int DirectionOf(const Request *request) {
    return request->Call.Kind == RequestKind::kRead ? 0 : 1;
}

void CountParked(EpollState *state, int by) {
    state->Parked += static_cast<uint32_t>(by);
    state->Tasks.store(state->Parked != 0, std::memory_order_relaxed);
}

// The watch of an object, entered in the set if need be; null without memory.
Watch *WatchOf(EpollState *state, const IoObject *object) {
    const uint32_t index = static_cast<uint32_t>(object->Fd);
    if (index >= state->WatchLimit) {
        uint32_t limit = state->WatchLimit == 0 ? 64 : state->WatchLimit;
        while (limit <= index) limit *= 2;
        Watch *grown = static_cast<Watch *>(realloc(state->Watches, limit * sizeof(Watch)));
        if (grown == nullptr) return nullptr;
        memset(static_cast<void *>(grown + state->WatchLimit), 0, (limit - state->WatchLimit) * sizeof(Watch));
        state->Watches = grown;
        state->WatchLimit = limit;
    }
    Watch *watch = &state->Watches[index];
    if (watch->Serial == object->Serial) return watch;
    // Another object had this number. Its requests have ended, or it would still hold the number; and the set forgot
    // it when it was closed.
    *watch = Watch{};
    watch->Serial = object->Serial;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.u64 = static_cast<uint64_t>(object->Serial) << 32 | index;
    int result = epoll_ctl(state->SetFd, EPOLL_CTL_ADD, object->Fd, &event);
    // Still there under its old name when a child process kept the descriptor open.
    if (result != 0 && errno == EEXIST) result = epoll_ctl(state->SetFd, EPOLL_CTL_MOD, object->Fd, &event);
    watch->Refused = result != 0;
    return watch;
}

// Makes the kernel report the descriptor once more if it is ready.
void AskAgain(EpollState *state, const IoObject *object) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.u64 = static_cast<uint64_t>(object->Serial) << 32 | static_cast<uint32_t>(object->Fd);
    epoll_ctl(state->SetFd, EPOLL_CTL_MOD, object->Fd, &event);
}

// Makes the call without blocking until it is final (true, Status) or would block.
bool Attempt(Request *request) {
    IoCall *call = &request->Call;
    for (;;) {
        char *at = call->Buffer + call->Done;
        const size_t left = call->Count - call->Done;
        const int fd = call->Target->Fd;
        const ssize_t moved = call->Kind == RequestKind::kRead ? read(fd, at, left) : write(fd, at, left);
        if (moved < 0 && errno == EAGAIN) return false;
        if (AccountTransfer(call, moved < 0 ? -errno : moved, false, &request->Status)) return true;
    }
}

void Park(EpollState *state, Watch *watch, Request *request) {
    const int direction = DirectionOf(request);
    request->Stage.store(RequestStage::kParked, std::memory_order_relaxed);
    request->QueueNext = nullptr;
    if (watch->Tail[direction] != nullptr)
        watch->Tail[direction]->QueueNext = request;
    else
        watch->Head[direction] = request;
    watch->Tail[direction] = request;
    CountParked(state, 1);
}

// An edge: tries the parked requests of one direction in their order until one would block.
void TryParked(Engine *engine, uint32_t index, int direction) {
    EpollState *state = engine->Epoll;
    // Ending a request may enlarge the array of watches, so nothing of it is kept over that.
    while (Request *request = state->Watches[index].Head[direction]) {
        if (!Attempt(request)) return;
        Watch *watch = &state->Watches[index];
        watch->Head[direction] = request->QueueNext;
        if (request->QueueNext == nullptr) watch->Tail[direction] = nullptr;
        CountParked(state, -1);
        EndRequest(engine, request);
    }
}

// Asks the set, sleeping at most `ms`. False when nothing was reported.
bool Ask(Engine *engine, int ms) {
    EpollState *state = engine->Epoll;
    state->CallsWaited = 0;
    epoll_event events[kEventsAtOnce];
    const int count = epoll_wait(state->SetFd, events, kEventsAtOnce, ms);
    for (int i = 0; i < count; i++) {
        const uint64_t tag = events[i].data.u64;
        // The eventfd is edge-triggered too: every write is reported, and its count is of no interest.
        if (tag == kWakeTag) continue;
        const uint32_t index = static_cast<uint32_t>(tag);
        if (state->Watches[index].Serial != tag >> 32) continue;
        const uint32_t seen = events[i].events;
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
    state->SetFd = epoll_create1(EPOLL_CLOEXEC);
    if (state->SetFd < 0) return false;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.u64 = kWakeTag;
    if (epoll_ctl(state->SetFd, EPOLL_CTL_ADD, engine->WakeFd, &event) != 0) {
        close(state->SetFd);
        return false;
    }
    if (state->WatchLimit != 0) memset(static_cast<void *>(state->Watches), 0, state->WatchLimit * sizeof(Watch));
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
    const IoObject *object = request->Call.Target;
    if (object->Pollable) {
        Watch *watch = WatchOf(state, object);
        if (watch == nullptr) {
            request->Status = StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
            return true;
        }
        if (!watch->Refused) {
            // Not past those that wait already, and not at once when the caller shall wait.
            const bool first = watch->Head[DirectionOf(request)] == nullptr;
            if (first && !request->Call.Later && Attempt(request)) return true;
            Park(state, watch, request);
            if (request->Call.Later) AskAgain(state, object);
            return false;
        }
    }
    PoolSubmit(request);
    return false;
}

void EpollCancel(Engine *engine, Request *request) {
    if (request->Stage.load(std::memory_order_relaxed) == RequestStage::kParked) {
        EpollState *state = engine->Epoll;
        Watch *watch = &state->Watches[request->Call.Target->Fd];
        const int direction = DirectionOf(request);
        Request *before = nullptr;
        for (Request *at = watch->Head[direction]; at != request; at = at->QueueNext) before = at;
        if (before != nullptr)
            before->QueueNext = request->QueueNext;
        else
            watch->Head[direction] = request->QueueNext;
        if (request->QueueNext == nullptr) watch->Tail[direction] = before;
        CountParked(state, -1);
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

constexpr EngineOps kEpollOps{"epoll",     EpollOpen, EpollClose,  EpollStart,
                              EpollCancel, EpollReap, EpollSubmit, EpollWait};

}  // namespace os
