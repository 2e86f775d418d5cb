// tests/platform/base_test.cpp - slots, routines of a thread, memory, locks and the end of the process.
#include <algorithm>

#include "platform/base/alertable.h"
#include "platform/base/fiber_internal.h"  // which sanitizer this build has
#include "platform/base/spin.h"
#include "support.h"

using namespace os;

// A freed slot reads null on every thread when it is given out again; the low ones follow the installed array.
TEST(Slots, FreedOnesAreNullEverywhereAndInstalledArraysAreSeparate) {
    std::vector<DWORD> slots;
    for (int i = 0; i < 70; ++i) slots.push_back(TlsAlloc());
    std::atomic<int> step{0};
    std::thread other([&] {
        for (DWORD slot : slots) TlsSetValue(slot, &step);
        step = 1;
        while (step != 2) std::this_thread::yield();
        for (DWORD slot : slots) EXPECT_EQ(TlsGetValue(slot), nullptr) << slot;
    });
    while (step != 1) std::this_thread::yield();
    for (DWORD slot : slots) TlsFree(slot);
    for (DWORD slot : slots) EXPECT_EQ(TlsAlloc(), slot);
    step = 2;
    other.join();

    int mine = 0, theirs = 0;
    for (DWORD slot : slots) TlsSetValue(slot, &mine);
    void *installed[kTlsSlots] = {};
    SetSlotArray(installed);
    EXPECT_EQ(TlsGetValue(slots[63]), nullptr);
    EXPECT_EQ(TlsGetValue(slots[64]), &mine);
    TlsSetValue(slots[63], &theirs);
    EXPECT_EQ(installed[63], &theirs);
    SetSlotArray(nullptr);
    EXPECT_EQ(TlsGetValue(slots[63]), &mine);
    SetSlotArray(installed);
    TlsFree(slots[63]);  // while an array is installed: null in both
    EXPECT_EQ(installed[63], nullptr);
    SetSlotArray(nullptr);
    EXPECT_EQ(CurrentThreadBlock()->Slots[63], nullptr);
}

// Producers queue while the owner waits and runs; then the owner ends with producers still at it.
TEST(Alert, RoutinesRunInOrderAndNoneIsLostAtTheEndOfTheOwner) {
    static std::atomic<AlertState *> owner{nullptr};
    static std::atomic<uint32_t> ran{0}, discarded{0}, refused{0};
    constexpr uint32_t kItems = 20000;
    std::thread thread([&] {
        AlertState *state = CurrentAlertState();
        RefAlert(state);  // for the producer
        owner = state;
        while (ran < kItems / 2) {
            const uint32_t seen = AlertSnapshot(state);
            if (RunQueuedRoutines() == 0) WaitAlert(state, seen, UINT64_MAX);
        }
    });
    while (owner == nullptr) std::this_thread::yield();
    static std::vector<AlertRoutine> items(kItems);
    for (AlertRoutine &item : items) {
        item.Arg = &item;
        item.Run = [](void *arg) {
            if (&items[ran.fetch_add(1)] != arg) abort();  // out of order
        };
        item.Discard = [](void *) { ++discarded; };
        if (!QueueRoutine(owner, &item)) ++refused;
    }
    thread.join();
    EXPECT_GE(ran, kItems / 2);
    EXPECT_EQ(ran + discarded + refused, kItems);
    EXPECT_FALSE(QueueRoutine(owner, &items[0])) << "the owner has ended";
    UnrefAlert(owner);
}

TEST(Memory, TheRangeHandsOutDisjointZeroedRegionsFromManyThreads) {
    constexpr size_t kEach = 60;
    std::vector<std::pair<char *, size_t>> regions(2 * kEach);
    auto allocate = [&](size_t first) {
        for (size_t i = 0; i < kEach; ++i) {
            const size_t bytes = i % 7 == 0 ? size_t{3} << 20 : 1 + i * 5000;
            char *at = static_cast<char *>(VirtualAllocInRange(bytes, MEM_COMMIT, PAGE_READWRITE));
            ASSERT_NE(at, nullptr);
            ASSERT_EQ(at[0] | at[bytes / 2] | at[bytes - 1], 0);
            at[0] = at[bytes - 1] = 1;
            regions[first + i] = {at, bytes};
        }
    };
    Together([&] { allocate(0); }, [&] { allocate(kEach); });
    std::sort(regions.begin(), regions.end());
    const char *end = RangeBase() + 1;
    for (const auto &[at, bytes] : regions) {
        ASSERT_GE(at, end);
        end = at + bytes;
    }
    EXPECT_LE(static_cast<uint64_t>(end - RangeBase()), uint64_t{1} << 32);
    // What lies beyond the range is refused and takes nothing from it.
    for (size_t bytes : {size_t{4} << 30, SIZE_MAX})
        EXPECT_EQ(VirtualAllocInRange(bytes, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_NE(VirtualAllocInRange(4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
}

// Plain counters: a hole in the exclusion loses counts, and a race detector sees it at once.
TEST(Lock, ExcludesUnderContentionAndWakesEverySleeper) {
    CriticalSection section;
    InitializeCriticalSection(&section);
    SpinWord spin;
    uint64_t counted = 0, spun = 0;
    auto contend = [&] {
        for (int i = 0; i < 20000; ++i) {
            const int depth = i % 3 == 0 ? 2 : 1;
            for (int j = 0; j < depth; ++j) EnterCriticalSection(&section);
            ++counted;
            if (i % 500 == 0) std::this_thread::yield();  // the others go to sleep on it
            for (int j = 0; j < depth; ++j) LeaveCriticalSection(&section);
            SpinGuard guard(spin);
            ++spun;
        }
    };
    Together(contend, contend, contend, contend, contend, contend);
    EXPECT_TRUE(counted == 120000 && spun == 120000) << counted << " " << spun;
    EXPECT_EQ(section.State.load(), 0u);
}

TEST(Process, ExitFlushesWhatIsFreeAndWaitsForNoLock) {
#if defined(ZVX_TSAN)
    GTEST_SKIP() << "the sanitizer itself flushes the streams when a process ends, and waits for their locks";
#endif
    const ChildResult locked = RunChild([] {
        atexit([] { puts("destructors ran"); });
        fputs("buffered ", stderr);
        std::thread([] {
            flockfile(stdout);
            fputs_unlocked("never seen", stdout);
            for (;;) pause();
        }).detach();
        usleep(50000);
        WriteConsole("out", 3);
        alarm(10);
        ExitProcess(9);
    });
    EXPECT_EQ(locked.ExitCode, 9) << "signal " << locked.Signal;
    EXPECT_EQ(locked.Output, "buffered out");
}
