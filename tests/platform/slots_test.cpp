// tests/platform/slots_test.cpp - thread-local slots and the blocks of kernel threads.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "platform/base/alertable.h"
#include "platform/base/thread_block.h"
#include "platform/os.h"

using namespace os;

namespace {

int CountThreads() {
    int count = 0;
    ForEachThread([](ThreadLocals *, void *arg) { ++*static_cast<int *>(arg); }, &count);
    return count;
}

}  // namespace

TEST(Slots, IndicesAreLowestFreeAndTheWholeRangeWorks) {
    std::vector<DWORD> taken;
    for (DWORD index; (index = TlsAlloc()) != TLS_OUT_OF_INDEXES;) {
        ASSERT_EQ(index, taken.size());
        ASSERT_EQ(TlsGetValue(index), nullptr);
        ASSERT_TRUE(TlsSetValue(index, reinterpret_cast<void *>(uintptr_t{index} + 1)));
        taken.push_back(index);
    }
    EXPECT_EQ(taken.size(), 1088u);
    for (DWORD index : taken) ASSERT_EQ(TlsGetValue(index), reinterpret_cast<void *>(uintptr_t{index} + 1));
    EXPECT_FALSE(TlsSetValue(1088, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);

    // The lowest free one comes first, wherever it is, and its old value is gone.
    for (DWORD index : {700u, 63u, 64u, 5u}) EXPECT_TRUE(TlsFree(index));
    EXPECT_FALSE(TlsFree(63));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
    for (DWORD index : {5u, 63u, 64u, 700u}) {
        EXPECT_EQ(TlsAlloc(), index);
        EXPECT_EQ(TlsGetValue(index), nullptr);
    }
}

TEST(Slots, AFreedSlotReadsNullOnEveryKernelThreadsOwnArray) {
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
}

TEST(Slots, TheLowSlotsFollowTheInstalledArrayAndTheOthersStay) {
    std::vector<DWORD> slots;
    for (int i = 0; i < 66; ++i) slots.push_back(TlsAlloc());
    int mine = 0, theirs = 0;
    for (DWORD slot : slots) TlsSetValue(slot, &mine);
    void *installed[kTlsSlots] = {};
    SetSlotArray(installed);
    EXPECT_EQ(TlsGetValue(slots[0]), nullptr);
    EXPECT_EQ(TlsGetValue(slots[63]), nullptr);
    EXPECT_EQ(TlsGetValue(slots[64]), &mine);
    TlsSetValue(slots[63], &theirs);
    EXPECT_EQ(installed[63], &theirs);
    SetSlotArray(nullptr);
    EXPECT_EQ(TlsGetValue(slots[63]), &mine);
    // Freed while an array is installed: null in both.
    SetSlotArray(installed);
    TlsFree(slots[63]);
    EXPECT_EQ(installed[63], nullptr);
    SetSlotArray(nullptr);
    EXPECT_EQ(CurrentThreadBlock()->Slots[63], nullptr);
    // A value of zero and a failure differ by the last error.
    SetLastError(1);
    EXPECT_EQ(TlsGetValue(slots[62]), &mine);
    EXPECT_EQ(GetLastError(), 0u);
}

TEST(Slots, ThreadsAreRegisteredOnFirstUseAndGoneAtTheirEnd) {
    const DWORD self = CurrentThreadBlock()->ThreadId;
    EXPECT_EQ(self, static_cast<DWORD>(gettid()));
    const int before = CountThreads();
    static std::atomic<int> ended{0};
    AddThreadExitHook([](ThreadLocals *locals) { ended += locals->Block.FiberData != nullptr; });
    for (int i = 0; i < 20; ++i) {
        std::thread([&] {
            EXPECT_EQ(GetFiberData(), reinterpret_cast<void *>(kNoFiberData)) << "before the block is completed";
            EXPECT_EQ(CountThreads(), before);
            EXPECT_NE(CurrentThreadBlock()->ThreadId, self);
            TlsSetValue(100, &ended);
            ConvertThreadToFiber(&ended);
            EXPECT_EQ(CountThreads(), before + 1);
        }).join();
    }
    EXPECT_EQ(CountThreads(), before);
    EXPECT_EQ(ended, 20);

    // The child of a fork has another identifier, and none of the other threads.
    std::atomic<bool> stop{false};
    std::thread other([&] {
        CurrentThreadBlock();
        while (!stop) std::this_thread::yield();
    });
    while (CountThreads() != before + 1) std::this_thread::yield();
    const pid_t child = fork();
    if (child == 0) {
        const bool right = CurrentThreadBlock()->ThreadId == static_cast<DWORD>(gettid()) && CountThreads() == 1;
        _exit(right ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    stop = true;
    other.join();
}

TEST(Alert, RoutinesRunInOrderAndNoneIsLostAtTheEndOfTheOwner) {
    // Producers queue while the owner waits and runs; then the owner ends with producers still at it.
    struct Shared {
        std::atomic<AlertState *> Owner{nullptr};
        std::atomic<uint32_t> Ran{0};
        std::atomic<uint32_t> Discarded{0};
        std::atomic<uint32_t> Refused{0};
    } shared;
    struct Item {
        AlertRoutine Node;
        Shared *To;
        uint32_t Number;
    };
    constexpr uint32_t kItems = 20000;
    std::thread owner([&] {
        AlertState *state = CurrentAlertState();
        RefAlert(state);  // for the producer
        shared.Owner.store(state, std::memory_order_release);
        while (shared.Ran.load() < kItems / 2) {
            const uint32_t seen = AlertSnapshot(state);
            if (RunQueuedRoutines() == 0) WaitAlert(state, seen, UINT64_MAX);
        }
    });
    AlertState *state;
    while ((state = shared.Owner.load(std::memory_order_acquire)) == nullptr) std::this_thread::yield();
    std::vector<Item> items(kItems);
    for (uint32_t i = 0; i < kItems; ++i) {
        items[i].To = &shared;
        items[i].Number = i;
        items[i].Node.Arg = &items[i];
        items[i].Node.Run = [](void *arg) {
            Item *item = static_cast<Item *>(arg);
            if (item->To->Ran.fetch_add(1) != item->Number) abort();  // out of order
        };
        items[i].Node.Discard = [](void *arg) { static_cast<Item *>(arg)->To->Discarded.fetch_add(1); };
        if (!QueueRoutine(state, &items[i].Node)) shared.Refused.fetch_add(1);
    }
    owner.join();
    EXPECT_GE(shared.Ran.load(), kItems / 2);
    EXPECT_EQ(shared.Ran.load() + shared.Discarded.load() + shared.Refused.load(), kItems);
    EXPECT_FALSE(QueueRoutine(
        state, [](void *) {}, nullptr))
        << "the owner has ended";
    UnrefAlert(state);
}
