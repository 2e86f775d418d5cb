// tests/unit/sched_switch_test.cpp - which fiber runs next, and what goes with it.
#include <algorithm>

#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct SwitchTest : SchedTest {
    // A user thread that notes its name whenever it is woken, and parks again.
    Fiber *Parked(const std::string &name, uint32_t role = ROLE_NONE, uint32_t schedClass = CLASS_NORMAL) {
        Fiber *F = NewFiber(S, [name](Fiber *self) {
            for (;;) {
                self->WaitTimeoutMs = INFINITE;
                SchedYield(self, Yield_TIMER_WAIT);
                Note(name);
            }
        });
        F->Role = role;
        F->SchedClass = schedClass;
        RunUntilIdle(S);
        return F;
    }
    void Wake(Fiber *F, uint32_t queue) {
        UnlinkTimedWaiter(S, F);
        MakeRunnable(S, F, queue);
    }
};

TEST_F(SwitchTest, QueuesAreServedInTheirOrder) {
    Fiber *high = Parked("high", ROLE_LGWR, CLASS_HIGH);
    Fiber *post = Parked("post");
    Fiber *file = Parked("file");
    Fiber *socket = Parked("socket");
    Fiber *dbwr = Parked("dbwr", ROLE_DBWR, CLASS_BACKGROUND);
    Fiber *other = Parked("other", ROLE_OTHER, CLASS_BACKGROUND);
    Fiber *ready = Parked("ready");
    auto wakeAll = [&] {
        Wake(other, gPRQ);  // a background class goes to ORQ wherever it was to be put
        Wake(dbwr, gPRQ);
        Wake(socket, gSRQ);
        Wake(file, gFRQ);
        Wake(post, gPRQ);
        Wake(high, gFRQ);
        UnlinkTimedWaiter(S, ready);
        ready->State = FSTATE_READY;
        AppendReady(S, ready);
        RunUntilIdle(S);
    };
    TakeNotes();
    wakeAll();
    // Database writers are served ahead of every queue while nothing delays them.
    EXPECT_EQ(TakeNotes(), (Names{"ready", "dbwr", "high", "post", "file", "socket", "other"}));

    gLPRQMaxDelay = 100;
    wakeAll();
    EXPECT_EQ(TakeNotes(), (Names{"ready", "high", "post", "file", "socket", "dbwr", "other"}));

    gLPRQMaxDelay = 0;
    std::swap(gPRQ, gFRQ);  // "RunQOrder" 1
    wakeAll();
    EXPECT_EQ(TakeNotes(), (Names{"ready", "dbwr", "high", "file", "post", "socket", "other"}));
}

TEST_F(SwitchTest, LprqDelayLetsThatManyPassesGoFirst) {
    gLPRQMaxDelay = 3;
    Fiber *dbwr = Parked("dbwr", ROLE_DBWR, CLASS_BACKGROUND);
    std::vector<Fiber *> posts;
    for (int i = 0; i < 6; ++i) posts.push_back(Parked("p" + std::to_string(i)));
    TakeNotes();
    Wake(dbwr, gFRQ);
    for (Fiber *F : posts) Wake(F, gPRQ);
    RunUntilIdle(S);
    Names notes = TakeNotes();
    ASSERT_EQ(notes.size(), 7u);
    EXPECT_EQ(notes[3], "dbwr");
}

