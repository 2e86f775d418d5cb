// tests/platform/fiber_test.cpp - what goes with a fiber across a switch, and where its stack comes from.
//
// Real fibers on the test's own thread, and on a few more where a fiber moves between threads.
#include <errno.h>
#include <fenv.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unwind.h>

#include <atomic>
#include <exception>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "child.h"
#include "platform/base/fiber_internal.h"
#include "platform/os.h"

using namespace os;

namespace {

constexpr size_t kStack = 64 * 1024;

// A fiber that runs a function with its own name for going back.
struct Worker {
    FiberContext *Context = nullptr;
    FiberContext *Back = nullptr;
    void (*Body)(Worker *) = nullptr;
    int Steps = 0;
    bool Done = false;

    void Start(void (*body)(Worker *), size_t stack = kStack) {
        Body = body;
        Context = CreateFiber(stack, Run, this);
        ASSERT_NE(Context, nullptr);
    }
    // Runs the worker until it yields; the caller must be a fiber.
    void Resume() {
        ThreadBlock *block = CurrentThreadBlock();
        Back = block->Current;
        SwitchToFiber(block, Context);
    }
    void Yield() { SwitchToFiber(CurrentThreadBlock(), Back); }
    static void Run(void *data) {
        Worker *self = static_cast<Worker *>(data);
        self->Body(self);
        self->Done = true;
        self->Yield();
        abort();
    }
};

// The C library declares the address of errno constant for a function's life, so code that may move to another thread
// must not name it on both sides of a switch.
__attribute__((noinline)) int Errno() {
    asm volatile("");
    return errno;
}
__attribute__((noinline)) void SetErrno(int value) {
    asm volatile("");
    errno = value;
}

// Touches that much stack and leaves.
__attribute__((noinline)) void Dig() {
    char deep[300 * 1024];
    for (size_t i = 0; i < sizeof deep; i += 1024) deep[i] = 1;
    asm volatile("" : : "r"(deep) : "memory");
}

size_t CountMaps() {
    FILE *maps = fopen("/proc/self/maps", "r");
    size_t lines = 0;
    for (int c; (c = fgetc(maps)) != EOF;) lines += c == '\n';
    fclose(maps);
    return lines;
}

size_t ResidentPages() {
    FILE *file = fopen("/proc/self/statm", "r");
    unsigned long total = 0, resident = 0;
    EXPECT_EQ(fscanf(file, "%lu %lu", &total, &resident), 2);
    fclose(file);
    return resident;
}

}  // namespace

TEST(Fiber, SwitchCarriesControlWordsErrnoAndFiberData) {
    EXPECT_EQ(GetFiberData(), reinterpret_cast<void *>(kNoFiberData));
    int mine = 0;
    ASSERT_NE(ConvertThreadToFiber(&mine), nullptr);
    EXPECT_EQ(ConvertThreadToFiber(&mine), nullptr) << "a fiber already";

    // A new fiber starts with its creator's rounding; what each sets later is its own, in both units.
    ASSERT_EQ(fesetround(FE_DOWNWARD), 0);
    Worker worker;
    worker.Start([](Worker *self) {
        for (;;) {
            if (fegetround() != (self->Steps == 0 ? FE_DOWNWARD : FE_UPWARD)) break;
            if (GetFiberData() != self) break;
            if (errno != (self->Steps == 0 ? 0 : 1000 + self->Steps)) break;
            fesetround(FE_UPWARD);
            volatile double third = 1.0;
            volatile long double longThird = 1.0L;
            third = third / 3.0;
            longThird = longThird / 3.0L;
            if (third * 3.0 < 1.0 || longThird * 3.0L < 1.0L) break;  // rounded up in SSE and x87
            ++self->Steps;
            errno = 1000 + self->Steps;
            self->Yield();
        }
    });
    fesetround(FE_TONEAREST);
    for (int i = 1; i <= 5; ++i) {
        errno = i;
        worker.Resume();
        ASSERT_FALSE(worker.Done) << "saw a foreign value at step " << worker.Steps;
        EXPECT_EQ(errno, i);
        EXPECT_EQ(fegetround(), FE_TONEAREST);
        EXPECT_EQ(GetFiberData(), &mine);
    }
    EXPECT_EQ(worker.Steps, 5);
}

