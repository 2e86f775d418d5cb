// bench/peers/native_peer.cpp - the same cases on what the operating system gives: kernel threads, futexes, pread,
// nanosleep, and the bare waits of a ring.
//
// Cases: yield (--threads kernel threads on one processor that call sched_yield), create, wait_ended, park, sleep,
// futex (round trip between two threads that both sleep), futex_wake (one way, to a sleeper), cached, idle,
// lock (a mutex, uncontended, in a process with two threads), cas, cache_line (a round trip between two spinning
// threads), commit and commit_floor (see file_bench), serve (a key-value server on --port, a kernel thread a connection),
// and beside --threads parked threads yield_parked, timed_parked, event_parked.
#include <fcntl.h>
#include <liburing.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "bench/harness.h"
#include "bench/peers/resp.h"

namespace {

using namespace bench;

Options gOptions;

[[noreturn]] void Leave() {
    std::fflush(nullptr);
    std::_Exit(0);
}

pthread_t Create(void *(*start)(void *), void *param, size_t stackBytes = 0, int processor = -1) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackBytes != 0) pthread_attr_setstacksize(&attributes, stackBytes);
    if (processor >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<size_t>(processor), &set);
        pthread_attr_setaffinity_np(&attributes, sizeof set, &set);
    }
    pthread_t thread;
    const int error = pthread_create(&thread, &attributes, start, param);
    if (error != 0) Fail("pthread_create", error);
    pthread_attr_destroy(&attributes);
    return thread;
}

int ProcessorNumber(int nth) {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    int last = -1;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (!CPU_ISSET(static_cast<size_t>(i), &set)) continue;
        last = i;
        if (nth-- == 0) break;
    }
    return last;
}

// With a second thread, as in every host: a mutex may take a shortcut in a process with one.
void LockCase() {
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    Create([](void *) -> void * { pause(); return nullptr; }, nullptr);
    Measure(gOptions, "lock/1", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            pthread_mutex_lock(&mutex);
            Keep(mutex);
            pthread_mutex_unlock(&mutex);
        }
        return NowNs() - start;
    });
    Leave();
}

// What no lock between processors can do without.
void CasCase() {
    static std::atomic<uint32_t> word;
    Measure(gOptions, "lock/1", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            uint32_t expected = 0;
            word.compare_exchange_strong(expected, 1, std::memory_order_acquire);
            word.store(0, std::memory_order_release);
        }
        return NowNs() - start;
    });
}

void SleepNs(double ns) {
    timespec time{static_cast<time_t>(ns / 1e9), static_cast<long>(std::fmod(ns, 1e9))};
    nanosleep(&time, nullptr);
}

// ---- Yield -------------------------------------------------------------------------------------------

struct alignas(64) Counter {
    std::atomic<uint64_t> Value;
};

