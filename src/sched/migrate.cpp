// sched/migrate.cpp - dynamic schedulers, and the move of a user thread to one of its own.
//
// Who moves: only the running thread itself, and only forward; it stays where it has arrived until it ends. Its way:
//
//   running on S, nothing of its own outstanding -> a dynamic scheduler T is taken for it -> state 13 in
//   S->MigrationQueue -> between the two, Sched null, in an attach message -> in T's queue -> running on T.
//
// What belongs to whom on the way. Until ProcessMigrationQueue takes it off the queue, its record is S's, which no
// longer runs it; nobody but the message has it afterwards, until T's AttachFiber. A request that meets it in between
// is kept by its receiver and passed on (message.cpp). What it leaves on S: nothing. Its operations have ended and were
// handed over, their packets have come, so that neither S's ring nor its port knows its records any more. What it has
// open goes along as it is: handles name no scheduler but by PortIndex, which makes their operations polled ones here.
//
// A slot goes 1 -> 2 when it is first taken, 2 -> 3 when its user thread has ended, 3 -> 2 when it is taken again. A
// scheduler, once made, never ends. SpawnDynamicSchedLock guards the slots, their count and the making, so that two
// schedulers never make the same one; it is the one lock that is held for as long as a kernel thread takes to start.
#include <cstring>

#include "alloc/alloc.h"
#include "base/spinlock.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "sched/internal.h"
#include "sched/startup.h"

