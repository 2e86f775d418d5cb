// tests/unit/io_call_test.cpp - calls on files, pipes and sockets against a scripted operating system: what is issued,
// what is waited for, and what each end leaves in the record, the position and the caller's variables.
#include <cstring>

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

// An entry for a value that the operating system need not know.
PSEHAND *Insert(Scheduler *S, uintptr_t handle) {
    PSEHAND *entry = AllocHandleEntry(S, kOwnNode);
    entry->Handle = static_cast<uint32_t>(handle);
    entry->Type = PHAND_HTYPE_CreateFileA;
    InsertHandle(entry);
    return entry;
}

// An association that is refused without a reason counts as made for a file, never for a pipe; the polling model binds
// pipes only.
TEST_F(IoCall, OpeningBinds) {
    RunToEnd([&](Fiber *) {
        os::FailCall("CreateIoCompletionPort", 1, ERROR_SUCCESS);
        EXPECT_EQ(FlagsOf(Open()), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        gNumContextSwitchesBeforePolling = 0;
        EXPECT_EQ(FlagsOf(Open(0)), PHAND_FLAG_ASYNC_ADDED);
        EXPECT_EQ(FlagsOf(NewPipe(0)), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
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
    enum Kind { kRead, kWrite, kFlush, kConnect, kReceive, kSend };
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
        {kWrite, script::Failed(ERROR_HANDLE_EOF), 0, 0, -1, ERROR_HANDLE_EOF},
        {kFlush, script::Done(0), 0, 0, 0, 0},
        {kFlush, script::Pending(), STATUS_SUCCESS, 0, 0, 0},
        {kFlush, script::Failed(ERROR_ACCESS_DENIED), 0, 0, -1, ERROR_ACCESS_DENIED},
        {kFlush, script::Pending(), 0xC0070000u | ERROR_DISK_FULL, 0, -1, ERROR_DISK_FULL},
        {kConnect, script::Failed(ERROR_PIPE_CONNECTED), 0, 0, -1, ERROR_PIPE_CONNECTED},
        {kConnect, script::Pending(), STATUS_CANCELLED, 0, -1, ERROR_OPERATION_ABORTED},
        {kReceive, script::Done(7), 0, 0, 7, 0},
        {kReceive, script::Pending(), STATUS_SUCCESS, 5, 5, 0},
        {kReceive, script::Failed(WSAECONNRESET), 0, 0, -1, WSAECONNRESET},
        {kReceive, script::Pending(), STATUS_CANCELLED, 0, 0, 0},  // as if the connection were closed
        {kReceive, script::Failed(WSAEDISCON), 0, 0, 0, 0},
        {kReceive, script::Pending(), 0xC0070000u | 64, 0, -1, ERROR_GEN_FAILURE},
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
                case kFlush: result = FlushFileBuffers(file) - 1; break;
                case kConnect: result = ConnectNamedPipe(pipe, nullptr) - 1; break;
                case kReceive: result = recv(s, buffer, 9, 0); break;
                case kSend: result = send(s, buffer, 9, 0); break;
            }
            EXPECT_EQ(result, c.Result);
            EXPECT_TRUE(result >= 0 || (c.Call == kReceive && pending) || os::GetLastError() == c.Error);
            EXPECT_TRUE((self->OwnOvs[0].Flags & OV_PACKET_EXPECTED) == 0 && self->IoWaitOv == nullptr);
            // A packet comes for what was accepted, and for nothing else.
            EXPECT_TRUE(pending || self->OwnOvs[0].SkipPackets == (c.At.Result == IoResult::kDone ? 1u : 0u));
            Note("returned");
        });
        if (pending) {
            const FIBEROVERLAPPED &rec = F->OwnOvs[0];
            EXPECT_TRUE(F->State == FSTATE_IO_WAIT && F->IoWaitOv == &rec.Ov);
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

// No such pipe yet is no end; the error is that of the latest look; one failure ends the wait.
TEST_F(IoCall, WaitingForAPipeIsTestingAgainAndAgain) {
    DWORD answer = 0;
    gScript.OnWaitPipe = [&] { return answer; };
    const struct {
        DWORD First, Ms, Then;
        const char *Atonce, *Later;
    } cases[] = {{ERROR_FILE_NOT_FOUND, 0, 0, "2", ""},
                 {ERROR_FILE_NOT_FOUND, INFINITE, ERROR_SUCCESS, "", "had"},
                 {ERROR_FILE_NOT_FOUND, 560, ERROR_SEM_TIMEOUT, "", "121"},
                 {WAIT_TIMEOUT, INFINITE, 0, "258", ""}};
    for (const auto &c : cases) {
        answer = c.First;
        Run([ms = c.Ms](Fiber *) { Note(WaitNamedPipeA("pipe", ms) ? "had" : std::to_string(os::GetLastError())); });
        Pass(500);
        EXPECT_EQ(TakeNotes(), *c.Atonce != 0 ? Names{c.Atonce} : Names{});
        answer = c.Then;
        Pass(100);
        EXPECT_EQ(TakeNotes(), *c.Later != 0 ? Names{c.Later} : Names{});
    }
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
    RunToEnd([&](Fiber *) { CloseHandle(file); });
    PSEHAND *young = Insert(S, reinterpret_cast<uintptr_t>(file));  // as if the value had been given out again
    young->FilePosition.store(7);
    EndWaitOf(F, STATUS_SUCCESS, 40);
    EXPECT_EQ(TakeNotes(), Names{"read 40"});
    EXPECT_EQ(young->FilePosition.load(), 7u);
}

// ---- Completion routines -----------------------------------------------------------------------------

TEST_F(IoCall, RoutineRecordsAreCountedAndGivenBack) {
    const auto deliver = [](DWORD error, DWORD bytes, LPOVERLAPPED) {
        Note(std::to_string(error) + " " + std::to_string(bytes));
    };
    RunToEnd([&](Fiber *self) {
        OVERLAPPED ov{};
        EXPECT_FALSE(ReadFileEx(Open(0), nullptr, 1, &ov, deliver));
        EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        const HANDLE file = Open();
        Answer(script::Failed(ERROR_GEN_FAILURE));
        EXPECT_FALSE(ReadFileEx(file, nullptr, 1, &ov, deliver));
        EXPECT_EQ(self->PendingApcIos + self->FileOvs.Count, 0u);
        EXPECT_EQ(S->FreeOvs.Count, 1u) << "the record serves again";
        // An error is told to the routine, and at once is not inside the call either.
        Answer(script::Done(12));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 64, &ov, deliver));
        os::StoreStatus(&ZVX_RECORD_OF(FirstLink(&self->FileOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_END_OF_FILE);
        EXPECT_EQ(TakeNotes(), Names{});
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(TakeNotes(), Names{"38 12"});
        EXPECT_TRUE(self->PendingApcIos == 0 && ov.Internal == STATUS_END_OF_FILE);
    });
}

// ---- The table of handles: growth, and families of duplicates. Entries under a reader: tests/model ----

using HandleTable = CallTest;

TEST_F(HandleTable, GrowthKeepsEveryEntryAndTheArrayBefore) {
    PSEHAND *low = Insert(S, 400);
    PSEHAND *last = Insert(S, (0x200000 - 1) * 4);
    EXPECT_EQ(gHandleTableSize.load(), 0x200000u);
    EXPECT_EQ(LookUpHandle(0x200000 * 4), nullptr) << "the first slot beyond the array";
    PSEHAND *high = Insert(S, 20'000'000);  // two doublings at once
    EXPECT_EQ(gHandleTableSize.load(), 8'388'608u);
    EXPECT_EQ(gRetiredHandleTable[100].load(), low) << "a late reader of the array before finds what was there";
    EXPECT_TRUE(LookUpHandle(400) == low && LookUpHandle((0x200000 - 1) * 4) == last &&
                LookUpHandle(20'000'000) == high);
    for (HANDLE never : {HANDLE{nullptr}, INVALID_HANDLE_VALUE, os::GetCurrentThread()})
        EXPECT_EQ(LookUpHandle(never), nullptr);

    EXPECT_TRUE(RemoveHandle(low) && !RemoveHandle(low));
    EXPECT_EQ(LookUpHandle(400), nullptr);
    EXPECT_EQ(gHandleCount, 2u);
}

TEST_F(HandleTable, FamiliesLiveAsLongAsTheirLastHandle) {
    PSEHAND *entry = NewEntry(S, PHAND_HTYPE_CreateFileA);
    const HANDLE root = HandleValue(entry);
    RunToEnd([&](Fiber *) {
        const HANDLE first = Duplicate(root), second = Duplicate(first);
        EXPECT_EQ(LookUpHandle(second)->Parent, entry) << "a child of the root, not of the handle between";
        EXPECT_TRUE(CloseHandle(root) && CloseHandle(first));
        EXPECT_TRUE(LookUpHandle(root) == entry && entry->RefCount == 1) << "the family keeps its root";
        // Moving a handle closes its source, whose entry goes too. A refusal by the operating system drops the
        // reference all the same.
        const HANDLE moved = Duplicate(second, DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE);
        EXPECT_TRUE(LookUpHandle(second) == nullptr && entry->RefCount == 1);
        os::FailCall("CloseHandle", 1, ERROR_INVALID_HANDLE);
        EXPECT_FALSE(CloseHandle(moved));
        EXPECT_EQ(LookUpHandle(root), nullptr);
        EXPECT_EQ(gHandleCount, 0u);
    });
}

// ---- The ring log and the user thread that writes it --------------------------------------------------

using RingLog = CallTest;

// Batches follow each other in the file, in the order of the queue; one that is refused is tried again a second later,
// and nothing that is queued meanwhile overtakes it.
TEST_F(RingLog, BatchesGoOutInOrderAndARefusedOneIsTriedAgain) {
    S = NewScheduler();  // the first one would queue a line a second
    SetOption(su_LogToFile);
    ASSERT_TRUE(RingLogInit());
    for (const char *text : {"a\n", "b\n", "c\n"}) RingLogPrintf("%s", text);
    std::vector<DWORD> ends;  // of each write in the file
    uint32_t flushes = 0;
    bool refuse = false;
    script::gScript.OnIo = [&](const script::IoCall &call) {
        if (refuse) return script::Failed(ERROR_DISK_FULL);
        if (call.Count == 0) return flushes++, script::Done(0);
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
    refuse = false;
    Pass(2200);
    // Each batch is closed when another text of the largest size might not fit.
    EXPECT_EQ(ends, (std::vector<DWORD>{6, 14, 14 + 107 * 151, 14 + 200 * 151}));
    EXPECT_EQ(2u, flushes);  // each time the queue had run empty
    // Every record is free again; without one a text is dropped.
    for (uint32_t i = 0; i < kRingRecords; ++i) ASSERT_TRUE(RingLogPrintf("%u\n", i));
    EXPECT_FALSE(RingLogPrintf("one too many\n"));
}

// ---- Sockets -----------------------------------------------------------------------------------------

using script::TakeCalls;

struct NetCall : CallTest {
    SOCKET Make(DWORD flags = 0) {
        SOCKET s = INVALID_SOCKET;
        Run([&](Fiber *) { s = WSASocketA(2, 1, 0, nullptr, 0, flags); });
        TakeCalls();
        return s;
    }
    static uint32_t FlagsOf(SOCKET s) { return LookUpSocket(s)->Flags.load(); }
};

// Nothing is issued on a socket that could not be bound, and the next call tries again. A socket that came from another
// process is left alone by its first receive, not by a send. All handles of a socket share one binding. Asking whether
// the connection is there costs nothing; whatever differs from that question is issued.
TEST_F(NetCall, BindingAtTheFirstUse) {
    Answer(script::Done(1));
    RunToEnd([&](Fiber *) {
        char byte = 0;
        WSAPROTOCOL_INFOA info{};
        const SOCKET s = WSASocketA(2, 1, 0, nullptr, 0, 0);
        const SOCKET received = WSASocketA(2, 1, 0, &info, 0, 0), sent = WSASocketA(2, 1, 0, &info, 0, 0);
        EXPECT_EQ(recv(s, &byte, 0, ZVX_MSG_PEEK), SOCKET_ERROR);
        EXPECT_TRUE(os::GetLastError() == WSAEWOULDBLOCK && gScript.BoundKeys.empty());
        os::FailCall("CreateIoCompletionPort", 1, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(send(s, &byte, 1, 0), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_TRUE(gScript.Calls.empty());
        const auto bound = [](SOCKET of) { return (FlagsOf(of) & PHAND_FLAG_ON_PORT) != 0; };
        EXPECT_EQ(recv(received, &byte, 1, 0), 1);
        EXPECT_FALSE(bound(received));
        EXPECT_EQ(recv(received, &byte, 1, 0) + send(sent, &byte, 1, 0), 2);
        EXPECT_TRUE(bound(received) && bound(sent) && !bound(s));
        const SOCKET copy = reinterpret_cast<SOCKET>(Duplicate(SocketHandle(s)));
        EXPECT_EQ(send(copy, &byte, 1, 0) + send(s, &byte, 1, 0), 2);
        EXPECT_EQ(recv(s, &byte, 1, ZVX_MSG_PEEK) + recv(s, &byte, 0, 0), 2);
        EXPECT_TRUE(gScript.BoundKeys.size() == 3 && gScript.Calls.size() == 7);
    });
}

// ---- Operations that the caller does not wait for ----------------------------------------------------

struct Delivered {
    uint32_t Count;
    DWORD Error, Bytes, Flags;
    OVERLAPPED *Ov;
} gDelivered;

void Deliver(DWORD error, DWORD bytes, LPOVERLAPPED ov, DWORD flags) {
    gDelivered = {gDelivered.Count + 1, error, bytes, flags, ov};
}

TEST_F(NetCall, RoutinesRunInAlertableWaitsOnly) {
    const SOCKET s = Make(WSA_FLAG_OVERLAPPED);
    Fiber *F = Run([&](Fiber *self) {
        OVERLAPPED ov{0, 0, 3, 4, nullptr};
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        Answer(script::Failed(WSAENOTCONN));
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(self->PendingApcIos + self->SocketOvs.Count, 0u);
        // Pending for the caller although the data was there.
        Answer(script::Done(6));
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSA_IO_PENDING);
        EXPECT_EQ(gDelivered.Count, 0u);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_TRUE(gDelivered.Count == 1 && gDelivered.Bytes == 6 && gDelivered.Ov == &ov);
        // One that ends later, with an error, wakes the alertable wait.
        Answer(script::Pending());
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(ov.Internal, STATUS_PENDING);
        EXPECT_EQ(SleepEx(1000, TRUE), WAIT_IO_COMPLETION);
        EXPECT_TRUE(gDelivered.Error == WSA_OPERATION_ABORTED && gDelivered.Flags == uint32_t{ZVX_MSG_PARTIAL});
        EXPECT_TRUE(ov.Internal == STATUS_CANCELLED && self->PendingApcIos == 0);
    });
    EndRoutineOf(F, STATUS_CANCELLED, 0);
    EXPECT_EQ(gDelivered.Count, 2u);
}

// A socket for synchronous use waits whatever it is given: a routine runs before the return, an event is signalled.
TEST_F(NetCall, SynchronousUseWaitsForEverything) {
    const SOCKET s = Make(0);
    OVERLAPPED ov{0, 0, 0, 0, NewEvent(true, false)};
    Fiber *F = Run([&](Fiber *self) {
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), 0);
        EXPECT_TRUE(gDelivered.Count == 1 && gDelivered.Bytes == 5 && bytes == 5 && self->ApcDelivered == 1);
        EXPECT_EQ(os::WaitForSingleObject(ov.hEvent, 0), WAIT_TIMEOUT) << "the routine is told, the event is not";
        Answer(script::Done(8));
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, nullptr), 0);
        EXPECT_EQ(os::WaitForSingleObject(ov.hEvent, 0), WAIT_OBJECT_0);
        Note("done");
    });
    EndWaitOf(F, 0, 5);
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// The host waits for its own operations: no packet may come for them, nor a hand-over. The wait flag is one of three.
TEST_F(NetCall, OperationsOfTheHost) {
    const SOCKET s = Make(WSA_FLAG_OVERLAPPED);
    const HANDLE event = NewEvent(true, false);
    OVERLAPPED ov{0, 0, 0, 0, event};
    Run([&](Fiber *) {
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, nullptr), SOCKET_ERROR);
        EXPECT_TRUE(gScript.Calls.back().Ov == &ov && gScript.Calls.back().Op == nullptr);
        EXPECT_EQ(ov.hEvent, WithoutPacket(event));
        for (const BOOL wait : {0, 2}) {
            EXPECT_FALSE(WSAGetOverlappedResult(s, &ov, &bytes, wait, &flags));
            EXPECT_EQ(os::GetLastError(), WSA_IO_INCOMPLETE);
        }
        EXPECT_TRUE(WSAGetOverlappedResult(s, &ov, &bytes, 1, &flags));
        Note(std::to_string(bytes));
    });
    Pass(30);
    EXPECT_EQ(TakeNotes(), Names{});
    script::EndOperation(&ov, 0, 7);
    Pass(20);
    EXPECT_EQ(TakeNotes(), Names{"7"});
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
}

