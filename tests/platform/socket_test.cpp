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
    EXPECT_EQ(0, os::listen(s, 1000));
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
            Session *session = static_cast<Session *>(
                reinterpret_cast<Operation *>(reinterpret_cast<char *>(op) - offsetof(Operation, Op)));
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

// Far more than the kernel takes at once, from three operations that were issued together.
TEST(Socket, SendsAreTakenWholeAndInOrder) {
    Pair pair;
    const HANDLE port = NewPort();
    for (const SOCKET s : {pair.Client, pair.Server})
        for (const int name : {ZVX_SO_SNDBUF, ZVX_SO_RCVBUF}) {
            int size = 32768;
            EXPECT_EQ(0, os::setsockopt(s, ZVX_SOL_SOCKET, name, reinterpret_cast<char *>(&size), sizeof size));
        }
    const std::string data = Pattern(3000000);
    std::string received;
    std::thread reader([&] {
        Pause(50);
        received = ReceiveAll(pair.Client);
    });
    char *bytes = const_cast<char *>(data.data());
    SocketOperation ops[4];
    std::vector<WSABUF> many;
    for (uint32_t at = 0; at < 1000000; at += 25000) many.push_back({25000, bytes + at});
    WSABUF three[] = {{500000, bytes + 1000000}, {0, nullptr}, {500000, bytes + 1500000}};
    DWORD sent;
    const auto send = [&](SocketOperation &op, WSABUF *buffers, size_t count) {
        return os::WSASend(pair.Server, buffers, static_cast<DWORD>(count), &sent, 0, &op.Ov, nullptr, &op.Op) == 0
                   ? 0
                   : os::GetLastError();
    };
    EXPECT_EQ(ERROR_IO_PENDING, send(ops[0], many.data(), many.size()));
    many.assign(many.size(), WSABUF{});  // the array was the call's
    EXPECT_EQ(ERROR_IO_PENDING, send(ops[1], three, 3));
    EXPECT_EQ(ERROR_IO_PENDING, ops[2].Send(pair.Server, bytes + 2000000, 1000000 - 10));
    EXPECT_EQ(ERROR_IO_PENDING, ops[3].Send(pair.Server, bytes + 3000000 - 10, 10));
    const DWORD sizes[] = {1000000, 1000000, 999990, 10};
    for (int i = 0; i < 4; i++) {
        EXPECT_EQ(0u, ops[i].End(port, ERROR_IO_PENDING));
        EXPECT_EQ(sizes[i], ops[i].Got);
    }
    EXPECT_EQ(SOCKET_ERROR, send(ops[0], nullptr, 1) == 0 ? 0 : SOCKET_ERROR);
    Shows(WSAEFAULT);
    EXPECT_EQ(WSAEINVAL, send(ops[0], three, os::kMaxWsaBuffers + 1));
    // What was issued before a shutdown arrives before the end.
    EXPECT_EQ(0, os::shutdown(pair.Server, SD_SEND));
    reader.join();
    EXPECT_TRUE(received == data);
    // Received in pieces.
    EXPECT_EQ(26, os::send(pair.Client, "abcdefghijklmnopqrstuvwxyz", 26, 0));
    char a[3] = {}, b[10] = {}, c[40] = {};
    WSABUF parts[] = {{2, a}, {10, b}, {40, c}};
    DWORD flags = 0;
    const DWORD answer = os::WSARecv(pair.Server, parts, 3, &sent, &flags, &ops[0].Ov, nullptr, &ops[0].Op) == 0
                             ? 0
                             : os::GetLastError();
    EXPECT_EQ(0u, ops[0].End(port, answer));
    EXPECT_EQ(26u, answer == 0 ? sent : ops[0].Got);
    EXPECT_TRUE(strcmp("ab", a) == 0 && memcmp("cdefghijkl", b, 10) == 0 && strcmp("mnopqrstuvwxyz", c) == 0);
}

TEST(Socket, EveryFlagOfAReceive) {
    Pair pair;
    const HANDLE port = NewPort();
    char buffer[20] = {};
    SocketOperation op;
    // None of this depends on the mode, which is for calls without an OVERLAPPED.
    ULONG on = 1;
    EXPECT_EQ(0, os::ioctlsocket(pair.Server, static_cast<LONG>(ZVX_FIONBIO), &on));
    EXPECT_EQ(SOCKET_ERROR, os::recv(pair.Server, buffer, 1, 0));
    Shows(WSAEWOULDBLOCK);
    // An empty receive ends when there is something to read, and takes nothing.
    ASSERT_EQ(ERROR_IO_PENDING, op.Receive(pair.Server, buffer, 0));
    Take(port, 30);
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&op.Ov));
    os::send(pair.Client, "12345", 5, 0);
    EXPECT_EQ(0u, op.End(port, ERROR_IO_PENDING));
    EXPECT_EQ(0u, op.Got);
    EXPECT_EQ(0u, op.End(port, op.Receive(pair.Server, buffer, 20, ZVX_MSG_PEEK)));
    EXPECT_EQ(5u, op.Got);
    EXPECT_EQ(0u, op.End(port, op.Receive(pair.Server, buffer, 2))) << "without anything new";
    DWORD answer = op.Receive(pair.Server, buffer + 2, 6, ZVX_MSG_WAITALL);
    ASSERT_EQ(ERROR_IO_PENDING, answer);
    Take(port, 30);
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&op.Ov));
    os::send(pair.Client, "678", 3, 0);
    EXPECT_EQ(0u, op.End(port, answer));
    EXPECT_STREQ("12345678", buffer);
    EXPECT_EQ(WSAEOPNOTSUPP, op.Receive(pair.Server, buffer, 8, 0x4000));
    EXPECT_EQ(0u, Io()->Outstanding);
}

