// tests/platform/pipe_test.cpp - named pipes: names and instances, states, bytes and messages, cancelling, other
// processes. The cases that transfer do so through a port, by the service thread, and on handles that block. What other
// users may do: tests/security.
#include <signal.h>

#include "platform/os_pipe.h"
#include "support.h"

namespace {

constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kMessages = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE;

std::string PipeName(const std::string &name = "Test") {
    return "\\\\.\\pipe\\zvx-" + std::to_string(getpid()) + "-" + name;
}
const std::string gName = PipeName();

HANDLE Create(DWORD flags = FILE_FLAG_OVERLAPPED, DWORD mode = kMessages, DWORD instances = 255,
              const std::string &name = gName) {
    if ((flags & PIPE_ACCESS_DUPLEX) == 0) flags |= PIPE_ACCESS_DUPLEX;
    return os::CreateNamedPipeA(name.c_str(), flags, mode, instances, 0, 0, 0, nullptr);
}
HANDLE OpenEnd(DWORD flags = 0, DWORD access = kBoth, const std::string &name = gName) {
    return os::CreateFileA(name.c_str(), access, 0, nullptr, OPEN_EXISTING, flags, nullptr);
}
bool SetMessages(HANDLE pipe) {
    DWORD mode = PIPE_READMODE_MESSAGE;
    return os::SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr) != FALSE;
}

enum class How { kPort, kService, kBlocking };
// An end whose operations are made in one of the three ways, and waited for.
struct End {
    HANDLE Pipe = INVALID_HANDLE_VALUE;
    How Is;
    explicit End(How how) : Is(how) {}
    void Use(HANDLE pipe) {
        Pipe = pipe;
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe) << os::GetLastError();
        if (Is == How::kPort) NewPort();
    }
    void Make(DWORD mode = kMessages, DWORD instances = 255) {
        Use(Create(Is == How::kBlocking ? PIPE_ACCESS_DUPLEX : FILE_FLAG_OVERLAPPED, mode, instances));
    }
    DWORD Run(auto call, DWORD *moved) {
        OVERLAPPED ov{};
        const DWORD error = ErrorOf(call(moved, Is == How::kBlocking ? nullptr : &ov));
        return error == ERROR_IO_PENDING ? ErrorOf(os::GetOverlappedResult(Pipe, &ov, moved, TRUE)) : error;
    }
    DWORD Write(const std::string &text) {
        DWORD put = 0;
        const DWORD size = static_cast<DWORD>(text.size());
        const auto call = [&](DWORD *to, OVERLAPPED *ov) { return os::WriteFile(Pipe, text.data(), size, to, ov); };
        const DWORD error = Run(call, &put);
        EXPECT_EQ(error == 0 ? size : 0, put);
        return error;
    }
    // What came, with the error behind it when there was one.
    std::string Read(DWORD bytes) {
        std::string text(bytes, 0);
        DWORD moved = 0;
        const auto call = [&](DWORD *got, OVERLAPPED *ov) { return os::ReadFile(Pipe, text.data(), bytes, got, ov); };
        const DWORD error = Run(call, &moved);
        text.resize(moved);
        return error == 0 ? text : text + "!" + std::to_string(error);
    }
    DWORD Connect() {
        DWORD moved = 0;
        return Run([&](DWORD *, OVERLAPPED *ov) { return os::ConnectNamedPipe(Pipe, ov); }, &moved);
    }
};

// What CallNamedPipe answers.
std::string Call(std::string text, DWORD room) {
    std::string out(room, 0);
    DWORD got = 0;
    const DWORD size = static_cast<DWORD>(text.size());
    const DWORD error = ErrorOf(os::CallNamedPipeA(gName.c_str(), text.data(), size, out.data(), room, &got, 5000));
    out.resize(got);
    return error == 0 ? out : out + "!" + std::to_string(error);
}

// A process that does something until it is killed or ends; it has no threads but the calling one.
pid_t Fork(auto body) {
    const pid_t child = fork();
    if (child != 0) return child;
    body();
    _exit(testing::Test::HasFailure() ? 1 : 0);
}
int Await(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct PipeWay : testing::TestWithParam<How> {};  // how the operations of the server are made

}  // namespace

