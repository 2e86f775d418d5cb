// tests/integration/socket_test.cpp - sockets as user threads see them, on real connections.
//
// The other end is always a plain thread on the kernel's sockets (support/net_peer.h).
#include "zvxkvt/sockets.h"

#include <thread>

#include "support/host_runner.h"
#include "support/net_peer.h"

using namespace hosttest;

namespace {

class Sockets : public HostTest {};

struct Listener {
    SOCKET Socket;
    uint16_t Port;
};

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = inet_addr("127.0.0.1");
    return name;
}

Listener Listen(DWORD flags = 0) {
    Listener result{WSASocketA(AF_INET, SOCK_STREAM, 0, nullptr, 0, flags), 0};
    sockaddr_in name = Loopback(0);
    int length = sizeof name;
    HOST_EQ(0, bind(result.Socket, reinterpret_cast<sockaddr *>(&name), length));
    HOST_EQ(0, listen(result.Socket, 200));
    HOST_EQ(0, getsockname(result.Socket, reinterpret_cast<sockaddr *>(&name), &length));
    result.Port = ntohs(name.sin_port);
    return result;
}

// A plain thread; the user thread that joins it yields meanwhile.
class Plain {
  public:
    explicit Plain(std::function<void()> body) : Thread([this, body] { body(), Done = true; }) {}
    void Join() {
        while (!Done) Sleep(1);
        Thread.join();
    }

  private:
    std::atomic<bool> Done{false};
    std::thread Thread;
};

// A connection with its other end.
struct Pair {
    explicit Pair(const Listener &listener) : Peer(netpeer::Connect(listener.Port)) {
        Socket = accept(listener.Socket, nullptr, nullptr);
        HOST_CHECK(Socket != INVALID_SOCKET && Peer >= 0);
    }
    SOCKET Socket;
    int Peer;
};

// Echoes until the client has ended; 0 when the end was an orderly one.
DWORD Echo(SOCKET s) {
    char buffer[5000];
    for (;;) {
        const int got = recv(s, buffer, sizeof buffer, 0);
        if (got == 0) return closesocket(s) == 0 ? 0 : 2;
        if (got < 0 || send(s, buffer, got, 0) != got) return 1;
    }
}

void CheckNothingLeft(int socketsBefore) {
    for (int i = 0; i < 200 && netpeer::OpenSockets() != socketsBefore; i++) Sleep(5);
    HOST_EQ(socketsBefore, netpeer::OpenSockets());
}

// Accepts and echoes while clients connect, write blocks of many sizes and compare what comes back.
void RunEchoServer() {
    constexpr uint32_t kClients = 24, kRounds = 40;
    const int before = netpeer::OpenSockets();
    const Listener listener = Listen();
    std::atomic<uint32_t> good{0};
    std::deque<Plain> clients;
    for (uint32_t c = 0; c < kClients; c++) {
        clients.emplace_back([&, c] {
            const int fd = netpeer::Connect(listener.Port);
            uint32_t random = c * 2654435761u + 1;
            bool same = fd >= 0;
            for (uint32_t round = 0; round < kRounds && same; round++) {
                random = random * 1664525 + 1013904223;
                // Now and then more than the kernel buffers, so that both sides wait.
                const size_t bytes = round == 31 ? 1000000 : 1 + (random >> 8) % 9000;
                std::vector<char> out(bytes), in(bytes);
                for (size_t i = 0; i < bytes; i++) out[i] = static_cast<char>(i * 7 + random + (i >> 9));
                std::thread writer([&] { netpeer::WriteAll(fd, out.data(), bytes); });
                same = netpeer::ReadAll(fd, in.data(), bytes) && in == out;
                writer.join();
            }
            netpeer::EndSending(fd);
            if (same && netpeer::SeesTheEnd(fd, 20000)) good++;
            close(fd);
        });
    }
    std::deque<HostThread> sessions;
    for (uint32_t c = 0; c < kClients; c++) {
        const SOCKET s = accept(listener.Socket, nullptr, nullptr);
        sessions.emplace_back([s] { return Echo(s); });
    }
    for (HostThread &session : sessions) HOST_EQ(0u, session.Join(60000));
    for (Plain &client : clients) client.Join();
    HOST_EQ(kClients, good.load());
    HOST_EQ(0, closesocket(listener.Socket));
    CheckNothingLeft(before);
}

}  // namespace

TEST_P(Sockets, EchoServer) {
    for (const char *polling : {"10000", "0", "3"}) {
        HostOptions options = Options();
        options.Settings.emplace_back("NumContextSwitchesBeforePolling", polling);
        options.TimeoutMs = 60000;
        EXPECT_HOST_OK(RunHost(options, RunEchoServer));
    }
}

// The same program where there are no user threads.
TEST(PlainSockets, EchoServerOnKernelThreads) {
    HostOptions options;
    options.Settings.emplace_back("DisableFibers", "1");
    EXPECT_HOST_OK(RunHost(options, RunEchoServer));
}

