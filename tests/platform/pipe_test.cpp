// tests/platform/pipe_test.cpp - named pipes: names and instances, states, bytes and messages, cancelling, other
// processes. The cases that transfer do so through a port, by the service thread, and on handles that block.
#include <dirent.h>
#include <grp.h>
#include <signal.h>

#include "platform/os_pipe.h"
#include "support.h"

namespace {

constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kMessages = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE;

std::string PipeName(const char *name = "Test") {
    return "\\\\.\\pipe\\zvx-" + std::to_string(getpid()) + "-" + name;
}
const std::string gName = PipeName();

HANDLE Create(DWORD flags = FILE_FLAG_OVERLAPPED, DWORD mode = kMessages, DWORD instances = 255,
              const std::string &name = gName, SECURITY_ATTRIBUTES *security = nullptr) {
    if ((flags & PIPE_ACCESS_DUPLEX) == 0) flags |= PIPE_ACCESS_DUPLEX;
    return os::CreateNamedPipeA(name.c_str(), flags, mode, instances, 0, 0, 0, security);
}
HANDLE OpenEnd(DWORD flags = 0, DWORD access = kBoth, const std::string &name = gName) {
    return os::CreateFileA(name.c_str(), access, 0, nullptr, OPEN_EXISTING, flags, nullptr);
}
// The error of an operation that failed, 0 when it did not.
DWORD ErrorOf(HANDLE handle) {
    return handle == INVALID_HANDLE_VALUE ? os::GetLastError() : 0;
}
DWORD ErrorOf(BOOL result) {
    return result ? 0 : os::GetLastError();
}

void SetMessages(HANDLE pipe) {
    DWORD mode = PIPE_READMODE_MESSAGE;
    ASSERT_TRUE(os::SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr));
}

enum class How { kPort, kService, kBlocking };

// An end whose operations are made in one of the three ways, and waited for.
struct End {
    HANDLE Pipe = INVALID_HANDLE_VALUE;
    How Is;
    HANDLE Port = nullptr;
    explicit End(How how) : Is(how) {}
    DWORD Flags() const { return Is == How::kBlocking ? 0 : FILE_FLAG_OVERLAPPED; }
    void Use(HANDLE pipe) {
        Pipe = pipe;
        ASSERT_NE(INVALID_HANDLE_VALUE, pipe) << os::GetLastError();
        if (Is == How::kPort) Port = NewPort();
    }
    template <typename Call>
    DWORD Run(Call call, DWORD *moved) {
        OVERLAPPED ov{};
        if (Is == How::kBlocking) return ErrorOf(call(moved, nullptr));
        if (call(moved, &ov)) return 0;
        if (os::GetLastError() != ERROR_IO_PENDING) return os::GetLastError();
        return ErrorOf(os::GetOverlappedResult(Pipe, &ov, moved, TRUE));
    }
    DWORD Write(const std::string &text) {
        DWORD moved = 0;
        const DWORD size = static_cast<DWORD>(text.size());
        const DWORD error =
            Run([&](DWORD *put, OVERLAPPED *ov) { return os::WriteFile(Pipe, text.data(), size, put, ov); }, &moved);
        EXPECT_EQ(error == 0 ? size : 0, moved);
        return error;
    }
    // What came, with the error behind it when there was one.
    std::string Read(DWORD bytes) {
        std::string text(bytes, 0);
        DWORD moved = 0;
        const DWORD error =
            Run([&](DWORD *got, OVERLAPPED *ov) { return os::ReadFile(Pipe, text.data(), bytes, got, ov); }, &moved);
        text.resize(moved);
        return error == 0 ? text : text + "!" + std::to_string(error);
    }
    DWORD Connect() {
        DWORD moved = 0;
        return Run([&](DWORD *, OVERLAPPED *ov) { return os::ConnectNamedPipe(Pipe, ov); }, &moved);
    }
};

