// tests/platform/socket_test.cpp - sockets: connections, transfers, accepts, duplicates, readiness and options.
#include <netinet/in.h>
#include <sys/resource.h>

#include <dirent.h>

#include "platform/os_socket.h"
#include "support.h"

namespace {

int OpenDescriptors() {
    int count = 0;
    DIR *directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) count++;
    closedir(directory);
    return count;
}

sockaddr_in Loopback(uint16_t port = 0) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = port;
    return address;
}

const sockaddr *Plain(const sockaddr_in &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

sockaddr_in NameOf(SOCKET s, bool peer = false) {
    sockaddr_in name{};
    int length = sizeof name;
    sockaddr *plain = reinterpret_cast<sockaddr *>(&name);
    EXPECT_EQ(0, peer ? os::getpeername(s, plain, &length) : os::getsockname(s, plain, &length)) << os::GetLastError();
    return name;
}

SOCKET NewSocket() {
    const SOCKET s = os::socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_NE(INVALID_SOCKET, s);
    return s;
}

SOCKET NewListener(const sockaddr_in &address = Loopback()) {
    const SOCKET s = NewSocket();
    EXPECT_EQ(0, os::bind(s, Plain(address), sizeof address));
    EXPECT_EQ(0, os::listen(s, 100));
    return s;
}

SOCKET ConnectTo(SOCKET listener) {
    const SOCKET s = NewSocket();
    const sockaddr_in address = Loopback(NameOf(listener).sin_port);
    EXPECT_EQ(0, os::connect(s, Plain(address), sizeof address)) << os::GetLastError();
    return s;
}

struct Pair {
    SOCKET Listener = NewListener(), Client, Server;
    Pair() {
        Client = ConnectTo(Listener);
        Server = os::accept(Listener, nullptr, nullptr);
        EXPECT_NE(INVALID_SOCKET, Server);
    }
};

bool Shows(DWORD error) {
    return os::GetLastError() == error || (ADD_FAILURE() << os::GetLastError() << " instead of " << error, false);
}

struct SocketOperation : Operation {
    char Areas[64];
    DWORD Receive(SOCKET s, void *buffer, size_t bytes, DWORD flags = 0) {
        WSABUF one{static_cast<ULONG>(bytes), static_cast<CHAR *>(buffer)};
        return os::WSARecv(s, &one, 1, &Got, &flags, &Ov, nullptr, &Op) == 0 ? 0 : os::GetLastError();
    }
    DWORD Send(SOCKET s, const void *buffer, size_t bytes) {
        WSABUF one{static_cast<ULONG>(bytes), const_cast<CHAR *>(static_cast<const CHAR *>(buffer))};
        return os::WSASend(s, &one, 1, &Got, 0, &Ov, nullptr, &Op) == 0 ? 0 : os::GetLastError();
    }
    DWORD Accept(SOCKET listener, SOCKET fresh) {
        return os::AcceptEx(listener, fresh, Areas, 0, 32, 32, &Got, &Ov, &Op) ? 0 : os::GetLastError();
    }
    // The error with which it ends, which is waited for when the answer was pending.
    DWORD End(HANDLE port, DWORD answer) {
        DWORD bytes = 0, flags = 0;
        if (answer == ERROR_IO_PENDING) Await(port, &Ov);
        os::TakeEndedOps(Io());
        if (answer != ERROR_IO_PENDING) return answer;
        const BOOL ended = os::WSAGetOverlappedResult(0, &Ov, &bytes, FALSE, &flags);
        Got = bytes;
        return ended ? 0 : os::GetLastError();
    }
};

// Resets the connection.
void CloseHard(SOCKET s) {
    const zvx_linger hard{1, 0};
    EXPECT_EQ(0, os::setsockopt(s, ZVX_SOL_SOCKET, ZVX_SO_LINGER, reinterpret_cast<const char *>(&hard), sizeof hard));
    EXPECT_EQ(0, os::closesocket(s));
}

std::string Pattern(size_t bytes) {
    std::string text(bytes, 0);
    for (size_t i = 0; i < bytes; i++) text[i] = PatternByte(i);
    return text;
}

std::string ReceiveAll(SOCKET s) {
    std::string all;
    char buffer[30000];
    int got;
    while ((got = os::recv(s, buffer, sizeof buffer, 0)) > 0) all.append(buffer, static_cast<size_t>(got));
    EXPECT_EQ(0, got) << os::GetLastError();
    return all;
}

}  // namespace