TEST(Socket, HowAConnectionEnds) {
    const HANDLE port = NewPort();
    char byte;
    for (const bool overlapped : {true, false}) {
        SocketOperation op;
        const auto receive = [&](SOCKET s) {
            if (overlapped) return op.End(port, op.Receive(s, &byte, 1));
            const int got = os::recv(s, &byte, 1, 0);
            op.Got = static_cast<DWORD>(got);
            return got >= 0 ? 0 : os::GetLastError();
        };
        const auto send = [&](SOCKET s) {
            if (overlapped) return op.End(port, op.Send(s, "x", 1));
            return os::send(s, "x", 1, 0) >= 0 ? 0 : os::GetLastError();
        };
        if (overlapped) {
            // The last bytes and the end come together, and the bytes were not yet with the kernel at the shutdown.
            Pair brief;
            SocketOperation last;
            char text[10];
            const DWORD answer = op.Receive(brief.Server, text, sizeof text);
            const DWORD sent = last.Send(brief.Client, "last", 4);
            EXPECT_EQ(0, os::shutdown(brief.Client, SD_SEND));
            Pause(10);
            EXPECT_EQ(0u, last.End(port, sent));
            EXPECT_EQ(0u, op.End(port, answer));
            EXPECT_EQ(4u, op.Got);
            EXPECT_EQ(0u, receive(brief.Server));
            EXPECT_EQ(0u, op.Got);
        }
        Pair polite;
        EXPECT_EQ(0, os::shutdown(polite.Client, SD_SEND));
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(0u, receive(polite.Server));
            EXPECT_EQ(0u, op.Got);
        }
        EXPECT_EQ(0u, send(polite.Server)) << "the other direction is open";
        EXPECT_EQ(0, os::shutdown(polite.Server, SD_BOTH));
        EXPECT_EQ(WSAESHUTDOWN, send(polite.Server));
        EXPECT_EQ(WSAESHUTDOWN, receive(polite.Server));
        Pair rude;
        const DWORD answer = overlapped ? op.Receive(rude.Server, &byte, 1) : 0;
        CloseHard(rude.Client);
        EXPECT_EQ(WSAECONNRESET, overlapped ? op.End(port, answer) : receive(rude.Server));
        EXPECT_EQ(WSAECONNRESET, receive(rude.Server)) << "still";
        EXPECT_EQ(WSAECONNRESET, send(rude.Server)) << "and no signal";
        // No connection at all, with a descriptor and without.
        const SOCKET alone = NewSocket();
        EXPECT_EQ(WSAENOTCONN, receive(alone));
        ULONG waiting;
        EXPECT_EQ(SOCKET_ERROR, os::ioctlsocket(alone, 0x1234, &waiting));
        Shows(WSAEOPNOTSUPP);
        int on = 1;
        os::setsockopt(alone, IPPROTO_TCP, ZVX_TCP_NODELAY, reinterpret_cast<char *>(&on), sizeof on);
        EXPECT_EQ(WSAENOTCONN, receive(alone));
        EXPECT_EQ(WSAENOTCONN, send(alone));
    }
    EXPECT_EQ(0u, Io()->Outstanding);
}

TEST(Socket, CancelledAndClosed) {
    const HANDLE port = NewPort();
    const int before = OpenDescriptors();
    const std::string big = Pattern(8000000);
    char byte;
    for (int how = 0; how < 4; how++) {
        Pair pair;
        SocketOperation receive, send, behind, accept;
        const SOCKET fresh = NewSocket();
        ASSERT_EQ(ERROR_IO_PENDING, receive.Receive(pair.Server, &byte, 1));
        ASSERT_EQ(ERROR_IO_PENDING, send.Send(pair.Server, big.data(), big.size()));
        ASSERT_EQ(ERROR_IO_PENDING, behind.Send(pair.Server, &byte, 1));
        ASSERT_EQ(ERROR_IO_PENDING, accept.Accept(pair.Listener, fresh));
        if (how % 2 == 1) Take(port, 10);
        const HANDLE server = reinterpret_cast<HANDLE>(pair.Server), listener = reinterpret_cast<HANDLE>(pair.Listener);
        if (how == 0) {
            EXPECT_TRUE(os::CancelIoEx(server, &receive.Ov));
            EXPECT_TRUE(os::CancelIo(server));
            EXPECT_TRUE(os::CancelIoEx(listener, &accept.Ov));
        } else if (how == 1) {
            EXPECT_EQ(0, os::closesocket(pair.Server));
            Together([&] { EXPECT_EQ(0, os::closesocket(fresh)) << "gives the accept up, the listener stays"; });
        } else {
            Together([&] {
                EXPECT_EQ(0, os::closesocket(pair.Server));
                EXPECT_EQ(0, os::closesocket(pair.Listener));
            });
        }
        EXPECT_EQ(ERROR_OPERATION_ABORTED, receive.End(port, ERROR_IO_PENDING)) << how;
        EXPECT_EQ(ERROR_OPERATION_ABORTED, send.End(port, ERROR_IO_PENDING)) << how;
        EXPECT_EQ(ERROR_OPERATION_ABORTED, behind.End(port, ERROR_IO_PENDING)) << how;
        EXPECT_EQ(ERROR_OPERATION_ABORTED, accept.End(port, ERROR_IO_PENDING)) << how;
        if (how < 2) {
            // Nothing was consumed: the next connection is there for the next accept.
            const SOCKET late = ConnectTo(pair.Listener);
            const SOCKET next = how == 0 ? fresh : NewSocket();
            EXPECT_EQ(0u, accept.End(port, accept.Accept(pair.Listener, next)));
            os::closesocket(late);
            os::closesocket(next);
        }
        for (const SOCKET s : {pair.Server, pair.Listener, pair.Client, fresh}) os::closesocket(s);
        EXPECT_EQ(0u, Io()->Outstanding);
        EXPECT_EQ(before, OpenDescriptors()) << how;
    }
}

