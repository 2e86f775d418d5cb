// tests/integration/pipe_test.cpp - named pipes as user threads see them: servers and clients on the same schedulers.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Pipes : public HostTest {};

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

// Nothing here may block: with one scheduler a server and a client that waited in the system would wait for ever.
TEST_P(Pipes, ServersAndClientsOnTheSameSchedulers) {
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

TEST_P(Pipes, TheHostsOwnOperationAndACallerThatIsEnded) {
    HostOptions options = Options();
    options.Settings.emplace_back("NumContextSwitchesBeforePolling", "0");  // pipes are on the port all the same
    EXPECT_HOST_OK(RunHost(options, [] {
        const HANDLE pipe = Create(FILE_FLAG_OVERLAPPED);
        OVERLAPPED ov{};
        ov.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
        HOST_CHECK(!ConnectNamedPipe(pipe, &ov) && GetLastError() == ERROR_IO_PENDING);
        HOST_EQ(1u, reinterpret_cast<uintptr_t>(ov.hEvent) & 1);
        HostThread caller([]() -> DWORD { return WaitNamedPipeA(kName.c_str(), 5000) && Call("x", 8).empty(); });
        HOST_EQ(WAIT_OBJECT_0, WaitForSingleObject(ov.hEvent, 5000));
        DWORD moved = 0;
        HOST_CHECK(GetOverlappedResult(pipe, &ov, &moved, TRUE));
        // Ended inside its call, it leaves nothing that the server would wait for.
        char text[8];
        HOST_CHECK(ReadFile(pipe, text, 8, &moved, nullptr) && moved == 1);
        TerminateThread(caller.Handle, 7);
        HOST_CHECK(!ReadFile(pipe, text, 8, &moved, nullptr) && GetLastError() == ERROR_BROKEN_PIPE);
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Pipes, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
