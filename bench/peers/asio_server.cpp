// bench/peers/asio_server.cpp - the key-value server on Boost.Asio: one context on one kernel thread, a coroutine a
// connection. Boost.Fiber has no sockets of its own; this stands in its column.
//
//   asio_server PORT
#include <utility>  // Boost 1.74 forgets it

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include "bench/peers/resp.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

bench::Store gStore;

asio::awaitable<void> Session(tcp::socket client) {
    std::string in, out;
    char buffer[4096];
    try {
        for (;;) {
            const size_t got = co_await client.async_read_some(asio::buffer(buffer), asio::use_awaitable);
            in.append(buffer, got);
            bench::Answer(&gStore, &in, &out);
            co_await asio::async_write(client, asio::buffer(out), asio::use_awaitable);
            out.clear();
        }
    } catch (const std::exception &) {
        // The client has gone.
    }
}

asio::awaitable<void> Listen(tcp::acceptor acceptor) {
    for (;;) {
        tcp::socket client = co_await acceptor.async_accept(asio::use_awaitable);
        client.set_option(tcp::no_delay(true));
        asio::co_spawn(acceptor.get_executor(), Session(std::move(client)), asio::detached);
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PORT\n", argv[0]);
        return 2;
    }
    asio::io_context context(1);
    tcp::acceptor acceptor(context, tcp::v4(), bench::ListenOn(static_cast<unsigned>(std::atoi(argv[1]))));
    asio::co_spawn(context, Listen(std::move(acceptor)), asio::detached);
    context.run();
}