void *Yielder(void *counter) {
    auto *count = static_cast<Counter *>(counter);
    for (;;) {
        sched_yield();
        count->Value.store(count->Value.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
}

// The kernel need not go round in a circle, so every thread counts for itself.
void Yields(const std::string &name, uint32_t threads) {
    if (threads > 1000) Fail("so many runnable kernel threads stop the machine", threads);
    std::vector<Counter> counters(threads);
    for (auto &counter : counters) Create(Yielder, &counter, 64 * 1024, ProcessorNumber(0));
    const auto sum = [&] {
        uint64_t all = 0;
        for (const auto &counter : counters) all += counter.Value.load(std::memory_order_relaxed);
        return all;
    };
    SleepNs(5e7);
    std::vector<double> samples;
    const uint64_t first = sum();
    for (uint32_t i = 0; i < gOptions.Repetitions; ++i) {
        const uint64_t before = sum();
        const double start = NowNs();
        SleepNs(gOptions.RepetitionMs * 1e6);
        const uint64_t more = sum() - before;
        if (more != 0) samples.push_back((NowNs() - start) / static_cast<double>(more));
    }
    Report(gOptions, name, (sum() - first) / gOptions.Repetitions, samples);
    Leave();
}

void YieldCase() {
    Yields("yield/" + std::to_string(gOptions.Threads), gOptions.Threads);
}

// ---- Creation and end --------------------------------------------------------------------------------

std::atomic<uint64_t> gEnded;

void *CountAndEnd(void *) {
    gEnded.fetch_add(1, std::memory_order_relaxed);
    return nullptr;
}

void CreateCase() {
    std::vector<pthread_t> batch(gOptions.Threads);
    Measure(gOptions, "create/" + std::to_string(gOptions.Threads), [&](uint64_t n) {
        const double start = NowNs();
        uint64_t done = 0;
        for (; done < n; done += gOptions.Threads) {
            for (auto &thread : batch) thread = Create(CountAndEnd, nullptr);
            for (auto thread : batch) pthread_join(thread, nullptr);
        }
        return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(done);
    });
}

void WaitEndedCase() {
    std::vector<pthread_t> batch(gOptions.Threads);
    Measure(
        gOptions, "wait_ended",
        [&](uint64_t n) {
            double took = 0;
            uint64_t done = 0;
            for (; done < n; done += gOptions.Threads) {
                for (auto &thread : batch) thread = Create(CountAndEnd, nullptr);
                SleepNs(3e6);
                const double start = NowNs();
                for (auto thread : batch) pthread_join(thread, nullptr);
                took += NowNs() - start;
            }
            return took * static_cast<double>(n) / static_cast<double>(done);
        },
        gOptions.Threads * 4, gOptions.Threads * 20, false);
}

void *Park(void *) {
    for (;;) pause();
}

void ParkCase() {
    constexpr uint32_t kFew = 1000;
    uint32_t have = 0;
    for (; have < kFew; ++have) Create(Park, nullptr, 128 * 1024);
    SleepNs(2e8);
    const double resident = StatusValue("VmRSS");
    const double tables = StatusValue("VmPTE");
    for (; have < gOptions.Threads; ++have) Create(Park, nullptr, 128 * 1024);
    SleepNs(5e8);
    const double more = gOptions.Threads - kFew;
    Report(gOptions, "park/resident", gOptions.Threads, {(StatusValue("VmRSS") - resident) / more}, "KiB");
    Report(gOptions, "park/page_tables", gOptions.Threads, {(StatusValue("VmPTE") - tables) / more}, "KiB");
    Report(gOptions, "park/kernel_threads", gOptions.Threads, {StatusValue("Threads")}, "threads");
    Leave();
}

// Two active threads beside parked ones: round trips over two condition variables.
struct Flag {
    pthread_mutex_t Lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t Changed = PTHREAD_COND_INITIALIZER;
    bool Set = false;
    void Post() {
        pthread_mutex_lock(&Lock);
        Set = true;
        pthread_mutex_unlock(&Lock);
        pthread_cond_signal(&Changed);
    }
    void Wait(bool timed) {
        timespec until{time(nullptr) + 3600, 0};
        pthread_mutex_lock(&Lock);
        while (!Set) timed ? pthread_cond_timedwait(&Changed, &Lock, &until) : pthread_cond_wait(&Changed, &Lock);
        Set = false;
        pthread_mutex_unlock(&Lock);
    }
};
Flag gAsked, gAnswered;
bool gTimed;

void *AnswerFlag(void *) {
    for (;;) {
        gAsked.Wait(gTimed);
        gAnswered.Post();
    }
}

void *ParkOnFlag(void *) {
    for (Flag never;;) never.Wait(gTimed);
}

void ParkedCase() {
    const std::string name = gOptions.Case + "/" + std::to_string(gOptions.Threads);
    gTimed = gOptions.Case == "timed_parked";
    for (uint32_t i = 0; i < gOptions.Threads; ++i) Create(ParkOnFlag, nullptr, 128 * 1024);
    SleepNs(2e8);
    if (gOptions.Case == "yield_parked") Yields(name, 2);
    Create(AnswerFlag, nullptr, 128 * 1024);
    Measure(gOptions, name, [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            gAsked.Post();
            gAnswered.Wait(gTimed);
        }
        return NowNs() - start;
    });
    Leave();
}

// ---- Sleep -------------------------------------------------------------------------------------------

void SleepCase() {
    std::vector<double> late;
    const double end = NowNs() + gOptions.Seconds * 1e9;
    for (uint32_t i = 0; NowNs() < end; ++i) {
        const uint32_t ms = gOptions.Threads != 0 ? gOptions.Threads : 1 + i % 20;
        const double start = NowNs();
        SleepNs(ms * 1e6);
        late.push_back((NowNs() - start) / 1e3 - ms * 1e3);
    }
    Report(gOptions, gOptions.Threads != 0 ? "sleep/" + std::to_string(gOptions.Threads) : "sleep/1-20", late.size(),
           late, "us late", "lower", {{"p90", Percentile(late, 90)}, {"p99", Percentile(late, 99)}});
}

// ---- Futexes -----------------------------------------------------------------------------------------

alignas(64) std::atomic<uint32_t> gPing;
alignas(64) std::atomic<uint32_t> gPong;
alignas(64) std::atomic<double> gWokeAt;

void Wait(std::atomic<uint32_t> *word) {
    while (word->load(std::memory_order_acquire) == 0)
        syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    word->store(0, std::memory_order_relaxed);
}

void Wake(std::atomic<uint32_t> *word) {
    word->store(1, std::memory_order_release);
    syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void *Answer(void *) {
    for (;;) {
        Wait(&gPing);
        Wake(&gPong);
    }
}

void *Stamp(void *) {
    for (;;) {
        Wait(&gPing);
        gWokeAt.store(NowNs(), std::memory_order_release);
    }
}

void PinSelf(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    sched_setaffinity(0, sizeof set, &set);
}

void FutexCase() {
    const int other = ProcessorNumber(1);
    PinSelf(ProcessorNumber(0));
    Create(Answer, nullptr, 0, other);
    Measure(gOptions, "message/post", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            Wake(&gPing);
            Wait(&gPong);
        }
        return NowNs() - start;
    });
    Leave();
}

