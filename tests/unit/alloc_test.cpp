// The allocator: counts at which chunks move, sizes at which blocks split, what each failure says.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "alloc/alloc.h"
#include "child.h"
#include "config/settings.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "scripted_os.h"

namespace zvx {
namespace {

using os::script::gScript;
using test::ChildResult;
using test::RunChild;

constexpr uint32_t kRegion = 16 * 1024 * 1024;
const AllocType *const kType = &gAllocTypes[ALLOC_FIBER_MESSAGE];

struct SchedulerDeleter {
    void operator()(Scheduler *S) const { std::free(S); }
};
using SchedulerPtr = std::unique_ptr<Scheduler, SchedulerDeleter>;

SchedulerPtr NewScheduler() {
    auto *S = static_cast<Scheduler *>(std::aligned_alloc(alignof(Scheduler), sizeof(Scheduler)));
    std::memset(static_cast<void *>(S), 0, sizeof(*S));
    S->AffinityMask = 0x8;
    S->CurPriority = THREAD_PRIORITY_ABOVE_NORMAL;
    return SchedulerPtr(S);
}

void InitAllocator() {
    StatsInit();
    gProcessAffinityMask = gScript.ProcessMask;
    for (uint32_t node = 0; node < kMaxNodes; node++) gNodeMasks[node] = 0x3;
    KVTAllocInit();
}

uint32_t Total() {
    return gTotalVirtualAlloc.load();
}

TEST(Alloc, ChunksMoveInBundles) {
    InitAllocator();
    EXPECT_EQ(gChunkSize, 256u);
    SchedulerPtr S = NewScheduler();

    // The first one cuts a block of 64 KiB: its last chunk comes first, 255 stay, in descending order.
    std::vector<char *> taken;
    taken.push_back(static_cast<char *>(AllocChunk(kType, S.get(), 2)));
    EXPECT_EQ(S->ChunkCacheCount[2], 255u);
    for (int i = 0; i < 255; i++) {
        taken.push_back(static_cast<char *>(AllocChunk(kType, S.get(), 2)));
        ASSERT_EQ(taken.back(), taken[taken.size() - 2] - 256);
    }
    EXPECT_EQ(S->ChunkCacheCount[2], 0u);
    EXPECT_EQ(S->ChunkCacheCount[0], 0u) << "nodes do not share caches";
    for (int i = 0; i < 2 * 256; i++) taken.push_back(static_cast<char *>(AllocChunk(kType, S.get(), 2)));
    EXPECT_EQ(Total(), kRegion);

    // A full cache spills 252 and keeps 261; the chunk that was freed is among the 252.
    for (int i = 0; i < 512; i++) {
        FreeChunk(kType, S.get(), taken.back(), 2);
        taken.pop_back();
    }
    EXPECT_EQ(S->ChunkCacheCount[2], 512u);
    EXPECT_EQ(CheckAllocator(2).Bundles, 0u);
    char *const last = taken.back();
    taken.pop_back();
    std::memset(last, 0xEE, 256);
    FreeChunk(kType, S.get(), last, 2);
    EXPECT_EQ(S->ChunkCacheCount[2], 261u);
    EXPECT_EQ(CheckAllocator(2).Bundles, 4u);

    // Another scheduler takes all four, and gets back every chunk that was given, each once, `last` among them.
    SchedulerPtr other = NewScheduler();
    std::set<void *> back;
    for (int i = 0; i < 252; i++) {
        void *chunk = AllocChunk(kType, other.get(), 2);
        EXPECT_EQ(other->ChunkCacheCount[2], 251u - static_cast<uint32_t>(i));
        EXPECT_TRUE(back.insert(chunk).second);
        std::memset(chunk, 0xDD, 256);
    }
    EXPECT_EQ(CheckAllocator(2).Bundles, 0u);
    EXPECT_TRUE(back.count(last));
    for (char *chunk : taken) EXPECT_FALSE(back.count(chunk));
    for (uint32_t i = 0; i < S->ChunkCacheCount[2]; i++) EXPECT_FALSE(back.count(S->ChunkCache[2][i]));
    // What was freed on one and taken on the other counts in the sum only.
    EXPECT_EQ(S->ChunkTypeCount[ALLOC_FIBER_MESSAGE], 768 - 513);
    EXPECT_EQ(other->ChunkTypeCount[ALLOC_FIBER_MESSAGE], 252);
}

// The order in which spilled chunks come back: the newest in a cache is the likeliest to be in the processor's cache,
// so the chunk that was freed last comes first.
TEST(Alloc, SpilledChunksComeBackInOrder) {
    InitAllocator();
    SchedulerPtr S = NewScheduler();
    std::vector<void *> chunks;
    for (int i = 0; i < 1024; i++) chunks.push_back(AllocChunk(kType, S.get(), 0));
    // Two spills of four bundles each; between them the cache is filled up again.
    for (int i = 0; i < 513 + 252; i++) FreeChunk(kType, S.get(), chunks[static_cast<size_t>(i)], 0);
    EXPECT_EQ(CheckAllocator(0).Bundles, 8u);
    SchedulerPtr taker = NewScheduler();
    std::vector<size_t> got;
    for (int i = 0; i < 252; i++) {
        const void *chunk = AllocChunk(kType, taker.get(), 0);
        got.push_back(static_cast<size_t>(std::find(chunks.begin(), chunks.end(), chunk) - chunks.begin()));
    }
    EXPECT_EQ(CheckAllocator(0).Bundles, 4u);
    // Of the second spill: 764 was freed into the full cache, 763 to 761 were on its top, the rest lay below.
    std::vector<size_t> expected;
    size_t below = 760;
    std::vector<std::vector<size_t>> bundles;
    for (size_t head = 764; head > 760; head--) {
        bundles.push_back({head});
        for (int i = 0; i < 62; i++) bundles.back().push_back(below--);
    }
    // The bundle that was pushed last is emptied into the cache first and therefore comes out of it last.
    for (const auto &bundle : bundles) {
        expected.push_back(bundle[0]);
        for (size_t i = 62; i > 0; i--) expected.push_back(bundle[i]);
    }
    EXPECT_EQ(got, expected);
    EXPECT_NE(AllocChunk(kType, taker.get(), 0), nullptr);
    EXPECT_EQ(CheckAllocator(0).Bundles, 0u);
}

TEST(Alloc, BlocksSplitAndSort) {
    InitAllocator();
    SchedulerPtr S = NewScheduler();
    // Exactly one region: nothing is left over.
    EXPECT_NE(KVTAllocSched(kRegion - 16, S.get(), 0), nullptr);
    EXPECT_EQ(Total(), kRegion);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);
    // One byte more: twice the region, and the rest is a block at an odd address.
    void *odd = KVTAllocSched(kRegion - 15, S.get(), 0);
    EXPECT_EQ(Total(), 3 * kRegion);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion - 1);
    void *rest = KVTAllocSched(kRegion - 1 - 16, S.get(), 0);
    EXPECT_EQ(Total(), 3 * kRegion);
    EXPECT_EQ(static_cast<char *>(rest), static_cast<char *>(odd) + kRegion - 15 + 16);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);

    // A rest of 16 bytes stays with the block, so that the block comes back as large as it was.
    KVTFree(odd, 0);
    EXPECT_EQ(KVTAllocSched(kRegion - 15 - 16, S.get(), 0), odd);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);
    KVTFree(odd, 0);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, kRegion + 1);
    // One of 17 is a block of its own.
    EXPECT_EQ(KVTAllocSched(kRegion - 15 - 17, S.get(), 0), odd);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 1u);
    EXPECT_EQ(CheckAllocator(0).LargestBlock, 17u);

    // Sizes that do not fit with their header; and one for which there is no power of two.
    for (uint32_t size : {0xFFFFFFF0u, 0xFFFFFFFFu}) EXPECT_EQ(KVTAllocSched(size, S.get(), 0), nullptr);
    EXPECT_EQ(RoundUpPow2(0), 0u);
    EXPECT_EQ(RoundUpPow2(0x80000000u), 0x80000000u);
    EXPECT_EQ(RoundUpPow2(0x80000001u), 0u);
    EXPECT_EQ(RoundUpPow2(5), 8u);
}

