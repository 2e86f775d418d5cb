// tests/unit/sched_completion_test.cpp - packets against polling: every operation wakes its fiber once, and every
// packet is accounted for once, in whatever order the two arrive.
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct CompletionTest : SchedTest {
    void SetUp() override {
        SchedTest::SetUp();
        File = NewEntry(S, PHAND_HTYPE_CreateFileA);
    }
    // A user thread that reads once on File and notes its name at the end.
    Fiber *Reader(const std::string &name, uint32_t schedClass = CLASS_NORMAL, PSEHAND *file = nullptr) {
        Fiber *F = NewFiber(S, [this, name, file](Fiber *self) {
            DWORD status = ReadOn(self, file != nullptr ? file : File);
            Note(name + (status == 0 ? "" : "!"));
        });
        F->SchedClass = schedClass;
        F->Role = ROLE_OTHER;
        return F;
    }
    PSEHAND *File = nullptr;
};

TEST_F(CompletionTest, ThePacketWakesTheWaiterAndIsCountedOnce) {
    Fiber *F = Reader("a");
    RunUntilIdle(S);
    EXPECT_EQ(F->State, FSTATE_IO_WAIT);
    EXPECT_EQ(F->OwnOvs[0].Flags, OV_FILE | OV_PACKET_EXPECTED) << "an idle scheduler waits in its port";
    EXPECT_EQ(S->PortCount, 1u);
    EXPECT_EQ(S->PolledCount, 0u);
    script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"a"});
    EXPECT_EQ(F->OwnOvs[0].SkipPackets, 0u);
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
    EXPECT_EQ(S->PortCount, 0u);
}

TEST_F(CompletionTest, APolledEndLeavesAPacketThatIsDropped) {
    Fiber *F = nullptr;
    uint32_t skipped = 0;
    F = NewFiber(S, [&](Fiber *self) {
        self->SchedClass = CLASS_NORMAL;
        ReadOn(self, File);
        skipped = self->OwnOvs[0].SkipPackets;
        Note("woken");
        // The same record again, pending, while the packet of before is still queued.
        ReadOn(self, File);
        Note("again");
    });
    NewFiber(S, [&](Fiber *self) {
        while (F->State != FSTATE_IO_WAIT) SchedYield(self, Yield_USER);
        script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
        while (skipped == 0) SchedYield(self, Yield_USER);
    });
    RunUntilIdle(S);
    EXPECT_EQ(skipped, 1u) << "found by polling: the packet still comes";
    EXPECT_EQ(TakeNotes(), Names{"woken"}) << "the old packet does not end the new operation";
    EXPECT_EQ(F->State, FSTATE_IO_WAIT);
    EXPECT_EQ(F->OwnOvs[0].SkipPackets, 0u);
    script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"again"});
}

TEST_F(CompletionTest, ABusySchedulerPollsWithoutPackets) {
    gNumContextSwitchesBeforePolling = 5;
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        self->Role = ROLE_OTHER;
        for (int i = 0; i < 8; ++i) SchedYield(self, Yield_USER);
        S->SwitchesSinceIdle = 5;
        ReadOn(self, File);
        Note("polled");
    });
    script::gScript.SpinLimit = 2;
    RunUntilIdle(S);
    ASSERT_EQ(F->State, FSTATE_IO_WAIT);
    EXPECT_EQ(F->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(F->OwnOvs[0].Ov.hEvent), reinterpret_cast<uintptr_t>(AvoidCompletionEvent) | 1);
    EXPECT_EQ(S->PolledCount, 1u);
    EXPECT_EQ(S->NetCount, 0u);
    script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"polled"});
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
}

TEST_F(CompletionTest, AForeignPortIsPolledButCountsAsPort) {
    Scheduler *other = NewScheduler();
    PSEHAND *foreign = NewEntry(other, PHAND_HTYPE_CreateFileA);
    Fiber *F = Reader("a", CLASS_NORMAL, foreign);
    RunUntilIdle(S);
    ASSERT_EQ(F->State, FSTATE_IO_WAIT);
    EXPECT_EQ(F->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
    EXPECT_EQ(S->PolledCount, 0u) << "an idle scheduler must not spin for it";
    EXPECT_EQ(S->PortCount, 1u);
    script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"a"});
    EXPECT_EQ(script::QueuedPackets(other->Port), 0u);
}

TEST_F(CompletionTest, SeveralEndsAreServedInTheOrderOfFiling) {
    std::vector<Fiber *> readers;
    for (int i = 0; i < 5; ++i) readers.push_back(Reader(std::to_string(i), CLASS_BACKGROUND));
    RunUntilIdle(S);
    // Ended in another order than filed; ORQ keeps the order of completion processing.
    for (int i : {3, 0, 4, 1}) script::EndOperation(&readers[static_cast<size_t>(i)]->OwnOvs[0].Ov, 0, 1);
    HandOverEnded(S);
    PollOvLists(S, false);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"0", "1", "3", "4"}));
    EXPECT_EQ(S->IoWaiters.Count, 1u);
}

