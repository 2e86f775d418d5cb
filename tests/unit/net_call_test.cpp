// tests/unit/net_call_test.cpp - sockets against a scripted operating system: what is made, issued and asked, how its
// end is noticed, and what each end leaves behind. Plain sends and receives: io_call_test.cpp.
#include <cstring>

#include "alloc/alloc.h"
#include "net/net.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

using script::gScript;
using script::gSockets;
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

// Asking whether the connection is there costs nothing; whatever differs from that question is issued. A message that
// continues is told through the flags, which only the operating system knows.
TEST_F(NetCall, APeekForNothingIsAnsweredAtOnce) {
    const SOCKET s = Make();
    Answer(script::Done(0));
    RunToEnd([&](Fiber *) {
        char byte;
        EXPECT_EQ(recv(s, &byte, 0, ZVX_MSG_PEEK), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSAEWOULDBLOCK);
        EXPECT_EQ(gScript.Calls.size() + gScript.BoundKeys.size(), 0u);
        EXPECT_EQ(recv(s, &byte, 1, ZVX_MSG_PEEK) + recv(s, &byte, 0, 0), 0);
        EXPECT_EQ(gScript.Calls.size(), 2u);
    });
    Answer(script::Pending());
    Fiber *F = Run([&](Fiber *) {
        DWORD flags = ZVX_MSG_PARTIAL, bytes = 0;
        WSABUF one{4, nullptr};
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, nullptr, nullptr), 0);
    });
    EndWaitOf(F, STATUS_SUCCESS, 4);
    EXPECT_EQ(TakeCalls().back(), "WSAGetOverlappedResult");
}