TEST(Socket, AcceptExGivesConnectionsInTheirOrder) {
    const HANDLE port = NewPort();
    for (const uint32_t bound : {INADDR_LOOPBACK, INADDR_ANY}) {
        sockaddr_in address = Loopback();
        address.sin_addr.s_addr = htonl(bound);
        const SOCKET listener = NewListener(address);
        ULONG on = bound == INADDR_ANY;  // the mode is of no concern to an AcceptEx
        EXPECT_EQ(0, os::ioctlsocket(listener, static_cast<LONG>(ZVX_FIONBIO), &on));
        SOCKET fresh[4], clients[4];
        SocketOperation ops[4];
        for (int i = 0; i < 4; i++) {
            fresh[i] = NewSocket();
            // One with a descriptor of its own already.
            int keep = 1;
            if (i == 1) os::setsockopt(fresh[i], ZVX_SOL_SOCKET, ZVX_SO_KEEPALIVE, reinterpret_cast<char *>(&keep), 4);
            ASSERT_EQ(ERROR_IO_PENDING, ops[i].Accept(listener, fresh[i]));
        }
        SocketOperation wrong;
        EXPECT_EQ(WSAEINVAL, wrong.Accept(listener, fresh[0])) << "is waiting for a connection already";
        EXPECT_EQ(WSAEINVAL, wrong.Accept(NewSocket(), NewSocket())) << "does not listen";
        for (SOCKET &client : clients) client = ConnectTo(listener);
        for (int i = 0; i < 4; i++) {
            ASSERT_EQ(0u, ops[i].End(port, ERROR_IO_PENDING));
            sockaddr *local, *remote;
            int localSize, remoteSize;
            os::GetAcceptExSockaddrs(ops[i].Areas, 0, 32, 32, &local, &localSize, &remote, &remoteSize);
            ASSERT_EQ(16, localSize);
            ASSERT_EQ(16, remoteSize);
            const sockaddr_in client = NameOf(clients[i]), server = NameOf(clients[i], true);
            EXPECT_EQ(0, memcmp(&client, remote, 16)) << i;
            EXPECT_EQ(0, memcmp(&server, local, 8)) << i;
            EXPECT_EQ(0, os::setsockopt(fresh[i], ZVX_SOL_SOCKET, ZVX_SO_UPDATE_ACCEPT_CONTEXT,
                                        reinterpret_cast<const char *>(&listener), i % 2 == 0 ? 4 : 8));
            EXPECT_EQ(WSAEINVAL, wrong.Accept(listener, fresh[i])) << "connected";
            char byte = 0;
            os::send(clients[i], "y", 1, 0);
            EXPECT_EQ(1, os::recv(fresh[i], &byte, 1, 0));
            EXPECT_EQ(SOCKET_ERROR, os::setsockopt(fresh[i], ZVX_SOL_SOCKET, ZVX_SO_UPDATE_ACCEPT_CONTEXT,
                                                   reinterpret_cast<const char *>(&fresh[i]), 8));
            Shows(WSAEINVAL);
        }
    }
}

// The connection arrives while its AcceptEx is cancelled, or its accept socket or listener closed.
TEST(Socket, AbandonedAcceptsLeakNoDescriptor) {
    const HANDLE port = NewPort();
    SOCKET listener = NewListener();
    const sockaddr_in address = Loopback(NameOf(listener).sin_port);
    const int before = OpenDescriptors();
    std::atomic<int> round{0};
    std::minstd_rand random(11);
    std::thread caller([&] {
        std::minstd_rand own(12);
        for (int i = 1; i <= 400; i++) {
            while (round.load(std::memory_order_acquire) < i) os::CpuRelax();
            Spin(own, 2000);
            const SOCKET s = NewSocket();
            EXPECT_EQ(0, os::connect(s, Plain(address), sizeof address));
            CloseHard(s);
        }
    });
    for (int i = 1; i <= 400; i++) {
        const SOCKET fresh = NewSocket();
        SocketOperation op;
        const DWORD answer = op.Accept(listener, fresh);
        round.store(i, std::memory_order_release);
        Spin(random, 3000);
        bool open = true;
        if (i % 2 == 0)
            os::CancelIoEx(reinterpret_cast<HANDLE>(listener), &op.Ov);
        else
            open = os::closesocket(fresh) != 0;
        const DWORD error = op.End(port, answer);
        ASSERT_TRUE(error == 0 || error == ERROR_OPERATION_ABORTED) << error;
        if (open) os::closesocket(fresh);
    }
    caller.join();
    os::closesocket(listener);
    EXPECT_EQ(0u, Io()->Outstanding);
    EXPECT_EQ(before - 1, OpenDescriptors());
    // No descriptor to be had: an error of that accept, and the connection waits.
    listener = NewListener();
    const SOCKET client = ConnectTo(listener);
    SocketOperation op;
    rlimit limit, none;
    getrlimit(RLIMIT_NOFILE, &limit);
    none = limit;
    none.rlim_cur = 3;
    setrlimit(RLIMIT_NOFILE, &none);
    const SOCKET fresh = NewSocket();
    const DWORD error = op.End(port, op.Accept(listener, fresh));
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(WSAEMFILE, error);
    EXPECT_EQ(0u, op.End(port, op.Accept(listener, fresh)));
    os::closesocket(client);
}

