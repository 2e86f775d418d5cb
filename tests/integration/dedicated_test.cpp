// tests/integration/dedicated_test.cpp - calls on threads of their own and injected routines, on real schedulers; and
// other processes as user threads see them.
#include <fcntl.h>
#include <sys/stat.h>

#include "support/host_runner.h"

using namespace hosttest;

namespace {

class DedicatedCalls : public HostTest {};

// What the other user threads of the same schedulers do meanwhile.
struct Bystander {
    std::atomic<uint32_t> Turns{0};
    std::atomic<bool> Stop{false};
    HostThread Thread{[this]() -> DWORD {
        for (; !Stop; Sleep(1)) Turns++;
        return 0;
    }};
    void ExpectTurns(uint32_t more) const {
        const uint32_t start = Turns;
        const ULONGLONG limit = GetTickCount64() + 20000;
        while (Turns < start + more && GetTickCount64() < limit) Sleep(1);
        HOST_CHECK(Turns >= start + more);
    }
    ~Bystander() {
        Stop = true;
        Thread.Join();
    }
};

struct Terminal {
    int Master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    HANDLE Console = INVALID_HANDLE_VALUE;
    Terminal() {
        grantpt(Master);
        unlockpt(Master);
        Console = CreateFileA(ptsname(Master), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        HOST_CHECK(Console != INVALID_HANDLE_VALUE);
    }
    void Type(const char *text) const { HOST_CHECK(write(Master, text, strlen(text)) > 0); }
};

// A user thread that is identified by an event, and so can be reached.
struct Reachable {
    HANDLE Event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    std::atomic<bool> Known{false};
    HostThread Thread;
    explicit Reachable(std::function<DWORD(HANDLE)> body)
        : Thread([this, body = std::move(body)]() -> DWORD {
              IdentifyUserThread("OTHR", Event);
              Known = true;
              const DWORD result = body(Event);
              UnidentifyUserThread(0);
              return result;
          }) {
        while (!Known) Sleep(1);
        Sleep(20);  // and in its wait
    }
};

std::atomic<uint32_t> gRan{0};
std::atomic<DWORD> gRanOn{0};

void CountRoutine() {
    gRanOn = GetCurrentThreadId();
    Sleep(2);
    gRan++;
}

// Injects and waits until the routine has run; false when it never does.
bool Inject(const Reachable &target) {
    const uint32_t before = gRan;
    if (!UserThreadExecRoutine(target.Event, CountRoutine)) return false;
    const ULONGLONG limit = GetTickCount64() + 20000;
    while (gRan == before && GetTickCount64() < limit) Sleep(1);
    return gRan != before && gRanOn == target.Thread.Id;
}

using DirectoryQuery = DWORD (*)(const char *, const char *, const void *, const char *, DWORD, void **);

}  // namespace

TEST_P(DedicatedCalls, AConsoleReadParksTheUserThreadOnly) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Terminal terminal;
        const Bystander other;
        std::string line;
        HostThread reader([&]() -> DWORD {
            char buffer[100];
            DWORD got = 0;
            SetLastError(99);
            if (!ReadConsoleA(terminal.Console, buffer, sizeof buffer, &got, nullptr)) return 1;
            line.assign(buffer, got);
            return GetLastError();
        });
        other.ExpectTurns(20);
        terminal.Type("typed\n");
        HOST_EQ(0u, reader.Join());
        HOST_EQ(std::string("typed\r\n"), line);
        // Ended while they wait: the terminal is free for the next reader, and nobody writes to a stack that is gone.
        for (int i = 0; i < 20; i++) {
            HostThread doomed([&]() -> DWORD {
                char buffer[4000];
                DWORD got = 0;
                return static_cast<DWORD>(ReadConsoleA(terminal.Console, buffer, sizeof buffer, &got, nullptr));
            });
            Sleep(static_cast<DWORD>(i % 5));
            if (i % 2 == 0) terminal.Type("x\n");
            HOST_CHECK(TerminateThread(doomed.Handle, 6) || GetLastError() == ERROR_INVALID_HANDLE);
            HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(doomed.Handle, 20000));
        }
        terminal.Type("last\n");
        char buffer[4000];
        DWORD got = 0;
        HOST_CHECK(ReadConsoleA(terminal.Console, buffer, sizeof buffer, &got, nullptr) && got >= 3);
    }));
}

