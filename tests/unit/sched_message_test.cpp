// tests/unit/sched_message_test.cpp - packets against polling, and alertable waits. Requests between schedulers and
// threads that move: tests/model.
#include <unistd.h>

#include "child.h"
#include "kernel/thread.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

struct CompletionTest : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        File = NewEntry(S, PHAND_HTYPE_CreateFileA);
    }
    // A read with a routine, in an operation of the library's.
    OVERLAPPED *Issue(Fiber *F, HANDLE file, LPOVERLAPPED_COMPLETION_ROUTINE routine) {
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &Callers[Issued++], routine));
        return &ZVX_RECORD_OF(F->FileOvs.Ends.Prev, FIBEROVERLAPPED, Link)->Ov;
    }
    PSEHAND *File = nullptr;
    OVERLAPPED Callers[8] = {};
    uint32_t Issued = 0;
};

// A packet, or polling: under load, for the port of another scheduler, without ports.
TEST_F(CompletionTest, HowAnEndIsToBeNoticed) {
    Scheduler *other = NewScheduler();
    PSEHAND *foreign = NewEntry(other, PHAND_HTYPE_CreateFileA);
    const struct {
        const char *Name;
        PSEHAND *Entry;
        uint32_t PollAfter, Switches, Flags, Polled, Port;
    } cases[] = {
        {"idle", File, 100, 0, OV_FILE | OV_PACKET_EXPECTED, 0, 1},
        {"busy", File, 5, 5, OV_FILE, 1, 0},
        {"foreign", foreign, 100, 0, OV_FILE, 0, 1},  // an idle scheduler must not spin for it
        {"no ports", File, 0, 0, OV_FILE, 1, 0},
    };
    script::gScript.SpinLimit = 2;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Name);
        gNumContextSwitchesBeforePolling = c.PollAfter;
        Fiber *F = Run([&](Fiber *self) {
            S->SwitchesSinceIdle = c.Switches;
            Note(ReadOn(self, c.Entry) == STATUS_SUCCESS ? "read" : "failed");
        });
        const FIBEROVERLAPPED &rec = F->OwnOvs[0];
        EXPECT_EQ(rec.Flags, c.Flags);
        EXPECT_TRUE(S->PolledCount == c.Polled && S->PortCount == c.Port);
        EXPECT_EQ(WithoutPacket(AvoidCompletionEvent) == rec.Ov.hEvent, c.Flags == OV_FILE);
        EndWaitOf(F);
        EXPECT_EQ(TakeNotes(), Names{"read"});
        EXPECT_EQ(S->PolledCount + S->PortCount + script::QueuedPackets(S->Port), 0u);
        EXPECT_EQ(script::QueuedPackets(other->Port), 0u);
    }
}

TEST_F(CompletionTest, APolledEndLeavesAPacketThatIsDropped) {
    uint32_t skipped = 0;
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        self->SchedClass = CLASS_NORMAL;
        ReadOn(self, File);
        skipped = self->OwnOvs[0].SkipPackets;
        // The same record again, pending, while the packet of before is still queued.
        ReadOn(self, File);
        Note("again");
    });
    Run([&](Fiber *self) {
        while (F->State != FSTATE_IO_WAIT) SchedYield(self, Yield_USER);
        script::EndOperation(&F->OwnOvs[0].Ov, 0, 1);
        while (skipped == 0) SchedYield(self, Yield_USER);
    });
    EXPECT_EQ(skipped, 1u) << "found by polling: the packet still comes";
    EXPECT_EQ(TakeNotes(), Names{}) << "the old packet does not end the new operation";
    EXPECT_EQ(F->OwnOvs[0].SkipPackets, 0u);
    EndWaitOf(F);
    EXPECT_EQ(TakeNotes(), Names{"again"});
}

