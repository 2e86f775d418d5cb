// tests/integration/calls_test.cpp - files, pipes, threads, calls on threads of their own and other processes as user
// threads see them. Injected routines: tests/model, tests/stress and tests/soak.
#include "support/host_runner.h"
#include "zvxkvt/sockets.h"

using namespace hosttest;

namespace {

class Calls : public HostTest {};

const std::string kName = "\\\\.\\pipe\\zvx-host-" + std::to_string(getpid());

HANDLE Create(DWORD flags = 0) {
    return CreateNamedPipeA(kName.c_str(), PIPE_ACCESS_DUPLEX | flags, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                            PIPE_UNLIMITED_INSTANCES, 0, 0, 0, nullptr);
}
// The answer, with the error behind it.
std::string Call(std::string text, DWORD room) {
    std::string out(room, 0);
    DWORD got = 0;
    const BOOL done =
        CallNamedPipeA(kName.c_str(), text.data(), static_cast<DWORD>(text.size()), out.data(), room, &got, 5000);
    out.resize(got);
    return done ? out : out + "!" + std::to_string(GetLastError());
}

DWORD WINAPI Echo(LPVOID pipe) {
    std::string text(1 << 20, 0);
    for (;;) {
        DWORD got = 0;
        if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return GetLastError();
        if (ReadFile(pipe, text.data(), 1 << 20, &got, nullptr) && text[0] != '-')
            HOST_CHECK(WriteFile(pipe, text.data(), got, nullptr, nullptr));
        HOST_CHECK(DisconnectNamedPipe(pipe));
    }
}

}  // namespace

TEST_P(Calls, PositionFollowsReadsWritesAndDuplicates) {
    const ScratchFolder scratch;
    EXPECT_HOST_OK(RunHost(Options(), [&scratch] {
        const HANDLE file = CreateFileA(scratch.File("file").c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ,
                                        nullptr, CREATE_NEW, 0, nullptr);
        const HANDLE process = GetCurrentProcess();
        DWORD moved = 77;
        char buffer[32] = {};
        HOST_CHECK(WriteFile(file, "abcdefghijklmno", 15, &moved, nullptr) && moved == 15);
        HOST_CHECK(ReadFile(file, buffer, 4, &moved, nullptr) && moved == 0);  // at the end: no error, nothing read
        HOST_EQ(3u, SetFilePointer(file, 3, nullptr, FILE_BEGIN));
        HOST_CHECK(ReadFile(file, buffer, 8, &moved, nullptr) && memcmp(buffer, "defghijk", 8) == 0);
        // An OVERLAPPED says where, gets the result, and moves the position too. The event that a lock gave it asks for
        // no packet, for which the thread would not wait in vain.
        HostThread reader([&]() -> DWORD {
            OVERLAPPED ov{};
            ov.Offset = 5;
            HOST_CHECK(LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &ov));
            return ReadFile(file, buffer, 3, &moved, &ov) && memcmp(buffer, "fgh", 3) == 0;
        });
        HOST_EQ(1u, reader.Join());
        // Duplicates, and duplicates of duplicates, share one position; it outlives the first handle.
        HANDLE second = nullptr, third = nullptr;
        HOST_CHECK(DuplicateHandle(process, file, process, &second, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(DuplicateHandle(process, second, process, &third, 0, FALSE, DUPLICATE_SAME_ACCESS));
        HOST_CHECK(ReadFile(third, buffer, 1, &moved, nullptr) && buffer[0] == 'i');
        HOST_CHECK(CloseHandle(file) && !ReadFile(file, buffer, 1, &moved, nullptr));
        HOST_CHECK(ReadFile(second, buffer, 1, &moved, nullptr) && buffer[0] == 'j');
        // Beyond four gigabytes a write carries into the high word.
        LONG high = 1;
        HOST_EQ(0xFFFFFFFEu, SetFilePointer(third, -2, &high, FILE_BEGIN));
        HOST_CHECK(WriteFile(third, "wxyz", 4, &moved, nullptr));
        high = 0;
        HOST_EQ(2u, SetFilePointer(third, 0, &high, FILE_CURRENT));
        HOST_EQ(2, high);
    }));
}

TEST_P(Calls, DuplicatesAreOfThisProcess) {
    const ChildResult host = RunHost(Options(), [] {
        const HANDLE self = OpenProcess(PROCESS_ALL_ACCESS, FALSE, GetCurrentProcessId());
        const HANDLE parent = OpenProcess(PROCESS_ALL_ACCESS, FALSE, static_cast<DWORD>(getppid()));
        HANDLE copy = nullptr;
        if (self == nullptr || parent == nullptr) ExitProcess(2);
        if (DuplicateHandle(GetCurrentProcess(), self, parent, &copy, 0, FALSE, 0)) ExitProcess(3);
        if (GetLastError() == ERROR_INVALID_PARAMETER) DuplicateHandle(self, self, self, &copy, 0, FALSE, 0);
    });
    EXPECT_EQ(1, host.ExitCode);
    EXPECT_EQ(0u, host.Output.rfind("ZORVEX KILLED: DuplicateHandle: Must fix tph=", 0)) << host.Output;
}

// Nothing here may block: with one scheduler a server and a client that waited in the system would wait for ever.
TEST_P(Calls, ServersAndClientsOfPipes) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        for (int i = 0; i < 2; i++) CloseHandle(CreateThread(nullptr, 0, Echo, Create(), 0, nullptr));
        std::deque<HostThread> clients;
        for (char c : {'a', 'b', 'c', 'd'})
            clients.emplace_back([c]() -> DWORD {
                const std::string big(300000, c);
                for (int i = 0; i < 5; i++) HOST_CHECK(Call(big, 300000) == big);
                return 1;
            });
        for (HostThread &client : clients) HOST_EQ(1u, client.Join());
        HOST_EQ("does not!234", Call("does not fit", 8));
        HOST_EQ("!109", Call("-", 8));
    }));
}

