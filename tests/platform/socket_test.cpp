// tests/platform/socket_test.cpp - sockets: connections, transfers, how they end, accepts.
#include "platform/system/io_engine.h"
#include "socket_support.h"

TEST(Socket, NoDescriptorBeforeACallNeedsOne) {
    const ptrdiff_t before = OpenDescriptors();
    const SOCKET s = NewSocket();
    ULONG on = 1;
    char byte;
    EXPECT_EQ(0, os::ioctlsocket(s, static_cast<LONG>(ZVX_FIONBIO), &on));
    EXPECT_EQ(WSAENOTCONN, SocketError(os::recv(s, &byte, 1, 0)));
    EXPECT_EQ(before, OpenDescriptors());
    // Of many first users one makes it.
    AtOnce([&] { EXPECT_EQ(0u, Set(s, IPPROTO_TCP, ZVX_TCP_NODELAY, 1)); });
    EXPECT_EQ(before + 1, OpenDescriptors());
    const sockaddr_in address = Loopback();
    EXPECT_EQ(0, os::bind(s, Plain(address), sizeof address));
    EXPECT_EQ(0, os::listen(s, 5));
    EXPECT_EQ(WSAEWOULDBLOCK, SocketError(os::accept(s, nullptr, nullptr))) << "the mode asked for before it was made";
    EXPECT_EQ(0, os::closesocket(s));
    EXPECT_EQ(before, OpenDescriptors());
}

// Far more than the kernel takes at once, from three operations that were issued together.
TEST(Socket, SendsAreTakenWholeAndInOrder) {
    Pair pair;
    const HANDLE port = NewPort();
    for (const SOCKET s : {pair.Client, pair.Server})
        for (const int name : {ZVX_SO_SNDBUF, ZVX_SO_RCVBUF}) EXPECT_EQ(0u, Set(s, ZVX_SOL_SOCKET, name, 32768));
    const std::string data = Pattern(3000000);
    std::string received;
    std::thread reader([&] { Pause(50), received = ReceiveAll(pair.Client); });
    char *bytes = const_cast<char *>(data.data());
    SocketOperation ops[3];
    std::vector<WSABUF> many;
    for (uint32_t at = 0; at < 1000000; at += 25000) many.push_back({25000, bytes + at});
    WSABUF three[] = {{500000, bytes + 1000000}, {0, nullptr}, {500000, bytes + 1500000}};
    EXPECT_EQ(ERROR_IO_PENDING, ops[0].Send(pair.Server, many.data(), many.size()));
    many.assign(many.size(), WSABUF{});  // the array was the call's
    EXPECT_EQ(ERROR_IO_PENDING, ops[1].Send(pair.Server, three, 3));
    EXPECT_EQ(ERROR_IO_PENDING, ops[2].Send(pair.Server, bytes + 2000000, 1000000));
    for (SocketOperation &each : ops) {
        EXPECT_EQ(0u, each.End(port, ERROR_IO_PENDING));
        EXPECT_EQ(1000000u, each.Got);
    }
    // What was issued before a shutdown arrives before the end.
    EXPECT_EQ(0, os::shutdown(pair.Server, SD_SEND));
    reader.join();
    EXPECT_TRUE(received == data);
}

