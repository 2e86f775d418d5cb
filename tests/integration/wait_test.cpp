// tests/integration/wait_test.cpp - waits on events and threads from user threads.
#include <memory>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Wait : public HostTest {};

}  // namespace

TEST_P(Wait, TimeoutsAndEvents) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));
        const ULONGLONG start = GetTickCount64();
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 40));
        const ULONGLONG took = GetTickCount64() - start;
        HOST_CHECK(took >= 39 && took < 5000);

        // A time-out that is used up in slices is still the whole one while another thread keeps the scheduler busy.
        std::atomic<bool> stop{false};
        HostThread busy([&]() -> DWORD {
            while (!stop) Sleep(0);
            return 0;
        });
        const ULONGLONG busyStart = GetTickCount64();
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 60));
        HOST_CHECK(GetTickCount64() - busyStart >= 59);

        HostThread setter([&]() -> DWORD {
            Sleep(20);
            return SetEvent(event) ? 0 : 1;
        });
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, INFINITE));
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(event, 0));  // taken
        HOST_EQ(0u, setter.Join());
        stop = true;
        HOST_EQ(0u, busy.Join());

        HOST_EQ(WAIT_FAILED, WaitForSingleObject(nullptr, 10));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
    }));
}

// An event that resets itself lets exactly one of many waiters through for each time it is set.
TEST_P(Wait, OneWaiterForEachSet) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        std::atomic<uint32_t> through{0};
        std::vector<std::unique_ptr<HostThread>> waiters;
        for (int i = 0; i < 20; i++) {
            waiters.push_back(std::make_unique<HostThread>([&]() -> DWORD {
                const DWORD result = WaitForSingleObject(event, INFINITE);
                through++;
                return result;
            }));
        }
        for (uint32_t i = 1; i <= 20; i++) {
            SetEvent(event);
            while (through < i) Sleep(1);
            Sleep(i % 5 == 0 ? 10 : 0);
            HOST_EQ(i, through.load());
        }
        for (auto &waiter : waiters) HOST_EQ(WAIT_OBJECT_0, waiter->Join());
    }));
}

TEST_P(Wait, ManyObjectsAnyAndAll) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        HANDLE events[MAXIMUM_WAIT_OBJECTS + 1];
        for (HANDLE &event : events) event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        SetEvent(events[63]);
        HOST_EQ(WAIT_OBJECT_0 + 63, WaitForMultipleObjects(64, events, FALSE, 1000));
        HOST_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(64, events, FALSE, 5));
        HOST_EQ(WAIT_FAILED, WaitForMultipleObjects(65, events, FALSE, 5));
        HOST_EQ(ERROR_INVALID_PARAMETER, GetLastError());
        HOST_EQ(WAIT_FAILED, WaitForMultipleObjects(0, events, FALSE, 5));

        // Wait-all takes none before it can take all: the two that are set can still be taken by others.
        SetEvent(events[0]);
        SetEvent(events[1]);
        HOST_EQ(WAIT_TIMEOUT, WaitForMultipleObjects(3, events, TRUE, 20));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(events[0], 0));
        HostThread all([&]() -> DWORD { return WaitForMultipleObjects(3, events, TRUE, INFINITE); });
        Sleep(20);
        SetEvent(events[2]);
        Sleep(20);
        DWORD code = 0;
        GetExitCodeThread(all.Handle, &code);
        HOST_EQ(STILL_ACTIVE, code);
        SetEvent(events[0]);
        HOST_EQ(WAIT_OBJECT_0, all.Join());
        for (int i = 0; i < 3; i++) HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(events[i], 0));

        // Threads can be waited for together, by handles of this thread's own.
        std::vector<std::unique_ptr<HostThread>> threads;
        HANDLE handles[30];
        for (uint32_t i = 0; i < 30; i++) {
            threads.push_back(std::make_unique<HostThread>([i]() -> DWORD {
                Sleep(30 - i);
                return i;
            }));
            handles[i] = threads[i]->Handle;
        }
        HOST_EQ(WAIT_OBJECT_0, WaitForMultipleObjectsEx(30, handles, TRUE, 20000, TRUE));
        for (uint32_t i = 0; i < 30; i++) HOST_EQ(i, threads[i]->Join(0));
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Wait, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
