// tests/integration/dedicated_test.cpp - calls on threads of their own and injected routines, on real schedulers; and
// other processes as user threads see them.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class DedicatedCalls : public HostTest {};

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

// Injects a routine and waits until it has run.
void Inject(const Reachable &target) {
    const uint32_t before = gRan;
    HOST_CHECK(UserThreadExecRoutine(target.Event, [] {
        gRanOn = GetCurrentThreadId();
        Sleep(2);
        gRan++;
    }));
    const ULONGLONG limit = GetTickCount64() + 20000;
    while (gRan == before && GetTickCount64() < limit) Sleep(1);
    HOST_CHECK(gRan != before && gRanOn == target.Thread.Id);
}

using DirectoryQuery = DWORD (*)(const char *, const char *, const void *, const char *, DWORD, void **);

}  // namespace

TEST_P(DedicatedCalls, TheDirectoryServiceIsAskedOnAThreadOfItsOwn) {
    const HMODULE present = LoadLibraryA("netapi32.dll");
    if (present == nullptr) GTEST_SKIP() << "run with the folder of the stand-in in LD_LIBRARY_PATH";
    FreeLibrary(present);
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HMODULE module = LoadLibraryA("netapi32.dll");
        const auto query = reinterpret_cast<DirectoryQuery>(
            reinterpret_cast<void *>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "DsGetDcNameA")));
        HOST_CHECK(query != nullptr);
        void *result = nullptr;
        HOST_EQ(0u, query("box", "slow", nullptr, nullptr, 7, &result));
        HOST_EQ(std::string("box/slow/-/7/0"), std::string(static_cast<char *>(result)));
        for (const char *fault : {"crash", "divide", "throw"}) {
            HOST_EQ(1212u, query(nullptr, fault, nullptr, nullptr, 7, &result));
            HOST_EQ(ERROR_INVALID_PARAMETER, GetLastError());
        }
        // While one is stuck the others of its scheduler go on, and it can be ended.
        std::atomic<bool> asks{false};
        HostThread stuck([&]() -> DWORD { return asks = true, query(nullptr, "stuck", nullptr, nullptr, 0, &result); });
        while (!asks) Sleep(1);
        Sleep(30);
        HOST_CHECK(TerminateThread(stuck.Handle, 5));
        HOST_EQ(5u, stuck.Join());
        // Freeing the module and ending a user thread leaves its scheduler alive.
        HostThread leaver([&]() -> DWORD { return FreeLibraryAndExitThread(module, 44), 1; });
        HOST_EQ(44u, leaver.Join());
    }));
}

// Waits for operations: tests/unit and tests/model.
TEST_P(DedicatedCalls, ARoutineReachesEveryWait) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const ULONGLONG start = GetTickCount64();
        Reachable sleeper([](HANDLE) -> DWORD { return Sleep(1500), 1; });
        Reachable poster([](HANDLE event) -> DWORD { return WaitForUserThreadPost(event, INFINITE); });
        const HANDLE go = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        Reachable waiter([&](HANDLE) -> DWORD { return WaitForSingleObject(go, INFINITE); });
        Reachable stopped([&](HANDLE) -> DWORD {
            while (WaitForSingleObject(go, 0) != WAIT_OBJECT_0) Sleep(5);
            return 3;
        });
        SuspendThread(stopped.Thread.Handle);
        for (int round = 0; round < 3; round++)
            for (const Reachable *one : {&sleeper, &poster, &waiter, &stopped})
                if (one != &sleeper || GetTickCount64() < start + 500) Inject(*one);
        HOST_EQ(1u, sleeper.Thread.Join());
        HOST_CHECK(GetTickCount64() >= start + 1500);
        for (const Reachable *one : {&poster, &waiter, &stopped})
            HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(one->Thread.Handle, 0));
        HOST_CHECK(PostUserThread(poster.Event));
        HOST_EQ(WAIT_OBJECT_0, poster.Thread.Join());
        SetEvent(go);
        HOST_EQ(WAIT_OBJECT_0, waiter.Thread.Join());
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(stopped.Thread.Handle, 20));
        HOST_EQ(1u, ResumeThread(stopped.Thread.Handle));
        HOST_EQ(3u, stopped.Thread.Join());
    }));
}

TEST_P(DedicatedCalls, OtherProcessesAndTheirNames) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        char line[] = "sh -c \"sleep 0.2; exit 9\"";
        STARTUPINFOA startup{};
        PROCESS_INFORMATION child{};
        HOST_CHECK(CreateProcessA(nullptr, line, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &child));
        // A mutex by name belongs to the user thread that took it, not to its scheduler.
        const std::string name = "Global\\zvx_host_" + std::to_string(GetCurrentProcessId());
        const HANDLE mutex = CreateMutexA(nullptr, TRUE, name.c_str());
        std::atomic<bool> tried{false};
        HostThread second([&]() -> DWORD {
            const HANDLE same = OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
            HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(same, 5));
            HOST_CHECK(!ReleaseMutex(same) && GetLastError() == ERROR_NOT_OWNER);
            tried = true;
            return WaitForSingleObject(same, 20000);
        });
        while (!tried) Sleep(1);
        HOST_CHECK(ReleaseMutex(mutex));
        HOST_EQ(WAIT_OBJECT_0, second.Join());
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(child.hProcess, 20000));
        DWORD code = 0;
        HOST_CHECK(GetExitCodeProcess(child.hProcess, &code) && code == 9);
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, DedicatedCalls, testing::Values(1, 2));
