// platform/os.h - the contract of the operating system that the library runs on.
//
// Every os:: function is declared here, with what its caller may rely on: whether it may block the
// calling kernel thread, its error value, who may call it, and what memory must outlive it. Nothing outside
// src/platform/ includes a Linux header or names a descriptor; nothing inside it knows a Fiber, a
// Scheduler or a PSEHAND.
//
// Unless a comment says otherwise a function may be called from any thread, does not block, and reports
// a failure by its return value with the reason in the calling thread's last-error value.
#ifndef ZVX_PLATFORM_OS_H
#define ZVX_PLATFORM_OS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "zvxkvt/ostypes.h"

namespace os {

// ---- The thread block --------------------------------------------------------------------------------
//
// One per kernel thread, at a fixed address for the thread's life. The scheduler keeps the pointer in its
// own record and works on the fields directly: a user thread never carries the address across a switch
// that may move it to another kernel thread, because it reaches the block through its scheduler.

struct FiberContext;
struct IoThread;

constexpr uintptr_t kNoFiberData = 0x1E00;  // FiberData of a thread that was never converted to a fiber
constexpr uint32_t kTlsSlots = 64;          // slots that follow a user thread; TlsAlloc may return more
constexpr uint32_t kInlineIoBudget = 64;    // operations in a row that may finish at once (InlineBudget)

struct alignas(64) ThreadBlock {
    void *FiberData;         // what GetFiberData returns; kNoFiberData outside fibers
    void **Slots;            // slots 0 to 63 of whoever runs here; swapped, never copied, at a switch
    void *StaticTls;         // carried as a value only; the kernel's thread pointer is never switched
    DWORD LastError;         // GetLastError and WSAGetLastError
    DWORD ThreadId;          // never 0
    uint32_t InlineBudget;   // operations that may still finish at once; the scheduler refills it at a switch
    uint32_t SpinLocksHeld;  // debug builds: platform locks held, so that a yield under one is named
    FiberContext *Current;   // running fiber, null before ConvertThreadToFiber
    IoThread *Io;            // completions of operations issued by this thread; null without a port
    int *Errno;              // cached address of this kernel thread's errno
    void *ExceptionState;    // cached address of its C++ exception globals (two words)
};

// The calling kernel thread's block. One thread-local load behind an accessor that no compiler inlines,
// so that the address is never kept in a register across a switch.
ThreadBlock *CurrentThreadBlock();

// Fiber data of the running fiber, or kNoFiberData. One thread-local load, same accessor rule.
void *GetFiberData();

DWORD GetLastError();
void SetLastError(DWORD error);

// ---- Thread-local slots ------------------------------------------------------------------------------

// A free slot index, its value null in the calling thread; TLS_OUT_OF_INDEXES when none is left. Indices
// from kTlsSlots on exist (the process may hold more than 64) but do not follow a user thread.
DWORD TlsAlloc();
BOOL TlsFree(DWORD index);                 // ERROR_INVALID_PARAMETER for an index that is not taken
void *TlsGetValue(DWORD index);            // sets the last error to 0 on success, as hosts test for it
BOOL TlsSetValue(DWORD index, void *value);
// Points slots 0 to 63 of the calling thread at `slots` (64 pointers that the caller keeps alive while
// they are installed), or back at the thread's own with null.
void SetSlotArray(void **slots);

// ---- Fibers ------------------------------------------------------------------------------------------
//
// A switch carries the callee-saved registers, MXCSR and the x87 control word, errno and the C++
// exception state. Stacks have a guard (four pages) below them; running into it is reported on standard error
// with the tag of the fiber by one write, and then the signal takes its default course.

// Makes the calling thread a fiber whose data is `data`; null on failure (already a fiber, no memory).
FiberContext *ConvertThreadToFiber(void *data);
// A fiber with its own stack that runs start(data) when first switched to; `start` must not return.
// Null with ERROR_NOT_ENOUGH_MEMORY when no stack can be mapped (memory or the kernel's map limit).
FiberContext *CreateFiber(size_t stackBytes, void (*start)(void *), void *data);
// The same from stacks that DeleteFiber recycled, without a system call; null when there is none of that
// size (no last error is set).
FiberContext *CreateFiberRecycled(size_t stackBytes, void (*start)(void *), void *data);
// Continues `to` where it stopped. `block` is the calling thread's block; returns when somebody switches
// back, possibly on another kernel thread. The slot array, last error and StaticTls are the caller's to
// carry (fields of the block); FiberData and the rest follow here.
void SwitchToFiber(ThreadBlock *block, FiberContext *to);
// Frees a fiber that is not running, from any thread; its stack is kept for reuse.
void DeleteFiber(FiberContext *fiber);
// Usable stack of `fiber`: lowest byte and one past the highest. A converted thread gives its own stack.
void FiberStackBounds(const FiberContext *fiber, const char **low, const char **high);
// Bytes of the stack that were ever touched since it was mapped, rounded up to pages.
size_t FiberStackHighWater(const FiberContext *fiber);
// Cache lines that the next switch to `fiber` reads; a hint, free when they are there already.
void PrefetchFiber(const FiberContext *fiber);
// Registers the function that names a fiber for the overflow report; called in a signal handler with the
// fiber's data, so it may only read memory. The result need not outlive the call.
void SetFiberTagFunction(const char *(*tagOf)(const void *fiberData));
// Installs the alternate signal stack and the overflow report for the calling thread; done by
// ConvertThreadToFiber and by every thread of CreateThread.
void ArmStackOverflowReport();

// ---- Memory ------------------------------------------------------------------------------------------

// Zero-filled pages, `type` of MEM_COMMIT, MEM_RESERVE and MEM_LARGE_PAGES. Null on failure: 1314 without
// the large-page privilege, 1450 when the kernel gives no large page, 8 without memory.
void *VirtualAlloc(void *address, size_t bytes, DWORD type, DWORD protect);
// The same inside one reserved range of 4 GiB, so that a 32-bit offset from RangeBase() names every byte the
// allocator hands out (offset 0 is never handed out). Memory of the range is never given back.
void *VirtualAllocInRange(size_t bytes, DWORD type, DWORD protect);
char *RangeBase();
BOOL VirtualFree(void *address, size_t bytes, DWORD type);
// SeLockMemoryPrivilege: TRUE when the kernel has large pages that this process may use.
BOOL EnableLockMemoryPrivilege();
void *LocalAlloc(DWORD flags, size_t bytes);  // zero-filled when flags has 0x40; null on failure
void *LocalFree(void *memory);                // null on success

// ---- Locks -------------------------------------------------------------------------------------------
//
// Recursive, owned by the fiber where there is one, else by the thread. Enter blocks the kernel thread;
// never hold one across SchedYield (debug builds count them in SpinLocksHeld). The layout is that of the host's
// CRITICAL_SECTION; all zero is a free section.
struct CriticalSection {
    std::atomic<uintptr_t> OwnerId;  // fiber data, or the thread block's address
    std::atomic<uint32_t> State;     // 0 free, 1 held, 2 held with sleepers
    uint32_t Recursion;              // owner only
    void *LibraryRecord;             // not the platform's: null, or what the library put in its place
    uintptr_t Reserved;
    uintptr_t SpinCount;             // pauses before sleeping; 0 is the platform's own number
};
void InitializeCriticalSection(CriticalSection *section);
BOOL InitializeCriticalSectionAndSpinCount(CriticalSection *section, DWORD spinCount);
DWORD SetCriticalSectionSpinCount(CriticalSection *section, DWORD spinCount);  // the previous one
void DeleteCriticalSection(CriticalSection *section);
void EnterCriticalSection(CriticalSection *section);
BOOL TryEnterCriticalSection(CriticalSection *section);
void LeaveCriticalSection(CriticalSection *section);
void CpuRelax();        // one turn of a spin: some nanoseconds
void YieldProcessor();  // to another kernel thread; what a spin lock does after a bounded spin

// ---- Clocks ------------------------------------------------------------------------------------------

uint32_t GetTickCount();    // milliseconds, low word of GetTickCount64
uint64_t GetTickCount64();  // milliseconds since an arbitrary start, monotonic, rounded down
uint64_t GetTickCountUp();  // the same rounded up, so that a wait measured from it is never short
uint64_t ReadTsc();         // processor cycle counter, no serialisation
BOOL QueryPerformanceFrequency(LARGE_INTEGER *frequency);
BOOL QueryPerformanceCounter(LARGE_INTEGER *count);
void Sleep(DWORD ms);       // blocks the kernel thread; 0 yields the processor; INFINITE never returns
DWORD SleepEx(DWORD ms, BOOL alertable);  // as Sleep; 192 when a completion routine of this thread ran
void GetLocalTime(SYSTEMTIME *time);
void GetSystemTimeAsFileTime(FILETIME *time);

// ---- Processors and priorities -----------------------------------------------------------------------
//
// Masks are 32 bits: bit i is the i-th processor that the process may use, numbered at process start.
// A priority that the kernel refuses for lack of privilege is remembered and is no error; no thread runs
// in a real-time class.

BOOL GetProcessAffinityMask(HANDLE process, uint32_t *processMask, uint32_t *systemMask);
BOOL SetProcessAffinityMask(HANDLE process, uint32_t mask);  // every thread of the process, now and later
uint32_t SetThreadAffinityMask(HANDLE thread, uint32_t mask);  // the old mask; 0 on failure (87, 6)
BOOL SetThreadPriority(HANDLE thread, int priority);
int GetThreadPriority(HANDLE thread);  // THREAD_PRIORITY_ERROR_RETURN on failure

// ---- Handles -----------------------------------------------------------------------------------------
//
// A handle value is a multiple of four that fits 32 bits. A closed value is given out again only when
// nobody pins it.

BOOL CloseHandle(HANDLE handle);
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target, DWORD access,
                     BOOL inherit, DWORD options);