// Nothing is issued on a socket that could not be bound, and the next call tries again. A socket that came from another
// process is left alone by its first receive, not by a send. All handles of a socket share one binding.
TEST_F(NetCall, BindingAtTheFirstUse) {
    Answer(script::Done(1));
    RunToEnd([&](Fiber *) {
        char byte = 0;
        WSAPROTOCOL_INFOA info{};
        const SOCKET s = WSASocketA(2, 1, 0, nullptr, 0, 0);
        const SOCKET received = WSASocketA(2, 1, 0, &info, 0, 0), sent = WSASocketA(2, 1, 0, &info, 0, 0);
        os::FailCall("CreateIoCompletionPort", 1, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(send(s, &byte, 1, 0), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_TRUE(gScript.Calls.empty());
        const auto bound = [](SOCKET of) { return (FlagsOf(of) & PHAND_FLAG_ON_PORT) != 0; };
        EXPECT_EQ(recv(received, &byte, 1, 0), 1);
        EXPECT_FALSE(bound(received));
        EXPECT_EQ(recv(received, &byte, 1, 0) + send(sent, &byte, 1, 0), 2);
        EXPECT_TRUE(bound(received) && bound(sent) && !bound(s));
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(os::GetCurrentProcess(), SocketHandle(s), os::GetCurrentProcess(), &copy, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
        EXPECT_EQ(send(reinterpret_cast<SOCKET>(copy), &byte, 1, 0) + send(s, &byte, 1, 0), 2);
        EXPECT_EQ(gScript.BoundKeys.size(), 3u);
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
        const auto *rec = ZVX_RECORD_OF(FirstLink(&self->SocketOvs), FIBEROVERLAPPED, Link);
        EXPECT_EQ(rec->SkipPackets, 1u);
        EXPECT_EQ(uint64_t{rec->Ov.OffsetHigh} << 32 | rec->Ov.Offset, 4ull << 32 | 3);
        EXPECT_EQ(gDelivered.Count, 0u);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_TRUE(gDelivered.Count == 1 && gDelivered.Bytes == 6 && gDelivered.Ov == &ov);
        // One that ends later, with an error, wakes the alertable wait.
        Answer(script::Pending());
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(ov.Internal, STATUS_PENDING);
        EXPECT_EQ(SleepEx(1000, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(gDelivered.Error, WSA_OPERATION_ABORTED);
        EXPECT_EQ(gDelivered.Flags, uint32_t{ZVX_MSG_PARTIAL});
        EXPECT_EQ(ov.Internal, STATUS_CANCELLED);
        EXPECT_EQ(self->PendingApcIos, 0u);
        Note("done");
    });
    EndRoutineOf(F, STATUS_CANCELLED, 0);
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// A socket for synchronous use waits whatever it is given: a routine runs before the return, an event is signalled.
TEST_F(NetCall, SynchronousUseWaitsForEverything) {
    const SOCKET s = Make(0);
    const HANDLE event = NewEvent(true, false);
    OVERLAPPED ov{0, 0, 0, 0, reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) | 1)};
    Fiber *F = Run([&](Fiber *self) {
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), 0);
        EXPECT_TRUE(gDelivered.Count == 1 && gDelivered.Bytes == 5 && bytes == 5);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "the routine is told, the event is not";
        Answer(script::Done(8));
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, nullptr), 0);
        EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
        EXPECT_EQ(gDelivered.Count, 1u);
        EXPECT_EQ(ov.InternalHigh, 8u);
        Note("done");
    });
    EndWaitOf(F, 0, 5);
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// The host waits for its own operations: no packet may come for them, nor a hand-over. The wait flag is one of three.
TEST_F(NetCall, OperationsOfTheHost) {
    const SOCKET s = Make(WSA_FLAG_OVERLAPPED);
    OVERLAPPED ov{}, second{0, 0, 0, 0, NewEvent(true, false)};
    Run([&](Fiber *) {
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, nullptr), SOCKET_ERROR);
        EXPECT_TRUE(gScript.Calls.back().Ov == &ov && gScript.Calls.back().Op == nullptr);
        EXPECT_EQ(ov.hEvent, WithoutPacket(nullptr));
        Answer(script::Done(2));
        const HANDLE unmarked = second.hEvent;
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &second, nullptr), 0);
        EXPECT_EQ(second.hEvent, WithoutPacket(unmarked));
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
        EXPECT_EQ(LookUpSocket(berkeley)->Type, PHAND_HTYPE_socket);
        EXPECT_EQ(LookUpSocket(plain)->Type, PHAND_HTYPE_WSASocket);
        EXPECT_EQ(LookUpSocket(WSAAccept(script::NewSocket(), nullptr, nullptr, nullptr, 0)), nullptr);
        // The entry goes whatever the operating system answers, and later calls pass through.
        EXPECT_EQ(closesocket(plain), 0);
        EXPECT_EQ(LookUpHandle(plain), nullptr);
        EXPECT_EQ(closesocket(plain), SOCKET_ERROR);
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
        EXPECT_EQ(gSockets.Open.size(), 2u);
        if (terminated) SendOne(S, MSG_TERMINATE, F, Generation(F), 5);
        terminated ? RunUntilIdle(S) : EndWaitOf(F, STATUS_CANCELLED, 0);
        EXPECT_EQ(TakeNotes(), terminated ? Names{} : Names{"failed"});
        EXPECT_EQ(gSockets.Open, std::set<SOCKET>{listener});
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
    uint32_t looks = 0;
    bool ready = false;
    gSockets.OnSelect = [&](zvx_fd_set *reads, zvx_fd_set *writes, zvx_fd_set *error) {
        looks++;
        SOCKET *const sockets = reads->fd_array;
        EXPECT_TRUE(reads->fd_count == 400 && sockets[399] == 8 && writes->fd_count == 1 && error == nullptr);
        *writes = {0, {0}};
        reads->fd_count = ready ? 1 : 0;
        sockets[399] = 0;
        if (ready) sockets[0] = 8;
        return ready ? 1 : 0;
    };
    Run([&](Fiber *) {
        EXPECT_EQ(zvx::select(0, reinterpret_cast<zvx_fd_set *>(&read), &write, nullptr, nullptr), 1);
        Note("ready");
    });
    gPortWaitMs = 100;
    Pass(2);
    const uint32_t before = looks;
    Pass(10);
    EXPECT_EQ(looks, before + 10) << "one look and then the port";
    EXPECT_EQ(gScript.LastPortWaitMs, 1u);
    ready = true;
    Pass(1);
    EXPECT_EQ(TakeNotes(), Names{"ready"});
    EXPECT_TRUE(read.Count == 1 && read.Sockets[0] == 8 && write.fd_count == 0);
}

}  // namespace
}  // namespace zvx::test
