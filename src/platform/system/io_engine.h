// platform/system/io_engine.h - the records behind ports and overlapped operations.
//
// An Engine ends the operations of one kernel thread, its owner: the thread that created a port, or the service
// thread, which ends the operations of all threads without a port. Two back ends fill it in: a ring, and epoll with
// a pool of file threads. Everything here runs on the owner except what is said to be shared; nothing here knows
// what the library does with an operation that has ended.
//
// The life of an operation that cannot finish at once: the caller fills an IoCall; IssueCall makes a Request of it
// on the caller's engine (or sends it to the service engine) and starts it; the back end calls StepRequest with each
// result until AccountTransfer says that nothing is left to transfer; EndRequest stores InternalHigh and Internal,
// signals the event, queues the packet and hands the IoOp over. A Request holds a reference on its object, so a
// descriptor is closed only after the last operation on it has ended.
//
// Other threads reach an engine through its inbox only: posted packets, requests to cancel, operations for the
// service. The owner announces that it will sleep (Blocked = 1) and then looks at the inbox once more; a sender
// appends and then looks at Blocked. Both sides use sequentially consistent operations on these two words, so at
// least one of them sees the other, and a descriptor is written only for an owner that really sleeps.
//
// Locks, in this order: Engine::InboxLock, then nothing. FileObject::LockLock and the pool's lock are leaves too.
#ifndef ZVX_PLATFORM_SYSTEM_IO_ENGINE_H
#define ZVX_PLATFORM_SYSTEM_IO_ENGINE_H

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdint>

#include "platform/base/alertable.h"
#include "platform/base/fail.h"
#include "platform/base/inner_lock.h"
#include "platform/base/object.h"
#include "platform/os.h"
#include "zvxkvt/pipetypes.h"
#include "zvxkvt/sockettypes.h"

