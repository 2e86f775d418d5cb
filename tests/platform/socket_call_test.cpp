// tests/platform/socket_call_test.cpp - sockets: duplicates, readiness, options, blocked threads, functions of files.
#include "platform/system/socket.h"
#include "socket_support.h"

namespace {

int Get(SOCKET s, int level, int name) {
    int value = -1, length = sizeof value;
    EXPECT_EQ(0, os::getsockopt(s, level, name, reinterpret_cast<char *>(&value), &length)) << name;
    return value;
}

SOCKET DuplicateSocket(SOCKET s) {
    WSAPROTOCOL_INFOA info;
    EXPECT_EQ(0, os::WSADuplicateSocketA(s, os::GetCurrentProcessId(), &info));
    return os::WSASocketA(AF_INET, SOCK_STREAM, 0, &info, 0, WSA_FLAG_OVERLAPPED);
}

}  // namespace

TEST(Socket, DuplicatesHereAndInAnotherProcess) {
    Pair pair;
    WSAPROTOCOL_INFOA info;
    const ptrdiff_t before = OpenDescriptors();
    const DWORD self = os::GetCurrentProcessId();
    const auto take = [&] { return os::WSASocketA(AF_INET, SOCK_STREAM, 0, &info, 0, WSA_FLAG_OVERLAPPED); };
    // What is done with one is done with the other, whenever the duplicate gets its descriptor.
    const SOCKET source = NewSocket();
    ASSERT_EQ(0, os::WSADuplicateSocketA(source, self, &info));
    SOCKET copy = take();
    EXPECT_EQ(before, OpenDescriptors()) << "nothing was done with it";
    EXPECT_EQ(WSAEINVAL, SocketError(take())) << "consumed";
    const sockaddr_in address = Loopback();
    EXPECT_EQ(0, os::bind(source, Plain(address), sizeof address));
    AtOnce([&] { EXPECT_EQ(NameOf(source).sin_port, NameOf(copy).sin_port); });
    EXPECT_EQ(0, os::listen(source, 10));
    const SOCKET visitor = ConnectTo(copy), taken = os::accept(copy, nullptr, nullptr);
    EXPECT_EQ(before + 4, OpenDescriptors());
    for (const SOCKET s : {source, copy, visitor, taken}) EXPECT_EQ(0, os::closesocket(s));
    // Used, also after the source was closed.
    copy = DuplicateSocket(pair.Client);
    EXPECT_EQ(0, os::closesocket(pair.Client));
    EXPECT_EQ(4, os::send(copy, "copy", 4, 0)) << os::GetLastError();
    EXPECT_EQ(0, os::closesocket(copy));
    EXPECT_EQ("copy", ReceiveAll(pair.Server)) << "with the last of them the connection ended";
    // Another process gets the listener and answers there, after the time-out that the listener had here.
    EXPECT_EQ(0u, Set(pair.Listener, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 50));
    int ends[2], status = 0;
    ASSERT_EQ(0, pipe(ends));
    const pid_t child = fork();
    if (child == 0) {
        if (read(ends[0], &info, sizeof info) != sizeof info) _exit(1);
        const SOCKET listener = take();
        if (listener == INVALID_SOCKET) _exit(os::GetLastError() == WSAEACCES ? 77 : 2);
        const SOCKET accepted = os::accept(listener, nullptr, nullptr);
        if (SocketError(os::recv(accepted, info.szProtocol, 1, 0)) != WSAETIMEDOUT) _exit(3);
        _exit(os::send(accepted, "child", 5, 0) == 5 ? 0 : 4);
    }
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Listener, static_cast<DWORD>(child), &info));
    ASSERT_EQ(static_cast<ssize_t>(sizeof info), write(ends[1], &info, sizeof info));
    EXPECT_EQ(INVALID_SOCKET, take()) << "for the other process only";
    const SOCKET client = ConnectTo(pair.Listener);
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "the kernel lets no process look into another";
    EXPECT_EQ(0, status);
    EXPECT_EQ("child", ReceiveAll(client));
}