std::string Long(size_t bytes, char seed) {
    std::string text(bytes, 0);
    for (size_t i = 0; i < bytes; i++) text[i] = static_cast<char>(PatternByte(i) + seed);
    return text;
}

// What CallNamedPipe answers.
std::string Call(const std::string &text, DWORD room = 64, DWORD ms = 5000) {
    std::string out(room, 0), in = text;
    DWORD got = 0;
    const BOOL done =
        os::CallNamedPipeA(gName.c_str(), in.data(), static_cast<DWORD>(in.size()), out.data(), room, &got, ms);
    const DWORD error = done ? 0 : os::GetLastError();
    out.resize(got);
    return error == 0 ? out : out + "!" + std::to_string(error);
}

// A process that does something until it is killed or ends; it has no threads but the calling one.
template <typename Body>
pid_t Fork(Body body) {
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

// A folder of names of its own for this test, removed at the end.
struct OwnFolder {
    char Parent[32] = "/tmp/zvx-pipes-XXXXXX";
    OwnFolder() {
        EXPECT_NE(nullptr, mkdtemp(Parent));
        chmod(Parent, 0777);
        setenv("ZVXKVT_PIPES", Parent, 1);
    }
    ~OwnFolder() {
        const int removed = std::system(("rm -rf " + std::string(Parent)).c_str());
        EXPECT_EQ(0, removed);
    }
    OwnFolder(const OwnFolder &) = delete;
    std::string User() const { return std::string(Parent) + "/zvxkvt-pipes-1-" + std::to_string(geteuid()); }
    std::vector<std::string> Sockets() const {
        std::vector<std::string> found;
        DIR *folder = opendir(User().c_str());
        while (const dirent *entry = folder == nullptr ? nullptr : readdir(folder))
            if (strchr(entry->d_name, '.') != nullptr && entry->d_name[0] != '.')
                found.push_back(User() + "/" + entry->d_name);
        if (folder != nullptr) closedir(folder);
        return found;
    }
};

mode_t ModeOf(const std::string &path) {
    struct stat info {};
    lstat(path.c_str(), &info);
    return info.st_mode & 07777;
}

}  // namespace

TEST(Pipe, NamesAndInstances) {
    EXPECT_EQ(ERROR_INVALID_NAME, ErrorOf(Create(0, 0, 1, "\\\\.\\pipe\\")));
    EXPECT_EQ(ERROR_INVALID_NAME, ErrorOf(Create(0, 0, 1, "\\\\.\\pipe\\a\\b")));
    EXPECT_EQ(ERROR_INVALID_NAME, ErrorOf(Create(0, 0, 1, "/tmp/pipe")));
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE, ErrorOf(Create(0, 0, 1, PipeName(std::string(250, 'x').c_str()))));
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE, ErrorOf(OpenEnd(0, kBoth, PipeName(std::string(250, 'x').c_str()))));
    const std::string longest = PipeName() + std::string(256 - PipeName().size(), 'l');
    const HANDLE far = Create(0, 0, 1, longest);
    EXPECT_EQ(0u, ErrorOf(OpenEnd(0, kBoth, longest)));
    os::CloseHandle(far);
    EXPECT_EQ(ERROR_INVALID_PARAMETER, ErrorOf(Create(0, PIPE_READMODE_MESSAGE)));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, ErrorOf(Create(0, kMessages, 0)));
    EXPECT_EQ(ERROR_NOT_SUPPORTED, ErrorOf(Create(0, kMessages | PIPE_NOWAIT)));

    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(os::WaitNamedPipeA(gName.c_str(), NMPWAIT_WAIT_FOREVER)));
    const HANDLE first = Create(FILE_FLAG_FIRST_PIPE_INSTANCE | PIPE_ACCESS_INBOUND, 0, 2);
    ASSERT_EQ(0u, ErrorOf(first));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(FILE_FLAG_FIRST_PIPE_INSTANCE | PIPE_ACCESS_INBOUND, 0, 2)));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(PIPE_ACCESS_DUPLEX, 0, 2))) << "other directions";
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(PIPE_ACCESS_INBOUND, PIPE_TYPE_MESSAGE, 2))) << "another type";
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(PIPE_ACCESS_INBOUND, 0, 3))) << "another number of instances";
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
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(os::ReadFile(a, &shouted[0], 1, nullptr, nullptr)));
    EXPECT_EQ(ERROR_SEM_TIMEOUT, ErrorOf(os::WaitNamedPipeA(gName.c_str(), NMPWAIT_USE_DEFAULT_WAIT)));
    // An instance makes room for another one while its client still has the other end.
    os::CloseHandle(first);
    const HANDLE third = Create(PIPE_ACCESS_INBOUND, 0, 2);
    ASSERT_EQ(0u, ErrorOf(third));
    EXPECT_TRUE(os::WaitNamedPipeA(gName.c_str(), 0));
    EXPECT_TRUE(os::WaitNamedPipeA(gName.c_str(), 0)) << "looking takes nothing";
    os::CloseHandle(third);
    EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(OpenEnd(0, GENERIC_WRITE)));
    os::CloseHandle(second);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd(0, GENERIC_WRITE)));
    EXPECT_EQ(0u, ErrorOf(Create(0, kMessages, 7))) << "nothing of the name is left";
}