// What a move awaits may be a packet, which a scheduler that never idles used to look at once in 100,000 switches.
TEST_F(CompletionTest, AMoveFindsItsPacketsOnABusyScheduler) {
    const Killed killed = Kill([&] {
        SetOption(su_DynamicSchedulersEnabled);
        gNumSchedulers = kMaxSchedulers;  // so that whoever is through is told that there is no room
        Answer(script::Done(1));
        NewFiber(S, [&](Fiber *self) {
            for (int turns = 0; turns < 1000; ++turns) SchedYield(self, Yield_USER);
            _exit(3);
        });
        Run([&](Fiber *self) {
            ReadOn(self, File);
            if (self->OwnOvs[0].SkipPackets != 0) MoveToDynamicScheduler(self);
        });
    });
    EXPECT_EQ(killed.Output, "ZORVEX KILLED: Can not spawn any more dynamic schedulers MAX[0]\n|");
}

// Ended in another order than filed, of two classes: the high one goes first, the others as they were filed.
TEST_F(CompletionTest, SeveralEndsAreServedInTheOrderOfFiling) {
    std::vector<Fiber *> readers;
    for (const std::string name : {"0", "1", "2", "3", "4", "high"}) {
        readers.push_back(NewFiber(S, [=, this](Fiber *self) { Note(name + (ReadOn(self, File) == 0 ? "" : "!")); }));
        readers.back()->SchedClass = name == "high" ? CLASS_HIGH : CLASS_BACKGROUND;
        RunUntilIdle(S);
    }
    EXPECT_EQ(readers[5]->OwnOvs[0].PollList, kPollHigh);
    for (size_t i : {3u, 0u, 4u, 5u, 1u}) script::EndOperation(&readers[i]->OwnOvs[0].Ov, 0, 1);
    HandOverEnded(S);
    PollOvLists(S, false);
    EXPECT_EQ(S->RunQueues[gHPRQ].Count, 1u);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"high", "0", "1", "3", "4"}));
    EXPECT_EQ(S->IoWaiters.Count, 1u);
}

// The operation ends, and is reaped, between its issue and the yield.
TEST_F(CompletionTest, AnEndBeforeTheFilingIsNotLost) {
    Fiber *F = Run([&](Fiber *self) {
        OVERLAPPED *ov = &self->OwnOvs[0].Ov;
        ReadOn(self, File, [&] { script::EndOperation(ov, 0, 7), os::ReapIo(S->Io); });
        Note("ended with " + std::to_string(ov->InternalHigh));
    });
    EXPECT_EQ(TakeNotes(), Names{"ended with 7"});
    EXPECT_EQ(F->OwnOvs[0].EndedIn, kEndedNowhere);
}

// An operation of the host's own, whose OVERLAPPED goes with the stack.
TEST_F(CompletionTest, AnExitWaitsForTheOperationsOnItsStack) {
    script::gScript.HoldCancels = true;
    OVERLAPPED *onStack = nullptr;
    Fiber *F = NewFiber(S, [&](Fiber *) {
        // Deeper than the frames of the exit: it is dead then, but looked at until its operation ends.
        alignas(OVERLAPPED) char room[16384];
        onStack = new (room) OVERLAPPED{};
        onStack->hEvent = WithoutPacket(nullptr);
        DWORD got;
        EXPECT_FALSE(os::ReadFile(HandleValue(File), nullptr, 1, &got, onStack));
    });
    const uint32_t generation = Generation(F);
    RunUntilIdle(S);
    EXPECT_NE(script::gScript.Cancels, 0u);
    EXPECT_EQ(Generation(F), generation) << "the operation still runs";
    End(onStack, STATUS_CANCELLED, 0);
    EXPECT_EQ(Generation(F), generation + 1);
}

// ---- Alertable waits ---------------------------------------------------------------------------------

