// tests/unit/net_accept_test.cpp - making, closing and accepting sockets against a scripted operating system.
#include <cstring>

#include "alloc/alloc.h"
#include "call_fixture.h"
#include "child.h"
#include "net/net.h"
#include "scripted_socket.h"

namespace zvx::test {
namespace {

using script::gSockets;
using script::TakeCalls;

struct NetAccept : CallTest {
    SOCKET Listener(DWORD flags = 0) {
        SOCKET s = INVALID_SOCKET;
        Run([&](Fiber *) { s = WSASocketA(2, 1, 0, nullptr, 0, flags); });
        TakeCalls();
        return s;
    }
    static uint32_t FlagsOf(SOCKET s) { return LookUpSocket(s)->Flags.load() & ~uint32_t{PHAND_FLAG_ON_PORT}; }
};

TEST_F(NetAccept, SocketsAreWrappedAsTheHostAsked) {
    RunToEnd([&](Fiber *self) {
        const SOCKET plain = WSASocketA(2, 1, 0, nullptr, 0, 0);
        EXPECT_EQ(FlagsOf(plain), PHAND_FLAG_ASYNC_ADDED);
        const SOCKET overlapped = WSASocketA(2, 1, 0, nullptr, 0, WSA_FLAG_OVERLAPPED | 0x80);
        EXPECT_EQ(FlagsOf(overlapped), PHAND_FLAG_ASYNC_CALLER);
        const SOCKET berkeley = socket(2, 1, 0);
        EXPECT_EQ(FlagsOf(berkeley), PHAND_FLAG_ASYNC_CALLER);
        EXPECT_EQ(LookUpSocket(berkeley)->Type, PHAND_HTYPE_socket);
        EXPECT_EQ(LookUpSocket(plain)->Type, PHAND_HTYPE_WSASocket);
        EXPECT_EQ(LookUpSocket(plain)->OwnerFiber, self);
        EXPECT_EQ(TakeCalls(), (Names{"WSASocketA 1", "WSASocketA 129", "socket"}));
        // An accepted socket is of its listener's kind; of a listener that is not wrapped it is not wrapped either.
        EXPECT_EQ(FlagsOf(WSAAccept(plain, nullptr, nullptr, nullptr, 0)), PHAND_FLAG_ASYNC_ADDED);
        EXPECT_EQ(FlagsOf(WSAAccept(berkeley, nullptr, nullptr, nullptr, 0)), PHAND_FLAG_ASYNC_CALLER);
        const SOCKET foreign = script::NewSocket();
        EXPECT_EQ(LookUpSocket(WSAAccept(foreign, nullptr, nullptr, nullptr, 0)), nullptr);
        // The entry goes whatever the operating system answers, and later calls pass through.
        EXPECT_EQ(closesocket(plain), 0);
        EXPECT_EQ(LookUpHandle(plain), nullptr);
        EXPECT_EQ(closesocket(plain), SOCKET_ERROR);
        const uint32_t handles = gHandleCount;
        for (const char *name : {"WSASocketA", "socket", "WSAAccept"}) {
            os::FailCall(name, 1, WSAEMFILE);
            const SOCKET none = name[0] == 's'   ? socket(2, 1, 0)
                                : name[3] == 'S' ? WSASocketA(2, 1, 0, nullptr, 0, 0)
                                                 : WSAAccept(berkeley, nullptr, nullptr, nullptr, 0);
            EXPECT_EQ(none, INVALID_SOCKET);
            EXPECT_EQ(os::GetLastError(), WSAEMFILE);
            EXPECT_EQ(gHandleCount, handles);
        }
    });
}

TEST_F(NetAccept, AClientAtOnceOrLater) {
    const SOCKET listener = Listener(), overlapped = Listener(WSA_FLAG_OVERLAPPED);
    Answer(script::Done(0));
    Run([&](Fiber *self) {
        int length = 16;
        char address[16] = {};
        const SOCKET s = accept(listener, reinterpret_cast<sockaddr *>(address), &length);
        EXPECT_EQ(TakeCalls(), (Names{"WSADuplicateSocketA", "WSASocketA 1", "WSASocketA 1 info", "closesocket",
                                      "AcceptEx", "setsockopt 28683 " + std::to_string(listener)}));
        EXPECT_EQ(LookUpSocket(s)->Flags.load(), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(self->OwnOvs[0].SkipPackets, 1u) << "the late packet will be dropped";
        EXPECT_EQ(length, 16);
        EXPECT_EQ(std::memcmp(address, script::kPeerAddress, 16), 0);
        EXPECT_EQ(self->TermCleanup.Count, 0u);
        EXPECT_EQ(FlagsOf(accept(overlapped, nullptr, &length)), PHAND_FLAG_ASYNC_CALLER);
        EXPECT_EQ(length, 16);
        Note("done");
    });
    EXPECT_EQ(script::QueuedPackets(S->Port), 0u);
    Answer(script::Pending());
    // Under load too it is the packet that ends the wait; but no packet comes to a thread of another scheduler.
    gNumContextSwitchesBeforePolling = 1;
    Scheduler *other = NewScheduler();
    const auto wait = [&](Fiber *self) {
        SchedOf(self)->SwitchesSinceIdle = 1;
        EXPECT_NE(accept(listener, nullptr, nullptr), INVALID_SOCKET);
        Note("accepted");
    };
    Fiber *home = Run(wait);
    Fiber *away = NewFiber(other, wait);
    RunUntilIdle(other);
    EXPECT_EQ(home->OwnOvs[0].Flags, OV_SOCKET | OV_PACKET_EXPECTED);
    EXPECT_EQ(home->OwnOvs[0].OpArg, uint32_t{OP_ACCEPT});
    EXPECT_EQ(away->OwnOvs[0].Flags, OV_SOCKET);
    EXPECT_EQ(TakeNotes(), Names{"done"});
    EndWaitOf(home, 0, 0);
    script::EndOperation(&away->OwnOvs[0].Ov, 0, 0);
    RunUntilIdle(other);
    EXPECT_EQ(TakeNotes(), (Names{"accepted", "accepted"}));
}

// The caller sees the error with which the operation ended, and no socket stays.
TEST_F(NetAccept, AFailureClosesWhatWasMade) {
    const SOCKET listener = Listener();
    Answer(script::Pending());
    Fiber *F = Run([&](Fiber *) {
        EXPECT_EQ(accept(listener, nullptr, nullptr), INVALID_SOCKET);
        EXPECT_EQ(os::GetLastError(), WSA_OPERATION_ABORTED);
        Note("failed");
    });
    EndWaitOf(F, STATUS_CANCELLED, 0);
    EXPECT_EQ(TakeNotes(), Names{"failed"});
    EXPECT_EQ(gSockets.Open, std::set<SOCKET>{listener});
}

TEST_F(NetAccept, TerminationClosesTheSocket) {
    const SOCKET listener = Listener();
    Fiber *F = Run([&](Fiber *) { accept(listener, nullptr, nullptr); });
    EXPECT_EQ(F->State, FSTATE_IO_WAIT);
    EXPECT_EQ(gSockets.Open.size(), 2u);
    SendOne(S, MSG_TERMINATE, F, Generation(F), 5);
    RunUntilIdle(S);
    EXPECT_EQ(gSockets.Open, std::set<SOCKET>{listener});
    EXPECT_EQ(script::gScript.Cancels.size(), 1u);
    EXPECT_EQ(gHandleCount, 1u);
}

TEST_F(NetAccept, FatalEnds) {
    const auto acceptWith = [&](int length, int peerBytes) {
        return FatalTextOf([&] {
            gSockets.PeerAddressBytes = peerBytes;
            Answer(script::Done(0));
            const SOCKET listener = Listener();
            Run([&](Fiber *) {
                char address[64];
                accept(listener, reinterpret_cast<sockaddr *>(address), &length);
            });
        });
    };
    EXPECT_EQ(acceptWith(28, 16), "Address too long 28 > 16");
    EXPECT_EQ(acceptWith(12, 16), "Copied address too long 16 > 12");
    EXPECT_EQ(FatalTextOf([] { RefuseDatagram("WSASendTo"); }), "WSASendTo NOT WRAPPED\n");
}

}  // namespace
}  // namespace zvx::test