// Values that live in callee-saved registers and on the stack across thousands of switches among many fibers.
TEST(Fiber, RegistersAndLocalsSurviveARingOfFibers) {
    ConvertThreadToFiber(nullptr);
    constexpr int kFibers = 300;
    std::vector<Worker> ring(kFibers);
    for (Worker &worker : ring) {
        worker.Start([](Worker *self) {
            const uint64_t id = reinterpret_cast<uintptr_t>(self);
            uint64_t a = id, b = id * 3, c = id * 5, d = id * 7, e = id * 11, f = id * 13;
            char local[100];
            memset(local, static_cast<int>(id >> 6), sizeof local);
            for (int round = 0; round < 200; ++round) {
                self->Yield();
                a += id, b += a, c += b, d += c, e += d, f += e;
                asm volatile("" : "+r"(a), "+r"(b), "+r"(c), "+r"(d), "+r"(e), "+r"(f));
                for (char byte : local) self->Steps += byte != static_cast<char>(id >> 6);
            }
            uint64_t a2 = id, b2 = id * 3, c2 = id * 5, d2 = id * 7, e2 = id * 11, f2 = id * 13;
            for (int round = 0; round < 200; ++round) a2 += id, b2 += a2, c2 += b2, d2 += c2, e2 += d2, f2 += e2;
            if (a != a2 || b != b2 || c != c2 || d != d2 || e != e2 || f != f2) self->Steps = -1;
        });
    }
    for (int round = 0; round <= 200; ++round) {
        for (Worker &worker : ring) worker.Resume();
    }
    for (Worker &worker : ring) {
        EXPECT_TRUE(worker.Done);
        EXPECT_EQ(worker.Steps, 0);
        DeleteFiber(worker.Context);
    }
}

// A switch inside a catch block used to be where two fibers shared one list of caught exceptions.
TEST(Fiber, EachFiberHasItsOwnExceptionState) {
    ConvertThreadToFiber(nullptr);
    Worker worker;
    worker.Start([](Worker *self) {
        try {
            throw std::runtime_error("of the worker");
        } catch (...) {
            self->Yield();
            try {
                throw;
            } catch (const std::runtime_error &error) {
                self->Steps = strcmp(error.what(), "of the worker") == 0 ? 1 : -1;
            }
        }
    });
    worker.Resume();
    EXPECT_EQ(std::current_exception(), nullptr);
    try {
        throw std::logic_error("of the thread");
    } catch (...) {
        worker.Resume();
        EXPECT_TRUE(worker.Done);
        try {
            throw;
        } catch (const std::logic_error &error) {
            EXPECT_STREQ(error.what(), "of the thread");
        }
    }
    EXPECT_EQ(worker.Steps, 1);
    // And a fiber that switches while a destructor runs during unwinding.
    Worker unwinding;
    unwinding.Start([](Worker *self) {
        struct Guard {
            Worker *Self;
            ~Guard() { Self->Steps = std::uncaught_exceptions(), Self->Yield(); }
        };
        try {
            Guard guard{self};
            throw 1;
        } catch (int) {
        }
    });
    unwinding.Resume();
    EXPECT_EQ(unwinding.Steps, 1);
    EXPECT_EQ(std::uncaught_exceptions(), 0);
    unwinding.Resume();
    EXPECT_TRUE(unwinding.Done);
}

TEST(Fiber, AFiberThatMovedUsesTheNewThreadsBlockAndErrno) {
    Worker worker;
    worker.Start([](Worker *self) {
        for (;;) {
            // Three accessors on either side of the switch: an address kept across it would be the old thread's.
            ThreadBlock *before = CurrentThreadBlock();
            SetErrno(77);
            SetLastError(before->ThreadId);
            self->Yield();
            ThreadBlock *after = CurrentThreadBlock();
            if (after == before || GetLastError() != after->ThreadId || Errno() != 77 || GetFiberData() != self) return;
            ++self->Steps;
        }
    });
    std::atomic<int> turn{0};
    auto run = [&](int me) {
        ConvertThreadToFiber(&turn);
        SetLastError(CurrentThreadBlock()->ThreadId);
        for (int round = 0; round < 100; ++round) {
            while (turn.load(std::memory_order_acquire) != me) std::this_thread::yield();
            SetLastError(CurrentThreadBlock()->ThreadId);
            errno = me;
            worker.Resume();
            EXPECT_EQ(errno, me);
            EXPECT_EQ(GetFiberData(), &turn);
            turn.store(1 - me, std::memory_order_release);
        }
    };
    std::thread other(run, 1);
    std::thread first(run, 0);
    first.join();
    other.join();
    EXPECT_FALSE(worker.Done);
    EXPECT_EQ(worker.Steps, 199);
}