namespace os {

struct Engine;
struct Request;
struct Message;
struct RingState;
struct EpollState;

// ---- Objects with operations -------------------------------------------------------------------------

struct IoObject;
struct IoCall;

// What ReadFile and WriteFile do with an object that is no file (pipes). May be null where they are refused.
struct TransferOps {
    BOOL (*Transfer)(IoObject *object, IoCall *call, DWORD *done);
};

// The common part of files, pipes and sockets: a descriptor that can be bound to a port. Written before the first
// handle exists, except where a field says otherwise. EndIoObject is called by each type's Destroy.
struct IoObject : Object {
    int Fd = -1;              // sockets: written later, and published by their State (socket.h)
    uint32_t Serial = 0;      // process-wide, never 0: tells this use of a descriptor number from an older one
    bool Seekable = false;    // has positions: transfers continue until the count or the end is reached
    bool Pollable = false;    // the kernel reports readiness for it: never given to a file thread
    bool EndIsBreak = false;  // reading 0 bytes means that the other end is gone (FIFOs), not the end of data
    bool Direct = false;      // not through the page cache; a transfer that ends inside a sector ends the file
    const TransferOps *Transfers = nullptr;   // null for files
    std::atomic<struct PortObject *> Port{};  // set once by CreateIoCompletionPort, with a reference
    uintptr_t Key = 0;                        // written before Port, under the binding lock
    std::atomic<uint64_t> EngineMask{0};      // bit Index & 63 of every engine that ever had an operation on it
};

struct PortObject : Object {
    Engine *Owner = nullptr;   // init: the creating thread's engine
    uint32_t OwnerSerial = 0;  // init: that engine's Serial then; another one means that the thread has ended
    uint32_t Serial = 0;       // init: never 0, below kSerialLimit; IoOp.State names the queue that an IoOp is in
    IoOp *Head = nullptr;      // owner thread: queued packets, oldest first
    IoOp *Tail = nullptr;      // owner thread
};

// IoOp.State: the serial of the port in whose queue the record is, and two marks.
constexpr uint32_t kSerialLimit = 0x40000000u;
constexpr uint32_t kOpInEnded = 0x80000000u;    // in the chain of ended operations
constexpr uint32_t kOpIsMessage = 0x40000000u;  // the link of a Message, not an IoOp of the library

// ---- Operations --------------------------------------------------------------------------------------

// A new kind needs its entry in Prepare (io_uring.cpp), its call in Attempt (io_epoll.cpp) and its line in
// AccountTransfer; everything else is the same for all. The low bit of a transfer's kind is its direction.
enum class RequestKind : uint8_t {
    kRead,
    kWrite,
    kReceive,
    kSend,
    kAccept,
    kLock,
    kPipeRead,
    kPipeWrite,
    kPipeConnect,
    kFlush,  // of a file: transfers nothing, and is final when what was written before is durable
};

constexpr uint32_t kInlineParts = 8;  // buffers of one operation that need no memory of their own

// A completion routine that waits for its operation; from the heap, freed after it ran or was dropped.
struct EndRoutine {
    AlertRoutine Node;                                 // must be first
    AlertState *Alert;                                 // a reference
    LPOVERLAPPED_COMPLETION_ROUTINE Routine;           // one of the two
    LPWSAOVERLAPPED_COMPLETION_ROUTINE SocketRoutine;  // of the socket functions
    OVERLAPPED *Ov;
    DWORD Error;
    DWORD Bytes;
};

// What a caller asked for, with everything that it must hold until the end.
struct IoCall {
    IoObject *Target = nullptr;   // a reference
    OVERLAPPED *Ov = nullptr;     // caller: until the end
    IoOp *Op = nullptr;           // caller: until it is handed over; null for the host's own operations
    Object *Event = nullptr;      // a reference; signalled at the end
    EndRoutine *Routine = nullptr;
    char *Buffer = nullptr;  // caller: until the end
    // Several buffers of kReceive and kSend, null for one: an array that is consumed as the transfer goes on. Its
    // memory is the request's (or, before there is one, the issuing function's), or from the heap.
    iovec *Parts = nullptr;
    IoObject *Accepted = nullptr;  // kAccept: a reference on the socket that takes the connection
    IoObject *Channel = nullptr;   // pipes: a reference on what has the descriptor; Target has none
    // kLock: first byte. kAccept: bytes of the local address's area. kPipeWrite: whose rest waits in the channel.
    uint64_t Offset = 0;
    uint64_t Length = 0;           // kLock: bytes, never 0. kAccept: bytes of the peer address's area
    uint32_t PartCount = 0;
    uint32_t PartFirst = 0;  // parts that are through
    int MsgFlags = 0;        // kReceive, kSend: the kernel's flags. kPipeRead: 1 for message mode
    DWORD Count = 0;
    DWORD Done = 0;      // transferred so far
    DWORD ThreadId = 0;  // who asked; CancelIo of a thread without an engine
    RequestKind Kind = RequestKind::kRead;
    bool NoPacket = false;   // the low bit of hEvent
    bool Later = false;      // must be answered as pending although it could finish at once
    bool Append = false;     // kWrite: at the end of the file, wherever that is
    bool Exclusive = false;  // kLock
    bool PartsOnHeap = false;
    bool Reenables = false;  // kReceive, kAccept: DisableEvents was called, and the end undoes it
};

enum class RequestStage : uint8_t {
    kFree,
    kStarting,
    kPrepared,  // ring: its entry is in the submission queue or further
    kQueued,    // file pool: no thread has taken it ([pool lock])
    kRunning,   // file pool: a thread works on it ([pool lock])
    kParked,    // in its stream: waits for readiness (epoll) or for those before it (ring)
    kLocking,   // waits for a byte range
    kEnded,     // has its result and will be ended by the next reap
};

// What a step of a transfer asks the kernel for; a fault point makes it less, as the kernel may at any time.
inline uint32_t ShortOf(uint32_t bytes) {
    if (bytes < 2 || ShouldFailInside("short_transfer") == 0) return bytes;
    return bytes < 1024 ? bytes / 2 : bytes / 2 & ~511u;  // whole sectors, for files without cache
}

// One operation that was answered as pending. Owned by its engine, which recycles it; never freed. The file pool's
// threads own Call.Done, Status and Result between taking it and pushing it on the engine's done list.
struct Request {
    IoCall Call;
    Engine *Owner = nullptr;       // init
    Request *Next = nullptr;       // owner: ring of outstanding requests, or the free chain
    Request *Prev = nullptr;       // owner
    Request *QueueNext = nullptr;  // the one queue that it is in: pool, stream, byte ranges, done list
    Request *QueuePrev = nullptr;  // [pool lock]
    uint32_t Index = 0;            // init: number in its engine
    uint32_t Entry = 0;            // ring: sequence number of its submission entry
    DWORD Status = 0;              // final status once AccountTransfer has said so
    // Written by whoever the stage before it names; a cancelling owner may look while a file thread writes.
    std::atomic<RequestStage> Stage{RequestStage::kFree};
    bool InStream = false;               // owner: in the queue of its stream
    bool HostOwned = false;              // owner: issued without an IoOp; counted in the engine's HostOwned
    std::atomic<bool> Cancelled{false};  // owner sets it; the pool's thread reads it between two calls
    msghdr Header{};                     // ring: of the entry that is prepared, when Call.Parts is given
    iovec InlineParts[kInlineParts];     // Call.Parts, unless from the heap
};

// What has the descriptor that a call is made on.
inline IoObject *DescriptorOf(const IoCall &call) {
    return call.Channel != nullptr ? call.Channel : call.Target;
}

inline uint32_t DirectionOf(RequestKind kind) {
    return static_cast<uint32_t>(kind) & 1;
}

// The requests of one engine on one object without offsets, by direction, oldest first; see io_stream.cpp. Found by
// descriptor number; Serial tells whether it is still the same object.
struct Stream {
    uint32_t Serial;   // 0: never used
    bool Watched;      // epoll: the set was asked to report its readiness
    bool Refused;      // epoll: the kernel reports none for it (a device like /dev/null), so the pool serves it
    bool Drained[2];   // epoll, sockets: found empty (or full) since the last report, so there is nothing to try
    bool Unsure;       // epoll: something was reported that no further report may follow; never Drained
    Request *Head[2];  // reads, writes; on a ring the head is the one that runs
    Request *Tail[2];
};

// ---- Messages ----------------------------------------------------------------------------------------

enum class MessageKind : uint8_t {
    kPacket,        // a packet for Port
    kPortGone,      // Port's last handle was closed: drop what is queued
    kIssue,         // service engine: start Call
    kCancelObject,  // cancel every operation on Call.Target
    kCancelOne,     // cancel the operation on Call.Target with Call.Ov
    kCancelThread,  // cancel the operations on Call.Target that Call.ThreadId asked for
};

// Owned by the engine it is sent to: free ones lie in InboxFree (any sender takes one) or Spare (the owner's).
struct Message {
    IoOp Link;         // must be first: a packet is queued in its port through NextPacket
    Message *Next;     // inbox, or a free chain
    PortObject *Port;  // kPacket, kPortGone: a reference while in the inbox
    OVERLAPPED *Ov;    // kPacket
    uintptr_t Key;     // kPacket
    DWORD Bytes;       // kPacket
    DWORD Status;      // kPacket
    MessageKind Kind;
    IoCall Call;  // the other kinds; Call.Target is a reference
};

// ---- Engines -----------------------------------------------------------------------------------------

// What a back end does. All run on the owner.
struct EngineOps {
    const char *Name;
    bool (*Open)(Engine *engine);   // sets Io.Tail, Tasks, TaskMask, Head; false when the kernel refuses
    void (*Close)(Engine *engine);  // nothing is outstanding any more
    // Starts a transfer or its next step; never blocks. True when it ended at once (Call.Done, Status).
    bool (*Start)(Engine *engine, Request *request);
    // The request has become the oldest of its stream. Null where readiness starts it.
    void (*StartNext)(Engine *engine, Request *request);
    void (*Cancel)(Engine *engine, Request *request);  // the request still ends by being reaped
    void (*Reap)(Engine *engine);                      // ends what has ended; submits by its own rule
    void (*Submit)(Engine *engine);
    // Submits, then sleeps once until something ends, somebody wakes the engine, or `ns` have passed (-1: no
    // limit); ends what has ended. True when the time ran out.
    bool (*Wait)(Engine *engine, int64_t ns);
};
extern const EngineOps kRingOps;
extern const EngineOps kEpollOps;
bool RingsAllowed();  // io_uring.cpp: tries a small ring; false with the reason in errno

constexpr uint32_t kRequestsPerChunk = 64;
constexpr uint32_t kMaxChunks = 4096;

// Never freed: an engine of a thread that has ended serves the next thread that needs one.
struct Engine {
    IoThread Io{};  // must be first: the library's view; ThreadBlock.Io points at it
    const EngineOps *Ops = nullptr;
    uint32_t Index = 0;            // init: dense; bit Index & 63 of EngineMask
    Engine *NextEngine = nullptr;  // init: every engine that was ever made
    Engine *NextFree = nullptr;    // [engines lock]

