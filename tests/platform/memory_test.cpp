// tests/platform/memory_test.cpp - the reserved range, general allocations and their failures.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "child.h"
#include "platform/base/fiber_internal.h"
#include "platform/os.h"

using namespace os;

TEST(Memory, TheRangeHandsOutDisjointZeroedRegionsFromManyThreads) {
    struct Region {
        char *At;
        size_t Bytes;
    };
    constexpr int kThreads = 4;
    constexpr int kEach = 60;
    std::vector<Region> regions(kThreads * kEach);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const size_t bytes = i % 7 == 0 ? size_t{3} << 20 : size_t{1} + static_cast<size_t>(i) * 5000;
                char *at = static_cast<char *>(VirtualAllocInRange(bytes, MEM_COMMIT, PAGE_READWRITE));
                ASSERT_NE(at, nullptr);
                ASSERT_EQ(at[0] | at[bytes / 2] | at[bytes - 1], 0);
                at[0] = at[bytes - 1] = static_cast<char>(t + 1);
                regions[static_cast<size_t>(t * kEach + i)] = {at, bytes};
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    std::sort(regions.begin(), regions.end(), [](const Region &a, const Region &b) { return a.At < b.At; });
    const char *end = RangeBase() + 1;
    for (const Region &region : regions) {
        ASSERT_GE(region.At, end);
        end = region.At + region.Bytes;
    }
    EXPECT_LE(static_cast<uint64_t>(end - RangeBase()), uint64_t{1} << 32);

    // What lies beyond the range is refused and takes nothing from it.
    EXPECT_EQ(VirtualAllocInRange(size_t{4} << 30, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(VirtualAllocInRange(SIZE_MAX, MEM_COMMIT, PAGE_READWRITE), nullptr);
    EXPECT_NE(VirtualAllocInRange(4096, MEM_COMMIT, PAGE_READWRITE), nullptr);
    // Its memory is never given back.
    EXPECT_FALSE(VirtualFree(regions[0].At, 0, MEM_RELEASE));
}

TEST(Memory, GeneralAllocationsAreReleasedWholeAndOnce) {
    std::vector<char *> blocks;
    for (size_t i = 0; i < 200; ++i) {
        char *at = static_cast<char *>(VirtualAlloc(nullptr, 10000 + i * 4096, MEM_COMMIT, PAGE_READWRITE));
        ASSERT_NE(at, nullptr);
        at[10000 + i * 4096 - 1] = 1;
        blocks.push_back(at);
    }
    EXPECT_FALSE(VirtualFree(blocks[5] + 4096, 0, MEM_RELEASE));
    for (size_t i = 0; i < blocks.size(); ++i) {
        ASSERT_TRUE(VirtualFree(blocks[i], 0, MEM_RELEASE));
        unsigned char resident;
        const size_t last = (10000 + i * 4096) / 4096;
        // Somebody may map there again later, but not this test.
        EXPECT_EQ(mincore(blocks[i] + last * 4096, 4096, &resident), -1) << "the last page is still mapped";
        EXPECT_FALSE(VirtualFree(blocks[i], 0, MEM_RELEASE));
    }
    // Reserved first, committed in part later.
    char *reserved = static_cast<char *>(VirtualAlloc(nullptr, 1 << 20, MEM_RESERVE, PAGE_READWRITE));
    ASSERT_NE(reserved, nullptr);
    ASSERT_EQ(VirtualAlloc(reserved + 65536, 4096, MEM_COMMIT, PAGE_READWRITE), reserved + 65536);
    reserved[65536] = 1;
    const ChildResult result = RunChild([&] { *static_cast<volatile char *>(reserved) = 1; });
    EXPECT_NE(result.Signal | result.ExitCode, 0) << "reserved memory was usable";
    EXPECT_TRUE(VirtualFree(reserved, 0, MEM_RELEASE));
}

TEST(Memory, LargePagesNeedThePrivilegeAndThenAFreePage) {
    SetLastError(0);
    EXPECT_EQ(VirtualAllocInRange(1 << 20, MEM_COMMIT | MEM_LARGE_PAGES, PAGE_READWRITE), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PRIVILEGE_NOT_HELD) << "before the privilege was asked for";
    if (!EnableLockMemoryPrivilege()) {
        EXPECT_EQ(GetLastError(), ERROR_PRIVILEGE_NOT_HELD);
        GTEST_SKIP() << "the kernel has no large page free";
    }
    char *first = static_cast<char *>(VirtualAllocInRange(1 << 20, MEM_COMMIT | MEM_LARGE_PAGES, PAGE_READWRITE));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % (2 << 20), 0u);
    first[(2 << 20) - 1] = 1;  // rounded up to the page
    // More than there can be: refused, and the range goes on working around it.
    EXPECT_EQ(VirtualAllocInRange(size_t{2} << 30, MEM_COMMIT | MEM_LARGE_PAGES, PAGE_READWRITE), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_NO_SYSTEM_RESOURCES);
    char *small = static_cast<char *>(VirtualAllocInRange(4096, MEM_COMMIT, PAGE_READWRITE));
    ASSERT_NE(small, nullptr);
    small[0] = 1;
}

TEST(Memory, AnAddressSpaceLimitIsErrorEight) {
#if defined(ZVX_ASAN) || defined(ZVX_TSAN)
    GTEST_SKIP() << "a sanitizer needs more address space than the limit leaves";
#endif
    const ChildResult result = RunChild([] {
        const rlimit limit = {size_t{1} << 30, size_t{1} << 30};
        setrlimit(RLIMIT_AS, &limit);
        void *range = VirtualAllocInRange(4096, MEM_COMMIT, PAGE_READWRITE);
        printf("%d %u\n", range != nullptr, GetLastError());
        void *general = VirtualAlloc(nullptr, size_t{2} << 30, MEM_COMMIT, PAGE_READWRITE);
        printf("%d %u\n", general != nullptr, GetLastError());
        printf("%d\n", VirtualAlloc(nullptr, 1 << 20, MEM_COMMIT, PAGE_READWRITE) != nullptr);
        fflush(stdout);
    });
    EXPECT_EQ(result.Output, "0 8\n0 8\n1\n");
}