TEST(Socket, SelectAnswersForArraysOfAnySize) {
    Pair pair;
    const os::TimeVal now{0, 0}, soon{0, 30000};
    struct {
        DWORD Count;
        SOCKET Array[200];
    } many;
    const auto fill = [&](const std::vector<SOCKET> &sockets) {
        many.Count = static_cast<DWORD>(sockets.size());
        std::copy(sockets.begin(), sockets.end(), many.Array);
        return reinterpret_cast<zvx_fd_set *>(&many);
    };
    zvx_fd_set write{1, {pair.Client}}, error{1, {pair.Client}};
    EXPECT_EQ(WSAEINVAL, SocketError(os::select(0, nullptr, nullptr, nullptr, &now)));
    EXPECT_EQ(WSAENOTSOCK, SocketError(os::select(0, fill({pair.Client, 0x77770}), nullptr, nullptr, &now)));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, os::select(0, fill({pair.Client, NewSocket()}), nullptr, &error, &soon));
    EXPECT_GE(MillisecondsSince(start), 30);
    EXPECT_TRUE(many.Count == 0 && error.fd_count == 0);
    error = {1, {pair.Client}};
    os::send(pair.Server, "z", 1, 0);
    EXPECT_EQ(2, os::select(0, fill({pair.Listener, pair.Client}), &write, &error, nullptr)) << "in both sets";
    EXPECT_TRUE(many.Count == 1 && many.Array[0] == pair.Client && write.fd_count == 1 && error.fd_count == 0);
    std::vector<SOCKET> sockets{pair.Client};
    while (sockets.size() < 101) sockets.push_back(NewSocket());
    EXPECT_EQ(1, os::select(0, fill(sockets), nullptr, nullptr, nullptr));
    EXPECT_TRUE(many.Count == 1 && many.Array[0] == pair.Client);
    // Connecting without waiting: writable when it has succeeded, in the error set when it has failed.
    for (const bool good : {true, false}) {
        const SOCKET s = NewSocket();
        const sockaddr_in target = Loopback(good ? ntohs(NameOf(pair.Listener).sin_port) : 1);
        ULONG on = 1;
        os::ioctlsocket(s, static_cast<LONG>(ZVX_FIONBIO), &on);
        os::connect(s, Plain(target), sizeof target);
        write = error = {1, {s}};
        EXPECT_EQ(1, os::select(0, nullptr, &write, &error, nullptr));
        EXPECT_TRUE(write.fd_count == (good ? 1 : 0) && error.fd_count == (good ? 0 : 1)) << good;
        EXPECT_EQ(good ? 0 : static_cast<int>(WSAECONNREFUSED), Get(s, ZVX_SOL_SOCKET, ZVX_SO_ERROR));
    }
}

TEST(Socket, EventsAreRecordedOnceAndReenabled) {
    const SOCKET listener = NewListener(), client = NewSocket();
    const WSAEVENT event = os::WSACreateEvent(), accepting = os::WSACreateEvent();
    WSANETWORKEVENTS seen;
    const auto next = [&](SOCKET s, WSAEVENT of, DWORD ms = 5000) {
        seen = {};
        if (os::WSAWaitForMultipleEvents(1, &of, FALSE, ms, FALSE) != WSA_WAIT_EVENT_0) return LONG{0};
        EXPECT_EQ(0, os::WSAEnumNetworkEvents(s, of, &seen));
        return seen.lNetworkEvents;
    };
    char byte;
    const auto take = [&] { EXPECT_EQ(1, os::recv(client, &byte, 1, 0)); };
    ASSERT_EQ(0, os::WSAEventSelect(listener, accepting, FD_ACCEPT));
    EXPECT_EQ(WSAEWOULDBLOCK, SocketError(os::accept(listener, nullptr, nullptr))) << "does not block any more";
    ASSERT_EQ(0, os::WSAEventSelect(client, event, FD_CONNECT | FD_READ | FD_WRITE | FD_CLOSE));
    EXPECT_EQ(0, next(client, event, 30)) << "not connected";
    const sockaddr_in address = NameOf(listener);
    os::connect(client, Plain(address), sizeof address);
    LONG all = 0;
    for (int i = 0; i < 3 && all != (FD_CONNECT | FD_WRITE); i++) all |= next(client, event, 1000);
    EXPECT_EQ(FD_CONNECT | FD_WRITE, all);
    EXPECT_EQ(FD_ACCEPT, next(listener, accepting));
    ASSERT_EQ(0, os::WSAEventSelect(listener, nullptr, 0));
    const SOCKET server = os::accept(listener, nullptr, nullptr);
    ULONG off = 0;
    EXPECT_EQ(0, os::ioctlsocket(server, static_cast<LONG>(ZVX_FIONBIO), &off));
    os::send(server, "ab", 2, 0);
    EXPECT_EQ(FD_READ, next(client, event));
    os::send(server, "c", 1, 0);
    EXPECT_EQ(0, next(client, event, 50)) << "not received since";
    take();
    EXPECT_EQ(FD_READ, next(client, event)) << "there is more";
    const std::string block(1 << 20, 'w');
    while (os::send(client, block.data(), 1 << 20, 0) > 0) continue;
    EXPECT_EQ(WSAEWOULDBLOCK, os::GetLastError());
    EXPECT_EQ(0, next(client, event, 30));
    std::thread drain([&] { ReceiveAll(server); });
    EXPECT_EQ(FD_WRITE, next(client, event));
    os::shutdown(server, SD_SEND);
    take();
    EXPECT_EQ(FD_READ, next(client, event)) << "the end comes after the data";
    take();
    EXPECT_EQ(FD_CLOSE, next(client, event));
    EXPECT_EQ(0, seen.iErrorCode[FD_CLOSE_BIT]);
    os::closesocket(client);
    drain.join();
    ExpectOnlyTheHandle(event);
}

