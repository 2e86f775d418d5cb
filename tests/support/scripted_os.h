// tests/support/scripted_os.h - the operating system that unit tests run the library on.
//
// It stands in for the half of the platform that talks to the kernel: clocks, kernel threads, ports and overlapped
// operations, files. The rest stays real. Nothing here sleeps, reads a real clock or makes a kernel thread, so a test
// takes the same course every time.
//
// How to drive it. gScript is the one object, fresh in every process (each test case has its own process):
//
//   - Clocks stand still until AdvanceClock, or until somebody sleeps: os::Sleep advances them by its argument
//     (or calls OnSleep instead).
//   - os::ReadFile and os::WriteFile ask OnIo; without one they are pending. A pending operation stays outstanding
//     until EndOperation, which makes it "ended, not reaped": Internal changes at the next reap of the IoThread
//     that issued it, exactly as on the real platform, and the packet is queued then.
//   - GetQueuedCompletionStatus gives what is queued. With nothing queued and time to wait it calls OnPortWait:
//     the scheduler fixture switches to the test's fiber there, and the wait continues when the test comes back.
//   - A scheduler that spins (polls without waiting) would never come to a wait under clocks that stand still. After
//     SpinLimit empty polls of a port in a row OnPortWait is called all the same, with a wait of 0. After ten times
//     as many reads of the cycle counter by one fiber, with nothing else happening, OnSpin is called.
//   - os::CreateThread only records; RunThread runs what it recorded, and EndThread ends one, even one that
//     TerminateThread was called for. Masks and priorities are kept as values, and every change of one is recorded.
//   - A socket is a scripted file. Every call of a socket function is noted in SocketCalls, as its name and what the
//     library chose for it.
//   - os::FailCall makes the nth call of a named function fail, where a test of these asks for it.
//
// The tables belong to the test's thread. Threads that it made by itself may write trace lines, so clocks are atomics.
#ifndef ZVX_TESTS_SUPPORT_SCRIPTED_OS_H
#define ZVX_TESTS_SUPPORT_SCRIPTED_OS_H

#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/os_socket.h"

namespace os::script {

// One read or write as it was issued.
struct IoCall {
    HANDLE File;
    DWORD Count;
    OVERLAPPED *Ov;
    IoOp *Op;  // null for an operation of the host's own
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

struct Packet {
    DWORD Bytes;
    uintptr_t Key;
    OVERLAPPED *Ov;
    DWORD Error;  // of a failed operation: the receiver gets FALSE and this as last error
    IoOp *Op;     // of the operation, whose PacketsQueued counts it; null for a posted one
};

struct Script {
    // Clocks. All but LocalTime follow AdvanceClock, the cycle counter at 1 GHz.
    std::atomic<uint64_t> TickMs{5'000'000};
    std::atomic<uint64_t> Tsc{1'000'000'000};
    std::atomic<int64_t> Qpc{7'000'000};
    std::atomic<int64_t> QpcFrequency{10'000'000};
    SYSTEMTIME LocalTime{2005, 9, 6, 3, 14, 7, 9, 0};
    std::function<void(DWORD ms)> OnSleep;  // in place of advancing the clocks

    // Processors and kernel threads.
    uint32_t ProcessMask = 0xF;
    uint32_t SystemMask = 0xF;
    std::vector<uint32_t> Masks;                  // of every SetThreadAffinityMask that succeeded
    std::vector<int> Priorities;                  // of every SetThreadPriority that succeeded
    std::vector<LPTHREAD_START_ROUTINE> Threads;  // start routine of every CreateThread
    std::vector<DWORD> Terminations;              // code of every TerminateThread on one of them

    // Overlapped operations and ports.
    std::function<IoAnswer(const IoCall &)> OnIo;
    std::function<void(HANDLE port, DWORD ms)> OnPortWait;
    std::function<void()> OnSpin;
    uint32_t SpinLimit = 1000;
    std::function<bool(const char *name)> OnCreate;  // of CreateFileA: false when the file cannot be had
    std::function<DWORD()> OnWaitPipe;               // the error of a look for a pipe
    std::function<BOOL(void *buffer, DWORD characters, DWORD *read)> OnReadConsole;
    bool HoldCancels = false;  // a cancelled operation goes on until the test ends it
    std::vector<IoCall> Calls;
    uint32_t Cancels = 0;              // operations that were to be cancelled
    std::vector<uintptr_t> BoundKeys;  // of every handle that was associated with a port
    std::vector<Packet> Posted;        // by PostQueuedCompletionStatus
    DWORD LastPortWaitMs = 0;

    // Sockets.
    std::vector<std::string> SocketCalls;
    std::set<SOCKET> OpenSockets;
    // Rewrites the sets as select does; without one nothing is ever ready.
    std::function<int(zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error)> OnSelect;
    std::function<void()> OnBlock = [] {};  // inside of a call that may block the kernel thread
};

extern Script gScript;

constexpr char kPeerAddress[] = "address of peer";  // 16 bytes

// The calls of socket functions since the last time.
std::vector<std::string> TakeCalls();
SOCKET NewSocket();

// Kernel threads that CreateThread made and nobody has run: a test runs one to its end on its own thread, outside any
// fiber, and the thread's handle is signalled with the exit code. The oldest comes first.
void RunThread();
// The same by another hand: the oldest ends with that code and runs nothing.
void EndThread(DWORD code);

// Something that a test must not do was done: says so and ends the process.
[[noreturn]] void Misuse(const char *what);
// Something happened: spinning is counted from here on.
void NoteProgress();

void AdvanceClock(uint64_t ms);

// A file handle that nobody opened by name.
HANDLE NewFile();
// Ends the outstanding operation of `ov`; it becomes final at the next reap of the issuing thread.
void EndOperation(OVERLAPPED *ov, DWORD status, DWORD bytes);
// The file of the outstanding operation of `ov`; null when there is none, or it has been ended.
HANDLE RunningOn(const OVERLAPPED *ov);
uint32_t QueuedPackets(HANDLE port);
// The IoThread of a port. CreateIoCompletionPort also stores it in the calling thread's block; a test with several
// schedulers on its thread installs the right one before it continues a scheduler.
IoThread *IoThreadOf(HANDLE port);

}  // namespace os::script

#endif  // ZVX_TESTS_SUPPORT_SCRIPTED_OS_H
