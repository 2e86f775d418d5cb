// tests/unit/sched_message_test.cpp - requests between schedulers: what they do, when they do nothing, and that
// none is left behind.
#include <gtest/gtest.h>

#include "kernel/handles.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

using Names = std::vector<std::string>;
namespace script = os::script;

struct MessageTest : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
        Other = NewScheduler();
    }
    void TearDown() override {
        CheckScheduler(S);
        CheckScheduler(Other);
    }
    void Send(Scheduler *to, uint8_t kind, Fiber *F, uint32_t generation, uint32_t exitCode = 0) {
        FIBER_MESSAGE *msg = AllocMessage(S, to, kind);
        msg->Count = 1;
        msg->Generation = generation;
        msg->One.Target = F;
        msg->One.ExitCode = exitCode;
        SendMessage(to, msg);
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
    Scheduler *S = nullptr;
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
    Send(Other, MSG_SUSPEND, F, Generation(F));
    EXPECT_TRUE(script::gScript.Posted.empty()) << "it looks again within a millisecond";
    RunUntilIdle(Other);
    gPortWaitMs = 100;
    RunUntilIdle(Other);
    Send(Other, MSG_RESUME, F, Generation(F));
    EXPECT_EQ(script::gScript.Posted.size(), 1u);
    RunUntilIdle(Other);
}

TEST_F(MessageTest, SuspensionsCountAndStopAt127) {
    Fiber *F = PostWaiter(Other);
    Send(Other, MSG_SUSPEND, F, Generation(F) + 1);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendCount.load(), 0u);
    EXPECT_EQ(F->SuspendRequests.load(), 0u);
    for (int i = 0; i < 130; ++i) Send(Other, MSG_SUSPEND, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendCount.load(), 127u);
    EXPECT_EQ(F->SuspendRequests.load(), 130u);
    SendPost(Other, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(F->State, FSTATE_SUSPENDED);
    for (int i = 0; i < 127; ++i) Send(Other, MSG_RESUME, F, Generation(F));
    RunUntilIdle(Other);
    EXPECT_EQ(TakeNotes(), Names{"posted"}) << "the last resume runs it without waiting for a timer check";
}

TEST_F(MessageTest, TerminationReachesEveryWait) {
    auto ended = [&](std::function<void(Fiber *)> park) {
        Fiber *F = NewFiber(Other, [park](Fiber *self) {
            park(self);
            Note("survived");
        });
        RunUntilIdle(Other);
        uint32_t generation = Generation(F);
        Send(Other, MSG_TERMINATE, F, generation, 5);
        RunUntilIdle(Other);
        RunUntilIdle(Other);
        return Generation(F) == generation + 1 && F->ExitCode == 5;
    };
    EXPECT_TRUE(ended([](Fiber *) { Sleep(INFINITE); }));
    EXPECT_TRUE(ended([](Fiber *) { Sleep(100000); }));
    PSEHAND *file = NewEntry(Other, PHAND_HTYPE_CreateFileA);
    EXPECT_TRUE(ended([&](Fiber *self) { ReadOn(self, file); }));
    EXPECT_TRUE(ended([](Fiber *self) {
        self->SuspendCount = 2;
        SchedYield(self, Yield_USER);
    }));
    EXPECT_TRUE(TakeNotes().empty());
    EXPECT_EQ(Other->TimedWaiters.Count + Other->InfiniteWaiters.Count + Other->IoWaiters.Count, 0u);
    EXPECT_EQ(Other->PortCount, 0u);
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

TEST_F(MessageTest, ARequestForAThreadThatLeftIsPassedOn) {
    Fiber *F = PostWaiter(Other);
    Send(S, MSG_SUSPEND, F, Generation(F));  // sent while it was still on S
    RunUntilIdle(S);
    EXPECT_EQ(F->SuspendRequests.load(), 0u);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendRequests.load(), 1u);
    // Between two schedulers: kept until it has arrived.
    SetSched(F, nullptr, std::memory_order_relaxed);
    Send(S, MSG_SUSPEND, F, Generation(F));
    RunUntilIdle(S);
    EXPECT_NE(S->Messages.load(), nullptr);
    SetSched(F, Other, std::memory_order_relaxed);
    RunUntilIdle(S);
    RunUntilIdle(Other);
    EXPECT_EQ(F->SuspendRequests.load(), 2u);
}

TEST_F(MessageTest, RetiredRecordsWaitForEverySchedulersPass) {
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA, false);
    HANDLE handle = HandleValue(entry);
    int64_t before = S->ChunkTypeCount[1];
    S->Running = 1;
    Other->Running = 1;
    RunUntilIdle(Other);
    Other->BlockedInPort = 0;  // as if its user thread computed
    CloseHandleOn(S, handle);
    EXPECT_EQ(LookUpHandle(handle), nullptr);
    for (int i = 0; i < 5; ++i) RunUntilIdle(S);
    EXPECT_EQ(S->ChunkTypeCount[1], before) << "a user thread of the other scheduler may still look at it";
    NewFiber(Other, [](Fiber *) {});  // it makes a pass
    RunUntilIdle(Other);
    for (int i = 0; i < 3; ++i) RunUntilIdle(S);
    EXPECT_EQ(S->ChunkTypeCount[1], before - 1);
}

}  // namespace
}  // namespace zvx::test
