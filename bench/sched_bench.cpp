// bench/sched_bench.cpp - what the scheduler costs: a yield, a user thread's life, a wait for its end, a sleep, a
// post and a wait for it, a critical section.
//
// Every case runs as the first user thread of a host and ends the process. The calls are the exported functions, by
// their names inside the library.
#include "bench/host.h"
#include "kernel/critsec.h"
#include "kernel/wait.h"
#include "postwait/postwait.h"

namespace {

using namespace bench;

std::string Named(const char *name, uint32_t number) {
    std::string text = std::string(name) + "/" + std::to_string(number);
    if (gOptions.Schedulers > 1) text += "/schedulers_" + std::to_string(gOptions.Schedulers);
    return text;
}

// ---- Yield -------------------------------------------------------------------------------------------

DWORD Yielder(void *) {
    for (;;) zvx::Sleep(0);
}

// The leader is one of the threads: between two of its turns every other one had one. The scheduler's own fiber has
// a turn too in every lap, which is not counted as a yield.
double YieldLaps(uint64_t yields) {
    const uint64_t laps = (yields + gOptions.Threads - 1) / gOptions.Threads;
    const double start = NowNs();
    for (uint64_t i = 0; i < laps; ++i) zvx::Sleep(0);
    const double took = NowNs() - start;
    return took * static_cast<double>(yields) / static_cast<double>(laps * gOptions.Threads);
}

// --threads on each scheduler; what is measured is the leader's.
void YieldCase() {
    const uint32_t all = gOptions.Threads * gOptions.Schedulers;
    for (uint32_t i = 1; i < all; ++i) CreateAndForget(Yielder);
    for (int i = 0; i < 8; ++i) zvx::Sleep(0);
    Measure(gOptions, Named("yield", gOptions.Threads), YieldLaps, gOptions.Threads * 4);
}

// ---- Creation and end --------------------------------------------------------------------------------

std::atomic<uint64_t> gEnded;

DWORD CountAndEnd(void *) {
    gEnded.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void AwaitEnded(uint64_t target) {
    while (gEnded.load(std::memory_order_relaxed) < target) zvx::Sleep(0);
}

// --threads are created, then all of them run and end, and so on.
double CreateBatches(uint64_t n) {
    const double start = NowNs();
    uint64_t done = 0;
    const uint64_t before = gEnded.load(std::memory_order_relaxed);
    while (done < n) {
        for (uint32_t i = 0; i < gOptions.Threads; ++i) CreateAndForget(CountAndEnd);
        done += gOptions.Threads;
        AwaitEnded(before + done);
    }
    return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(done);
}

void CreateCase() {
    Measure(gOptions, Named("create", gOptions.Threads), CreateBatches, 64);
}

// The same with a wait on every handle: the oldest of the batch first.
double CreateAndWaitBatches(uint64_t n) {
    std::vector<HANDLE> threads(gOptions.Threads);
    const double start = NowNs();
    uint64_t done = 0;
    while (done < n) {
        for (HANDLE &thread : threads) thread = Create(CountAndEnd);
        for (HANDLE thread : threads) {
            if (zvx::WaitForSingleObject(thread, INFINITE) != WAIT_OBJECT_0) Fail("WaitForSingleObject");
            if (!zvx::CloseHandle(thread)) Fail("CloseHandle", os::GetLastError());
        }
        done += gOptions.Threads;
    }
    return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(done);
}

void CreateWaitCase() {
    Measure(gOptions, Named("create_wait", gOptions.Threads), CreateAndWaitBatches, 16);
}

// Only the wait on the handle of a thread that has ended.
double WaitOnEnded(uint64_t n) {
    std::vector<HANDLE> threads(gOptions.Threads);
    double took = 0;
    uint64_t done = 0;
    while (done < n) {
        const uint64_t before = gEnded.load(std::memory_order_relaxed);
        for (HANDLE &thread : threads) thread = Create(CountAndEnd);
        AwaitEnded(before + gOptions.Threads);
        for (int i = 0; i < 4; ++i) zvx::Sleep(0);  // they counted; now they have ended
        const double start = NowNs();
        for (HANDLE thread : threads) zvx::WaitForSingleObject(thread, INFINITE);
        took += NowNs() - start;
        for (HANDLE thread : threads) zvx::CloseHandle(thread);
        done += gOptions.Threads;
    }
    return took * static_cast<double>(n) / static_cast<double>(done);
}

void WaitEndedCase() {
    Measure(gOptions, "wait_ended", WaitOnEnded, gOptions.Threads * 4, gOptions.Threads * 400, false);
}

// ---- Sleep -------------------------------------------------------------------------------------------

// How late a sleep ended, in microseconds, with nothing else to do. --threads is the length; 0 runs 1 to 20.
void SleepCase() {
    std::vector<double> late;
    const double end = NowNs() + gOptions.Seconds * 1e9;
    for (uint32_t i = 0; NowNs() < end; ++i) {
        const DWORD ms = gOptions.Threads != 0 ? gOptions.Threads : 1 + i % 20;
        const double start = NowNs();
        zvx::Sleep(ms);
        late.push_back((NowNs() - start) / 1e3 - ms * 1e3);
    }
    std::string name = gOptions.Threads != 0 ? "sleep/" + std::to_string(gOptions.Threads) : "sleep/1-20";
    if (gOptions.PortWaitMs > 1) name += "/port_wait_" + std::to_string(gOptions.PortWaitMs);
    Report(gOptions, name, late.size(), late, "us late", "lower",
           {{"p90", Percentile(late, 90)}, {"p99", Percentile(late, 99)}});
}

// ---- Post and wait, critical sections ----------------------------------------------------------------

HANDLE NewPostEvent() {
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    zvx::IdentifyUserThread("SHAD", event);
    return event;
}

HANDLE gLeaderEvent;
HANDLE gPartnerEvent;

DWORD AnswerPosts(void *) {
    gPartnerEvent = NewPostEvent();
    for (;;) {
        zvx::WaitForUserThreadPost(gPartnerEvent, INFINITE);
        zvx::PostUserThread(gLeaderEvent);
    }
}

// A round trip between two user threads of one scheduler.
void PostWaitCase() {
    gLeaderEvent = NewPostEvent();
    CreateAndForget(AnswerPosts);
    while (gPartnerEvent == nullptr) zvx::Sleep(0);
    Measure(gOptions, "post_wait", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            zvx::PostUserThread(gPartnerEvent);
            zvx::WaitForUserThreadPost(gLeaderEvent, INFINITE);
        }
        return NowNs() - start;
    });
}