TEST(Alloc, EqualBlocksAreLastInFirstOut) {
    InitAllocator();
    SchedulerPtr S = NewScheduler();
    // Nodes are apart: what is free on one serves no other.
    KVTFree(KVTAllocSched(kRegion - 16, S.get(), 5), 5);
    void *whole = KVTAllocSched(kRegion - 16, S.get(), 0);
    EXPECT_EQ(Total(), 2 * kRegion);
    KVTFree(whole, 0);
    std::vector<void *> blocks;
    for (int i = 0; i < 3; i++) blocks.push_back(KVTAllocSched(1000, S.get(), 0));
    void *large = KVTAllocSched(2000, S.get(), 0);
    // Use up the remainder, so that only what is freed below is free.
    KVTAllocSched(CheckAllocator(0).LargestBlock - 16, S.get(), 0);
    EXPECT_EQ(CheckAllocator(0).FreeBlocks, 0u);
    KVTFree(blocks[0], 0);
    KVTFree(large, 0);
    KVTFree(blocks[1], 0);
    KVTFree(blocks[2], 0);
    EXPECT_EQ(KVTAllocSched(2000, S.get(), 0), large);
    EXPECT_EQ(KVTAllocSched(1000, S.get(), 0), blocks[2]);
    EXPECT_EQ(KVTAllocSched(1000, S.get(), 0), blocks[1]);
    // The largest free block is too small: a new region, although it would hold less.
    const uint32_t before = Total();
    KVTAllocSched(1001, S.get(), 0);
    EXPECT_EQ(Total(), before + kRegion);
}

