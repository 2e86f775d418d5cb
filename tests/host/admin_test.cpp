// tests/host/admin_test.cpp - the administrator's pipe, asked from a process that never starts the library.
#include "server.h"
#include "support/net_peer.h"
#include "zvxkvt/zvxkvt.h"

namespace keyhost_test {
namespace {

struct Admin : OnEachBackEnd {
    const std::string Short = "keyhost-test-" + std::to_string(getpid());
    const std::string Name = "\\\\.\\pipe\\" + Short;

    // The answer, or "!" and the error.
    std::string Ask(const std::string &command, DWORD room = 1 << 20) const {
        std::string in = command, out(room, 0);
        DWORD got = 0;
        const BOOL done =
            CallNamedPipeA(Name.c_str(), in.data(), static_cast<DWORD>(in.size()), out.data(), room, &got, 10000);
        out.resize(got);
        return done ? out : "!" + std::to_string(GetLastError());
    }
    HANDLE Open() const {
        return CreateFileA(Name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    }
};

ON_EACH_BACK_END(Admin);

TEST_P(Admin, CommandsClientsThatGoAndClientsThatStay) {
    ASSERT_TRUE(Host.Start({"--admin-pipe", Short})) << Host.Text();
    EXPECT_NE(Host.Text().find(Name), std::string::npos) << Host.Text();
    ASSERT_GE(netpeer::Connect(Host.Port), 0);
    EXPECT_TRUE(Await([&] { return Ask("sessions").find("sessions:1\r\nid=1 state=idle") == 0; })) << Ask("sessions");
    EXPECT_NE(Ask("info\n").find("process_id:" + std::to_string(Host.Child)), std::string::npos);
    EXPECT_EQ("!234", Ask("info", 10)) << "the answer does not fit";
    EXPECT_EQ("unknown command", Ask("drop everything"));
    EXPECT_EQ("request too long", Ask(std::string(100000, 'x')));
    EXPECT_EQ("not available", Ask("migrate-lgwr"));
    if (GetParam().Io != nullptr) {
        EXPECT_EQ("asked:1 answered:1", Ask("probe"));
        EXPECT_EQ("paused:1", Ask("pause"));
    }
    EXPECT_EQ("started", Ask("checkpoint"));
    EXPECT_TRUE(Await([&] { return Ask("info").find("\ncheckpoints:1\r") != std::string::npos; }));
    // Clients that leave at every possible point, and then two that sit on both instances and say nothing.
    HANDLE silent[2];
    DWORD moved = 0;
    for (int i = 0; i < 60; i++) {
        ASSERT_TRUE(WaitNamedPipeA(Name.c_str(), 10000));
        const HANDLE pipe = Open();
        if (i % 3 != 0) WriteFile(pipe, "sessions", 8, &moved, nullptr);
        if (i % 3 == 2) usleep(static_cast<useconds_t>(i * 20));
        CloseHandle(pipe);
    }
    for (HANDLE &pipe : silent) ASSERT_TRUE(Await([&] { return (pipe = Open()) != INVALID_HANDLE_VALUE; }));
    EXPECT_NE("!121", Ask("info")) << "the monitor has made room";
    char byte;
    for (const HANDLE pipe : silent) EXPECT_TRUE(!ReadFile(pipe, &byte, 1, &moved, nullptr) && CloseHandle(pipe));
    // A second server under the same name is refused, and the name goes with a server that is killed.
    EXPECT_EQ("shutting down", Ask("shutdown"));
    EXPECT_EQ(0, Host.AwaitEnd());
    EXPECT_EQ("!2", Ask("info"));
    // Neither instance gives up when waiting for a client fails once.
    ASSERT_TRUE(Host.Start({"--admin-pipe", Short}, "ConnectNamedPipe:1:4,ConnectNamedPipe:2:4")) << Host.Text();
    EXPECT_TRUE(Await([&] { return Ask("info").find("process_id:") != std::string::npos; })) << Host.Text();
    Host.Kill();
    ASSERT_TRUE(Host.Start({"--admin-pipe", Short})) << Host.Text();
    const HANDLE own = CreateNamedPipeA(Name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE, PIPE_UNLIMITED_INSTANCES,
                                        0, 0, 0, nullptr);
    EXPECT_EQ(INVALID_HANDLE_VALUE, own);
    EXPECT_EQ(ERROR_ACCESS_DENIED, GetLastError());
}

}  // namespace
}  // namespace keyhost_test
