// tests/unit/net_select_test.cpp - select and the waits for socket events: what is asked at each look, and when they
// end.
#include "call_fixture.h"
#include "net/net.h"
#include "scripted_socket.h"

namespace zvx::test {
namespace {

using script::gSockets;
using script::TakeCalls;
using NetSelect = CallTest;

// Lets the clock run until the note comes; the milliseconds that took.
uint32_t MsUntil(CallTest *test, const std::string &note, uint32_t limit) {
    for (uint32_t ms = 0; ms <= limit; ms++) {
        for (const std::string &one : TakeNotes())
            if (one == note) return ms;
        test->Pass(1);
    }
    return limit + 1;
}

// A second lasts 1024 milliseconds, and a millisecond counts as 1024 microseconds.
TEST_F(NetSelect, TimeOuts) {
    const struct {
        os::TimeVal Timeout;
        uint32_t Low, High;
    } cases[] = {{{2, 0}, 2048, 2049}, {{0, 100000}, 98, 98}, {{1, 500000}, 1513, 1514}, {{0, 1}, 1, 1}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Timeout.Seconds * 1000000 + c.Timeout.Microseconds);
        Run([&](Fiber *) {
            zvx_fd_set set{1, {8}};
            EXPECT_EQ(zvx::select(0, &set, nullptr, nullptr, &c.Timeout), 0);
            EXPECT_EQ(set.fd_count, 0u);
            Note("ended");
        });
        const uint32_t took = MsUntil(this, "ended", 3000);
        EXPECT_GE(took, c.Low);
        EXPECT_LE(took, c.High);
    }
    TakeCalls();
    RunToEnd([&](Fiber *) {
        const os::TimeVal atOnce{0, 0};
        EXPECT_EQ(zvx::select(0, nullptr, nullptr, nullptr, &atOnce), 0);
    });
    EXPECT_EQ(TakeCalls(), Names{"select"});
}

// Each look asks about all sockets, however many; a failure of a look is the caller's.
TEST_F(NetSelect, EveryLookAsksTheWholeQuestion) {
    struct {
        DWORD fd_count;
        SOCKET fd_array[400];
    } many{400, {}};
    for (DWORD i = 0; i < 400; i++) many.fd_array[i] = 4 * i + 4;
    zvx_fd_set write{2, {4, 8}};
    uint32_t looks = 0;
    gSockets.OnSelect = [&](zvx_fd_set *read, zvx_fd_set *writes, zvx_fd_set *error) {
        looks++;
        EXPECT_EQ(error, nullptr);
        EXPECT_EQ(writes->fd_count, 2u);
        EXPECT_EQ(writes->fd_array[1], 8u);
        EXPECT_EQ(read->fd_count, 400u);
        SOCKET *sockets = read->fd_array;
        EXPECT_EQ(sockets[399], 1600u);
        const bool ready = looks == 50;
        read->fd_count = ready ? 1 : 0;
        sockets[399] = 0;
        sockets[0] = ready ? 1200 : 0;
        writes->fd_count = 0;
        writes->fd_array[1] = 0;
        return ready ? 1 : 0;
    };
    Run([&](Fiber *self) {
        EXPECT_EQ(zvx::select(0, reinterpret_cast<zvx_fd_set *>(&many), &write, nullptr, nullptr), 1);
        EXPECT_EQ(many.fd_count, 1u);
        EXPECT_EQ(many.fd_array[0], 1200u);
        EXPECT_EQ(self->TermCleanup.Count, 0u);
        Note("ready");
    });
    Pass(60);
    EXPECT_EQ(TakeNotes(), Names{"ready"});
    EXPECT_EQ(looks, 50u);
    gSockets.OnSelect = nullptr;
    RunToEnd([&](Fiber *) {
        os::FailCall("select", 3, WSAENOTSOCK);
        EXPECT_EQ(zvx::select(0, &write, nullptr, nullptr, nullptr), SOCKET_ERROR);
        EXPECT_EQ(os::GetLastError(), WSAENOTSOCK);
    });
}

// Others run between two looks; when there are none, the scheduler waits in its port between two looks, even when
// several threads look.
TEST_F(NetSelect, LookingLeavesTheSchedulerToOthers) {
    uint32_t looks = 0;
    gSockets.OnSelect = [&](zvx_fd_set *, zvx_fd_set *, zvx_fd_set *) { return looks++, 0; };
    const auto body = [](Fiber *) {
        zvx_fd_set set{1, {8}};
        zvx::select(0, &set, nullptr, nullptr, nullptr);
    };
    NewFiber(S, body);
    NewFiber(S, body);
    RunToEnd([](Fiber *self) {
        for (int i = 0; i < 100; i++) SchedYield(self, Yield_USER);
    });
    EXPECT_GE(looks, 200u) << "they are as runnable as any other thread";
    for (const uint32_t waitMs : {1u, 100u}) {
        gPortWaitMs = waitMs;
        const uint32_t before = looks;
        Pass(10);
        EXPECT_EQ(looks, before + 20) << "one look each and then the port";
        EXPECT_EQ(script::gScript.LastPortWaitMs, 1u);
    }
}

void CountDelivery(DWORD, DWORD bytes, LPOVERLAPPED ov, DWORD) {
    ov->Offset += bytes;
}

TEST_F(NetSelect, EventWaits) {
    const WSAEVENT events[2] = {NewEvent(true, false), NewEvent(true, false)};
    OVERLAPPED ov{};
    Run([&](Fiber *) {
        EXPECT_EQ(WSAWaitForMultipleEvents(2, events, FALSE, 0, FALSE), WSA_WAIT_TIMEOUT);
        EXPECT_EQ(WSAWaitForMultipleEvents(65, events, FALSE, INFINITE, FALSE), WSA_WAIT_FAILED);
        // Nothing outstanding: not alertable, whatever the caller asked.
        EXPECT_EQ(WSAWaitForMultipleEvents(2, events, FALSE, 40, TRUE), WSA_WAIT_TIMEOUT);
        Note("timed out");
        WSASetEvent(reinterpret_cast<WSAEVENT>(reinterpret_cast<uintptr_t>(events[1]) | 1));
        EXPECT_EQ(WSAWaitForMultipleEvents(2, events, FALSE, INFINITE, FALSE), WSA_WAIT_EVENT_0 + 1);
        EXPECT_EQ(WSAWaitForMultipleEvents(2, events, TRUE, 0, FALSE), WSA_WAIT_TIMEOUT);
        const SOCKET s = socket(2, 1, 0);
        WSABUF one{4, nullptr};
        DWORD flags = 0;
        Answer(script::Done(4));
        WSARecv(s, &one, 1, nullptr, &flags, &ov, CountDelivery);
        // The event wins, but the routine runs and is told by the next wait.
        EXPECT_EQ(WSAWaitForMultipleEvents(2, events, FALSE, INFINITE, TRUE), WSA_WAIT_EVENT_0 + 1);
        EXPECT_EQ(ov.Offset, 4u);
        WSARecv(s, &one, 1, nullptr, &flags, &ov, CountDelivery);
        EXPECT_EQ(WSAWaitForMultipleEvents(1, events, FALSE, INFINITE, TRUE), WSA_WAIT_IO_COMPLETION);
        EXPECT_EQ(ov.Offset, 8u);
        Answer(script::Pending());
        WSARecv(s, &one, 1, nullptr, &flags, &ov, CountDelivery);
        EXPECT_EQ(WSAWaitForMultipleEvents(1, events, FALSE, INFINITE, TRUE), WSA_WAIT_IO_COMPLETION);
        EXPECT_EQ(ov.Offset, 10u);
        Note("done");
    });
    EXPECT_TRUE(TakeNotes().empty());
    Pass(60);
    EXPECT_EQ(TakeNotes(), Names{"timed out"});
    Fiber *F = ZVX_RECORD_OF(S->AllFibers.Ends.Prev, Fiber, SchedFibersLink);
    script::EndOperation(&ZVX_RECORD_OF(FirstLink(&F->SocketOvs), FIBEROVERLAPPED, Link)->Ov, 0, 2);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

}  // namespace
}  // namespace zvx::test
