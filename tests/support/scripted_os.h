// tests/support/scripted_os.h - the operating system that unit tests run the library on.
//
// It stands in for the half of the platform that talks to the kernel: clocks, kernel threads with their priorities
// and masks, ports and overlapped operations, files. Fibers, slots, last error, memory, locks, the handle table,
// events and waits, backing threads, the environment and the console stay real. Nothing here sleeps, reads a real clock
// or makes a kernel thread by itself, so a test takes the same course every time.
//
// How to drive it. gScript is the one object, fresh in every process (each test case has its own process):
//
//   - Clocks stand still until AdvanceClock, or until somebody sleeps: os::Sleep advances them by its argument
//     (or calls OnSleep instead). ReadTsc moves by TscPerRead at every read.
//   - os::ReadFile and os::WriteFile ask OnIo; without one they are pending. A pending operation stays outstanding
//     until EndOperation, which makes it "ended, not reaped": Internal changes at the next reap of the IoThread
//     that issued it, exactly as on the real platform, and the packet is queued then.
//   - GetQueuedCompletionStatus gives what is queued. With nothing queued and time to wait it calls OnPortWait:
//     the scheduler fixture switches to the test's fiber there, and the wait continues when the test comes back.
//     Without OnPortWait the clock moves by the wait.
//   - A scheduler that spins (polls without waiting) would never come to a wait under clocks that stand still. After
//     SpinLimit empty polls of a port in a row OnPortWait is called all the same, with a wait of 0. After ten times
//     as many reads of the cycle counter by one fiber, with nothing else happening, OnSpin is called, or without one
//     the clocks move by a millisecond.
//   - os::CreateThread only records (Threads). RunThread runs one to its end on a real thread that is joined.
//     Masks and priorities of kernel threads are kept as values, and every change of one is recorded.
//   - os::FailCall makes the nth call of a named function fail, here as on the real platform.
//
// The tables belong to the test's thread. Posting a packet and reading a clock are safe from any thread.
#ifndef ZVX_TESTS_SUPPORT_SCRIPTED_OS_H
#define ZVX_TESTS_SUPPORT_SCRIPTED_OS_H

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/os.h"