TEST(Pipe, NamesAndInstances) {
    const std::string tooLong = PipeName(std::string(250, 'x')),
                      longest = PipeName(std::string(250, 'l')).substr(0, 256);
    const HANDLE far = Create(0, 0, 1, longest);
    EXPECT_EQ(0u, ErrorOf(far) + ErrorOf(OpenEnd(0, kBoth, longest)));
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE, ErrorOf(OpenEnd(0, kBoth, tooLong)));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(os::WaitNamedPipeA(gName.c_str(), NMPWAIT_WAIT_FOREVER)));
    const HANDLE first = Create(FILE_FLAG_FIRST_PIPE_INSTANCE | PIPE_ACCESS_INBOUND, 0, 2);
    ASSERT_EQ(0u, ErrorOf(first));
    const struct {
        DWORD Error, Flags, Mode, Instances;
        std::string Name = gName;
    } others[] = {{ERROR_ACCESS_DENIED, FILE_FLAG_FIRST_PIPE_INSTANCE | PIPE_ACCESS_INBOUND, 0, 2},
                  {ERROR_ACCESS_DENIED, PIPE_ACCESS_DUPLEX, 0, 2},
                  {ERROR_ACCESS_DENIED, PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE, 2},
                  {ERROR_ACCESS_DENIED, PIPE_ACCESS_INBOUND, 0, 3},
                  {ERROR_INVALID_PARAMETER, PIPE_ACCESS_INBOUND, PIPE_READMODE_MESSAGE, 2},
                  {ERROR_INVALID_PARAMETER, PIPE_ACCESS_INBOUND, 0, 0},
                  {ERROR_FILENAME_EXCED_RANGE, PIPE_ACCESS_INBOUND, 0, 2, tooLong},
                  {ERROR_INVALID_NAME, PIPE_ACCESS_INBOUND, 0, 2, "\\\\.\\pipe\\a\\b"}};
    for (const auto &one : others)
        EXPECT_EQ(one.Error, ErrorOf(Create(one.Flags, one.Mode, one.Instances, one.Name))) << one.Flags << one.Name;
    const HANDLE second = os::CreateNamedPipeW(std::wstring(gName.begin(), gName.end()).c_str(), PIPE_ACCESS_INBOUND, 0,
                                               2, 0, 0, 0, nullptr);
    ASSERT_EQ(0u, ErrorOf(second));
    EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(Create(PIPE_ACCESS_INBOUND, 0, 2)));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd(0, GENERIC_READ))) << "against the direction";
    std::string shouted = gName;
    for (char &c : shouted) c = static_cast<char>(toupper(c));
    const HANDLE a = OpenEnd(0, GENERIC_WRITE, shouted), b = OpenEnd(0, GENERIC_WRITE);
    ASSERT_EQ(0u, ErrorOf(a) + ErrorOf(b));
    EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(OpenEnd(0, GENERIC_WRITE)));
    EXPECT_EQ(ERROR_SEM_TIMEOUT, ErrorOf(os::WaitNamedPipeA(gName.c_str(), NMPWAIT_USE_DEFAULT_WAIT)));
    // An instance makes room for another one while its client still has the other end.
    os::CloseHandle(first);
    const HANDLE third = Create(PIPE_ACCESS_INBOUND, 0, 2);
    ASSERT_EQ(0u, ErrorOf(third));
    for (int i = 0; i < 2; i++) EXPECT_TRUE(os::WaitNamedPipeA(gName.c_str(), 0)) << "looking takes nothing";
    os::CloseHandle(third);
    EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(OpenEnd(0, GENERIC_WRITE)));
    os::CloseHandle(second);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd(0, GENERIC_WRITE)));
    EXPECT_EQ(0u, ErrorOf(Create(0, kMessages, 7))) << "nothing of the name is left";
}

// In a folder of its own. What a process leaves that ends with its pipes open goes when the next pipe is made, whatever
// its name; and what others could read or write is not used.
TEST(Pipe, FilesOfTheNames) {
    const ScratchFolder parent;
    setenv("ZVXKVT_PIPES", parent.Name.c_str(), 1);
    const std::string folder = parent.File("zvxkvt-pipes-1-" + std::to_string(geteuid()));
    Await(Fork([] { EXPECT_EQ(0u, ErrorOf(Create(0, kMessages, 1, PipeName("Left")))); }));
    const HANDLE server = Create();
    std::string socket;
    for (const auto &entry : std::filesystem::directory_iterator(folder)) {
        if (!entry.is_socket()) continue;
        EXPECT_EQ("", socket) << entry.path();
        socket = entry.path();
    }
    for (const auto &[path, wrong, right] : {std::tuple{socket, 0622u, 0600u}, {folder, 0755u, 0700u}}) {
        chmod(path.c_str(), wrong);
        EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd())) << path;
        chmod(path.c_str(), right);
    }
    EXPECT_EQ(0u, ErrorOf(OpenEnd()));
    os::CloseHandle(server);
}