// The library's table entry for a value keeps the value from being reused; pins are counted.
void PinHandleValue(HANDLE handle);
void UnpinHandleValue(HANDLE handle);
BOOL GetHandleInformation(HANDLE handle, DWORD *flags);  // whether the value stands for an object; flags get 0
HANDLE GetCurrentProcess();  // pseudo handle, (HANDLE)-1
DWORD GetCurrentProcessId();

// ---- Threads -----------------------------------------------------------------------------------------

// Runs start(param) on a new kernel thread; null on failure with the limit that was hit as last error
// (164 for the kernel's thread limit, 8 for memory). Flags: CREATE_SUSPENDED.
HANDLE CreateThread(SECURITY_ATTRIBUTES *security, size_t stackBytes, LPTHREAD_START_ROUTINE start, void *param,
                    DWORD flags, DWORD *threadId);
[[noreturn]] void ExitThread(DWORD code);  // the calling kernel thread
HANDLE GetCurrentThread();                 // pseudo handle, (HANDLE)-2
DWORD GetCurrentThreadId();
DWORD SuspendThread(HANDLE thread);        // previous count, or 0xFFFFFFFF; returns when the thread has stopped
DWORD ResumeThread(HANDLE thread);         // previous count, or 0xFFFFFFFF
BOOL TerminateThread(HANDLE thread, DWORD code);  // a kernel thread ends at its next system call
BOOL GetExitCodeThread(HANDLE thread, DWORD *code);
BOOL GetThreadTimes(HANDLE thread, FILETIME *creation, FILETIME *exit, FILETIME *kernel, FILETIME *user);
DWORD GetThreadId(HANDLE thread);
HANDLE GetThreadDesktop(DWORD threadId);   // always null; there are no desktops here