TEST(Socket, EveryFlagOfAReceive) {
    Pair pair;
    const HANDLE port = NewPort();
    char buffer[20] = {};
    SocketOperation op;
    const auto pending = [&](DWORD answer) {
        EXPECT_EQ(ERROR_IO_PENDING, answer);
        Take(port, 30);
        EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&op.Ov));
    };
    // An empty receive ends when there is something to read, and takes nothing.
    pending(op.Receive(pair.Server, buffer, 0));
    os::send(pair.Client, "12345", 5, 0);
    EXPECT_TRUE(op.End(port, ERROR_IO_PENDING) == 0 && op.Got == 0);
    EXPECT_TRUE(op.End(port, op.Receive(pair.Server, buffer, 20, ZVX_MSG_PEEK)) == 0 && op.Got == 5);
    EXPECT_EQ(0u, op.End(port, op.Receive(pair.Server, buffer, 2))) << "without anything new";
    pending(op.Receive(pair.Server, buffer + 2, 6, ZVX_MSG_WAITALL));
    os::send(pair.Client, "678", 3, 0);
    EXPECT_EQ(0u, op.End(port, ERROR_IO_PENDING));
    EXPECT_STREQ("12345678", buffer);
    EXPECT_EQ(WSAEOPNOTSUPP, op.Receive(pair.Server, buffer, 8, 0x4000));
    // Of datagrams it takes one, and a short one is not the last.
    const SOCKET receiver = os::socket(AF_INET, SOCK_DGRAM, 0), sender = os::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = Loopback();
    ASSERT_EQ(0, os::bind(receiver, Plain(address), sizeof address));
    address = NameOf(receiver);
    for (int i = 0; i < 3; i++) EXPECT_EQ(1, os::sendto(sender, "d", 1, 0, Plain(address), sizeof address));
    for (int i = 0; i < 3; i++) EXPECT_TRUE(op.End(port, op.Receive(receiver, buffer, 20)) == 0 && op.Got == 1) << i;
    EXPECT_EQ(0u, Io()->Outstanding);
}

TEST(Socket, HowAConnectionEnds) {
    const HANDLE port = NewPort();
    char byte, text[10];
    // The last bytes and the end come together, and the bytes were not yet with the kernel at the shutdown.
    Pair brief;
    SocketOperation first, last;
    const DWORD answer = first.Receive(brief.Server, text, sizeof text), sent = last.Send(brief.Client, "last", 4);
    EXPECT_EQ(0, os::shutdown(brief.Client, SD_SEND));
    Pause(10);
    EXPECT_EQ(0u, last.End(port, sent));
    EXPECT_TRUE(first.End(port, answer) == 0 && first.Got == 4);
    EXPECT_TRUE(first.End(port, first.Receive(brief.Server, text, 1)) == 0 && first.Got == 0);
    for (const bool overlapped : {true, false}) {
        SocketOperation op;
        const auto receive = [&](SOCKET s) {
            if (overlapped) return op.End(port, op.Receive(s, &byte, 1));
            op.Got = static_cast<DWORD>(os::recv(s, &byte, 1, 0));
            return SocketError(static_cast<int>(op.Got));
        };
        const auto send = [&](SOCKET s) {
            return overlapped ? op.End(port, op.Send(s, "x", 1)) : SocketError(os::send(s, "x", 1, 0));
        };
        Pair polite, rude;
        EXPECT_EQ(0, os::shutdown(polite.Client, SD_SEND));
        for (int i = 0; i < 2; i++) EXPECT_TRUE(receive(polite.Server) == 0 && op.Got == 0);
        EXPECT_EQ(0u, send(polite.Server)) << "the other direction is open";
        EXPECT_EQ(0, os::shutdown(polite.Server, SD_BOTH));
        EXPECT_TRUE(send(polite.Server) == WSAESHUTDOWN && receive(polite.Server) == WSAESHUTDOWN);
        SocketOperation waiting;
        const DWORD reset = overlapped ? waiting.Receive(rude.Server, &byte, 1) : 0;
        EXPECT_EQ(0u, Set(rude.Client, ZVX_SOL_SOCKET, ZVX_SO_LINGER, zvx_linger{1, 0}));
        EXPECT_EQ(0, os::closesocket(rude.Client));
        EXPECT_EQ(WSAECONNRESET, overlapped ? waiting.End(port, reset) : receive(rude.Server));
        EXPECT_EQ(WSAECONNRESET, receive(rude.Server)) << "still";
        EXPECT_EQ(WSAECONNRESET, send(rude.Server)) << "and no signal";
    }
    EXPECT_EQ(0u, Io()->Outstanding);
}

