// diag/inspect.cpp - the rows of the table that tools read (see inspect.h).
//
// Constant data only: no thread runs anything here. The names of fields are those of the records, so that a tool, this
// table and the header agree when they are read side by side.
#include "diag/inspect.h"

#include <cstddef>

#include "alloc/alloc.h"
#include "config/settings.h"
#include "diag/timeline.h"
#include "diag/timesource.h"
#include "diag/trace.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "kernel/handles.h"
#include "kernel/psehand.h"
#include "net/net.h"
// The one place outside the platform that names what is in it: where a parked fiber's registers are saved, and how many
// handles are in use.
#include "platform/base/fiber_internal.h"
#include "platform/base/minidump.h"
#include "sched/records.h"
#include "sched/sched.h"

// switch_x86_64.S: offsets in the saved frame of r15 r14 r13 r12 rbx rbp rip, and the bytes of the whole frame.
extern "C" const uint16_t zvx_switch_frame[8];

#ifndef ZVX_VERSION
#define ZVX_VERSION "unknown"
#endif

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace zvx {

namespace {

template <size_t N>
constexpr InspectRow Row(const char (&name)[N], InspectKind kind, size_t size) {
    static_assert(N <= kInspectNameBytes, "the name of a row is too long");
    InspectRow row{};
    for (size_t i = 0; i < N; ++i) row.Name[i] = name[i];
    row.Kind = kind;
    row.Size = static_cast<uint32_t>(size);
    return row;
}
template <size_t N>
constexpr InspectRow GlobalRow(const char (&name)[N], const void *address, size_t size) {
    InspectRow row = Row(name, kInspectGlobal, size);
    row.Address = address;
    return row;
}
template <size_t N>
constexpr InspectRow NumberRow(const char (&name)[N], InspectKind kind, uint64_t number, size_t size) {
    InspectRow row = Row(name, kind, size);
    row.Number = number;
    return row;
}

}  // namespace

#define GLOBAL(variable) GlobalRow(#variable, &variable, sizeof(variable))
#define FIELD(Record, field) \
    NumberRow(#Record "." #field, kInspectField, offsetof(Record, field), sizeof(Record::field))
#define RECORD(Record) NumberRow(#Record, kInspectRecord, sizeof(Record), sizeof(Record))
#define CONSTANT(name) NumberRow(#name, kInspectConstant, static_cast<uint64_t>(name), 4)

using os::FiberContext;
using os::gFreeHandleCount;
using os::gNextFreshHandle;
using os::IoThread;
using os::ThreadBlock;

static constexpr InspectRow kRows[] = {
    // Globals.
    GLOBAL(gSchedulers),
    GLOBAL(gNumSchedulers),
    GLOBAL(gNumDynamicSchedulers),
    GLOBAL(gSid),
    GLOBAL(gTraceDir),
    GLOBAL(gTraceFileName),
    GLOBAL(OptionFlags),
    GLOBAL(gPortWaitMs),
    GLOBAL(gStackSize),
    GLOBAL(gShellSerial),
    GLOBAL(gTscTicksPerMs),
    GLOBAL(gTimelineWanted),
    GLOBAL(gPRQ),
    GLOBAL(gFRQ),
    GLOBAL(gHandleCount),
    GLOBAL(gOsCritSecCount),
    GLOBAL(gTotalVirtualAlloc),
    GLOBAL(gNextFreshHandle),
    GLOBAL(gFreeHandleCount),
    GlobalRow("zvx_switch_frame", &zvx_switch_frame, sizeof(zvx_switch_frame)),
    // Lists.
    RECORD(ListHead),
    FIELD(ListHead, Ends),
    FIELD(ListHead, Count),
    FIELD(ListLink, Next),
    FIELD(ListLink, Prev),
    // A user thread.
    RECORD(Fiber),
    FIELD(Fiber, RunLink),
    FIELD(Fiber, SchedFibersLink),
    FIELD(Fiber, State),
    FIELD(Fiber, Flags),
    FIELD(Fiber, SuspendCount),
    FIELD(Fiber, SchedClass),
    FIELD(Fiber, Role),
    FIELD(Fiber, LastError),
    FIELD(Fiber, OsFiber),
    FIELD(Fiber, ParkedTsc),
    FIELD(Fiber, PolledTsc),
    FIELD(Fiber, CpuCycles),
    FIELD(Fiber, IoWaitOv),
    FIELD(Fiber, CurOv),
    FIELD(Fiber, WaitStartTick),
    FIELD(Fiber, WaitTimeoutMs),
    FIELD(Fiber, PostPending),
    FIELD(Fiber, PostWaitMask),
    FIELD(Fiber, PendingApcIos),
    FIELD(Fiber, ShellSerial),
    FIELD(Fiber, StartRoutine),
    FIELD(Fiber, StartParam),
    FIELD(Fiber, Sched),
    FIELD(Fiber, Generation),
    FIELD(Fiber, OsThreadId),
    FIELD(Fiber, Tag),
    FIELD(Fiber, OwnOvs),
    // An operation.
    RECORD(FIBEROVERLAPPED),
    FIELD(FIBEROVERLAPPED, Ov),
    FIELD(FIBEROVERLAPPED, Fiber),
    FIELD(FIBEROVERLAPPED, Flags),
    FIELD(FIBEROVERLAPPED, HandleType),
    FIELD(FIBEROVERLAPPED, OpArg),
    FIELD(FIBEROVERLAPPED, OsHandle),
    FIELD(FIBEROVERLAPPED, Magic),
    // A scheduler.
    RECORD(Scheduler),
    FIELD(Scheduler, Io),
    FIELD(Scheduler, Os),
    FIELD(Scheduler, SwitchCount),
    FIELD(Scheduler, DispatchTsc),
    FIELD(Scheduler, LongestHold),
    FIELD(Scheduler, LongestHolderTag),
    FIELD(Scheduler, SecondHold),
    FIELD(Scheduler, SecondHolder),
    FIELD(Scheduler, Posts),
    FIELD(Scheduler, DonePolled),
    FIELD(Scheduler, DoneByPacket),
    FIELD(Scheduler, BackgroundRunnable),
    FIELD(Scheduler, ReadyList),
    FIELD(Scheduler, LatchSleepers),
    FIELD(Scheduler, RunQueues),
    FIELD(Scheduler, Timeline),
    FIELD(Scheduler, TimelineMemory),
    FIELD(Scheduler, BlockedInPort),
    FIELD(Scheduler, DebugRequest),
    FIELD(Scheduler, InTransit),
    FIELD(Scheduler, OsThreadId),
    FIELD(Scheduler, Index),
    FIELD(Scheduler, AffinityMask),
    FIELD(Scheduler, FiberCount),
    FIELD(Scheduler, Running),
    FIELD(Scheduler, SuspendedFibers),
    FIELD(Scheduler, TimedWaiters),
    FIELD(Scheduler, InfiniteWaiters),
    FIELD(Scheduler, IoWaiters),
    FIELD(Scheduler, MigrationQueue),
    FIELD(Scheduler, ExitedFibers),
    FIELD(Scheduler, AllFibers),
    FIELD(Scheduler, InitFiber),
    FIELD(Scheduler, ChunkTypeCount),
    // What the platform keeps: the running fiber of a kernel thread, its operations, a parked fiber's stack.
    FIELD(ThreadBlock, FiberData),
    FIELD(ThreadBlock, Current),
    FIELD(ThreadBlock, ThreadId),
    FIELD(IoThread, Outstanding),
    FIELD(IoThread, Unsubmitted),
    RECORD(FiberContext),
    FIELD(FiberContext, StackPointer),
    FIELD(FiberContext, StackLow),
    FIELD(FiberContext, StackHigh),
    // The timeline.
    RECORD(TimelineRing),
    FIELD(TimelineRing, Written),
    FIELD(TimelineRing, Events),
    RECORD(TimelineEvent),
    FIELD(TimelineEvent, Tsc),
    FIELD(TimelineEvent, Serial),
    FIELD(TimelineEvent, Kind),
    FIELD(TimelineEvent, Arg),
    FIELD(TimelineEvent, Tag),
    CONSTANT(kTimelineEvents),
    CONSTANT(kTimelineRun),
    CONSTANT(kTimelineYield),
    CONSTANT(kTimelinePost),
    CONSTANT(kTimelineDone),
    CONSTANT(kTimelineIdle),
    CONSTANT(kTimelineAwake),
    // Numbers with names.
    CONSTANT(FSTATE_SCHED_YIELD),
    CONSTANT(FSTATE_READY),
    CONSTANT(FSTATE_RUNNING),
    CONSTANT(FSTATE_TIMED_WAIT),
    CONSTANT(FSTATE_IO_WAIT),
    CONSTANT(FSTATE_EXITED),
    CONSTANT(FSTATE_CREATED),
    CONSTANT(FSTATE_YIELDED),
    CONSTANT(FSTATE_MIGRATING),
    CONSTANT(FSTATE_POSTING),
    CONSTANT(FSTATE_LATCH_SLEEP),
    CONSTANT(FSTATE_SUSPENDED),
    CONSTANT(Yield_SCHED),
    CONSTANT(Yield_TIMER_WAIT),
    CONSTANT(Yield_IO_WAIT),
    CONSTANT(Yield_EXIT),
    CONSTANT(Yield_USER),
    CONSTANT(Yield_MIGRATE),
    CONSTANT(Yield_POSTER),
    CONSTANT(Yield_LATCH_FREE),
    CONSTANT(FIBER_STARTED),
    CONSTANT(FIBER_TERMINATE),
    CONSTANT(FIBER_USER_THREAD),
    CONSTANT(FIBER_EXITING),
    CONSTANT(FIBER_POLL_OWN_OVS),
    CONSTANT(FIBER_POST_WAIT),
    CONSTANT(FIBER_INFINITE_WAIT),
    CONSTANT(FIBER_SLICE_FILED),
    CONSTANT(FIBER_OBJECT_WAIT),
    CONSTANT(POST_HOST),
    CONSTANT(POST_SECTION),
    CONSTANT(FIBEROVERLAPPED_MAGIC),
    CONSTANT(ALLOC_PSEHAND),
    CONSTANT(ALLOC_FIBEROVERLAPPED),
    CONSTANT(ALLOC_FIBER_MESSAGE),
    CONSTANT(ALLOC_FIBER_CRITICAL_SECTION),
    CONSTANT(ALLOC_STRING),
    CONSTANT(OP_RECEIVE),
    CONSTANT(OP_SEND),
    CONSTANT(OP_ACCEPT),
    CONSTANT(OP_READ_FILE),
    CONSTANT(OP_WRITE_FILE),
    CONSTANT(OP_CONNECT_NAMED_PIPE),
    CONSTANT(OP_READ_FILE_EX),
    CONSTANT(OP_WRITE_FILE_EX),
    CONSTANT(OP_FLUSH_FILE),
    CONSTANT(OV_ANY_ROUTINE),
    CONSTANT(PHAND_HTYPE_CreateNamedPipeA),
    CONSTANT(PHAND_HTYPE_CreateNamedPipeW),
    CONSTANT(su_InFiber),
    CONSTANT(su_FiberMode),
    CONSTANT(su_LogToFile),
    CONSTANT(su_Initialized),
};
constexpr uint32_t kNumRows = sizeof(kRows) / sizeof(kRows[0]);

struct InspectTable {
    InspectHead Head;
    InspectRow Rows[kNumRows];
};

static constexpr InspectTable MakeTable() {
    InspectTable table{};
    constexpr char magic[] = "ZVXTABLE";
    for (size_t i = 0; i < sizeof(table.Head.Magic); ++i) table.Head.Magic[i] = magic[i];
    table.Head.Layout = kInspectLayout;
    table.Head.Rows = kNumRows;
    table.Head.RowBytes = sizeof(InspectRow);
    table.Head.HeadBytes = sizeof(InspectHead);
    constexpr char version[] = ZVX_VERSION;
    static_assert(sizeof(version) <= sizeof(table.Head.Version), "the version of the library is too long");
    for (size_t i = 0; i < sizeof(version); ++i) table.Head.Version[i] = version[i];
    for (uint32_t i = 0; i < kNumRows; ++i) table.Rows[i] = kRows[i];
    return table;
}

}  // namespace zvx

// Variable and not constant: a page with relocations differs from the file, so that core files hold it.
extern "C" {
__attribute__((visibility("default"), used)) constinit zvx::InspectTable zvx_inspect = zvx::MakeTable();
}