TEST_F(CompletionTest, AnyOwnEndWakesADeepPollAndATimeOutLeavesIt) {
    OVERLAPPED *ovs[2] = {};
    Run([&](Fiber *self) {
        const HANDLE file = Open();
        for (OVERLAPPED *&ov : ovs) ov = Issue(self, file, [](DWORD, DWORD, OVERLAPPED *) { Note("routine"); });
        for (DWORD ms : {30u, 10000u}) Note("slept " + std::to_string(SleepEx(ms, TRUE)));
    });
    Advance(40);
    EXPECT_EQ(TakeNotes(), Names{"slept 0"});
    // The one that is not waited on ends; the oldest stays outstanding.
    script::gScript.HoldCancels = true;
    End(ovs[1]);
    EXPECT_EQ(TakeNotes(), (Names{"routine", "slept 192"}));
    // The exit has cancelled the other one and waits, alertably, until it has ended.
    Advance(200);
    EXPECT_EQ(S->AllFibers.Count, 1u);
    End(ovs[0], STATUS_CANCELLED, 0);
    EXPECT_EQ(S->AllFibers.Count + S->PollLists[kPollFile].Count + S->PortCount, 0u);
    EXPECT_TRUE(TakeNotes().empty()) << "a cancelled operation calls no routine";
}

// Its own operation has ended; the end of the thread does not wait for the routine in which it takes place.
TEST_F(CompletionTest, AThreadMayEndInItsRoutine) {
    static bool exits;
    for (const bool its : {true, false}) {
        exits = its;
        Fiber *F = Run([&](Fiber *self) {
            Issue(self, Open(), [](DWORD, DWORD, OVERLAPPED *) { exits ? ExitThread(5) : Sleep(10000); });
            SleepEx(INFINITE, TRUE);
        });
        EndRoutineOf(F, STATUS_SUCCESS, 1);
        if (!exits) SendOne(S, MSG_TERMINATE, F, Generation(F), 5);
        Advance(100);
        EXPECT_EQ(S->AllFibers.Count, 0u);
    }
}

TEST_F(CompletionTest, SleepExNWaitsForAsManyAsAsked) {
    static DWORD counter, outstanding = 3;
    OVERLAPPED *ovs[3] = {};
    Run([&](Fiber *self) {
        const HANDLE file = Open();
        for (OVERLAPPED *&ov : ovs)
            ov = Issue(self, file, [](DWORD, DWORD, OVERLAPPED *) { ++counter, --outstanding; });
        for (const DWORD wanted : {2u, 99u})  // or as many as there are
            Note(ZSleepExN(0, wanted, &counter, &outstanding) ? "reached" : "failed");
        EXPECT_EQ(self->SleepExNTarget + self->TermCleanup.Count, 0u);
    });
    for (int i : {0, 2, 1}) {
        EXPECT_EQ(TakeNotes(), i == 1 ? Names{"reached"} : Names{});
        End(ovs[i]);
    }
    EXPECT_EQ(TakeNotes(), Names{"reached"});
}

// A free record with packets still to come used to be judged by its last fiber; once that had ended and its record
// ran on another scheduler, the packets were passed on to the wrong port, and counted by the wrong thread.
TEST_F(CompletionTest, PacketsOfAFreeRecordStayWithTheirScheduler) {
    Scheduler *other = NewScheduler();
    Answer(script::Done(1));
    FIBEROVERLAPPED *rec = nullptr;
    Fiber *F = NewFiber(S, [&](Fiber *self) {
        rec = AllocOv(self, File, 6);
        PacketOrPoll(S, rec, File, OV_FILE_ROUTINE, false);
        DWORD got;
        EXPECT_TRUE(os::ReadFile(rec->OsHandle, nullptr, 1, &got, &rec->Ov, &rec->Io));
        AccountPacket(rec);
        FreeOv(rec, S);
        ParkForEver(self);
    });
    // The thread has ended and its record stands for one of the other scheduler before the packet is looked at.
    RunToEnd([&](Fiber *) {
        EXPECT_EQ(rec->SkipPackets, 1u);
        SetSched(F, other, std::memory_order_relaxed);
        PollPort(S, 0);
        SetSched(F, S, std::memory_order_relaxed);
    });
    EXPECT_EQ(rec->SkipPackets, 0u);
    EXPECT_TRUE(script::gScript.Posted.empty());
}

}  // namespace
}  // namespace zvx::test
