// tests/integration/socket_test.cpp - sockets as user threads see them, on real connections.
//
// Large transfers and select: tests/faults.
#include "zvxkvt/sockets.h"

#include "support/host_runner.h"
#include "support/net_peer.h"

using namespace hosttest;

namespace {

class Sockets : public HostTest {};

struct Listener {
    SOCKET Socket = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in Name{};
    Listener() {
        int length = sizeof Name;
        Name.sin_family = AF_INET;
        Name.sin_addr.s_addr = inet_addr("127.0.0.1");
        HOST_EQ(0, bind(Socket, reinterpret_cast<sockaddr *>(&Name), length));
        HOST_EQ(0, listen(Socket, 200));
        HOST_EQ(0, getsockname(Socket, reinterpret_cast<sockaddr *>(&Name), &length));
    }
};

// A connection with its other end.
struct Pair {
    int Peer;
    SOCKET Socket;
    explicit Pair(const Listener &listener)
        : Peer(netpeer::Connect(ntohs(listener.Name.sin_port))), Socket(accept(listener.Socket, nullptr, nullptr)) {
        HOST_CHECK(Socket != INVALID_SOCKET && Peer >= 0);
    }
};

}  // namespace

// Senders and receivers of every scheduler on one socket, from its very first use on. Each byte that was sent must be
// received once; who gets it is open. With the polling that comes of many switches and with that of few.
TEST_P(Sockets, OneSocketOnManySchedulers) {
    for (const char *polling : {"10000", "3"}) {
        EXPECT_HOST_OK(RunHost(Options({{"NumContextSwitchesBeforePolling", polling}}), [] {
            constexpr uint32_t kThreads = 6, kBlocks = 60, kRounds = 6;
            const Listener listener;
            for (uint32_t round = 0; round < kRounds; round++) {
                // Not an accepted one, which is bound already: its first users race to bind it.
                const SOCKET shared = socket(AF_INET, SOCK_STREAM, 0);
                HOST_EQ(0, connect(shared, reinterpret_cast<const sockaddr *>(&listener.Name), sizeof listener.Name));
                const SOCKET served = accept(listener.Socket, nullptr, nullptr);
                HostThread echo([served]() -> DWORD {
                    char buffer[5000];
                    int got;
                    while ((got = recv(served, buffer, sizeof buffer, 0)) > 0)
                        if (send(served, buffer, got, 0) != got) return 1;
                    return closesocket(served) == 0 && got == 0 ? 0 : 2;
                });
                std::atomic<uint32_t> received[kThreads] = {}, sent[kThreads] = {};
                std::atomic<bool> go{false};
                std::deque<HostThread> senders, receivers;
                for (uint32_t t = 0; t < kThreads; t++) {
                    senders.emplace_back([&, t]() -> DWORD {
                        while (!go) Sleep(0);
                        for (uint32_t i = 0; i < kBlocks; i++) {
                            const std::vector<char> block(1 + (t * 977 + i * 131) % 2000, static_cast<char>(t));
                            const int bytes = static_cast<int>(block.size());
                            if (send(shared, block.data(), bytes, 0) != bytes) return 1;
                            sent[t] += static_cast<uint32_t>(bytes);
                        }
                        return 0;
                    });
                    receivers.emplace_back([&]() -> DWORD {
                        while (!go) Sleep(0);
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
                for (uint32_t t = 0; t < kThreads; t++) HOST_EQ(sent[t].load(), received[t].load());
                HOST_EQ(0, closesocket(shared));
                HOST_EQ(0u, echo.Join());
            }
        }));
    }
}

// A client that connects once more only when it has been answered: the answer must not wait for the accept that stops its
// scheduler.
TEST_P(Sockets, WhatWasSentLeavesBeforeABlockingCall) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Listener listener;
        const Pair pair(listener);
        std::thread client([&] {
            char byte;
            for (int i = 0; i < 5; i++)
                if (read(pair.Peer, &byte, 1) != 1) return;
            netpeer::Connect(ntohs(listener.Name.sin_port));
        });
        std::atomic<bool> begun{false};
        HostThread answer([&]() -> DWORD {
            // One behind the other on their stream.
            char hello[] = "hello";
            WSABUF parts[] = {{2, hello}, {3, hello + 2}};
            OVERLAPPED sends[2] = {};
            DWORD flags, bytes[2] = {};
            for (int i = 0; i < 2; i++) WSASend(pair.Socket, parts + i, 1, nullptr, 0, sends + i, nullptr);
            begun = true;
            for (int i = 0; i < 2; i++) WSAGetOverlappedResult(pair.Socket, sends + i, bytes + i, TRUE, &flags);
            return bytes[0] + bytes[1];
        });
        while (!begun) Sleep(0);
        HOST_CHECK(WSAAccept(listener.Socket, nullptr, nullptr, nullptr, 0) != INVALID_SOCKET);
        HOST_EQ(5u, answer.Join());
        client.join();
    }));
}

TEST_P(Sockets, Events) {
    EXPECT_HOST_OK(RunHost(Options(), [] {
        const Listener listener;
        const Pair pair(listener);
        const WSAEVENT event = WSACreateEvent();
        HOST_EQ(0, WSAEventSelect(pair.Socket, event, FD_READ));
        // What a receive takes that waits already is no news, though its scheduler comes to it late, and though another
        // one has ended.
        char byte;
        std::atomic<int> taken{0};
        const auto take = [&]() -> DWORD {
            char mine;
            return static_cast<DWORD>(taken += recv(pair.Socket, &mine, 1, 0));
        };
        HostThread one(take), other(take);
        Sleep(30);
        HOST_CHECK(netpeer::WriteAll(pair.Peer, "w", 1));
        while (taken == 0) Sleep(1);
        HostThread holds([&]() -> DWORD { return netpeer::WriteAll(pair.Peer, "w", 1), usleep(100000), 0; });
        HOST_EQ(3u, one.Join() + other.Join());
        HOST_EQ(0u, holds.Join());
        HOST_EQ(WSA_WAIT_TIMEOUT, WSAWaitForMultipleEvents(1, &event, FALSE, 20, TRUE));
        HostThread waiter([&] { return WSAWaitForMultipleEvents(1, &event, FALSE, 10000, TRUE); });
        Sleep(30);
        netpeer::WriteAll(pair.Peer, "x", 1);
        HOST_EQ(WSA_WAIT_EVENT_0, waiter.Join());
        WSANETWORKEVENTS seen{};
        HOST_EQ(0, WSAEnumNetworkEvents(pair.Socket, event, &seen));
        HOST_EQ(LONG{FD_READ}, seen.lNetworkEvents);
        // A receive that parks while the byte is still there asks for the next one, however long it takes.
        HostThread busy([]() -> DWORD { return usleep(100000), 0; });
        HOST_EQ(1, recv(pair.Socket, &byte, 1, 0));
        HOST_EQ(0u, busy.Join());
        HOST_EQ(WSA_WAIT_TIMEOUT, WSAWaitForMultipleEvents(1, &event, FALSE, 0, FALSE));
        netpeer::WriteAll(pair.Peer, "y", 1);
        HOST_EQ(WSA_WAIT_EVENT_0, WSAWaitForMultipleEvents(1, &event, FALSE, 10000, FALSE));
    }));
}

INSTANTIATE_TEST_SUITE_P(Schedulers, Sockets, testing::Values(1u, 2u, 4u), testing::PrintToStringParamName());
