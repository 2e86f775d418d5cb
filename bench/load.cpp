// bench/load.cpp - a client that loads a RESP server and says how long the answers took.
//
// With --rate it is an open loop: request i has its intended time, start + i / rate, and belongs to connection i modulo
// their number. It is sent at that time, or as soon as its connection is free again, and its latency counts from the
// intended time: a server that stalls is charged for every request that should have been sent meanwhile. What has no
// answer at the end is counted with the time that it has waited. Without --rate it is a closed loop, which finds the
// highest rate: every connection asks as soon as it was answered.
//
// One thread, epoll, nothing of the library. Prints one JSON line: asked and reached rate (requests a second), p50,
// p99, p99.9 and max (microseconds; the upper ends of buckets 3 % wide, max is exact), errors, unanswered, how late the
// client itself was (late_p99), and with --pid the processor time of that process a request (cpu_us).
//
//   load --port N [--rate R] [--connections N] [--seconds S] [--warm-up S] [--kind get|set|ping] [--value-bytes N]
//        [--keys N] [--fill 1] [--pipeline N] [--idle N] [--pid N]
//
// --fill writes every key first; --idle holds so many more connections, each of which was answered once; --pipeline
// sends so many requests together (closed loop only).
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <map>

#include "bench/harness.h"

namespace {

using namespace bench;

struct {
    uint32_t Port = 0, Connections = 50, ValueBytes = 64, Keys = 10000, Fill = 0, Pipeline = 1, Idle = 0;
    double Rate = 0, Seconds = 3, WarmUp = 0.5;
    std::string Kind = "get";
    int Pid = 0;
} gLoad;

// ---- Latencies: logarithmic buckets from 1 us on, each 3 % wider than the one before ---------------------

struct Histogram {
    static constexpr double kWidth = 1.03, kFirstNs = 1000;
    std::array<uint64_t, 800> Counts{};  // the last begins at five hours
    uint64_t Total = 0;
    double Max = 0;

    void Add(double ns) {
        const double bucket = ns <= kFirstNs ? 0 : std::log(ns / kFirstNs) / std::log(kWidth) + 1;
        Counts[std::min(static_cast<size_t>(bucket), Counts.size() - 1)]++;
        Total++;
        Max = std::max(Max, ns);
    }

    double Us(double percent) const {
        const double wanted = percent / 100 * static_cast<double>(Total);
        uint64_t sum = 0;
        for (size_t i = 0; i < Counts.size(); ++i) {
            sum += Counts[i];
            if (sum != 0 && static_cast<double>(sum) >= wanted)
                return std::min(Max, kFirstNs * std::pow(kWidth, static_cast<double>(i))) / 1000;
        }
        return 0;
    }
};

// ---- Connections -----------------------------------------------------------------------------------------

struct Connection {
    int Fd = -1;
    uint64_t Sent = 0;  // requests, those of --pipeline counted each
    uint64_t Answered = 0;
    double AskedAt = 0;  // closed loop: when the latest were sent
    std::string In;
};

uint64_t gErrors;
Random gRandom{88172645463325252ull};

// Ports of one source address do not reach for 30,000 connections, so each 20,000 have their own.
int Connect(uint32_t nth) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in name{};
    name.sin_family = AF_INET;
    if (nth >= 20000) {
        name.sin_addr.s_addr = htonl(INADDR_LOOPBACK + nth / 20000);
        const int one = 1;
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one);
        if (bind(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) Fail("bind", errno);
    }
    name.sin_port = htons(static_cast<uint16_t>(gLoad.Port));
    name.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr *>(&name), sizeof name) != 0) Fail("connect", errno);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