TEST(Pipe, WhoMayOpen) {
    const OwnFolder folder;
    // What a process leaves that ends with its pipes open goes when the next pipe is made, whatever its name.
    Await(Fork([] { EXPECT_EQ(0u, ErrorOf(Create(0, kMessages, 1, PipeName("Left")))); }));
    EXPECT_EQ(1u, folder.Sockets().size());
    const HANDLE server = Create();
    ASSERT_EQ(0u, ErrorOf(server));
    EXPECT_EQ(0700u, ModeOf(folder.User()));
    ASSERT_EQ(1u, folder.Sockets().size());
    const std::string socket = folder.Sockets()[0];
    EXPECT_EQ(0600u, ModeOf(socket));
    chmod(socket.c_str(), 0622);
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd())) << "a socket that is open to others";
    chmod(socket.c_str(), 0600);
    chmod(folder.User().c_str(), 0755);
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd())) << "a folder that others may read";
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create()));
    chmod(folder.User().c_str(), 0700);
    const std::string moved = std::string(folder.Parent) + "/moved";
    ASSERT_EQ(0, rename(folder.User().c_str(), moved.c_str()));
    ASSERT_EQ(0, symlink("moved", folder.User().c_str()));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd())) << "a folder that somebody else leads to";
    unlink(folder.User().c_str());
    ASSERT_EQ(0, rename(moved.c_str(), folder.User().c_str()));
    if (geteuid() != 0) GTEST_SKIP() << "only the superuser has somebody else to be";
    ASSERT_EQ(0, chown(socket.c_str(), 65534, 65534));
    EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(OpenEnd())) << "somebody else's socket";
    ASSERT_EQ(0, chown(socket.c_str(), 0, 0));

    char descriptor[20];
    os::InitializeSecurityDescriptor(descriptor, 1);
    os::SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES everybody{sizeof everybody, descriptor, FALSE};
    const std::string open = PipeName("Open");
    const HANDLE shared = Create(0, kMessages, 2, open, &everybody);
    ASSERT_EQ(0u, ErrorOf(shared));
    EXPECT_EQ(0, Await(Fork([&] {
                  if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(9);
                  EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(OpenEnd()));
                  EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Create(0, kMessages, 2, open, &everybody)))
                      << "it is somebody else's";
                  EXPECT_EQ(0u, ErrorOf(OpenEnd(0, kBoth, open)));
              })));
    EXPECT_EQ(0u, ErrorOf(OpenEnd())) << "the other pipe is untouched";
}

