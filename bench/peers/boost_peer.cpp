// bench/peers/boost_peer.cpp - the same cases on Boost.Fiber: its round-robin scheduler on one kernel thread.
//
// Cases: yield, create (with --impl naming the stack allocator: "boost" is the default one, "boost guarded" has a guard
// page under every stack as ours have, "boost pooled" recycles stacks), wait_ended, park, post_wait, message (the same
// between two kernel threads), lock, and beside --threads parked fibers yield_parked, timed_parked, event_parked.
#include <boost/fiber/all.hpp>

#include <condition_variable>
#include <thread>

#include "bench/harness.h"

namespace {

using namespace bench;
namespace fibers = boost::fibers;

Options gOptions;

// Fibers run until the process ends; what they would return to is gone by then.
[[noreturn]] void Leave() {
    std::fflush(nullptr);
    std::_Exit(0);
}

void YieldCase(const std::string &name, uint32_t threads) {
    for (uint32_t i = 1; i < threads; ++i) {
        fibers::fiber([] {
            for (;;) boost::this_fiber::yield();
        }).detach();
    }
    boost::this_fiber::yield();
    Measure(
        gOptions, name,
        [threads](uint64_t n) {
            const uint64_t laps = (n + threads - 1) / threads;
            const double start = NowNs();
            for (uint64_t i = 0; i < laps; ++i) boost::this_fiber::yield();
            return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(laps * threads);
        },
        threads * 4);
    Leave();
}

uint64_t gEnded;

template <typename Allocator>
void CreateCase(Allocator allocator) {
    std::vector<fibers::fiber> batch(gOptions.Threads);
    Measure(gOptions, "create/" + std::to_string(gOptions.Threads), [&](uint64_t n) {
        const double start = NowNs();
        uint64_t done = 0;
        for (; done < n; done += gOptions.Threads) {
            for (auto &fiber : batch) fiber = fibers::fiber(std::allocator_arg, allocator, [] { ++gEnded; });
            for (auto &fiber : batch) fiber.join();
        }
        return (NowNs() - start) * static_cast<double>(n) / static_cast<double>(done);
    });
}

void WaitEndedCase() {
    std::vector<fibers::fiber> batch(gOptions.Threads);
    Measure(
        gOptions, "wait_ended",
        [&](uint64_t n) {
            double took = 0;
            uint64_t done = 0;
            for (; done < n; done += gOptions.Threads) {
                for (auto &fiber : batch) fiber = fibers::fiber([] { ++gEnded; });
                for (int i = 0; i < 4; ++i) boost::this_fiber::yield();
                const double start = NowNs();
                for (auto &fiber : batch) fiber.join();
                took += NowNs() - start;
            }
            return took * static_cast<double>(n) / static_cast<double>(done);
        },
        gOptions.Threads * 4, gOptions.Threads * 400, false);
}

constexpr auto kLong = std::chrono::hours(1);

void ParkMany(uint32_t from, uint32_t to, bool timed = false) {
    static fibers::mutex lock;
    static fibers::condition_variable never;
    for (uint32_t i = from; i < to; ++i) {
        fibers::fiber(std::allocator_arg, fibers::protected_fixedsize_stack(128 * 1024), [timed] {
            std::unique_lock<fibers::mutex> guard(lock);
            while (timed) never.wait_for(guard, kLong);
            for (;;) never.wait(guard);
        }).detach();
    }
    for (int i = 0; i < 4; ++i) boost::this_fiber::yield();
}

void ParkCase() {
    constexpr uint32_t kFew = 1000;
    ParkMany(0, kFew);
    const double resident = StatusValue("VmRSS");
    const double tables = StatusValue("VmPTE");
    ParkMany(kFew, gOptions.Threads);
    const double more = gOptions.Threads - kFew;
    Report(gOptions, "park/resident", gOptions.Threads, {(StatusValue("VmRSS") - resident) / more}, "KiB");
    Report(gOptions, "park/page_tables", gOptions.Threads, {(StatusValue("VmPTE") - tables) / more}, "KiB");
    Report(gOptions, "park/kernel_threads", gOptions.Threads, {StatusValue("Threads")}, "threads");
    Leave();
}

// A round trip over two condition variables with their mutexes.
struct Flag {
    fibers::mutex Lock;
    fibers::condition_variable Changed;
    bool Set = false;
    void Post() {
        std::unique_lock<fibers::mutex> guard(Lock);
        Set = true;
        guard.unlock();
        Changed.notify_one();
    }
    void Wait(bool timed) {
        std::unique_lock<fibers::mutex> guard(Lock);
        while (!Set && timed) Changed.wait_for(guard, kLong);
        while (!Set) Changed.wait(guard);
        Set = false;
    }
};

void RoundTrips(const std::string &name, bool twoThreads, bool timed = false) {
    static Flag ping, pong;
    const auto answer = [timed] {
        for (;;) {
            ping.Wait(timed);
            pong.Post();
        }
    };
    if (twoThreads)
        std::thread(answer).detach();  // its main fiber waits as any other does
    else
        fibers::fiber(answer).detach();
    Measure(gOptions, name, [timed](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            ping.Post();
            pong.Wait(timed);
        }
        return NowNs() - start;
    });
    Leave();
}

void ParkedCase() {
    const bool timed = gOptions.Case == "timed_parked";
    const std::string name = gOptions.Case + "/" + std::to_string(gOptions.Threads);
    ParkMany(0, gOptions.Threads, timed);
    if (gOptions.Case == "yield_parked") YieldCase(name, 2);
    RoundTrips(name, false, timed);
}

void LockCase() {
    static fibers::mutex mutex;
    Measure(gOptions, "lock/1", [](uint64_t n) {
        const double start = NowNs();
        for (uint64_t i = 0; i < n; ++i) {
            mutex.lock();
            Keep(mutex);
            mutex.unlock();
        }
        return NowNs() - start;
    });
}

}  // namespace

int main(int argc, char **argv) {
    gOptions.Impl = "boost";
    if (!ParseOptions(argc, argv, &gOptions)) return 2;
    if (gOptions.Case == "yield")
        YieldCase("yield/" + std::to_string(gOptions.Threads), gOptions.Threads);
    else if (gOptions.Case == "yield_parked" || gOptions.Case == "timed_parked" || gOptions.Case == "event_parked")
        ParkedCase();
    else if (gOptions.Case == "create" && gOptions.Impl == "boost guarded")
        CreateCase(fibers::protected_fixedsize_stack());
    else if (gOptions.Case == "create" && gOptions.Impl == "boost pooled")
        CreateCase(fibers::pooled_fixedsize_stack());
    else if (gOptions.Case == "create")
        CreateCase(fibers::default_stack());
    else if (gOptions.Case == "wait_ended")
        WaitEndedCase();
    else if (gOptions.Case == "post_wait")
        RoundTrips("post_wait", false);
    else if (gOptions.Case == "message")
        RoundTrips("message/post", true);
    else if (gOptions.Case == "lock")
        LockCase();
    else if (gOptions.Case == "park")
        ParkCase();
    else
        return 2;
    return 0;
}
