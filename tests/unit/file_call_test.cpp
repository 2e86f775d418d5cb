// tests/unit/file_call_test.cpp - the file functions against a scripted operating system: what is issued, what is
// waited for, and what each end leaves in the record, the position and the caller's variables.
#include "kernel/file.h"

#include <gtest/gtest.h>

#include <cstring>

#include "child.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

namespace script = os::script;
using script::gScript;
using Names = std::vector<std::string>;

struct FileCall : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
    }
    void TearDown() override {
        CheckHandleTable();
        CheckScheduler(S);
    }
    static HANDLE Open(DWORD flags = 0) {
        return CreateFileA("name", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    }
    // Runs body as a user thread until it parks or ends.
    Fiber *Run(std::function<void(Fiber *)> body, uint32_t role = ROLE_OTHER) {
        Fiber *F = NewFiber(S, std::move(body));
        F->Role = role;
        RunUntilIdle(S);
        return F;
    }
    static void Answer(script::IoAnswer answer) {
        gScript.OnIo = [answer](const script::IoCall &) { return answer; };
    }
    static bool MarkedWithoutPacket(const OVERLAPPED &ov) { return (reinterpret_cast<uintptr_t>(ov.hEvent) & 1) != 0; }
    static uint64_t PositionOf(HANDLE file) { return RootOf(LookUpHandle(file))->FilePosition.load(); }
    Scheduler *S = nullptr;
};