TEST_P(PipeWay, States) {
    End server(GetParam());
    server.Make(kMessages, 1);
    EXPECT_EQ("!536", server.Read(9));
    EXPECT_EQ(ERROR_PIPE_LISTENING, server.Write("x"));
    // A client may come before anybody waits for it, and even go.
    HANDLE client = OpenEnd();
    for (int i = 0; i < 2; i++) EXPECT_EQ(ERROR_PIPE_CONNECTED, server.Connect());
    DWORD put = 0;
    os::WriteFile(client, "last", 4, &put, nullptr);
    os::CloseHandle(client);
    EXPECT_EQ(ERROR_NO_DATA, server.Connect());
    EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(OpenEnd())) << "not to be had before it is disconnected";
    EXPECT_EQ("last", server.Read(9));
    EXPECT_EQ("!109", server.Read(9));
    EXPECT_EQ(ERROR_NO_DATA, server.Write("x"));
    EXPECT_TRUE(os::DisconnectNamedPipe(server.Pipe));
    EXPECT_EQ("!233", server.Read(9));
    EXPECT_EQ(ERROR_PIPE_NOT_CONNECTED, ErrorOf(os::DisconnectNamedPipe(server.Pipe)));
    // The next one is waited for; what was written to it outlives the connection.
    std::thread opener([&] {
        ASSERT_TRUE(os::WaitNamedPipeA(gName.c_str(), NMPWAIT_WAIT_FOREVER));
        client = OpenEnd();
    });
    EXPECT_EQ(0u, server.Connect());
    opener.join();
    EXPECT_EQ(0u, server.Write("reply"));
    EXPECT_TRUE(os::DisconnectNamedPipe(server.Pipe));
    char text[9];
    EXPECT_TRUE(os::ReadFile(client, text, 9, &put, nullptr) && put == 5);
    EXPECT_EQ(ERROR_BROKEN_PIPE, ErrorOf(os::ReadFile(client, text, 9, &put, nullptr)));
    os::CloseHandle(client);
    if (GetParam() != How::kService) ExpectOnlyTheHandle(server.Pipe);  // that thread lets go of it a little later
}

TEST_P(PipeWay, BytesAndMessages) {
    End server(GetParam()), client(How::kBlocking);
    server.Make();
    client.Use(OpenEnd());
    for (const char *text : {"", "four", "message of some length", ""}) EXPECT_EQ(0u, client.Write(text));
    EXPECT_EQ("", server.Read(8)) << "an empty message is one";
    DWORD got = 0, all = 0, left = 0;
    char peeked[3];
    EXPECT_TRUE(os::PeekNamedPipe(server.Pipe, peeked, 3, &got, &all, &left));
    EXPECT_EQ((std::vector<DWORD>{3, 26, 1}), (std::vector<DWORD>{got, all, left}));
    for (const auto &[room, text] :
         {std::pair{4u, "four"}, {7u, "message!234"}, {0u, "!234"}, {8u, " of some!234"}, {99u, " length"}, {8u, ""}})
        EXPECT_EQ(text, server.Read(room));
    // Longer than any buffer of the system, both ways at the same time. Messages in pieces: tests/fuzz.
    const std::string there = Pattern(3 << 20), back = Pattern(2 << 20, 1);
    ASSERT_TRUE(SetMessages(client.Pipe));
    std::thread other([&] {
        EXPECT_EQ(0u, client.Write(there));
        EXPECT_TRUE(back == client.Read(2 << 20));
    });
    EXPECT_TRUE(there == server.Read(4 << 20));
    EXPECT_EQ(0u, server.Write(back));
    other.join();
    os::CloseHandle(client.Pipe);
    EXPECT_EQ("!109", server.Read(1));
    os::CloseHandle(server.Pipe);

    server.Make(PIPE_TYPE_BYTE);
    client.Use(OpenEnd());
    EXPECT_FALSE(SetMessages(client.Pipe));
    EXPECT_EQ(0u, client.Write("one") + client.Write("two"));
    EXPECT_EQ("on", server.Read(2));
    EXPECT_EQ("etwo", server.Read(9));
}

INSTANTIATE_TEST_SUITE_P(By, PipeWay, testing::Values(How::kPort, How::kService, How::kBlocking));