// Four threads take fibers from one queue, switch into them and put them back: what a race detector and the stack
// annotations must find in order.
TEST(Fiber, ManyFibersMoveAmongManyThreads) {
    constexpr int kFibers = 64;
    constexpr int kRounds = 300;
    std::vector<Worker> workers(kFibers);
    std::vector<std::atomic<uint32_t>> taken(kFibers);
    std::atomic<int> done{0};
    for (Worker &worker : workers) {
        worker.Start([](Worker *self) {
            std::vector<int> heap;
            while (self->Steps < kRounds) {
                volatile char frame[256];
                frame[self->Steps % 256] = static_cast<char>(self->Steps);
                ++self->Steps;
                heap.push_back(self->Steps);
                if (frame[(self->Steps - 1) % 256] != static_cast<char>(self->Steps - 1)) abort();
                self->Yield();
            }
            if (heap.back() != kRounds) abort();
        });
    }
    auto run = [&](unsigned seed) {
        ConvertThreadToFiber(nullptr);
        while (done.load(std::memory_order_relaxed) < kFibers) {
            seed = seed * 1664525 + 1013904223;
            const size_t i = seed >> 16 & (kFibers - 1);
            if (taken[i].exchange(1, std::memory_order_acquire) != 0) continue;
            if (!workers[i].Done) {
                workers[i].Resume();
                if (workers[i].Done) done.fetch_add(1);
            }
            taken[i].store(0, std::memory_order_release);
        }
    };
    std::vector<std::thread> threads;
    for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(run, seed);
    for (std::thread &thread : threads) thread.join();
    for (Worker &worker : workers) DeleteFiber(worker.Context);
}

TEST(Fiber, TenThousandParkedFibersCostAPageOrTwoEachAndFewMaps) {
    ConvertThreadToFiber(nullptr);
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    constexpr size_t kMany = 2000;
#else
    constexpr size_t kMany = 10000;
#endif
    std::vector<Worker> parked(kMany);
    const size_t mapsBefore = CountMaps();
    const size_t pagesBefore = ResidentPages();
    for (Worker &worker : parked) {
        worker.Start([](Worker *self) { self->Yield(); }, 1 << 20);
        if (HasFatalFailure()) return;
        worker.Resume();
    }
#if !defined(ZVX_ASAN) && !defined(ZVX_TSAN)
    EXPECT_LE(ResidentPages() - pagesBefore, kMany * 3 / 2);
    void *probe = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (madvise(probe, 4096, 102) == 0) {
        EXPECT_LE(CountMaps(), mapsBefore + 200) << "a guard must not cost a map";
    }
    munmap(probe, 4096);
#else
    static_cast<void>(mapsBefore), static_cast<void>(pagesBefore);
#endif
    for (Worker &worker : parked) {
        worker.Resume();
        EXPECT_TRUE(worker.Done);
        DeleteFiber(worker.Context);
    }
#if !defined(ZVX_ASAN) && !defined(ZVX_TSAN)
    EXPECT_LE(ResidentPages() - pagesBefore, 1024u * 3 / 2 + 1000) << "most free stacks must have given memory back";
#endif
    // Whichever list it comes from, warm or given back, a recycled fiber works; and they are all different.
    std::set<FiberContext *> seen;
    for (Worker &worker : parked) {
        Worker fresh;
        fresh.Body = [](Worker *self) { self->Steps = 42; };
        fresh.Context = CreateFiberRecycled(1 << 20, Worker::Run, &fresh);
        ASSERT_NE(fresh.Context, nullptr);
        fresh.Resume();
        EXPECT_EQ(fresh.Steps, 42);
        seen.insert(fresh.Context);
        worker.Context = fresh.Context;
    }
    EXPECT_EQ(seen.size(), kMany);
    EXPECT_EQ(CreateFiberRecycled(1 << 20, Worker::Run, nullptr), nullptr);
    for (Worker &worker : parked) DeleteFiber(worker.Context);
}