TEST(Pipe, States) {
    for (const How how : {How::kPort, How::kService, How::kBlocking})
        std::thread([how] {
            SCOPED_TRACE(static_cast<int>(how));
            End server(how);
            server.Use(Create(server.Flags(), kMessages, 1));
            EXPECT_EQ("!536", server.Read(9));
            EXPECT_EQ(ERROR_PIPE_LISTENING, server.Write("x"));
            // A client may come before anybody waits for it, and even go.
            HANDLE client = OpenEnd();
            EXPECT_EQ(ERROR_PIPE_CONNECTED, server.Connect());
            EXPECT_EQ(ERROR_PIPE_CONNECTED, server.Connect());
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
            EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(OpenEnd()));
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
            EXPECT_EQ(ERROR_INVALID_FUNCTION, ErrorOf(os::DisconnectNamedPipe(client)));
            os::CloseHandle(client);
            if (how != How::kService) ExpectOnlyTheHandle(server.Pipe);  // that thread lets go of it a little later
            os::CloseHandle(server.Pipe);
        }).join();
}

TEST(Pipe, BytesAndMessages) {
    for (const How how : {How::kPort, How::kService, How::kBlocking})
        std::thread([how] {
            SCOPED_TRACE(static_cast<int>(how));
            End server(how), client(How::kBlocking);
            server.Use(Create(server.Flags()));
            client.Use(OpenEnd());
            for (const char *text : {"", "four", "message of some length", ""}) EXPECT_EQ(0u, client.Write(text));
            EXPECT_EQ("", server.Read(8)) << "an empty message is one";
            DWORD got = 0, all = 0, left = 0;
            char peeked[3];
            EXPECT_TRUE(os::PeekNamedPipe(server.Pipe, peeked, 3, &got, &all, &left));
            EXPECT_EQ((std::vector<DWORD>{3, 26, 1}), (std::vector<DWORD>{got, all, left}));
            EXPECT_EQ("four", server.Read(4));
            EXPECT_EQ("message!234", server.Read(7));
            EXPECT_EQ("!234", server.Read(0));
            EXPECT_EQ(" of some!234", server.Read(8));
            EXPECT_EQ(" length", server.Read(99));
            EXPECT_EQ("", server.Read(8));
            // The other end reads bytes: what came, whatever the messages.
            EXPECT_EQ(0u, server.Write("") + server.Write("abc"));
            EXPECT_EQ("ab", client.Read(2));
            EXPECT_EQ("c", client.Read(9));
            // Longer than any buffer of the system, both ways at the same time, whole and in pieces.
            const std::string there = Long(3 << 20, 1), back = Long(2 << 20, 7);
            SetMessages(client.Pipe);
            std::thread other([&] {
                EXPECT_EQ(0u, client.Write(there));
                EXPECT_TRUE(back == client.Read(2 << 20));
                EXPECT_EQ(0u, client.Write(there));
            });
            EXPECT_TRUE(there == server.Read(4 << 20));
            EXPECT_EQ(0u, server.Write(back));
            std::string pieces;
            for (;;) {
                const std::string piece = server.Read(700001);
                const bool more = piece.size() > 4 && piece.compare(piece.size() - 4, 4, "!234") == 0;
                pieces += more ? piece.substr(0, piece.size() - 4) : piece;
                if (!more) break;
            }
            EXPECT_TRUE(there == pieces);
            other.join();
            os::CloseHandle(client.Pipe);
            EXPECT_EQ("!109", server.Read(1));
            os::CloseHandle(server.Pipe);

            server.Use(Create(server.Flags(), PIPE_TYPE_BYTE));
            client.Use(OpenEnd());
            DWORD mode = PIPE_READMODE_MESSAGE;
            EXPECT_EQ(ERROR_INVALID_PARAMETER,
                      ErrorOf(os::SetNamedPipeHandleState(client.Pipe, &mode, nullptr, nullptr)));
            EXPECT_EQ(0u, client.Write("one") + client.Write("two"));
            EXPECT_EQ("on", server.Read(2));
            EXPECT_EQ("etwo", server.Read(9));
            std::thread writer([&] { EXPECT_EQ(0u, client.Write(there)); });
            for (pieces.clear(); pieces.size() < there.size();) pieces += server.Read(300000);
            writer.join();
            EXPECT_TRUE(there == pieces);
            os::CloseHandle(client.Pipe);
            os::CloseHandle(server.Pipe);
        }).join();
}

