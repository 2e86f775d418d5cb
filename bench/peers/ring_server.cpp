// bench/peers/ring_server.cpp - a key-value server on a bare ring: what a hand-written event loop costs a request.
//
// GET, SET and PING of RESP, in memory only, one kernel thread, one ring set up as the library's are; a receive entry a
// connection and its answer as a send entry, submitted together. Neither checks nor limits: it exists to be measured.
//
//   ring_server PORT
#include <arpa/inet.h>
#include <liburing.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

struct Connection {
    int Fd = -1;
    bool Sending = false;
    std::string In;   // what no whole request has come out of yet
    std::string Out;
    char Buffer[16384];
};

io_uring gRing;
std::unordered_map<std::string, std::string> gKeys;

io_uring_sqe *Entry() {
    io_uring_sqe *entry = io_uring_get_sqe(&gRing);
    if (entry != nullptr) return entry;
    io_uring_submit(&gRing);
    return io_uring_get_sqe(&gRing);
}

void Receive(Connection *c) {
    io_uring_sqe *entry = Entry();
    io_uring_prep_recv(entry, c->Fd, c->Buffer, sizeof c->Buffer, 0);
    entry->ioprio |= IORING_RECVSEND_POLL_FIRST;
    io_uring_sqe_set_data(entry, c);
}

void Send(Connection *c, size_t from) {
    io_uring_sqe *entry = Entry();
    io_uring_prep_send(entry, c->Fd, c->Out.data() + from, c->Out.size() - from, MSG_NOSIGNAL);
    io_uring_sqe_set_data(entry, c);
}

// One array of bulk strings from `at`; false when it is not whole.
bool Parse(const std::string &in, size_t *at, std::string_view *words, int *count) {
    const char *p = in.data() + *at;
    const char *end = in.data() + in.size();
    auto number = [&](char mark, long *value) {
        if (p >= end || *p != mark) return false;
        const char *line = static_cast<const char *>(memchr(p, '\r', static_cast<size_t>(end - p)));
        if (line == nullptr || line + 1 >= end) return false;
        *value = std::atol(p + 1);
        p = line + 2;
        return true;
    };
    long n = 0;
    if (!number('*', &n)) return false;
    *count = 0;
    for (long i = 0; i < n; ++i) {
        long length = 0;
        if (!number('$', &length) || end - p < length + 2) return false;
        if (*count < 4) words[(*count)++] = std::string_view(p, static_cast<size_t>(length));
        p += length + 2;
    }
    *at = static_cast<size_t>(p - in.data());
    return true;
}

void Serve(Connection *c) {
    size_t at = 0;
    std::string_view words[4];
    int count = 0;
    while (at < c->In.size() && Parse(c->In, &at, words, &count)) {
        if (count == 2 && (words[0] == "GET" || words[0] == "get")) {
            auto found = gKeys.find(std::string(words[1]));
            if (found == gKeys.end()) {
                c->Out += "$-1\r\n";
            } else {
                c->Out += '$';
                c->Out += std::to_string(found->second.size());
                c->Out += "\r\n";
                c->Out += found->second;
                c->Out += "\r\n";
            }
        } else if (count == 3 && (words[0] == "SET" || words[0] == "set")) {
            gKeys[std::string(words[1])] = std::string(words[2]);
            c->Out += "+OK\r\n";
        } else {
            c->Out += "+PONG\r\n";
        }
    }
    c->In.erase(0, at);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[1])));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0 || listen(listener, 4096) != 0) {
        std::perror("ring_server");
        return 1;
    }
    io_uring_params params{};
    params.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN | IORING_SETUP_CQSIZE;
    params.cq_entries = 8192;
    if (io_uring_queue_init_params(1024, &gRing, &params) < 0) return 1;
    io_uring_sqe *entry = Entry();
    io_uring_prep_multishot_accept(entry, listener, nullptr, nullptr, 0);
    io_uring_sqe_set_data(entry, nullptr);
    for (;;) {
        io_uring_submit_and_wait(&gRing, 1);
        io_uring_cqe *ended;
        unsigned head;
        unsigned count = 0;
        io_uring_for_each_cqe(&gRing, head, ended) {
            count++;
            auto *c = static_cast<Connection *>(io_uring_cqe_get_data(ended));
            if (c == nullptr) {
                if (ended->res < 0) continue;
                c = new Connection;
                c->Fd = ended->res;
                setsockopt(c->Fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                Receive(c);
            } else if (ended->res <= 0) {
                close(c->Fd);
                delete c;
            } else if (c->Sending) {
                if (static_cast<size_t>(ended->res) < c->Out.size()) {
                    c->Out.erase(0, static_cast<size_t>(ended->res));
                    Send(c, 0);
                } else {
                    c->Out.clear();
                    c->Sending = false;
                    Receive(c);
                }
            } else {
                c->In.append(c->Buffer, static_cast<size_t>(ended->res));
                Serve(c);
                c->Sending = !c->Out.empty();
                if (c->Sending)
                    Send(c, 0);
                else
                    Receive(c);
            }
        }
        io_uring_cq_advance(&gRing, count);
    }
}
