// tests/platform/fiber_test.cpp - what goes with a fiber across a switch, what belongs to it, where its stack comes
// from, and the report of an overflow of it, in child processes.
#include <fenv.h>
#include <signal.h>
#include <sys/mman.h>

#include <algorithm>
#include <regex>
#include <stdexcept>

#include "support.h"

using namespace os;

namespace {

// A fiber that runs a function with its own name for going back.
struct Worker {
    FiberContext *Context = nullptr, *Back = nullptr;
    void (*Body)(Worker *) = nullptr;
    int Steps = 0;
    bool Done = false;

    void Start(void (*body)(Worker *), size_t stack = 64 * 1024) {
        Body = body;
        Context = CreateFiber(stack, Run, this);
        ASSERT_NE(Context, nullptr);
    }
    // Runs the worker until it yields; the caller must be a fiber.
    void Resume() {
        Back = CurrentThreadBlock()->Current;
        SwitchToFiber(CurrentThreadBlock(), Context);
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
__attribute__((noinline)) int &Errno() {
    asm volatile("");
    return errno;
}

size_t CountMaps() {
    const std::string maps = ReadWhole("/proc/self/maps");
    return static_cast<size_t>(std::count(maps.begin(), maps.end(), '\n'));
}

// Touches its frame before it goes deeper, as any function does; the result is used after the call, so that no
// compiler makes a loop of it. All of the frame is in use: a race detector keeps a list of the calls, and has no room
// for as many small ones as fit on the stack of a kernel thread.
__attribute__((noinline)) int Recurse(int depth) {
    volatile char frame[512];
    frame[depth % 512] = static_cast<char>(depth);
    return depth == 0 ? 0 : Recurse(depth + 1) + frame[depth % 512];
}

void Overflow(void *) {
    printf("%d", Recurse(1));
}

void RunFiber(void (*start)(void *), size_t stack) {
    ConvertThreadToFiber(const_cast<char *>("main"));
    SetFiberTagFunction([](const void *data) { return static_cast<const char *>(data); });
    SwitchToFiber(CurrentThreadBlock(), CreateFiber(stack, start, const_cast<char *>("SHAD")));
}

volatile uintptr_t gWild = 8;  // an address that nothing is mapped at

void WriteWild(void *) {
    *reinterpret_cast<volatile int *>(gWild) = 1;
}

}  // namespace

TEST(Fiber, SwitchCarriesControlWordsErrnoAndFiberData) {
    int mine = 0;
    ASSERT_NE(ConvertThreadToFiber(&mine), nullptr);
    // A new fiber starts with its creator's rounding; what each sets later is its own, in SSE and x87.
    ASSERT_EQ(fesetround(FE_DOWNWARD), 0);
    Worker worker;
    worker.Start([](Worker *self) {
        for (;;) {
            if (fegetround() != (self->Steps == 0 ? FE_DOWNWARD : FE_UPWARD)) break;
            if (GetFiberData() != self || errno != (self->Steps == 0 ? 0 : 1000 + self->Steps)) break;
            fesetround(FE_UPWARD);
            volatile double three = 3.0;
            volatile long double longThree = 3.0L;
            if (1.0 / three * 3.0 < 1.0 || 1.0L / longThree * 3.0L < 1.0L) break;
            errno = 1000 + ++self->Steps;
            self->Yield();
        }
    });
    fesetround(FE_TONEAREST);
    for (int i = 1; i <= 5; ++i) {
        errno = i;
        worker.Resume();
        ASSERT_FALSE(worker.Done) << "saw a foreign value at step " << worker.Steps;
        EXPECT_TRUE(errno == i && fegetround() == FE_TONEAREST && GetFiberData() == &mine);
    }
}

// A switch inside a catch block used to be where two fibers shared one list of caught exceptions.
TEST(Fiber, EachFiberHasItsOwnExceptionState) {
    ConvertThreadToFiber(nullptr);
    Worker worker;
    worker.Start([](Worker *self) {
        struct Guard {  // switches while it is destroyed by unwinding
            Worker *Self;
            ~Guard() { Self->Steps = std::uncaught_exceptions(), Self->Yield(); }
        };
        try {
            Guard guard{self};
            throw std::runtime_error("of the worker");
        } catch (...) {
            self->Yield();
            EXPECT_THROW(throw, std::runtime_error);
        }
    });
    worker.Resume();
    EXPECT_EQ(worker.Steps, 1);
    EXPECT_EQ(std::uncaught_exceptions(), 0);
    worker.Resume();
    EXPECT_EQ(std::current_exception(), nullptr);
    try {
        throw std::logic_error("of the thread");
    } catch (...) {
        worker.Resume();
        EXPECT_TRUE(worker.Done);
        EXPECT_THROW(throw, std::logic_error);
    }
}

TEST(Fiber, AFiberThatMovedUsesTheNewThreadsBlockAndErrno) {
    Worker worker;
    worker.Start([](Worker *self) {
        for (;;) {
            // Three accessors on either side of the switch: an address kept across it would be the old thread's.
            ThreadBlock *before = CurrentThreadBlock();
            Errno() = 77;
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
    Together([&] { run(0); }, [&] { run(1); });
    EXPECT_EQ(worker.Steps, 199);
}

TEST(Fiber, TenThousandParkedFibersCostFewMapsAndAreRecycled) {
    ConvertThreadToFiber(nullptr);
    constexpr size_t kMany = kSanitized ? 2000 : 10000;
    std::vector<Worker> parked(kMany);
    const size_t mapsBefore = CountMaps();
    for (Worker &worker : parked) {
        worker.Start([](Worker *self) { self->Yield(); }, 1 << 20);
        worker.Resume();
    }
    alignas(4096) static char probe[4096];
    const bool cheap = !kSanitized && madvise(probe, 4096, 102) == 0;
    EXPECT_TRUE(!cheap || CountMaps() <= mapsBefore + 200) << "a guard must not cost a map";
    for (Worker &worker : parked) {
        worker.Resume();
        EXPECT_TRUE(worker.Done);
        DeleteFiber(worker.Context);
    }
    // Whichever list it comes from, warm or given back, a recycled fiber works; and they are all different.
    std::set<FiberContext *> seen;
    for (Worker &worker : parked) {
        worker.Context = CreateFiberRecycled(1 << 20, Worker::Run, &worker);
        ASSERT_TRUE(worker.Context != nullptr && seen.insert(worker.Context).second);
        worker.Resume();
    }
    EXPECT_EQ(CreateFiberRecycled(1 << 20, Worker::Run, nullptr), nullptr);
}

TEST(Fiber, RecyclingIsBySizeAndNeverGivesLessThanAsked) {
    for (size_t bytes = 16 * 1024; bytes <= (20u << 20); bytes = bytes * 9 / 8 + 1) {
        FiberContext *fiber = CreateFiber(bytes, Worker::Run, nullptr);
        ASSERT_NE(fiber, nullptr) << bytes;
        const char *low, *high;
        FiberStackBounds(fiber, &low, &high);
        ASSERT_GE(static_cast<size_t>(high - low), bytes);
        const_cast<char *>(low)[0] = const_cast<char *>(high)[-1] = 1;  // both ends are usable
        DeleteFiber(fiber);
        EXPECT_EQ(CreateFiberRecycled(bytes, Worker::Run, nullptr), fiber);
        EXPECT_EQ(CreateFiberRecycled(bytes * 2, Worker::Run, nullptr), nullptr);
        DeleteFiber(fiber);
    }
}

// The text is exactly one line; the address at its end is any.
TEST(Overflow, IsReportedWithTheTagOnceAndKillsBySignal) {
    for (const char *guard : {"", "mprotect"}) {
        const ChildResult result = RunInChild([guard] {
            setenv("ZVXKVT_GUARD", guard, 1);
            RunFiber(Overflow, 131072);
        });
        EXPECT_EQ(result.Signal, SIGSEGV);
        const char *size = kSanitized ? "524288" : "131072";
        const std::regex line("zvxkvt: stack overflow in user thread SHAD \\(stack of " + std::string(size) +
                              " bytes at 0x[0-9a-f]+\\)\n");
        EXPECT_TRUE(std::regex_match(result.Output, line)) << result.Output;
    }
    // A kernel thread that is no fiber is reported by its identifier.
    const ChildResult plain = RunInChild([] { Together([] { ArmStackOverflowReport(), Overflow(nullptr); }); });
    EXPECT_EQ(plain.Signal, SIGSEGV);
    EXPECT_EQ(plain.Output.find("zvxkvt: stack overflow in kernel thread "), 0u) << plain.Output;
}

TEST(Overflow, OtherFaultsTakeTheirOwnCourse) {
    // No handler before ours: the plain death of a wild pointer, without a word.
    const ChildResult wild = RunInChild([] { RunFiber(WriteWild, 65536); });
    EXPECT_EQ(wild.Output.find("zvxkvt"), std::string::npos) << wild.Output;
    EXPECT_TRUE(kSanitized || (wild.Signal == SIGSEGV && wild.Output.empty()));
    // A host's handler that was there first gets what is not ours.
    const ChildResult chained = RunInChild([] {
        struct sigaction action = {};
        action.sa_flags = SA_SIGINFO;
        action.sa_sigaction = [](int, siginfo_t *info, void *) {
            _exit(info->si_addr == reinterpret_cast<void *>(gWild) ? 33 : 34);
        };
        sigaction(SIGSEGV, &action, nullptr);
        RunFiber(WriteWild, 65536);
    });
    EXPECT_EQ(chained.ExitCode, 33) << chained.Output;
}
