// tests/stress/starvation.cpp - keeps all six run queues of a scheduler busy and measures how long a runnable user
// thread waits in each.
//
// The workers of a queue come in pairs that wake each other without end, so that a queue of higher rank is hardly ever
// empty and a scheduler that only went by rank would never serve the lower ones. The pairs of the two highest rest now
// and then, so that every queue is the highest busy one for a while.
//
// A wait is counted in selection passes of the scheduler, which the load of the machine does not change. When a thread
// became runnable is seen by the worker that runs next: every worker looks at all others of its scheduler after each of
// its waits.
#include "kernel/file.h"
#include "postwait/postwait.h"
#include "sched/internal.h"
#include "stress.h"

namespace {

using namespace zvx;
using namespace stress;

constexpr uint32_t kQueues = 6, kMostPairs = 8, kMostWorkers = kQueues * kMostPairs * 2;
constexpr const char *kNames[kQueues] = {"high", "post", "file", "socket", "writers", "others"};
constexpr const char *kTags[kQueues] = {"LGWR", "SHAD", "SHAD",
                                        "SHAD", "DBW0", nullptr};  // without a class all go to the last
constexpr uint32_t kNeverServed = 100 * kFullSweepPasses;
constexpr DWORD kBlockBytes = 4096;

struct Worker {
    uint32_t Queue;
    Worker *Partner;
    struct Group *Of;
    Fiber *Self;  // set by itself before it waits for the first time
    HANDLE Event;
    SOCKET Socket;
    bool Runnable;  // seen by another worker, and since when
    uint32_t SincePass;
};

// The workers of one scheduler; touched by its thread alone once they run.
struct Group {
    Scheduler *S;
    Worker Workers[kMostWorkers];
    uint32_t Count;
    uint64_t Waits[kQueues];
    uint64_t Busy[kQueues];     // looks that found the queue not empty
    uint32_t Longest[kQueues];  // in passes
};
Group gGroups[16];
std::atomic<bool> gStop{false};
std::atomic<uint32_t> gRunning{0};

// The wait of a worker in its queue has ended: at pass `ran` it had its turn.
void EndWait(Worker *w, uint32_t ran) {
    w->Runnable = false;
    w->Of->Waits[w->Queue]++;
    uint32_t *longest = &w->Of->Longest[w->Queue];
    *longest = std::max(*longest, ran - w->SincePass);
}

// After each wait of a worker: its own wait in the queue has ended, those of others may have begun. A call may park its
// thread more than once; the turn between two waits is seen by whoever looks next.
void Look(Worker *self) {
    Group *group = self->Of;
    const uint32_t pass = group->S->SwitchCount.load(std::memory_order_relaxed);
    if (self->Runnable) EndWait(self, pass);
    for (uint32_t queue = 0; queue < kQueues; ++queue) group->Busy[queue] += group->S->RunQueues[queue].Count != 0;
    for (uint32_t i = 0; i < group->Count; ++i) {
        Worker *other = &group->Workers[i];
        if (other == self || other->Self == nullptr) continue;
        const uint32_t ran = other->Self->LastRunStamp;
        if (other->Runnable && static_cast<int32_t>(ran - other->SincePass) > 0) EndWait(other, ran);
        if (other->Runnable && pass - other->SincePass > kNeverServed)
            Fail(kNames[other->Queue], pass - other->SincePass);  // not to be judged later, for that needs a turn too
        const uint32_t state = other->Self->State;
        if (other->Runnable || (state != FSTATE_READY && state != FSTATE_YIELDED && state != FSTATE_POSTING)) continue;
        other->Runnable = true;
        other->SincePass = pass - 1;  // it was not yet when the pass before began
    }
}

void PostEachOther(Worker *self) {
    for (uint32_t turns = 1; !gStop.load(std::memory_order_relaxed); ++turns) {
        PostUserThread(self->Partner->Event);
        WaitForUserThreadPost(self->Event, 20);
        Look(self);
        if (turns % 4000 != 0 || (self->Queue != gHPRQ && self->Queue != gLPRQ)) continue;
        WaitForUserThreadPost(self->Event, 3);
        Look(self);
    }
}

void ReadAgainAndAgain(Worker *self) {
    const HANDLE file = CreateFileA(gFileName.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_NO_BUFFERING, nullptr);
    if (file == INVALID_HANDLE_VALUE) Fail("CreateFileA", os::GetLastError());
    char *buffer = static_cast<char *>(std::aligned_alloc(kBlockBytes, kBlockBytes));
    for (uint32_t i = 0; !gStop.load(std::memory_order_relaxed); ++i) {
        OVERLAPPED where{};
        where.Offset = i * kBlockBytes % kFileBytes;
        DWORD got = 0;
        if (!ReadFile(file, buffer, kBlockBytes, &got, &where) || got != kBlockBytes)
            Fail("ReadFile", os::GetLastError(), got);
        Look(self);
    }
    std::free(buffer);
    CloseHandle(file);
}

void SendEachOther(Worker *self) {
    char byte = 'b';
    if (self < self->Partner && zvx::send(self->Socket, &byte, 1, 0) != 1) Fail("send", os::GetLastError());
    while (zvx::recv(self->Socket, &byte, 1, 0) == 1) {
        Look(self);
        if (gStop.load(std::memory_order_relaxed)) break;
        if (zvx::send(self->Socket, &byte, 1, 0) != 1) break;  // the partner has ended
    }
    zvx::closesocket(self->Socket);
}

DWORD Work(void *param);

void StartWorker(Worker *w) {
    const HANDLE thread = ZCreateThreadWithAffinity(nullptr, 0, Work, w, 0, nullptr, w->Of->S->AffinityMask);
    if (thread == nullptr) Fail("CreateThread", os::GetLastError());
    gRunning.fetch_add(1);
    CloseHandle(thread);
}

DWORD Work(void *param) {
    auto *self = static_cast<Worker *>(param);
    if (SchedOf(CallingFiber()) != self->Of->S) {
        // Schedulers share a processor. While this thread stays, the other one has less load and gets the next.
        StartWorker(self);
        while (!gStop.load()) Sleep(50);
        gRunning.fetch_sub(1);
        return 0;
    }
    if (kTags[self->Queue] != nullptr) IdentifyUserThread(kTags[self->Queue], self->Event);
    self->Self = CallingFiber();
    if (self->Queue == gFRQ)
        ReadAgainAndAgain(self);
    else if (self->Queue == gSRQ)
        SendEachOther(self);
    else if (self->Queue == gORQ)
        for (; !gStop.load(std::memory_order_relaxed); Look(self)) Sleep(0);
    else
        PostEachOther(self);
    self->Self = nullptr;
    if (kTags[self->Queue] != nullptr) UnidentifyUserThread(0);
    gRunning.fetch_sub(1);
    return 0;
}

void ConnectPair(SOCKET listener, uint16_t port, Worker *a, Worker *b) {
    a->Socket = zvx::socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in name = Loopback(port);
    if (os::connect(a->Socket, reinterpret_cast<const sockaddr *>(&name), sizeof name) != 0)
        Fail("connect", os::GetLastError());
    b->Socket = zvx::accept(listener, nullptr, nullptr);
    if (b->Socket == INVALID_SOCKET) Fail("accept", os::GetLastError());
    const int one = 1;
    for (const Worker *w : {a, b})
        os::setsockopt(w->Socket, IPPROTO_TCP, ZVX_TCP_NODELAY, reinterpret_cast<const char *>(&one), sizeof one);
}

void MakeGroup(Group *group, Scheduler *S, SOCKET listener, uint16_t port) {
    group->S = S;
    for (uint32_t queue = 0; queue < kQueues; ++queue) {
        for (uint32_t i = 0; i < gOptions.Load * 2; ++i) {
            Worker *w = &group->Workers[group->Count++];
            w->Queue = queue;
            w->Of = group;
            w->Partner = i % 2 == 0 ? w + 1 : w - 1;
            w->Event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
            if (queue == gSRQ && i % 2 == 1) ConnectPair(listener, port, w->Partner, w);
        }
    }
    for (uint32_t i = 0; i < group->Count; ++i) StartWorker(&group->Workers[i]);
}

// The most passes between a thread's becoming runnable and its turn:
//   - at most kFullSweepPasses + 1 until a full sweep, because that is what they are counted up to. An idle pass, which
//     starts the count again, comes only when nobody waits;
//   - the sweep puts everything runnable on the ready list, which is served to its end before any queue, one thread a
//     pass. Whoever is on it stands behind at most all other threads of the scheduler and its init fiber;
//   - 2 for what is seen late: a thread that becomes runnable within a pass counts from that pass's begin.
// The list is empty again before the next sweep, because there are fewer threads than passes between two.
uint32_t Bound(const Group &group) {
    const uint32_t threads = group.S->FiberCount.load() + 1;
    if (threads >= kFullSweepPasses) Fail("the bound holds for fewer threads", threads);
    return kFullSweepPasses + 1 + threads + 2;
}

bool Judge(const Group &group, uint32_t bound) {
    bool good = true;
    for (uint32_t queue = 0; queue < kQueues; ++queue) {
        const bool late = group.Longest[queue] > bound, unused = group.Waits[queue] < 100 || group.Busy[queue] < 100;
        std::printf("starvation: scheduler %u, %-8s %9llu waits, longest %5u passes of at most %u%s%s\n",
                    group.S->Index, kNames[queue], static_cast<unsigned long long>(group.Waits[queue]),
                    group.Longest[queue], bound, late ? "  TOO LONG" : "", unused ? "  NOT BUSY" : "");
        good &= !late && !unused;
    }
    return good;
}

DWORD MainRoutine(void *) {
    MakeFile();
    uint16_t port;
    const SOCKET listener = Listen(&port, WSA_FLAG_OVERLAPPED);
    for (uint32_t i = 0; i < gNumSchedulers; ++i) MakeGroup(&gGroups[i], gSchedulers[i], listener, port);

    Sleep(gOptions.Seconds * 1000);
    uint32_t bounds[16];
    for (uint32_t i = 0; i < gNumSchedulers; ++i) bounds[i] = Bound(gGroups[i]);
    gStop = true;
    for (int i = 0; i < 3000 && gRunning.load() != 0; ++i) Sleep(20);
    if (gRunning.load() != 0) Fail("workers do not end", gRunning.load());
    std::remove(gFileName.c_str());
    bool good = true;
    for (uint32_t i = 0; i < gNumSchedulers; ++i) good &= Judge(gGroups[i], bounds[i]);
    std::fflush(stdout);
    if (!good) Fail("a runnable thread waited too long, or a queue was not busy");
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Load = 3;
    return Main(argc, argv, "--pairs", kMostPairs, MainRoutine);
}
