// tests/platform/base_test.cpp - slots, routines of a thread, the end of the process, memory, a thread without a ring.
#include "platform/base/alertable.h"
#include "support.h"

using namespace os;

// A freed slot reads null on every thread when it is given out again; the low ones follow the installed array.
TEST(Slots, FreedOnesAreNullEverywhereAndInstalledArraysAreSeparate) {
    std::vector<DWORD> slots;
    for (int i = 0; i < 70; ++i) slots.push_back(TlsAlloc());
    int mine = 0, theirs = 0;
    std::atomic<int> step{0};
    Together(
        [&] {
            for (DWORD slot : slots) TlsSetValue(slot, &step);
            for (step = 1; step != 2;) std::this_thread::yield();
            for (DWORD slot : slots) EXPECT_EQ(TlsGetValue(slot), nullptr) << slot;
        },
        [&] {
            while (step != 1) std::this_thread::yield();
            for (DWORD slot : slots) TlsFree(slot);
            for (DWORD slot : slots) EXPECT_EQ(TlsAlloc(), slot);
            step = 2;
        });
    for (DWORD slot : slots) TlsSetValue(slot, &mine);
    void *installed[kTlsSlots] = {};
    SetSlotArray(installed);
    EXPECT_TRUE(TlsGetValue(slots[63]) == nullptr && TlsGetValue(slots[64]) == &mine);
    TlsSetValue(slots[63], &theirs);
    EXPECT_EQ(installed[63], &theirs);
    SetSlotArray(nullptr);
    EXPECT_EQ(TlsGetValue(slots[63]), &mine);
    SetSlotArray(installed);
    TlsFree(slots[63]);  // while an array is installed: null in both
    SetSlotArray(nullptr);
    EXPECT_TRUE(installed[63] == nullptr && CurrentThreadBlock()->Slots[63] == nullptr);
}

// A producer queues while the owner waits and runs, and goes on when the owner has ended.
TEST(Alert, RoutinesRunInOrderAndNoneIsLostAtTheEndOfTheOwner) {
    static std::atomic<AlertState *> owner{nullptr};
    static std::atomic<uint32_t> ran{0}, discarded{0};
    static std::vector<AlertRoutine> items(20000);
    std::thread thread([] {
        RefAlert(CurrentAlertState());  // for the producer
        owner = CurrentAlertState();
        while (ran < items.size() / 2) {
            const uint32_t seen = AlertSnapshot(owner);
            if (RunQueuedRoutines() == 0) WaitAlert(owner, seen, UINT64_MAX);
        }
    });
    while (owner == nullptr) std::this_thread::yield();
    uint32_t refused = 0;
    for (AlertRoutine &item : items) {
        item.Arg = &item;
        item.Run = [](void *arg) {
            if (&items[ran.fetch_add(1)] != arg) abort();  // out of order
        };
        item.Discard = [](void *) { ++discarded; };
        if (!QueueRoutine(owner, &item)) ++refused;
    }
    thread.join();
    EXPECT_EQ(ran + discarded + refused, items.size());
    EXPECT_FALSE(QueueRoutine(owner, &items[0])) << "the owner has ended";
    UnrefAlert(owner);
}

TEST(Process, ExitFlushesWhatIsFreeAndWaitsForNoLock) {
#if defined(ZVX_TSAN)
    GTEST_SKIP() << "the sanitizer itself flushes the streams when a process ends, and waits for their locks";
#endif
    const ChildResult locked = RunInChild([] {
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

// Pages that are counted as free and yet not given are noticed before somebody touches them.
TEST(Memory, LargePagesThatAreRefusedAtTheTouch) {
    const DWORD type = MEM_COMMIT | MEM_LARGE_PAGES;
    if (!EnableLockMemoryPrivilege()) GTEST_SKIP() << "the machine has no large page free";
    const auto refused = [](auto call, DWORD error) {
        FailCall("populate", 1, EFAULT);
        EXPECT_TRUE(!call() && GetLastError() == error);
        EXPECT_TRUE(call()) << "what was refused is not kept";
    };
    refused(EnableLockMemoryPrivilege, ERROR_PRIVILEGE_NOT_HELD);
    void *const before = VirtualAllocInRange(1, type, PAGE_READWRITE);
    static void *last;
    refused([] { return (last = VirtualAllocInRange(1, type, PAGE_READWRITE)) != nullptr; }, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(static_cast<char *>(before) + (2u << 20), last) << "nor are addresses lost";
    refused([] { return VirtualAlloc(nullptr, 1, type, PAGE_READWRITE) != nullptr; }, ERROR_NO_SYSTEM_RESOURCES);
}

#ifdef ZVX_FAIL_POINTS
// Rings are allowed, but this thread's cannot be had (locked memory, descriptors): it gets the other kind. Where all
// are refused: fault injection.
TEST(Backend, OneThreadWithoutARing) {
    unsetenv("ZVXKVT_IO");
    if (strcmp(os::IoBackendName(), "io_uring") != 0) GTEST_SKIP() << os::IoBackendNote();
    os::FailCall("io_uring_setup", 1, ERROR_NOT_ENOUGH_MEMORY);
    Scratch file(16384);
    Fifo fifo;
    const HANDLE port = NewPort(), direct = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING),
                 pipe = fifo.Open();
    EXPECT_EQ(Io()->TaskMask, 1u) << "the ring was not refused";
    alignas(4096) static char pages[8192];
    char byte = 0;
    Operation read, get, put;
    ASSERT_EQ(ERROR_IO_PENDING, read.Read(direct, pages, 8192, 8192));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &read.Ov));
    EXPECT_TRUE(std::string(pages, 8192) == Pattern(8192, 8192));
    // The descriptor was opened for rings, which wait in the kernel; this thread must not.
    ASSERT_EQ(ERROR_IO_PENDING, get.Read(pipe, &byte, 1));
    if (put.Write(pipe, "n", 1) != 0) Await(port, &put.Ov);
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &get.Ov));
    EXPECT_EQ('n', byte);
}
#endif