void *AnswerSpinning(void *) {
    for (;;) {
        while (gPing.load(std::memory_order_acquire) == 0) {
        }
        gPing.store(0, std::memory_order_relaxed);
        gPong.store(1, std::memory_order_release);
    }
}

void CacheLineCase() {
    const int other = ProcessorNumber(1);
    PinSelf(ProcessorNumber(0));
    Create(AnswerSpinning, nullptr, 0, other);
    Measure(gOptions, "message/post", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            gPing.store(1, std::memory_order_release);
            while (gPong.load(std::memory_order_acquire) == 0) {
            }
            gPong.store(0, std::memory_order_relaxed);
        }
        return NowNs() - start;
    });
    Leave();
}

void FutexWakeCase() {
    const int other = ProcessorNumber(1);
    PinSelf(ProcessorNumber(0));
    Create(Stamp, nullptr, 0, other);
    std::vector<double> samples;
    Random random{88172645463325252ull};
    const double end = NowNs() + gOptions.Seconds * 1e9;
    while (NowNs() < end) {
        const double pause = NowNs() + 50000 + static_cast<double>(random.Next() % 2000000);
        while (NowNs() < pause) {
        }
        gWokeAt.store(0, std::memory_order_relaxed);
        const double sent = NowNs();
        Wake(&gPing);
        double woke;
        while ((woke = gWokeAt.load(std::memory_order_acquire)) == 0) {
        }
        samples.push_back(woke - sent);
    }
    Report(gOptions, "message/resume", samples.size(), samples, "ns", "lower",
           {{"p90", Percentile(samples, 90)}, {"p99", Percentile(samples, 99)}});
    Leave();
}

// ---- Reads from the page cache -----------------------------------------------------------------------