TEST(Socket, DuplicatesHereAndInAnotherProcess) {
    Pair pair;
    WSAPROTOCOL_INFOA info;
    const int before = OpenDescriptors();
    const DWORD self = os::GetCurrentProcessId();
    const auto take = [&] { return os::WSASocketA(AF_INET, SOCK_STREAM, 0, &info, 0, WSA_FLAG_OVERLAPPED); };
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Listener, self, &info));
    EXPECT_TRUE(info.iAddressFamily == AF_INET && info.iSocketType == SOCK_STREAM);
    SOCKET copy = take();
    EXPECT_EQ(before, OpenDescriptors()) << "nothing was done with it";
    EXPECT_EQ(INVALID_SOCKET, take()) << "consumed";
    Shows(WSAEINVAL);
    EXPECT_EQ(0, os::closesocket(copy));
    // What is done with one is done with the other, whenever the duplicate gets its descriptor.
    const SOCKET source = NewSocket();
    ASSERT_EQ(0, os::WSADuplicateSocketA(source, self, &info));
    copy = take();
    const sockaddr_in address = Loopback();
    EXPECT_EQ(0, os::bind(source, Plain(address), sizeof address));
    std::atomic<int> go{0};
    const auto use = [&] {
        go++;
        while (go < 3) os::CpuRelax();
        EXPECT_EQ(NameOf(source).sin_port, NameOf(copy).sin_port);
    };
    Together(use, use, use);
    EXPECT_EQ(0, os::listen(source, 10));
    const SOCKET visitor = ConnectTo(copy), taken = os::accept(copy, nullptr, nullptr);
    EXPECT_NE(INVALID_SOCKET, taken);
    EXPECT_EQ(before + 4, OpenDescriptors());
    for (const SOCKET s : {source, copy, visitor, taken}) EXPECT_EQ(0, os::closesocket(s));
    // Used, also after the source was closed.
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Client, self, &info));
    copy = take();
    EXPECT_EQ(0, os::closesocket(pair.Client));
    EXPECT_EQ(4, os::send(copy, "copy", 4, 0)) << os::GetLastError();
    char text[10] = {};
    EXPECT_EQ(4, os::recv(pair.Server, text, 10, 0));
    EXPECT_EQ(0, os::closesocket(copy));
    EXPECT_EQ(0, os::recv(pair.Server, text, 10, 0)) << "with the last of them the connection ended";
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Server, self, &info));
    EXPECT_EQ(0, os::closesocket(pair.Server));
    EXPECT_EQ(INVALID_SOCKET, take()) << "the source is gone";
    Shows(WSAEINVAL);
    EXPECT_EQ(SOCKET_ERROR, os::WSADuplicateSocketA(pair.Listener, 0x7FFFFFF0, &info));
    Shows(WSAEINVAL);
    // Another process gets the listener and answers there.
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        if (read(ends[0], &info, sizeof info) != sizeof info) _exit(1);
        const SOCKET listener = take();
        if (listener == INVALID_SOCKET) _exit(os::GetLastError() == WSAEACCES ? 77 : 2);
        const SOCKET s = os::accept(listener, nullptr, nullptr);
        _exit(os::send(s, "child", 5, 0) == 5 ? 0 : 3);
    }
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Listener, static_cast<DWORD>(child), &info));
    WSAPROTOCOL_INFOA again = info;
    EXPECT_EQ(INVALID_SOCKET, os::WSASocketA(0, 0, 0, &again, 0, 0)) << "for the other process only";
    ASSERT_EQ(static_cast<ssize_t>(sizeof info), write(ends[1], &info, sizeof info));
    const SOCKET client = ConnectTo(pair.Listener);
    ULONG waits = 0;
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "the kernel lets no process look into another";
    EXPECT_EQ(0, status);
    EXPECT_EQ(0, os::ioctlsocket(client, static_cast<LONG>(ZVX_FIONREAD), &waits));
    EXPECT_EQ(5u, waits);
}