TEST(Alloc, ThreadIsPinnedForARegionOnly) {
    InitAllocator();
    SchedulerPtr S = NewScheduler();
    gScript.MaskCalls.clear();
    gScript.PriorityCalls.clear();
    KVTAllocSched(1, S.get(), 0);
    ASSERT_EQ(gScript.MaskCalls.size(), 2u);
    EXPECT_EQ(gScript.MaskCalls[0].Mask, 0x3u);
    EXPECT_EQ(gScript.MaskCalls[1].Mask, 0x8u);
    ASSERT_EQ(gScript.PriorityCalls.size(), 2u);
    EXPECT_EQ(gScript.PriorityCalls[0].Priority, THREAD_PRIORITY_TIME_CRITICAL);
    EXPECT_EQ(gScript.PriorityCalls[1].Priority, THREAD_PRIORITY_ABOVE_NORMAL);
    KVTAllocSched(1, S.get(), 0);
    EXPECT_EQ(gScript.MaskCalls.size(), 2u);

    // A thread without a scheduler has its own mask back, new region or not.
    os::SetThreadAffinityMask(os::GetCurrentThread(), 0x4);
    for (uint8_t node : {uint8_t{1}, uint8_t{1}}) {
        KVTAllocNoSched(1, node);
        EXPECT_EQ(gScript.MaskCalls.back().Mask, 0x4u);
    }
    EXPECT_EQ(gScript.PriorityCalls.size(), 2u) << "its priority is nobody's business";
}

// A refused privilege is one line of the start-up text; without it nobody asks for large pages any more.
TEST(Alloc, LargePages) {
    initialOutputBufferOffset = 0;
    SetOption(su_EnableLargePages);
    os::FailCall("EnableLockMemoryPrivilege", 1, ERROR_PRIVILEGE_NOT_HELD);
    InitAllocator();
    EXPECT_FALSE(OptionSet(su_EnableLargePages));
    EXPECT_STREQ(initialOutputBuffer, "** Unable to get privs for large pages; disabling lps**\n");

    // The privilege is there, pages are not: the region comes in small ones.
    SetOption(su_EnableLargePages);
    os::FailCall("VirtualAllocInRange", 1, ERROR_NO_SYSTEM_RESOURCES);
    SchedulerPtr S = NewScheduler();
    EXPECT_NE(KVTAllocSched(1, S.get(), 0), nullptr);
    EXPECT_EQ(Total(), kRegion);
    EXPECT_TRUE(OptionSet(su_EnableLargePages));
}