TEST_F(CompletionTest, HighClassIsPolledFirstAndIntoItsOwnQueue) {
    Fiber *normal = Reader("normal");
    Fiber *high = Reader("high", CLASS_HIGH);
    RunUntilIdle(S);
    EXPECT_EQ(high->OwnOvs[0].PollList, kPollHigh);
    script::EndOperation(&normal->OwnOvs[0].Ov, 0, 1);
    script::EndOperation(&high->OwnOvs[0].Ov, 0, 1);
    HandOverEnded(S);
    PollOvLists(S, false);
    EXPECT_EQ(S->RunQueues[gHPRQ].Count, 1u);
    EXPECT_EQ(S->RunQueues[gFRQ].Count, 1u);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"high", "normal"}));
}

TEST_F(CompletionTest, AnEndBeforeTheFilingIsNotLost) {
    // The operation ends, and is reaped, between its issue and the yield.
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        FIBEROVERLAPPED *rec = &self->OwnOvs[0];
        self->CurOv = &rec->Ov;
        rec->HandleRec = File;
        rec->OsHandle = HandleValue(File);
        PacketOrPoll(S, rec, File, OV_FILE, false);
        DWORD got;
        ASSERT_FALSE(os::ReadFile(rec->OsHandle, nullptr, 1, &got, &rec->Ov, &rec->Io));
        script::EndOperation(&rec->Ov, 0, 7);
        os::ReapIo(S->Io);
        ASSERT_EQ(os::LoadStatus(&rec->Ov), 0u);
        WaitForCurOv(self);
        Note("ended with " + std::to_string(rec->Ov.InternalHigh));
    });
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"ended with 7"});
    EXPECT_EQ(F->OwnOvs[0].EndedIn, kEndedNowhere);
}

TEST_F(CompletionTest, WithoutPortsEverythingIsPolled) {
    gNumContextSwitchesBeforePolling = 0;
    PSEHAND *unbound = NewEntry(S, PHAND_HTYPE_CreateFileA);
    EXPECT_EQ(unbound->Flags.load() & PHAND_FLAG_ON_PORT, 0u);
    Fiber *F = Reader("a", CLASS_NORMAL, unbound);
    script::gScript.SpinLimit = 2;
    RunUntilIdle(S);
    EXPECT_EQ(F->OwnOvs[0].Flags, static_cast<uint32_t>(OV_FILE));
    EXPECT_EQ(S->PolledCount, 1u);
    EXPECT_EQ(F->CpuCycles, 0u) << "no cycle accounts in the polling model";
    script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"a"});
}

TEST_F(CompletionTest, AnExitWaitsForItsCancelledReadAndItsPacket) {
    script::gScript.HoldCancels = true;
    Fiber *F = Reader("never");
    uint32_t generation = Generation(F);
    RunUntilIdle(S);
    SendOne(S, MSG_TERMINATE, F, generation, 9);
    RunUntilIdle(S);
    ASSERT_EQ(script::gScript.Cancels.size(), 2u) << "by the message, and again by the exit";
    EXPECT_EQ(script::gScript.Cancels[0].Ov, &F->OwnOvs[0].Ov) << "exactly this operation";
    EXPECT_EQ(Generation(F), generation) << "the operation still runs";
    EXPECT_EQ(F->ExitCode, 9u);
    script::EndOperation(&F->OwnOvs[0].Ov, STATUS_CANCELLED, 0);
    RunUntilIdle(S);
    EXPECT_EQ(Generation(F), generation + 1);
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
    EXPECT_TRUE(TakeNotes().empty());
}

// An operation of the host's own, whose OVERLAPPED goes with the stack.
TEST_F(CompletionTest, AnExitWaitsForTheOperationsOnItsStack) {
    script::gScript.HoldCancels = true;
    OVERLAPPED *onStack = nullptr;
    Fiber *F = NewFiber(S, [&](Fiber *) {
        // Deeper than the frames of the exit: it is dead then, but looked at until its operation ends.
        alignas(OVERLAPPED) char room[16384];
        onStack = new (room) OVERLAPPED{};
        onStack->hEvent = reinterpret_cast<HANDLE>(uintptr_t{1});  // no packet
        DWORD got;
        EXPECT_FALSE(os::ReadFile(HandleValue(File), nullptr, 1, &got, onStack));
    });
    const uint32_t generation = Generation(F);
    RunUntilIdle(S);
    EXPECT_FALSE(script::gScript.Cancels.empty());
    EXPECT_EQ(Generation(F), generation) << "the operation still runs";
    script::EndOperation(onStack, STATUS_CANCELLED, 0);
    RunUntilIdle(S);
    EXPECT_EQ(Generation(F), generation + 1);
}

// Alertable waits. The records belong to the file functions; here they are made by hand.
struct AlertableTest : CompletionTest {
    FIBEROVERLAPPED *Issue(Fiber *F) {
        FIBEROVERLAPPED *rec = AllocOv(F, File, 6);
        F->PendingApcIos++;
        PacketOrPoll(SchedOf(F), rec, File, OV_FILE_ROUTINE, false);
        DWORD got;
        EXPECT_FALSE(os::ReadFile(rec->OsHandle, nullptr, 1, &got, &rec->Ov, &rec->Io));
        rec->CallerOv = &Callers[Issued];
        rec->CompletionRoutine = [](DWORD error, DWORD bytes, OVERLAPPED *) {
            Note("routine " + std::to_string(error) + "/" + std::to_string(bytes));
        };
        Records[Issued++] = rec;
        AppendLink(&F->FileOvs, &rec->Link);
        NoteOwnOvFiled(S, rec);
        return rec;
    }
    OVERLAPPED Callers[8] = {};
    FIBEROVERLAPPED *Records[8] = {};
    uint32_t Issued = 0;
};