// A thread object without a kernel thread and without a stack, created suspended. The first resume that
// brings its count to 0 runs capture(arg) on the calling thread, after which the object is suspended again
// (count 1); the last such resume runs end(arg), whose result is the exit code, and signals the object.
// Each runs with the object's own slots, identifier and last error, and with FiberData kNoFiberData; neither
// may block or yield. Priority and affinity are kept as values. Null on failure.
HANDLE CreateBackingThread(SECURITY_ATTRIBUTES *security, void (*capture)(void *), DWORD (*end)(void *), void *arg,
                           DWORD *threadId);

// ---- Events and waits --------------------------------------------------------------------------------

HANDLE CreateEventA(SECURITY_ATTRIBUTES *security, BOOL manualReset, BOOL initiallySet, const char *name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
// Makes an event that nobody else knows yet signalled for good: it cannot be reset, CloseHandle answers TRUE and closes
// nothing, and an operation that has it in hEvent leaves it alone. It should be a manual-reset one.
BOOL KeepSignalled(HANDLE event);
HANDLE CreateMutexA(SECURITY_ATTRIBUTES *security, BOOL initiallyOwned, const char *name);
BOOL ReleaseMutex(HANDLE mutex);  // 288 (ERROR_NOT_OWNER) when the caller does not own it
HANDLE CreateSemaphoreA(SECURITY_ATTRIBUTES *security, LONG initial, LONG maximum, const char *name);
BOOL ReleaseSemaphore(HANDLE semaphore, LONG count, LONG *previous);
// Waits block the kernel thread; with 0 ms they only test. Results are the WAIT_ values; wait-all takes
// every object in one step or none.
DWORD WaitForSingleObject(HANDLE handle, DWORD ms);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms);
DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable);
DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, BOOL alertable);