// ---- Making and accepting ----------------------------------------------------------------------------

TEST_F(NetCall, SocketsAreWrappedAsTheHostAsked) {
    const auto kind = [](SOCKET s) { return FlagsOf(s) & ~uint32_t{PHAND_FLAG_ON_PORT}; };
    RunToEnd([&](Fiber *) {
        const SOCKET plain = WSASocketA(2, 1, 0, nullptr, 0, 0), berkeley = socket(2, 1, 0);
        const SOCKET overlapped = WSASocketA(2, 1, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | 0x80);
        EXPECT_EQ(TakeCalls(), (Names{"WSASocketA 1", "socket", "WSASocketA 129"}));
        // An accepted socket is of its listener's kind; of a listener that is not wrapped it is not wrapped either.
        for (SOCKET s : {plain, WSAAccept(plain, nullptr, nullptr, nullptr, 0)})
            EXPECT_EQ(kind(s), PHAND_FLAG_ASYNC_ADDED);
        for (SOCKET s : {overlapped, berkeley, WSAAccept(berkeley, nullptr, nullptr, nullptr, 0)})
            EXPECT_EQ(kind(s), PHAND_FLAG_ASYNC_CALLER);
        EXPECT_EQ(LookUpSocket(WSAAccept(script::NewSocket(), nullptr, nullptr, nullptr, 0)), nullptr);
        // The entry goes whatever the operating system answers, and later calls pass through.
        EXPECT_EQ(closesocket(plain), 0);
        EXPECT_EQ(closesocket(plain), SOCKET_ERROR);
    });
}