TEST_F(FileCall, OpeningBindsOrLeavesNothing) {
    Run([&](Fiber *F) {
        const HANDLE plain = Open();
        EXPECT_EQ(LookUpHandle(plain)->Flags.load(), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(LookUpHandle(plain)->OwnerFiber, F);
        EXPECT_EQ(LookUpHandle(Open(FILE_FLAG_OVERLAPPED))->Flags.load(), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(gScript.Associations.size(), 2u);
        EXPECT_EQ(gScript.Associations[0].Key, reinterpret_cast<uintptr_t>(plain));
        const uint32_t before = gHandleCount;
        os::FailCall("CreateFileA", 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(os::GetLastError(), ERROR_ACCESS_DENIED);
        os::FailCall("CreateIoCompletionPort", 1, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(Open(), INVALID_HANDLE_VALUE);
        EXPECT_EQ(os::GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(gHandleCount, before);
        // Refused without a reason counts as associated.
        os::FailCall("CreateIoCompletionPort", 1, ERROR_SUCCESS);
        const HANDLE odd = Open();
        EXPECT_NE(odd, INVALID_HANDLE_VALUE);
        EXPECT_TRUE(LookUpHandle(odd)->Flags.load() & PHAND_FLAG_ON_PORT);
        gNumContextSwitchesBeforePolling = 0;
        EXPECT_EQ(LookUpHandle(Open())->Flags.load(), PHAND_FLAG_ASYNC_ADDED) << "the polling model uses no port";
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// Every way in which a waiting read can end: at once or later, with bytes, at the end of the file, or failed.
TEST_F(FileCall, EndsOfAWaitingRead) {
    struct Case {
        const char *Name;
        script::IoAnswer At;  // the call's answer
        DWORD Status, Bytes;  // of the end, when it was pending
        BOOL Result;
        DWORD Got, Error;
    };
    const Case cases[] = {
        {"at once", script::Done(70), 0, 0, TRUE, 70, 0},
        {"later", script::Pending(), STATUS_SUCCESS, 60, TRUE, 60, 0},
        {"end of file at once", script::Failed(ERROR_HANDLE_EOF), 0, 0, TRUE, 0, 0},
        {"end of file later", script::Pending(), STATUS_END_OF_FILE, 0, TRUE, 0, 0},
        {"failed at once", script::Failed(ERROR_GEN_FAILURE), 0, 0, FALSE, 0, ERROR_GEN_FAILURE},
        {"cancelled", script::Pending(), STATUS_CANCELLED, 0, FALSE, 0, ERROR_OPERATION_ABORTED},
    };
    HANDLE file = nullptr;
    Run([&](Fiber *) { file = Open(); });
    for (const Case &c : cases) {
        SCOPED_TRACE(c.Name);
        Answer(c.At);
        OVERLAPPED ov{};
        Fiber *F = Run([&](Fiber *self) {
            self->SchedClass = CLASS_NORMAL;
            ov.Offset = 0xFFFFFFF0;
            ov.OffsetHigh = 2;
            DWORD got = 99;
            LookUpHandle(file)->FilePosition.store(5);
            EXPECT_EQ(ReadFile(file, nullptr, 100, &got, &ov), c.Result);
            EXPECT_EQ(got, c.Got);
            EXPECT_EQ(c.Result ? c.Error : os::GetLastError(), c.Error);
            EXPECT_EQ(self->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
            EXPECT_EQ(self->IoWaitOv, nullptr);
            // A packet comes for what was accepted, and for nothing else.
            if (c.At.Result != script::IoResult::kPending) {
                EXPECT_EQ(self->OwnOvs[0].SkipPackets, c.At.Result == script::IoResult::kDone ? 1u : 0u);
            }
            EXPECT_EQ(ov.Internal, c.Status);
            if (c.Result && c.At.Result != script::IoResult::kFailed) {
                EXPECT_EQ(ov.InternalHigh, c.Got);
            }
            Note("returned");
        });
        if (c.At.Result == script::IoResult::kPending) {
            EXPECT_EQ(F->State, FSTATE_IO_WAIT);
            EXPECT_EQ(F->IoWaitOv, &F->OwnOvs[0].Ov);
            EXPECT_TRUE(TakeNotes().empty());
            script::EndOperation(&F->OwnOvs[0].Ov, c.Status, c.Bytes);
            RunUntilIdle(S);
        }
        EXPECT_EQ(TakeNotes(), Names{"returned"});
        // The carry goes into the high word; a failed read moves nothing.
        EXPECT_EQ(PositionOf(file), c.Result ? 0x2FFFFFFF0u + c.Got : 5u);
        EXPECT_EQ(script::QueuedPackets(S->Port), 0u) << "an exit drains what is owed";
    }
    // A write has no end-of-file rule.
    Answer(script::Failed(ERROR_HANDLE_EOF));
    Run([&](Fiber *) {
        DWORD put = 9;
        EXPECT_FALSE(WriteFile(file, "x", 1, &put, nullptr));
        EXPECT_EQ(put, 0u);
    });
}

// The handle is closed while its user waits. The read still ends; what the value stands for by then is left alone.
TEST_F(FileCall, ACloseDuringTheWaitTakesThePositionAway) {
    HANDLE file = nullptr;
    Fiber *F = Run([&](Fiber *) {
        file = Open();
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(file, nullptr, 100, &got, nullptr));
        EXPECT_EQ(got, 40u);
        Note("read");
    });
    PSEHAND *young = nullptr;
    Run([&](Fiber *) {
        CloseHandle(file);
        // As if the value had been given out again.
        young = AllocHandleEntry(S, kOwnNode);
        young->Type = PHAND_HTYPE_CreateFileA;
        young->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(file));
        young->FilePosition.store(7);
        InsertHandle(young);
    });
    script::EndOperation(&F->OwnOvs[0].Ov, STATUS_SUCCESS, 40);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"read"});
    EXPECT_EQ(young->FilePosition.load(), 7u);
}

// Who polls and who expects a packet: an idle scheduler, a busy one, and one that is not the handle's.
TEST_F(FileCall, PacketOrPoll) {
    Scheduler *other = NewScheduler();
    gNumContextSwitchesBeforePolling = 4;
    HANDLE file = nullptr;
    Run([&](Fiber *) { file = Open(); });
    Fiber *idle = Run([&](Fiber *) { ReadFile(file, nullptr, 1, nullptr, nullptr); });
    EXPECT_EQ(idle->OwnOvs[0].Flags, OV_FILE | OV_PACKET_EXPECTED);
    EXPECT_FALSE(MarkedWithoutPacket(idle->OwnOvs[0].Ov));
    script::EndOperation(&idle->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);

    const HANDLE event = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    OVERLAPPED ov{};
    ov.hEvent = event;
    Fiber *busy = Run(
        [&](Fiber *self) {
            for (int i = 0; i < 4; i++) S->SwitchesSinceIdle++;
            ReadFile(file, nullptr, 1, nullptr, &ov);
            EXPECT_EQ(self->OwnOvs[0].SkipPackets, 0u);
        },
        ROLE_INTERNAL);  // of a role that no scheduler spins for
    EXPECT_EQ(busy->OwnOvs[0].Flags, OV_FILE);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(busy->OwnOvs[0].Ov.hEvent), reinterpret_cast<uintptr_t>(event) | 1);
    EXPECT_EQ(ov.hEvent, event) << "only the library's record is marked";
    script::EndOperation(&busy->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(S);

    gNumContextSwitchesBeforePolling = 10000;
    Fiber *foreign = NewFiber(other, [&](Fiber *) {
        EXPECT_TRUE(ReadFile(file, nullptr, 1, nullptr, nullptr));
        Note("foreign");
    });
    RunUntilIdle(other);
    EXPECT_EQ(foreign->OwnOvs[0].Flags, OV_FILE);
    EXPECT_TRUE(MarkedWithoutPacket(foreign->OwnOvs[0].Ov));
    EXPECT_EQ(other->PortCount, 1u) << "its own ring ends the wait in its port";
    script::EndOperation(&foreign->OwnOvs[0].Ov, 0, 1);
    RunUntilIdle(other);
    EXPECT_EQ(TakeNotes(), Names{"foreign"});
    EXPECT_EQ(script::QueuedPackets(S->Port) + script::QueuedPackets(other->Port), 0u);
}

// The host's own operations go through untouched but for the mark, whichever record they would have used.
TEST_F(FileCall, HostDrivenOperationsAreOnlyMarked) {
    Run([&](Fiber *self) {
        const HANDLE file = Open(FILE_FLAG_OVERLAPPED);
        OVERLAPPED ov{};
        DWORD got = 5;
        EXPECT_FALSE(ReadFile(file, nullptr, 10, &got, &ov));
        EXPECT_EQ(os::GetLastError(), ERROR_IO_PENDING);
        EXPECT_EQ(got, 0u);
        EXPECT_TRUE(MarkedWithoutPacket(ov));
        EXPECT_EQ(gScript.Calls.back().Ov, &ov);
        EXPECT_EQ(gScript.Calls.back().Op, nullptr);
        // Without an OVERLAPPED the library waits, on this handle too.
        Answer(script::Done(10));
        EXPECT_TRUE(ReadFile(file, nullptr, 10, &got, nullptr));
        EXPECT_EQ(gScript.Calls.back().Ov, &self->OwnOvs[0].Ov);
        script::EndOperation(&ov, STATUS_SUCCESS, 10);
        EXPECT_TRUE(GetOverlappedResult(file, &ov, &got, TRUE));
        EXPECT_EQ(got, 10u);
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// ---- Completion routines -------------------------------------------------------------------------------

struct Delivered {
    uint32_t Count = 0;
    DWORD Error = 0, Bytes = 0;
    OVERLAPPED *Ov = nullptr;
} gDelivered;

void Deliver(DWORD error, DWORD bytes, LPOVERLAPPED ov) {
    gDelivered = {gDelivered.Count + 1, error, bytes, ov};
    EXPECT_NE(ov->Internal, STATUS_PENDING);
}

TEST_F(FileCall, RoutineRecordsAreCountedAndGivenBack) {
    OVERLAPPED ov{};
    Fiber *F = Run([&](Fiber *self) {
        const HANDLE plain = Open();
        EXPECT_FALSE(ReadFileEx(plain, nullptr, 1, &ov, Deliver));
        EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        const HANDLE file = Open(FILE_FLAG_OVERLAPPED);
        Answer(script::Failed(ERROR_GEN_FAILURE));
        EXPECT_FALSE(ReadFileEx(file, nullptr, 1, &ov, Deliver));
        EXPECT_EQ(os::GetLastError(), ERROR_GEN_FAILURE);
        EXPECT_EQ(self->PendingApcIos, 0u);
        EXPECT_EQ(self->FileOvs.Count, 0u);
        EXPECT_EQ(S->FreeOvs.Count, 1u);

        gScript.OnIo = nullptr;
        EXPECT_TRUE(ReadFileEx(file, nullptr, 64, &ov, Deliver));
        EXPECT_EQ(S->FreeOvs.Count, 0u) << "the failed one's record serves again";
        EXPECT_EQ(self->PendingApcIos, 1u);
        EXPECT_EQ(SleepEx(INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->PendingApcIos, 0u);
        // At once is not inside the call either.
        Answer(script::Done(12));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 64, &ov, Deliver));
        EXPECT_EQ(gDelivered.Count, 1u);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(gDelivered.Bytes, 12u);
        Note("done");
    });
    ASSERT_EQ(F->FileOvs.Count, 1u);
    script::EndOperation(&ZVX_RECORD_OF(FirstLink(&F->FileOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_END_OF_FILE, 0);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"done"});
    EXPECT_EQ(gDelivered.Count, 2u);
}

TEST_F(FileCall, AFailedOperationTellsItsRoutineWhy) {
    OVERLAPPED ov{};
    Fiber *F = Run([&](Fiber *) {
        const HANDLE file = Open(FILE_FLAG_OVERLAPPED);
        EXPECT_TRUE(WriteFileEx(file, "x", 1, &ov, Deliver));
        SleepEx(INFINITE, TRUE);
        EXPECT_EQ(gDelivered.Error, ERROR_HANDLE_EOF);
        EXPECT_EQ(gDelivered.Ov, &ov);
        EXPECT_EQ(ov.Internal, STATUS_END_OF_FILE);
    });
    script::EndOperation(&ZVX_RECORD_OF(FirstLink(&F->FileOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_END_OF_FILE, 0);
    RunUntilIdle(S);
    EXPECT_EQ(gDelivered.Count, 1u);
}

TEST_F(FileCall, WritersByRole) {
    // A database writer expects a packet for the first of its writes in flight only.
    OVERLAPPED ovs[3] = {};
    Fiber *writer = Run(
        [&](Fiber *self) {
            const HANDLE file = Open(FILE_FLAG_OVERLAPPED);
            uint32_t packets = 0;
            for (OVERLAPPED &ov : ovs) EXPECT_TRUE(WriteFileEx(file, "x", 1, &ov, Deliver));
            for (ListLink *link = FirstLink(&self->FileOvs); link != &self->FileOvs.Ends; link = link->Next) {
                const FIBEROVERLAPPED *rec = ZVX_RECORD_OF(link, FIBEROVERLAPPED, Link);
                packets += (rec->Flags & OV_PACKET_EXPECTED) != 0;
                EXPECT_NE((rec->Flags & OV_PACKET_EXPECTED) != 0, MarkedWithoutPacket(rec->Ov));
            }
            EXPECT_EQ(packets, 1u);
            Note("written");
            Sleep(INFINITE);
        },
        ROLE_DBWR);
    EXPECT_EQ(TakeNotes(), Names{"written"});
    EXPECT_EQ(writer->FileOvs.Count, 3u);

    // The log writer's writes are counted by period; a closed period counts only with enough sessions.
    gLGWRHighActivityPeriodInMs = 1000;
    gLGWRHighActivityNumShadowsThreshold = 3;
    gLgwrPeriodStart.store(os::GetTickCount());
    const auto write = [&](uint32_t count) {
        Run(
            [&](Fiber *self) {
                Answer(script::Done(1));
                const HANDLE file = Open(FILE_FLAG_OVERLAPPED);
                OVERLAPPED ov{};
                for (uint32_t i = 0; i < count; i++) {
                    EXPECT_TRUE(WriteFileEx(file, "x", 1, &ov, Deliver));
                    SleepEx(0, TRUE);
                }
                self->Role = ROLE_OTHER;
            },
            ROLE_LGWR);
    };
    write(5);
    EXPECT_EQ(gLgwrWriteCount.load(), 5u);
    EXPECT_EQ(gLgwrLastWriteTick.load(), os::GetTickCount());
    S->ShadowCount.store(4);
    script::AdvanceClock(1000);
    write(1);
    EXPECT_EQ(gLgwrWriteCount.load(), 6u) << "the period is over when more than its length has passed";
    script::AdvanceClock(1);
    write(1);
    EXPECT_EQ(gLgwrWritesLastPeriod.load(), 7u);
    EXPECT_EQ(gLgwrWriteCount.load(), 0u);
    EXPECT_EQ(gLgwrPeriodStart.load(), os::GetTickCount());
    S->ShadowCount.store(3);
    script::AdvanceClock(1001);
    write(1);
    EXPECT_EQ(gLgwrWritesLastPeriod.load(), 0u);
}

TEST_F(FileCall, SocketsAreNotForFileFunctions) {
    const std::pair<const char *, std::function<void(HANDLE)>> calls[] = {
        {"ZReadFile: NOT WRAPPED SOCKET\n", [](HANDLE h) { ReadFile(h, nullptr, 1, nullptr, nullptr); }},
        {"ZWriteFile: NOT WRAPPED SOCKET\n", [](HANDLE h) { WriteFile(h, "", 1, nullptr, nullptr); }},
        {"ZReadFileEx NOT WRAPPED SOCKET\n", [](HANDLE h) { ReadFileEx(h, nullptr, 1, nullptr, Deliver); }},
        {"ZWriteFileEx NOT WRAPPED SOCKET\n", [](HANDLE h) { WriteFileEx(h, "", 1, nullptr, Deliver); }},
    };
    for (uint32_t type : {PHAND_HTYPE_WSASocket, PHAND_HTYPE_socket}) {
        for (const auto &[text, call] : calls) {
            const ChildResult child = RunChild([&] { Run([&](Fiber *) { call(HandleValue(NewEntry(S, type))); }); });
            EXPECT_EQ(child.ExitCode, 1);
            EXPECT_EQ(child.Output.rfind(std::string("ZORVEX KILLED: ") + text, 0), 0u) << child.Output;
        }
    }
}

}  // namespace
}  // namespace zvx::test
