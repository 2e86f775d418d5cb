// sched/sched.h - the scheduler's operations, by file.
//
// Unless a comment says otherwise a function runs on the thread of the scheduler it is given and takes no
// lock. F is always the calling fiber's record where a function may yield. SchedYield may return on another
// kernel thread after Yield_MIGRATE: keep nothing of the old scheduler across it, read F->Sched again.
#ifndef ZVX_SCHED_SCHED_H
#define ZVX_SCHED_SCHED_H

#include "config/settings.h"
#include "sched/records.h"

namespace zvx {

// The calling user thread, or null when fiber mode is not active or the caller is not a user thread: the test
// that every exported function makes first.
inline Fiber *CallingFiber() {
    if (!FiberModeActive()) return nullptr;
    void *data = os::GetFiberData();
    if (reinterpret_cast<uintptr_t>(data) == os::kNoFiberData) return nullptr;
    return static_cast<Fiber *>(data);
}
// Of a fiber that runs on the calling thread or is its scheduler's; Sched is for everybody.
inline Scheduler *SchedOf(const Fiber *F) { return F->Home.load(std::memory_order_relaxed); }
inline void SetSched(Fiber *F, Scheduler *S, std::memory_order order) {
    F->Home.store(S, std::memory_order_relaxed);
    F->Sched.store(S, order);
}
inline FIBEROVERLAPPED *OvRecord(OVERLAPPED *ov) { return ZVX_RECORD_OF(ov, FIBEROVERLAPPED, Ov); }
// Which of F's own records its next operation uses: an injected routine, and the exit of a thread, may do I/O while the
// interrupted operation still runs.
inline FIBEROVERLAPPED *FreeOwnOv(Fiber *F) {
    if ((F->Flags & (FIBER_TERMINATE | FIBER_EXITING | FIBER_EXEC_PENDING)) == 0) [[likely]] return &F->OwnOvs[0];
    return &F->OwnOvs[(F->Flags & (FIBER_TERMINATE | FIBER_EXITING)) != 0 ? 2 : 1];
}
// A count with one writer: no locked instruction.
inline void CountOne(std::atomic<uint64_t> *count) {
    count->store(count->load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}
inline uint32_t Generation(const Fiber *F) { return F->Generation.load(std::memory_order_acquire); }

// ---- yield.cpp: the fiber switch
void SchedYield(Fiber *F, uint32_t reason);  // the only way a user thread gives up the processor
void AccountCpu(Scheduler *S, Fiber *F);
void StartCpuClock(Scheduler *S);

// ---- queues.cpp: lists with their mask, placement
uint32_t MakeRunnable(Scheduler *S, Fiber *F, uint32_t queue);  // the queue that F was put in
void InsertBehind(Scheduler *S, uint32_t queue, Fiber *before, Fiber *F);
void AppendRunQueue(Scheduler *S, uint32_t queue, Fiber *F);
void PushRunQueue(Scheduler *S, uint32_t queue, Fiber *F);
void AppendReady(Scheduler *S, Fiber *F);
void UnlinkTimedWaiter(Scheduler *S, Fiber *F);  // from TimedWaiters or InfiniteWaiters; re-measures WaitTimeoutMs
bool RunnableWork(const Scheduler *S);           // the sum of the runnable lists differs from BackgroundRunnable

// ---- idle.cpp
// False when there was work at the first look; true when time passed that belongs to no fiber.
bool InitFiberRoutine(Scheduler *S);

// ---- completion.cpp: overlapped records, polling, the port
FIBEROVERLAPPED *AllocOv(Fiber *F, PSEHAND *handleRec, uint32_t opArg);
void FreeOv(FIBEROVERLAPPED *rec, Scheduler *S);
void InitOv(FIBEROVERLAPPED *rec, Fiber *F);  // a fresh embedded or chunk record
bool AttachHandleToPort(Scheduler *S, PSEHAND *handleRec, HANDLE handle);
// Whether an operation on `handleRec` is polled rather than completed through the port (busy scheduler, or a
// port that belongs to another scheduler); sets the record's packet flag and hEvent accordingly.
void PacketOrPoll(Scheduler *S, FIBEROVERLAPPED *rec, PSEHAND *handleRec, uint32_t kind, bool neverPoll);
void FilePollRecord(Scheduler *S, FIBEROVERLAPPED *rec);    // PollLink into the record's poll list
void UnfilePollRecord(Scheduler *S, FIBEROVERLAPPED *rec);  // out of it, and out of the ended lists
void EmptyPollSet(Fiber *F);
// The operation ended or failed at once; accounts for its packet.
void AccountPacket(FIBEROVERLAPPED *rec);
// A routine record was appended to FileOvs or SocketOvs; it may have ended already.
void NoteOwnOvFiled(Scheduler *S, FIBEROVERLAPPED *rec);
// Parks F until the operation at F->CurOv has ended.
void WaitForCurOv(Fiber *F);
bool CompleteIo(FIBEROVERLAPPED *rec, Scheduler *S);
void HandOverEnded(Scheduler *S);  // reaps, and sorts what the platform hands over into EndedOvs
// For a look of a user thread that does not wait, and so never comes to SchedYield: makes final what has ended, events
// included, and submits prepared operations after a few such looks. Never yields, runs no routine.
void LookForEnded(Scheduler *S);
bool PollOvLists(Scheduler *S, bool deep);  // all three lists; counts are PolledCount, NetCount, PortCount
void ReapQueueSource(Scheduler *S, uint32_t queue);
void PollPort(Scheduler *S, uint32_t waitMs);
void ProcessIOCPMessage(Scheduler *S, OVERLAPPED *overlapped, uintptr_t key);
void CancelOwnIo(Scheduler *S, Fiber *F);
void CancelFiberOvs(Fiber *F);
uint32_t ReapOwnOvs(Fiber *F, uint32_t which);
// For the test of an alertable wait with polling, whose time and FIBER_POLL_OWN_OVS outlast the routines that it runs.
void ReapOwnOvsInWait(Fiber *F);
// An alertable wait is one only while there are routines to wait for.
inline bool HasOwnOperations(const Fiber *F) {
    return !IsEmpty(&F->FileOvs) || !IsEmpty(&F->SocketOvs);
}
bool AnyOwnOvDone(const Fiber *F, uint32_t which);
OVERLAPPED *GatherPollSet(Fiber *F, uint32_t which, uint32_t n);

// ---- message.cpp
FIBER_MESSAGE *AllocMessage(Scheduler *from, Scheduler *to, uint8_t kind);
// Any thread. Wakes the target when it is blocked in its port and the kind or "PortWaitMs" asks for it.
// Returns whether the target was blocked.
bool SendMessage(Scheduler *target, FIBER_MESSAGE *msg);
// Posts T on another scheduler through the lane of the two; false when the lane is full. Runs on `from`.
bool PostByLane(Scheduler *from, Scheduler *to, Fiber *T, uint32_t generation, uint32_t postBit);
void WakeScheduler(Scheduler *target, Scheduler *from);  // a KEY_MESSAGES packet
bool DrainMessages(Scheduler *S);
bool ProcessMessage(Scheduler *S, FIBER_MESSAGE *msg);
bool AttachFiber(Scheduler *S, Fiber *F);
bool WakePosted(Fiber *F, Scheduler *S, uint32_t postBit);
constexpr uint32_t kNotWoken = 0xFFFFFFFF;
// F is on S. Leaves the post for F's next wait, or ends the one it is in: the queue it was put in, or kNotWoken.
uint32_t SetPost(Scheduler *S, Fiber *F, uint32_t postBit);
void WakeForMessage(Scheduler *S, Fiber *F);
bool SendFiberToScheduler(Fiber *F, Scheduler *from, Scheduler *to);

// ---- timer.cpp
bool ChkTimeForTimerQ(Scheduler *S);
bool CheckTimerQueue(Scheduler *S);
void FileTimedWaiter(Scheduler *S, Fiber *F);  // WaitTimeoutMs says finite or infinite
uint32_t MsToNearestTimeout(const Scheduler *S);
using WaitTestFunc = bool (*)(Fiber *F, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5);
// True when the test ended the wait, false when F->WaitTimeoutMs ran out. The caller sets WaitTimeoutMs.
bool WaitWithPolling(Fiber *F, WaitTestFunc test, uintptr_t a1 = 0, uintptr_t a2 = 0, uintptr_t a3 = 0,
                     uintptr_t a4 = 0, uintptr_t a5 = 0);

// ---- objects.cpp: waits that are parked with their objects
void InitObjectSink(Scheduler *S);
// F->WaitTimeoutMs is the limit. WAIT_OBJECT_0 or WAIT_ABANDONED_0 with the index, WAIT_TIMEOUT, WAIT_FAILED with the
// last error set, or os::kNotParkable, with what is left of the time in WaitTimeoutMs. May yield.
DWORD WaitForObjects(Fiber *F, DWORD count, const HANDLE *handles, BOOL waitAll);
void LeaveObjects(Fiber *F);           // F, with FIBER_OBJECT_WAIT, is about to leave its timed wait
void WakeFromObject(Scheduler *S, Fiber *F);  // ends F's wait, granted or not
bool WakeFromObjects(Scheduler *S);    // those that ObjectSink has; whether there was one

// ---- sleep.cpp: exported
void Sleep(DWORD ms);
DWORD SleepEx(DWORD ms, BOOL alertable);
BOOL ZSleepExN(DWORD reserved, DWORD target, DWORD *counter, DWORD *outstanding);
// A millisecond of a user thread that waits for what another scheduler does, after `looks` looks in vain. Yields. For
// long ones it is not Sleep, whose latch sleep would keep the processor of a session or a writer busy: the very one
// that the other scheduler needs, perhaps.
void AwaitAnswer(uint32_t looks);

// ---- fiber.cpp: records, start and exit
Fiber *AllocFiberShell(Scheduler *S, uint8_t node);
void FreeFiberShell(Fiber *F, bool deleteOsFiber);
bool CreateInternalFiber(LPTHREAD_START_ROUTINE routine, Scheduler *S, const char *tag);
void FiberStart(void *fiber);
[[noreturn]] void FiberExit(Fiber *F, bool terminateBacking);
// What F's role means to its scheduler is undone: the raised priority, the places where it is named.
void LeaveRole(Fiber *F);
void FreeExitedFibers(Scheduler *S);
void CaptureTls(Fiber *F);
void RestoreTls(Fiber *F);
void ProbeTlsSlots();  // start-up
DWORD TlsAlloc();      // exported
BOOL TlsFree(DWORD index);

// ---- cleanup.cpp: termination clean-up functions
uint32_t TermCleanupFuncSet(Fiber *F, TermCleanupFunc func);
void TermCleanupFuncRemove(Fiber *F, TermCleanupFunc func);
void RunTermCleanups(Fiber *F, Scheduler *S);
void SuspendTermCleanups(Fiber *F, Scheduler *S);
void RestoreTermCleanups(Fiber *F, Scheduler *S);

// ---- grace.cpp: records under a reader's feet
// The record of `entry` is out of every table; entry->Release runs on S once every scheduler has made a selection
// pass, or was blocked in its port or with BlockedOutside set, since.
void RetireRecord(Scheduler *S, RetireEntry *entry);
void ReleaseRetired(Scheduler *S);

// ---- migrate.cpp
void InitDynamicSchedulers();            // start-up, once gNumSchedulers is final
bool IsDynamic(const Scheduler *S);
void ProcessMigrationQueue(Scheduler *S);  // hands on those that have left S
// Returns when F, the caller, runs on a scheduler of its own; at once when there are to be none, or when it has one.
void MoveToDynamicScheduler(Fiber *F);
Scheduler *SpawnDynamicScheduler(const Fiber *F);         // reserved for F, and running; blocks while it is being made
void ReleaseDynamicScheduler(const Scheduler *S);         // the user thread that S served has ended
extern std::atomic<uint32_t> gNumDynamicSchedulers;       // atomic: in use; written under the lock, read without it

// ---- figures.cpp: what an operator wants to see over time
void NoteLongHold(Scheduler *S, const Fiber *F, uint64_t cycles);  // the longest without a yield in this second
void RollSecond(Scheduler *S, uint64_t now);                       // at the timer check, a second after the last time

// ---- quantum.cpp
void StartQuantumUpdateThread();
bool UpdateQuantumIndicator(bool takeLock);
void UserThreadQuantumExpiredCheck();  // exported
uint32_t ElapsedQuantumTicks(const Scheduler *S);
extern uint32_t *gQuantumIndicator;    // caller: the host's word, or null
extern os::CriticalSection gQuantumLock;

// ---- startup.cpp
struct InitParams;
void InitScheduler(Scheduler *S, uint32_t index);
void SpawnSchedulerThread(Scheduler *S, bool bind, int32_t priority);
void SetSchedThreadAffinityAndPriority(HANDLE thread, Scheduler *S, bool bind, int32_t priority, DWORD threadId,
                                       bool force);
uint32_t NextSchedulerMask();
uint8_t NodeOfMask(uint32_t mask);
extern SECURITY_ATTRIBUTES gNullDaclSecurity;
extern HANDLE AvoidCompletionEvent;

// ---- check.cpp: invariants, debug builds and tests
void CheckFiber(const Fiber *F);
void CheckScheduler(const Scheduler *S);

// Log-writer activity: written by the log writer's scheduler, read by every idle decision.
extern std::atomic<uint32_t> gLgwrWriteCount;
extern std::atomic<uint32_t> gLgwrPeriodStart;
extern std::atomic<uint32_t> gLgwrLastWriteTick;
extern std::atomic<uint32_t> gLgwrWritesLastPeriod;

}  // namespace zvx

#endif  // ZVX_SCHED_SCHED_H