TEST(Fiber, RecyclingIsBySizeAndNeverGivesLessThanAsked) {
    EXPECT_EQ(CreateFiberRecycled(kStack, Worker::Run, nullptr), nullptr);
    for (size_t bytes = 16 * 1024; bytes <= (20u << 20); bytes = bytes * 9 / 8 + 1) {
        FiberContext *fiber = CreateFiber(bytes, Worker::Run, nullptr);
        ASSERT_NE(fiber, nullptr) << bytes;
        const char *low, *high;
        FiberStackBounds(fiber, &low, &high);
        ASSERT_GE(static_cast<size_t>(high - low), bytes);
        const_cast<char *>(low)[0] = 1;  // both ends are usable
        const_cast<char *>(high)[-1] = 1;
        DeleteFiber(fiber);
        FiberContext *again = CreateFiberRecycled(bytes, Worker::Run, nullptr);
        EXPECT_EQ(again, fiber);
        EXPECT_EQ(CreateFiberRecycled(bytes * 2, Worker::Run, nullptr), nullptr);
        DeleteFiber(again);
    }
}

TEST(Fiber, HighWaterCountsWhatWasTouchedAndNotTheGuard) {
    ConvertThreadToFiber(nullptr);
    Worker worker;
    worker.Start(
        [](Worker *self) {
            self->Yield();
            Dig();
            self->Yield();
        },
        1 << 20);
    worker.Resume();
    const size_t shallow = FiberStackHighWater(worker.Context);
    EXPECT_LE(shallow, 64u * 1024);
    worker.Resume();
    const size_t deep = FiberStackHighWater(worker.Context);
    EXPECT_GE(deep, 300u * 1024);
    EXPECT_LE(deep, 300u * 1024 + shallow + 16 * 1024);
    worker.Resume();
    DeleteFiber(worker.Context);
}

TEST(Fiber, UnwindersStopAtTheBottomOfAFiber) {
    ConvertThreadToFiber(nullptr);
    Worker worker;
    worker.Start([](Worker *self) {
        struct Count {
            int Frames;
            uintptr_t Last;
        } count = {0, 0};
        const _Unwind_Reason_Code code = _Unwind_Backtrace(
            [](_Unwind_Context *context, void *arg) {
                Count *counted = static_cast<Count *>(arg);
                counted->Last = _Unwind_GetIP(context);
                return ++counted->Frames > 50 ? _URC_END_OF_STACK : _URC_NO_REASON;
            },
            &count);
        self->Steps = code == _URC_END_OF_STACK && count.Frames <= 8 ? count.Frames : -count.Frames;
    });
    worker.Resume();
    EXPECT_GE(worker.Steps, 2) << "frames, negative when the unwinder ran past the bottom";
}

TEST(Fiber, FailureToMapIsReportedAndTheThreadGoesOn) {
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    GTEST_SKIP() << "a sanitizer needs more address space than the limit leaves";
#endif
    const ChildResult result = RunChild([] {
        ConvertThreadToFiber(nullptr);
        const rlimit limit = {size_t{400} << 20, size_t{400} << 20};
        setrlimit(RLIMIT_AS, &limit);
        // Slabs shrink as the space gets scarce, so that most of it is used before the first failure.
        int made = 0;
        SetLastError(0);
        FiberContext *last = nullptr;
        while (FiberContext *fiber = CreateFiber(1 << 20, Worker::Run, nullptr)) last = fiber, ++made;
        printf("%s error %u\n", made > 300 ? "many" : "few", GetLastError());
        DeleteFiber(last);
        printf("%s\n", CreateFiber(1 << 20, Worker::Run, nullptr) == last ? "recycled" : "lost");
        printf("%s\n", CreateFiber(size_t{1} << 50, Worker::Run, nullptr) == nullptr ? "refused" : "granted");
        fflush(stdout);
    });
    EXPECT_EQ(result.Output, "many error 8\nrecycled\nrefused\n");
}

// Kernels without guards in the page tables: the same stacks with one map more each.
TEST(Fiber, GuardsByProtectionReportTheMapLimit) {
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    GTEST_SKIP() << "the sanitizer's own maps count against the limit";
#endif
    const ChildResult result = RunChild([] {
        setenv("ZVXKVT_GUARD", "mprotect", 1);
        int made = 0;
        while (made < 100000 && CreateFiber(16384, Worker::Run, nullptr) != nullptr) ++made;
        printf("%s error %u\n", made > 10000 && made < 100000 ? "limited" : "odd", GetLastError());
        fflush(stdout);
    });
    long limit = 0;
    FILE *file = fopen("/proc/sys/vm/max_map_count", "r");
    if (file == nullptr || fscanf(file, "%ld", &limit) != 1 || limit > 150000)
        GTEST_SKIP() << "map limit unknown or high";
    fclose(file);
    EXPECT_EQ(result.Output, "limited error 8\n");
}
