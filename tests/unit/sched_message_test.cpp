// tests/unit/sched_message_test.cpp - requests between schedulers: what they do, when they do nothing, and that
// none is left behind.
#include "kernel/handles.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct MessageTest : SchedTest {
    void SetUp() override {
        SchedTest::SetUp();
        Other = NewScheduler();
    }
    void TearDown() override {
        SchedTest::TearDown();
        CheckScheduler(Other);
    }
    void SendPost(Scheduler *to, Fiber *F, uint32_t generation) {
        FIBER_MESSAGE *msg = AllocMessage(S, to, MSG_POST);
        msg->PostBit = POST_HOST;
        msg->Count = 1;
        msg->Fibers[0] = F;
        msg->Generation = generation;
        SendMessage(to, msg);
    }
    Fiber *PostWaiter(Scheduler *on) {
        Fiber *F = NewFiber(on, [](Fiber *self) {
            self->WaitTimeoutMs = 100;
            self->Flags |= FIBER_POST_WAIT;
            self->PostWaitMask = POST_HOST;
            SchedYield(self, Yield_TIMER_WAIT);
            self->Flags &= ~static_cast<uint32_t>(FIBER_POST_WAIT);
            Note(self->PostPending != 0 ? "posted" : "timed out");
            self->WaitTimeoutMs = INFINITE;
            SchedYield(self, Yield_TIMER_WAIT);
        });
        RunUntilIdle(on);
        return F;
    }
    Scheduler *Other = nullptr;
};

TEST_F(MessageTest, APostWakesItsWaiterAndAStaleOneDoesNot) {
    Fiber *F = PostWaiter(Other);
    SendPost(Other, F, Generation(F) + 1);
    RunUntilIdle(Other);
    EXPECT_TRUE(TakeNotes().empty());
    EXPECT_EQ(F->PostPending, 0u) << "the record stands for another thread by now";
    SendPost(S, F, Generation(F));  // it is not on S
    RunUntilIdle(S);
    EXPECT_EQ(F->PostPending, 0u);
    SendPost(Other, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"});
    // In a sleep that is no wait for a post, it stays pending.
    F->PostPending = 0;
    SendPost(Other, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(F->State, FSTATE_TIMED_WAIT);
    EXPECT_EQ(F->PostPending, POST_HOST);
}

TEST_F(MessageTest, ABlockedSchedulerGetsOnePacketForABurst) {
    Fiber *F = PostWaiter(Other);
    // The test holds Other in its wait, with BlockedInPort set.
    EXPECT_EQ(Other->BlockedInPort.load(), 1u);
    for (int i = 0; i < 3; ++i) SendPost(Other, F, Generation(F));
    size_t wakes = script::gScript.Posted.size();
    EXPECT_EQ(wakes, 1u);
    EXPECT_EQ(script::gScript.Posted[0].Key, KEY_MESSAGES);
    EXPECT_NE(Other->Messages.load(), nullptr);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"});
    EXPECT_EQ(Other->Messages.load(), nullptr);
    EXPECT_EQ(Other->ChunkTypeCount[3] + S->ChunkTypeCount[3], 0) << "every message was freed";
}

TEST_F(MessageTest, OtherKindsWakeOnlyWhereLongWaitsAreAllowed) {
    Fiber *F = PostWaiter(Other);
    SendOne(Other, MSG_SUSPEND, F, Generation(F));
    EXPECT_TRUE(script::gScript.Posted.empty()) << "it looks again within a millisecond";
    RunUntilIdle(Other);
    gPortWaitMs = 100;
    RunUntilIdle(Other);
    SendOne(Other, MSG_RESUME, F, Generation(F));
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    RunUntilIdle(Other);
}

TEST_F(MessageTest, SuspensionsCountAndStopAt127) {
    Fiber *F = PostWaiter(Other);
    SendOne(Other, MSG_SUSPEND, F, Generation(F) + 1);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendCount.load(), 0u);
    EXPECT_EQ(F->SuspendRequests.load(), 0u);
    for (int i = 0; i < 130; ++i) SendOne(Other, MSG_SUSPEND, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendCount.load(), 127u);
    EXPECT_EQ(F->SuspendRequests.load(), 130u);
    SendPost(Other, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(F->State, FSTATE_SUSPENDED);
    for (int i = 0; i < 127; ++i) SendOne(Other, MSG_RESUME, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"}) << "the last resume runs it without waiting for a timer check";
}

TEST_F(MessageTest, AttachTakesOnlyFibersOnTheirWay) {
    Fiber *created = NewUnplacedFiber(S, [](Fiber *self) { Note(SchedOf(self)->Index == 1 ? "on 1" : "on 0"); });
    created->State = FSTATE_CREATED;
    Other->InTransit = 1;
    created->LastRunStamp = 77;
    S->FiberCount = 0;
    SendFiberToScheduler(created, S, Other);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"on 1"});
    EXPECT_EQ(Other->InTransit.load(), 0u);

    Fiber *waiting = PostWaiter(Other);
    uint32_t count = Other->FiberCount.load();
    EXPECT_FALSE(AttachFiber(Other, waiting));
    EXPECT_EQ(Other->FiberCount.load(), count);
}

// The pass in which a leaving thread finds its successor runs on its stack. Handed over in that pass, it could run on
// the other scheduler before it has left.
TEST_F(MessageTest, ALeavingThreadIsHandedOverWhenItIsOffItsStack) {
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        self->MigrateTarget = Other;
        S->SelectPasses = kFullSweepPasses + 1;
        SchedYield(self, Yield_MIGRATE);
        Note(SchedOf(self) == Other ? "on 1" : "on 0");
    });
    NewFiber(S, [&](Fiber *) { Note(F->Sched.load() == S && S->MigrationQueue.Count == 1 ? "kept" : "sent"); });
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"kept"});
    EXPECT_EQ(F->Sched.load(), nullptr);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"on 1"});
}

TEST_F(MessageTest, ARequestForAThreadThatLeftIsPassedOn) {
    Fiber *F = PostWaiter(Other);
    SendOne(S, MSG_SUSPEND, F, Generation(F));  // sent while it was still on S
    RunUntilIdle(S);
    EXPECT_EQ(F->SuspendRequests.load(), 0u);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendRequests.load(), 1u);
    // Between two schedulers: kept until it has arrived.
    SetSched(F, nullptr, std::memory_order_relaxed);
    SendOne(S, MSG_SUSPEND, F, Generation(F));
    RunUntilIdle(S);
    EXPECT_NE(S->Messages.load(), nullptr);
    SetSched(F, Other, std::memory_order_relaxed);
    RunUntilIdle(S);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendRequests.load(), 2u);
}

}  // namespace
}  // namespace zvx::test
