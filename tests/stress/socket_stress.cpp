// tests/stress/socket_stress.cpp - a server whose connections end in every way at once: in order, by a reset, by the
// termination of the user thread that serves or accepts them, with one socket used by threads of several schedulers.
// Seeded and time-boxed; ends with the invariant checkers and with the counts of what must have come back.
//
// Built on the internals, so that every user thread can check its own scheduler between two yields. The clients are
// plain threads on the kernel's sockets; the first byte of a connection tells the server how it will go on.
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "stress.h"
#include "support/net_peer.h"

namespace {

using namespace zvx;
using namespace stress;

enum Kind : char { kEcho, kReset, kShared, kRoutines, kTerminated, kKinds };

SOCKET gListener = INVALID_SOCKET, gRough = INVALID_SOCKET;  // on gRough whoever accepts may be terminated
uint16_t gPort = 0, gRoughPort = 0;
std::atomic<bool> gStop{false};
std::atomic<uint64_t> gBytes{0}, gConnections{0}, gResets{0}, gTerminated{0};
std::atomic<uint32_t> gSessions{0};

void CheckOwnScheduler() {
    CheckScheduler(SchedOf(CallingFiber()));
}

// ---- Clients: plain threads --------------------------------------------------------------------------

// Sends blocks and compares their echo.
bool Exchange(int fd, std::mt19937_64 &rng) {
    std::vector<char> out, in;
    for (uint64_t rounds = rng() % 12; rounds != 0; rounds--) {
        out.resize(1 + rng() % (rounds == 5 ? 60000 : 900));
        in.assign(out.size(), '\0');
        for (char &byte : out) byte = static_cast<char>(rng());
        if (!netpeer::WriteAll(fd, out.data(), out.size()) || !netpeer::ReadAll(fd, in.data(), in.size())) return false;
        if (in != out) Fail("an echo differs", out.size());
        gBytes.fetch_add(out.size(), std::memory_order_relaxed);
    }
    return true;
}

void Client(uint32_t self) {
    std::mt19937_64 rng(gOptions.Seed * 1000003 + self);
    while (!gStop.load()) {
        const bool rough = rng() % 8 == 0;
        const int fd = netpeer::Connect(rough ? gRoughPort : gPort);
        if (fd < 0) Fail("no connection", static_cast<uint64_t>(errno));
        gConnections.fetch_add(1, std::memory_order_relaxed);
        const char kind = static_cast<char>(rng() % kKinds);
        if (rough) {
            if (!netpeer::SeesTheEnd(fd, 60000)) Fail("a rough connection stays");
        } else if (!netpeer::WriteAll(fd, &kind, 1)) {
            Fail("a fresh connection takes nothing");
        } else if (kind == kTerminated) {
            char sink[65536];
            while (read(fd, sink, sizeof sink) > 0) {
            }
        } else if (kind == kReset) {
            if (rng() % 2 != 0) Exchange(fd, rng);
            netpeer::Reset(fd);
            gResets.fetch_add(1, std::memory_order_relaxed);
            continue;
        } else {
            if (!Exchange(fd, rng)) Fail("the server ended the connection", static_cast<uint64_t>(kind));
            netpeer::EndSending(fd);
            if (!netpeer::SeesTheEnd(fd, 60000))
                Fail("the server does not end the connection", static_cast<uint64_t>(kind));
        }
        close(fd);
    }
}

// ---- The server: user threads ------------------------------------------------------------------------

// Echoes until the end; the last result of recv.
int EchoAll(SOCKET s) {
    char buffer[3000];
    for (;;) {
        const int got = zvx::recv(s, buffer, sizeof buffer, 0);
        CheckOwnScheduler();
        if (got <= 0) return got;
        if (zvx::send(s, buffer, got, 0) != got) return SOCKET_ERROR;
    }
}

DWORD Forward(void *param) {
    return EchoAll(reinterpret_cast<SOCKET>(param)) == 0 ? 11 : 12;
}

// Parked in a receive, in a send that nobody takes, or in a select, until it is terminated.
DWORD Parked(void *param) {
    static const std::vector<char> large(16 << 20, 'x');
    const auto s = reinterpret_cast<SOCKET>(param);
    char byte;
    zvx_fd_set set{1, {s}};
    for (uint64_t way = os::ReadTsc() >> 4;; way++) {
        if (way % 3 == 0) zvx::recv(s, &byte, 1, 0);
        if (way % 3 == 1) zvx::send(s, large.data(), static_cast<int>(large.size()), 0);
        if (way % 3 == 2) zvx::select(0, &set, nullptr, nullptr, nullptr);
    }
}

int EchoByRoutines(SOCKET s) {
    char buffer[2000];
    for (;;) {
        Routine state{};
        WSABUF one{sizeof buffer, buffer};
        DWORD flags = 0;
        if (WSARecv(s, &one, 1, nullptr, &flags, &state.Ov, OnRoutine<DWORD>) == 0 ||
            os::GetLastError() != WSA_IO_PENDING)
            return SOCKET_ERROR;
        while (state.Done == 0) SleepEx(1000, TRUE);
        if (state.Error != 0) return SOCKET_ERROR;
        if (state.Bytes == 0) return 0;
        if (zvx::send(s, buffer, static_cast<int>(state.Bytes), 0) != static_cast<int>(state.Bytes))
            return SOCKET_ERROR;
    }
}

DWORD Session(void *param) {
    const auto s = reinterpret_cast<SOCKET>(param);
    char kind = 0;
    if (zvx::recv(s, &kind, 1, 0) == 1) {
        if (kind == kTerminated) {
            const HANDLE parked = Start(Parked, s);
            if (os::ReadTsc() & 64) Sleep(1);
            if (!TerminateThread(parked, 21)) Fail("TerminateThread", os::GetLastError());
            Join(parked, 21);
            gTerminated.fetch_add(1, std::memory_order_relaxed);
        } else {
            // Another thread, often of another scheduler, takes the connection over: this one has bound the socket.
            int ended = 0;
            if (kind == kShared)
                Join(Start(Forward, s), 11);
            else
                ended = kind == kRoutines ? EchoByRoutines(s) : EchoAll(s);
            if (ended != 0 && kind != kReset)
                Fail("a session ended badly", os::GetLastError(), static_cast<uint64_t>(kind));
        }
    }
    if (closesocket(s) != 0) Fail("closesocket", os::GetLastError());
    gSessions.fetch_sub(1);
    return 0;
}

DWORD Acceptor(void *) {
    for (;;) {
        sockaddr_in from{};
        int length = sizeof from;
        const SOCKET s = zvx::accept(gListener, reinterpret_cast<sockaddr *>(&from), &length);
        CheckOwnScheduler();
        if (s == INVALID_SOCKET) return gStop.load() ? 31 : 32;
        if (length != 16 || from.sin_addr.s_addr != __builtin_bswap32(0x7F000001)) Fail("a client's address");
        gSessions.fetch_add(1);
        CloseHandle(Start(Session, s));
    }
}

// Terminated at any time. Nothing between the end of an accept and the close yields, so no socket can be lost.
DWORD RoughAcceptor(void *) {
    for (;;) closesocket(zvx::accept(gRough, nullptr, nullptr));
}

// ---- The course of a run -----------------------------------------------------------------------------

void Serve() {
    constexpr uint32_t kAcceptors = 3;
    // Accepted sockets are of the same kind: those of the one kind wait for operations with a routine too.
    gListener = Listen(&gPort, WSA_FLAG_OVERLAPPED);
    gRough = Listen(&gRoughPort, 0);
    HANDLE acceptors[kAcceptors];
    for (HANDLE &acceptor : acceptors) acceptor = Start(Acceptor);
    std::vector<std::thread> clients;
    for (uint32_t i = 0; i < gOptions.Load; ++i) clients.emplace_back(Client, i);
    std::atomic<bool> clientsDone{false};
    std::thread joiner([&] {
        for (std::thread &client : clients) client.join();
        clientsDone = true;
    });
    std::mt19937_64 rng(gOptions.Seed);
    const uint64_t end = os::GetTickCount64() + gOptions.Seconds * 1000ull;
    while (!clientsDone.load()) {
        if (os::GetTickCount64() >= end) gStop = true;
        const HANDLE rough = Start(RoughAcceptor);
        Sleep(static_cast<DWORD>(rng() % 4));
        if (!TerminateThread(rough, 41)) Fail("TerminateThread", os::GetLastError());
        Join(rough, 41);
        gTerminated.fetch_add(1, std::memory_order_relaxed);
    }
    joiner.join();
    Await("sessions left behind", [] { return gSessions.load() == 0; });
    closesocket(gRough);
    closesocket(gListener);
    for (HANDLE acceptor : acceptors) Join(acceptor, 31);
}

DWORD MainRoutine(void *) {
    Sleep(20);
    const uint32_t handles = gHandleCount;
    const int sockets = netpeer::OpenSockets();
    Serve();
    CheckAllBack(handles);
    Await("sockets left behind", [&] { return netpeer::OpenSockets() == sockets; });
    std::printf(
        "socket stress: %u schedulers, %s, seed %llu: %llu connections, %llu bytes, %llu resets, %llu terminated\n",
        gNumSchedulers, os::IoBackendName(), static_cast<unsigned long long>(gOptions.Seed),
        static_cast<unsigned long long>(gConnections.load()), static_cast<unsigned long long>(gBytes.load()),
        static_cast<unsigned long long>(gResets.load()), static_cast<unsigned long long>(gTerminated.load()));
    if (gBytes.load() == 0 || gResets.load() == 0 || gTerminated.load() == 0) Fail("nothing was done");
    os::ExitProcess(0);
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Load = 8;
    return Main(argc, argv, "--clients", 1000, MainRoutine);
}
