// bench/peers/ring_server.cpp - a key-value server on a bare ring: what a hand-written event loop costs a request.
//
// One kernel thread, one ring set up as the library's are; a receive entry a connection and its answer as a send entry,
// submitted together.
//
//   ring_server PORT
#include <liburing.h>
#include <unistd.h>

#include <csignal>

#include "bench/peers/resp.h"

namespace {

struct Connection {
    int Fd = -1;
    bool Sending = false;
    std::string In;   // what no whole request has come out of yet
    std::string Out;
    char Buffer[16384];
};

io_uring gRing;
bench::Store gStore;

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

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    const int listener = bench::ListenOn(static_cast<unsigned>(std::atoi(argv[1])));
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
                bench::NoDelay(c->Fd);
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
                bench::Answer(&gStore, &c->In, &c->Out);
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