TEST(Socket, OptionsHaveTheHostsNumbers) {
    Pair pair;
    const SOCKET s = pair.Client;
    EXPECT_EQ(0u, Set(s, IPPROTO_TCP, ZVX_TCP_NODELAY, 7));
    EXPECT_EQ(1, Get(s, IPPROTO_TCP, ZVX_TCP_NODELAY));
    for (const int name : {ZVX_SO_KEEPALIVE, ZVX_SO_REUSEADDR, ZVX_SO_OOBINLINE})
        for (const int value : {7, 0}) {
            EXPECT_EQ(0u, Set(s, ZVX_SOL_SOCKET, name, value));
            EXPECT_EQ(value != 0, Get(s, ZVX_SOL_SOCKET, name)) << name;
        }
    EXPECT_EQ(0u, Set(s, ZVX_SOL_SOCKET, ZVX_SO_LINGER, zvx_linger{1, 300}));
    EXPECT_EQ(300 << 16 | 1, Get(s, ZVX_SOL_SOCKET, ZVX_SO_LINGER)) << "two words of 16 bits";
    EXPECT_EQ(0u, Set(s, ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER, 1));
    EXPECT_EQ(1, Get(s, ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER));
    EXPECT_EQ(WSAENOPROTOOPT, Set(s, ZVX_SOL_SOCKET, 0x7777, 1));
    // A connection has the time-outs of its listener, however it was taken, and a duplicate those of its source.
    for (const SOCKET each : {s, pair.Listener}) EXPECT_EQ(0u, Set(each, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 40));
    const HANDLE port = NewPort();
    const SOCKET fresh = NewSocket();
    SocketOperation op;
    const DWORD answer = op.Accept(pair.Listener, fresh);
    ConnectTo(pair.Listener);
    EXPECT_EQ(0u, op.End(port, answer));
    ConnectTo(pair.Listener);
    for (const SOCKET each : {s, fresh, os::accept(pair.Listener, nullptr, nullptr), DuplicateSocket(s)}) {
        EXPECT_EQ(40, Get(each, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO));
        // Set through another one, before it was used for anything or after.
        const SOCKET before = DuplicateSocket(each);
        EXPECT_EQ(0u, Set(each, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 300));
        EXPECT_NEAR(300, Get(before, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO), 10);
        EXPECT_EQ(0u, Set(before, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 40));
        EXPECT_NEAR(40, Get(each, ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO), 10);
        char byte;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(WSAETIMEDOUT, SocketError(os::recv(each, &byte, 1, 0)));
        EXPECT_GE(MillisecondsSince(start), 39);
    }
}

TEST(Socket, BlockedThreadsAreWokenAndEnded) {
    const ptrdiff_t before = OpenDescriptors();
    Pair pair;
    char byte;
    // Duplicates that nobody used: one goes before the last handle of its source, one afterwards.
    os::closesocket(DuplicateSocket(pair.Listener));
    const SOCKET copy = DuplicateSocket(pair.Client);
    std::thread receiver([&] { EXPECT_EQ(WSAEINTR, SocketError(os::recv(pair.Client, &byte, 1, 0))); });
    std::thread acceptor([&] { EXPECT_EQ(WSAEINTR, SocketError(os::accept(pair.Listener, nullptr, nullptr))); });
    Pause(50);
    for (const SOCKET s : {pair.Client, pair.Listener, copy}) EXPECT_EQ(0, os::closesocket(s));
    receiver.join();
    acceptor.join();
    EXPECT_EQ(0, os::closesocket(pair.Server));
    EXPECT_EQ(before, OpenDescriptors());
    // Ended in their calls.
    static Pair other;
    static char block[1 << 20];
    const LPTHREAD_START_ROUTINE calls[] = {
        [](void *) -> DWORD { return static_cast<DWORD>(os::recv(other.Client, block, 1, 0)); },
        [](void *) -> DWORD { return static_cast<DWORD>(os::accept(other.Listener, nullptr, nullptr)); },
        [](void *) -> DWORD {
            for (;;) os::send(other.Client, block, sizeof block, 0);
        },
    };
    for (const auto call : calls) {
        const HANDLE thread = os::CreateThread(nullptr, 0, call, nullptr, 0, nullptr);
        Pause(30);
        EXPECT_TRUE(os::TerminateThread(thread, 9));
        EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(thread, 5000));
    }
}

