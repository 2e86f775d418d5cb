// tests/unit/net_transfer_test.cpp - sends and receives against a scripted operating system: what is issued, how its
// end is noticed, and what each end leaves behind.
#include "call_fixture.h"
#include "net/net.h"
#include "scripted_socket.h"

namespace zvx::test {
namespace {

using script::TakeCalls;

struct NetTransfer : CallTest {
    SOCKET Make(DWORD flags = 0) {
        SOCKET s = INVALID_SOCKET;
        Run([&](Fiber *) { s = WSASocketA(2, 1, 0, nullptr, 0, flags); });
        TakeCalls();
        return s;
    }
    uint32_t FlagsOf(SOCKET s) { return LookUpSocket(s)->Flags.load(); }
};

// Asking whether the connection is there costs nothing; whatever differs from that question is issued.
TEST_F(NetTransfer, APeekForNothingIsAnsweredAtOnce) {
    const SOCKET s = Make();
    Answer(script::Done(0));
    RunToEnd([&](Fiber *) {
        char byte;
        EXPECT_EQ(recv(s, &byte, 0, ZVX_MSG_PEEK), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSAEWOULDBLOCK);
        EXPECT_EQ(script::gScript.Calls.size() + script::gScript.BoundKeys.size(), 0u);
        EXPECT_EQ(recv(s, &byte, 1, ZVX_MSG_PEEK), 0);
        EXPECT_EQ(recv(s, &byte, 0, 0), 0);
        EXPECT_EQ(script::gScript.Calls.size(), 2u);
    });
}

// A message that continues is told through the flags, which only the operating system knows.
TEST_F(NetTransfer, APartialMessageAsksForTheResult) {
    const SOCKET s = Make();
    DWORD flags = ZVX_MSG_PARTIAL, bytes = 0;
    WSABUF one{4, nullptr};
    Fiber *F = Run([&](Fiber *) { EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, nullptr, nullptr), 0); });
    TakeCalls();
    EndWaitOf(F, STATUS_SUCCESS, 4);
    EXPECT_EQ(TakeCalls(), Names{"WSAGetOverlappedResult"});
    EXPECT_EQ(bytes, 4u);
}