TEST(Pipe, PacketsEventsAndRoutines) {
    const HANDLE port = NewPort(), server = Create();
    ASSERT_EQ(port, os::CreateIoCompletionPort(server, port, 77, 0));
    OVERLAPPED connect{};
    EXPECT_EQ(ERROR_IO_PENDING, ErrorOf(os::ConnectNamedPipe(server, &connect)));
    OVERLAPPED again{};
    EXPECT_EQ(ERROR_PIPE_LISTENING, ErrorOf(os::ConnectNamedPipe(server, &again)));
    HANDLE client = INVALID_HANDLE_VALUE;
    Together([&] { client = OpenEnd(); });
    Packet packet = Take(port, 5000);
    EXPECT_TRUE(packet.Ov == &connect && packet.Key == 77 && packet.Error == 0);
    // A record of the library is handed over, and its packet says that the message was longer.
    Operation read;
    char text[8];
    ASSERT_EQ(ERROR_IO_PENDING, read.Read(server, text, 4));
    DWORD put = 0;
    Together([&] { os::WriteFile(client, "sixsix", 6, &put, nullptr); });
    packet = Take(port, 5000);
    EXPECT_TRUE(packet.Ov == &read.Ov && packet.Bytes == 4 && packet.Error == ERROR_MORE_DATA);
    EXPECT_EQ(&read.Op, os::TakeEndedOps(Io()));
    EXPECT_EQ(STATUS_BUFFER_OVERFLOW, os::LoadStatus(&read.Ov));
    // Quiet, and not at once although it could be: the budget is used up.
    Operation quiet;
    quiet.Ov.hEvent = reinterpret_cast<HANDLE>(uintptr_t{1});
    os::CurrentThreadBlock()->InlineBudget = 0;
    ASSERT_EQ(ERROR_IO_PENDING, quiet.Read(server, text, 8));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &quiet.Ov));
    EXPECT_EQ(WAIT_TIMEOUT, Take(port, 0).Error);
    // Several wait, and are served in their order.
    Operation wait[3];
    char byte[3];
    os::TakeEndedOps(Io());
    for (int i = 0; i < 3; i++) ASSERT_EQ(ERROR_IO_PENDING, wait[i].Read(server, &byte[i], 1));
    Together([&] {
        for (const char *one : {"x", "y", "z"}) os::WriteFile(client, one, 1, &put, nullptr);
    });
    for (Operation &each : wait) {
        EXPECT_EQ(&each.Ov, Take(port, 5000).Ov);
        os::TakeEndedOps(Io());
    }
    EXPECT_EQ(0, memcmp(byte, "xyz", 3));
    // A routine, on a thread without a port.
    static DWORD told;
    told = 0;
    Together([&] {
        const HANDLE other = Create();
        const HANDLE end = OpenEnd(FILE_FLAG_OVERLAPPED);
        OVERLAPPED ov{};
        EXPECT_TRUE(os::ReadFileEx(end, text, 8, &ov, [](DWORD, DWORD bytes, OVERLAPPED *) { told = bytes; }));
        OVERLAPPED write{};
        EXPECT_EQ(ERROR_IO_PENDING, ErrorOf(os::WriteFile(other, "routine", 7, nullptr, &write)));
        EXPECT_EQ(WAIT_IO_COMPLETION, os::SleepEx(5000, TRUE));
        EXPECT_EQ(7u, told);
    });
}