// A wait that parks no kernel thread, for callers that schedule their own. ParkWait leaves it with its objects, where
// it is granted in its turn like the wait of a kernel thread: whoever signals an object takes it on the wait's behalf.
// Then the sink is told, once for all that is granted until TakeWoken has found it empty. The memory of the wait, of
// the objects and of the blocks is the caller's, and the platform's between ParkWait and WithdrawWait.
struct ParkedWaiter;

struct WaitSink {
    // init: called without the locks of waits, on the thread that signalled; must not block. It leads to a TakeWoken
    // on the sink's own thread.
    void (*Announce)(WaitSink *sink);
    WaitSink *NextToAnnounce;  // platform
    ParkedWaiter *Oldest;      // platform: waits woken and not taken yet
    ParkedWaiter *Newest;
    bool Announced;            // platform
};
constexpr size_t kWaitBlockBytes = 32;
struct ParkedWait {
    void *Owner;               // caller: what TakeWoken gives back
    DWORD Result;              // WithdrawWait: WAIT_OBJECT_0 or WAIT_ABANDONED_0 with the index, or WAIT_TIMEOUT
    alignas(8) char Inner[112];  // platform
};
// The room that ParkWait needs for `count` handles: Objects and Blocks have `count` elements each.
struct ParkedRoom {
    void **Objects;
    char (*Blocks)[kWaitBlockBytes];  // aligned to 8 bytes
};
constexpr DWORD kNotParkable = 0xFFFFFFFDu;
// Tests the objects, and parks the wait when nothing can be had. WAIT_TIMEOUT: parked. WAIT_OBJECT_0 or
// WAIT_ABANDONED_0 with the index: taken. WAIT_FAILED with the last error 6 or 87. kNotParkable: one of the objects is
// other processes' too, so that nobody here would learn of its change. count is 1 to MAXIMUM_WAIT_OBJECTS.
DWORD ParkWait(ParkedWait *wait, WaitSink *sink, DWORD count, const HANDLE *handles, BOOL waitAll, ParkedRoom room);
// Ends a wait that is parked, exactly once, on the sink's thread; sets Result. A grant that came before counts.
void WithdrawWait(ParkedWait *wait);
// The owners of waits that were woken, oldest first, at most `most` of them; how many. On the sink's thread. Fewer than
// `most`: the sink is empty, and the next wake-up is announced. A wait may have been woken without a grant, because a
// handle of one of its objects was closed: it is to be withdrawn and to begin anew.
uint32_t TakeWoken(WaitSink *sink, void **owners, uint32_t most);

// ---- Overlapped operations and ports -----------------------------------------------------------------
//
// A thread that created a port has an IoThread: its operations are issued there and end there. Internal
// becomes final exactly when that thread reaps, by storing InternalHigh and then Internal (release); so
// "poll the status word" needs no walk over what is outstanding. A thread without one calls the system
// directly, and its overlapped operations are ended by a service thread.
//
// IoOp is embedded by the library in its own records. An operation issued with one is handed over when it
// ends (TakeEndedOps), in the order of ending; an operation issued without one never is. A packet for a
// record that is already queued only raises the record's count, so that queueing allocates nothing.

struct IoOp {
    IoOp *NextEnded;        // platform: chain of ended operations not taken yet
    IoOp *NextPacket;       // platform: chain of a port's queued records
    uint32_t PacketsQueued; // platform: packets of this record in its port's queue
    uint32_t State;         // platform: 0 idle
    OVERLAPPED *Ov;         // init: the OVERLAPPED of the record that embeds this
    void *Request;          // platform: the operation that is outstanding, or null
    uintptr_t PacketKey;    // platform: completion key of the packets that are queued
};

// What the owner of a port polls; "has anything ended?" is two loads on either back end.
struct IoThread {
    const std::atomic<uint32_t> *Tail;   // moved by the kernel or a helper as operations end
    uint32_t Head;                       // owner: entries consumed
    uint32_t TaskMask;                   // bits of *Tasks that ask for a kernel entry
    const std::atomic<uint32_t> *Tasks;  // flag word of the ring
    uint32_t Unsubmitted;                // owner: operations prepared and not handed to the kernel yet
    uint32_t Outstanding;                // owner: operations that have not been reaped
    IoOp *EndedHead;                     // owner: handed over by TakeEndedOps
    IoOp *EndedTail;
};

