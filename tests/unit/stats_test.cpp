// The table of statistics against the data that it was made from, and the refusal of equal names.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "diag/stats.h"
#include "diag/trace.h"

namespace zvx {
namespace {

TEST(Stats, EveryEntry) {
    std::memset(static_cast<void *>(gStats), 0xA5, sizeof(gStats));
    std::memset(gStatSide, 0xA5, sizeof(gStatSide));
    StatsInit();
    std::ifstream data(ZVX_TEST_DATA "/stats.tsv");
    std::string line;
    std::getline(data, line);
    uint32_t id = 0;
    for (; std::getline(data, line); id++) {
        std::istringstream row(line);
        uint32_t rowId = 0;
        uint32_t level = 0;
        std::string name;
        row >> rowId >> level >> std::ws;
        std::getline(row, name);
        ASSERT_EQ(rowId, id);
        const StatRecord &stat = gStats[id];
        EXPECT_EQ(stat.Id, id);
        EXPECT_EQ(stat.Level, level);
        EXPECT_EQ(stat.Name, name);
        EXPECT_EQ(stat.ShortName, name.substr(0, name.find(' ')));
        const bool number = name.find("%u") + 1 || name.find("%d") + 1 || name.find("%X") + 1;
        EXPECT_EQ(stat.ArgKind, name.find("%s") != std::string::npos ? 2u : number ? 1u : 0u) << name;
        EXPECT_EQ(stat.FirstWord, 1u);
        EXPECT_EQ(stat.SecondWord, 0u);
        for (uint32_t counter : stat.Counters) EXPECT_EQ(counter, 0u);
        for (uint32_t word : gStatSide[id]) EXPECT_EQ(word, 0u);
    }
    EXPECT_EQ(id, kNumStats);
}

// A spin lock takes the entry of its own name.
TEST(Stats, LockNames) {
    StatsInit();
    EXPECT_STREQ(gStats[STAT_RingLogQLock].Name, "RingLogQLock");
    EXPECT_STREQ(gStats[STAT_RingBufferQLock].Name, "RingBufferQLock");
    EXPECT_STREQ(gStats[STAT_HandHashQLock].Name, "HandHashQLock");
    EXPECT_STREQ(gStats[STAT_FiberNewOverQLock].Name, "FiberNewOverQLock");
    EXPECT_STREQ(gStats[STAT_FiberCritSecWrapLock].Name, "FiberCritSecWrapLock");
    EXPECT_STREQ(gStats[STAT_SpawnDynamicSchedLock].Name, "SpawnDynamicSchedLock");
    EXPECT_STREQ(gStats[STAT_SleepLock].Name, "SleepLock");
    EXPECT_STREQ(gStats[STAT_FreeFiberShellsQLock].Name, "FreeFiberShellsQLock");
    EXPECT_STREQ(gStats[STAT_CritSectionWaitersLock].Name, "CritSectionWaitersLock");
    EXPECT_STREQ(gStats[STAT_FreeChunksLock].Name, "FreeChunksLock");
    EXPECT_STREQ(gStats[STAT_FreeBytesLock].Name, "FreeBytesLock");
    EXPECT_STREQ(gStats[STAT_UserMessageQLock].Name, "UserMessageQLock");
}

// In a child: the console line goes to standard output, so it is sent on to where the parent reads.
void CheckNames(const char *first, const char *firstShort, const char *second, const char *secondShort) {
    StatRecord table[3] = {};
    table[0].Name = "other";
    std::strcpy(table[0].ShortName, "other");
    table[1].Name = first;
    std::strcpy(table[1].ShortName, firstShort);
    table[2].Name = second;
    std::strcpy(table[2].ShortName, secondShort);
    dup2(2, 1);
    TraceInit(testing::TempDir().c_str());
    CheckStatNames(table, 3);
    std::exit(0);
}

TEST(StatsFatal, EqualNames) {
    EXPECT_EXIT(CheckNames("SelectW NumHandles[%d]", "SelectW", "SelectW", "SelectW"), testing::ExitedWithCode(1),
                "KILLED: Duplicate stat short name SelectW NumHandles\\[%d\\]");
    EXPECT_EXIT(CheckNames("TimedPoll", "x", "TimedPoll", "y"), testing::ExitedWithCode(1),
                "KILLED: Duplicate stat name TimedPoll");
    EXPECT_EXIT(CheckNames("SWITCH_TO_FIBER [x%X]", "SWITCH_TO_FIBER", "SWITCH_TO_FIBER_N [%s]", "SWITCH_TO_FIBER_N"),
                testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zvx