TEST(Alloc, ChunkSizeFollowsTheLargestType) {
    const ChildResult child = RunChild([] {
        gAllocTypes[ALLOC_FIBER_CRITICAL_SECTION].Size = 300;
        gAllocTypes[ALLOC_STRING].Size = 300;
        InitAllocator();
        SchedulerPtr S = NewScheduler();
        AllocChunk(kType, S.get(), 0);
        _exit(gChunkSize == 512 && S->ChunkCacheCount[0] == 127 ? 0 : 1);
    });
    EXPECT_EQ(child.ExitCode, 0);
    EXPECT_EQ(child.Output, "Warning largest chunk String : 300 (512)  > FCLH(256)\n");
}

TEST(Alloc, DebugDump) {
    const std::string dir = test::FreshDirectory("alloc_dump");
    TraceInit(dir.c_str());
    InitAllocator();
    SchedulerPtr a = NewScheduler();
    SchedulerPtr b = NewScheduler();
    gSchedulers[0] = a.get();
    gSchedulers[7] = b.get();
    for (int i = 0; i < 9; i++) {
        void *chunk = AllocChunk(&gAllocTypes[ALLOC_PSEHAND], a.get(), 0);
        if (i < 4) FreeChunk(&gAllocTypes[ALLOC_PSEHAND], b.get(), chunk, 0);
    }
    for (int i = 0; i < 4; i++) AllocChunk(&gAllocTypes[ALLOC_STRING], b.get(), 0);
    os::SetLastError(0);
    KVTAllocDebugInfo();
    gSchedulers[0] = gSchedulers[7] = nullptr;
    const std::string text = test::ReadWhole(dir + "/" + gTraceFileName);
    const std::string middle =
        "Total VirtualAlloc'd = 16384 k bytes\nChunks of type NULL = 0 k bytes\nChunks of type PSEHAND = 1 k bytes\n"
        "Chunks of type FIBEROVERLAPPED = 0 k bytes\nChunks of type FIBER_MESSAGE = 0 k bytes\n"
        "Chunks of type FIBER_CRITICAL_SECTION = 0 k bytes\nChunks of type String = 1 k bytes\n";
    EXPECT_NE(text.find("skvtalloc: debug info START\n" + middle + "["), std::string::npos) << text;
    EXPECT_NE(text.find("] E[0]T[" + std::to_string(os::GetCurrentThreadId()) + "] skvtalloc: debug info END\n"),
              std::string::npos);
    std::filesystem::remove_all(dir);
}

struct FatalCase {
    const char *Function;
    uint32_t Nth;
    const char *Text;
};

TEST(Alloc, FailuresAreFatal) {
    const FatalCase cases[] = {
        {"SetThreadPriority", 1, "KVTAlloc: Unable to set priority 77"},
        {"SetThreadAffinityMask", 1, "KVTAlloc: Unable to set SetThreadAffinityMask  E[77]\n"},
        {"VirtualAllocInRange", 1, "Fibers: Unable to allocate memory LargePages[0] Error[77]"},
        {"SetThreadAffinityMask", 2, "KVTAlloc: Unable to restore SetThreadAffinityMask E[77]\n"},
        {"SetThreadPriority", 2, "KVTAlloc: Unable to restore priority 77"},
    };
    const std::string dir = test::FreshDirectory("alloc_fatal");
    for (const FatalCase &c : cases) {
        const ChildResult child = RunChild([&] {
            TraceInit(dir.c_str());
            InitAllocator();
            SchedulerPtr S = NewScheduler();
            os::FailCall(c.Function, c.Nth, 77);
            // The node's lock is free by then: a dump may allocate.
            static Scheduler *dumper = S.get();
            gDumpVariables = [] { KVTAllocSched(100, dumper, 0); };
            AllocChunk(kType, S.get(), 0);
        });
        EXPECT_EQ(child.ExitCode, 1) << c.Text;
        EXPECT_EQ(child.Output.substr(0, child.Output.find(" (see")), std::string("ZORVEX KILLED: ") + c.Text);
    }
    const ChildResult noSched = RunChild([&] {
        TraceInit(dir.c_str());
        InitAllocator();
        os::FailCall("SetThreadAffinityMask", 1, 77);
        KVTAllocNoSched(1, 0);
    });
    EXPECT_EQ(noSched.Output.substr(0, noSched.Output.find(" (see")),
              "ZORVEX KILLED: KVTAllocNoSched: SetThreadAffinityMask E[77]\n");
    const ChildResult tooLarge = RunChild([&] {
        TraceInit(dir.c_str());
        InitAllocator();
        SchedulerPtr S = NewScheduler();
        KVTAllocSched(0xF0000000u, S.get(), 0);
    });
    EXPECT_EQ(tooLarge.ExitCode, 1);
    EXPECT_EQ(tooLarge.Output.find("ZORVEX KILLED: Fibers: Unable to allocate memory LargePages[0] Error["), 0u);
    const ChildResult twins = RunChild([&] {
        TraceInit(dir.c_str());
        gAllocTypes[ALLOC_STRING].Name = "PSEHAND";
        InitAllocator();
    });
    EXPECT_EQ(twins.Output.substr(0, twins.Output.find(" (see")),
              "ZORVEX KILLED: Duplicate allocation type name PSEHAND\n");
    std::filesystem::remove_all(dir);
}