namespace zvx {

std::atomic<uint32_t> gNumDynamicSchedulers;
std::atomic<uint32_t> gSchedulersMade;

namespace {

enum SlotState : uint8_t { kSlotNew = 1, kSlotInUse = 2, kSlotFree = 3 };

SpinLock gSpawnDynamicSchedLock;                      // "SpawnDynamicSchedLock"
uint8_t gDynamicSlots[kMaxDynamicSchedulers];         // [lock] SlotState
Scheduler gDynamicSchedulers[kMaxDynamicSchedulers];  // a record is its scheduler's from the first use of its slot
uint32_t gSpareProcessor;  // [lock] mask of the processor after those of the static schedulers

// With more than sixteen static schedulers the table of all of them has room for fewer.
uint32_t MostDynamicSchedulers() {
    const uint32_t room = kMaxSchedulers - gNumSchedulers;
    return room < kMaxDynamicSchedulers ? room : kMaxDynamicSchedulers;
}

bool IsWriter(const Fiber *F) {
    return std::strncmp(F->Tag.load(std::memory_order_relaxed), "DBW", 3) == 0;
}

// The processor that start-up kept free is for the writers, all of them; other bound threads go round.
uint32_t ProcessorFor(bool writer) {
    if (!OptionSet(su_BindDBWRToASeperateCPU)) return NextSchedulerMask();
    if (gSpareProcessor == 0) gSpareProcessor = NextSchedulerMask();
    return writer ? gSpareProcessor : NextSchedulerMask();
}

void MakeScheduler(Scheduler *S, uint32_t slot, bool writer) {
    const bool bind = (writer && OptionSet(su_BindDBWRToASeperateCPU)) || OptionSet(su_DynamicSchedulersBind);
    int32_t priority = THREAD_PRIORITY_ABOVE_NORMAL;
    if (OptionSet(su_DynamicSchedulersBoostPriority) && (!writer || OptionSet(su_BoostDBWRPriority)))
        priority = THREAD_PRIORITY_HIGHEST;
    // An unbound one may run anywhere, and putting its mask back after a stack was made must never fail.
    S->AffinityMask = bind ? ProcessorFor(writer) : gProcessAffinityMask;
    S->NumaNode = NodeOfMask(S->AffinityMask);
    InitScheduler(S, gNumSchedulers + slot);
    // Release: who sees the number sees the entry.
    gSchedulersMade.store(gNumSchedulers + slot + 1, std::memory_order_release);
    SpawnSchedulerThread(S, bind, priority);
}

// Nothing of F's can be written to, handed over or sent a packet any more.
bool NothingOutstanding(Scheduler *S, Fiber *F) {
    // A record that has ended but waits to be handed over would be found by S's next look, which must not touch it.
    HandOverEnded(S);
    const auto settled = [](const FIBEROVERLAPPED *rec) {
        return HasEnded(rec) && rec->SkipPackets == 0 && !(rec->Flags & OV_PACKET_EXPECTED);
    };
    for (const FIBEROVERLAPPED &rec : F->OwnOvs)
        if (!settled(&rec)) return false;
    for (ListHead *list : {&F->FileOvs, &F->SocketOvs})
        for (ListLink *link = FirstLink(list); link != &list->Ends; link = link->Next)
            if (!settled(OvOfLink(link))) return false;
    const char *low = nullptr;
    const char *high = nullptr;
    os::FiberStackBounds(F->OsFiber, &low, &high);
    return os::IoOutstandingInRange(low, high) == 0;
}

}  // namespace

void InitDynamicSchedulers() {
    InitSpinLock(&gSpawnDynamicSchedLock, &gStats[STAT_SpawnDynamicSchedLock]);
    for (uint8_t &state : gDynamicSlots) state = kSlotNew;
    gSpareProcessor = 0;
    gNumDynamicSchedulers.store(0, std::memory_order_relaxed);
    gSchedulersMade.store(gNumSchedulers, std::memory_order_release);
}

bool IsDynamic(const Scheduler *S) {
    return S->Index >= gNumSchedulers;
}

Scheduler *SpawnDynamicScheduler(const Fiber *F) {
    AcquireSpinLock(&gSpawnDynamicSchedLock);
    const uint32_t most = MostDynamicSchedulers();
    const uint32_t inUse = gNumDynamicSchedulers.load(std::memory_order_relaxed);
    uint32_t slot = 0;
    while (slot < most && gDynamicSlots[slot] == kSlotInUse) slot++;
    if (inUse >= most || slot == most) {
        // Not under the lock: threads that end meanwhile give their slots back.
        ReleaseSpinLock(&gSpawnDynamicSchedLock);
        if (inUse >= most) FatalExit("Can not spawn any more dynamic schedulers MAX[%d]\n", static_cast<int>(most));
        FatalExit("No free dynamic scheduler found (internal error)\n");
    }
    Scheduler *S = &gDynamicSchedulers[slot];
    const bool isNew = gDynamicSlots[slot] == kSlotNew;
    gDynamicSlots[slot] = kSlotInUse;
    if (isNew) MakeScheduler(S, slot, IsWriter(F));
    gNumDynamicSchedulers.store(inUse + 1, std::memory_order_relaxed);
    ReleaseSpinLock(&gSpawnDynamicSchedLock);
    return S;
}

void ReleaseDynamicScheduler(const Scheduler *S) {
    SpinGuard guard(&gSpawnDynamicSchedLock);
    gDynamicSlots[S->Index - gNumSchedulers] = kSlotFree;
    gNumDynamicSchedulers.store(gNumDynamicSchedulers.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
}

void MoveToDynamicScheduler(Fiber *F) {
    if (!OptionSet(su_DynamicSchedulersEnabled)) return;
    // It has a scheduler of its own already, or ends soon: a second one would never be given back.
    if (IsDynamic(SchedOf(F)) || (F->Flags & (FIBER_TERMINATE | FIBER_EXITING))) return;
    while (!NothingOutstanding(SchedOf(F), F)) {
        SchedOf(F)->PortPollCountdown = 0;  // it may be a packet, and a busy scheduler looks for those rarely
        SchedYield(F, Yield_SCHED);
        if (IsDynamic(SchedOf(F))) return;  // a routine that ran meanwhile has moved the thread
    }
    // No yield from here to the one that leaves: whoever ends a thread that waits above finds no scheduler reserved.
    F->MigrateTarget = SpawnDynamicScheduler(F);
    const bool lgwr = SchedOf(F)->LgwrFiber.load(std::memory_order_relaxed) == F;
    const bool dbwr = SchedOf(F)->DbwrFiber.load(std::memory_order_relaxed) == F;
    LeaveRole(F);
    SchedYield(F, Yield_MIGRATE);
    if (lgwr) SchedOf(F)->LgwrFiber.store(F, std::memory_order_relaxed);
    if (dbwr) SchedOf(F)->DbwrFiber.store(F, std::memory_order_relaxed);
}

void ProcessMigrationQueue(Scheduler *S) {
    while (ListLink *link = PopLink(&S->MigrationQueue)) {
        Fiber *F = FiberOfRunLink(link);
        Scheduler *T = F->MigrateTarget;
        F->MigrateTarget = nullptr;
        UnlinkFrom(&S->AllFibers, &F->SchedFibersLink);
        SetSched(F, nullptr, std::memory_order_release);
        if (!SendFiberToScheduler(F, S, T)) FatalExit("Could not migrate fiber\n");
    }
}

}  // namespace zvx
