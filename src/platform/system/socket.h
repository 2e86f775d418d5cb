// platform/system/socket.h - the object behind a SOCKET, for the files that make, connect, transfer and watch.
//
// Made by socket, WSASocketA or an accept on any thread, used by any thread that holds a reference. The kernel's socket
// is made when a call first needs it. State says who may touch Fd:
//   - kLazy: there is none; a thread that needs one makes the state kMaking, in an inner region;
//   - kMaking: that thread alone, for the length of one or two system calls; others give up the processor;
//   - kReady: anyone may read it, having read State with acquire order;
//   - kAccepting: an AcceptEx will put the connection here; its engine alone writes Fd. Nobody else may use the socket
//     until that operation has ended, after which it is kReady, or what it was before.
// The descriptor is closed with the last reference, so a call that runs never meets another socket under its number.
//
// The kernel's own blocking mode is the host's (FIONBIO), except that a listening socket which an epoll engine accepts
// on never blocks; whoever may block therefore takes EAGAIN for "wait, then try again". Engines ask for every transfer
// not to block and need no mode.
#ifndef ZVX_PLATFORM_SYSTEM_SOCKET_H
#define ZVX_PLATFORM_SYSTEM_SOCKET_H

#include "platform/os_socket.h"
#include "platform/system/io_engine.h"