std::string Request(const std::string &kind, uint64_t key) {
    if (kind == "ping") return "*1\r\n$4\r\nPING\r\n";
    char name[16];
    std::snprintf(name, sizeof name, "key%09llu", static_cast<unsigned long long>(key));
    if (kind == "get") return std::string("*2\r\n$3\r\nGET\r\n$12\r\n") + name + "\r\n";
    return std::string("*3\r\n$3\r\nSET\r\n$12\r\n") + name + "\r\n$" + std::to_string(gLoad.ValueBytes) + "\r\n" +
           std::string(gLoad.ValueBytes, 'v') + "\r\n";
}

// A request is small and its connection has nothing under way, so that it always fits.
void SendAll(int fd, const std::string &text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t sent = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (sent < 0) Fail("send", errno);
        at += static_cast<size_t>(sent);
    }
}

void Ask(Connection *c) {
    std::string text;
    for (uint32_t i = 0; i < gLoad.Pipeline; ++i) text += Request(gLoad.Kind, gRandom.Next() % gLoad.Keys);
    c->Sent += gLoad.Pipeline;
    SendAll(c->Fd, text);
}

// Takes whole answers out of what was received and returns how many.
uint64_t TakeAnswers(std::string *in) {
    uint64_t count = 0;
    size_t at = 0;
    for (;;) {
        const size_t line = in->find("\r\n", at);
        if (line == std::string::npos) break;
        size_t end = line + 2;
        if ((*in)[at] == '$' && (*in)[at + 1] != '-') end += std::strtoul(in->c_str() + at + 1, nullptr, 10) + 2;
        if (end > in->size()) break;
        const bool error = (*in)[at] == '-' || ((*in)[at] == '$' && (*in)[at + 1] == '-');
        gErrors += error;
        at = end;
        count++;
    }
    in->erase(0, at);
    return count;
}

uint64_t Receive(Connection *c) {
    char buffer[65536];
    const ssize_t got = recv(c->Fd, buffer, sizeof buffer, 0);
    if (got <= 0) Fail("the server closed a connection", errno);
    c->In.append(buffer, static_cast<size_t>(got));
    const uint64_t count = TakeAnswers(&c->In);
    c->Answered += count;
    return count;
}

void AwaitAnswers(Connection *c) {
    while (c->Answered < c->Sent) Receive(c);
}

void Fill() {
    Connection c;
    c.Fd = Connect(0);
    for (uint32_t key = 0; key < gLoad.Keys;) {
        std::string text;
        for (int i = 0; i < 64 && key < gLoad.Keys; ++i, ++key, ++c.Sent) text += Request("set", key);
        SendAll(c.Fd, text);
        AwaitAnswers(&c);
    }
    close(c.Fd);
    if (gErrors != 0) Fail("the server refuses writes", static_cast<long long>(gErrors));
}

// ---- The measurement -------------------------------------------------------------------------------------

std::vector<Connection> gConnections;
int gSet;