namespace os::script {

// ---- Overlapped operations ---------------------------------------------------------------------------

enum class IoKind : uint8_t { kRead, kWrite, kLock, kSend, kReceive, kAccept, kConnect, kPipe };

// One operation as it was issued.
struct IoCall {
    IoKind Kind;
    HANDLE File;
    void *Buffer;
    DWORD Count;
    uint64_t Offset;  // from the OVERLAPPED, or the file's position without one
    OVERLAPPED *Ov;   // null for a synchronous call
    IoOp *Op;
    LPOVERLAPPED_COMPLETION_ROUTINE Routine;  // of ReadFileEx and WriteFileEx
};

enum class IoResult : uint8_t { kDone, kFailed, kPending };
struct IoAnswer {
    IoResult Result;
    DWORD Bytes;  // kDone
    DWORD Error;  // kFailed
};
inline IoAnswer Done(DWORD bytes) {
    return {IoResult::kDone, bytes, 0};
}
inline IoAnswer Failed(DWORD error) {
    return {IoResult::kFailed, 0, error};
}
inline IoAnswer Pending() {
    return {IoResult::kPending, 0, 0};
}

// A pending operation, from its issue until it was reaped.
struct Request {
    IoCall Call;
    IoThread *Thread;  // null: issued by a thread without a port, ended by the service thread
    bool Ended;        // EndOperation was called; Status and Bytes are what the reap will store
    bool CancelAsked;
    DWORD Status;
    DWORD Bytes;
};

struct Packet {
    DWORD Bytes;
    uintptr_t Key;
    OVERLAPPED *Ov;
    bool Posted;  // by PostQueuedCompletionStatus
    DWORD Error;  // of a failed operation: the receiver gets FALSE and this as last error
    IoOp *Op;     // of the operation, whose PacketsQueued counts it
};

struct Association {
    HANDLE File;
    HANDLE Port;
    uintptr_t Key;
};

struct CancelCall {
    HANDLE File;
    OVERLAPPED *Ov;  // null for CancelIo
};

// What a status word means as a last error: the mapping of the real platform.
DWORD ErrorOfStatus(DWORD status);
DWORD StatusOfError(DWORD error);

// ---- Kernel threads ----------------------------------------------------------------------------------

struct Thread {
    DWORD Id;
    LPTHREAD_START_ROUTINE Start;
    void *Param;
    size_t StackBytes;
    DWORD Flags;
    DWORD SuspendCount;  // 1 when created suspended; RunThread runs it all the same
    bool Ended;          // it returned, called ExitThread or was terminated
    DWORD ExitCode;
};

// ---- The script --------------------------------------------------------------------------------------

struct Script {
    // Clocks. The performance counter follows AdvanceClock at QpcFrequency.
    std::atomic<uint64_t> TickMs{5'000'000};
    std::atomic<uint64_t> Tsc{1'000'000'000};
    std::atomic<uint64_t> TscPerRead{0};
    std::atomic<uint64_t> TscPerMs{1'000'000};
    std::atomic<int64_t> Qpc{7'000'000};
    std::atomic<int64_t> QpcFrequency{10'000'000};
    std::atomic<uint64_t> FileTime{132'000'000'000'000'000};  // 100-nanosecond units
    SYSTEMTIME LocalTime{2005, 9, 6, 3, 14, 7, 9, 0};
    std::vector<DWORD> Sleeps;              // every os::Sleep, in order
    std::function<void(DWORD ms)> OnSleep;  // in place of advancing the clocks

    // Processors and priorities.
    uint32_t ProcessMask = 0xF;
    uint32_t SystemMask = 0xF;
    struct MaskCall {
        DWORD ThreadId;
        uint32_t Mask;
    };
    struct PriorityCall {
        DWORD ThreadId;
        int Priority;
    };
    std::vector<MaskCall> MaskCalls;          // every SetThreadAffinityMask of a kernel thread that succeeded
    std::vector<PriorityCall> PriorityCalls;  // every SetThreadPriority

    // Kernel threads.
    std::list<Thread> Threads;  // every CreateThread, in order

    // Overlapped operations and ports.
    std::function<IoAnswer(const IoCall &)> OnIo;
    std::function<void(HANDLE port, DWORD ms)> OnPortWait;
    std::function<void()> OnSpin;
    uint32_t SpinLimit = 1000;
    bool HoldCancels = false;  // a cancelled operation goes on until the test ends it
    std::vector<IoCall> Calls;
    std::vector<CancelCall> Cancels;
    std::vector<Association> Associations;
    std::vector<Packet> Posted;
    uint32_t PortWaits = 0;  // calls of GetQueuedCompletionStatus that came to a wait
    DWORD LastPortWaitMs = 0;

    // Files: the size that GetFileSizeEx gives, and the names that CreateFileA was asked for.
    uint64_t FileSize = 0;
    std::vector<std::string> Opened;
};

extern Script gScript;

void AdvanceClock(uint64_t ms);
void SetTick(uint64_t ms);  // GetTickCount64 from now on; the other clocks stay

// A file, pipe or socket handle that nobody opened by name.
HANDLE NewFile();
// The outstanding operation of `ov`, or null.
Request *FindRequest(const OVERLAPPED *ov);
uint32_t OutstandingRequests();
// Ends the outstanding operation of `ov`; it becomes final at the next reap of the issuing thread. Aborts the
// test when there is none.
void EndOperation(OVERLAPPED *ov, DWORD status, DWORD bytes);
// Queues a packet as an operation would, without one.
void QueuePacket(HANDLE port, const Packet &packet);
uint32_t QueuedPackets(HANDLE port);
// The IoThread of a port. CreateIoCompletionPort also stores it in the calling thread's block; a test with several
// schedulers on its thread installs the right one before it continues a scheduler.
IoThread *IoThreadOf(HANDLE port);
// Something happened: spinning is counted from here on.
void NoteProgress();
// Starts an operation of any kind as the script says: what ReadFile and WriteFile do. `transferred` may be null.
BOOL IssueIo(const IoCall &call, DWORD *transferred);

// Runs a recorded thread to its end, on a real thread that is joined; its object is signalled then.
void RunThread(DWORD id);
Thread *FindThread(DWORD id);

}  // namespace os::script

#endif  // ZVX_TESTS_SUPPORT_SCRIPTED_OS_H