TEST(Socket, SelectAnswersForArraysOfAnySize) {
    Pair pair;
    const os::TimeVal now{0, 0}, soon{0, 30000};
    struct {
        DWORD Count;
        SOCKET Array[200];
    } many;
    const auto fill = [&](std::vector<SOCKET> sockets) {
        many.Count = static_cast<DWORD>(sockets.size());
        std::copy(sockets.begin(), sockets.end(), many.Array);
        return reinterpret_cast<zvx_fd_set *>(&many);
    };
    zvx_fd_set write{1, {pair.Client}}, error{1, {pair.Client}};
    EXPECT_EQ(SOCKET_ERROR, os::select(0, nullptr, nullptr, nullptr, &now));
    Shows(WSAEINVAL);
    EXPECT_EQ(SOCKET_ERROR, os::select(0, fill({pair.Client, 0x77770}), nullptr, nullptr, &now));
    Shows(WSAENOTSOCK);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, os::select(0, fill({pair.Client, NewSocket()}), nullptr, &error, &soon));
    EXPECT_GE(MillisecondsSince(start), 30);
    EXPECT_TRUE(many.Count == 0 && error.fd_count == 0);
    error = {1, {pair.Client}};
    os::send(pair.Server, "z", 1, 0);
    EXPECT_EQ(2, os::select(0, fill({pair.Listener, pair.Client}), &write, &error, nullptr)) << "in both sets";
    EXPECT_TRUE(many.Count == 1 && many.Array[0] == pair.Client && write.fd_count == 1 && error.fd_count == 0);
    std::vector<SOCKET> sockets;
    for (int i = 0; i < 100; i++) sockets.push_back(NewSocket());
    sockets.push_back(pair.Listener);
    std::thread late([&] {
        Pause(30);
        ConnectTo(pair.Listener);
    });
    EXPECT_EQ(1, os::select(0, fill(sockets), nullptr, nullptr, nullptr));
    EXPECT_TRUE(many.Count == 1 && many.Array[0] == pair.Listener);
    late.join();
    // Connecting without waiting: writable when it has succeeded, in the error set when it has failed.
    ULONG on = 1;
    const SOCKET good = NewSocket(), bad = NewSocket();
    const sockaddr_in there = Loopback(NameOf(pair.Listener).sin_port), nowhere = Loopback(htons(1));
    for (const SOCKET s : {good, bad}) os::ioctlsocket(s, static_cast<LONG>(ZVX_FIONBIO), &on);
    for (const SOCKET s : {good, bad}) {
        const sockaddr_in &target = s == good ? there : nowhere;
        const bool begun = os::connect(s, Plain(target), sizeof target) == 0 || os::GetLastError() == WSAEWOULDBLOCK;
        EXPECT_TRUE(begun || s == bad) << os::GetLastError();
        write = error = {1, {s}};
        EXPECT_EQ(1, os::select(0, nullptr, &write, &error, nullptr));
        EXPECT_EQ(s == good ? 1u : 0u, write.fd_count);
        EXPECT_EQ(s == good ? 0u : 1u, error.fd_count);
        int code = 0, length = sizeof code;
        EXPECT_EQ(0, os::getsockopt(s, ZVX_SOL_SOCKET, ZVX_SO_ERROR, reinterpret_cast<char *>(&code), &length));
        EXPECT_EQ(s == good ? 0 : static_cast<int>(WSAECONNREFUSED), code);
    }
}

TEST(Socket, EventsAreRecordedOnceAndReenabled) {
    const SOCKET listener = NewListener();
    const WSAEVENT event = os::WSACreateEvent(), accepting = os::WSACreateEvent();
    WSANETWORKEVENTS seen;
    const auto next = [&](SOCKET s, WSAEVENT of, DWORD ms = 5000) {
        seen = {};
        if (os::WSAWaitForMultipleEvents(1, &of, FALSE, ms, FALSE) != WSA_WAIT_EVENT_0) return LONG{0};
        EXPECT_EQ(0, os::WSAEnumNetworkEvents(s, of, &seen));
        return seen.lNetworkEvents;
    };
    ASSERT_EQ(0, os::WSAEventSelect(listener, accepting, FD_ACCEPT));
    EXPECT_EQ(INVALID_SOCKET, os::accept(listener, nullptr, nullptr)) << "does not block any more";
    Shows(WSAEWOULDBLOCK);
    const SOCKET client = NewSocket();
    ASSERT_EQ(0, os::WSAEventSelect(client, event, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE));
    EXPECT_EQ(0, next(client, event, 30)) << "not connected";
    const sockaddr_in address = NameOf(listener);
    if (os::connect(client, Plain(address), sizeof address) != 0) Shows(WSAEWOULDBLOCK);
    LONG all = 0;
    for (int i = 0; i < 3 && all != (FD_CONNECT | FD_WRITE); i++) all |= next(client, event, 1000);
    EXPECT_EQ(FD_CONNECT | FD_WRITE, all);
    EXPECT_EQ(FD_ACCEPT, next(listener, accepting));
    ASSERT_EQ(0, os::WSAEventSelect(listener, nullptr, 0));
    const SOCKET server = os::accept(listener, nullptr, nullptr);
    ASSERT_NE(INVALID_SOCKET, server);
    ULONG off = 0;
    EXPECT_EQ(0, os::ioctlsocket(server, static_cast<LONG>(ZVX_FIONBIO), &off));
    os::send(server, "ab", 2, 0);
    EXPECT_EQ(FD_READ, next(client, event));
    os::send(server, "c", 1, 0);
    EXPECT_EQ(0, next(client, event, 50)) << "not received since";
    char byte;
    EXPECT_EQ(1, os::recv(client, &byte, 1, 0));
    EXPECT_EQ(FD_READ, next(client, event)) << "there is more";
    std::string block(1 << 20, 'w');
    int put;
    while ((put = os::send(client, block.data(), static_cast<int>(block.size()), 0)) > 0)
        EXPECT_LE(put, static_cast<int>(block.size()));
    Shows(WSAEWOULDBLOCK);
    EXPECT_EQ(0, next(client, event, 30));
    std::thread drain([&] { ReceiveAll(server); });
    EXPECT_EQ(FD_WRITE, next(client, event));
    os::shutdown(server, SD_SEND);
    EXPECT_EQ(1, os::recv(client, &byte, 1, 0));
    EXPECT_EQ(FD_READ, next(client, event)) << "the end comes after the data";
    EXPECT_EQ(1, os::recv(client, &byte, 1, 0));
    EXPECT_EQ(FD_CLOSE, next(client, event));
    EXPECT_EQ(0, seen.iErrorCode[FD_CLOSE_BIT]);
    EXPECT_EQ(0, next(client, event, 30));
    os::closesocket(client);
    drain.join();
    // A refused connection.
    const SOCKET other = NewSocket();
    ASSERT_EQ(0, os::WSAEventSelect(other, event, FD_CONNECT | FD_CLOSE));
    const sockaddr_in nowhere = Loopback(htons(1));
    os::connect(other, Plain(nowhere), sizeof nowhere);
    EXPECT_EQ(FD_CONNECT, next(other, event));
    EXPECT_EQ(static_cast<int>(WSAECONNREFUSED), seen.iErrorCode[FD_CONNECT_BIT]);
    os::closesocket(other);
    ExpectOnlyTheHandle(event);
    EXPECT_EQ(SOCKET_ERROR, os::WSAAsyncSelect(listener, nullptr, 0, FD_READ));
    Shows(WSAEINVAL);
}

