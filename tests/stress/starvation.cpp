// tests/stress/starvation.cpp - keeps all six run queues of a scheduler busy and measures how long a runnable user
// thread waits in each.
//
// The workers of a queue come in pairs: one makes the other runnable and waits for the same. So no queue is empty, and
// a scheduler that only went by rank would never serve the lower ones. Every pair rests now and then, so that each
// queue is the highest busy one for a while. A wait is counted in selection passes of the scheduler, which the load of
// the machine does not change.
#include "postwait/postwait.h"
#include "sched/internal.h"
#include "stress.h"

namespace {

using namespace zvx;
using namespace stress;

constexpr uint32_t kQueues = 6, kPairs = 3, kMostWorkers = 256;
// Whoever is to come into a queue; all without a class come into the last.
constexpr const char *kTags[kQueues] = {"LGWR", "SHAD", "SHAD", "SHAD", "DBW0", nullptr};

struct Worker {
    Fiber *Gated;        // waits for its partner
    uint32_t SincePass;  // runnable since
};

// The workers of one scheduler, touched by its thread alone.
struct Group {
    Worker Workers[kMostWorkers];
    uint32_t Count;
    uint64_t Waits[kQueues];
    uint32_t Longest[kQueues];
};
Group gGroups[16];
std::atomic<bool> gStop{false};

DWORD Work(void *) {
    Fiber *F = CallingFiber();
    Scheduler *S = SchedOf(F);
    Group *group = &gGroups[S->Index];
    const uint32_t number = group->Count++, queue = number / 2 % kQueues;
    if (number >= kMostWorkers) Fail("too many workers on a scheduler", number);
    Worker *self = &group->Workers[number], *partner = &group->Workers[number ^ 1];
    const auto pass = [=] { return S->SwitchCount.load(std::memory_order_relaxed); };
    const auto open = [=] {
        Fiber *other = std::exchange(partner->Gated, nullptr);
        partner->SincePass = pass();
        UnlinkTimedWaiter(S, other);
        if (MakeRunnable(S, other, queue) != queue) Fail("a worker is in another queue than its own", queue);
    };
    const auto wait = [=] {
        self->Gated = F;
        F->WaitTimeoutMs = INFINITE;
        SchedYield(F, Yield_TIMER_WAIT);
        group->Waits[queue]++;
        group->Longest[queue] = std::max(group->Longest[queue], pass() - self->SincePass);
    };
    if (kTags[queue] != nullptr) IdentifyUserThread(kTags[queue], os::CreateEventA(nullptr, FALSE, FALSE, nullptr));
    if (number % 2 != 0) wait();
    while (partner->Gated == nullptr && !gStop.load()) Sleep(1);
    for (uint32_t turns = 1; !gStop.load(std::memory_order_relaxed); ++turns) {
        open();
        wait();
        if (turns % 4000 == 0) Sleep(3);
    }
    if (partner->Gated != nullptr) open();
    if (kTags[queue] != nullptr) UnidentifyUserThread(0);
    return 0;
}

// The most passes between a thread's becoming runnable and its turn:
//   - at most kFullSweepPasses + 1 until a full sweep, because that is what they are counted up to. An idle pass, which
//     starts the count again, comes only when nobody waits;
//   - the sweep puts everything runnable on the ready list, which is served to its end before any queue, one thread a
//     pass. Whoever is on it stands behind at most all other threads of the scheduler and its init fiber;
//   - 1 because a thread that becomes runnable within a pass counts from that pass's begin.
// The list is empty again before the next sweep, because there are fewer threads than passes between two.
uint32_t Bound(uint32_t scheduler) {
    const uint32_t threads = gSchedulers[scheduler]->FiberCount.load() + 1;
    if (threads >= kFullSweepPasses) Fail("the bound holds for fewer threads", threads);
    return kFullSweepPasses + 1 + threads + 1;
}

DWORD MainRoutine(void *) {
    std::vector<HANDLE> threads(kPairs * 2 * kQueues * gNumSchedulers);
    for (HANDLE &thread : threads) thread = Start(Work);
    Sleep(gSeconds * 1000);
    uint32_t bounds[16];
    for (uint32_t i = 0; i < gNumSchedulers; ++i) bounds[i] = Bound(i);
    gStop = true;
    for (const HANDLE thread : threads) Join(thread, 0);
    bool good = true;
    for (uint32_t i = 0; i < gNumSchedulers; ++i) {
        for (uint32_t queue = 0; queue < kQueues; ++queue) {
            const uint64_t waits = gGroups[i].Waits[queue];
            const uint32_t longest = gGroups[i].Longest[queue];
            std::printf("starvation: scheduler %u, queue %u: %9llu waits, longest %5u passes of at most %u%s\n", i,
                        queue, static_cast<unsigned long long>(waits), longest, bounds[i],
                        waits < 100 ? "  NOT SERVED" : "");
            good &= waits >= 100 && longest <= bounds[i];
        }
    }
    std::fflush(stdout);
    if (!good) Fail("a runnable thread waited too long, or a queue was not served");
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    return Main(argc, argv, {"Schedulers=2", "StackPages=16"}, MainRoutine);
}