TEST_P(Calls, AHostsOwnOperationOnAPipeAndACallerThatIsEnded) {
    // Pipes are on the port all the same.
    EXPECT_HOST_OK(RunHost(Options({{"NumContextSwitchesBeforePolling", "0"}}), [] {
        const HANDLE pipe = Create(FILE_FLAG_OVERLAPPED);
        OVERLAPPED ov{};
        ov.hEvent = CreateEventA(nullptr, TRUE, TRUE, nullptr);
        HOST_CHECK(!ConnectNamedPipe(pipe, &ov) && GetLastError() == ERROR_IO_PENDING);
        HOST_EQ(1u, reinterpret_cast<uintptr_t>(ov.hEvent) & 1);
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(ov.hEvent, 0));
        HostThread caller([]() -> DWORD { return WaitNamedPipeA(kName.c_str(), 5000) && Call("x", 8).empty(); });
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(ov.hEvent, 5000));
        DWORD moved = 0;
        HOST_CHECK(GetOverlappedResult(pipe, &ov, &moved, TRUE));
        HOST_CHECK(CloseHandle(ov.hEvent) && !CloseHandle(ov.hEvent));
        // Where there was no event it is the library's now, which closing as one's own does not take away.
        ov.hEvent = nullptr;
        const HANDLE second = Create(FILE_FLAG_OVERLAPPED);
        for (int i = 0; i < 2; i++) {
            HOST_CHECK(!ConnectNamedPipe(second, &ov) && GetLastError() == ERROR_IO_PENDING);
            HOST_CHECK(CancelIoEx(second, &ov) && !GetOverlappedResult(second, &ov, &moved, TRUE));
            HOST_CHECK(i == 0 ? CloseHandle(ov.hEvent) : WSACloseEvent(ov.hEvent));
        }
        HOST_CHECK(CloseHandle(second));
        // Ended inside its call, it leaves nothing that the server would wait for.
        char text[8];
        HOST_CHECK(ReadFile(pipe, text, 8, &moved, nullptr) && moved == 1);
        TerminateThread(caller.Handle, 7);
        HOST_CHECK(!ReadFile(pipe, text, 8, &moved, nullptr) && GetLastError() == ERROR_BROKEN_PIPE);
    }));
}

// With a duplicate open, an operation goes on when its handle is closed; the end of its thread ends it all the same.
TEST_P(Calls, AThreadEndsWhoseHandleWasClosed) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        for (const DWORD flags : {0u, static_cast<DWORD>(FILE_FLAG_OVERLAPPED)}) {
            const HANDLE server = Create(), process = GetCurrentProcess();
            HANDLE pipe = server, copy = nullptr;
            if (flags != 0) pipe = CreateFileA(kName.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, flags, nullptr);
            HOST_CHECK(DuplicateHandle(process, pipe, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
            OVERLAPPED ov{};
            char byte = 0;
            HostThread thread([&]() -> DWORD {
                if (flags == 0) return ConnectNamedPipe(pipe, nullptr);
                HOST_CHECK(ReadFileEx(pipe, &byte, 1, &ov, [](DWORD, DWORD, LPOVERLAPPED) {}));
                return SleepEx(INFINITE, TRUE);
            });
            Sleep(20);
            HOST_CHECK(CloseHandle(pipe) && TerminateThread(thread.Handle, 7));
            HOST_EQ(7u, thread.Join());
            CloseHandle(copy);
            if (flags != 0) CloseHandle(server);
        }
    }));
}