void CachedCase() {
    const uint64_t blocks = BlocksOfFile(gOptions.File);
    ReadWholeFile(gOptions.File);
    const int file = open(gOptions.File.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) Fail("open");
    static char *buffer = static_cast<char *>(std::aligned_alloc(4096, kReadBytes));
    Random random{88172645463325252ull};
    Measure(gOptions, "read_cached/random", [&](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            const auto offset = static_cast<off_t>(random.Next() % blocks * kReadBytes);
            if (pread(file, buffer, kReadBytes, offset) != kReadBytes) Fail("pread");
        }
        return NowNs() - start;
    });
    Measure(gOptions, "read_cached/sequential", [&](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            const ssize_t got = read(file, buffer, kReadBytes);
            if (got < 0) Fail("read");
            if (got < kReadBytes) lseek(file, 0, SEEK_SET);
        }
        return NowNs() - start;
    });
    close(file);
}

// ---- Durable writes of a group -------------------------------------------------------------------------

constexpr uint64_t kLogBytes = 32 << 20;  // of the data file, which is filled: nothing but data is written

// A batch as one durable write at the log's end.
void WriteBatch(int file, const char *batch, uint64_t bytes, uint64_t *at) {
    if (*at + bytes > kLogBytes) *at = 0;
    const iovec part{const_cast<char *>(batch), bytes};
    if (pwritev2(file, &part, 1, static_cast<off_t>(*at), RWF_DSYNC) != static_cast<ssize_t>(bytes)) Fail("pwritev2", errno);
    *at += bytes;
}

int OpenLog() {
    const int file = open(gOptions.File.c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0) Fail("open");
    return file;
}

std::atomic<uint64_t> gCommits;

void ReportCommits(uint64_t batches, double start) {
    const uint64_t commits = gCommits.load();
    Report(gOptions, "commit/" + std::to_string(gOptions.Threads), commits,
           {static_cast<double>(commits) * 1e9 / (NowNs() - start)}, "commits/s", "higher",
           {{"batch", static_cast<double>(commits) / static_cast<double>(batches)}});
    Leave();
}

// One thread writes batches as large as they can get with so many writers, and nobody waits for anybody.
void CommitFloorCase() {
    const int file = OpenLog();
    const std::vector<char> batch(size_t{kReadBytes} * gOptions.Threads, 'c');
    uint64_t at = 0, batches = 0;
    const double start = NowNs(), end = start + gOptions.Seconds * 1e9;
    for (; NowNs() < end; ++batches) {
        WriteBatch(file, batch.data(), batch.size(), &at);
        gCommits += gOptions.Threads;
    }
    ReportCommits(batches, start);
}

pthread_mutex_t gLogLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gMore = PTHREAD_COND_INITIALIZER;
pthread_cond_t gDurable = PTHREAD_COND_INITIALIZER;
std::vector<char> gGathering;
uint64_t gAppended, gSettled;  // bytes

void *Writer(void *) {
    const std::vector<char> record(kReadBytes, 'w');
    for (;;) {
        pthread_mutex_lock(&gLogLock);
        gGathering.insert(gGathering.end(), record.begin(), record.end());
        const uint64_t mine = gAppended += kReadBytes;
        pthread_cond_signal(&gMore);
        while (gSettled < mine) pthread_cond_wait(&gDurable, &gLogLock);
        pthread_mutex_unlock(&gLogLock);
        gCommits.fetch_add(1, std::memory_order_relaxed);
    }
}

void CommitCase() {
    const int file = OpenLog();
    std::vector<char> batch;
    batch.reserve(size_t{kReadBytes} * gOptions.Threads);
    gGathering.reserve(size_t{kReadBytes} * gOptions.Threads);
    for (uint32_t i = 0; i < gOptions.Threads; ++i) Create(Writer, nullptr, 128 * 1024);
    uint64_t at = 0, batches = 0;
    const double start = NowNs(), end = start + gOptions.Seconds * 1e9;
    for (; NowNs() < end; ++batches) {
        pthread_mutex_lock(&gLogLock);
        while (gGathering.empty()) pthread_cond_wait(&gMore, &gLogLock);
        batch.clear();
        batch.swap(gGathering);
        const uint64_t upTo = gAppended;
        pthread_mutex_unlock(&gLogLock);
        WriteBatch(file, batch.data(), batch.size(), &at);
        pthread_mutex_lock(&gLogLock);
        gSettled = upTo;
        pthread_cond_broadcast(&gDurable);
        pthread_mutex_unlock(&gLogLock);
    }
    ReportCommits(batches, start);
}

