// sched/records.h - the records that every subsystem reads: user thread, scheduler, overlapped record,
// message. Data and asserts only; what moves a record from list to list is in the .cpp files of sched/.
//
// Ownership words on the fields: `owner` - the thread of the scheduler that has the record now, without a
// lock; `[Lock]` - under that lock; `atomic` - written by one thread and read by others, or by two; `init` -
// written before the record can be reached by another thread and constant afterwards.
#ifndef ZVX_SCHED_RECORDS_H
#define ZVX_SCHED_RECORDS_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/list.h"
#include "base/spinlock.h"
#include "platform/os.h"

namespace zvx {

struct Fiber;
struct Scheduler;
struct PSEHAND;

// ---- Enumerations ------------------------------------------------------------------------------------

enum FiberFlag : uint32_t {
    FIBER_IN_USE = 0x1,             // set on every record handed out, left set when it is freed
    FIBER_STARTED = 0x2,            // the operating-system fiber has begun running
    FIBER_TERMINATE = 0x4,          // ends itself when it next resumes
    FIBER_USER_THREAD = 0x8,        // made by the host's CreateThread; counted in FiberCount
    FIBER_EXITING = 0x80,           // exit in progress; termination no longer applies
    FIBER_POLL_OWN_OVS = 0x800,     // in an alertable wait over its own FileOvs and SocketOvs
    FIBER_POST_WAIT = 0x1000,       // waiting for a post
    FIBER_INFINITE_WAIT = 0x2000,   // RunLink is in InfiniteWaiters rather than TimedWaiters
    FIBER_EXEC_PENDING = 0x10000,   // an injected routine waits to run
    FIBER_EXEC_RUNNING = 0x20000,   // the injected routine is running
    FIBER_POLLED_WAIT = 0x40000,    // the timed wait is a slice of a polled one and ends at the next timer check
    FIBER_SLICE_FILED = 0x80000,    // the latest wait in TimedWaiters or InfiniteWaiters was such a slice
    FIBER_OBJECT_WAIT = 0x100000,   // in a wait that is parked with its objects: ObjectWait
};
// The slots of the backing thread were captured or restored. Kept in Fiber.TlsCaptured rather than in Flags,
// because the thread that ends the backing thread need not be the owner; the value is the bit's.
constexpr uint32_t FIBER_TLS_CAPTURED = 0x400;

enum FiberClass : uint32_t { CLASS_BACKGROUND = 1, CLASS_NORMAL = 2, CLASS_BOOSTED = 3, CLASS_HIGH = 4 };

enum FiberRole : uint32_t {
    ROLE_NONE = 0,
    ROLE_INTERNAL = 1,
    ROLE_SHAD = 2,
    ROLE_OTHER = 3,
    ROLE_DBWR = 4,
    ROLE_LGWR = 5,
    ROLE_PMON = 6,
};

// Where RunLink is, by State. Every change of State moves RunLink into the list named here.
enum FiberState : uint32_t {
    FSTATE_SCHED_YIELD = 2,    // at the tail of ORQ; counted in BackgroundRunnable
    FSTATE_READY = 3,          // in ReadyList or a run queue
    FSTATE_RUNNING = 4,        // in no list; one fiber a scheduler
    FSTATE_TIMED_WAIT = 6,     // in TimedWaiters, or InfiniteWaiters with FIBER_INFINITE_WAIT
    FSTATE_IO_WAIT = 7,        // in IoWaiters
    FSTATE_EXITED = 8,         // in ExitedFibers
    FSTATE_CREATED = 9,        // on its way in a message; treated as runnable
    FSTATE_YIELDED = 11,       // in ORQ after Yield_USER
    FSTATE_MIGRATING = 13,     // in MigrationQueue, or on its way in a message
    FSTATE_POSTING = 14,       // in a run queue behind the fiber it posted
    FSTATE_LATCH_SLEEP = 15,   // in LatchSleepers
    FSTATE_SUSPENDED = 17,     // in SuspendedFibers
};

enum YieldReason : uint32_t {
    Yield_SCHED = 2,
    Yield_TIMER_WAIT = 6,
    Yield_IO_WAIT = 7,
    Yield_EXIT = 8,
    Yield_USER = 11,
    Yield_MIGRATE = 13,
    Yield_POSTER = 14,
    Yield_LATCH_FREE = 15,
};

constexpr uint32_t kMaxSchedulers = 32;
constexpr uint32_t kMaxNodes = 16;
constexpr uint32_t kMaxDynamicSchedulers = 16;
constexpr uint32_t kChunkCacheSlots = 512;
constexpr uint32_t kFullSweepPasses = 999;  // SelectPasses above this forces a full sweep
constexpr uint32_t kAlwaysPackets = 10000;  // gNumContextSwitchesBeforePolling from here on: ports always

// ---- FIBEROVERLAPPED ---------------------------------------------------------------------------------

enum OvFlag : uint32_t {
    OV_FILE = 0x1,              // file or pipe operation without a completion routine
    OV_FILE_ROUTINE = 0x2,      // file operation with a completion routine
    OV_SOCKET = 0x4,
    OV_SOCKET_ROUTINE = 0x8,
    OV_PACKET_EXPECTED = 0x10,  // a packet will arrive on the port for this operation
    OV_IN_POLL_SET = 0x20,      // PollLink is in the fiber's PollSetOvs
    OV_CANCELLED = 0x40,        // cancelled because the thread ends; the routine is not called
};
constexpr uint32_t OV_ANY_FILE = OV_FILE | OV_FILE_ROUTINE;
constexpr uint32_t OV_ANY_ROUTINE = OV_FILE_ROUTINE | OV_SOCKET_ROUTINE;

constexpr uint32_t FIBEROVERLAPPED_MAGIC = 0xA1B2C3D4u;

// The poll lists by index; kNotPolled while PollLink is in none of them.
enum PollIndex : uint8_t { kPollHigh = 0, kPollFile = 1, kPollSocket = 2, kPollLists = 3, kNotPolled = 0xFF };
// How a record in a poll list counts in the idle decision while it is pending.
enum PollClass : uint8_t { kCountNone, kCountPort, kCountPolled, kCountNet };

enum EndedPlace : uint8_t { kEndedNowhere, kEndedList, kDeepList };

// FIBEROVERLAPPED: ties an OVERLAPPED to the user thread that waits for it. Embedded three times in every
// Fiber, or a chunk for operations with a completion routine.
//
// Life: free (FreeOvs) -> in use (Link in FileOvs or SocketOvs for routine records) -> waited on (PollLink in
// a poll list or PollSetOvs) -> ended (the platform hands it over: EndedLink in the scheduler's Ended list of
// its poll list) -> consumed by a walk -> free. OV_PACKET_EXPECTED goes from set to clear exactly once an
// operation: when the packet is processed, or when the operation is accounted for without it, in which case
// SkipPackets takes over. A record is never reused while SkipPackets of an embedded record is being drained
// by an exit; a chunk record keeps its count across reuse.
//
// All fields belong to the scheduler that has the fiber, except Ov and Io while the operation runs (the
// platform's, same kernel thread).
struct FIBEROVERLAPPED {
    ListLink Link;      // owner: in FileOvs, SocketOvs or FreeOvs
    ListLink PollLink;  // owner: in the poll list PollList, or in PollSetOvs
    OVERLAPPED Ov;      // handed to the operating system; Internal read with acquire order
    struct Fiber *Fiber;
    uint32_t Flags;        // OV_ bits
    uint32_t SkipPackets;  // packets still to come for operations already accounted for
    uint32_t HandleType;   // PHAND_HTYPE_ of the handle
    uint32_t OpArg;        // operation code of the wrapper
    OVERLAPPED *CallerOv;  // caller's: receives Internal and InternalHigh before the routine runs
    HANDLE OsHandle;
    LPOVERLAPPED_COMPLETION_ROUTINE CompletionRoutine;
    void *SocketRoutine;
    PSEHAND *HandleRec;
    Scheduler *Issuer;    // owner: the scheduler that issued the latest operation, whose port its packet comes to
    uint32_t Magic;       // always FIBEROVERLAPPED_MAGIC
    uint8_t PollList;     // owner: a PollIndex
    uint8_t CountClass;   // owner: the PollClass it is counted under now
    uint8_t ForeignPort;  // owner: polled because the handle is bound to another scheduler's port
    uint8_t OwnEnded;     // owner: routine record that ended and is counted in Fiber.OwnEnded
    uint8_t EndedIn;      // owner: an EndedPlace, which list EndedLink is in
    uint64_t PollSeq;     // owner: order of entry into the poll list; the order in which a walk would meet it
    ListLink EndedLink;   // owner: in EndedOvs[PollList] or DeepOvs[PollList], in PollSeq order
    os::IoOp Io;          // platform: hand-over and packet queue
};
static_assert(sizeof(FIBEROVERLAPPED) <= 256, "one chunk holds one record");

// ---- FIBER_MESSAGE -----------------------------------------------------------------------------------

enum MessageKind : uint8_t {
    MSG_POST = 1,
    MSG_ATTACH = 2,
    MSG_SUSPEND = 3,
    MSG_RESUME = 4,
    MSG_TERMINATE = 5,
    MSG_EXEC = 6,
    MSG_OBJECTS = 7,  // about no fiber: the scheduler's own record, which says that ObjectSink has something
};

// FIBER_MESSAGE: a request of any thread to a scheduler about one of its fibers. Written by the sender before
// SendMessage; afterwards the receiver's, which frees it. A message that names a fiber of an older generation
// does nothing. A post of one fiber reads and writes the first line only.
struct FIBER_MESSAGE {
    FIBER_MESSAGE *Next;  // in Messages: the one that was sent before it
    uint8_t Kind;
    uint8_t Count;        // fibers for kinds 1 and 2, else 1
    uint16_t PostBit;     // kind 1: the POST_ bit
    uint32_t Generation;  // the target's when sent; kind 1: the first target's
    union {
        Fiber *Fibers[16];  // kinds 1 and 2
        struct {
            Fiber *Target;
            uintptr_t ExitCode;  // kind 5; kind 3: the SuspendAnswer that its sender looks at, or 0
            void *Routine;       // kind 6; kind 3: the number of the request, which is stored there
        } One;
    };
    uint32_t OtherGenerations[15];  // kind 1: those of the other targets
};
static_assert(sizeof(FIBER_MESSAGE) <= 256, "one chunk holds one message");

inline uint32_t *GenerationOfTarget(FIBER_MESSAGE *msg, uint32_t i) {
    return i == 0 ? &msg->Generation : &msg->OtherGenerations[i - 1];
}

// PostLane: single posts from one scheduler to another, without a message. Two cache lines move a post, the slot to
// the receiver and nothing back: the sender asks how many were taken only when it believes the lane to be full, and
// then sends a message instead if it is.
//
// A slot is written by the sender, Seq last, and read by the receiver once Seq is the number it waits for. The line of
// Sent is the sender's; Taken is written by the receiver.
constexpr uint32_t kLaneSlots = 8;
struct PostLane {
    struct alignas(64) Slot {
        std::atomic<uint32_t> Seq;  // number of the post in it, from 1; wraps
        uint32_t Generation;        // the target's when posted
        uint32_t PostBit;
        Fiber *Target;
    } Slots[kLaneSlots];
    alignas(64) uint32_t Sent;
    uint32_t TakenSeen;  // sender: Taken when it last looked
    alignas(64) std::atomic<uint32_t> Taken;
};

constexpr uintptr_t KEY_MESSAGES = 1;  // completion key of a wake-up packet

// ---- Fiber -------------------------------------------------------------------------------------------

using TermCleanupFunc = void (*)(Fiber *F, Scheduler *S, uintptr_t *args, uint32_t code);

// Clean-up functions of the waits that are in progress; strictly nested, two at most.
struct TermCleanupTable {
    uint32_t Count;
    TermCleanupFunc Funcs[2];
    uintptr_t Args[2][3];
    uint32_t SavedCount;  // put aside while an injected routine runs
    TermCleanupFunc SavedFuncs[2];
    uintptr_t SavedArgs[2][3];
};

// The interrupted wait while an injected routine runs.
struct ExecSaveRecord {
    void (*Routine)();
    uint32_t State;
    uint32_t PollOwnOvs;  // FIBER_POLL_OWN_OVS or 0
    uint32_t ObjectWait;  // FIBER_OBJECT_WAIT or 0
    uint32_t WaitTimeoutMs;
    uint32_t WaitStartTick;
    uint32_t SuspendCount;
    OVERLAPPED *CurOv;
};

// Fiber: one user thread; also the fiber data of its operating-system fiber, which is how running code finds
// its own record.
//
// Records are made eight at a time, never given back, and reused through gFreeShells. OsFiber, ShellSerial
// and Generation survive reuse; everything else is set afresh. A record is touched only by the thread of the
// scheduler in Sched; other threads read the atomics and send messages.
//
// The first two cache lines hold what a switch touches, so that a yield among thousands of user threads
// misses the cache twice a switch and not five times.
struct alignas(64) Fiber {
    // -- line 0: read and written by every switch
    ListLink RunLink;                     // owner: in exactly the list that State names
    uint32_t State;                       // owner: a FiberState
    uint32_t Flags;                       // owner: FIBER_ bits
    std::atomic<uint32_t> SuspendCount;   // atomic: owner writes, SuspendThread and ResumeThread read; 0 to 127
    uint32_t LastRunStamp;                // owner: SwitchCount when it last got the processor back; 0 after attach
    uint32_t SchedClass;                  // owner: a FiberClass
    uint32_t Role;                        // owner: a FiberRole
    DWORD LastError;                      // owner: saved while switched out
    std::atomic<Scheduler *> Home;        // atomic: Sched again, for those who run there: the line is theirs anyway
    os::FiberContext *OsFiber;            // kept across reuse; null after its stack was given back
    // -- line 1
    uint64_t CpuCycles;                   // owner: cycles spent running
    OVERLAPPED *IoWaitOv;                 // owner: the operation of a Yield_IO_WAIT; cleared by a message
    OVERLAPPED *CurOv;                    // owner: the operation whose end ends the current wait
    uint32_t WaitStartTick;               // owner: tick from which the remainder is measured
    uint32_t WaitTimeoutMs;               // owner: remaining milliseconds; 0xFFFFFFFF is infinite
    uint32_t PostPending;                 // owner: POST_ bits not consumed yet
    uint32_t ApcDelivered;                // owner: a completion routine has run on this fiber
    uint32_t PendingApcIos;               // owner: outstanding operations with a routine
    uint32_t OwnEnded;                    // owner: routine records that ended and were not reaped yet
    void *StaticTls;                      // owner: value carried in the thread block
    uint64_t ParkedTsc;                   // owner: cycle counter at its latest yield; 0 where none is read
    // -- the rest
    uint32_t PostWaitMask;                // owner: the POST_ bits that end the post wait in progress
    uint32_t PostEventSerial;             // owner: Serial of PostEvent, which the host may close at any time
    Fiber *HeapChild;                     // owner: time-out heap (sched/timer.cpp)
    Fiber *HeapNext;
    Fiber *HeapPrev;                      // parent for a first child, else the left sibling
    uint64_t WaitSeq;                     // owner: order of entry into TimedWaiters
    uint64_t WaitDeadline;                // owner: 64-bit tick at which a finite wait ends
    uint64_t PolledTsc;                   // owner: cycle counter at the start of the polled wait in progress
    os::ParkedWait *ObjectWait;           // owner: with FIBER_OBJECT_WAIT, on the fiber's own stack (objects.cpp)
    ListHead PollSetOvs;                  // owner: records gathered for an alertable wait (PollLink)
    ListHead FileOvs;                     // owner: outstanding routine records (Link)
    ListHead SocketOvs;
    uint32_t SleepExNTarget;              // owner: ZSleepExN: value to reach; 0 when no such wait is in progress
    uint32_t StackSize;                   // init: as requested; not applied
    const uint32_t *SleepExNCounter;      // caller: until ZSleepExN returns
    const uint32_t *SleepExNOutstanding;
    ListLink CritSecWaitLink;
    ListHead OwnedCritSecs;
    uint32_t ExitCode;                    // owner: 259 until the thread ends; read by the backing thread's end
    PSEHAND *PostEvent;                   // owner: null, or identified; may be freed already
    uint32_t PostEventHandle;             // owner: its handle value, 0 when it is in no table
    PSEHAND *ThreadHandleRec;
    SECURITY_ATTRIBUTES SecurityAttributes;
    void *StartParam;
    LPTHREAD_START_ROUTINE StartRoutine;
    HANDLE OsThreadHandle;                // owner: the backing thread; null when there is none
    Scheduler *MigrateTarget;
    TermCleanupTable TermCleanup;
    ExecSaveRecord ExecSave;
    ListLink SchedFibersLink;
    // -- words that other threads read at any time, also after the record was freed; a line that the owner seldom
    // writes, so that a post from another processor does not take the lines of a switch away from it
    alignas(64) std::atomic<Scheduler *> Sched;  // atomic: null between two schedulers; see SetSched
    std::atomic<uint32_t> Generation;     // atomic: owner of the free list writes, holders of old references read
    std::atomic<uint32_t> OsThreadId;     // atomic: owner writes, dumps and tools read
    std::atomic<uint32_t> TlsCaptured;    // atomic: FIBER_TLS_CAPTURED or 0, stored by capture and end
    std::atomic<uint32_t> SuspendRequests;  // atomic: owner counts those that it has handled
    // atomic: owner; odd while FIBER_EXEC_PENDING is set. Raised before the suspend count is put aside and after it is
    // back, so that who reads the same even number before and after the count has read the real one.
    std::atomic<uint32_t> RoutineEpoch;
    // atomic: the request of this thread that was handled last; [1] of a routine injected into it, which may run while
    // the thread waits for the answer to its own. Whoever handles a request raises it.
    std::atomic<uintptr_t> SuspendAnswer[2];
    uint32_t ShellSerial;                 // init: kept across reuse; others read it while they record a timeline
    std::atomic<const char *> Tag;        // atomic: owner writes, dumps and the overflow report read
    FIBEROVERLAPPED OwnOvs[3];            // ordinary I/O; I/O of an injected routine; I/O of an exit
    void *TlsValues[os::kTlsSlots];       // owner: slots 0 to 63; installed by pointer while the fiber runs
};
static_assert(offsetof(Fiber, CpuCycles) == 64, "a switch reads line 0 and line 1 of the record");
static_assert(offsetof(Fiber, HeapChild) <= 144, "the lines of a switch stay small");

// Bits of PostPending: a section's hand-over never consumes the host's post, nor the other way round.
constexpr uint32_t POST_HOST = 1;
constexpr uint32_t POST_SECTION = 2;

// ---- Scheduler ---------------------------------------------------------------------------------------

using SchedBitMaskId = uint32_t;

// Bits of QueueMask: one a run-queue index, then the two lists that come before the queues.
constexpr uint32_t kMaskReady = 1u << 6;
constexpr uint32_t kMaskLatch = 1u << 7;
constexpr uint32_t kMaskRunQueues = 0x3F;

// Bits of Attention: what SchedYield must look at before it selects. One test of the word replaces the
// emptiness tests of the common case.
constexpr uint32_t kAttEndedHigh = 1u << kPollHigh;
constexpr uint32_t kAttEndedFile = 1u << kPollFile;
constexpr uint32_t kAttEndedSocket = 1u << kPollSocket;
constexpr uint32_t kAttEnded = kAttEndedHigh | kAttEndedFile | kAttEndedSocket;
constexpr uint32_t kAttNoPortCheck = 1u << 4;  // the yielding fiber left for good (exit, migration)

// Scheduler: one per scheduler thread; gSchedulers[Index] leads to it.
//
// Run queues, wait lists and poll lists are touched by the owning thread only, without locks. Other threads
// reach a scheduler through Messages, the lanes, ObjectSink and Port, and through the words that are marked as atomic.
//
// Always true between two calls of SchedYield (CheckScheduler, debug builds):
//   - a fiber's RunLink is in the one list its State names, in none while it runs;
//   - a list's Count is its length, and QueueMask has a bit set exactly where a list is not empty;
//   - PolledCount, NetCount and PortCount are the sums over the pending records of the poll lists;
//   - BackgroundRunnable is the number of fibers in state 2.
struct alignas(64) Scheduler {
    // -- what the switch path reads and writes
    uint32_t Attention;            // owner: kAtt bits; NoPortCheck is one of them
    uint32_t QueueMask;            // owner: which of the lists below are not empty
    os::IoThread *Io;              // init: by the scheduler thread, with its port
    os::ThreadBlock *Os;           // init: by the scheduler thread
    uint32_t SwitchesSinceIdle;    // owner: yields since the last idle, saturating at the setting
    uint32_t ShadowYields;         // owner: yields by ROLE_SHAD since the idle path last looked
    uint32_t PortPollCountdown;    // owner: yields left before the port is drained
    uint32_t SelectPasses;         // owner: passes since the last full sweep
    std::atomic<uint32_t> SwitchCount;       // atomic: owner +1 a pass; others read it for grace periods
    std::atomic<uint32_t> Idling;            // atomic: the owner is in the idle routine, and no user thread's code runs
    std::atomic<uint32_t> QuantumStartTick;  // atomic: gQuantumTick at the latest dispatch; others set it to 0
    uint64_t DispatchTsc;          // owner: cycle counter at the latest dispatch; 0 where times are not taken
    uint64_t LongestHold;          // owner: cycles; the longest time without a yield in this second
    const Fiber *LongestHolder;    // owner: whose
    std::atomic<uint64_t> Posts;         // atomic: owner counts, the second's line reads; posts made here, ever
    std::atomic<uint64_t> DonePolled;    // atomic: as Posts; operations found ended by polling
    std::atomic<uint64_t> DoneByPacket;  // atomic: as Posts; operations ended by a packet
    uint32_t BackgroundRunnable;   // owner: runnable fibers in state 2
    uint32_t LprqDelay;            // owner: passes still to wait before LPRQ is served
    uint32_t LastQueue;            // owner: index last taken from, or 6
    uint8_t LatchSkip;             // owner
    uint8_t NumaNode;              // init
    ListHead ReadyList;
    ListHead LatchSleepers;
    ListHead RunQueues[6];         // by gHPRQ, gPRQ, gFRQ, gSRQ, gLPRQ, gORQ
    uint32_t Unsorted[6];          // owner: how many at the head of each wait for SortQueue
    ListLink *SortEnd[6];          // owner: with Unsorted, the last before those appended since; null: there are none
    uint32_t SortMin[6];           // owner: with SortEnd, the smallest stamp up to there
    uint32_t TailMin[6];           // owner: with SortEnd, the smallest stamp behind it
    ListLink *InitFiberLink;       // init: RunLink of InitFiber
    void *(*SwitchHook)();         // owner: returns the Fiber to switch to; set and cleared by dumps
    struct TimelineRing *Timeline;  // owner: null unless somebody watches (diag/timeline.h)
    // -- written by other threads: a line of its own
    alignas(64) std::atomic<FIBER_MESSAGE *> Messages;  // atomic: newest first; anyone pushes, the owner takes all
    std::atomic<uint32_t> BlockedInPort;     // atomic: the owner sets it around a wait in Port; a sender clears it
    std::atomic<uint32_t> LaneMask;          // atomic: by index, who has ever posted through a lane; bits are only set
    std::atomic<uint8_t> DebugRequest;       // atomic: a diagnostic request waits
    // atomic: the owner sets it around a wait that is not in Port: 1 of the only user thread that it has, 2 in a call
    // that holds up its other user threads as well
    std::atomic<uint32_t> BlockedOutside;
    std::atomic<uint32_t> InTransit;         // atomic: user threads created for this scheduler, not attached yet
    // -- identity and placement
    alignas(64) uint32_t OsThreadId;  // init
    int32_t CurPriority;           // owner
    int32_t BasePriority;          // init
    uint32_t NetSpinBudget;        // owner: milliseconds
    uint32_t Index;                // init: below 32
    SchedBitMaskId BitMaskId;      // init: 1 << Index
    uint32_t AffinityMask;         // init
    std::atomic<uint32_t> FiberCount;        // atomic: owner writes, thread creation reads
    std::atomic<uint32_t> Running;           // atomic: 1 once the loop runs; release, the starter acquires
    std::atomic<Fiber *> LgwrFiber;          // atomic: owner writes, thread creation reads
    std::atomic<Fiber *> DbwrFiber;
    std::atomic<uint32_t> ShadowCount;
    std::atomic<uint32_t> SlaveCount;
    HANDLE ThreadHandle;           // init: while the thread is being started
    HANDLE Port;                   // init: anyone may post to it once Running is set
    // -- wait lists
    ListHead SuspendedFibers;
    ListHead TimedWaiters;         // finite waits, in order of entry
    ListHead InfiniteWaiters;
    ListHead IoWaiters;
    ListHead MigrationQueue;
    ListHead ExitedFibers;
    ListHead AllFibers;            // every started fiber (SchedFibersLink)
    Fiber *TimeoutHeap;            // owner: pairing heap over TimedWaiters by WaitDeadline
    uint64_t WaitSeqNext;          // owner
    uint32_t ExpectMessages;       // owner: 1 while the latest wait in the port was ended by a message
    Fiber *HighPriPostWaiter;      // owner
    uint32_t ShadowPostWaiters;    // owner
    uint64_t LastTimerCheck;       // owner: 64-bit tick of the latest timer-queue check
    uint32_t IdleCalls;            // owner
    // -- poll lists and what has ended of them
    ListHead PollLists[kPollLists];  // HighPriOvsToPoll, FileOvsToPoll, SocketOvsToPoll (PollLink)
    ListHead EndedOvs[kPollLists];   // records of each list that have ended, in PollSeq order (EndedLink)
    ListHead DeepOvs[kPollLists];    // CurOv records of alertable waits one of whose other operations ended
    uint64_t PollSeqNext;          // owner
    uint32_t PolledCount;          // owner: pending, no packet expected (net ones included)
    uint32_t NetCount;             // owner: the network ones of them
    uint32_t PortCount;            // owner: pending, a packet or the own ring will end the wait in the port
    ListHead FreeOvs;
    // -- messages being gathered, chunk caches, retired records
    FIBER_MESSAGE *PendingPosts[kMaxSchedulers];
    ListHead RetireOpen;           // owner: RetireEntry records since the last snapshot
    ListHead RetireWaiting;        // owner: waiting for every scheduler to pass RetireSnapshot
    uint32_t RetireSnapshotOf;     // owner: of how many schedulers
    uint32_t RetireSnapshot[kMaxSchedulers];
    uint32_t ChunkCacheCount[kMaxNodes];
    void *ChunkCache[kMaxNodes][kChunkCacheSlots];
    std::atomic<int32_t> ChunkTypeCount[8];  // atomic: owner writes, the dump sums; by type, allocated minus freed here
    // -- start-up and diagnostics
    LPTHREAD_START_ROUTINE MainRoutine;  // init: last static scheduler only
    void *MainParam;
    HANDLE MainThread;
    Fiber *DumpOrigin;
    void *SwitchHookArg;
    uint64_t LongestHolderTag;     // owner: eight characters of the tag that LongestHolder had then
    uint64_t SecondStart;          // owner: 64-bit tick at which the second began
    std::atomic<uint64_t> SecondHold;     // atomic: owner publishes LongestHold of the second that has passed
    std::atomic<uint64_t> SecondHolder;   // atomic: and LongestHolderTag
    TimelineRing *TimelineMemory;  // owner: the ring once there was one; tools read it
    Fiber *InitFiber;              // init: runs the main loop
    // -- written by whoever signals objects
    alignas(64) os::WaitSink ObjectSink;  // platform: parked waits of this scheduler's fibers that were woken
    FIBER_MESSAGE ObjectMessage;   // of whoever ObjectSink tells, until it is pushed; then the owner's, until it looks
};

// ---- Globals -----------------------------------------------------------------------------------------

struct FreeShellList {
    SpinLock Lock;     // "FreeFiberShellsQLock"
    ListHead Shells;   // [Lock] free records by RunLink
};

extern Scheduler *gSchedulers[kMaxSchedulers];  // init for the static ones; dynamic slots are set before they run
// Atomic: how many entries of gSchedulers are filled, the static ones and every dynamic one ever made, from 0 upward.
extern std::atomic<uint32_t> gSchedulersMade;
extern PostLane gPostLanes[kMaxSchedulers][kMaxSchedulers];  // by receiver and sender; all zero at first
extern FreeShellList gFreeShells[kMaxNodes];
extern std::atomic<uint32_t> gShellSerial;      // [gFreeShells lock] records ever made
extern Fiber *gFirstShells[19];                 // the records with serials 1 to 19, for diagnostics
extern void *gProcessTls;                       // init: StaticTls of the thread that initialised the library
extern std::atomic<uint32_t> gTlsHighWater;     // atomic: highest index TlsAlloc handed out
extern std::atomic<uint32_t> gQuantumTick;      // atomic: advanced by the quantum thread
// Run-queue indices. "RunQOrder" swaps the two that are variables; the others are known to the compiler, which
// saves the switch path its loads.
constexpr uint32_t gHPRQ = 0, gSRQ = 3, gLPRQ = 4, gORQ = 5;
extern uint32_t gPRQ, gFRQ;                     // init
extern const char *const *gRunQNames;           // init: names by index

}  // namespace zvx

#endif  // ZVX_SCHED_RECORDS_H