double ServerCpuNs() {
    clockid_t clock;
    timespec time{};
    if (gLoad.Pid == 0) return 0;
    if (clock_getcpuclockid(gLoad.Pid, &clock) != 0 || clock_gettime(clock, &time) != 0) Fail("processor time");
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// What has arrived, up to `ns` from now; at once when that is past.
int WaitForAnswers(epoll_event *ready, int most, double ns) {
    ns = std::max(ns, 0.0);
    const timespec time{static_cast<time_t>(ns / 1e9), static_cast<long>(std::fmod(ns, 1e9))};
    const int count = epoll_pwait2(gSet, ready, most, &time, nullptr);
    if (count < 0 && errno != EINTR) Fail("epoll_pwait2", errno);
    return std::max(count, 0);
}

struct Result {
    Histogram Latency, Late;
    uint64_t Answers = 0, Unanswered = 0;
    double Took = 0, CpuNs = 0;
};

void ClosedLoop(Result *result) {
    const double begin = NowNs(), start = begin + gLoad.WarmUp * 1e9, end = start + gLoad.Seconds * 1e9;
    for (Connection &c : gConnections) {
        c.AskedAt = NowNs();
        Ask(&c);
    }
    double measured = 0, cpu = 0, now = begin, heard = begin;
    while (now < end) {
        epoll_event ready[256];
        const int count = WaitForAnswers(ready, 256, 1e8);
        now = NowNs();
        if (count != 0) heard = now;
        if (now - heard > 2e10) Fail("the server answers no more");
        if (measured == 0 && now >= start) {
            measured = now;
            cpu = ServerCpuNs();
        }
        for (int i = 0; i < count; ++i) {
            Connection *c = static_cast<Connection *>(ready[i].data.ptr);
            const uint64_t answers = Receive(c);
            if (measured != 0) {
                result->Answers += answers;
                for (uint64_t n = 0; n < answers; ++n) result->Latency.Add(NowNs() - c->AskedAt);
            }
            if (c->Answered < c->Sent) continue;
            c->AskedAt = NowNs();
            Ask(c);
        }
    }
    result->Took = now - measured;
    result->CpuNs = ServerCpuNs() - cpu;
}

void OpenLoop(Result *result) {
    const double between = 1e9 / gLoad.Rate;
    const auto n = static_cast<double>(gConnections.size());
    const double begin = NowNs(), start = begin + gLoad.WarmUp * 1e9, end = start + gLoad.Seconds * 1e9;
    // When connection c is to send the request that follows `sent` earlier ones of its own.
    const auto intended = [&](const Connection *c, uint64_t sent) {
        return begin + (static_cast<double>(sent) * n + static_cast<double>(c - gConnections.data())) * between;
    };
    double measured = 0, cpu = 0;
    uint64_t next = 0;
    for (double now = begin; now < end;) {
        // Those whose time has come; one whose connection still waits for an answer goes when it has that.
        for (; begin + static_cast<double>(next) * between <= now; ++next) {
            Connection *c = &gConnections[next % gConnections.size()];
            if (c->Answered < c->Sent || intended(c, c->Sent) > now) continue;
            const double due = intended(c, c->Sent);
            if (due >= start) result->Late.Add(NowNs() - due);
            Ask(c);
        }
        epoll_event ready[256];
        const double wake = std::min(begin + static_cast<double>(next) * between, end);
        const int count = WaitForAnswers(ready, 256, wake - NowNs());
        now = NowNs();
        if (measured == 0 && now >= start) {
            measured = now;
            cpu = ServerCpuNs();
        }
        for (int i = 0; i < count; ++i) {
            Connection *c = static_cast<Connection *>(ready[i].data.ptr);
            if (Receive(c) == 0) continue;
            const double due = intended(c, c->Answered - 1);
            const double at = NowNs();
            if (measured != 0) result->Answers++;
            if (due >= start) result->Latency.Add(at - due);
            if (intended(c, c->Sent) <= at && at < end) Ask(c);
        }
    }
    result->Took = NowNs() - measured;
    result->CpuNs = ServerCpuNs() - cpu;
    // The answers to what is under way still count; then whatever was due and has none.
    for (const double stop = NowNs() + 1e9; NowNs() < stop;) {
        bool waiting = false;
        for (const Connection &c : gConnections) waiting |= c.Answered < c.Sent;
        if (!waiting) break;
        epoll_event ready[256];
        const int count = WaitForAnswers(ready, 256, stop - NowNs());
        for (int i = 0; i < count; ++i) {
            Connection *c = static_cast<Connection *>(ready[i].data.ptr);
            if (Receive(c) != 0 && intended(c, c->Answered - 1) >= start)
                result->Latency.Add(NowNs() - intended(c, c->Answered - 1));
        }
    }
    const double now = NowNs();
    for (const Connection &c : gConnections) {
        for (uint64_t k = c.Answered; intended(&c, k) < end; ++k) {
            if (intended(&c, k) < start) continue;
            result->Latency.Add(now - intended(&c, k));
            result->Unanswered++;
        }
    }
}

bool Parse(int argc, char **argv) {
    const std::map<std::string, uint32_t *> counts{{"--port", &gLoad.Port},
                                                   {"--connections", &gLoad.Connections},
                                                   {"--value-bytes", &gLoad.ValueBytes},
                                                   {"--keys", &gLoad.Keys},
                                                   {"--fill", &gLoad.Fill},
                                                   {"--pipeline", &gLoad.Pipeline},
                                                   {"--idle", &gLoad.Idle}};
    const std::map<std::string, double *> times{
        {"--rate", &gLoad.Rate}, {"--seconds", &gLoad.Seconds}, {"--warm-up", &gLoad.WarmUp}};
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i];
        if (i + 1 >= argc) return false;
        if (counts.count(name) != 0)
            *counts.at(name) = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
        else if (times.count(name) != 0)
            *times.at(name) = std::atof(argv[i + 1]);
        else if (name == "--kind")
            gLoad.Kind = argv[i + 1];
        else if (name == "--pid")
            gLoad.Pid = std::atoi(argv[i + 1]);
        else
            return false;
    }
    return gLoad.Port != 0 && gLoad.Connections != 0 && gLoad.Keys != 0 && gLoad.Pipeline != 0 &&
           (gLoad.Rate == 0 || gLoad.Pipeline == 1) &&
           (gLoad.Kind == "get" || gLoad.Kind == "set" || gLoad.Kind == "ping");
}

}  // namespace

