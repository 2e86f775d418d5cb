// bench/socket_bench.cpp - an echo server on the platform's sockets beside the same server on a bare ring and on epoll.
//
// Each server runs in a process of its own on one thread: it accepts a number of connections and sends back what it
// receives. The measuring process keeps one request (or several in a row) under way on every connection. The figure is
// the server's own processor time a request, so that what else the machine does matters little; the servers take turns
// within a run.
//
//   socket_bench --case echo --threads CONNECTIONS [--repetitions N] [--repetition-ms MS]
//   socket_bench --case pipeline                   16 requests in a row on each connection
#include <arpa/inet.h>
#include <liburing.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <memory>

#include "bench/harness.h"
#include "platform/os_socket.h"

namespace {

using namespace bench;

constexpr uint32_t kRequestBytes = 40;
constexpr uint32_t kBufferBytes = 4096;

// ---- The servers: from a listening descriptor to the last connection's end ------------------------------

struct Session {
    OVERLAPPED Ov{};
    os::IoOp Op{};
    SOCKET S = INVALID_SOCKET;
    bool Sending = false;
    char Buffer[kBufferBytes];
};

// Issues the next operation of the session until one is pending. False at the end of the connection.
bool Continue(Session *session, DWORD moved) {
    for (;;) {
        if (!session->Sending && moved == 0) return false;
        session->Sending = !session->Sending;
        DWORD flags = 0, done = 0;
        WSABUF buffer{session->Sending ? moved : kBufferBytes, session->Buffer};
        const int result =
            session->Sending ? os::WSASend(session->S, &buffer, 1, &done, 0, &session->Ov, nullptr, &session->Op)
                             : os::WSARecv(session->S, &buffer, 1, &done, &flags, &session->Ov, nullptr, &session->Op);
        if (result != 0) {
            if (os::GetLastError() != ERROR_IO_PENDING) Fail("transfer", os::GetLastError());
            return true;
        }
        moved = done;
    }
}

void ServePlatform(uint16_t port, uint32_t connections) {
    const HANDLE queue = os::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    os::ThreadBlock *block = os::CurrentThreadBlock();
    const SOCKET listener = os::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;
    os::setsockopt(listener, ZVX_SOL_SOCKET, ZVX_SO_REUSEADDR, reinterpret_cast<char *>(&one), sizeof one);
    if (os::bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0 || os::listen(listener, 1000) != 0)
        Fail("listen", os::GetLastError());
    auto sessions = std::make_unique<Session[]>(connections);
    for (uint32_t i = 0; i < connections; ++i) {
        Session *session = &sessions[i];
        session->S = os::accept(listener, nullptr, nullptr);
        session->Op.Ov = &session->Ov;
        session->Sending = true;
        os::setsockopt(session->S, IPPROTO_TCP, ZVX_TCP_NODELAY, reinterpret_cast<char *>(&one), sizeof one);
        if (!Continue(session, 0)) Fail("no connection");
    }
    uint32_t open = connections;
    while (open != 0) {
        if (os::IoNeedsAttention(block->Io)) os::ReapIo(block->Io);
        os::IoOp *op = os::TakeEndedOps(block->Io);
        if (op == nullptr) {
            DWORD bytes;
            uintptr_t key;
            OVERLAPPED *ended;
            os::GetQueuedCompletionStatus(queue, &bytes, &key, &ended, INFINITE);
            continue;
        }
        while (op != nullptr) {
            os::IoOp *next = op->NextEnded;
            Session *session = reinterpret_cast<Session *>(op->Ov);  // its first member
            block->InlineBudget = os::kInlineIoBudget;
            if (!Continue(session, session->Ov.InternalHigh)) {
                os::closesocket(session->S);
                open--;
            }
            op = next;
        }
    }
}

int Listen(uint16_t port) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0 || listen(listener, 1000) != 0)
        Fail("listen", errno);
    return listener;
}