inline bool IoNeedsAttention(const IoThread *io) {
    return io->Tail->load(std::memory_order_relaxed) != io->Head ||
           (io->Tasks->load(std::memory_order_relaxed) & io->TaskMask) != 0 || io->Unsubmitted != 0;
}
// Reaps what has ended, and submits what is prepared when enough has gathered or the oldest has waited for
// a bounded number of calls; enters the kernel for those two reasons only. Owner only.
void ReapIo(IoThread *io);
// Takes the chain (NextEnded) of operations that ended with an IoOp since the last call. Owner only.
IoOp *TakeEndedOps(IoThread *io);
// Hands every prepared operation to the kernel now, and reaps what ends in that, so that others follow in their
// streams. Owner only.
void SubmitIo(IoThread *io);

// With INVALID_HANDLE_VALUE and a null port: a new port, owned by the calling thread, which gets its
// IoThread. Otherwise associates the handle with the port under the key, for operations issued from then on. Null on
// failure (87 when the handle is bound to a port already, 6 for no such handle or port).
HANDLE CreateIoCompletionPort(HANDLE file, HANDLE port, uintptr_t key, DWORD concurrency);
// Takes one packet, waiting at most `ms` (blocks; submits everything prepared first; also returns early,
// with FALSE, a null *overlapped and 258, when an operation without a packet has ended). Owner only.
// FALSE with *overlapped set is the packet of an operation that failed.
BOOL GetQueuedCompletionStatus(HANDLE port, DWORD *bytes, uintptr_t *key, OVERLAPPED **overlapped, DWORD ms);
// Queues a packet that no operation produced, from any thread, and wakes the port's owner.
BOOL PostQueuedCompletionStatus(HANDLE port, DWORD bytes, uintptr_t key, OVERLAPPED *overlapped);

// Overlapped read and write: TRUE at once, FALSE with 997 when pending, FALSE with the error. The buffer
// and the OVERLAPPED must live until the operation was reaped. `op` may be null. At most
// InlineBudget operations of one user thread finish at once; then one is answered as pending.
BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *got, OVERLAPPED *overlapped, IoOp *op = nullptr);
BOOL WriteFile(HANDLE file, const void *buffer, DWORD count, DWORD *put, OVERLAPPED *overlapped, IoOp *op = nullptr);
BOOL ReadFileEx(HANDLE file, void *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine);
BOOL WriteFileEx(HANDLE file, const void *buffer, DWORD count, OVERLAPPED *overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine);
// Result of an operation that has ended, or waits for it when `wait` (blocks); without, reaps as below,
// and FALSE with 996 when it has not ended.
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait);
// Reads Internal with acquire order, and reaps first when the calling thread has an IoThread.
BOOL HasOverlappedIoCompleted(OVERLAPPED *overlapped);
// Asks for the end of exactly that operation of the calling thread (it still ends by being reaped, with
// STATUS_CANCELLED or its own status). FALSE with ERROR_NOT_FOUND when there is none.
BOOL CancelIoEx(HANDLE file, OVERLAPPED *overlapped);
// The same for an operation issued with an IoOp, whatever became of its handle: with duplicates of that open, the
// operation goes on when it is closed.
BOOL CancelOp(const IoOp *op);
BOOL CancelIo(HANDLE file);  // every operation of the calling thread on the handle
// Asks for the end of each operation of the calling thread whose OVERLAPPED lies in [low, high); returns
// how many are still outstanding. For a stack that is about to go away; operations issued with an IoOp are not
// looked at.
uint32_t CancelIoInRange(const void *low, const void *high);
// How many of them are outstanding, without asking for their end: for a stack that is about to leave the thread.
uint32_t IoOutstandingInRange(const void *low, const void *high);

// "io_uring" or "epoll": what was probed, or what the environment variable ZVXKVT_IO asked for.
const char *IoBackendName();
// A line for the operator when the environment asked for a back end that is refused, or rings are refused
// and the other took over; empty otherwise.
const char *IoBackendNote();

inline DWORD LoadStatus(const OVERLAPPED *overlapped) {
    return std::atomic_ref<DWORD>(const_cast<DWORD &>(overlapped->Internal)).load(std::memory_order_acquire);
}
inline void StoreStatus(OVERLAPPED *overlapped, DWORD status) {
    std::atomic_ref<DWORD>(overlapped->Internal).store(status, std::memory_order_release);
}

// ---- Files -------------------------------------------------------------------------------------------
//
// Names are taken literally. These block for as long as the file system does.

