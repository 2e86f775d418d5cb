// tests/integration/thread_test.cpp - user threads: their life and their ends.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Thread : public HostTest {};

}  // namespace

// Terminated whatever it does. A handle outlives its thread, and the thread's record may stand for another one by then:
// nothing may reach that.
TEST_P(Thread, TerminationAndStaleHandles) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        std::atomic<uint32_t> running{0};
        for (int doing = 0; doing < 4; doing++) {
            running = 0;
            HostThread thread([&]() -> DWORD {
                running = 1;
                while (doing == 0) Sleep(0);
                if (doing == 1) SuspendThread(GetCurrentThread());
                return doing == 2 ? WaitForSingleObject(event, INFINITE) : SleepEx(INFINITE, FALSE);
            });
            while (running == 0) Sleep(1);
            Sleep(5);
            HOST_CHECK(TerminateThread(thread.Handle, 1234));
            HOST_EQ(1234u, thread.Join(0));  // it had ended when TerminateThread returned
        }
        HostThread unstarted([]() -> DWORD { return 1; }, CREATE_SUSPENDED);
        HOST_CHECK(TerminateThread(unstarted.Handle, 55));
        HOST_EQ(55u, unstarted.Join());
        HostThread self([]() -> DWORD { return TerminateThread(GetCurrentThread(), 66), 1; });
        HOST_EQ(66u, self.Join());

        // Its record stands for one of these by now, or may at any time.
        std::atomic<bool> stop{false};
        std::deque<HostThread> others;
        for (int i = 0; i < 16; i++)
            others.emplace_back([&]() -> DWORD {
                while (!stop) Sleep(1);
                return 0;
            });
        Sleep(20);
        HOST_EQ(0xFFFFFFFFu, SuspendThread(self.Handle));
        HOST_EQ(0xFFFFFFFFu, ResumeThread(self.Handle));
        HOST_CHECK(!TerminateThread(self.Handle, 1));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        stop = true;
        for (HostThread &other : others) HOST_EQ(0u, other.Join());
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Thread, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
