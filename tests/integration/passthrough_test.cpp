// tests/integration/passthrough_test.cpp - the same functions where there are no user threads; and how many schedulers
// the library starts with, or refuses to. Settings: tests/unit. Calls that fail in start-up: tests/faults.
#include "zvxkvt/sockets.h"

#include "support/host_runner.h"
#include "support/net_peer.h"

using namespace hosttest;

namespace {

std::atomic<uint32_t> gCount{0};
DWORD WINAPI CountUp(LPVOID) {
    gCount++;
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

void UseSockets() {
    const SOCKET listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in name = netpeer::Loopback();
    int length = sizeof name;
    HOST_CHECK(bind(listener, reinterpret_cast<sockaddr *>(&name), length) == 0 && listen(listener, 1) == 0);
    HOST_EQ(0, getsockname(listener, reinterpret_cast<sockaddr *>(&name), &length));
    const int peer = netpeer::Connect(ntohs(name.sin_port));
    const SOCKET s = accept(listener, nullptr, nullptr);
    char text[4] = "abc";
    HOST_CHECK(netpeer::WriteAll(peer, "xyz", 3) && recv(s, text, 4, 0) == 3 && send(s, text, 3, 0) == 3);
    HOST_CHECK(closesocket(s) == 0 && closesocket(listener) == 0);
    HOST_CHECK(read(peer, text, 3) == 3 && memcmp(text, "xyz", 3) == 0 && read(peer, text, 1) == 0);
}

}  // namespace

TEST(PassThrough, EverythingIsTheOperatingSystems) {
    const ScratchFolder scratch;
    for (const auto &mode : {std::pair<std::string, std::string>{"DisableFibers", "1"}, {"FiberModeReq", "0"}}) {
        SCOPED_TRACE(mode.first);
        EXPECT_HOST_OK(RunHost({1, {mode}, ""}, [&scratch] {
            HOST_EQ(0u, ZvxSchedulerCount());
            InitUserThreadScheduler(CountUp, nullptr, nullptr);  // a second call does nothing, or the count were two
            HOST_EQ(0u, UseFiles(scratch.File("plain")));
            UseSockets();
            const auto useStack = [](LPVOID) -> DWORD {
                volatile char deep[4 << 20];
                for (size_t i = sizeof deep; i > 0; i -= 4096) deep[i - 1] = 1;
                return 0;
            };
            const HANDLE thread = CreateThread(nullptr, 8 << 20, useStack, nullptr, 0, nullptr);
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
            // A mask makes a thread that is bound.
            DWORD process = 0, system = 0;
            GetProcessAffinityMask(GetCurrentProcess(), &process, &system);
            const DWORD one = process & (~process + 1);
            HostThread exits([]() -> DWORD { return ExitThread(5), 0; });
            HOST_EQ(5u, exits.Join());
            const HANDLE bound =
                ZCreateThreadWithAffinity(nullptr, 0, CountUp, nullptr, CREATE_SUSPENDED, nullptr, one);
            HOST_EQ(one, SetThreadAffinityMask(bound, process));
            HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(bound, 30));
            HOST_EQ(1u, ResumeThread(bound));
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(bound, 10000));
            HOST_EQ(1u, gCount.load());
        }));
    }
}

// An error that ends the process leaves the settings and a dump, without user threads and without a start too.
TEST(PassThrough, AFatalErrorIsDumped) {
    for (const bool started : {true, false}) {
        const ScratchFolder folder;
        const auto fail = [] { sendto(1, "", 0, 0, nullptr, 0); };
        const auto alone = [&] { std::filesystem::current_path(folder.Name), fail(); };
        const HostOptions options{1, {{"DisableFibers", "1"}}, folder.Name};
        EXPECT_EQ((started ? RunHost(options, fail) : RunInChild(alone)).ExitCode, 1);
        std::string all;
        for (const auto &entry : std::filesystem::directory_iterator(folder.Name)) all += ReadWhole(entry.path());
        for (const char *part : {"Sched Internal Variables:", "MDMP"}) EXPECT_NE(all.find(part), all.npos) << started;
    }
}

// A kernel thread of a process in fiber mode is no user thread: its calls pass through, on wrapped handles too.
TEST(PassThrough, KernelThreadsOfAHostWithUserThreads) {
    const ScratchFolder scratch;
    static const std::string name = scratch.File("kernel");
    EXPECT_HOST_OK(RunHost(HostOptions{}, [] {
        const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        auto use = [](LPVOID toSet) { return SetEvent(toSet) ? UseFiles(name) : 99; };
        const HANDLE thread = CreateRemoteThread(GetCurrentProcess(), nullptr, 0, use, event, 0, nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(event, 10000));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(thread, 10000));
        DWORD code = 9;
        HOST_CHECK(GetExitCodeThread(thread, &code) && code == 0);
    }));
}

TEST(StartUp, SchedulersAtTheEdge) {
    const struct {
        const char *Schedulers;
        std::pair<std::string, std::string> Setting;
        uint32_t Count;    // that it starts with, or
        const char *Text;  // with which it ends
    } cases[] = {{"0", {}, 1, nullptr},
                 {"17", {}, 17, nullptr},
                 {"none", {"Affinity", "1"}, 1, nullptr},
                 {"1", {"DynamicSchedulersBind", "2"}, 0, "Too few schedulers for BindDBWRToASeperateCPU mode"},
                 {"32", {}, 0, "sizeof(SchedBitMaskId) too small"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.Schedulers);
        const ChildResult result = RunHost({1, {{"Schedulers", c.Schedulers}, c.Setting}, ""}, [&c] {
            HOST_EQ(c.Count, ZvxSchedulerCount());
            DWORD process = 0, system = 0;
            HOST_CHECK(GetProcessAffinityMask(GetCurrentProcess(), &process, &system));
            HOST_CHECK(c.Setting.first != "Affinity" || process == 1);
            HOST_EQ(5u, HostThread([]() -> DWORD { return 5; }).Join());
        });
        EXPECT_EQ(result.ExitCode, c.Text == nullptr ? 0 : 1);
        const std::string begin = c.Text == nullptr ? "" : "ZORVEX KILLED: " + std::string(c.Text) + " (see ";
        EXPECT_EQ(result.Output.rfind(begin, 0), 0u) << result.Output;
    }
}