    // Owner only.
    Request Outstanding;  // head of the ring through Next and Prev
    Request *FreeRequests = nullptr;
    Request **Chunks = nullptr;  // kMaxChunks pointers in reserved memory
    uint32_t ChunkCount = 0;
    uint32_t HostOwned = 0;           // outstanding operations on the host's own OVERLAPPEDs
    uint32_t EndedWithoutPacket = 0;  // operations ended that queued no packet here; tells a wait to return
    Message *Spare = nullptr;         // free messages at hand
    Request *LockHead = nullptr;      // requests of kind kLock that wait, oldest first
    Request *LockTail = nullptr;
    uint32_t LockCount = 0;  // also part of Io.Unsubmitted, so that the owner keeps looking
    uint32_t LockCalls = 0;  // reaps since the clock was last read for them
    uint32_t LockBackoffMs = 0;
    uint64_t LockNextTry = 0;   // monotonic nanoseconds
    Stream *Streams = nullptr;  // by descriptor
    uint32_t StreamLimit = 0;
    RingState *Ring = nullptr;  // kept when the engine is recycled
    EpollState *Epoll = nullptr;

    // Shared.
    alignas(64) InnerLock InboxLock;
    uint32_t Serial = 1;                  // [InboxLock] raised when the owner ends; senders compare it
    bool Open = false;                    // [InboxLock]
    Message *InboxHead = nullptr;         // [InboxLock]
    Message *InboxTail = nullptr;         // [InboxLock]
    Message *InboxFree = nullptr;         // [InboxLock]
    std::atomic<uint32_t> InboxCount{0};  // messages in the inbox; changed under the lock, read without
    std::atomic<uint32_t> Blocked{0};     // owner: 1 around a wait; whoever turns it to 0 writes WakeFd
    int WakeFd = -1;                      // init: an eventfd that is never closed, so that a late sender hits no other
    // File pool to owner: newest first. DoneCount is Io.Tail of the epoll back end.
    alignas(64) std::atomic<Request *> DoneList{nullptr};
    std::atomic<uint32_t> DoneCount{0};
};

inline Engine *EngineOf(IoThread *io) {
    return reinterpret_cast<Engine *>(io);
}
inline Engine *CurrentEngine() {
    return EngineOf(CurrentThreadBlock()->Io);
}

// io_common.cpp: engines and requests.

const EngineOps *Backend();                // chosen at the first call
Engine *OpenEngine(const EngineOps *ops);  // for the calling thread; null with the reason
void CloseEngine(Engine *engine);          // owner: cancels and awaits what is outstanding
void InitIoObject(IoObject *object, int fd);
void EndIoObject(IoObject *object);  // closes the descriptor, lets go of the port
// The last handle is gone: asks every engine that may have an operation on it to cancel.
void CancelObject(IoObject *object);

// Threads that sleep on the status word of an operation that they did not issue.
extern std::atomic<uint32_t> gStatusWaiters;

// Looks at hEvent: takes and resets the event, unless it stays signalled. False with ERROR_INVALID_HANDLE.
bool TakeEvent(IoCall *call);
void DropCall(IoCall *call);  // lets go of the references of a call that was not issued
// What only the operations of sockets hold; before the final status is stored, because it may be used again then.
void SettleAccept(IoCall *call);  // socket_accept.cpp
void DropChannel(IoCall *call);   // pipe_channel.cpp: the same for those of pipes
void ReenableEvents(const IoCall *call);  // socket_events.cpp
inline void ReleaseExtras(IoCall *call) {
    if (call->Reenables) [[unlikely]]
        ReenableEvents(call);
    if (call->PartsOnHeap) free(call->Parts);
    if (call->Accepted != nullptr) SettleAccept(call);
    if (call->Channel != nullptr) DropChannel(call);
}
// Starts a call on `engine`, or on the service engine when that is null; takes over its references. TRUE when it
// ended at once (Done, final), FALSE with 997 when it is pending, FALSE with the reason (no packet, no event).
BOOL IssueCall(Engine *engine, IoCall *call);
// Owner (the service): the same for a call that its thread was told is pending.
void IssueForOther(Engine *engine, IoCall *call);
// The end of a call that succeeded before it became a request: final status, event, packet, references.
void FinishAtOnce(Engine *engine, IoCall *call);
// A call that failed at once: status in the OVERLAPPED, references dropped, last error; returns FALSE.
BOOL FailAtOnce(IoCall *call, DWORD status);
// Owner: the next result of a running request; starts the next step or ends it.
void StepRequest(Engine *engine, Request *request, int32_t result);
void EndRequest(Engine *engine, Request *request);  // owner: Status and Call.Done are final
void CancelRequest(Engine *engine, Request *request);
Request *FindRequest(Engine *engine, const OVERLAPPED *overlapped);  // owner; null when it is not outstanding
// Books a result of read or write (a count, or minus errno) in Done. True when nothing is left to do: *status is final.
bool AccountTransfer(IoCall *call, int64_t result, bool cancelled, DWORD *status);
// socket_transfer.cpp: the same for kReceive, kSend and kAccept, and one system call of such an operation: what it
// moved (kAccept: the new descriptor), or minus errno. `extra` is MSG_DONTWAIT or 0.
bool AccountSocket(IoCall *call, int64_t result, bool cancelled, DWORD *status);
int64_t MoveSocket(IoCall *call, int extra);
inline bool IsSocketKind(RequestKind kind) {
    return kind >= RequestKind::kReceive && kind <= RequestKind::kAccept;
}
inline bool IsPipeKind(RequestKind kind) {
    return kind >= RequestKind::kPipeRead && kind <= RequestKind::kPipeConnect;
}
// pipe_channel.cpp: tries an operation of a pipe without blocking, in full. True when it is final: *status, Call.Done.
// Results of the back end only say that the time has come to try again, or that it was cancelled.
bool MovePipe(IoCall *call, DWORD *status);
bool AccountPipe(IoCall *call, int64_t result, bool cancelled, DWORD *status);
// The areas of an AcceptEx buffer: this, then the address. The kernel stores the peer's length.
struct AcceptArea {
    uint32_t Length;  // of the address; 0 while the local one was not asked for
    uint32_t Serial;  // local: of the accept socket
    uint64_t Socket;  // local: its handle
};
static_assert(sizeof(AcceptArea) == 16);
// Prepares the peer's area for the kernel; where it puts the address, and where the length.
sockaddr *PeerArea(IoCall *call, socklen_t **length);
void NeverBlock(IoObject *object);  // socket.cpp: the descriptor of a listening socket, for the epoll engines
// Any thread: the request has its final Status; the owner ends it at its next reap.
void PushDone(Engine *engine, Request *request);
void ReapDone(Engine *engine);  // owner: ends what PushDone brought
void WakeEngine(Engine *engine);
void ReapEngine(Engine *engine);              // inbox, byte ranges, back end
bool WaitEngine(Engine *engine, int64_t ns);  // the same, and sleeps once; true when the time ran out

// io_stream.cpp, owner only.

Stream *StreamOf(Engine *engine, const IoObject *object);  // null without memory; valid until the next call
bool AppendToStream(Stream *stream, Request *request);     // true when it is the oldest of its direction
// Takes a request out; the next oldest when it was the oldest itself.
Request *RemoveFromStream(Engine *engine, Request *request);
void ForgetStreams(Engine *engine);  // the engine begins anew

// io_inbox.cpp: messages.

// A message with a copy of `call`, whose references it takes over when it is delivered. False when the engine's
// owner has ended or there is no memory (with the last error).
bool SendCall(Engine *engine, uint32_t serial, MessageKind kind, const IoCall &call);
bool SendPacket(PortObject *port, MessageKind kind, DWORD bytes, uintptr_t key, OVERLAPPED *ov, DWORD status);
void DrainInbox(Engine *engine);
void FlushInbox(Engine *engine);        // owner ends: drops what is left
Message *AllocMessage(Engine *engine);  // owner; null without memory
void FreeMessage(Engine *engine, Message *message);

// port.cpp

// Queues the packet of an operation that has ended. `engine` is the calling thread's, or null.
void QueuePacket(Engine *engine, PortObject *port, uintptr_t key, IoOp *op, OVERLAPPED *ov, DWORD status, DWORD bytes);
void AppendMessagePacket(PortObject *port, Message *message);  // owner of the port
void DropPackets(PortObject *port);                            // owner of the port

// io_service.cpp

int StartHelperThread(void *(*start)(void *), void *arg);  // detached, without signals; 0 or errno

Engine *ServiceEngine();  // started by the first call; null with the reason
Engine *PeekServiceEngine();
void QueueEndRoutine(EndRoutine *routine, DWORD status, DWORD bytes);

// file_lock.cpp

// Takes the range if nobody else holds it: 0, or the status.
DWORD TryLockRange(IoObject *object, uint64_t offset, uint64_t length, bool exclusive);
void ParkLock(Engine *engine, Request *request);
void RetryLocks(Engine *engine);      // owner: tries the waiting requests whose time has come
void RetryLocksSoon(Engine *engine);  // owner: at the next reap

// io_pool.cpp: threads for calls that block.

void PoolSubmit(Request *request);    // owner; the result arrives by PushDone
bool PoolWithdraw(Request *request);  // true when no thread had taken it: the request is the owner's again
// The blocking call itself, on any thread, continued until it is final; returns the status.
DWORD RunBlocking(IoCall *call, const std::atomic<bool> *cancelled);

// io_errors.cpp

DWORD ErrorOfErrno(int error);        // last-error value
DWORD StatusOfErrno(int error);       // status of an operation that failed so
DWORD SocketErrorOfErrno(int error);  // WSAE code (or 995)
DWORD StatusOfError(DWORD error);     // a status that ErrorOfStatus turns back
DWORD ErrorOfStatus(DWORD status);
// Errors and warnings: STATUS_BUFFER_OVERFLOW is one, which comes with bytes.
inline bool IsFailure(DWORD status) {
    return (status & 0x80000000u) != 0;
}

// Values that only the platform's files use.
constexpr DWORD kStatusBrokenPipe = 0xC000014Bu;
constexpr DWORD kStatusLockConflict = 0xC0000054u;
constexpr DWORD kStatusDiskFull = 0xC000007Fu;
constexpr DWORD kStatusInvalidHandle = 0xC0000008u;
constexpr DWORD kErrorNotSameDevice = 17;
constexpr DWORD kErrorSeekOnDevice = 132;
constexpr DWORD kErrorAbandonedWait = 735;
constexpr DWORD kErrorIoDevice = 1117;

inline void StoreBytes(OVERLAPPED *overlapped, DWORD bytes) {
    // Atomic only because a cancelling thread may look for a request's number here; Internal gives the order.
    std::atomic_ref<DWORD>(overlapped->InternalHigh).store(bytes, std::memory_order_relaxed);
}
inline DWORD LoadBytes(const OVERLAPPED *overlapped) {
    return std::atomic_ref<DWORD>(const_cast<DWORD &>(overlapped->InternalHigh)).load(std::memory_order_relaxed);
}

// pipe.cpp: CreateFile on a name that begins like a pipe's (upper and lower case are the same there).
HANDLE OpenPipe(const char *name, DWORD access, DWORD flags);
bool FlushPipe(HANDLE handle);  // false when it is no pipe's
constexpr char kPipePrefix[] = "\\\\.\\pipe\\";

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_IO_ENGINE_H