TEST_F(SwitchTest, ABatchInAnyOrderIsServedAsIfEachHadBeenPutInItsPlace) {
    std::vector<Fiber *> fibers;
    for (int i = 0; i < 60; ++i) fibers.push_back(Parked(std::to_string(i)));
    TakeNotes();
    uint32_t state = 12345;
    const auto random = [&state](uint32_t below) { return (state = state * 1664525u + 1013904223u) / 65536 % below; };
    for (int round = 0; round < 40; ++round) {
        // The order that inserting one after the other gives: before the first with an equal or smaller stamp.
        std::vector<Fiber *> expected;
        std::vector<Fiber *> woken = fibers;
        for (size_t i = woken.size(); i > 1; --i) std::swap(woken[i - 1], woken[random(static_cast<uint32_t>(i))]);
        woken.resize(1 + random(60));
        for (Fiber *F : woken) {
            F->LastRunStamp = random(round % 2 == 0 ? 1000 : 5);
            auto at = expected.begin();
            while (at != expected.end() && (*at)->LastRunStamp > F->LastRunStamp) ++at;
            expected.insert(at, F);
            Wake(F, gSRQ);
            CheckScheduler(S);
        }
        Names names;
        for (Fiber *F : expected)
            names.push_back(std::to_string(std::find(fibers.begin(), fibers.end(), F) - fibers.begin()));
        RunUntilIdle(S);
        EXPECT_EQ(TakeNotes(), names) << "round " << round;
    }
}

TEST_F(SwitchTest, PairedQueuesServeTheMoreRecentHead) {
    Fiber *post = Parked("post");
    Fiber *file = Parked("file");
    SetOption(su_PFOneRQ);
    TakeNotes();
    for (auto [postStamp, fileStamp, first] : {std::tuple{5u, 6u, "file"}, {6u, 5u, "post"}, {7u, 7u, "post"}}) {
        post->LastRunStamp = postStamp;
        file->LastRunStamp = fileStamp;
        Wake(post, gPRQ);
        Wake(file, gFRQ);
        RunUntilIdle(S);
        EXPECT_EQ(TakeNotes().at(0), first) << postStamp << " against " << fileStamp;
    }
    ClearOption(su_PFOneRQ);
    post->LastRunStamp = 5;
    file->LastRunStamp = 6;
    Wake(post, gPRQ);
    Wake(file, gFRQ);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes().at(0), "post");
}

TEST_F(SwitchTest, LatchSleepersRunOnOddPassesAfterOneSkip) {
    NewFiber(S, [](Fiber *self) {
        SchedYield(self, Yield_LATCH_FREE);
        Note("latch");
    });
    NewFiber(S, [this](Fiber *self) {
        // Stamps of the passes that served this one, while the other is in LatchSleepers.
        for (int i = 0; i < 8; ++i) {
            if (S->LatchSleepers.Count != 0) Note(S->SwitchCount.load() & 1 ? "odd" : "even");
            SchedYield(self, Yield_USER);
        }
    });
    RunUntilIdle(S);
    Names notes = TakeNotes();
    size_t odd = 0;
    for (const std::string &note : notes) {
        if (note == "latch") break;
        odd += note == "odd";
    }
    // Entered alone, the list is passed over on the first odd pass and served on the second.
    EXPECT_LE(odd, 1u);
    EXPECT_NE(std::find(notes.begin(), notes.end(), "latch"), notes.end());
    EXPECT_EQ(S->LatchSleepers.Count, 0u);
}

TEST_F(SwitchTest, FullSweepServesALowQueueUnderAFullHighOne) {
    bool stop = false;
    uint32_t passes = 0;
    // One fiber that always wakes itself into PRQ again, ahead of ORQ.
    NewFiber(S, [&](Fiber *self) {
        self->SchedClass = CLASS_NORMAL;
        while (!stop && passes < 100000) {
            ++passes;
            self->State = FSTATE_READY;
            MakeRunnable(S, self, gPRQ);
            self->State = FSTATE_RUNNING;
            SchedYield(self, Yield_POSTER);
        }
    });
    NewFiber(S, [&](Fiber *) { stop = true; });
    RunUntilIdle(S);
    EXPECT_TRUE(stop);
    // Started, given way once, then run: two sweeps at most.
    EXPECT_LT(passes, 2100u);
}

