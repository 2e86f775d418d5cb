// tests/integration/dedicated_test.cpp - calls on threads of their own, on real schedulers; and other processes as user
// threads see them. Injected routines: tests/model, tests/stress and tests/soak.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class DedicatedCalls : public HostTest {};

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