// Enter and leave, uncontended.
void LockCase() {
    static CRITICAL_SECTION section;
    zvx::InitializeCriticalSection(&section);
    Measure(gOptions, Named("lock", 1), [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            zvx::EnterCriticalSection(&section);
            Keep(section);
            zvx::LeaveCriticalSection(&section);
        }
        return NowNs() - start;
    });
}

// ---- Beside parked threads ---------------------------------------------------------------------------
//
// --threads user threads a scheduler are parked, and two active ones go on. "yield_parked": they wait for ever, the active
// ones yield. "timed_parked": they wait with a time-out, the active ones post each other and wait with one.
// "event_parked": they wait for an event each, as the active ones do, who set each other's.

enum Parking { kForEver, kTimed, kOnEvent };
Parking gParking;
std::atomic<uint32_t> gParked;
constexpr DWORD kLongMs = 3600 * 1000;
HANDLE gEvents[2];

DWORD ParkedThread(void *) {
    const HANDLE event = gParking == kForEver ? nullptr : os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    gParked.fetch_add(1, std::memory_order_relaxed);
    for (;;) {
        if (gParking == kForEver) zvx::Sleep(INFINITE);
        if (gParking == kTimed) zvx::Sleep(kLongMs);
        if (gParking == kOnEvent) zvx::WaitForSingleObject(event, INFINITE);
    }
}

void ParkAll() {
    const uint32_t all = gOptions.Threads * gOptions.Schedulers;
    for (uint32_t i = 0; i < all; ++i) CreateAndForget(ParkedThread);
    while (gParked.load(std::memory_order_relaxed) < all) zvx::Sleep(1);
    zvx::Sleep(20);
}

// The second of the two active threads is on the first one's scheduler. Where schedulers share a processor one may come to
// another; it stays there, so that the next one finds less load here.
const zvx::Scheduler *gLeaderScheduler;
LPTHREAD_START_ROUTINE gPartnerRoutine;

DWORD Partner(void *) {
    if (zvx::SchedOf(zvx::CallingFiber()) == gLeaderScheduler) return gPartnerRoutine(nullptr);
    CreateAndForget(Partner, nullptr, gLeaderScheduler->AffinityMask);
    for (;;) zvx::Sleep(INFINITE);
}

void CreatePartner(LPTHREAD_START_ROUTINE routine) {
    gLeaderScheduler = zvx::SchedOf(zvx::CallingFiber());
    gPartnerRoutine = routine;
    CreateAndForget(Partner, nullptr, gLeaderScheduler->AffinityMask);
}

void YieldParkedCase() {
    gParking = kForEver;
    ParkAll();
    CreatePartner(Yielder);
    Measure(gOptions, Named("yield_parked", gOptions.Threads), [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; i += 2) zvx::Sleep(0);
        return NowNs() - start;
    });
}

DWORD AnswerTimed(void *) {
    gPartnerEvent = NewPostEvent();
    for (;;) {
        while (zvx::WaitForUserThreadPost(gPartnerEvent, kLongMs) != 0) {
        }
        zvx::PostUserThread(gLeaderEvent);
    }
}

void TimedParkedCase() {
    gParking = kTimed;
    ParkAll();
    gLeaderEvent = NewPostEvent();
    CreatePartner(AnswerTimed);
    while (gPartnerEvent == nullptr) zvx::Sleep(1);
    Measure(gOptions, Named("timed_parked", gOptions.Threads), [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            zvx::PostUserThread(gPartnerEvent);
            zvx::WaitForUserThreadPost(gLeaderEvent, kLongMs);
        }
        return NowNs() - start;
    });
}

DWORD AnswerEvents(void *) {
    for (;;) {
        zvx::WaitForSingleObject(gEvents[0], INFINITE);
        zvx::SetEvent(gEvents[1]);
    }
}

void EventParkedCase() {
    gParking = kOnEvent;
    ParkAll();
    for (HANDLE &event : gEvents) event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    CreatePartner(AnswerEvents);
    Measure(gOptions, Named("event_parked", gOptions.Threads), [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            zvx::SetEvent(gEvents[0]);
            zvx::WaitForSingleObject(gEvents[1], INFINITE);
        }
        return NowNs() - start;
    }, 4);
}

const NamedCase kCases[] = {
    {"yield_parked", YieldParkedCase}, {"timed_parked", TimedParkedCase}, {"event_parked", EventParkedCase},
    {"yield", YieldCase},          {"create", CreateCase}, {"create_wait", CreateWaitCase},
    {"wait_ended", WaitEndedCase}, {"sleep", SleepCase},      {"post_wait", PostWaitCase},
    {"lock", LockCase},
};

}  // namespace

int main(int argc, char **argv) {
    return HostMain(argc, argv, kCases, sizeof kCases / sizeof kCases[0]);
}