// Other schedulers reuse records while a call blocks the thread of this one, but not while it runs the host's code.
TEST_F(NetCall, ACallThatBlocksHoldsUpNoRecord) {
    static Scheduler *const other = NewScheduler();
    // Whether a record that is retired there now comes back before this scheduler's next pass.
    static const auto reused = [] {
        static bool released;
        static RetireEntry entry{{}, [](Scheduler *, RetireEntry *) { released = true; }};
        released = false;
        RetireRecord(other, &entry);
        for (int i = 0; i < 2; i++) ReleaseRetired(other);
        if (!released) UnlinkFrom(&other->RetireWaiting, &entry.Link);
        return released;
    };
    const auto condition = [](WSABUF *, WSABUF *, QOS *, QOS *, WSABUF *, WSABUF *, GROUP *, DWORD_PTR data) {
        return reused() || data != 7 ? CF_REJECT : CF_ACCEPT;
    };
    gScript.OnBlock = [] { EXPECT_TRUE(reused()); };
    RunToEnd([&](Fiber *) {
        const SOCKET s = socket(2, 1, 0);
        EXPECT_EQ(connect(s, nullptr, 0) + WSAConnect(s, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_NE(WSAAccept(s, nullptr, nullptr, condition, 7), INVALID_SOCKET);
        EXPECT_FALSE(reused());
    });
}

TEST_F(NetCall, AClientAtOnceOrLater) {
    const SOCKET listener = Make(), overlapped = Make(WSA_FLAG_OVERLAPPED);
    Answer(script::Done(0));
    RunToEnd([&](Fiber *self) {
        int length = 16;
        char address[16] = {};
        const SOCKET s = accept(listener, reinterpret_cast<sockaddr *>(address), &length);
        EXPECT_EQ(TakeCalls(), (Names{"WSADuplicateSocketA", "WSASocketA 1", "WSASocketA 1 info", "closesocket",
                                      "AcceptEx", "setsockopt 28683 " + std::to_string(listener)}));
        EXPECT_EQ(FlagsOf(s), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(self->OwnOvs[0].SkipPackets, 1u) << "the late packet will be dropped";
        EXPECT_EQ(std::memcmp(address, script::kPeerAddress, 16), 0);
        EXPECT_EQ(FlagsOf(accept(overlapped, nullptr, &length)), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(length, 16);
    });
    // Under load too it is the packet that ends the wait; but no packet comes to a thread of another scheduler.
    Answer(script::Pending());
    gNumContextSwitchesBeforePolling = 1;
    for (Scheduler *on : {S, NewScheduler()}) {
        Fiber *F = NewFiber(on, [&](Fiber *self) {
            SchedOf(self)->SwitchesSinceIdle = 1;
            EXPECT_NE(accept(listener, nullptr, nullptr), INVALID_SOCKET);
            Note("accepted");
        });
        RunUntilIdle(on);
        EXPECT_EQ(F->OwnOvs[0].Flags, on == S ? OV_SOCKET | OV_PACKET_EXPECTED : OV_SOCKET);
        EXPECT_EQ(TakeNotes(), Names{});
        script::EndOperation(&F->OwnOvs[0].Ov, 0, 0);
        RunUntilIdle(on);
        EXPECT_EQ(TakeNotes(), Names{"accepted"});
    }
}

// The caller sees the error with which the operation ended, and no socket stays; neither after a termination.
TEST_F(NetCall, AFailureClosesWhatWasMade) {
    const SOCKET listener = Make();
    for (const bool terminated : {false, true}) {
        Fiber *F = Run([&](Fiber *) {
            EXPECT_EQ(accept(listener, nullptr, nullptr), INVALID_SOCKET);
            EXPECT_EQ(os::GetLastError(), WSA_OPERATION_ABORTED);
            Note("failed");
        });
        EXPECT_EQ(gScript.OpenSockets.size(), 2u);
        if (terminated) SendOne(S, MSG_TERMINATE, F, Generation(F), 5);
        terminated ? RunUntilIdle(S) : EndWaitOf(F, STATUS_CANCELLED, 0);
        EXPECT_EQ(TakeNotes(), terminated ? Names{} : Names{"failed"});
        EXPECT_EQ(gScript.OpenSockets, std::set<SOCKET>{listener});
        EXPECT_EQ(gHandleCount, 1u);
    }
}

// ---- select and events -------------------------------------------------------------------------------

// A second lasts 1024 milliseconds, and a millisecond counts as 1024 microseconds.
TEST_F(NetCall, TimeOuts) {
    const struct {
        os::TimeVal Timeout;
        uint32_t Low, High;
    } cases[] = {{{2, 0}, 2048, 2049}, {{0, 100000}, 98, 98}, {{1, 500000}, 1513, 1514}, {{0, 1}, 1, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Low);
        Run([&](Fiber *) {
            zvx_fd_set set{1, {8}};
            EXPECT_EQ(zvx::select(0, &set, nullptr, nullptr, &c.Timeout), 0);
            EXPECT_EQ(set.fd_count, 0u);
            Note("ended");
        });
        Pass(c.Low - 1);
        EXPECT_EQ(TakeNotes(), Names{});
        Pass(1 + c.High - c.Low);
        EXPECT_EQ(TakeNotes(), Names{"ended"});
    }
}

// Each look asks about all sockets again. Others run between two looks: when there are none, the scheduler waits in its
// port.
TEST_F(NetCall, EveryLookAsksTheWholeQuestion) {
    struct {
        DWORD Count;
        SOCKET Sockets[400];
    } read{400, {}};  // more than any set of the host's headers holds
    read.Sockets[399] = 8;
    zvx_fd_set write{1, {8}};
    uint32_t looks = 0, readyAt = 0;
    gScript.OnSelect = [&](zvx_fd_set *reads, zvx_fd_set *writes, zvx_fd_set *error) {
        SOCKET *const sockets = reads->fd_array;
        EXPECT_TRUE(reads->fd_count == 400 && sockets[399] == 8 && writes->fd_count == 1 && error == nullptr);
        const bool ready = ++looks == readyAt;
        *writes = {0, {0}};
        reads->fd_count = ready ? 1 : 0;
        sockets[399] = 0;
        if (ready) sockets[0] = 8;
        return ready ? 1 : 0;
    };
    gPortWaitMs = 100;
    Run([&](Fiber *) {
        EXPECT_EQ(zvx::select(0, reinterpret_cast<zvx_fd_set *>(&read), &write, nullptr, nullptr), 1);
        Note("ready");
    });
    Pass(2);
    EXPECT_EQ(gScript.LastPortWaitMs, 1u);
    readyAt = looks + 10;
    Pass(9);
    EXPECT_EQ(TakeNotes(), Names{});
    Pass(1);
    EXPECT_EQ(TakeNotes(), Names{"ready"}) << "one look and then the port";
    EXPECT_TRUE(read.Count == 1 && read.Sockets[0] == 8 && write.fd_count == 0);
}

}  // namespace
}  // namespace zvx::test