TEST_F(AlertableTest, AnyOwnEndWakesADeepPoll) {
    NewFiber(S, [&](Fiber *self) {
        Issue(self);
        Issue(self);
        Note("slept " + std::to_string(SleepEx(10000, TRUE)));
    });
    RunUntilIdle(S);
    // The one that is not waited on ends; the oldest stays outstanding.
    script::EndOperation(&Records[1]->Ov, 0, 5);
    script::gScript.HoldCancels = true;
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"routine 0/5", "slept 192"}));
    // The exit has cancelled the other one and waits, alertably, until it has ended.
    ASSERT_EQ(script::gScript.Cancels.size(), 1u);
    script::AdvanceClock(200);
    RunUntilIdle(S);
    EXPECT_EQ(S->AllFibers.Count, 1u);
    script::EndOperation(&Records[0]->Ov, STATUS_CANCELLED, 0);
    RunUntilIdle(S);
    EXPECT_EQ(S->AllFibers.Count, 0u);
    EXPECT_TRUE(TakeNotes().empty()) << "a cancelled operation calls no routine";
}

TEST_F(AlertableTest, SleepExNWaitsForAsManyAsAsked) {
    static DWORD counter, outstanding;
    counter = 0;
    outstanding = 3;
    NewFiber(S, [&](Fiber *self) {
        for (int i = 0; i < 3; ++i)
            Issue(self)->CompletionRoutine = [](DWORD, DWORD, OVERLAPPED *) {
                ++counter;
                --outstanding;
            };
        Note(ZSleepExN(0, 2, &counter, &outstanding) ? "reached" : "failed");
        EXPECT_EQ(self->SleepExNTarget, 0u);
        EXPECT_EQ(self->TermCleanup.Count, 0u);
        Note(std::to_string(counter));
        while (outstanding != 0) SleepEx(INFINITE, TRUE);
        Note(ZSleepExN(0, 99, &counter, &outstanding) ? "none outstanding" : "failed");
    });
    RunUntilIdle(S);
    EXPECT_EQ(Records[1]->Flags & OV_IN_POLL_SET, OV_IN_POLL_SET) << "gathered, not waited for one by one";
    script::EndOperation(&Records[0]->Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_TRUE(TakeNotes().empty());
    script::EndOperation(&Records[2]->Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"reached", "2"}));
    script::EndOperation(&Records[1]->Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"none outstanding"});
}

// A free record with packets still to come used to be judged by its last fiber; once that had ended and its record
// ran on another scheduler, the packets were passed on to the wrong port, and counted by the wrong thread.
TEST_F(AlertableTest, PacketsOfAFreeRecordStayWithTheirScheduler) {
    Scheduler *other = NewScheduler();
    script::gScript.OnIo = [](const script::IoCall &) { return script::Done(1); };
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        FIBEROVERLAPPED *rec = AllocOv(self, File, 6);
        PacketOrPoll(S, rec, File, OV_FILE_ROUTINE, false);
        DWORD got;
        EXPECT_TRUE(os::ReadFile(rec->OsHandle, nullptr, 1, &got, &rec->Ov, &rec->Io));
        AccountPacket(rec);
        FreeOv(rec, S);
        Records[0] = rec;
        self->WaitTimeoutMs = INFINITE;
        SchedYield(self, Yield_TIMER_WAIT);
    });
    // The thread has ended and its record stands for one of the other scheduler before the packet is looked at.
    NewFiber(S, [&](Fiber *) {
        EXPECT_EQ(Records[0]->SkipPackets, 1u);
        SetSched(F, other, std::memory_order_relaxed);
        PollPort(S, 0);
        SetSched(F, S, std::memory_order_relaxed);
        Note("drained");
    });
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"drained"});
    EXPECT_EQ(Records[0]->SkipPackets, 0u);
    EXPECT_TRUE(script::gScript.Posted.empty());
}

TEST_F(AlertableTest, ATimeOutTakesTheRecordOutOfItsPollList) {
    NewFiber(S, [&](Fiber *self) {
        Issue(self);
        Issue(self);
        Note("slept " + std::to_string(SleepEx(30, TRUE)));
        self->WaitTimeoutMs = INFINITE;
        SchedYield(self, Yield_TIMER_WAIT);
    });
    RunUntilIdle(S);
    EXPECT_EQ(S->PollLists[kPollFile].Count, 1u);
    script::AdvanceClock(40);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"slept 0"});
    EXPECT_EQ(S->PollLists[kPollFile].Count, 0u);
    EXPECT_EQ(S->PortCount, 0u);
}

}  // namespace
}  // namespace zvx::test