// A call that blocks is held up behind its reference, where a descriptor is being made, and its socket is closed.
TEST(Socket, CallsThatFindTheirSocketClosed) {
    static char byte;
    static const sockaddr_in address = Loopback(1);
    DWORD (*const calls[])(SOCKET) = {
        [](SOCKET s) { return SocketError(os::accept(s, nullptr, nullptr)); },
        [](SOCKET s) { return SocketError(os::recv(s, &byte, 1, 0)); },
        [](SOCKET s) { return SocketError(os::recvfrom(s, &byte, 1, 0, nullptr, nullptr)); },
        [](SOCKET s) { return SocketError(os::sendto(s, &byte, 1, 0, nullptr, 0)); },
        [](SOCKET s) { return SocketError(os::connect(s, Plain(address), sizeof address)); },
    };
    for (const auto &call : calls) {
        Pair pair;
        const SOCKET s = call == calls[0] ? pair.Listener : pair.Client;
        auto *object = static_cast<os::SocketObject *>(os::RefHandle(reinterpret_cast<HANDLE>(s)));
        object->State = os::SocketState::kMaking;
        std::thread caller([&] { EXPECT_EQ(WSAEINTR, call(s)) << "call " << &call - calls; });
        while (object->Refs < 3) os::YieldProcessor();
        os::closesocket(s);
        object->State = os::SocketState::kReady;
        caller.join();
        os::UnrefObject(object);
    }
}

// The functions of files, and what tells of an end: event, packet, routine; on a thread without a port too.
TEST(Socket, IsAHandleLikeAFile) {
    Pair pair;
    const HANDLE server = reinterpret_cast<HANDLE>(pair.Server), client = reinterpret_cast<HANDLE>(pair.Client);
    static std::string told;
    char text[10] = {};
    WSABUF one{10, text};
    DWORD bytes = 0, flags = 0;
    OVERLAPPED ov{}, second{};
    ov.hEvent = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    ASSERT_EQ(ERROR_IO_PENDING, ErrorOf(os::ReadFile(server, text, 10, &bytes, &ov)));
    EXPECT_TRUE(os::WriteFile(client, "file", 4, &bytes, nullptr));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(ov.hEvent, 5000));
    EXPECT_TRUE(os::GetOverlappedResult(server, &ov, &bytes, FALSE));
    EXPECT_STREQ("file", text);
    const auto received = [](DWORD error, DWORD got, OVERLAPPED *, DWORD) {
        told += error == 0 && got == 5 ? 'r' : '?';
    };
    const auto written = [](DWORD error, DWORD put, OVERLAPPED *) { told += error == 0 && put == 5 ? 'w' : '?'; };
    ASSERT_EQ(ERROR_IO_PENDING, SocketError(os::WSARecv(pair.Server, &one, 1, nullptr, &flags, &ov, received)));
    ASSERT_TRUE(os::WriteFileEx(client, "12345", 5, &second, written));
    for (int i = 0; i < 2 && told.size() < 2; i++) EXPECT_EQ(WAIT_IO_COMPLETION, os::SleepEx(5000, TRUE));
    EXPECT_TRUE(told == "rw" || told == "wr") << told;
    // A packet at the port that a duplicate is bound to.
    const HANDLE port = NewPort(), copy = Duplicate(server);
    ASSERT_EQ(port, os::CreateIoCompletionPort(copy, port, 55, 0));
    EXPECT_EQ(WSAEINVAL, SocketError(os::WSARecv(pair.Server, &one, 1, nullptr, &flags, &ov, received)));
    EXPECT_TRUE(os::CloseHandle(server));
    ov.hEvent = nullptr;
    ASSERT_EQ(ERROR_IO_PENDING, ErrorOf(os::ReadFile(copy, text, 10, &bytes, &ov)));
    EXPECT_EQ(6, os::send(pair.Client, "packet", 6, 0));
    const Packet packet = Take(port, 5000);
    EXPECT_TRUE(packet.Error == 0 && packet.Bytes == 6 && packet.Key == 55 && packet.Ov == &ov);
}