TEST(Socket, CancelledAndClosed) {
    const HANDLE port = NewPort();
    const ptrdiff_t before = OpenDescriptors();
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
            EXPECT_TRUE(os::CancelIoEx(server, &receive.Ov) && os::CancelIo(server));
            EXPECT_TRUE(os::CancelIoEx(listener, &accept.Ov));
        } else {
            // By their own thread and by another; how == 1 gives the accept up by its socket, and the listener stays.
            if (how == 1) os::closesocket(pair.Server);
            Together([&] { EXPECT_EQ(0, os::closesocket(how == 1 ? fresh : pair.Server)); },
                     [&] { EXPECT_TRUE(how == 1 || os::closesocket(pair.Listener) == 0); });
        }
        for (SocketOperation *each : {&receive, &send, &behind, &accept})
            EXPECT_EQ(ERROR_OPERATION_ABORTED, each->End(port, ERROR_IO_PENDING)) << how;
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

// Closed after a call took its reference, and before what the call does could be found.
TEST(Socket, CallsThatBeginWhileItIsClosed) {
    Pair pair;
    char byte;
    OVERLAPPED ov[2] = {};
    auto *object = static_cast<os::IoObject *>(os::RefHandle(reinterpret_cast<HANDLE>(pair.Server)));
    for (int i = 0; i < 2; i++) {
        os::IoCall call;
        os::RefObject(call.Target = object);
        call.Kind = os::RequestKind::kReceive;
        call.Buffer = &byte;
        call.Count = 1;
        call.Ov = &ov[i];
        EXPECT_EQ(ERROR_IO_PENDING, ErrorOf(os::IssueCall(nullptr, &call)));
        if (i == 0) os::closesocket(pair.Server);
        for (int tries = 0; tries < 1000 && os::LoadStatus(&ov[i]) == STATUS_PENDING; tries++) Pause(10);
        EXPECT_EQ(STATUS_CANCELLED, os::LoadStatus(&ov[i])) << i;
    }
    os::UnrefObject(object);
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
            if (i == 1) Set(fresh[i], ZVX_SOL_SOCKET, ZVX_SO_KEEPALIVE, 1);
            ASSERT_EQ(ERROR_IO_PENDING, ops[i].Accept(listener, fresh[i]));
        }
        SocketOperation wrong;
        EXPECT_EQ(WSAEINVAL, wrong.Accept(listener, fresh[0])) << "is waiting for a connection already";
        EXPECT_EQ(WSAEINVAL, wrong.Accept(NewSocket(), NewSocket())) << "does not listen";
        for (SOCKET &client : clients) client = ConnectTo(listener);
        for (int i = 0; i < 4; i++) {
            ASSERT_EQ(0u, ops[i].End(port, ERROR_IO_PENDING));
            sockaddr *local, *remote;
            int sizes[2];
            os::GetAcceptExSockaddrs(ops[i].Areas, 0, 32, 32, &local, &sizes[0], &remote, &sizes[1]);
            ASSERT_TRUE(sizes[0] == 16 && sizes[1] == 16);
            const sockaddr_in client = NameOf(clients[i]), server = NameOf(clients[i], true);
            EXPECT_TRUE(memcmp(&client, remote, 16) == 0 && memcmp(&server, local, 8) == 0) << i;
            EXPECT_EQ(0, os::setsockopt(fresh[i], ZVX_SOL_SOCKET, ZVX_SO_UPDATE_ACCEPT_CONTEXT,
                                        reinterpret_cast<const char *>(&listener), i % 2 == 0 ? 4 : 8));
            EXPECT_EQ(WSAEINVAL, wrong.Accept(listener, fresh[i])) << "connected";
            char byte = 0;
            os::send(clients[i], "y", 1, 0);
            EXPECT_EQ(1, os::recv(fresh[i], &byte, 1, 0));
        }
    }
}
