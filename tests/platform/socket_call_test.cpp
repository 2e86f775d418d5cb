// tests/platform/socket_call_test.cpp - sockets: duplicates, readiness, options, several engines, blocked threads.
#include "socket_support.h"

TEST(Socket, DuplicatesHereAndInAnotherProcess) {
    Pair pair;
    WSAPROTOCOL_INFOA info;
    const int before = OpenDescriptors();
    const DWORD self = os::GetCurrentProcessId();
    const auto take = [&] { return os::WSASocketA(AF_INET, SOCK_STREAM, 0, &info, 0, WSA_FLAG_OVERLAPPED); };
    ASSERT_EQ(0, os::WSADuplicateSocketA(pair.Listener, self, &info));
    SOCKET copy = take();
    EXPECT_EQ(before, OpenDescriptors()) << "nothing was done with it";
    EXPECT_EQ(WSAEINVAL, SocketError(take())) << "consumed";
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
    EXPECT_EQ(WSAEINVAL, SocketError(take())) << "the source is gone";
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
    EXPECT_EQ(WSAEWOULDBLOCK, SocketError(os::accept(listener, nullptr, nullptr))) << "does not block any more";
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
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_LINGER, zvx_linger{1, 300}));
    zvx_linger lingering{};
    int length = sizeof lingering;
    EXPECT_EQ(0, os::getsockopt(s, ZVX_SOL_SOCKET, ZVX_SO_LINGER, reinterpret_cast<char *>(&lingering), &length));
    EXPECT_TRUE(length == 4 && lingering.l_onoff == 1 && lingering.l_linger == 300);
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER, 1));
    EXPECT_EQ(1, get(ZVX_SOL_SOCKET, ZVX_SO_DONTLINGER));
    EXPECT_EQ(WSAENOPROTOOPT, set(ZVX_SOL_SOCKET, 0x7777, 1));
    EXPECT_EQ(0u, set(ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO, 40));
    EXPECT_EQ(40, get(ZVX_SOL_SOCKET, ZVX_SO_RCVTIMEO));
    char byte;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WSAETIMEDOUT, SocketError(os::recv(s, &byte, 1, 0)));
    EXPECT_GE(MillisecondsSince(start), 39);
    tcp_keepalive alive{1, 90000, 4000};
    DWORD got = 1;
    EXPECT_EQ(0, os::WSAIoctl(s, SIO_KEEPALIVE_VALS, &alive, sizeof alive, nullptr, 0, &got, nullptr, nullptr));
    EXPECT_EQ(90, get(IPPROTO_TCP, ZVX_TCP_KEEPALIVE));
    EXPECT_EQ(4, get(IPPROTO_TCP, ZVX_TCP_KEEPINTVL));
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
    int length = sizeof address;
    const SOCKET refused = ConnectTo(listener);
    EXPECT_EQ(WSAECONNREFUSED, SocketError(os::WSAAccept(listener, nullptr, nullptr, answer, CF_REJECT)));
    char byte;
    EXPECT_EQ(WSAECONNRESET, SocketError(os::recv(refused, &byte, 1, 0)));
    const SOCKET client = ConnectTo(listener);
    EXPECT_EQ(WSATRY_AGAIN, SocketError(os::WSAAccept(listener, nullptr, nullptr, answer, CF_DEFER)));
    const os::TimeVal now{0, 0};
    zvx_fd_set set{1, {listener}};
    EXPECT_EQ(1, os::select(0, &set, nullptr, nullptr, &now)) << "still there";
    const SOCKET server = os::WSAAccept(listener, reinterpret_cast<sockaddr *>(&address), &length, answer, CF_ACCEPT);
    ASSERT_NE(INVALID_SOCKET, server);
    EXPECT_EQ(NameOf(client).sin_port, address.sin_port);
}
