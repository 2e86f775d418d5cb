// diag/stats.h - the table of named statistics; also the names of the spin locks.
#ifndef ZVX_DIAG_STATS_H
#define ZVX_DIAG_STATS_H

#include <cstdint>

namespace zvx {

constexpr uint32_t kNumStats = 267;
constexpr uint32_t kStatSideWords = 33;

struct StatRecord {
    uint32_t Id;
    uint32_t FirstWord;     // 1 once the table is built
    uint32_t SecondWord;    // 0
    uint32_t Counters[32];  // one a scheduler slot
    uint32_t Level;         // 0, 1 or 2
    const char *Name;       // also a printf format for the one optional argument
    char ShortName[80];     // Name up to its first blank
    uint32_t ArgKind;       // 0 no conversion, 1 numeric, 2 text
};

extern StatRecord gStats[kNumStats];
extern uint32_t gStatSide[kNumStats][kStatSideWords];

// Identifiers of the named spin locks.
enum LockStatId : uint32_t {
    STAT_RingLogQLock = 185,
    STAT_RingBufferQLock = 186,
    STAT_HandHashQLock = 187,
    STAT_FiberNewOverQLock = 188,
    STAT_FiberCritSecWrapLock = 189,
    STAT_SpawnDynamicSchedLock = 190,
    STAT_SleepLock = 191,
    STAT_FreeFiberShellsQLock = 192,
    STAT_CritSectionWaitersLock = 193,
    STAT_FreeChunksLock = 194,
    STAT_FreeBytesLock = 195,
    STAT_UserMessageQLock = 205,
};

// Fills the table and ends the process when two names or two short names are equal. Once, at start-up.
void StatsInit();
// The checks of StatsInit over any table (the first `count` records must have Name set).
void CheckStatNames(const StatRecord *table, uint32_t count);

}  // namespace zvx

#endif  // ZVX_DIAG_STATS_H
