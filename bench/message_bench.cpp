// bench/message_bench.cpp - how long a message from one scheduler to another takes.
//
// The leader runs on one scheduler and its partner on the other. Posts are the exported functions (and always wake a
// scheduler that is blocked in its port); a resume is made and sent as the library does it (and wakes it only where the
// setting allows longer waits in the port).
//
//   post         round trip, both schedulers idle between the messages
//   post_busy    round trip, each scheduler also has a thread that yields all the time
//   resume       one way, from the send until the partner runs; its scheduler is blocked in its port
//   resume_busy  the same; its scheduler has a thread that yields all the time
#include "bench/host.h"
#include "postwait/postwait.h"
#include "sched/internal.h"

namespace {

using namespace bench;

zvx::Fiber *gLeader;
std::atomic<zvx::Fiber *> gPartner;

DWORD Yielder(void *) {
    for (;;) zvx::Sleep(0);
}

void Send(zvx::Fiber *target, uint8_t kind) {
    zvx::Scheduler *from = zvx::SchedOf(zvx::CallingFiber());
    zvx::Scheduler *to = zvx::SchedOf(target);
    zvx::FIBER_MESSAGE *msg = zvx::AllocMessage(from, to, kind);
    msg->Count = 1;
    msg->Generation = zvx::Generation(target);
    msg->One.Target = target;
    zvx::SendMessage(to, msg);
}

std::string Named(const char *name) {
    return std::string("message/") + name + "/port_wait_" + std::to_string(gOptions.PortWaitMs);
}

// On whichever scheduler is not the leader's.
void StartPartner(LPTHREAD_START_ROUTINE routine) {
    if (gOptions.Schedulers < 2) Fail("needs --schedulers 2");
    gLeader = zvx::CallingFiber();
    const uint32_t other = zvx::SchedOf(gLeader)->Index == 0 ? 1 : 0;
    CreateAndForget(routine, nullptr, zvx::gSchedulers[other]->AffinityMask);
    while (gPartner.load() == nullptr) zvx::Sleep(1);
    if (zvx::SchedOf(gPartner.load()) == zvx::SchedOf(gLeader)) Fail("both run on one scheduler");
}

void KeepBusy(const zvx::Scheduler *S) {
    CreateAndForget(Yielder, nullptr, S->AffinityMask);
}

// ---- Post and wait -----------------------------------------------------------------------------------

HANDLE gLeaderEvent;
HANDLE gPartnerEvent;

HANDLE Identify() {
    const HANDLE event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    zvx::IdentifyUserThread("SHAD", event);
    return event;
}

DWORD Answer(void *) {
    gPartnerEvent = Identify();
    gPartner.store(zvx::CallingFiber());
    for (;;) {
        zvx::WaitForUserThreadPost(gPartnerEvent, INFINITE);
        zvx::PostUserThread(gLeaderEvent);
    }
}

double RoundTrips(uint64_t n) {
    const double start = NowNs();
    for (uint64_t i = 0; i < n; ++i) {
        zvx::PostUserThread(gPartnerEvent);
        zvx::WaitForUserThreadPost(gLeaderEvent, INFINITE);
    }
    return NowNs() - start;
}

void PostCase() {
    gLeaderEvent = Identify();
    StartPartner(Answer);
    zvx::Sleep(20);
    Measure(gOptions, Named("post"), RoundTrips, 16);
}

void PostBusyCase() {
    gLeaderEvent = Identify();
    StartPartner(Answer);
    KeepBusy(zvx::SchedOf(gLeader));
    KeepBusy(zvx::SchedOf(gPartner.load()));
    zvx::Sleep(20);
    Measure(gOptions, Named("post_busy"), RoundTrips, 16);
}

// ---- Resume ------------------------------------------------------------------------------------------

alignas(64) std::atomic<double> gRanAt;  // 0 until the partner has run again

DWORD SuspendAgainAndAgain(void *) {
    zvx::Fiber *F = zvx::CallingFiber();
    gPartner.store(F);
    for (;;) {
        // What a suspension message does, by the thread itself: it stops at its next yield.
        F->SuspendCount.store(1, std::memory_order_release);
        zvx::SchedYield(F, zvx::Yield_USER);
        gRanAt.store(NowNs(), std::memory_order_release);
    }
}

// The leader spins, so that nothing but the message and the other scheduler is in the time.
double OneWay(zvx::Fiber *partner, bool busy, Random *random) {
    const zvx::Scheduler *S = zvx::SchedOf(partner);
    while (partner->SuspendCount.load(std::memory_order_acquire) == 0) os::CpuRelax();
    const double pause = NowNs() + static_cast<double>(random->Next() % 2000000);
    while (NowNs() < pause) os::CpuRelax();  // anywhere in the target's wait
    while (!busy && S->BlockedInPort.load(std::memory_order_acquire) == 0) os::CpuRelax();
    gRanAt.store(0, std::memory_order_relaxed);
    const double sent = NowNs();
    Send(partner, zvx::MSG_RESUME);
    double ran;
    while ((ran = gRanAt.load(std::memory_order_acquire)) == 0) os::CpuRelax();
    return ran - sent;
}

void MeasureResumes(const char *name, bool busy) {
    StartPartner(SuspendAgainAndAgain);
    zvx::Fiber *partner = gPartner.load();
    if (busy) KeepBusy(zvx::SchedOf(partner));
    zvx::Sleep(20);
    Random random{88172645463325252ull};
    std::vector<double> samples;
    for (int i = 0; i < 20; ++i) OneWay(partner, busy, &random);
    const double end = NowNs() + gOptions.Seconds * 1e9;
    while (NowNs() < end) samples.push_back(OneWay(partner, busy, &random));
    Report(gOptions, Named(name), samples.size(), samples, "ns", "lower",
           {{"p90", Percentile(samples, 90)}, {"p99", Percentile(samples, 99)}});
}

void ResumeCase() {
    MeasureResumes("resume", false);
}
void ResumeBusyCase() {
    MeasureResumes("resume_busy", true);
}

const NamedCase kCases[] = {
    {"post", PostCase}, {"post_busy", PostBusyCase}, {"resume", ResumeCase}, {"resume_busy", ResumeBusyCase}};

}  // namespace

int main(int argc, char **argv) {
    return HostMain(argc, argv, kCases, sizeof kCases / sizeof kCases[0]);
}
