// tests/integration/pipe_test.cpp - named pipes as user threads see them: servers and clients on one scheduler, and
// with a process that never starts the library.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Pipes : public HostTest {};

constexpr DWORD kMessages = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE;

std::string Name() {
    static const int owner = getpid();
    return "\\\\.\\pipe\\zvx-host-" + std::to_string(owner);
}
HANDLE Create(DWORD flags = 0, const std::string &name = Name()) {
    return CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | flags, kMessages, PIPE_UNLIMITED_INSTANCES, 0, 0, 0,
                            nullptr);
}
std::string Call(const std::string &text, DWORD room) {
    std::string in = text, out(room, 0);
    DWORD got = 0;
    const BOOL done =
        CallNamedPipeA(Name().c_str(), in.data(), static_cast<DWORD>(in.size()), out.data(), room, &got, 5000);
    out.resize(got);
    return done ? out : out + "!" + std::to_string(GetLastError());
}

DWORD WINAPI Echo(LPVOID pipe) {
    std::string text(1 << 20, 0);
    for (;;) {
        DWORD got = 0;
        if (!ConnectNamedPipe(pipe, nullptr) && GetLastError() != ERROR_PIPE_CONNECTED) return GetLastError();
        if (ReadFile(pipe, text.data(), 1 << 20, &got, nullptr) && text[0] != '-') {
            HOST_CHECK(WriteFile(pipe, text.data(), got, nullptr, nullptr));
        }
        HOST_CHECK(DisconnectNamedPipe(pipe));
        if (text[0] == '.') return 0;
    }
}
DWORD WINAPI CallMany(LPVOID who) {
    const std::string big(300000, static_cast<char>('a' + reinterpret_cast<intptr_t>(who)));
    for (int i = 0; i < 5; i++) HOST_CHECK(Call(big, 300000) == big);
    return 0;
}

}  // namespace

// Nothing here may block: with one scheduler a server and a client that waited in the system would wait for ever.
TEST_P(Pipes, ServersAndClientsOnTheSameSchedulers) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        HANDLE threads[6];
        for (int i = 0; i < 2; i++) {
            const HANDLE pipe = Create();
            HOST_CHECK(pipe != INVALID_HANDLE_VALUE);
            threads[i] = CreateThread(nullptr, 0, Echo, pipe, 0, nullptr);
        }
        for (int i = 2; i < 6; i++)
            threads[i] = CreateThread(nullptr, 0, CallMany, reinterpret_cast<LPVOID>(intptr_t{i}), 0, nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(4, threads + 2, TRUE, 20000));
        HOST_CHECK(Call("does not fit", 8) == "does not!234");
        HOST_CHECK(Call("-", 8) == "!109");
        // A client's end that yields, in pieces: what does not fit comes with its bytes and its error.
        HOST_CHECK(WaitNamedPipeA(Name().c_str(), 5000));
        const HANDLE client =
            CreateFileA(Name().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        DWORD mode = PIPE_READMODE_MESSAGE, moved = 0;
        char text[8] = {};
        HOST_CHECK(SetNamedPipeHandleState(client, &mode, nullptr, nullptr));
        HOST_CHECK(WriteFile(client, "seven77", 7, &moved, nullptr) && moved == 7);
        HOST_CHECK(!ReadFile(client, text, 5, &moved, nullptr));
        HOST_EQ(ERROR_MORE_DATA, GetLastError());
        HOST_CHECK(moved == 5 && memcmp(text, "seven", 5) == 0);
        HOST_CHECK(ReadFile(client, text, 8, &moved, nullptr) && moved == 2);
        HOST_CHECK(!ReadFile(client, text, 8, &moved, nullptr) && moved == 0);
        HOST_EQ(ERROR_BROKEN_PIPE, GetLastError());
        CloseHandle(client);
    }));
}

TEST_P(Pipes, WaitsAndTheHostsOwnOperations) {
    HostOptions options = Options();
    options.Settings.emplace_back("NumContextSwitchesBeforePolling", "0");  // pipes are on the port all the same
    EXPECT_HOST_OK(RunHost(options, [] {
        HOST_CHECK(!WaitNamedPipeW(std::wstring(L"\\\\.\\pipe\\zvx-nobody").c_str(), 60));
        HOST_EQ(ERROR_FILE_NOT_FOUND, GetLastError());
        const HANDLE waiter = CreateThread(
            nullptr, 0, [](LPVOID) -> DWORD { return static_cast<DWORD>(WaitNamedPipeA(Name().c_str(), INFINITE)); },
            nullptr, 0, nullptr);
        HOST_EQ(WAIT_TIMEOUT, WaitForSingleObject(waiter, 50));
        const HANDLE pipe = Create(FILE_FLAG_OVERLAPPED);
        DWORD answer = 0;
        HOST_CHECK(WaitForSingleObject(waiter, 5000) == WAIT_OBJECT_0 && GetExitCodeThread(waiter, &answer));
        HOST_EQ(1u, answer);
        OVERLAPPED ov{};
        ov.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        HOST_CHECK(!ConnectNamedPipe(pipe, &ov));
        HOST_EQ(ERROR_IO_PENDING, GetLastError());
        HOST_EQ(1u, reinterpret_cast<uintptr_t>(ov.hEvent) & 1);
        const HANDLE caller = CreateThread(
            nullptr, 0, [](LPVOID) -> DWORD { return static_cast<DWORD>(Call("x", 8) == "!109"); }, nullptr, 0,
            nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(ov.hEvent, 5000));
        DWORD moved = 0;
        HOST_CHECK(GetOverlappedResult(pipe, &ov, &moved, TRUE));
        // Terminated inside its call, it leaves nothing that the server would wait for.
        char text[8];
        HOST_CHECK(ReadFile(pipe, text, 8, &moved, nullptr) && moved == 1);
        TerminateThread(caller, 7);
        HOST_CHECK(!ReadFile(pipe, text, 8, &moved, nullptr));
        HOST_EQ(ERROR_BROKEN_PIPE, GetLastError());
        // A thread that waits for a client may be terminated, and leaves the instance to the next one; that one's wait
        // ends with the handle.
        HOST_CHECK(DisconnectNamedPipe(pipe));
        const auto listen = [](LPVOID end) -> DWORD { return ConnectNamedPipe(end, nullptr) ? 0 : GetLastError(); };
        const HANDLE dying = CreateThread(nullptr, 0, listen, pipe, 0, nullptr);
        Sleep(20);
        HOST_CHECK(TerminateThread(dying, 3));
        const HANDLE listener = CreateThread(nullptr, 0, listen, pipe, 0, nullptr);
        Sleep(20);
        CloseHandle(pipe);
        HOST_CHECK(WaitForSingleObject(listener, 5000) == WAIT_OBJECT_0 && GetExitCodeThread(listener, &answer));
        HOST_EQ(ERROR_OPERATION_ABORTED, answer);
    }));
}

// The test's own process never starts the library.
TEST_P(Pipes, ACallerWithoutUserThreads) {
    const std::string name = Name();
    const pid_t client = fork();
    if (client == 0) {
        for (int i = 0; i < 2000 && !WaitNamedPipeA(name.c_str(), 100); i++) usleep(2000);
        const bool same = Call("from outside", 64) == "from outside";
        _exit(same && Call("-", 64) == "!109" && Call(".", 64) == "." ? 0 : 1);
    }
    EXPECT_HOST_OK(RunHost(Options(), [] {
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(CreateThread(nullptr, 0, Echo, Create(), 0, nullptr), 20000));
    }));
    int status = 0;
    waitpid(client, &status, 0);
    EXPECT_EQ(0, status);
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Pipes, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