TEST(Socket, OptionsHaveTheHostsNumbers) {
    Pair pair;
    const SOCKET s = pair.Client;
    const auto set = [&](int level, int name, auto value) {
        return os::setsockopt(s, level, name, reinterpret_cast<char *>(&value), sizeof value) == 0 ? 0
                                                                                                   : os::GetLastError();
    };
    const auto get = [&](int level, int name) {
        int value = -1, length = sizeof value;
        EXPECT_EQ(0, os::getsockopt(s, level, name, reinterpret_cast<char *>(&value), &length)) << name;
        return value;
    };
    const int flags[][2] = {{ZVX_SOL_SOCKET, ZVX_SO_KEEPALIVE},
                            {ZVX_SOL_SOCKET, ZVX_SO_REUSEADDR},
                            {ZVX_SOL_SOCKET, ZVX_SO_OOBINLINE},
                            {IPPROTO_TCP, ZVX_TCP_NODELAY}};
    for (const auto &[level, name] : flags)
        for (const int value : {7, 0}) {
            EXPECT_EQ(0u, set(level, name, value));
            EXPECT_EQ(value != 0, get(level, name)) << name;
        }
    EXPECT_EQ(0u, set(IPPROTO_TCP, ZVX_TCP_NODELAY, char{1}));
    EXPECT_EQ(1, get(IPPROTO_TCP, ZVX_TCP_NODELAY));
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_EXCLUSIVEADDRUSE, 1));
    EXPECT_EQ(WSAEINVAL, set(ZVX_SOL_SOCKET, ZVX_SO_REUSEADDR, 1));
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_LINGER, zvx_linger{1, 300}));
    zvx_linger lingering{};
    int length = sizeof lingering;
    EXPECT_EQ(0, os::getsockopt(s, ZVX_SOL_SOCKET, ZVX_SO_LINGER, reinterpret_cast<char *>(&lingering), &length));
    EXPECT_TRUE(length == 4 && lingering.l_onoff == 1 && lingering.l_linger == 300);
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER, 1));
    EXPECT_EQ(1, get(ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER));
    EXPECT_EQ(SOCK_STREAM, get(ZVX_SOL_SOCKET, ZVX_SO_TYPE));
    EXPECT_EQ(WSAENOPROTOOPT, set(ZVX_SOL_SOCKET, ZVX_SO_TYPE, 1));
    EXPECT_EQ(WSAENOPROTOOPT, set(ZVX_SOL_SOCKET, 0x7777, 1));
    EXPECT_EQ(WSAENOPROTOOPT, set(77, 1, 1));
    EXPECT_EQ(WSAEFAULT, set(ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, short{1}));
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 40));
    EXPECT_EQ(40, get(ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO));
    char byte;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SOCKET_ERROR, os::recv(s, &byte, 1, 0));
    Shows(WSAETIMEDOUT);
    EXPECT_GE(MillisecondsSince(start), 39);
    tcp_keepalive alive{1, 90000, 4000};
    DWORD got = 1;
    EXPECT_EQ(0, os::WSAIoctl(s, SIO_KEEPALIVE_VALS, &alive, sizeof alive, nullptr, 0, &got, nullptr, nullptr));
    EXPECT_EQ(90, get(IPPROTO_TCP, ZVX_TCP_KEEPALIVE));
    EXPECT_EQ(4, get(IPPROTO_TCP, ZVX_TCP_KEEPINTVL));
    EXPECT_EQ(1, get(ZVX_SOL_SOCKET, ZVX_SO_KEEPALIVE));
    EXPECT_EQ(SOCKET_ERROR, os::WSAIoctl(s, 0x12345678, nullptr, 0, nullptr, 0, &got, nullptr, nullptr));
    Shows(WSAEOPNOTSUPP);
}

