// tests/integration/passthrough_test.cpp - the same functions where there are no user threads.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

DWORD WINAPI CountUp(LPVOID counter) {
    static_cast<std::atomic<uint32_t> *>(counter)->fetch_add(1);
    return 12;
}

// Operations of a thread that the operating system schedules, its completion routine above all, which runs in an
// alertable wait and nowhere else; 0 when all of it works. Files, too: the example's test.
DWORD UseFiles(const std::string &name) {
    const DWORD both = GENERIC_READ | GENERIC_WRITE;
    const HANDLE file = CreateFileA(name.c_str(), both, 0, nullptr, CREATE_ALWAYS, FILE_FLAG_OVERLAPPED, nullptr);
    DWORD moved = 0;
    char buffer[16] = {};
    OVERLAPPED ov{};
    if (!WriteFile(file, "plain text", 10, &moved, &ov) && GetLastError() != ERROR_IO_PENDING) return 1;
    if (!GetOverlappedResult(file, &ov, &moved, TRUE) || moved != 10) return 2;
    static DWORD routineBytes;
    routineBytes = 0;
    if (!ReadFileEx(file, buffer, 16, &ov, [](DWORD, DWORD bytes, LPOVERLAPPED) { routineBytes = bytes; })) return 3;
    Sleep(20);
    if (routineBytes != 0 || SleepEx(10000, TRUE) != WAIT_IO_COMPLETION || routineBytes != 10) return 4;
    return memcmp(buffer, "plain text", 10) == 0 && CloseHandle(file) && !CloseHandle(file) ? 0 : 5;
}

class PassThrough : public testing::TestWithParam<std::string> {};

}  // namespace

TEST_P(PassThrough, EverythingIsTheOperatingSystems) {
    const ScratchFolder scratch;
    const std::string name = scratch.File("plain");
    HostOptions options;
    options.Settings.emplace_back(GetParam(), GetParam() == "DisableFibers" ? "1" : "0");
    EXPECT_HOST_OK(RunHost(options, [name] {
        HOST_EQ(0u, ZvxSchedulerCount());
        std::atomic<uint32_t> counter{0};
        InitUserThreadScheduler(CountUp, &counter, nullptr);  // a second call does nothing, or the count were three
        HOST_EQ(0u, UseFiles(name));
        // A mask makes a thread that is bound and running, or bound and suspended.
        DWORD process = 0, system = 0, code = 0;
        GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
        const DWORD one = process & (~process + 1);
        for (const DWORD flags : {DWORD{0}, DWORD{CREATE_SUSPENDED}}) {
            const HANDLE thread = ZCreateThreadWithAffinity(nullptr, 0, CountUp, &counter, flags, nullptr, one);
            if (flags != 0) {
                HOST_EQ(one, SetThreadAffinityMask(thread, process));
                HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(thread, 30));
                HOST_EQ(1u, counter.load());
                HOST_EQ(1u, ResumeThread(thread));
            }
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
            HOST_CHECK(GetExitCodeThread(thread, &code) && code == 12);
        }
        HOST_EQ(2u, counter.load());
        HostThread exits([]() -> DWORD { return ExitThread(5), 0; });
        HOST_EQ(5u, exits.Join());
    }));
}

INSTANTIATE_TEST_SUITE_P(Modes, PassThrough, testing::Values("DisableFibers", "FiberModeReq"),
                         [](const auto &mode) { return mode.param; });

// A kernel thread of a process in fiber mode is no user thread: its calls pass through, on wrapped handles too.
TEST(PassThroughInFiberMode, KernelThreadsOfTheHost) {
    const ScratchFolder scratch;
    static const std::string name = scratch.File("kernel");
    HostOptions options;
    options.Schedulers = 2;
    EXPECT_HOST_OK(RunHost(options, [] {
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        auto use = [](LPVOID toSet) { return SetEvent(toSet) ? UseFiles(name) : 99; };
        const HANDLE thread = CreateRemoteThread(GetCurrentProcess(), nullptr, 0, use, event, 0, nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 10000));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
        DWORD code = 9;
        HOST_CHECK(GetExitCodeThread(thread, &code));
        HOST_EQ(0u, code);
    }));
}