// Random sizes against a model: blocks never overlap and keep their contents, headers at any address.
TEST(Alloc, BlocksNeverOverlap) {
    InitAllocator();
    SchedulerPtr S = NewScheduler();
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    struct Block {
        uint32_t Size;
        unsigned char Fill;
    };
    std::map<char *, Block> live;
    for (int step = 0; step < 20000; step++) {
        if (live.empty() || random() % 3 != 0) {
            const auto size = static_cast<uint32_t>(1 + random() % (random() % 16 == 0 ? 70000 : 300));
            auto *memory = static_cast<char *>(KVTAllocSched(size, S.get(), 0));
            const auto after = live.lower_bound(memory);
            if (after != live.end()) {
                ASSERT_LE(memory + size, after->first - 16);
            }
            if (after != live.begin()) {
                const auto &[start, block] = *std::prev(after);
                ASSERT_LE(start + block.Size, memory - 16);
            }
            const auto fill = static_cast<unsigned char>(random());
            std::memset(memory, fill, size);
            live[memory] = {size, fill};
        } else {
            auto victim = live.lower_bound(live.begin()->first + random() % (64 * 1024));
            if (victim == live.end()) victim = live.begin();
            for (uint32_t i = 0; i < victim->second.Size; i++)
                ASSERT_EQ(static_cast<unsigned char>(victim->first[i]), victim->second.Fill);
            KVTFree(victim->first, 0);
            live.erase(victim);
        }
        if (step % 1000 == 0) CheckAllocator(0);
    }
    CheckAllocator(0);
}

// Two schedulers that free each other's chunks, and threads that share the byte lists.
TEST(Alloc, SharedListsUnderThreads) {
    InitAllocator();
    constexpr int kThreads = 4;
    std::vector<SchedulerPtr> schedulers;
    for (int i = 0; i < kThreads; i++) schedulers.push_back(NewScheduler());
    // The script records masks and priorities for one thread only, so every region is there beforehand.
    KVTFree(KVTAllocSched(kRegion - 16, schedulers[0].get(), 0), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            Scheduler *S = schedulers[static_cast<size_t>(t)].get();
            std::mt19937 random(static_cast<uint32_t>(t));
            std::vector<unsigned char *> chunks;
            for (int round = 0; round < 60; round++) {
                for (uint32_t i = 0; i < 700; i++) {
                    auto *chunk = static_cast<unsigned char *>(AllocChunk(kType, S, 0));
                    std::memset(chunk, t, 256);
                    chunks.push_back(chunk);
                }
                if (round % 8 == 0) {
                    void *block = KVTAlloc(static_cast<uint32_t>(1008 + random() % 64 * 16), 0, false, 0, 0xF);
                    std::memset(block, t, 1000);
                    KVTFree(block, 0);
                }
                std::shuffle(chunks.begin(), chunks.end(), random);
                while (chunks.size() > 100) {
                    for (int i = 0; i < 256; i++) ASSERT_EQ(chunks.back()[i], t);
                    FreeChunk(kType, S, chunks.back(), 0);
                    chunks.pop_back();
                }
            }
        });
    for (std::thread &thread : threads) thread.join();
    CheckAllocator(0);
    for (const SchedulerPtr &S : schedulers) EXPECT_EQ(S->ChunkTypeCount[ALLOC_FIBER_MESSAGE], 100);
    EXPECT_EQ(Total(), kRegion);
}

}  // namespace
}  // namespace zvx
