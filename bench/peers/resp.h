// bench/peers/resp.h - requests and answers of the peers' key-value servers: GET, SET and PING of RESP, in memory only.
//
// Neither checks nor limits: a peer exists to be measured. A server with one kernel thread uses a Store as it is; one
// with several puts a lock around Answer.
#ifndef ZVX_BENCH_PEERS_RESP_H
#define ZVX_BENCH_PEERS_RESP_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

namespace bench {

using Store = std::unordered_map<std::string, std::string>;

// One array of bulk strings from `at`; false when it is not whole.
inline bool ParseRequest(const std::string &in, size_t *at, std::string_view *words, int *count) {
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

// Takes every whole request out of `in` and appends its answer to `out`.
inline void Answer(Store *store, std::string *in, std::string *out) {
    size_t at = 0;
    std::string_view words[4];
    int count = 0;
    while (at < in->size() && ParseRequest(*in, &at, words, &count)) {
        if (count == 2 && words[0] == "GET") {
            auto found = store->find(std::string(words[1]));
            if (found == store->end()) {
                *out += "$-1\r\n";
            } else {
                *out += '$';
                *out += std::to_string(found->second.size());
                *out += "\r\n";
                *out += found->second;
                *out += "\r\n";
            }
        } else if (count == 3 && words[0] == "SET") {
            (*store)[std::string(words[1])] = std::string(words[2]);
            *out += "+OK\r\n";
        } else {
            *out += "+PONG\r\n";
        }
    }
    in->erase(0, at);
}

inline void NoDelay(int fd) {
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// A listening descriptor on the loopback address; ends the process when there is none.
inline int ListenOn(unsigned port) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(static_cast<uint16_t>(port));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name) == 0 && listen(listener, 4096) == 0)
        return listener;
    std::perror("listen");
    std::_Exit(1);
}

}  // namespace bench

#endif  // ZVX_BENCH_PEERS_RESP_H