// ---- A server ----------------------------------------------------------------------------------------

Store gStore;
pthread_mutex_t gStoreLock = PTHREAD_MUTEX_INITIALIZER;

void *Session(void *connection) {
    const int fd = static_cast<int>(reinterpret_cast<intptr_t>(connection));
    std::string in, out;
    char buffer[4096];
    for (;;) {
        const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) break;
        in.append(buffer, static_cast<size_t>(got));
        pthread_mutex_lock(&gStoreLock);
        bench::Answer(&gStore, &in, &out);
        pthread_mutex_unlock(&gStoreLock);
        if (send(fd, out.data(), out.size(), MSG_NOSIGNAL) < 0) break;
        out.clear();
    }
    close(fd);
    return nullptr;
}

void ServeCase() {
    const int listener = ListenOn(gOptions.Port);
    for (;;) {
        const int fd = accept(listener, nullptr, nullptr);
        if (fd < 0) Fail("accept", errno);
        NoDelay(fd);
        pthread_detach(Create(Session, reinterpret_cast<void *>(static_cast<intptr_t>(fd)), 128 * 1024));
    }
}

// ---- Idle --------------------------------------------------------------------------------------------

// What a scheduler cannot do without when it waits at most a millisecond at a time.
void *WaitOnRing(void *) {
    io_uring ring;
    io_uring_params params{};
    params.flags = IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    if (io_uring_queue_init_params(64, &ring, &params) != 0) Fail("no ring");
    for (;;) {
        io_uring_cqe *done = nullptr;
        __kernel_timespec wait{0, static_cast<long long>(gOptions.PortWaitMs) * 1000000};
        if (wait.tv_nsec >= 1000000000) wait = {wait.tv_nsec / 1000000000, wait.tv_nsec % 1000000000};
        io_uring_submit_and_wait_timeout(&ring, &done, 1, &wait, nullptr);
        if (done != nullptr) io_uring_cqe_seen(&ring, done);
    }
}

void IdleCase() {
    Create(WaitOnRing, nullptr);
    Create(WaitOnRing, nullptr);
    SleepNs(3e8);
    const double cpu = ProcessorSeconds();
    const double start = NowNs();
    SleepNs(gOptions.Seconds * 1e9);
    Report(gOptions, "idle/port_wait_" + std::to_string(gOptions.PortWaitMs), 1,
           {(ProcessorSeconds() - cpu) * 1000 / ((NowNs() - start) / 1e9)}, "ms/s");
    Leave();
}

struct {
    const char *Name;
    const char *Impl;
    void (*Body)();
} const kCases[] = {
    {"yield", "pthreads", YieldCase},          {"create", "pthreads", CreateCase},
    {"wait_ended", "pthreads", WaitEndedCase}, {"park", "pthreads", ParkCase},
    {"sleep", "nanosleep", SleepCase},         {"futex", "futex", FutexCase},
    {"futex_wake", "futex", FutexWakeCase},    {"cached", "pread", CachedCase},
    {"idle", "bare rings", IdleCase},          {"lock", "pthreads", LockCase},
    {"cas", "one CAS", CasCase},               {"cache_line", "cache line", CacheLineCase},
    {"commit", "pthreads", CommitCase},        {"commit_floor", "one writer", CommitFloorCase},
    {"serve", "pthreads", ServeCase},          {"yield_parked", "pthreads", ParkedCase},
    {"timed_parked", "pthreads", ParkedCase},  {"event_parked", "pthreads", ParkedCase},
};

}  // namespace

int main(int argc, char **argv) {
    gOptions.Impl.clear();
    if (!ParseOptions(argc, argv, &gOptions)) return 2;
    for (const auto &item : kCases) {
        if (gOptions.Case != item.Name) continue;
        if (gOptions.Impl.empty()) gOptions.Impl = item.Impl;
        item.Body();
        return 0;
    }
    std::fprintf(stderr, "cases:");
    for (const auto &item : kCases) std::fprintf(stderr, " %s", item.Name);
    std::fprintf(stderr, "\n");
    return 2;
}
