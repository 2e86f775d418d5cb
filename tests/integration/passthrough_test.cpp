// tests/integration/passthrough_test.cpp - the same functions where there are no user threads.
#include <cstring>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class PassThrough : public testing::TestWithParam<std::string> {
  protected:
    static HostOptions Options() {
        HostOptions options;
        options.Settings.emplace_back(GetParam(), GetParam() == "DisableFibers" ? "1" : "0");
        return options;
    }
};

DWORD WINAPI CountUp(LPVOID counter) {
    static_cast<std::atomic<uint32_t> *>(counter)->fetch_add(1);
    return 12;
}

}  // namespace

TEST_P(PassThrough, EverythingIsTheOperatingSystems) {
    const ScratchFolder scratch;
    const std::string name = scratch.File("plain");
    EXPECT_HOST_OK(RunHost(Options(), [name] {
        HOST_EQ(0u, ZvxSchedulerCount());
        std::atomic<uint32_t> counter{0};
        InitUserThreadScheduler(CountUp, &counter, nullptr);  // a second call does nothing
        HOST_EQ(0u, counter.load());

        const HANDLE file =
            CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
        DWORD moved = 0;
        HOST_CHECK(WriteFile(file, "plain text", 10, &moved, nullptr) && moved == 10);
        HOST_EQ(6u, SetFilePointer(file, -4, nullptr, FILE_CURRENT));
        char buffer[16] = {};
        HOST_CHECK(ReadFile(file, buffer, 16, &moved, nullptr) && moved == 4 && memcmp(buffer, "text", 4) == 0);
        HOST_CHECK(ReadFile(file, buffer, 16, &moved, nullptr) && moved == 0);
        HOST_CHECK(CloseHandle(file) && !CloseHandle(file));

        // Threads are kernel threads; a mask makes one that is bound and running, or bound and suspended.
        DWORD process = 0, system = 0;
        GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
        const DWORD one = process & (~process + 1);
        DWORD id = 0;
        const HANDLE running = ZCreateThreadWithAffinity(nullptr, 0, CountUp, &counter, 0, &id, one);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(running, 10000));
        HOST_CHECK(id != 0 && id != GetCurrentThreadId());
        DWORD code = 0;
        HOST_CHECK(GetExitCodeThread(running, &code) && code == 12);
        const HANDLE suspended =
            ZCreateThreadWithAffinity(nullptr, 0, CountUp, &counter, CREATE_SUSPENDED, nullptr, one);
        HOST_EQ(one, SetThreadAffinityMask(suspended, process));
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(suspended, 30));
        HOST_EQ(1u, counter.load());
        HOST_EQ(1u, ResumeThread(suspended));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(suspended, 10000));
        HOST_EQ(2u, counter.load());

        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        HostThread setter([event]() -> DWORD {
            Sleep(10);
            SetEvent(event);
            ExitThread(5);
            return 0;
        });
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 10000));
        HOST_EQ(5u, setter.Join());
        UserThreadQuantumExpiredCheck();
        HOST_EQ(0u, SleepEx(1, TRUE));
        SetLastError(31);
        HOST_EQ(31u, GetLastError());
    }));
}

INSTANTIATE_TEST_SUITE_P(Modes, PassThrough, testing::Values("DisableFibers", "FiberModeReq"),
                         [](const auto &mode) { return mode.param; });

// A kernel thread of a process in fiber mode is no user thread: its calls pass through, on wrapped handles too.
TEST(PassThroughInFiberMode, KernelThreadsOfTheHost) {
    const ScratchFolder scratch;
    const std::string name = scratch.File("kernel");
    HostOptions options;
    options.Schedulers = 2;
    EXPECT_HOST_OK(RunHost(options, [name] {
        HOST_EQ(2u, ZvxSchedulerCount());
        std::atomic<uint32_t> counter{0};
        InitUserThreadScheduler(CountUp, &counter, nullptr);
        HOST_EQ(0u, counter.load());
        struct Shared {
            HANDLE Event;
            std::string Name;
        } shared{CreateEventA(nullptr, FALSE, FALSE, nullptr), name};
        const HANDLE thread = CreateRemoteThread(
            GetCurrentProcess(), nullptr, 0,
            [](LPVOID param) -> DWORD {
                const auto *with = static_cast<Shared *>(param);
                const HANDLE file = CreateFileA(with->Name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
                DWORD moved = 0;
                if (!WriteFile(file, "kernel", 6, &moved, nullptr) || moved != 6) return 1;
                if (!CloseHandle(file)) return 2;
                Sleep(20);
                SetEvent(with->Event);
                return 0;
            },
            &shared, 0, nullptr);
        HOST_CHECK(thread != nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(shared.Event, 10000));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
        DWORD code = 9;
        HOST_CHECK(GetExitCodeThread(thread, &code));
        HOST_EQ(0u, code);
    }));
}