// Two threads with ports of their own serve the same listener and the same connection.
TEST(Socket, UsedByTwoEngines) {
    const SOCKET listener = NewListener();
    constexpr int kCalls = 40;
    std::atomic<int> served{0}, ready{0};
    const auto serve = [&] {
        const HANDLE port = NewPort();
        ready++;
        while (served < kCalls) {
            const SOCKET fresh = NewSocket();
            SocketOperation op;
            DWORD answer = op.Accept(listener, fresh);
            while (answer == ERROR_IO_PENDING && os::LoadStatus(&op.Ov) == STATUS_PENDING && served < kCalls)
                Take(port, 5);
            os::CancelIoEx(reinterpret_cast<HANDLE>(listener), &op.Ov);
            if (op.End(port, answer) == 0) {
                EXPECT_EQ(0u, op.End(port, op.Send(fresh, "hi", 2)));
                served++;
            }
            os::closesocket(fresh);
        }
        EXPECT_EQ(0u, Io()->Outstanding);
    };
    std::thread one(serve), two(serve);
    while (ready < 2) Pause(1);
    for (int i = 0; i < kCalls; i++) {
        const SOCKET s = ConnectTo(listener);
        EXPECT_EQ("hi", ReceiveAll(s));
        os::closesocket(s);
    }
    one.join();
    two.join();
    // One engine sends what the other receives, on both ends of the connection at once.
    Pair pair;
    const std::string data = Pattern(2000000);
    Together(
        [&] {
            const HANDLE port = NewPort();
            SocketOperation forth, back;
            const DWORD answer = forth.Send(pair.Client, data.data(), data.size());
            EXPECT_EQ(0u, back.End(port, back.Send(pair.Server, data.data(), data.size())));
            EXPECT_EQ(0u, forth.End(port, answer));
        },
        [&] {
            const HANDLE port = NewPort();
            std::string received[2] = {std::string(data.size(), 0), std::string(data.size(), 0)};
            SocketOperation ops[2];
            ops[0].Receive(pair.Server, received[0].data(), data.size(), ZVX_MSG_WAITALL);
            const DWORD answer = ops[1].Receive(pair.Client, received[1].data(), data.size(), ZVX_MSG_WAITALL);
            EXPECT_EQ(0u, ops[1].End(port, answer));
            EXPECT_EQ(STATUS_SUCCESS, Await(port, &ops[0].Ov));
            EXPECT_TRUE(received[0] == data && received[1] == data);
        });
}

TEST(Socket, BlockedThreadsAreWokenAndEnded) {
    const int before = OpenDescriptors();
    {
        Pair pair;
        char byte;
        DWORD errors[2] = {};
        std::thread receiver([&] { os::recv(pair.Client, &byte, 1, 0), errors[0] = os::GetLastError(); });
        std::thread acceptor([&] { os::accept(pair.Listener, nullptr, nullptr), errors[1] = os::GetLastError(); });
        Pause(50);
        for (const SOCKET s : {pair.Client, pair.Listener, pair.Server}) EXPECT_EQ(0, os::closesocket(s));
        receiver.join();
        acceptor.join();
        EXPECT_TRUE(errors[0] == WSAEINTR && errors[1] == WSAEINTR) << errors[0] << " " << errors[1];
    }
    EXPECT_EQ(before, OpenDescriptors());
    Pair pair;
    static const std::string block(1 << 20, 0);
    using Call = void (*)(Pair *);
    const Call calls[] = {
        [](Pair *p) {
            char byte;
            os::recv(p->Client, &byte, 1, 0);
        },
        [](Pair *p) { os::accept(p->Listener, nullptr, nullptr); },
        [](Pair *p) {
            zvx_fd_set set{1, {p->Client}};
            os::select(0, &set, nullptr, nullptr, nullptr);
        },
        [](Pair *p) {
            for (;;) os::send(p->Client, block.data(), 1 << 20, 0);
        },
    };
    struct Job {
        Call Run;
        Pair *Of;
    };
    for (const Call &call : calls) {
        Job job{call, &pair};
        const HANDLE thread = os::CreateThread(
            nullptr, 0,
            [](void *argument) -> DWORD {
                const Job *own = static_cast<Job *>(argument);
                own->Run(own->Of);
                return 1;
            },
            &job, 0, nullptr);
        Pause(30);
        EXPECT_TRUE(os::TerminateThread(thread, 9));
        EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(thread, 5000));
        DWORD code = 0;
        EXPECT_TRUE(os::GetExitCodeThread(thread, &code));
        EXPECT_EQ(9u, code);
    }
}

