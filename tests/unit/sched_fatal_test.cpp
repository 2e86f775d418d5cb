// tests/unit/sched_fatal_test.cpp - the scheduler's own ends of the process: the exact text, exit code 1; and where
// schedulers are placed, and the quantum.
#include "alloc/alloc.h"
#include "child.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "postwait/postwait.h"
#include "sched/startup.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

CRITICAL_SECTION gSection;

void EnterAndSleep(Fiber *) {
    InitializeCriticalSection(&gSection);
    EnterCriticalSection(&gSection);
    Sleep(INFINITE);
}

TEST(SchedFatal, EachEndHasItsText) {
    static FIBEROVERLAPPED stray;
    stray.Magic = 7;
    const struct {
        const char *Text;                  // up to its first address
        void (*Body)(Fiber *);             // of a user thread
        void (*First)(Fiber *) = nullptr;  // of another one that runs before
    } cases[] = {
        {"EnterCriticalSection: unwrapped critical section\n", [](Fiber *) { EnterCriticalSection(&gSection); }},
        {"SetCriticalSectionSpinCount is not supported\n", [](Fiber *) { SetCriticalSectionSpinCount(&gSection, 1); },
         EnterAndSleep},
        {"DeleteCriticalSection: Waiters list not null: num_waiters[1]\n",
         [](Fiber *F) {
             InitializeCriticalSection(&gSection);
             EnterCriticalSection(&gSection);
             NewFiber(SchedOf(F), [](Fiber *) { EnterCriticalSection(&gSection); });
             for (int i = 0; i < 3; ++i) Sleep(0);
             DeleteCriticalSection(&gSection);
         }},
        {"DeleteCriticalSection: Owner not null: owner[", [](Fiber *) { DeleteCriticalSection(&gSection); },
         EnterAndSleep},
        {"Couldn't free critical section: current[", [](Fiber *) { LeaveCriticalSection(&gSection); }, EnterAndSleep},
        {"PostEvent handle is not null\n",
         [](Fiber *) {
             for (int i = 0; i < 2; ++i) IdentifyUserThread("SHAD", os::CreateEventA(nullptr, FALSE, FALSE, nullptr));
         }},
        {"Recursive SchedYield detected current->State[6]",
         [](Fiber *F) {
             F->State = FSTATE_TIMED_WAIT;
             SchedYield(F, Yield_USER);
         }},
        {"We need more dynamic TLS slots 64\n",
         [](Fiber *F) {
             gTlsHighWater = 63;
             CaptureTls(F);  // the last one that is carried
             while (TlsAlloc() < 64) continue;
             CaptureTls(F);
         }},
        {"ProcessIOCPMessage: Invalid Overlapped[0x",
         [](Fiber *F) { os::PostQueuedCompletionStatus(SchedOf(F)->Port, 0, 0x10, &stray.Ov); }},
        {"ZReadFile: NOT WRAPPED SOCKET\n",
         [](Fiber *F) {
             ReadFile(HandleValue(NewEntry(SchedOf(F), PHAND_HTYPE_socket)), nullptr, 1, nullptr, nullptr);
         }},
    };
    for (const auto &c : cases) {
        const std::string expected = c.Text;
        const std::string text = FatalTextOf([&] {
            InitLibrary();
            Scheduler *S = NewScheduler();
            for (auto body : {c.First, c.Body}) {
                if (body != nullptr) NewFiber(S, body);
                RunUntilIdle(S);
            }
        });
        EXPECT_EQ(expected.find('[') == expected.size() - 1 || expected.find("[0x") != expected.npos
                      ? text.substr(0, expected.size())
                      : text,
                  expected);
    }
}

TEST_F(SchedTest, TheQuantumFollowsTheSlowestScheduler) {
    Scheduler *other = NewScheduler();
    const struct {
        uint32_t Tick, Start, OtherStart;
        bool Expired;
    } cases[] = {{10, 7, 8, false}, {11, 7, 8, true}, {11, 12 /* ahead: from 0 */, 8, true}, {11, 11, 11, false}};
    for (const auto &c : cases) {
        gQuantumTick = c.Tick;
        S->QuantumStartTick = c.Start;
        other->QuantumStartTick = c.OtherStart;
        EXPECT_EQ(UpdateQuantumIndicator(true), c.Expired);
    }
    // The check yields only beyond the quantum, and starts a new one.
    Run([&](Fiber *) {
        for (const uint32_t ticks : {3u, 4u}) {
            gQuantumTick = S->QuantumStartTick.load() + ticks;
            UserThreadQuantumExpiredCheck();
            Note(S->QuantumStartTick.load() == gQuantumTick.load() ? "new" : "same");
        }
    });
    EXPECT_EQ(TakeNotes(), (Names{"same", "new"}));
}

}  // namespace
}  // namespace zvx::test
