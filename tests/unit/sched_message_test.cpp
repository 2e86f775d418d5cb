// tests/unit/sched_message_test.cpp - requests between schedulers: when they wake a scheduler, and where they go while
// their thread moves. Posts, counts and races with the end of a thread: tests/model.
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
    void SendPost(Scheduler *to, Fiber *F) {
        FIBER_MESSAGE *msg = AllocMessage(S, to, MSG_POST);
        msg->PostBit = POST_HOST;
        msg->Count = 1;
        msg->Fibers[0] = F;
        msg->Generation = Generation(F);
        SendMessage(to, msg);
    }
    Fiber *PostWaiter() {
        Fiber *F = NewFiber(Other, [](Fiber *self) {
            self->Flags |= FIBER_POST_WAIT;
            self->PostWaitMask = POST_HOST;
            ParkForEver(self);
            self->Flags &= ~static_cast<uint32_t>(FIBER_POST_WAIT);
            Note(self->PostPending != 0 ? "posted" : "timed out");
            ParkForEver(self);
        });
        RunUntilIdle(Other);
        return F;
    }
    Scheduler *Other = nullptr;
};

TEST_F(MessageTest, ABlockedSchedulerGetsOnePacketForABurst) {
    Fiber *F = PostWaiter();
    SendPost(S, F);  // it is not on S
    RunUntilIdle(S);
    EXPECT_EQ(F->PostPending, 0u);
    // The test holds Other in its wait, with BlockedInPort set.
    for (int i = 0; i < 3; ++i) SendPost(Other, F);
    ASSERT_EQ(script::gScript.Posted.size(), 1u);
    EXPECT_EQ(script::gScript.Posted[0].Key, KEY_MESSAGES);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"});
    EXPECT_EQ(Other->ChunkTypeCount[3] + S->ChunkTypeCount[3], 0) << "every message was freed";
    // Other kinds wake it only where long waits are allowed.
    script::gScript.Posted.clear();
    SendOne(Other, MSG_SUSPEND, F, Generation(F));
    EXPECT_TRUE(script::gScript.Posted.empty()) << "it looks again within a millisecond";
    gPortWaitMs = 100;
    RunUntilIdle(Other);
    SendOne(Other, MSG_RESUME, F, Generation(F));
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    RunUntilIdle(Other);
}

TEST_F(MessageTest, SuspensionsCountAndStopAt127) {
    Fiber *F = PostWaiter();
    for (int i = 0; i < 130; ++i) SendOne(Other, MSG_SUSPEND, F, Generation(F));
    SendPost(Other, F);
    RunUntilIdle(Other);
    EXPECT_TRUE(F->SuspendCount.load() == 127 && F->SuspendRequests.load() == 130 && F->State == FSTATE_SUSPENDED);
    for (int i = 0; i < 127; ++i) SendOne(Other, MSG_RESUME, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"}) << "the last resume runs it without waiting for a timer check";
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
    Run([&](Fiber *) { Note(F->Sched.load() == S && S->MigrationQueue.Count == 1 ? "kept" : "sent"); });
    EXPECT_EQ(TakeNotes(), Names{"kept"});
    EXPECT_EQ(F->Sched.load(), nullptr);
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"on 1"});
    EXPECT_FALSE(AttachFiber(Other, PostWaiter())) << "it is not on its way";
}

TEST_F(MessageTest, ARequestForAThreadThatLeftIsPassedOn) {
    Fiber *F = PostWaiter();
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