HANDLE CreateFileA(const char *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile);  // INVALID_HANDLE_VALUE on failure
// A flag of ours, with CREATE_ALWAYS: a file that only its owner may read. What bears the name is replaced, not opened:
// in a folder that others write to it may be a link to something else.
constexpr DWORD kFileFlagPrivate = 0x00040000u;
// A stream that appends to a file that only its owner may read; null with errno when what bears the name is somebody
// else's, has another name too, or is no regular file. Allocates.
FILE *OpenPrivateLog(const char *name);
HANDLE CreateFileW(const WCHAR *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile);
// May be answered as pending (997) for an overlapped handle whose range is locked by somebody else.
BOOL LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped);
BOOL UnlockFileEx(HANDLE file, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped);
DWORD SetFilePointer(HANDLE file, LONG distance, LONG *distanceHigh, DWORD method);
BOOL SetEndOfFile(HANDLE file);
BOOL SetFileLength(HANDLE file, uint64_t bytes);  // grows or cuts the file, whatever its position
BOOL FlushFileBuffers(HANDLE file);               // data and metadata are durable on return
// The same as an overlapped operation, of a handle opened for either use: durable at its end.
BOOL FlushFileBuffers(HANDLE file, OVERLAPPED *overlapped, struct IoOp *op);
BOOL GetFileSizeEx(HANDLE file, LARGE_INTEGER *size);
DWORD GetFileSize(HANDLE file, DWORD *high);
BOOL DeleteFileA(const char *name);
BOOL MoveFileExA(const char *from, const char *to, DWORD flags);

// ---- Modules, environment, process -------------------------------------------------------------------

HMODULE GetModuleHandleA(const char *name);  // "kernel32.dll" is answered by the platform itself
HMODULE LoadLibraryA(const char *name);      // null with 126; "x.dll" may be libx.so or x.so
BOOL FreeLibrary(HMODULE module);
FARPROC GetProcAddress(HMODULE module, const char *name);  // null with 127
// Characters stored without the terminating zero; the size needed when it does not fit; 0 with 203.
DWORD GetEnvironmentVariableA(const char *name, char *buffer, DWORD size);
BOOL InitializeSecurityDescriptor(void *descriptor, DWORD revision);  // 20 bytes at least
BOOL SetSecurityDescriptorDacl(void *descriptor, BOOL present, void *dacl, BOOL defaulted);
// Flushes standard output and error without waiting for their locks, then ends the process without
// running destructors under live threads.
[[noreturn]] void ExitProcess(DWORD code);
void WriteConsole(const char *text, size_t length);  // standard output, one write; flushes stdio's buffer first
uint32_t KernelThreadCount();                        // kernel threads of this process now

// ---- Looking at a thread ---------------------------------------------------------------------------

constexpr uint32_t kSampleFrames = 16;
struct ThreadSample {
    void *FiberData;               // of the fiber that the thread runs; null when it runs none
    uint32_t Count;                // at least 1
    uint32_t Sure;                 // so many of them are frames; the others are words that look like return addresses
    void *Frames[kSampleFrames];   // where it is, then where each call came from
};
// Where a kernel thread of this process is. It is held up for some microseconds and runs on. False when it does not
// answer within 200 ms, or somebody else is asking. Not on the thread itself.
bool SampleThread(DWORD threadId, ThreadSample *sample);
// Milliseconds in which a kernel thread of this process could have run but another had the processor, since it started;
// 0 where the kernel does not say. Reads a file.
uint64_t ProcessorWaitMs(DWORD threadId);
bool IsCode(const void *address);  // lies in the code of a module
// "function+0x12 (module+0x1234)", or as much of it as is known. Reads files and allocates.
void DescribeCode(const void *address, char *text, size_t room);

// ---- Fault injection ---------------------------------------------------------------------------------
//
// Builds with ZVX_FAIL_POINTS (every preset but release) can make the nth call of a named function fail
// with a given last error: by FailCall, or by the environment ZVXKVT_FAIL="SetThreadPriority:1:5,..." which
// is read at the first call. "record:FILE" among them counts every call in a file. In release builds ShouldFail is a
// constant false.
void FailCall(const char *function, uint32_t nth, DWORD error);
void ArmFailPoints(const char *text);  // what ZVXKVT_FAIL may hold, counted from now on
#ifdef ZVX_FAIL_POINTS
bool ShouldFail(const char *function);  // true once, with the last error set, when this call is to fail
#else
inline bool ShouldFail(const char *) { return false; }
#endif

}  // namespace os

#endif  // ZVX_PLATFORM_OS_H