TEST(Pipe, CancellingAndClosing) {
    const HANDLE port = NewPort();
    char text[8];
    for (const bool close : {false, true}) {
        SCOPED_TRACE(close);
        HANDLE server = Create();
        const auto end = [&](OVERLAPPED *ov) {
            if (close)
                os::CloseHandle(server);
            else
                EXPECT_TRUE(os::CancelIoEx(server, ov));
            EXPECT_EQ(STATUS_CANCELLED, Await(port, ov));
            os::TakeEndedOps(Io());
            if (close) server = Create();
        };
        Operation connect;
        ASSERT_FALSE(os::ConnectNamedPipe(server, &connect.Ov, &connect.Op));
        end(&connect.Ov);
        HANDLE client = OpenEnd(FILE_FLAG_OVERLAPPED);
        ASSERT_EQ(0u, ErrorOf(client)) << "a cancelled wait leaves the instance as it was";
        Operation read;
        ASSERT_EQ(ERROR_IO_PENDING, read.Read(server, text, 8));
        end(&read.Ov);
        if (close) client = OpenEnd();
        // A message that is cancelled half-way: its reader gets no end of it, and does not wait for one.
        const std::string big = Long(1 << 20, 3);
        std::string room(big.size(), 0);
        Operation write;
        ASSERT_EQ(ERROR_IO_PENDING, write.Write(server, big.data(), 1 << 20));
        end(&write.Ov);
        Together([&] {
            OVERLAPPED ov{};
            DWORD got = 0;
            SetMessages(client);
            if (!os::ReadFile(client, room.data(), 1 << 20, &got, close ? nullptr : &ov) &&
                os::GetLastError() == ERROR_IO_PENDING)
                os::GetOverlappedResult(client, &ov, &got, TRUE);
            EXPECT_EQ(ERROR_BROKEN_PIPE, os::GetLastError());
        });
        os::CloseHandle(client);
        os::CloseHandle(server);
    }
    // What blocks on a handle is woken by its closing; what waits is ended by DisconnectNamedPipe.
    const HANDLE blocking = Create(PIPE_ACCESS_DUPLEX);
    std::thread waiter([&] { EXPECT_EQ(ERROR_OPERATION_ABORTED, ErrorOf(os::ConnectNamedPipe(blocking, nullptr))); });
    Pause(30);
    os::CloseHandle(blocking);
    waiter.join();
    const HANDLE server = Create(), client = OpenEnd();
    Operation read;
    ASSERT_EQ(ERROR_IO_PENDING, read.Read(server, text, 8));
    os::DisconnectNamedPipe(server);
    Await(port, &read.Ov);
    EXPECT_EQ(ERROR_PIPE_NOT_CONNECTED, ErrorOf(os::GetOverlappedResult(server, &read.Ov, &read.Got, FALSE)));
    os::TakeEndedOps(Io());
    ExpectOnlyTheHandle(server);
    os::CloseHandle(client);
}

// Messages of two threads with engines of their own come whole, although neither fits into what the system buffers; and
// two readers get each of them once.
TEST(Pipe, WritersAndReadersDoNotMix) {
    const HANDLE server = Create(), client = OpenEnd(FILE_FLAG_OVERLAPPED);
    SetMessages(client);
    constexpr int kEach = 40;
    std::atomic<int> seen[2]{};
    const auto run = [&](bool write, int who) {
        NewPort();
        for (int i = 0; i < kEach; i++) {
            std::string text(write ? 300000 + static_cast<size_t>(who) : 300002, static_cast<char>('a' + who));
            OVERLAPPED ov{};
            DWORD moved = 0;
            const DWORD size = static_cast<DWORD>(text.size());
            const BOOL done = write ? os::WriteFile(server, text.data(), size, &moved, &ov)
                                    : os::ReadFile(client, text.data(), size, &moved, &ov);
            ASSERT_TRUE(done || os::GetLastError() == ERROR_IO_PENDING);
            ASSERT_TRUE(done || os::GetOverlappedResult(server, &ov, &moved, TRUE)) << os::GetLastError();
            if (write) continue;
            const size_t from = moved - 300000;
            ASSERT_LT(from, 2u);
            ASSERT_EQ(std::string(moved, static_cast<char>('a' + from)), text.substr(0, moved));
            seen[from]++;
        }
    };
    Together([&] { run(true, 0); }, [&] { run(true, 1); }, [&] { run(false, 0); }, [&] { run(false, 1); });
    EXPECT_EQ(kEach, seen[0].load());
    EXPECT_EQ(kEach, seen[1].load());
}

