// tests/unit/io_call_test.cpp - calls on files, pipes and sockets against a scripted operating system: what is issued,
// what is waited for, and what each end leaves in the record, the position and the caller's variables.
#include "diag/ringlog.h"
#include "kernel/pipe.h"
#include "net/net.h"
#include "sched_fixture.h"
#include "zvxkvt/pipetypes.h"

namespace zvx::test {
namespace {

using script::gScript;
using IoCall = CallTest;

HANDLE NewPipe(DWORD flags) {
    return CreateNamedPipeA("pipe", PIPE_ACCESS_DUPLEX | flags, 0, 1, 0, 0, 0, nullptr);
}
uint32_t FlagsOf(HANDLE handle) {
    return LookUpHandle(handle)->Flags.load();
}

// An association that is refused without a reason counts as made for a file, never for a pipe; the polling model binds
// pipes only.
TEST_F(IoCall, OpeningBinds) {
    RunToEnd([&](Fiber *) {
        constexpr uint32_t added = PHAND_FLAG_ASYNC_ADDED, callers = PHAND_FLAG_ASYNC_CALLER,
                           bound = PHAND_FLAG_ON_PORT;
        EXPECT_EQ(FlagsOf(Open(0)), added | bound);
        os::FailCall("CreateIoCompletionPort", 1, ERROR_SUCCESS);
        EXPECT_EQ(FlagsOf(Open()), callers | bound);
        gNumContextSwitchesBeforePolling = 0;
        EXPECT_EQ(FlagsOf(Open(0)), added);
        EXPECT_EQ(FlagsOf(NewPipe(0)), added | bound);
        const DWORD mode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
        EXPECT_EQ(FlagsOf(CreateNamedPipeW(L"pipe", mode, 0, 1, 0, 0, 0, nullptr)), callers | bound);
        const uint32_t handles = gHandleCount;
        for (const DWORD reason : {ERROR_INVALID_PARAMETER, ERROR_SUCCESS}) {
            os::FailCall("CreateIoCompletionPort", 1, reason);
            EXPECT_EQ(NewPipe(0), INVALID_HANDLE_VALUE);
            EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        }
        EXPECT_EQ(gHandleCount, handles);
    });
}

// Every way in which a waiting call can end: at once or later, with bytes, at the end of the file, cancelled, refused.
TEST_F(IoCall, EndsOfAWait) {
    using script::IoResult;
    enum Kind { kRead, kWrite, kConnect, kReceive, kSend };
    const struct {
        Kind Call;
        script::IoAnswer At;  // the call's answer
        DWORD Status, Bytes;  // of the end, when it was pending
        int Result;           // bytes; -1 is a failure
        DWORD Error;
    } cases[] = {
        {kRead, script::Done(70), 0, 0, 70, 0},
        {kRead, script::Pending(), STATUS_SUCCESS, 60, 60, 0},
        {kRead, script::Failed(ERROR_HANDLE_EOF), 0, 0, 0, 0},
        {kRead, script::Pending(), STATUS_END_OF_FILE, 0, 0, 0},
        {kRead, script::Failed(ERROR_GEN_FAILURE), 0, 0, -1, ERROR_GEN_FAILURE},
        {kRead, script::Pending(), STATUS_CANCELLED, 0, -1, ERROR_OPERATION_ABORTED},
        {kWrite, script::Pending(), STATUS_SUCCESS, 60, 60, 0},
        {kWrite, script::Failed(ERROR_HANDLE_EOF), 0, 0, -1, ERROR_HANDLE_EOF},
        {kConnect, script::Done(0), 0, 0, 0, 0},
        {kConnect, script::Pending(), STATUS_SUCCESS, 0, 0, 0},
        {kConnect, script::Failed(ERROR_PIPE_CONNECTED), 0, 0, -1, ERROR_PIPE_CONNECTED},
        {kConnect, script::Pending(), STATUS_CANCELLED, 0, -1, ERROR_OPERATION_ABORTED},
        {kReceive, script::Done(7), 0, 0, 7, 0},
        {kReceive, script::Pending(), STATUS_SUCCESS, 5, 5, 0},
        {kReceive, script::Failed(WSAECONNRESET), 0, 0, -1, WSAECONNRESET},
        {kReceive, script::Pending(), STATUS_CANCELLED, 0, 0, 0},  // as if the connection were closed
        {kReceive, script::Failed(WSAEDISCON), 0, 0, 0, 0},
        {kReceive, script::Pending(), 0xC0070000u | 64, 0, -1, ERROR_GEN_FAILURE},
        {kSend, script::Done(9), 0, 0, 9, 0},
        {kSend, script::Pending(), STATUS_SUCCESS, 9, 9, 0},
        {kSend, script::Failed(WSAECONNRESET), 0, 0, -1, WSAECONNRESET},
        {kSend, script::Pending(), STATUS_CANCELLED, 0, -1, WSA_OPERATION_ABORTED},
    };
    HANDLE file = nullptr, pipe = nullptr;
    SOCKET s = 0;
    Run([&](Fiber *) { file = Open(0), pipe = NewPipe(0), s = WSASocketA(2, 1, 0, nullptr, 0, 0); });
    std::atomic<uint64_t> &position = LookUpHandle(file)->FilePosition;
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        Answer(c.At);
        const bool onFile = c.Call <= kWrite, pending = c.At.Result == IoResult::kPending;
        OVERLAPPED ov{0, 0, 0xFFFFFFF0, 2, nullptr};
        position.store(5);
        Fiber *F = Run([&](Fiber *self) {
            char buffer[9];
            DWORD got = 0;
            int result = 0;
            // A pipe's client comes by a packet always; on a busy scheduler the others would be polled by now.
            SchedOf(self)->SwitchesSinceIdle = c.Call == kConnect ? gNumContextSwitchesBeforePolling : 0;
            switch (c.Call) {
                case kRead: result = ReadFile(file, nullptr, 100, &got, &ov) ? static_cast<int>(got) : -1; break;
                case kWrite: result = WriteFile(file, "x", 100, &got, &ov) ? static_cast<int>(got) : -1; break;
                case kConnect: result = ConnectNamedPipe(pipe, nullptr) - 1; break;
                case kReceive: result = recv(s, buffer, 9, 0); break;
                case kSend: result = send(s, buffer, 9, 0); break;
            }
            EXPECT_EQ(result, c.Result);
            EXPECT_TRUE(result >= 0 || (c.Call == kReceive && pending) || os::GetLastError() == c.Error);
            EXPECT_EQ(self->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
            EXPECT_EQ(self->IoWaitOv, nullptr);
            // A packet comes for what was accepted, and for nothing else.
            EXPECT_TRUE(pending || self->OwnOvs[0].SkipPackets == (c.At.Result == IoResult::kDone ? 1u : 0u));
            Note("returned");
        });
        if (pending) {
            const FIBEROVERLAPPED &rec = F->OwnOvs[0];
            EXPECT_EQ(F->State, FSTATE_IO_WAIT);
            EXPECT_EQ(F->IoWaitOv, &rec.Ov);
            EXPECT_EQ(rec.Flags, (c.Call < kReceive ? OV_FILE : OV_SOCKET) | OV_PACKET_EXPECTED);
            EXPECT_TRUE(TakeNotes().empty());
            EndWaitOf(F, c.Status, c.Bytes);
        }
        EXPECT_EQ(TakeNotes(), Names{"returned"});
        EXPECT_EQ(script::QueuedPackets(S->Port), 0u) << "an exit drains what is owed";
        // The carry goes into the high word; a failed read moves nothing.
        EXPECT_EQ(position.load(), onFile && c.Result >= 0 ? 0x2FFFFFFF0u + static_cast<uint32_t>(c.Result) : 5u);
        EXPECT_EQ(ov.Internal, onFile ? c.Status : 0);
        EXPECT_TRUE(!onFile || c.Result <= 0 || ov.InternalHigh == static_cast<uint32_t>(c.Result));
    }
    EXPECT_EQ(gScript.BoundKeys.size(), 3u) << "the socket is bound by the first call only";
}

TEST_F(IoCall, WaitingForAPipeIsTestingAgainAndAgain) {
    DWORD answer = ERROR_FILE_NOT_FOUND;
    gScript.OnWaitPipe = [&](DWORD) { return answer; };
    const auto wait = [&](DWORD ms, DWORD gives) {
        answer = gives;
        Run([&, ms](Fiber *) { Note(WaitNamedPipeA("pipe", ms) ? "had" : std::to_string(os::GetLastError())); });
    };
    wait(0, ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(TakeNotes(), Names{"2"});
    wait(INFINITE, ERROR_FILE_NOT_FOUND);
    Pass(500);
    EXPECT_EQ(TakeNotes(), Names{}) << "no such pipe yet is no end";
    answer = ERROR_SUCCESS;
    Pass(50);
    EXPECT_EQ(TakeNotes(), Names{"had"});
    wait(60, ERROR_SEM_TIMEOUT);
    Pass(30);
    EXPECT_EQ(TakeNotes(), Names{});
    Pass(60);
    EXPECT_EQ(TakeNotes(), Names{"121"}) << "of the latest look";
    wait(INFINITE, WAIT_TIMEOUT);
    EXPECT_EQ(TakeNotes(), Names{"258"}) << "the one failure that ends the wait";
}

// The handle is closed while its user waits. The read still ends; what the value stands for by then is left alone.
TEST_F(IoCall, ACloseDuringTheWaitTakesThePositionAway) {
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

uint32_t gDelivered;

TEST_F(IoCall, RoutineRecordsAreCountedAndGivenBack) {
    const auto deliver = [](DWORD error, DWORD bytes, LPOVERLAPPED) {
        gDelivered++;
        EXPECT_EQ(bytes, 12u);
        EXPECT_EQ(error, ERROR_HANDLE_EOF);
    };
    RunToEnd([&](Fiber *self) {
        OVERLAPPED ov{};
        EXPECT_FALSE(ReadFileEx(Open(0), nullptr, 1, &ov, deliver));
        EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        const HANDLE file = Open();
        Answer(script::Failed(ERROR_GEN_FAILURE));
        EXPECT_FALSE(ReadFileEx(file, nullptr, 1, &ov, deliver));
        EXPECT_EQ(os::GetLastError(), ERROR_GEN_FAILURE);
        EXPECT_EQ(self->PendingApcIos + self->FileOvs.Count, 0u);
        EXPECT_EQ(S->FreeOvs.Count, 1u) << "the record serves again";
        // An error is told to the routine, and at once is not inside the call either.
        Answer(script::Done(12));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 64, &ov, deliver));
        os::StoreStatus(&ZVX_RECORD_OF(FirstLink(&self->FileOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_END_OF_FILE);
        EXPECT_EQ(gDelivered, 0u);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(gDelivered, 1u);
        EXPECT_EQ(self->PendingApcIos, 0u);
        EXPECT_EQ(ov.Internal, STATUS_END_OF_FILE);
    });
}

// A database writer expects a packet for the first of its writes in flight only.
TEST_F(IoCall, DatabaseWritersGetOnePacket) {
    OVERLAPPED ovs[3] = {};
    const auto write = [&](Fiber *self) {
        const HANDLE file = Open();
        for (OVERLAPPED &ov : ovs) {
            EXPECT_TRUE(WriteFileEx(file, "x", 1, &ov, [](DWORD, DWORD, LPOVERLAPPED) {}));
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

// ---- The table of handles: growth, and families of duplicates. Entries under a reader: tests/model ----

struct HandleTable : CallTest {
    // An entry for a value that the operating system need not know.
    PSEHAND *Insert(uint32_t handle) {
        PSEHAND *entry = AllocHandleEntry(S, kOwnNode);
        entry->Handle = handle;
        entry->Type = PHAND_HTYPE_CreateFileA;
        InsertHandle(entry);
        return entry;
    }
    static PSEHAND *At(uintptr_t handle) { return LookUpHandle(handle); }
};

TEST_F(HandleTable, GrowthKeepsEveryEntryAndTheArrayBefore) {
    PSEHAND *low = Insert(400);
    PSEHAND *last = Insert((0x200000 - 1) * 4);
    EXPECT_EQ(gHandleTableSize.load(), 0x200000u);
    EXPECT_EQ(At(0x200000 * 4), nullptr) << "the first slot beyond the array";
    PSEHAND *high = Insert(20'000'000);  // two doublings at once
    EXPECT_EQ(gHandleTableSize.load(), 8'388'608u);
    EXPECT_EQ(gRetiredHandleTable[100].load(), low) << "a late reader of the array before finds what was there";
    EXPECT_TRUE(At(400) == low && At((0x200000 - 1) * 4) == last && At(20'000'000) == high);
    for (HANDLE never : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, os::GetCurrentThread()})
        EXPECT_EQ(LookUpHandle(never), nullptr);

    // A value that was given out again: the old entry leaves the slot to the new one.
    PSEHAND *young = Insert(400);
    EXPECT_FALSE(RemoveHandle(low));
    EXPECT_EQ(At(400), young);
    EXPECT_TRUE(RemoveHandle(young));
    EXPECT_FALSE(RemoveHandle(young));
    EXPECT_EQ(At(400), nullptr);
    EXPECT_EQ(gHandleCount, 2u);
}

TEST_F(HandleTable, FamiliesLiveAsLongAsTheirLastHandle) {
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA);
    const HANDLE root = HandleValue(entry);
    const auto duplicate = [](HANDLE source, DWORD options = 0) {
        const HANDLE process = os::GetCurrentProcess();
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, source, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS | options));
        return copy;
    };
    RunToEnd([&](Fiber *) {
        const HANDLE first = duplicate(root);
        const HANDLE second = duplicate(first);
        EXPECT_EQ(LookUpHandle(second)->Parent, entry) << "a child of the root, not of the handle between";
        EXPECT_EQ(entry->RefCount, 3u);
        EXPECT_TRUE(CloseHandle(root));
        EXPECT_EQ(LookUpHandle(root), entry) << "the family keeps its root";
        EXPECT_TRUE(CloseHandle(first));
        EXPECT_EQ(entry->RefCount, 1u);
        // Moving a handle closes its source, whose entry goes too.
        const HANDLE moved = duplicate(second, DUPLICATE_CLOSE_SOURCE);
        EXPECT_EQ(LookUpHandle(second), nullptr);
        EXPECT_EQ(entry->RefCount, 1u);
        EXPECT_TRUE(CloseHandle(moved));
        EXPECT_EQ(LookUpHandle(root), nullptr);
        // A refusal by the operating system drops the reference all the same.
        const HANDLE refused = HandleValue(NewEntry(S, PHAND_HTYPE_CreateFileA));
        os::FailCall("CloseHandle", 1, ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(refused));
        EXPECT_EQ(gHandleCount, 0u);
    });
}

// ---- The ring log and the user thread that writes it --------------------------------------------------

struct RingLog : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        S = NewScheduler();  // the first one would queue a line a second
        SetOption(su_LogToFile);
        ASSERT_TRUE(RingLogInit());
    }
};

TEST_F(RingLog, TextsAreDroppedWhenThereIsNoRecord) {
    for (uint32_t i = 0; i < kRingRecords; ++i) ASSERT_TRUE(RingLogPrintf("%u\n", i));
    EXPECT_FALSE(RingLogPrintf("one too many\n"));
    EXPECT_EQ(gRingDropped.load(), 1u);
    for (uint32_t i = 0; i < kRingRecords; ++i) EXPECT_EQ(std::to_string(i) + "\n", TakeRingRecord(&gRingLog)->Text);
    EXPECT_EQ(TakeRingRecord(&gRingLog), nullptr);
}

// Batches follow each other in the file, in the order of the queue; one that is refused is tried again a second later,
// and nothing that is queued meanwhile overtakes it.
TEST_F(RingLog, BatchesGoOutInOrderAndARefusedOneIsTriedAgain) {
    for (const char *text : {"a\n", "b\n", "c\n"}) RingLogPrintf("%s", text);
    std::vector<DWORD> ends;  // of each write in the file
    bool refuse = false;
    script::gScript.OnIo = [&](const script::IoCall &call) {
        if (refuse) return script::Failed(ERROR_DISK_FULL);
        EXPECT_EQ(call.Ov->Offset, ends.empty() ? 0 : ends.back());
        ends.push_back(call.Ov->Offset + call.Count);
        return script::Done(call.Count);
    };
    NewFiber(S, [](Fiber *) { FiberLogger(nullptr); });
    RunUntilIdle(S);
    EXPECT_EQ(ends, std::vector<DWORD>{6});  // no zero bytes between them

    refuse = true;
    RingLogPrintf("refused\n");
    Pass(1100);
    for (int i = 0; i < 200; ++i) RingLogPrintf("%0150d\n", i);
    Pass(2500);
    EXPECT_EQ(ends.size(), 1u);
    refuse = false;
    Pass(2200);
    // Each batch is closed when another text of the largest size might not fit.
    EXPECT_EQ(ends, (std::vector<DWORD>{6, 14, 14 + 107 * 151, 14 + 200 * 151}));
    EXPECT_EQ(2u, script::gScript.Flushes);  // each time the queue had run empty
    uint32_t free = 0;
    while (TakeRingRecord(&gRingFree) != nullptr) free++;
    EXPECT_EQ(kRingRecords, free);
}

}  // namespace
}  // namespace zvx::test