int main(int argc, char **argv) {
    if (!Parse(argc, argv)) {
        std::fprintf(stderr,
                     "usage: %s --port N [--rate R] [--connections N] [--seconds S] [--warm-up S]\n"
                     "       [--kind get|set|ping] [--value-bytes N] [--keys N] [--fill 1] [--pipeline N] [--idle N] "
                     "[--pid N]\n",
                     argv[0]);
        return 2;
    }
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);  // the default lets every wait end 50 us late
    if (gLoad.Fill != 0) Fill();
    gSet = epoll_create1(EPOLL_CLOEXEC);
    gConnections.resize(gLoad.Connections);
    for (uint32_t i = 0; i < gLoad.Connections; ++i) {
        gConnections[i].Fd = Connect(i);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &gConnections[i];
        epoll_ctl(gSet, EPOLL_CTL_ADD, gConnections[i].Fd, &event);
    }
    // By the hundred: a server that looks at every connection to find one that asks finds many in one look.
    for (uint32_t i = 0; i < gLoad.Idle;) {
        std::vector<Connection> batch(std::min(gLoad.Idle - i, 100u));
        for (Connection &c : batch) {
            c.Fd = Connect(gLoad.Connections + i++);
            c.Sent = 1;
            SendAll(c.Fd, Request("ping", 0));
        }
        for (Connection &c : batch) AwaitAnswers(&c);
    }
    Result result;
    if (gLoad.Rate > 0)
        OpenLoop(&result);
    else
        ClosedLoop(&result);
    std::printf(
        "{\"asked\":%.6g,\"reached\":%.6g,\"p50\":%.4g,\"p99\":%.4g,\"p99.9\":%.4g,\"max\":%.6g,\"requests\":%llu,"
        "\"errors\":%llu,\"unanswered\":%llu,\"late_p99\":%.4g,\"cpu_us\":%.4g}\n",
        gLoad.Rate, static_cast<double>(result.Answers) * 1e9 / result.Took, result.Latency.Us(50),
        result.Latency.Us(99), result.Latency.Us(99.9), result.Latency.Max / 1000,
        static_cast<unsigned long long>(result.Answers), static_cast<unsigned long long>(gErrors),
        static_cast<unsigned long long>(result.Unanswered), result.Late.Us(99),
        result.Answers != 0 ? result.CpuNs / 1000 / static_cast<double>(result.Answers) : 0);
    return gErrors == 0 ? 0 : 1;
}
