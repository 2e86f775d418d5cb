// The allocator: counts at which chunks move, sizes at which blocks split, what each failure says.
#include "alloc/alloc.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "child.h"
#include "config/settings.h"
#include "diag/stats.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;

constexpr uint32_t kRegion = 16 * 1024 * 1024;
const AllocType *const kType = &gAllocTypes[ALLOC_FIBER_MESSAGE];

using SchedulerPtr = std::unique_ptr<Scheduler>;

SchedulerPtr NewScheduler() {
    SchedulerPtr S = std::make_unique<Scheduler>();
    S->AffinityMask = 0x8;
    S->CurPriority = THREAD_PRIORITY_ABOVE_NORMAL;
    return S;
}

void InitAllocator() {
    StatsInit();
    gProcessAffinityMask = gScript.ProcessMask;
    for (uint32_t node = 0; node < kMaxNodes; node++) gNodeMasks[node] = 0x3;
    KVTAllocInit();
}

struct Alloc : testing::Test {
    void SetUp() override { InitAllocator(); }
    void *Take(uint32_t size) { return KVTAllocSched(size, S.get(), 0); }
    const SchedulerPtr S = NewScheduler();
};

// What was freed last comes first: the newest in a cache is the likeliest to be in the processor's cache.
TEST_F(Alloc, ChunksMoveInBundles) {
    const uint32_t &cached = S->ChunkCacheCount[2];
    std::vector<char *> chunks;
    // The first one cuts a block of 64 KiB: its last chunk comes first, 255 stay, in descending order.
    for (uint32_t i = 0; i < 1024; i++) {
        chunks.push_back(static_cast<char *>(AllocChunk(kType, S.get(), 2)));
        ASSERT_EQ(cached, 255 - i % 256);
        ASSERT_TRUE(i % 256 == 0 || chunks[i] == chunks[i - 1] - 256);
    }
    EXPECT_EQ(S->ChunkCacheCount[0], 0u) << "nodes do not share caches";
    // A full cache spills 252, the freed one among them, and keeps 261. It is filled up again and spills once more.
    for (uint32_t i = 0; i < 513 + 252; i++) {
        FreeChunk(kType, S.get(), chunks[i], 2);
        ASSERT_EQ(cached, i < 512 ? i + 1 : i == 512 + 252 ? 261 : i - 512 + 261);
        ASSERT_EQ(CheckAllocator(2).Bundles, i < 512 ? 0u : i < 512 + 252 ? 4u : 8u);
    }
    // Another scheduler takes four bundles of 63 at once: what the second spill gave, each chunk once.
    const SchedulerPtr taker = NewScheduler();
    std::set<void *> taken;
    for (int i = 0; i < 252; i++) taken.insert(AllocChunk(kType, taker.get(), 2));
    EXPECT_EQ(taken, std::set<void *>(chunks.begin() + 513, chunks.begin() + 765));
    EXPECT_EQ(taker->ChunkCacheCount[2], 0u);
    EXPECT_EQ(CheckAllocator(2).Bundles, 4u);
}

TEST_F(Alloc, BlocksSplitAndSort) {
    // Exactly one region: nothing is left over.
    EXPECT_NE(Take(kRegion - 16), nullptr);
    EXPECT_EQ(gTotalVirtualAlloc.load(), kRegion);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);
    // One byte more: twice the region, and the rest is a block at an odd address.
    void *odd = Take(kRegion - 15);
    EXPECT_EQ(gTotalVirtualAlloc.load(), 3 * kRegion);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion - 1);
    EXPECT_EQ(Take(kRegion - 1 - 16), static_cast<char *>(odd) + kRegion - 15 + 16);
    EXPECT_EQ(gTotalVirtualAlloc.load(), 3 * kRegion);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);

    // A rest of 16 bytes stays with the block, so that the block comes back as large as it was.
    KVTFree(odd, 0);
    EXPECT_EQ(Take(kRegion - 15 - 16), odd);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);
    KVTFree(odd, 0);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion + 1);
    // One of 17 is a block of its own.
    EXPECT_EQ(Take(kRegion - 15 - 17), odd);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 1u);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, 17u);

    // Nodes are apart: what is free on one serves no other. Equal blocks are last in, first out.
    KVTFree(KVTAllocSched(kRegion - 16, S.get(), 5), 5);
    void *const equal[] = {Take(1000), Take(1000)};
    EXPECT_EQ(gTotalVirtualAlloc.load(), 5 * kRegion);
    Take(CheckAllocator(0).LargestBlock - 16);  // only what is freed now is free
    for (void *block : equal) KVTFree(block, 0);
    for (int i : {1, 0}) EXPECT_EQ(Take(1000), equal[i]);
    for (uint32_t size : {0xFFFFFFF0u, 0xFFFFFFFFu}) EXPECT_EQ(Take(size), nullptr) << "does not fit with its header";
}

TEST_F(Alloc, ThreadIsPinnedForARegionOnly) {
    for (int i = 0; i < 2; i++) {
        Take(1);
        EXPECT_EQ(gScript.Masks, (std::vector<uint32_t>{0x3, 0x8}));
        EXPECT_EQ(gScript.Priorities, (std::vector<int>{THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_ABOVE_NORMAL}));
    }
    // A thread without a scheduler has its own mask back; its priority is nobody's business.
    os::SetThreadAffinityMask(os::GetCurrentThread(), 0x4);
    KVTAllocNoSched(1, 1);
    EXPECT_EQ(gScript.Masks.back(), 0x4u);
    EXPECT_EQ(gScript.Priorities.size(), 2u);
}

// A refused privilege is one line of the start-up text, and nobody asks for large pages any more. Where it is the pages
// that are not there, the region comes in small ones.
TEST_F(Alloc, LargePages) {
    SetOption(su_EnableLargePages);
    os::FailCall("VirtualAllocInRange", 1, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_NE(Take(1), nullptr);
    os::FailCall("EnableLockMemoryPrivilege", 1, ERROR_PRIVILEGE_NOT_HELD);
    InitAllocator();
    EXPECT_FALSE(OptionSet(su_EnableLargePages));
    EXPECT_STREQ(initialOutputBuffer, "** Unable to get privs for large pages; disabling lps**\n");
}

TEST_F(Alloc, FailuresAreFatal) {
    static Scheduler *dumper = S.get();
    // The node's lock is free by then: a dump may allocate.
    gDumpVariables = [] { KVTAllocSched(100, dumper, 0); };
    const auto failing = [&](const char *function) {
        return test::FatalTextOf([&] {
            os::FailCall(function, 1, 77);
            AllocChunk(kType, S.get(), 0);
        });
    };
    EXPECT_EQ(failing("VirtualAllocInRange"), "Fibers: Unable to allocate memory LargePages[0] Error[77]");
    EXPECT_EQ(failing("SetThreadPriority"), "KVTAlloc: Unable to set priority 77");
}

}  // namespace
}  // namespace zvx
