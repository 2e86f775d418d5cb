// tests/unit/sched_timer_test.cpp - time-outs, sleeps and polled waits under a clock that the test moves.
#include <random>

#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct TimerTest : SchedTest {
    Fiber *Sleeper(const std::string &name, DWORD ms, uint32_t role = ROLE_NONE) {
        Fiber *F = NewFiber(S, [name, ms](Fiber *) {
            Sleep(ms);
            Note(name);
        });
        F->Role = role;
        return F;
    }
};

TEST_F(TimerTest, ExpiryInOrderOfEntryAtOneCheckAndByTimeAcrossChecks) {
    Sleeper("a30", 30);
    Sleeper("b10", 10);
    Sleeper("c20", 20);
    Sleeper("d10", 10);
    RunUntilIdle(S);
    EXPECT_EQ(S->TimedWaiters.Count, 4u);
    script::AdvanceClock(9);
    RunUntilIdle(S);
    EXPECT_TRUE(TakeNotes().empty());
    script::AdvanceClock(2);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"b10", "d10"}));
    // Both of the rest are over at one check: then the order of entry counts, not the time.
    script::AdvanceClock(50);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"a30", "c20"}));
}

TEST_F(TimerTest, AWaitAcrossTheWrapOfTheTickCountIsNeitherCutNorDrawnOut) {
    script::SetTick(0xFFFFFFF0ull);
    Sleeper("woke", 50);
    RunUntilIdle(S);
    script::AdvanceClock(49);
    RunUntilIdle(S);
    EXPECT_TRUE(TakeNotes().empty());
    script::AdvanceClock(3);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"woke"});
}

TEST_F(TimerTest, ChecksKeepTheirSpacing) {
    gTimerInterval = 20;
    Sleeper("woke", 5);
    RunUntilIdle(S);
    script::AdvanceClock(20);
    RunUntilIdle(S);  // a check was due
    EXPECT_EQ(TakeNotes(), Names{"woke"});
    Sleeper("again", 5);
    RunUntilIdle(S);
    script::AdvanceClock(10);
    RunUntilIdle(S);
    EXPECT_TRUE(TakeNotes().empty()) << "the last check is 10 ms ago";
    script::AdvanceClock(10);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"again"});
}

TEST_F(TimerTest, ShortSleepsOfServerThreadsAreLatchYields) {
    uint64_t before = os::GetTickCount64();
    Sleeper("shad", 10, ROLE_SHAD);
    Sleeper("lgwr", 0, ROLE_LGWR);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"shad", "lgwr"}));
    EXPECT_EQ(os::GetTickCount64(), before);
    Sleeper("long", 11, ROLE_SHAD);
    Sleeper("plain", 10, ROLE_OTHER);
    RunUntilIdle(S);
    EXPECT_EQ(S->TimedWaiters.Count, 2u);
    script::AdvanceClock(100);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes().size(), 2u);
}

// A wait that ends early takes its fiber out of the heap wherever it stands; the others are unaffected.
TEST_F(TimerTest, HeapHoldsUnderRandomEntriesAndRemovals) {
    std::mt19937 rng(12345);
    struct Waiting {
        Fiber *F;
        uint64_t Due;
    };
    std::vector<Waiting> waiting;
    for (int i = 0; i < 300; ++i) {
        DWORD ms = 1 + static_cast<DWORD>(rng() % 500);
        waiting.push_back({Sleeper(std::to_string(i), ms), os::GetTickCount64() + ms});
        RunUntilIdle(S);
        script::AdvanceClock(rng() % 3);
        if (rng() % 3 == 0) {
            size_t victim = rng() % waiting.size();
            Fiber *F = waiting[victim].F;
            if (F != nullptr && F->State == FSTATE_TIMED_WAIT) {
                UnlinkTimedWaiter(S, F);
                MakeRunnable(S, F, gORQ);
                waiting[victim].F = nullptr;
            }
        }
        RunUntilIdle(S);
        CheckScheduler(S);
        for (const Waiting &w : waiting) {
            if (w.F == nullptr || w.F->State != FSTATE_TIMED_WAIT || w.F->WaitDeadline != w.Due) continue;
            ASSERT_GE(w.Due + gTimerInterval, os::GetTickCount64());
        }
    }
    script::AdvanceClock(1000);
    RunUntilIdle(S);
    EXPECT_EQ(S->TimedWaiters.Count, 0u);
    EXPECT_EQ(S->TimeoutHeap, nullptr);
    EXPECT_EQ(TakeNotes().size(), 300u);
}

bool CountTest(Fiber *, uintptr_t counter, uintptr_t limit, uintptr_t, uintptr_t, uintptr_t) {
    return ++*reinterpret_cast<uint32_t *>(counter) >= limit;
}

TEST_F(TimerTest, PolledWaitsTestAtOnceAndThenEveryInterval) {
    uint32_t tests = 0;
    NewFiber(S, [&](Fiber *self) {
        self->WaitTimeoutMs = 0;
        Note(WaitWithPolling(self, CountTest, reinterpret_cast<uintptr_t>(&tests), 100) ? "met" : "timed out");
        Note(std::to_string(tests));
        self->WaitTimeoutMs = 1000;
        Note(WaitWithPolling(self, CountTest, reinterpret_cast<uintptr_t>(&tests), 6) ? "met" : "timed out");
        self->WaitTimeoutMs = 7;
        Note(WaitWithPolling(self, CountTest, reinterpret_cast<uintptr_t>(&tests), 1000) ? "met" : "timed out");
    });
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"timed out", "1"})) << "a wait of 0 tests once and never yields";
    EXPECT_EQ(tests, 2u);
    for (int i = 0; i < 4; ++i) {
        script::AdvanceClock(2);
        RunUntilIdle(S);
    }
    EXPECT_EQ(TakeNotes(), Names{"met"});
    for (int i = 0; i < 6; ++i) {
        script::AdvanceClock(2);
        RunUntilIdle(S);
    }
    EXPECT_EQ(TakeNotes(), Names{"timed out"});
}

TEST_F(TimerTest, TheWaitInThePortIsBoundedByTheNearestTimeOut) {
    gPortWaitMs = 100;
    RunUntilIdle(S);
    EXPECT_EQ(script::gScript.LastPortWaitMs, 100u);
    Sleeper("woke", 30);
    RunUntilIdle(S);
    EXPECT_EQ(script::gScript.LastPortWaitMs, 30u);
    script::AdvanceClock(29);
    RunUntilIdle(S);
    EXPECT_EQ(script::gScript.LastPortWaitMs, 1u);
    gPortWaitMs = 1;
    script::AdvanceClock(100);
    RunUntilIdle(S);
    EXPECT_EQ(script::gScript.LastPortWaitMs, 1u);
}

}  // namespace
}  // namespace zvx::test