TEST_F(SwitchTest, SuspendedFibersAreSetAsideUnlessTheyEnd) {
    Fiber *F = Parked("ran");
    Fiber *dying = Parked("never");
    TakeNotes();
    F->SuspendCount = 3;
    Wake(F, gPRQ);
    RunUntilIdle(S);
    EXPECT_EQ(F->State, FSTATE_SUSPENDED);
    EXPECT_EQ(S->SuspendedFibers.Count, 1u);
    EXPECT_TRUE(TakeNotes().empty());

    uint32_t generation = Generation(dying);
    dying->SuspendCount = 3;
    dying->Flags |= FIBER_TERMINATE;
    Wake(dying, gPRQ);
    RunUntilIdle(S);
    EXPECT_NE(Generation(dying), generation) << "a terminated thread ends although it is suspended";

    F->SuspendCount = 0;
    EXPECT_TRUE(CheckTimerQueue(S));
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"ran"});
}

TEST_F(SwitchTest, AnExitLeavesItsStackBeforeItIsFreed) {
    Fiber *F = NewFiber(S, [](Fiber *) { Note("ran"); });
    uint32_t serial = F->ShellSerial;
    uint32_t generation = Generation(F);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"ran"});
    EXPECT_EQ(Generation(F), generation + 1);
    EXPECT_EQ(F->OsFiber, nullptr);
    EXPECT_EQ(F->ShellSerial, serial);
    EXPECT_EQ(S->FiberCount.load(), 0u);
    EXPECT_EQ(S->ExitedFibers.Count, 0u);
    EXPECT_EQ(S->AllFibers.Count, 0u);
    // The generation wraps past 0, which stands for no thread.
    F->Generation = 0xFFFFFFFF;
    Fiber *again = nullptr;
    for (int i = 0; i < 64 && again != F; ++i) again = NewFiber(S, [](Fiber *) {});
    ASSERT_EQ(again, F) << "records are recycled";
    RunUntilIdle(S);
    EXPECT_EQ(Generation(F), 1u);
}

TEST_F(SwitchTest, ABusySchedulerFreesExitedFibersInItsSweep) {
    bool stop = false;
    uint32_t passes = 0;
    Fiber *busy = NewFiber(S, [&](Fiber *self) {
        while (!stop) {
            if (++passes > 50000) break;
            self->State = FSTATE_READY;
            self->SchedClass = CLASS_HIGH;
            MakeRunnable(S, self, gHPRQ);
            self->State = FSTATE_RUNNING;
            SchedYield(self, Yield_POSTER);
        }
    });
    Fiber *brief = NewFiber(S, [](Fiber *) {});
    uint32_t generation = Generation(brief);
    NewFiber(S, [&](Fiber *self) {
        for (int i = 0; i < 3 && Generation(brief) == generation; ++i) SchedYield(self, Yield_USER);
        Note(Generation(brief) != generation ? "freed" : "held");
        stop = true;
    });
    RunUntilIdle(S);
    EXPECT_NE(busy, nullptr);
    EXPECT_EQ(TakeNotes(), Names{"freed"}) << "without an idle moment";
    EXPECT_LT(passes, 50000u);
}

TEST_F(SwitchTest, CyclesAreChargedToWhoRan) {
    os::script::gScript.TscPerRead = 0;
    Fiber *worker = NewFiber(S, [](Fiber *self) {
        SchedYield(self, Yield_USER);
        os::script::gScript.Tsc += 5000;
        SchedYield(self, Yield_USER);
        self->WaitTimeoutMs = INFINITE;
        SchedYield(self, Yield_TIMER_WAIT);
    });
    Fiber *lazy = NewFiber(S, [](Fiber *self) {
        SchedYield(self, Yield_USER);
        self->WaitTimeoutMs = INFINITE;
        SchedYield(self, Yield_TIMER_WAIT);
    });
    RunUntilIdle(S);
    EXPECT_EQ(worker->CpuCycles, 5000u);
    EXPECT_EQ(lazy->CpuCycles, 0u);
}

}  // namespace
}  // namespace zvx::test