// Nothing is issued on a socket that could not be bound, and the next call tries again. A socket that came from another
// process is left alone by its first receive, not by a send. All handles of a socket share one binding.
TEST_F(NetTransfer, BindingAtTheFirstUse) {
    const SOCKET s = Make();
    Answer(script::Done(1));
    RunToEnd([&](Fiber *) {
        char byte = 0;
        os::FailCall("CreateIoCompletionPort", 1, ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_EQ(send(s, &byte, 1, 0), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
        EXPECT_TRUE(script::gScript.Calls.empty());
        EXPECT_EQ(FlagsOf(s), PHAND_FLAG_ASYNC_ADDED);
        EXPECT_EQ(send(s, &byte, 1, 0), 1);
        EXPECT_EQ(FlagsOf(s), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);

        WSAPROTOCOL_INFOA info{};
        const SOCKET received = WSASocketA(2, 1, 0, &info, 0, 0), sent = WSASocketA(2, 1, 0, &info, 0, 0);
        EXPECT_EQ(FlagsOf(received), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_PROTOCOL_INFO);
        EXPECT_EQ(recv(received, &byte, 1, 0), 1);
        EXPECT_EQ(FlagsOf(received), PHAND_FLAG_ASYNC_ADDED);
        EXPECT_EQ(recv(received, &byte, 1, 0), 1);
        EXPECT_EQ(FlagsOf(received), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(send(sent, &byte, 1, 0), 1);
        EXPECT_EQ(FlagsOf(sent), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_PROTOCOL_INFO | PHAND_FLAG_ON_PORT);

        const SOCKET first = WSASocketA(2, 1, 0, nullptr, 0, 0);
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(os::GetCurrentProcess(), SocketHandle(first), os::GetCurrentProcess(), &copy, 0,
                                    FALSE, DUPLICATE_SAME_ACCESS));
        const size_t bound = script::gScript.BoundKeys.size();
        EXPECT_EQ(send(reinterpret_cast<SOCKET>(copy), &byte, 1, 0), 1);
        EXPECT_EQ(send(first, &byte, 1, 0), 1);
        EXPECT_EQ(script::gScript.BoundKeys.size(), bound + 1);
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

TEST_F(NetTransfer, RoutinesRunInAlertableWaitsOnly) {
    const SOCKET s = Make(WSA_FLAG_OVERLAPPED);
    Run([&](Fiber *self) {
        OVERLAPPED ov{0, 0, 3, 4, nullptr};
        WSABUF one{8, nullptr};
        DWORD bytes = 0, flags = 0;
        Answer(script::Failed(WSAENOTCONN));
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(self->PendingApcIos + self->SocketOvs.Count, 0u);
        EXPECT_EQ(S->FreeOvs.Count, 1u) << "the record serves again";
        // Pending for the caller although the data was there.
        Answer(script::Done(6));
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSA_IO_PENDING);
        EXPECT_EQ(gDelivered.Count, 0u);
        EXPECT_EQ(self->PendingApcIos, 1u);
        const auto *rec = ZVX_RECORD_OF(FirstLink(&self->SocketOvs), FIBEROVERLAPPED, Link);
        EXPECT_EQ(rec->Flags, OV_SOCKET_ROUTINE);
        EXPECT_EQ(rec->SkipPackets, 1u);
        EXPECT_EQ(uint64_t{rec->Ov.OffsetHigh} << 32 | rec->Ov.Offset, 4ull << 32 | 3);
        EXPECT_EQ(SleepEx(0, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(gDelivered.Count, 1u);
        EXPECT_EQ(gDelivered.Bytes, 6u);
        EXPECT_EQ(gDelivered.Ov, &ov);
        // One that ends later, with an error, wakes the alertable wait.
        Answer(script::Pending());
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, Deliver), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSA_IO_PENDING);
        EXPECT_EQ(ov.Internal, STATUS_PENDING);
        EXPECT_EQ(SleepEx(1000, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(gDelivered.Error, WSA_OPERATION_ABORTED);
        EXPECT_EQ(gDelivered.Flags, uint32_t{ZVX_MSG_PARTIAL});
        EXPECT_EQ(ov.Internal, STATUS_CANCELLED);
        EXPECT_EQ(self->PendingApcIos, 0u);
        Note("done");
    });
    Fiber *F = ZVX_RECORD_OF(S->AllFibers.Ends.Prev, Fiber, SchedFibersLink);
    script::EndOperation(&ZVX_RECORD_OF(FirstLink(&F->SocketOvs), FIBEROVERLAPPED, Link)->Ov, STATUS_CANCELLED, 0);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"done"});
    // The exit of a thread cancels its operation; the routine is not called any more.
    const uint32_t before = gDelivered.Count;
    Run([&](Fiber *) {
        static OVERLAPPED ov;
        WSABUF one{8, nullptr};
        DWORD flags = 0;
        WSARecv(s, &one, 1, nullptr, &flags, &ov, Deliver);
    });
    Pass(20);
    EXPECT_EQ(script::gScript.Cancels.size(), 1u);
    EXPECT_EQ(gDelivered.Count, before);
    EXPECT_EQ(S->FreeOvs.Count, 1u);
}

// A socket for synchronous use waits whatever it is given: a routine runs before the return, an event is signalled.
TEST_F(NetTransfer, SynchronousUseWaitsForEverything) {
    const SOCKET s = Make(0);
    const HANDLE event = NewEvent(true, false);
    OVERLAPPED ov{0, 0, 0, 0, reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) | 1)};
    WSABUF one{8, nullptr};
    DWORD bytes = 0, flags = 0;
    gDelivered = {};
    Fiber *F = Run([&](Fiber *self) {
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, Deliver), 0);
        EXPECT_EQ(gDelivered.Count, 1u);
        EXPECT_EQ(gDelivered.Bytes, 5u);
        EXPECT_EQ(bytes, 5u);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_TIMEOUT) << "the routine is told, the event is not";
        Answer(script::Done(8));
        EXPECT_EQ(WSASend(s, &one, 1, &bytes, 0, &ov, nullptr), 0);
        EXPECT_EQ(os::WaitForSingleObject(event, 0), WAIT_OBJECT_0);
        EXPECT_EQ(gDelivered.Count, 1u);
        Note("done");
    });
    EXPECT_EQ(F->State, FSTATE_IO_WAIT);
    EndWaitOf(F, 0, 5);
    EXPECT_EQ(TakeNotes(), Names{"done"});
    EXPECT_EQ(ov.InternalHigh, 8u);
}

// The host waits for its own operations: no packet may come for them, nor a hand-over. The wait flag is one of three.
TEST_F(NetTransfer, OperationsOfTheHost) {
    const SOCKET s = Make(WSA_FLAG_OVERLAPPED);
    OVERLAPPED ov{};
    DWORD bytes = 0, flags = 0;
    const HANDLE event = NewEvent(true, false);
    Run([&](Fiber *self) {
        WSABUF one{8, nullptr};
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &ov, nullptr), SOCKET_ERROR);
        EXPECT_EQ(script::gScript.Calls.back().Ov, &ov);
        EXPECT_EQ(script::gScript.Calls.back().Op, nullptr);
        EXPECT_EQ(ov.hEvent, WithoutPacket(nullptr));
        OVERLAPPED second{0, 0, 0, 0, event};
        Answer(script::Done(2));
        EXPECT_EQ(WSARecv(s, &one, 1, &bytes, &flags, &second, nullptr), 0);
        EXPECT_EQ(second.hEvent, WithoutPacket(event));
        for (const BOOL wait : {0, 2}) {
            EXPECT_FALSE(WSAGetOverlappedResult(s, &ov, &bytes, wait, &flags));
            EXPECT_EQ(os::GetLastError(), WSA_IO_INCOMPLETE);
        }
        Note("waits");
        OVERLAPPED *const before = self->CurOv;
        EXPECT_TRUE(WSAGetOverlappedResult(s, &ov, &bytes, 1, &flags));
        EXPECT_EQ(bytes, 7u);
        EXPECT_EQ(self->CurOv, before);
        Note("done");
    });
    Pass(30);
    EXPECT_EQ(TakeNotes(), Names{"waits"});
    script::EndOperation(&ov, 0, 7);
    Pass(20);
    EXPECT_EQ(TakeNotes(), Names{"done"});
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
}

}  // namespace
}  // namespace zvx::test