int Accept(int listener) {
    const int fd = accept(listener, nullptr, nullptr);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

struct BareSession {
    int Fd;
    bool Sending;
    char Buffer[kBufferBytes];
};

void ServeRing(uint16_t port, uint32_t connections) {
    io_uring ring;
    io_uring_params params{};
    params.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    if (io_uring_queue_init_params(1024, &ring, &params) < 0) Fail("no ring");
    io_uring_register_ring_fd(&ring);
    const int listener = Listen(port);
    auto sessions = std::make_unique<BareSession[]>(connections);
    auto receive = [&](BareSession *session) {
        io_uring_sqe *entry = io_uring_get_sqe(&ring);
        io_uring_prep_recv(entry, session->Fd, session->Buffer, kBufferBytes, 0);
        entry->ioprio |= IORING_RECVSEND_POLL_FIRST;
        io_uring_sqe_set_data(entry, session);
        session->Sending = false;
    };
    for (uint32_t i = 0; i < connections; ++i) {
        sessions[i].Fd = Accept(listener);
        receive(&sessions[i]);
    }
    uint32_t open = connections;
    while (open != 0) {
        io_uring_submit_and_wait(&ring, 1);
        io_uring_cqe *ended;
        unsigned head, count = 0;
        io_uring_for_each_cqe(&ring, head, ended) {
            count++;
            auto *session = static_cast<BareSession *>(io_uring_cqe_get_data(ended));
            if (session->Sending) {
                receive(session);
            } else if (ended->res <= 0) {
                close(session->Fd);
                open--;
            } else {
                io_uring_sqe *entry = io_uring_get_sqe(&ring);
                io_uring_prep_send(entry, session->Fd, session->Buffer, static_cast<size_t>(ended->res), MSG_NOSIGNAL);
                io_uring_sqe_set_data(entry, session);
                session->Sending = true;
            }
        }
        io_uring_cq_advance(&ring, count);
    }
}

void ServeEpoll(uint16_t port, uint32_t connections) {
    const int set = epoll_create1(0);
    const int listener = Listen(port);
    for (uint32_t i = 0; i < connections; ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = Accept(listener);
        epoll_ctl(set, EPOLL_CTL_ADD, event.data.fd, &event);
    }
    char buffer[kBufferBytes];
    for (uint32_t open = connections; open != 0;) {
        epoll_event ready[64];
        const int count = epoll_wait(set, ready, 64, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = ready[i].data.fd;
            const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
            if (got > 0) {
                if (send(fd, buffer, static_cast<size_t>(got), MSG_NOSIGNAL) != got) Fail("send", errno);
            } else {
                close(fd);
                open--;
            }
        }
    }
}

// ---- The measuring side ----------------------------------------------------------------------------------

struct Server {
    const char *Name;
    const char *Backend;  // of the platform; null for the bare ones
    void (*Serve)(uint16_t port, uint32_t connections);
};
constexpr Server kServers[] = {
    {"platform", "io_uring", ServePlatform},
    {"bare ring", nullptr, ServeRing},
    {"platform", "epoll", ServePlatform},
    {"bare epoll", nullptr, ServeEpoll},
};

struct Result {
    double CpuNs, WallNs, RoundTripUs;
    uint64_t Requests;
};

int Connect(uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int tries = 0; tries < 500; ++tries) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0) return fd;
        close(fd);
        usleep(10000);
    }
    Fail("connect", errno);
}

double ProcessorNs(pid_t process) {
    clockid_t clock;
    timespec time{};
    if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) Fail("processor time");
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

Result RunOnce(const Server &server, uint32_t connections, uint32_t inRow, double ms) {
    static uint16_t port = static_cast<uint16_t>(20000 + getpid() % 20000);
    port++;
    const pid_t child = fork();
    if (child == 0) {
        if (server.Backend != nullptr) setenv("ZVXKVT_IO", server.Backend, 1);
        server.Serve(port, connections);
        _exit(0);
    }
    const int set = epoll_create1(0);
    std::vector<int> all;
    for (uint32_t i = 0; i < connections; ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        all.push_back(Connect(port));
        epoll_ctl(set, EPOLL_CTL_ADD, all[i], &event);
    }
    const std::vector<char> request(kRequestBytes * inRow, 'r');
    std::vector<size_t> missing(connections, request.size());
    auto ask = [&](size_t i) {
        missing[i] = request.size();
        if (send(all[i], request.data(), request.size(), 0) < 0) Fail("send", errno);
    };
    for (uint32_t i = 0; i < connections; ++i) ask(i);
    Result result{};
    double start = 0, cpu = 0;
    const double warm = NowNs() + ms * 2e5;
    char buffer[65536];
    for (;;) {
        epoll_event ready[64];
        const int count = epoll_wait(set, ready, 64, 1000);
        if (count <= 0) Fail("the server answers no more");
        for (int n = 0; n < count; ++n) {
            const size_t i = ready[n].data.u64;
            const ssize_t got = recv(all[i], buffer, sizeof buffer, 0);
            if (got <= 0) Fail("the server closed a connection");
            missing[i] -= static_cast<size_t>(got);
            if (missing[i] != 0) continue;
            result.Requests += inRow;
            ask(i);
        }
        const double now = NowNs();
        if (start == 0) {
            if (now < warm) continue;
            start = now;
            cpu = ProcessorNs(child);
            result.Requests = 0;
        } else if (now >= start + ms * 1e6) {
            result.CpuNs = (ProcessorNs(child) - cpu) / static_cast<double>(result.Requests);
            result.WallNs = (now - start) / static_cast<double>(result.Requests);
            break;
        }
    }
    // Answers that are under way would make the kernel reset the connections, which is an end too.
    for (const int fd : all) {
        const linger hard{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    for (const int fd : all) close(fd);
    close(set);
    return result;
}

void Run(const Options &given, const std::string &name, uint32_t connections, uint32_t inRow) {
    constexpr size_t kCount = sizeof kServers / sizeof kServers[0];
    std::vector<double> cpu[kCount], wall[kCount];
    uint64_t requests[kCount] = {};
    for (uint32_t i = 0; i < given.Repetitions; ++i)
        for (size_t k = 0; k < kCount; ++k) {
            const Result result = RunOnce(kServers[k], connections, inRow, given.RepetitionMs);
            cpu[k].push_back(result.CpuNs);
            wall[k].push_back(result.WallNs);
            requests[k] += result.Requests;
        }
    for (size_t k = 0; k < kCount; ++k) {
        Options options = given;
        options.Impl = kServers[k].Name;
        options.Backend = kServers[k].Backend == nullptr ? "" : kServers[k].Backend;
        Report(options, name, requests[k], cpu[k], "cpu ns", "lower", {{"wall_ns", Median(wall[k])}});
    }
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    options.Threads = 50;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr, "usage: %s --case echo|pipeline [--threads N] [--repetitions N] [--repetition-ms N]\n",
                     argv[0]);
        return 2;
    }
    const std::string connections = std::to_string(options.Threads);
    if (options.Case.empty() || options.Case == "echo") Run(options, "echo/" + connections, options.Threads, 1);
    if (options.Case == "pipeline") Run(options, "pipeline/" + connections, options.Threads, 16);
}
