// tests/unit/pipe_call_test.cpp - the pipe functions against a scripted operating system.
#include "call_fixture.h"
#include "kernel/pipe.h"
#include "zvxkvt/pipetypes.h"

namespace os::script {
extern std::function<DWORD(const char *name, DWORD ms)> gOnWaitPipe;
}

namespace zvx::test {
namespace {

using script::gScript;
using script::IoResult;

using PipeCall = CallTest;

HANDLE Create(DWORD flags) {
    return CreateNamedPipeA("pipe", PIPE_ACCESS_DUPLEX | flags, 0, 1, 0, 0, 0, nullptr);
}

TEST_F(PipeCall, CreatingBindsInThePollingModelTooOrLeavesNothing) {
    gNumContextSwitchesBeforePolling = 0;
    Run([&](Fiber *) {
        const HANDLE plain = Create(0);
        EXPECT_EQ(LookUpHandle(plain)->Flags.load(), PHAND_FLAG_ASYNC_ADDED | PHAND_FLAG_ON_PORT);
        EXPECT_EQ(gScript.BoundKeys.back(), reinterpret_cast<uintptr_t>(plain));
        const HANDLE wide =
            CreateNamedPipeW(L"pipe", PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 0, 0, 0, nullptr);
        EXPECT_EQ(LookUpHandle(wide)->Flags.load(), PHAND_FLAG_ASYNC_CALLER | PHAND_FLAG_ON_PORT);
        EXPECT_STREQ(HandleTypeName(LookUpHandle(wide)->Type), "PHAND_HTYPE_CreateNamedPipeW");
        os::FailCall("CreateNamedPipeA", 1, ERROR_PIPE_BUSY);
        EXPECT_EQ(Create(0), INVALID_HANDLE_VALUE);
        EXPECT_EQ(os::GetLastError(), ERROR_PIPE_BUSY);
        // A refused association has no reason of its own, unlike that of a file.
        for (const DWORD reason : {ERROR_INVALID_PARAMETER, ERROR_SUCCESS}) {
            os::FailCall("CreateIoCompletionPort", 1, reason);
            EXPECT_EQ(Create(0), INVALID_HANDLE_VALUE);
            EXPECT_EQ(os::GetLastError(), 0xFFFFFFFFu);
        }
        EXPECT_EQ(gHandleCount, 2u);
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

TEST_F(PipeCall, EndsOfAWaitForAClient) {
    const struct {
        script::IoAnswer At;
        DWORD Status;
        BOOL Result;
        DWORD Error;
    } cases[] = {
        {script::Done(0), 0, TRUE, 0},
        {script::Pending(), STATUS_SUCCESS, TRUE, 0},
        {script::Failed(ERROR_PIPE_CONNECTED), 0, FALSE, ERROR_PIPE_CONNECTED},
        {script::Pending(), STATUS_CANCELLED, FALSE, ERROR_OPERATION_ABORTED},
    };
    HANDLE pipe = nullptr;
    Run([&](Fiber *) { pipe = Create(0); });
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        Answer(c.At);
        Fiber *F = Run([&](Fiber *self) {
            // On a busy scheduler a read would be polled by now.
            gNumContextSwitchesBeforePolling = 1;
            SchedOf(self)->SwitchesSinceIdle = 1000;
            EXPECT_EQ(ConnectNamedPipe(pipe, nullptr), c.Result);
            EXPECT_TRUE(c.Result || os::GetLastError() == c.Error);
            EXPECT_EQ(self->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u);
            EXPECT_TRUE(c.At.Result == IoResult::kPending ||
                        self->OwnOvs[0].SkipPackets == (c.At.Result == IoResult::kDone ? 1u : 0u));
            Note("returned");
        });
        if (c.At.Result == IoResult::kPending) {
            EXPECT_EQ(F->State, FSTATE_IO_WAIT);
            EXPECT_EQ(F->OwnOvs[0].OpArg, OP_CONNECT_NAMED_PIPE);
            EXPECT_NE(F->OwnOvs[0].Flags & OV_PACKET_EXPECTED, 0u) << "always through the port";
            EndWaitOf(F, c.Status, 0);
        }
        EXPECT_EQ(TakeNotes(), Names{"returned"});
    }
    // The host's own, on a pipe that it made overlapped: at once, and no packet for our port.
    Answer(script::Pending());
    OVERLAPPED ov{};
    Run([&](Fiber *) {
        EXPECT_FALSE(ConnectNamedPipe(Create(FILE_FLAG_OVERLAPPED), &ov));
        EXPECT_EQ(os::GetLastError(), ERROR_IO_PENDING);
        EXPECT_TRUE(gScript.Calls.back().Ov == &ov && gScript.Calls.back().Op == nullptr);
        script::EndOperation(&ov, STATUS_SUCCESS, 0);
        Note("returned");
    });
    EXPECT_EQ(reinterpret_cast<uintptr_t>(ov.hEvent), reinterpret_cast<uintptr_t>(AvoidCompletionEvent) | 1);
    EXPECT_EQ(TakeNotes(), Names{"returned"});
}

TEST_F(PipeCall, WaitingIsTestingAgainAndAgain) {
    DWORD answer = ERROR_FILE_NOT_FOUND;
    int looks = 0;
    script::gOnWaitPipe = [&](const char *, DWORD ms) {
        EXPECT_EQ(ms, NMPWAIT_USE_DEFAULT_WAIT);
        looks++;
        return answer;
    };
    const auto wait = [&](DWORD ms) {
        Run([&, ms](Fiber *) {
            const BOOL result = WaitNamedPipeA("pipe", ms);
            Note(result ? "had" : std::to_string(os::GetLastError()));
        });
    };
    wait(0);
    EXPECT_EQ(TakeNotes(), Names{"2"});
    EXPECT_EQ(looks, 1);
    wait(INFINITE);
    Pass(500);
    EXPECT_TRUE(TakeNotes().empty()) << "no such pipe yet is no end";
    answer = ERROR_SUCCESS;
    Pass(50);
    EXPECT_EQ(TakeNotes(), Names{"had"});
    answer = ERROR_SEM_TIMEOUT;
    wait(60);
    Pass(30);
    EXPECT_TRUE(TakeNotes().empty());
    Pass(60);
    EXPECT_EQ(TakeNotes(), Names{"121"}) << "of the latest look";
    answer = WAIT_TIMEOUT;
    wait(INFINITE);
    EXPECT_EQ(TakeNotes(), Names{"258"}) << "the one failure that ends the wait";
}

}  // namespace
}  // namespace zvx::test