TEST(Socket, NoDescriptorBeforeACallNeedsOne) {
    const int before = OpenDescriptors();
    EXPECT_EQ(INVALID_SOCKET, os::socket(77, SOCK_STREAM, 0));
    Shows(WSAEAFNOSUPPORT);
    EXPECT_EQ(INVALID_SOCKET, os::socket(AF_INET, 9, 0));
    Shows(WSAESOCKTNOSUPPORT);
    EXPECT_EQ(INVALID_SOCKET, os::socket(AF_INET, SOCK_STREAM, IPPROTO_UDP));
    Shows(WSAEPROTONOSUPPORT);
    const SOCKET s = NewSocket();
    ULONG on = 1;
    char byte;
    sockaddr_in name{};
    int length = sizeof name;
    EXPECT_EQ(0, os::ioctlsocket(s, static_cast<LONG>(ZVX_FIONBIO), &on));
    EXPECT_EQ(SOCKET_ERROR, os::recv(s, &byte, 1, 0));
    Shows(WSAENOTCONN);
    EXPECT_EQ(SOCKET_ERROR, os::getsockname(s, reinterpret_cast<sockaddr *>(&name), &length));
    Shows(WSAEINVAL);
    EXPECT_EQ(SOCKET_ERROR, os::listen(s, 5));
    Shows(WSAEINVAL);
    EXPECT_EQ(before, OpenDescriptors());
    // Of many first users one makes it.
    std::atomic<int> go{0};
    const auto use = [&] {
        go++;
        while (go < 3) os::CpuRelax();
        int value = 1;
        EXPECT_EQ(0, os::setsockopt(s, IPPROTO_TCP, ZVX_TCP_NODELAY, reinterpret_cast<char *>(&value), sizeof value));
    };
    Together(use, use, use);
    EXPECT_EQ(before + 1, OpenDescriptors());
    const sockaddr_in address = Loopback();
    EXPECT_EQ(0, os::bind(s, Plain(address), sizeof address));
    EXPECT_EQ(0, os::listen(s, 5));
    EXPECT_EQ(INVALID_SOCKET, os::accept(s, nullptr, nullptr)) << "the mode asked for before it was made";
    Shows(WSAEWOULDBLOCK);
    EXPECT_EQ(0, os::closesocket(s));
    EXPECT_EQ(SOCKET_ERROR, os::closesocket(s));
    Shows(WSAENOTSOCK);
    const HANDLE event = os::WSACreateEvent();
    EXPECT_EQ(SOCKET_ERROR, os::closesocket(reinterpret_cast<SOCKET>(event)));
    EXPECT_TRUE(os::WSACloseEvent(event)) << "left alone";
    EXPECT_EQ(before, OpenDescriptors());
}

// A server on one engine, clients that block on threads of their own.
TEST(Socket, EchoOfManyClients) {
    constexpr int kClients = 8, kRounds = 200;
    const HANDLE port = NewPort();
    const SOCKET listener = NewListener();
    ASSERT_NE(nullptr, os::CreateIoCompletionPort(reinterpret_cast<HANDLE>(listener), port, 1, 0));
    struct Session : SocketOperation {
        SOCKET S = INVALID_SOCKET;
        char Buffer[200];
        int Stage = 0;  // 0 accepts, 1 receives, 2 sends
    };
    std::vector<Session> sessions(kClients);
    std::vector<std::thread> clients;
    for (Session &each : sessions) {
        each.S = NewSocket();
        ASSERT_EQ(ERROR_IO_PENDING, each.Accept(listener, each.S));
    }
    for (int i = 0; i < kClients; i++)
        clients.emplace_back([&, i] {
            const SOCKET s = ConnectTo(listener);
            for (int round = 0; round < kRounds; round++) {
                char out[100], in[100];
                const int length = 1 + (round * 7 + i) % 100;
                memset(out, i * 50 + round, sizeof out);
                ASSERT_EQ(length, os::send(s, out, length, 0));
                ASSERT_EQ(length, os::recv(s, in, length, ZVX_MSG_WAITALL));
                ASSERT_EQ(0, memcmp(out, in, static_cast<size_t>(length)));
            }
            EXPECT_EQ(0, os::closesocket(s));
        });
    int open = kClients;
    while (open > 0) {
        Take(port, 100);
        for (os::IoOp *op = os::TakeEndedOps(Io()); op != nullptr;) {
            os::IoOp *next = op->NextEnded;
            Session *session = static_cast<Session *>(reinterpret_cast<Operation *>(
                reinterpret_cast<char *>(op) - offsetof(Operation, Op)));
            ASSERT_EQ(STATUS_SUCCESS, os::LoadStatus(op->Ov));
            DWORD answer = ERROR_IO_PENDING, bytes = op->Ov->InternalHigh;
            // Goes on as long as things end at once.
            do {
                if (answer == 0) bytes = session->Got;
                if (session->Stage == 1 && bytes == 0) {
                    os::closesocket(session->S);
                    open--;
                    break;
                }
                answer = session->Stage == 1 ? session->Send(session->S, session->Buffer, bytes)
                                             : session->Receive(session->S, session->Buffer, sizeof session->Buffer);
                session->Stage = session->Stage == 1 ? 2 : 1;
            } while (answer == 0);
            op = next;
        }
    }
    for (std::thread &client : clients) client.join();
    EXPECT_EQ(0u, Io()->Outstanding);
    ExpectOnlyTheHandle(reinterpret_cast<HANDLE>(listener));
}