TEST_P(DedicatedCalls, TheDirectoryServiceIsAskedOnAThreadOfItsOwn) {
    const HMODULE present = LoadLibraryA("netapi32.dll");
    if (present == nullptr) GTEST_SKIP() << "run with the folder of the stand-in in LD_LIBRARY_PATH";
    FreeLibrary(present);
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HMODULE module = LoadLibraryA("netapi32.dll");
        const auto query = reinterpret_cast<DirectoryQuery>(
            reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "DsGetDcNameA")));
        HOST_CHECK(query != nullptr);
        HOST_CHECK(GetProcAddress(module, "dsgetdcnamea") == nullptr);
        const Bystander other;
        void *result = nullptr;
        HOST_EQ(0u, query("box", "slow", nullptr, nullptr, 7, &result));
        HOST_EQ(std::string("box/slow/-/7/0"), std::string(static_cast<char *>(result)));
        for (const char *fault : {"crash", "divide", "throw"}) {
            HOST_EQ(1212u, query(nullptr, fault, nullptr, nullptr, 7, &result));
            HOST_EQ(ERROR_INVALID_PARAMETER, GetLastError());
        }
        HostThread stuck([&]() -> DWORD {
            void *never = nullptr;
            return query(nullptr, "stuck", nullptr, nullptr, 0, &never);
        });
        other.ExpectTurns(20);
        HOST_CHECK(TerminateThread(stuck.Handle, 5));
        HOST_EQ(5u, stuck.Join());
        HOST_EQ(0u, query(nullptr, "after", nullptr, "site", 0, &result));
        // Freeing the module and ending a user thread leaves its scheduler alive.
        HostThread leaver([&]() -> DWORD { return FreeLibraryAndExitThread(module, 44), 1; });
        HOST_EQ(44u, leaver.Join());
        other.ExpectTurns(5);
    }));
}

TEST_P(DedicatedCalls, ARoutineReachesEveryWait) {
    const ScratchFolder scratch;
    static const std::string fifo = scratch.File("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Bystander other;
        const ULONGLONG start = GetTickCount64();
        Reachable sleeper([](HANDLE) -> DWORD { return Sleep(1500), 1; });
        Reachable poster([](HANDLE event) -> DWORD { return WaitForUserThreadPost(event, INFINITE); });
        const HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        Reachable waiter([&](HANDLE) -> DWORD { return WaitForSingleObject(go, INFINITE); });
        // Opened for both directions, so that a read waits.
        const HANDLE file =
            CreateFileA(fifo.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        Reachable reader([&](HANDLE) -> DWORD {
            char byte = 0;
            DWORD got = 0;
            return ReadFile(file, &byte, 1, &got, nullptr) && got == 1 ? static_cast<DWORD>(byte) : 0;
        });
        CRITICAL_SECTION section;
        InitializeCriticalSection(&section);
        EnterCriticalSection(&section);
        Reachable entrant([&](HANDLE) -> DWORD {
            EnterCriticalSection(&section);
            LeaveCriticalSection(&section);
            return 2;
        });
        const Terminal terminal;
        Reachable typist([&](HANDLE) -> DWORD {
            char buffer[10];
            DWORD got = 0;
            return ReadConsoleA(terminal.Console, buffer, sizeof buffer, &got, nullptr) ? got : 0;
        });
        std::atomic<bool> leave{false};
        Reachable stopped([&](HANDLE) -> DWORD {
            while (!leave) Sleep(5);
            return 3;
        });
        SuspendThread(stopped.Thread.Handle);
        Sleep(50);
        for (int round = 0; round < 3; round++)
            for (const Reachable *one : {&sleeper, &poster, &waiter, &reader, &entrant, &typist, &stopped})
                if (one != &sleeper || GetTickCount64() < start + 500) HOST_CHECK(Inject(*one));
        HOST_EQ(1u, sleeper.Thread.Join());
        HOST_CHECK(GetTickCount64() >= start + 1500);
        for (const Reachable *one : {&poster, &waiter, &reader, &entrant, &typist, &stopped})
            HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(one->Thread.Handle, 0));
        HOST_CHECK(PostUserThread(poster.Event));
        HOST_EQ(WAIT_OBJECT_0, poster.Thread.Join());
        SetEvent(go);
        HOST_EQ(WAIT_OBJECT_0, waiter.Thread.Join());
        DWORD put = 0;
        HOST_CHECK(WriteFile(file, "!", 1, &put, nullptr));
        HOST_EQ(DWORD{'!'}, reader.Thread.Join());
        LeaveCriticalSection(&section);
        HOST_EQ(2u, entrant.Thread.Join());
        terminal.Type("ab\n");
        HOST_EQ(4u, typist.Thread.Join());
        leave = true;
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(stopped.Thread.Handle, 20));
        HOST_EQ(1u, ResumeThread(stopped.Thread.Handle));
        HOST_EQ(3u, stopped.Thread.Join());
        HOST_CHECK(!UserThreadExecRoutine(stopped.Event, CountRoutine));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        HOST_CHECK(!UserThreadExecRoutine(stopped.Thread.Handle, CountRoutine));
    }));
}

