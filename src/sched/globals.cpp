// sched/globals.cpp - the scheduler's process-wide state; each word's owner is named in records.h.
#include "sched/sched.h"

namespace zvx {

Scheduler *gSchedulers[kMaxSchedulers];
PostLane gPostLanes[kMaxSchedulers][kMaxSchedulers];
FreeShellList gFreeShells[kMaxNodes];
std::atomic<uint32_t> gShellSerial;
Fiber *gFirstShells[19];
void *gProcessTls;
std::atomic<uint32_t> gTlsHighWater;
std::atomic<uint32_t> gQuantumTick;

uint32_t gPRQ = 1, gFRQ = 2;
static const char *const kDefaultQueueNames[] = {"HPRQ", "PRQ", "FRQ", "SRQ", "LPRQ", "ORQ"};
const char *const *gRunQNames = kDefaultQueueNames;

std::atomic<uint32_t> gLgwrWriteCount;
std::atomic<uint32_t> gLgwrPeriodStart;
std::atomic<uint32_t> gLgwrLastWriteTick;
std::atomic<uint32_t> gLgwrWritesLastPeriod;

}  // namespace zvx