// Whoever waits on a connection is told how it ended, and a close of the host's own ends every wait on the socket.
TEST_P(Sockets, EndsOfWaits) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const int before = netpeer::OpenSockets();
        const Listener listener = Listen();
        Pair reset(listener), closed(listener);
        char byte;
        const auto receive = [&](SOCKET s) {
            return recv(s, &byte, 1, 0) == 0 ? 0u : static_cast<DWORD>(WSAGetLastError());
        };
        HostThread fromReset([&] { return receive(reset.Socket); });
        HostThread fromClosed([&] { return receive(closed.Socket); });
        HostThread acceptor([&]() -> DWORD { return accept(listener.Socket, nullptr, nullptr) == INVALID_SOCKET; });
        Sleep(30);
        netpeer::Reset(reset.Peer);
        HOST_EQ(WSAECONNRESET, fromReset.Join());
        HOST_EQ(0, closesocket(closed.Socket));
        HOST_EQ(0u, fromClosed.Join());
        HOST_CHECK(netpeer::SeesTheEnd(closed.Peer, 5000));
        HOST_EQ(0, closesocket(listener.Socket));
        HOST_EQ(1u, acceptor.Join());
        HOST_EQ(WSAENOTSOCK, receive(closed.Socket));
        closesocket(reset.Socket);
        close(closed.Peer);
        CheckNothingLeft(before);
    }));
}

// Senders and receivers of every scheduler on one socket, from its very first use on. Each byte that was sent must be
// received once; who gets it is open.
TEST_P(Sockets, OneSocketOnManySchedulers) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        constexpr uint32_t kThreads = 6, kBlocks = 60, kRounds = 12;
        const Listener listener = Listen();
        const sockaddr_in name = Loopback(listener.Port);
        for (uint32_t round = 0; round < kRounds; round++) {
            // Not an accepted one, which is bound already: its first users race to bind it.
            const SOCKET shared = socket(AF_INET, SOCK_STREAM, 0);
            HOST_EQ(0, connect(shared, reinterpret_cast<const sockaddr *>(&name), sizeof name));
            const SOCKET served = accept(listener.Socket, nullptr, nullptr);
            HostThread echo([served] { return Echo(served); });
            std::atomic<uint32_t> received[kThreads] = {};
            std::atomic<bool> go{false};
            std::deque<HostThread> senders, receivers;
            for (uint32_t t = 0; t < kThreads; t++) {
                senders.emplace_back([&, t]() -> DWORD {
                    while (!go.load()) Sleep(0);
                    for (uint32_t i = 0; i < kBlocks; i++) {
                        const std::vector<char> block(1 + (t * 977 + i * 131) % 2000, static_cast<char>(t));
                        const int bytes = static_cast<int>(block.size());
                        if (send(shared, block.data(), bytes, 0) != bytes) return 1;
                    }
                    return 0;
                });
                receivers.emplace_back([&]() -> DWORD {
                    while (!go.load()) Sleep(0);
                    char buffer[1500];
                    int got;
                    while ((got = recv(shared, buffer, sizeof buffer, 0)) > 0)
                        for (int i = 0; i < got; i++) received[static_cast<uint32_t>(buffer[i])]++;
                    return got == 0 ? 0 : 1;
                });
            }
            Sleep(2);
            go = true;
            for (HostThread &sender : senders) HOST_EQ(0u, sender.Join());
            HOST_EQ(0, shutdown(shared, SD_SEND));
            for (HostThread &receiver : receivers) HOST_EQ(0u, receiver.Join());
            for (uint32_t t = 0; t < kThreads; t++) {
                uint32_t sent = 0;
                for (uint32_t i = 0; i < kBlocks; i++) sent += 1 + (t * 977 + i * 131) % 2000;
                HOST_EQ(sent, received[t].load());
            }
            HOST_EQ(0, closesocket(shared));
            HOST_EQ(0u, echo.Join());
        }
        closesocket(listener.Socket);
    }));
}

TEST_P(Sockets, SelectAndEvents) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Listener listener = Listen();
        Pair pair(listener);
        fd_set read;
        const auto look = [&](timeval *limit) {
            FD_ZERO(&read);
            FD_SET(listener.Socket, &read);
            FD_SET(pair.Socket, &read);
            return select(0, &read, nullptr, nullptr, limit);
        };
        timeval timeout{0, 100000};
        const auto start = GetTickCount64();
        HOST_EQ(0, look(&timeout));
        HOST_CHECK(GetTickCount64() - start >= 88 && read.fd_count == 0);
        // What comes later is found by a thread that already waits.
        HostThread waiter([&]() -> DWORD { return static_cast<DWORD>(look(nullptr)); });
        Sleep(50);
        netpeer::WriteAll(pair.Peer, "x", 1);
        HOST_EQ(1u, waiter.Join());
        HOST_CHECK(FD_ISSET(pair.Socket, &read) && !FD_ISSET(listener.Socket, &read));
        const WSAEVENT event = WSACreateEvent();
        WSANETWORKEVENTS seen{};
        HOST_EQ(0, WSAEventSelect(pair.Socket, event, FD_READ));
        HOST_EQ(WSA_WAIT_EVENT_0, WSAWaitForMultipleEvents(1, &event, FALSE, 10000, TRUE));
        HOST_EQ(0, WSAEnumNetworkEvents(pair.Socket, event, &seen));
        HOST_EQ(LONG{FD_READ}, seen.lNetworkEvents);
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Sockets, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