// Many injections meet posts, time-outs, terminations and each other; none may lose a wake-up.
TEST_P(DedicatedCalls, RoutinesPostsAndEndsAtTheSameTime) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        constexpr uint32_t kTargets = 8;
        std::atomic<bool> stop{false};
        std::atomic<uint32_t> posts[kTargets] = {};
        std::deque<Reachable> targets;
        for (uint32_t i = 0; i < kTargets; i++)
            targets.emplace_back([&, i](HANDLE event) -> DWORD {
                for (uint32_t turn = 0; !stop; turn++) {
                    if (turn % 3 == 0) {
                        Sleep(1);
                    } else if (WaitForUserThreadPost(event, turn % 3 == 1 ? 3 : INFINITE) == WAIT_OBJECT_0) {
                        posts[i]++;
                    }
                }
                return 8;
            });
        std::deque<HostThread> others;
        for (uint32_t n = 0; n < 2; n++)
            others.emplace_back([&, n]() -> DWORD {
                for (uint32_t turn = n; !stop; turn++) {
                    const Reachable &one = targets[turn % kTargets];
                    UserThreadExecRoutine(one.Event, CountRoutine);
                    if (turn % 2 == 0) PostUserThread(one.Event);
                    if (turn % 7 == 0) {
                        SuspendThread(one.Thread.Handle);
                        ResumeThread(one.Thread.Handle);
                    }
                    Sleep(turn % 5 == 0 ? 1 : 0);
                }
                return 0;
            });
        Sleep(1500);
        stop = true;
        for (HostThread &one : others) HOST_EQ(0u, one.Join());
        for (uint32_t i = 0; i < kTargets; i++) {
            // Whatever is suspended still is taken back; a post ends the last wait.
            while (ResumeThread(targets[i].Thread.Handle) - 1 < 127) continue;
            PostUserThread(targets[i].Event);
            HOST_EQ(8u, targets[i].Thread.Join());
            HOST_CHECK(posts[i] > 0);
        }
        HOST_CHECK(gRan > 20);
    }));
}

TEST_P(DedicatedCalls, OtherProcessesAndTheirNames) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Bystander other;
        char line[] = "sh -c \"sleep 0.2; exit 9\"";
        STARTUPINFOA startup{};
        PROCESS_INFORMATION child{};
        HOST_CHECK(CreateProcessA(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
        other.ExpectTurns(10);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(child.hProcess, 20000));
        DWORD code = 0;
        HOST_CHECK(GetExitCodeProcess(child.hProcess, &code));
        HOST_EQ(9u, code);
        HOST_CHECK(CloseHandle(child.hProcess) && CloseHandle(child.hThread));
        // A mutex by name belongs to the user thread that took it, not to its scheduler.
        const std::string name = "Global\\zvx_host_" + std::to_string(GetCurrentProcessId());
        const HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
        std::atomic<bool> tried{false};
        HostThread second([&]() -> DWORD {
            const HANDLE same = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
            if (WaitForSingleObject(same, 5) != WAIT_TIMEOUT) return 1;
            if (ReleaseMutex(same) || GetLastError() != ERROR_NOT_OWNER) return 2;
            tried = true;
            if (WaitForSingleObject(same, 20000) != WAIT_OBJECT_0) return 3;
            return ReleaseMutex(same) && CloseHandle(same) ? 0 : 4;
        });
        while (!tried) Sleep(1);
        HOST_CHECK(ReleaseMutex(mutex));
        HOST_EQ(0u, second.Join());
        // A routine for a kernel thread runs in its alertable wait; one for a user thread's handle never does.
        static std::atomic<uint32_t> ran;
        const auto routine = [](ULONG_PTR data) { ran += static_cast<uint32_t>(data); };
        const HANDLE plain = CreateRemoteThread(
            GetCurrentProcess(), nullptr, 0, [](LPVOID) { return SleepEx(20000, TRUE); }, nullptr, 0, nullptr);
        HOST_CHECK(QueueUserAPC(routine, plain, 5));
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(plain, 20000));
        HOST_CHECK(GetExitCodeThread(plain, &code) && code == WAIT_IO_COMPLETION);
        HOST_CHECK(QueueUserAPC(routine, GetCurrentThread(), 100));
        HOST_EQ(0u, SleepEx(10, TRUE));
        HOST_EQ(5u, ran.load());
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, DedicatedCalls, testing::Values(1, 2));