// A thread that only looks, and never yields, finds the end of what it began however it looks.
TEST_P(Calls, LooksThatDoNotWaitSeeWhatHasEnded) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        static const HANDLE go = CreateEventA(nullptr, FALSE, FALSE, nullptr);
        const auto write = [](LPVOID) -> DWORD {
            const HANDLE file = CreateFileA(kName.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
            for (DWORD put; WaitForSingleObject(go, 30000) == WAIT_OBJECT_0;) WriteFile(file, "x", 1, &put, nullptr);
            return 0;
        };
        const HANDLE pipe = Create(FILE_FLAG_OVERLAPPED), event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        CreateRemoteThread(GetCurrentProcess(), nullptr, 0, write, nullptr, 0, nullptr);
        HOST_CHECK(ConnectNamedPipe(pipe, nullptr) || GetLastError() == ERROR_PIPE_CONNECTED);
        OVERLAPPED ov;
        DWORD moved, flags;
        char byte;
        const std::function<bool()> looks[] = {
            // Routines; the event is nobody's.
            [&] { return WaitForSingleObjectEx(event, 0, TRUE) == WAIT_IO_COMPLETION; },
            [&] { return SleepEx(0, TRUE) == WAIT_IO_COMPLETION; },
            [&] { return WSAWaitForMultipleEvents(1, &event, FALSE, 0, TRUE) == WSA_WAIT_IO_COMPLETION; },
            [&] { return WaitForSingleObject(event, 0) == WAIT_OBJECT_0; },
            [&] { return WSAWaitForMultipleEvents(1, &event, FALSE, 0, FALSE) == WSA_WAIT_EVENT_0; },
            [&] { return GetOverlappedResult(pipe, &ov, &moved, FALSE) != FALSE; },
            [&] { return WSAGetOverlappedResult(1, &ov, &moved, FALSE, &flags) != FALSE; },
        };
        for (const auto &look : looks) {
            const bool routine = &look < looks + 3;
            ov = {0, 0, 0, 0, routine ? nullptr : event};
            HOST_CHECK(routine ? ReadFileEx(pipe, &byte, 1, &ov, [](DWORD, DWORD, LPOVERLAPPED) {})
                               : !ReadFile(pipe, &byte, 1, nullptr, &ov) && GetLastError() == ERROR_IO_PENDING);
            HOST_CHECK(!look() && SetEvent(go));
            while (!look()) continue;
            ResetEvent(event);
        }
    }));
}

// Terminated whatever it does. A handle outlives its thread, and the thread's record may stand for another one by then:
// nothing may reach that.
TEST_P(Calls, TerminationAndStaleHandles) {
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
        // Its record stands for this one by now, or may at any time.
        HostThread other([]() -> DWORD { return Sleep(50), 0; });
        Sleep(20);
        HOST_EQ(0xFFFFFFFFu, SuspendThread(self.Handle));
        HOST_EQ(0xFFFFFFFFu, ResumeThread(self.Handle));
        HOST_CHECK(!TerminateThread(self.Handle, 1));
        HOST_EQ(ERROR_INVALID_HANDLE, GetLastError());
        HOST_EQ(0u, other.Join());
    }));
}

TEST_P(Calls, TheDirectoryServiceIsAskedOnAThreadOfItsOwn) {
    const HMODULE present = LoadLibraryA("netapi32.dll");
    if (present == nullptr) GTEST_SKIP() << "run with the folder of the stand-in in LD_LIBRARY_PATH";
    FreeLibrary(present);
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const HMODULE module = LoadLibraryA("netapi32.dll");
        using Query = DWORD (*)(const char *, const char *, const void *, const char *, DWORD, void **);
        const auto query = reinterpret_cast<Query>(
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

TEST_P(Calls, OtherProcessesAndTheirNames) {
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

INSTANTIATE_TEST_SUITE_P(Schedulers, Calls, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