// More clients than instances: each call is answered, with its own answer, and an instance has one client at a time.
TEST(Pipe, ClientsRaceForInstances) {
    constexpr int kCalls = 60;
    std::atomic<bool> stop{false};
    HANDLE pipes[3];
    std::vector<std::thread> threads;
    for (HANDLE &pipe : pipes) pipe = Create(PIPE_ACCESS_DUPLEX, kMessages, 3);
    for (const HANDLE pipe : pipes)
        threads.emplace_back([&stop, pipe] {
            while (!stop) {
                char text[64];
                DWORD got = 0;
                if (!os::ConnectNamedPipe(pipe, nullptr) && os::GetLastError() == ERROR_OPERATION_ABORTED) return;
                if (os::ReadFile(pipe, text, 64, &got, nullptr)) os::WriteFile(pipe, text, got, &got, nullptr);
                os::DisconnectNamedPipe(pipe);
            }
        });
    const auto client = [](const char *who) {
        for (int i = 0; i < kCalls; i++) {
            const std::string text = who + std::to_string(i);
            ASSERT_EQ(text, Call(text, 64, 20000));
        }
    };
    Together([&] { client("a"); }, [&] { client("b"); }, [&] { client("c"); }, [&] { client("d"); },
             [&] { client("e"); });
    stop = true;
    for (HANDLE pipe : pipes) os::CloseHandle(pipe);
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ("!2", Call("x"));
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
    EXPECT_EQ("!87", Call("x")) << "a pipe of bytes";
    os::CloseHandle(pipe);

    // Clients in another process: one that calls, one that does not fit, one that is killed before its answer.
    End own(How::kPort);
    own.Use(Create());
    for (int turn = 0; turn < 3; turn++) {
        const pid_t client =
            Fork([turn] { EXPECT_EQ(turn == 0 ? "pong" : "po!234", Call("ping", turn == 0 ? 4 : 2)); });
        const DWORD error = own.Connect();
        EXPECT_TRUE(error == 0 || error == ERROR_PIPE_CONNECTED) << error;
        EXPECT_EQ("ping", own.Read(8));
        if (turn == 2) {
            kill(client, SIGKILL);
            EXPECT_EQ("!109", own.Read(8));
        } else {
            EXPECT_EQ(0u, own.Write("pong"));
        }
        EXPECT_EQ(turn == 2 ? 128 + SIGKILL : 0, Await(client));
        os::DisconnectNamedPipe(own.Pipe);
    }
    // A thread that is ended inside its call takes the connection with it. It unwinds nothing, so it owns nothing.
    const auto call = [](void *) -> DWORD {
        static char in[] = "stuck", out[8];
        static DWORD size;
        return static_cast<DWORD>(os::CallNamedPipeA(gName.c_str(), in, 5, out, 8, &size, 5000));
    };
    const HANDLE caller = os::CreateThread(nullptr, 0, call, nullptr, 0, nullptr);
    const DWORD error = own.Connect();
    EXPECT_TRUE(error == 0 || error == ERROR_PIPE_CONNECTED) << error;
    EXPECT_EQ("stuck", own.Read(8));
    os::TerminateThread(caller, 5);
    EXPECT_EQ("!109", own.Read(8));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(caller, 5000));
}