TEST(Pipe, CancellingAndClosing) {
    const HANDLE port = NewPort();
    char text[8];
    for (const bool close : {false, true}) {
        SCOPED_TRACE(close);
        HANDLE server = Create();
        const auto end = [&](OVERLAPPED *ov) {
            EXPECT_TRUE(close ? os::CloseHandle(server) : os::CancelIoEx(server, ov));
            EXPECT_EQ(STATUS_CANCELLED, Await(port, ov));
            os::TakeEndedOps(Io());
            if (close) server = Create();
        };
        Operation connect;
        ASSERT_FALSE(os::ConnectNamedPipe(server, &connect.Ov, &connect.Op));
        end(&connect.Ov);
        HANDLE client = OpenEnd();
        ASSERT_EQ(0u, ErrorOf(client)) << "a cancelled wait leaves the instance as it was";
        Operation read;
        ASSERT_EQ(ERROR_IO_PENDING, read.Read(server, text, 8));
        end(&read.Ov);
        if (close) client = OpenEnd();
        // A message that is cancelled half-way: its reader gets no end of it, and does not wait for one.
        const std::string big = Pattern(1 << 20);
        std::string room(big.size(), 0);
        Operation write;
        ASSERT_EQ(ERROR_IO_PENDING, write.Write(server, big.data(), 1 << 20));
        end(&write.Ov);
        Together([&] {
            DWORD got = 0;
            EXPECT_TRUE(SetMessages(client));
            EXPECT_EQ(ERROR_BROKEN_PIPE, ErrorOf(os::ReadFile(client, room.data(), 1 << 20, &got, nullptr)));
        });
        os::CloseHandle(client);
        os::CloseHandle(server);
    }
    // What blocks on a handle is woken by its closing; what waits is ended by DisconnectNamedPipe.
    const HANDLE blocking = Create(PIPE_ACCESS_DUPLEX), server = Create();
    std::thread waiter([&] { EXPECT_EQ(ERROR_OPERATION_ABORTED, ErrorOf(os::ConnectNamedPipe(blocking, nullptr))); });
    Pause(30);
    os::CloseHandle(blocking);
    waiter.join();
    OpenEnd();
    Operation read;
    ASSERT_EQ(ERROR_IO_PENDING, read.Read(server, text, 8));
    os::DisconnectNamedPipe(server);
    Await(port, &read.Ov);
    EXPECT_EQ(ERROR_PIPE_NOT_CONNECTED, ErrorOf(os::GetOverlappedResult(server, &read.Ov, &read.Got, FALSE)));
    os::TakeEndedOps(Io());
    ExpectOnlyTheHandle(server);
}

TEST(Pipe, OtherProcesses) {
    // A server that is killed leaves the name, which is nobody's, and its clients a broken pipe.
    const pid_t server = Fork([] {
        const HANDLE pipe = Create(PIPE_ACCESS_DUPLEX, kMessages, 2);
        Create(PIPE_ACCESS_DUPLEX, kMessages, 2);
        os::ConnectNamedPipe(pipe, nullptr);
        Pause(60000);
    });
    for (int i = 0; i < 1000 && !os::WaitNamedPipeA(gName.c_str(), 100); i++) Pause(5);
    const HANDLE orphan = OpenEnd();
    ASSERT_EQ(0u, ErrorOf(orphan));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(FILE_FLAG_FIRST_PIPE_INSTANCE, kMessages, 2)));
    kill(server, SIGKILL);
    Await(server);
    char text[8];
    DWORD got = 0;
    EXPECT_EQ(ERROR_BROKEN_PIPE, ErrorOf(os::ReadFile(orphan, text, 8, &got, nullptr)));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(os::WaitNamedPipeA(gName.c_str(), 5000)));
    const HANDLE pipe = Create(FILE_FLAG_FIRST_PIPE_INSTANCE, PIPE_TYPE_BYTE, 1);
    ASSERT_EQ(0u, ErrorOf(pipe)) << "taken over, with other properties";
    EXPECT_EQ("!87", Call("x", 8)) << "a pipe of bytes";
    os::CloseHandle(pipe);
    // Clients in another process: one that calls, one whose answer does not fit, one that is killed before it.
    End own(How::kPort);
    own.Make();
    for (int turn = 0; turn < 3; turn++) {
        const DWORD room = turn == 0 ? 4 : 2;
        const pid_t client = Fork([room] { EXPECT_EQ(room == 4 ? "pong" : "po!234", Call("ping", room)); });
        const DWORD error = own.Connect();
        EXPECT_TRUE(error == 0 || error == ERROR_PIPE_CONNECTED) << error;
        EXPECT_EQ("ping", own.Read(8));
        if (turn == 2) kill(client, SIGKILL);
        EXPECT_TRUE(turn == 2 ? own.Read(8) == "!109" : own.Write("pong") == 0);
        EXPECT_EQ(turn == 2 ? 128 + SIGKILL : 0, Await(client));
        os::DisconnectNamedPipe(own.Pipe);
    }
}