namespace os {

enum class SocketState : uint32_t { kLazy, kMaking, kReady, kAccepting };

// Flags of a socket: what was done with it, as far as this process knows.
constexpr uint32_t kSocketListening = 1;
constexpr uint32_t kSocketConnecting = 2;     // a connect that did not wait; the kernel knows how it ended
constexpr uint32_t kSocketConnected = 4;      // was at some time
constexpr uint32_t kSocketSendShut = 8;       // shutdown by this process
constexpr uint32_t kSocketReceiveShut = 16;   // the same
constexpr uint32_t kSocketReset = 32;         // the kernel reports a reset once only; for the host it stays
constexpr uint32_t kSocketShared = 64;        // its kernel socket is or was another's too, here or in another process
constexpr uint32_t kSocketNeverBlocks = 128;  // NeverBlock was called
constexpr uint32_t kSocketExclusive = 256;    // SO_EXCLUSIVEADDRUSE
constexpr uint32_t kSocketDuplicate = 512;    // init: made as one; has a Source while it is kLazy

struct DeferredAccept {  // a connection whose acceptance was put off; from the heap
    DeferredAccept *Next;
    int Fd;
};

struct EventRecord;  // socket_events.cpp

struct SocketObject : IoObject {
    std::atomic<SocketState> State{SocketState::kLazy};
    std::atomic<uint32_t> Flags{0};
    int Family = 0;      // init
    int SocketType = 0;  // init: the kernel's number, which is the host's too
    int Protocol = 0;    // init
    // A reference on what it is to be a duplicate of, or null. Owned by who made the state kMaking, and by Destroy.
    SocketObject *Source = nullptr;
    std::atomic<bool> NonBlocking{false};     // FIONBIO
    std::atomic<uint32_t> Blockers{0};        // threads in a call that may block; see WakeBlocked
    std::atomic<uint32_t> LazyDuplicates{0};  // those that have this one as their Source
    std::atomic<DWORD> ReceiveTimeout{0};     // milliseconds, 0 for none, as last set or learned (TimeoutOf)
    std::atomic<DWORD> SendTimeout{0};        // the same
    socklen_t FixedLength = 0;                // written before kSocketListening: length of Fixed, 0 for none
    alignas(4) char Fixed[32];                // the local address of every connection that is accepted here
    InnerLock DeferLock;
    DeferredAccept *Deferred = nullptr;          // [DeferLock] oldest first
    std::atomic<uint32_t> DeferCount{0};         // changed under the lock, read without
    std::atomic<EventRecord *> Events{nullptr};  // [events lock]; read without by who only asks whether there is one
    uint32_t Takers = 0;                         // [events lock] calls between DisableEvents and their end
};

inline uint32_t FlagsOf(const SocketObject *socket) {
    // Acquire: what a flag stands for was written before it.
    return socket->Flags.load(std::memory_order_acquire);
}
inline void AddFlags(SocketObject *socket, uint32_t flags) {
    // Mostly there already: the line stays shared then.
    if ((FlagsOf(socket) & flags) != flags) socket->Flags.fetch_or(flags, std::memory_order_release);
}

// As far as this process knows. A duplicate that gets its descriptor sets the flag before it leaves the count.
inline bool HasDuplicates(const SocketObject *socket) {
    return socket->LazyDuplicates.load(std::memory_order_seq_cst) != 0 || (FlagsOf(socket) & kSocketShared) != 0;
}


inline int FailSocket(DWORD error) {
    SetLastError(error);
    return SOCKET_ERROR;
}

// socket.cpp

// The socket behind a value, with a reference; null with WSAENOTSOCK.
SocketObject *RefSocket(SOCKET s);
// A new object, kLazy, with one reference; null with WSAENOBUFS.
SocketObject *NewSocketObject(int family, int type, int protocol);
// The same for a descriptor that is there, which it takes over also when it fails.
SocketObject *AdoptDescriptor(int fd, int family, int type, int protocol);
// A value for it, taking over the reference also when it fails: INVALID_SOCKET with WSAEMFILE.
SOCKET PublishSocket(SocketObject *socket);
DWORD MakeDescriptor(SocketObject *socket);  // 0, or the WSAE code
inline DWORD NeedDescriptor(SocketObject *socket) {
    return socket->State.load(std::memory_order_acquire) == SocketState::kReady ? 0 : MakeDescriptor(socket);
}
// For calls that make no sense before the socket was bound or connected: no descriptor is made for them.
inline DWORD NeedExisting(SocketObject *socket, DWORD error) {
    const SocketState state = socket->State.load(std::memory_order_acquire);
    if (state == SocketState::kReady) return 0;
    if (state == SocketState::kAccepting || (state == SocketState::kLazy && (FlagsOf(socket) & kSocketDuplicate) == 0))
        return error;
    return MakeDescriptor(socket);
}
void RaiseDescriptorLimit();  // once a process
// As far as this process knows, else as the kernel says. The socket may have no descriptor yet (false).
bool IsConnected(SocketObject *socket);
bool IsListening(SocketObject *socket);
// The time-out of blocking receives or sends in milliseconds, 0 for none.
DWORD TimeoutOf(SocketObject *socket, bool receive);
// For a socket whose descriptor came from `from`, or will: the kernel's socket has its time-outs.
void CopyTimeouts(SocketObject *socket, SocketObject *from);
// Sleeps until the descriptor is ready for `events` of poll, at most `ms` (-1: no limit). Result of poll; restarted
// after signals.
int PollDescriptor(int fd, short events, int ms);
void AfterSignal();  // a call was interrupted and will be made again
// The mode of a descriptor that was put into the object, if it is not the kernel's default.
void ApplyMode(SocketObject *socket);

// Around a system call that may block: a closer then wakes it. One that came before it found nobody to wake, so Closed
// is asked once before the first call.
struct Blocker {
    explicit Blocker(SocketObject *socket) : Socket(socket) {
        socket->Blockers.fetch_add(1, std::memory_order_seq_cst);
    }
    ~Blocker() { Socket->Blockers.fetch_sub(1, std::memory_order_relaxed); }
    Blocker(const Blocker &) = delete;
    Blocker &operator=(const Blocker &) = delete;
    // Whether the last handle has been closed.
    bool Closed() const { return Socket->Handles.load(std::memory_order_seq_cst) == 0; }
    SocketObject *const Socket;
};

// socket_transfer.cpp

extern const TransferOps kSocketTransfers;
// Issues a filled call on a socket whose descriptor is there, on the caller's engine. As IssueCall.
BOOL IssueSocketCall(SocketObject *socket, IoCall *call);
int MessageFlags(int flags);  // the kernel's, or -1
// Hands the calling thread's own sends to the kernel, as far as that takes them now: what comes next ends the stream.
void FlushSends(SocketObject *socket);
// A completion routine for the calling thread; null without memory.
EndRoutine *NewEndRoutine(LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, OVERLAPPED *overlapped);

// socket_accept.cpp

int TakeDeferred(SocketObject *listener);  // a descriptor, or -1
void CloseDeferred(SocketObject *listener);

// socket_events.cpp

void EnableEvents(SocketObject *socket, LONG events);  // records that the host has made room for more
// A receive or an accept begins: what it waits for is not reported until all such calls have ended (ReenableEvents).
void DisableEvents(SocketObject *socket);
void EndEvents(SocketObject *socket);
void InheritEvents(SocketObject *accepted, SocketObject *listener);

inline void AfterCall(SocketObject *socket, LONG events) {
    if (socket->Events.load(std::memory_order_relaxed) != nullptr) [[unlikely]]
        EnableEvents(socket, events);
}

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_SOCKET_H