// The functions of files, and what tells of an end: event, packet, routine; on a thread without a port too.
TEST(Socket, IsAHandleLikeAFile) {
    Pair pair;
    const HANDLE server = reinterpret_cast<HANDLE>(pair.Server), client = reinterpret_cast<HANDLE>(pair.Client);
    char text[10] = {};
    DWORD bytes = 0, flags = 0;
    OVERLAPPED ov{};
    ov.hEvent = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_FALSE(os::ReadFile(server, text, 10, &bytes, &ov));
    Shows(ERROR_IO_PENDING);
    EXPECT_TRUE(os::WriteFile(client, "file", 4, &bytes, nullptr));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(ov.hEvent, 5000));
    EXPECT_TRUE(os::GetOverlappedResult(server, &ov, &bytes, FALSE));
    EXPECT_STREQ("file", text);
    ASSERT_FALSE(os::ReadFile(server, text, 10, &bytes, &ov));
    EXPECT_FALSE(os::WSAGetOverlappedResult(pair.Server, &ov, &bytes, FALSE, &flags));
    Shows(WSA_IO_INCOMPLETE);
    EXPECT_TRUE(os::CancelIo(server));
    EXPECT_FALSE(os::WSAGetOverlappedResult(pair.Server, &ov, &bytes, TRUE, &flags));
    Shows(WSA_OPERATION_ABORTED);
    // Routines of both kinds.
    static std::string told;
    WSABUF one{10, text};
    OVERLAPPED second{};
    ASSERT_EQ(SOCKET_ERROR,
              os::WSARecv(pair.Server, &one, 1, nullptr, &flags, &ov, [](DWORD error, DWORD got, OVERLAPPED *, DWORD) {
                  told += "receive " + std::to_string(error) + " " + std::to_string(got);
              }));
    Shows(ERROR_IO_PENDING);
    ASSERT_TRUE(os::WriteFileEx(client, "12345", 5, &second, [](DWORD error, DWORD put, OVERLAPPED *) {
        told += "write " + std::to_string(error) + " " + std::to_string(put);
    }));
    for (int i = 0; i < 2 && told.size() < 20; i++) EXPECT_EQ(WAIT_IO_COMPLETION, os::SleepEx(5000, TRUE));
    EXPECT_TRUE(told == "receive 0 5write 0 5" || told == "write 0 5receive 0 5") << told;
    // A packet at the port that a duplicate is bound to.
    const HANDLE port = NewPort(), copy = Duplicate(server);
    ASSERT_EQ(port, os::CreateIoCompletionPort(copy, port, 55, 0));
    EXPECT_EQ(SOCKET_ERROR,
              os::WSARecv(pair.Server, &one, 1, nullptr, &flags, &ov, [](DWORD, DWORD, OVERLAPPED *, DWORD) {}));
    Shows(WSAEINVAL);
    EXPECT_TRUE(os::CloseHandle(server));
    ov.hEvent = nullptr;
    DWORD answer = os::WSARecv(reinterpret_cast<SOCKET>(copy), &one, 1, &bytes, &flags, &ov, nullptr) == 0
                       ? 0
                       : os::GetLastError();
    ASSERT_EQ(ERROR_IO_PENDING, answer);
    EXPECT_EQ(6, os::send(pair.Client, "packet", 6, 0));
    const Packet packet = Take(port, 5000);
    EXPECT_TRUE(packet.Error == 0 && packet.Bytes == 6 && packet.Key == 55 && packet.Ov == &ov);
}

TEST(Socket, ConditionsOfAnAccept) {
    const SOCKET listener = NewListener();
    const auto answer = [](LPWSABUF caller, LPWSABUF, LPQOS, LPQOS, LPWSABUF callee, LPWSABUF, GROUP *,
                           DWORD_PTR data) -> int {
        EXPECT_TRUE(caller->len == 16 && callee->len == 16);
        return static_cast<int>(data);
    };
    sockaddr_in address{};
    int length = 4;
    EXPECT_EQ(INVALID_SOCKET, os::accept(listener, reinterpret_cast<sockaddr *>(&address), &length));
    Shows(WSAEFAULT);
    length = sizeof address;
    const SOCKET refused = ConnectTo(listener);
    EXPECT_EQ(INVALID_SOCKET, os::WSAAccept(listener, nullptr, nullptr, answer, CF_REJECT));
    Shows(WSAECONNREFUSED);
    char byte;
    EXPECT_EQ(SOCKET_ERROR, os::recv(refused, &byte, 1, 0));
    Shows(WSAECONNRESET);
    const SOCKET client = ConnectTo(listener);
    EXPECT_EQ(INVALID_SOCKET, os::WSAAccept(listener, nullptr, nullptr, answer, CF_DEFER));
    Shows(WSATRY_AGAIN);
    const os::TimeVal now{0, 0};
    zvx_fd_set set{1, {listener}};
    EXPECT_EQ(1, os::select(0, &set, nullptr, nullptr, &now)) << "still there";
    const SOCKET server = os::WSAAccept(listener, reinterpret_cast<sockaddr *>(&address), &length, answer, CF_ACCEPT);
    ASSERT_NE(INVALID_SOCKET, server);
    EXPECT_EQ(NameOf(client).sin_port, address.sin_port);
    // Put off once more, then taken by the other way.
    const SOCKET third = ConnectTo(listener), fresh = NewSocket();
    os::WSAAccept(listener, nullptr, nullptr, answer, CF_DEFER);
    NewPort();
    SocketOperation op;
    EXPECT_EQ(0u, op.Accept(listener, fresh));
    EXPECT_EQ(NameOf(third).sin_port, NameOf(fresh, true).sin_port);
    WSADATA data;
    EXPECT_EQ(0, os::WSAStartup(0x0202, &data));
    EXPECT_EQ(0x0202, data.wVersion);
    EXPECT_EQ(static_cast<int>(WSAVERNOTSUPPORTED), os::WSAStartup(0, &data));
    EXPECT_EQ(0, os::WSACleanup());
}
