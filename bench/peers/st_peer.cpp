// bench/peers/st_peer.cpp - the same cases on State Threads. It has no yield of its own; st_usleep(0) is what its
// programs use instead. Cases: yield, create, wait_ended, park, post_wait, lock, serve (a key-value server on --port, a
// thread a connection), and beside --threads parked threads yield_parked, timed_parked, event_parked.
extern "C" {
#include <st.h>
}

#include <csignal>

#include "bench/harness.h"
#include "bench/peers/resp.h"

namespace {

using namespace bench;

Options gOptions;
uint64_t gEnded;

[[noreturn]] void Leave() {
    std::fflush(nullptr);
    std::_Exit(0);
}

st_thread_t Create(void *(*start)(void *), bool joinable) {
    st_thread_t thread = st_thread_create(start, nullptr, joinable ? 1 : 0, 0);
    if (thread == nullptr) Fail("st_thread_create");
    return thread;
}

void *Yielder(void *) {
    for (;;) st_usleep(0);
}

void *CountAndEnd(void *) {
    ++gEnded;
    return nullptr;
}

void *Park(void *) {
    for (;;) st_usleep(ST_UTIME_NO_TIMEOUT);
}

void YieldCase(const std::string &name, uint32_t threads) {
    for (uint32_t i = 1; i < threads; ++i) Create(Yielder, false);
    st_usleep(0);
    Measure(
        gOptions, name,
        [threads](uint64_t n) {
            const uint64_t laps = (n + threads - 1) / threads;
            const double start = NowNs();
            for (uint64_t i = 0; i < laps; ++i) st_usleep(0);
            return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(laps * threads);
        },
        threads * 4);
    Leave();
}

void CreateCase() {
    std::vector<st_thread_t> batch(gOptions.Threads);
    Measure(gOptions, "create/" + std::to_string(gOptions.Threads), [&](uint64_t n) {
        const double start = NowNs();
        uint64_t done = 0;
        for (; done < n; done += gOptions.Threads) {
            for (auto &thread : batch) thread = Create(CountAndEnd, true);
            for (auto thread : batch) st_thread_join(thread, nullptr);
        }
        return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(done);
    });
    Leave();
}

void WaitEndedCase() {
    std::vector<st_thread_t> batch(gOptions.Threads);
    Measure(
        gOptions, "wait_ended",
        [&](uint64_t n) {
            double took = 0;
            uint64_t done = 0;
            for (; done < n; done += gOptions.Threads) {
                for (auto &thread : batch) thread = Create(CountAndEnd, true);
                for (int i = 0; i < 4; ++i) st_usleep(0);
                const double start = NowNs();
                for (auto thread : batch) st_thread_join(thread, nullptr);
                took += NowNs() - start;
            }
            return took * static_cast<double>(n) / static_cast<double>(done);
        },
        gOptions.Threads * 4, gOptions.Threads * 400, false);
    Leave();
}

// A round trip over two condition variables; everything runs on one kernel thread, so no mutex goes with them.
st_cond_t gPing;
st_cond_t gPong;
st_utime_t gTimeout = ST_UTIME_NO_TIMEOUT;

void *Answerer(void *) {
    for (;;) {
        st_cond_timedwait(gPing, gTimeout);
        st_cond_signal(gPong);
    }
}

void RoundTrips(const std::string &name) {
    gPing = st_cond_new();
    gPong = st_cond_new();
    Create(Answerer, false);
    st_sleep(0);
    Measure(gOptions, name, [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            st_cond_signal(gPing);
            st_cond_timedwait(gPong, gTimeout);
        }
        return NowNs() - start;
    });
    Leave();
}

void *ParkTimed(void *) {
    for (;;) st_usleep(gTimeout);
}

void ParkedCase() {
    const std::string name = gOptions.Case + "/" + std::to_string(gOptions.Threads);
    if (gOptions.Case == "timed_parked") gTimeout = st_utime_t{3600} * 1000000;
    for (uint32_t i = 0; i < gOptions.Threads; ++i) Create(ParkTimed, false);
    for (int i = 0; i < 4; ++i) st_usleep(0);
    if (gOptions.Case == "yield_parked") YieldCase(name, 2);
    RoundTrips(name);
}

void LockCase() {
    st_mutex_t mutex = st_mutex_new();
    Measure(gOptions, "lock/1", [mutex](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            st_mutex_lock(mutex);
            Keep(mutex);
            st_mutex_unlock(mutex);
        }
        return NowNs() - start;
    });
    Leave();
}

void ParkCase() {
    constexpr uint32_t kFew = 1000;
    uint32_t have = 0;
    for (; have < kFew; ++have) Create(Park, false);
    for (int i = 0; i < 4; ++i) st_usleep(0);
    const double resident = StatusValue("VmRSS");
    const double tables = StatusValue("VmPTE");
    for (; have < gOptions.Threads; ++have) Create(Park, false);
    for (int i = 0; i < 4; ++i) st_usleep(0);
    const double more = gOptions.Threads - kFew;
    Report(gOptions, "park/resident", gOptions.Threads, {(StatusValue("VmRSS") - resident) / more}, "KiB");
    Report(gOptions, "park/page_tables", gOptions.Threads, {(StatusValue("VmPTE") - tables) / more}, "KiB");
    Report(gOptions, "park/kernel_threads", gOptions.Threads, {StatusValue("Threads")}, "threads");
    Leave();
}

Store gStore;

void *Session(void *connection) {
    const auto fd = static_cast<st_netfd_t>(connection);
    std::string in, out;
    char buffer[4096];
    for (;;) {
        const ssize_t got = st_read(fd, buffer, sizeof buffer, ST_UTIME_NO_TIMEOUT);
        if (got <= 0) break;
        in.append(buffer, static_cast<size_t>(got));
        bench::Answer(&gStore, &in, &out);
        if (st_write(fd, out.data(), out.size(), ST_UTIME_NO_TIMEOUT) < 0) break;
        out.clear();
    }
    st_netfd_close(fd);
    return nullptr;
}

void ServeCase() {
    signal(SIGPIPE, SIG_IGN);
    st_netfd_t listener = st_netfd_open_socket(ListenOn(gOptions.Port));
    for (;;) {
        st_netfd_t fd = st_accept(listener, nullptr, nullptr, ST_UTIME_NO_TIMEOUT);
        if (fd == nullptr) Fail("st_accept", errno);
        NoDelay(st_netfd_fileno(fd));
        if (st_thread_create(Session, fd, 0, 0) == nullptr) Fail("st_thread_create");
    }
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Impl = "state threads";
    if (!ParseOptions(argc, argv, &gOptions)) return 2;
    st_set_eventsys(ST_EVENTSYS_POLL);  // Debian builds it without epoll, and select ends at 1,024 connections
    if (st_init() != 0) Fail("st_init");
    if (gOptions.Case == "yield")
        YieldCase("yield/" + std::to_string(gOptions.Threads), gOptions.Threads);
    else if (gOptions.Case == "yield_parked" || gOptions.Case == "timed_parked" || gOptions.Case == "event_parked")
        ParkedCase();
    else if (gOptions.Case == "create")
        CreateCase();
    else if (gOptions.Case == "wait_ended")
        WaitEndedCase();
    else if (gOptions.Case == "post_wait")
        RoundTrips("post_wait");
    else if (gOptions.Case == "lock")
        LockCase();
    else if (gOptions.Case == "park")
        ParkCase();
    else if (gOptions.Case == "serve")
        ServeCase();
    return 2;
}
