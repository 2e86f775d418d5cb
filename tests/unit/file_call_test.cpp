// tests/unit/file_call_test.cpp - the file functions against a scripted operating system: what is issued, what is
// waited for, and what each end leaves in the record, the position and the caller's variables.
#include "call_fixture.h"
#include "child.h"

namespace zvx::test {
namespace {

using script::gScript;

using FileCall = CallTest;

TEST_F(FileCall, OpeningBinds) {
    RunToEnd([&](Fiber *) {
        const HANDLE plain = Open(0);
        EXPECT_EQ(LookUpHandle(plain)->Flags.load(), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(gScript.BoundKeys.back(), reinterpret_cast<uintptr_t>(plain));
        EXPECT_EQ(LookUpHandle(Open())->Flags.load(), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        // Refused without a reason counts as associated.
        os::FailCall("CreateIoCompletionPort", 1, ERROR_SUCCESS);
        EXPECT_EQ(LookUpHandle(Open())->Flags.load(), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        gNumContextSwitchesBeforePolling = 0;
        EXPECT_EQ(LookUpHandle(Open(0))->Flags.load(), PHAND_FLAG_ASYNC_ADDED) << "the polling model uses no port";
    });
}

// Every way in which a waiting read can end: at once or later, with bytes, at the end of the file, or failed.
TEST_F(FileCall, EndsOfAWaitingRead) {
    using script::IoResult;
    const struct {
        script::IoAnswer At;  // the call's answer
        DWORD Status, Bytes;  // of the end, when it was pending
        BOOL Result;
        DWORD Got, Error;
    } cases[] = {
        {script::Done(70), 0, 0, TRUE, 70, 0},
        {script::Pending(), STATUS_SUCCESS, 60, TRUE, 60, 0},
        {script::Failed(ERROR_HANDLE_EOF), 0, 0, TRUE, 0, 0},
        {script::Pending(), STATUS_END_OF_FILE, 0, TRUE, 0, 0},
        {script::Failed(ERROR_GEN_FAILURE), 0, 0, FALSE, 0, ERROR_GEN_FAILURE},
        {script::Pending(), STATUS_CANCELLED, 0, FALSE, 0, ERROR_OPERATION_ABORTED},
    };
    HANDLE file = nullptr;
    Run([&](Fiber *) { file = Open(0); });
    std::atomic<uint64_t> &position = LookUpHandle(file)->FilePosition;
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        Answer(c.At);
        OVERLAPPED ov{0, 0, 0xFFFFFFF0, 2, nullptr};
        position.store(5);
        Fiber *F = Run([&](Fiber *self) {
            DWORD got = 99;
            EXPECT_EQ(ReadFile(file, nullptr, 100, &got, &ov), c.Result);
            EXPECT_EQ(got, c.Got);
            EXPECT_EQ(c.Result ? c.Error : os::GetLastError(), c.Error);
            EXPECT_EQ(self->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
            EXPECT_EQ(self->IoWaitOv, nullptr);
            // A packet comes for what was accepted, and for nothing else.
            const uint32_t owed = c.At.Result == IoResult::kDone ? 1 : 0;
            EXPECT_TRUE(c.At.Result == IoResult::kPending || self->OwnOvs[0].SkipPackets == owed);
            EXPECT_EQ(ov.Internal, c.Status);
            EXPECT_TRUE(!c.Result || c.At.Result == IoResult::kFailed || ov.InternalHigh == c.Got);
            Note("returned");
        });
        if (c.At.Result == IoResult::kPending) {
            EXPECT_EQ(F->State, FSTATE_IO_WAIT);
            EXPECT_EQ(F->IoWaitOv, &F->OwnOvs[0].Ov);
            EXPECT_TRUE(TakeNotes().empty());
            EndWaitOf(F, c.Status, c.Bytes);
        }
        EXPECT_EQ(TakeNotes(), Names{"returned"});
        // The carry goes into the high word; a failed read moves nothing.
        EXPECT_EQ(position.load(), c.Result ? 0x2FFFFFFF0u + c.Got : 5u);
        EXPECT_EQ(script::QueuedPackets(S->Port), 0u) << "an exit drains what is owed";
    }
    // A write has no end-of-file rule.
    Answer(script::Failed(ERROR_HANDLE_EOF));
    Run([&](Fiber *) {
        DWORD put = 9;
        EXPECT_FALSE(WriteFile(file, "x", 1, &put, nullptr));
        Note(std::to_string(put));
    });
    EXPECT_EQ(TakeNotes(), Names{"0"});
}

// The handle is closed while its user waits. The read still ends; what the value stands for by then is left alone.
TEST_F(FileCall, ACloseDuringTheWaitTakesThePositionAway) {
    HANDLE file = nullptr;
    Fiber *F = Run([&](Fiber *) {
        file = Open(0);
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(file, nullptr, 100, &got, nullptr));
        Note("read " + std::to_string(got));
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
    EndWaitOf(F, STATUS_SUCCESS, 40);
    EXPECT_EQ(TakeNotes(), Names{"read 40"});
    EXPECT_EQ(young->FilePosition.load(), 7u);
}

// ---- Completion routines -----------------------------------------------------------------------------

struct Delivered {
    uint32_t Count;
    DWORD Error, Bytes;
    OVERLAPPED *Ov;
} gDelivered;

void Deliver(DWORD error, DWORD bytes, LPOVERLAPPED ov) {
    gDelivered = {gDelivered.Count + 1, error, bytes, ov};
}

TEST_F(FileCall, RoutineRecordsAreCountedAndGivenBack) {
    RunToEnd([&](Fiber *self) {
        OVERLAPPED ov{};
        EXPECT_FALSE(ReadFileEx(Open(0), nullptr, 1, &ov, Deliver));
        EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        const HANDLE file = Open();
        Answer(script::Failed(ERROR_GEN_FAILURE));
        EXPECT_FALSE(ReadFileEx(file, nullptr, 1, &ov, Deliver));
        EXPECT_EQ(os::GetLastError(), ERROR_GEN_FAILURE);
        EXPECT_EQ(self->PendingApcIos + self->FileOvs.Count, 0u);
        EXPECT_EQ(S->FreeOvs.Count, 1u) << "the record serves again";
        // At once is not inside the call either; and an error is told to the routine.
        Answer(script::Done(12));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 64, &ov, Deliver));
        EXPECT_EQ(gDelivered.Count, 0u);
        EXPECT_EQ(self->PendingApcIos, 1u);
        EXPECT_EQ(S->FreeOvs.Count, 0u);
        os::StoreStatus(&ZVX_RECORD_OF(FirstLink(&self->FileOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_END_OF_FILE);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->PendingApcIos, 0u);
        EXPECT_EQ(gDelivered.Bytes, 12u);
        EXPECT_EQ(gDelivered.Error, ERROR_HANDLE_EOF);
        EXPECT_EQ(gDelivered.Ov, &ov);
        EXPECT_EQ(ov.Internal, STATUS_END_OF_FILE);
    });
}

// A database writer expects a packet for the first of its writes in flight only.
TEST_F(FileCall, DatabaseWritersGetOnePacket) {
    OVERLAPPED ovs[3] = {};
    const auto write = [&](Fiber *self) {
        const HANDLE file = Open();
        for (OVERLAPPED &ov : ovs) {
            EXPECT_TRUE(WriteFileEx(file, "x", 1, &ov, Deliver));
            const FIBEROVERLAPPED *rec = ZVX_RECORD_OF(self->FileOvs.Ends.Prev, FIBEROVERLAPPED, Link);
            const bool packet = (rec->Flags & OV_PACKET_EXPECTED) != 0;
            EXPECT_NE(WithoutPacket(rec->Ov.hEvent) == rec->Ov.hEvent, packet);
            Note(packet ? "packet" : "polled");
        }
        Sleep(INFINITE);
    };
    Run(write, ROLE_DBWR);
    EXPECT_EQ(TakeNotes(), (Names{"packet", "polled", "polled"}));
}

// The log writer's writes are counted by period; a closed period counts only with enough sessions.
TEST_F(FileCall, LogWritesAreCountedByPeriod) {
    gLGWRHighActivityPeriodInMs = 1000;
    gLGWRHighActivityNumShadowsThreshold = 3;
    gLgwrPeriodStart.store(os::GetTickCount());
    Answer(script::Done(1));
    const auto write = [&](uint32_t sessions, uint32_t after) {
        S->ShadowCount.store(sessions);
        script::AdvanceClock(after);
        const auto body = [&](Fiber *self) {
            OVERLAPPED ov{};
            EXPECT_TRUE(WriteFileEx(Open(), "x", 1, &ov, Deliver));
            SleepEx(0, TRUE);
            self->Role = ROLE_OTHER;
        };
        Run(body, ROLE_LGWR);
        EXPECT_EQ(gLgwrLastWriteTick.load(), os::GetTickCount());
        return gLgwrWriteCount.load();
    };
    EXPECT_EQ(write(4, 0), 1u);
    EXPECT_EQ(write(4, 1000), 2u) << "the period is over when more than its length has passed";
    EXPECT_EQ(write(4, 1), 0u);
    EXPECT_EQ(gLgwrWritesLastPeriod.load(), 3u);
    EXPECT_EQ(gLgwrPeriodStart.load(), os::GetTickCount());
    EXPECT_EQ(write(3, 1001), 0u);
    EXPECT_EQ(gLgwrWritesLastPeriod.load(), 0u);
}

TEST_F(FileCall, SocketsAreNotForFileFunctions) {
    const struct {
        const char *Text;
        uint32_t Type;
        std::function<void(HANDLE)> Call;
    } cases[] = {
        {"ZReadFile: NOT WRAPPED SOCKET\n", PHAND_HTYPE_socket,
         [](HANDLE h) { ReadFile(h, nullptr, 1, nullptr, nullptr); }},
        {"ZWriteFile: NOT WRAPPED SOCKET\n", PHAND_HTYPE_WSASocket,
         [](HANDLE h) { WriteFile(h, "", 1, nullptr, nullptr); }},
        {"ZReadFileEx NOT WRAPPED SOCKET\n", PHAND_HTYPE_WSASocket,
         [](HANDLE h) { ReadFileEx(h, nullptr, 1, nullptr, Deliver); }},
        {"ZWriteFileEx NOT WRAPPED SOCKET\n", PHAND_HTYPE_socket,
         [](HANDLE h) { WriteFileEx(h, "", 1, nullptr, Deliver); }},
    };
    for (const auto &c : cases)
        EXPECT_EQ(FatalTextOf([&] { Run([&](Fiber *) { c.Call(HandleValue(NewEntry(S, c.Type))); }); }), c.Text);
}

}  // namespace
}  // namespace zvx::test
