// tests/integration/pipe_test.cpp - named pipes as user threads see them: servers and clients on the same schedulers.
#include "support/host_runner.h"

using namespace hosttest;

namespace {

class Pipes : public HostTest {};

std::string Name() {
    static const int owner = getpid();
    return "\\\\.\\pipe\\zvx-host-" + std::to_string(owner);
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
            const HANDLE pipe =
                CreateNamedPipeA(Name().c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                 PIPE_UNLIMITED_INSTANCES, 0, 0, 0, nullptr);
            HOST_CHECK(pipe != INVALID_HANDLE_VALUE);
            threads[i] = CreateThread(nullptr, 0, Echo, pipe, 0, nullptr);
        }
        for (int i = 2; i < 6; i++)
            threads[i] = CreateThread(nullptr, 0, CallMany, reinterpret_cast<LPVOID>(intptr_t{i}), 0, nullptr);
        HOST_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(4, threads + 2, TRUE, 20000));
        HOST_CHECK(Call("does not fit", 8) == "does not!234");
        HOST_CHECK(Call("-", 8) == "!109");
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Pipes, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
