// platform/system/socket.cpp - sockets as objects: making, duplicating, closing.
//
// Runs on any thread. Nothing here blocks except that a thread which needs the descriptor of a socket waits for another
// that is just making it. Calls of the C library's socket functions go by number: the library that is built on this
// platform exports functions of the same names, and a call by name would come back to it.
#include "platform/system/socket.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "platform/base/object_pool.h"

namespace os {

namespace {

void SocketHandlesGone(Object *object);
void SocketDestroy(Object *object);

const ObjectOps kSocketOps{SocketHandlesGone, SocketDestroy, nullptr, nullptr};
ObjectPool<SocketObject> gSocketPool(ObjectType::kSocket, &kSocketOps);

// What WSADuplicateSocketA puts behind the protocol's name, where nobody else looks.
struct DuplicateRecord {
    uint32_t Magic;   // kDuplicate, or kConsumed
    uint32_t Target;  // process that may consume it
    uint32_t Serial;  // same process: of the source
    int32_t Fd;       // another process: the source's descriptor
    uint64_t Cookie;  // another process: the kernel's name of the socket
};
constexpr uint32_t kDuplicate = 0x5A53444Bu;
constexpr uint32_t kConsumed = 0x5A534443u;
constexpr size_t kRecordAt = 64;
static_assert(kRecordAt + sizeof(DuplicateRecord) <= sizeof(WSAPROTOCOL_INFOA::szProtocol));

// Threads that sleep in the kernel hold references, so the descriptor of a closed socket stays; they are woken by
// shutting the connection down, which a duplicate would feel: with duplicates about, they sleep on.
void WakeBlocked(SocketObject *socket) {
    if (socket->Blockers.load(std::memory_order_seq_cst) != 0 && !HasDuplicates(socket) &&
        socket->State.load(std::memory_order_acquire) == SocketState::kReady)
        syscall(SYS_shutdown, socket->Fd, SHUT_RDWR);
}

// The last handle is gone.
void SocketHandlesGone(Object *object) {
    SocketObject *socket = static_cast<SocketObject *>(object);
    if (socket->Events.load(std::memory_order_acquire) != nullptr) EndEvents(socket);
    if (socket->EngineMask.load(std::memory_order_relaxed) != 0 &&
        socket->State.load(std::memory_order_acquire) == SocketState::kReady)
        FlushSends(socket);
    CancelObject(socket);
    WakeBlocked(socket);
}

// A duplicate that never got a descriptor is gone. Of it and the source's last handle the second sees the other.
void DropSource(SocketObject *source) {
    if (source->LazyDuplicates.fetch_sub(1, std::memory_order_seq_cst) == 1 &&
        source->Handles.load(std::memory_order_seq_cst) == 0)
        WakeBlocked(source);
    UnrefObject(source);
}

void SocketDestroy(Object *object) {
    SocketObject *socket = static_cast<SocketObject *>(object);
    // Somebody who still held a reference may have asked for events after the last handle was closed.
    if (socket->Events.load(std::memory_order_acquire) != nullptr) EndEvents(socket);
    if (socket->Source != nullptr) DropSource(socket->Source);
    socket->Source = nullptr;
    CloseDeferred(socket);
    EndIoObject(socket);
    FreeObject(&gSocketPool, socket);
}

// The number of this process without a system call; a child process asks anew.
std::atomic<uint32_t> gOwnProcess{0};
DWORD OwnProcess() {
    uint32_t id = gOwnProcess.load(std::memory_order_relaxed);
    if (id != 0) [[likely]]
        return id;
    static const int hooked = pthread_atfork(nullptr, nullptr, [] { gOwnProcess.store(0, std::memory_order_relaxed); });
    static_cast<void>(hooked);
    id = static_cast<uint32_t>(getpid());
    gOwnProcess.store(id, std::memory_order_relaxed);
    return id;
}

int OpenKernelSocket(int family, int type, int protocol, bool nonBlocking) {
    RaiseDescriptorLimit();
    errno = ShouldFailInside("socket_descriptor");
    if (errno != 0) return -1;
    return static_cast<int>(
        syscall(SYS_socket, family, type | SOCK_CLOEXEC | (nonBlocking ? SOCK_NONBLOCK : 0), protocol));
}

// Whether the kernel need not be asked yet: combinations that it is known to have. Otherwise *error, or 0 to ask it.
bool IsOrdinary(int family, int type, int protocol, DWORD *error) {
    *error = ERROR_SUCCESS;
    if (family <= AF_UNSPEC) {
        *error = WSAEAFNOSUPPORT;
    } else if (type < SOCK_STREAM || type > SOCK_SEQPACKET) {
        *error = WSAESOCKTNOSUPPORT;
    } else if (family == AF_INET) {
        if (type == SOCK_STREAM || type == SOCK_DGRAM) {
            const int own = type == SOCK_STREAM ? IPPROTO_TCP : IPPROTO_UDP;
            if (protocol == 0 || protocol == own) return true;
            *error = WSAEPROTONOSUPPORT;
        } else if (type != SOCK_RAW) {
            *error = WSAESOCKTNOSUPPORT;
        }
    }
    return false;
}

SOCKET NewSocket(int family, int type, int protocol) {
    DWORD error;
    if (IsOrdinary(family, type, protocol, &error)) {
        SocketObject *socket = NewSocketObject(family, type, protocol);
        return socket == nullptr ? INVALID_SOCKET : PublishSocket(socket);
    }
    if (error == ERROR_SUCCESS) {
        const int fd = OpenKernelSocket(family, type, protocol, false);
        if (fd >= 0) {
            SocketObject *socket = AdoptDescriptor(fd, family, type, protocol);
            return socket == nullptr ? INVALID_SOCKET : PublishSocket(socket);
        }
        error = errno == EINVAL ? WSAEPROTONOSUPPORT : SocketErrorOfErrno(errno);
    }
    SetLastError(error);
    return INVALID_SOCKET;
}

void ReadRecord(const WSAPROTOCOL_INFOA *info, DuplicateRecord *record) {
    memcpy(record, info->szProtocol + kRecordAt, sizeof *record);
}

void WriteRecord(WSAPROTOCOL_INFOA *info, const DuplicateRecord &record) {
    memcpy(info->szProtocol + kRecordAt, &record, sizeof record);
}

uint64_t CookieOf(int fd) {
    uint64_t cookie = 0;
    socklen_t length = sizeof cookie;
    syscall(SYS_getsockopt, fd, SOL_SOCKET, SO_COOKIE, &cookie, &length);
    return cookie;
}

// What the kernel knows about a descriptor that came from elsewhere.
void LearnFlags(SocketObject *socket) {
    if (!IsListening(socket)) IsConnected(socket);
    const int flags = fcntl(socket->Fd, F_GETFL);
    socket->NonBlocking.store((flags & O_NONBLOCK) != 0, std::memory_order_relaxed);
}

// A second socket for one of this process.
SOCKET DuplicateHere(const WSAPROTOCOL_INFOA *info, const DuplicateRecord &record) {
    SocketObject *source = RefSocket(info->dwProviderReserved);
    if (source != nullptr && source->Serial == record.Serial) {
        source->LazyDuplicates.fetch_add(1, std::memory_order_seq_cst);
        const bool open = source->Handles.load(std::memory_order_seq_cst) != 0;
        SocketObject *socket = open ? NewSocketObject(source->Family, source->SocketType, source->Protocol) : nullptr;
        if (socket == nullptr) {
            if (!open) SetLastError(WSAEINVAL);
            DropSource(source);
            return INVALID_SOCKET;
        }
        socket->Flags.store((FlagsOf(source) & ~kSocketNeverBlocks) | kSocketDuplicate, std::memory_order_relaxed);
        socket->NonBlocking.store(source->NonBlocking.load(std::memory_order_relaxed), std::memory_order_relaxed);
        CopyTimeouts(socket, source);
        memcpy(socket->Fixed, source->Fixed, sizeof socket->Fixed);
        socket->FixedLength = source->FixedLength;
        socket->Source = source;
        return PublishSocket(socket);
    }
    if (source != nullptr) UnrefObject(source);
    SetLastError(WSAEINVAL);
    return INVALID_SOCKET;
}

// The same for one of another process, whose descriptor is fetched.
SOCKET DuplicateFrom(const WSAPROTOCOL_INFOA *info, const DuplicateRecord &record) {
    RaiseDescriptorLimit();
    const int process = static_cast<int>(syscall(SYS_pidfd_open, info->dwReservedProcess, 0));
    int fd = -1;
    DWORD error = WSAEINVAL;
    if (process >= 0) {
        fd = static_cast<int>(syscall(SYS_pidfd_getfd, process, record.Fd, 0));
        if (fd < 0 && errno != EBADF && errno != ESRCH) error = SocketErrorOfErrno(errno);
        close(process);
    }
    // The number may be another file's by now.
    if (fd >= 0 && CookieOf(fd) != record.Cookie) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        SetLastError(error);
        return INVALID_SOCKET;
    }
    SocketObject *socket = AdoptDescriptor(fd, info->iAddressFamily, info->iSocketType, info->iProtocol);
    if (socket == nullptr) return INVALID_SOCKET;
    AddFlags(socket, kSocketShared);
    LearnFlags(socket);
    return PublishSocket(socket);
}

}  // namespace

void RaiseDescriptorLimit() {
    static std::atomic<bool> done{false};
    if (done.load(std::memory_order_relaxed) || done.exchange(true, std::memory_order_relaxed)) [[likely]]
        return;
    // The soft limit is for programs that index bit masks by descriptor, as nothing here does.
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

SocketObject *RefSocket(SOCKET s) {
    Object *object = RefHandle(reinterpret_cast<HANDLE>(s), ObjectType::kSocket);
    if (object == nullptr) SetLastError(WSAENOTSOCK);
    return static_cast<SocketObject *>(object);
}

SocketObject *NewSocketObject(int family, int type, int protocol) {
    SocketObject *socket = AllocObject(&gSocketPool);
    if (socket == nullptr) {
        SetLastError(WSAENOBUFS);
        return nullptr;
    }
    InitIoObject(socket, -1);
    socket->Pollable = true;
    socket->Transfers = &kSocketTransfers;
    socket->Family = family;
    socket->SocketType = type;
    socket->Protocol = protocol;
    socket->Flags.store(0, std::memory_order_relaxed);
    socket->NonBlocking.store(false, std::memory_order_relaxed);
    socket->Blockers.store(0, std::memory_order_relaxed);
    socket->ReceiveTimeout.store(0, std::memory_order_relaxed);
    socket->SendTimeout.store(0, std::memory_order_relaxed);
    socket->FixedLength = 0;
    socket->State.store(SocketState::kLazy, std::memory_order_relaxed);
    return socket;
}

SocketObject *AdoptDescriptor(int fd, int family, int type, int protocol) {
    SocketObject *socket = NewSocketObject(family, type, protocol);
    if (socket == nullptr) {
        close(fd);
        return nullptr;
    }
    socket->Fd = fd;
    socket->State.store(SocketState::kReady, std::memory_order_release);
    return socket;
}

SOCKET PublishSocket(SocketObject *socket) {
    const HANDLE handle = NewHandle(socket);
    if (handle != nullptr) return reinterpret_cast<SOCKET>(handle);
    UnrefObject(socket);
    SetLastError(WSAEMFILE);
    return INVALID_SOCKET;
}

void ApplyMode(SocketObject *socket) {
    int on = socket->NonBlocking.load(std::memory_order_seq_cst) ? 1 : 0;
    if (on == 0 && (FlagsOf(socket) & kSocketNeverBlocks) != 0) on = 1;
    ioctl(socket->Fd, FIONBIO, &on);
}

void NeverBlock(IoObject *object) {
    SocketObject *socket = static_cast<SocketObject *>(object);
    if ((FlagsOf(socket) & kSocketNeverBlocks) != 0) return;
    AddFlags(socket, kSocketNeverBlocks);
    ApplyMode(socket);
}

DWORD MakeDescriptor(SocketObject *socket) {
    for (;;) {
        SocketState state = socket->State.load(std::memory_order_acquire);
        if (state == SocketState::kReady) return 0;
        if (state == SocketState::kAccepting) return WSAEINVAL;
        if (state == SocketState::kMaking) {
            sched_yield();
            continue;
        }
        // Not to be stopped while others wait for the state to change.
        EnterInnerRegion();
        if (socket->State.compare_exchange_strong(state, SocketState::kMaking, std::memory_order_acquire)) break;
        LeaveInnerRegion();
    }
    const bool nonBlocking = socket->NonBlocking.load(std::memory_order_seq_cst);
    SocketObject *source = socket->Source;
    DWORD error = source == nullptr ? 0 : NeedDescriptor(source);
    const int fd = error != 0 ? -1
                   : source != nullptr
                       ? fcntl(source->Fd, F_DUPFD_CLOEXEC, 0)
                       : OpenKernelSocket(socket->Family, socket->SocketType, socket->Protocol, nonBlocking);
    if (fd < 0 && error == 0) error = SocketErrorOfErrno(errno);
    socket->Fd = fd;
    if (fd >= 0 && source != nullptr) {
        AddFlags(source, kSocketShared);
        AddFlags(socket, kSocketShared);
        socket->Source = nullptr;
    }
    socket->State.store(fd >= 0 ? SocketState::kReady : SocketState::kLazy, std::memory_order_seq_cst);
    LeaveInnerRegion();
    if (fd < 0) return error;
    if (source != nullptr) {
        source->LazyDuplicates.fetch_sub(1, std::memory_order_seq_cst);
        UnrefObject(source);
    } else if (socket->NonBlocking.load(std::memory_order_seq_cst) != nonBlocking) {
        ApplyMode(socket);
    }
    return 0;
}

void AfterSignal() {
    // ThreadSanitizer runs the handler late, in a call that it knows; the thread may be ended in this one.
    poll(nullptr, 0, 0);
}

int PollDescriptor(int fd, short events, int ms) {
    const uint64_t until = ms < 0 ? 0 : GetTickCountUp() + static_cast<uint64_t>(ms);
    for (;;) {
        pollfd one{fd, events, 0};
        const int result = poll(&one, 1, ms);
        if (result >= 0 || errno != EINTR) return result;
        if (ms < 0) continue;
        const uint64_t now = GetTickCount64();
        ms = now < until ? static_cast<int>(until - now) : 0;
    }
}

bool IsConnected(SocketObject *socket) {
    if ((FlagsOf(socket) & kSocketConnected) != 0) return true;
    if (socket->State.load(std::memory_order_acquire) != SocketState::kReady) return false;
    sockaddr_storage name;
    socklen_t length = sizeof name;
    if (syscall(SYS_getpeername, socket->Fd, &name, &length) != 0) return false;
    AddFlags(socket, kSocketConnected);
    return true;
}

bool IsListening(SocketObject *socket) {
    const uint32_t flags = FlagsOf(socket);
    if ((flags & kSocketListening) != 0) return true;
    // Only through a duplicate without this object's knowledge.
    if ((flags & kSocketShared) == 0 || socket->State.load(std::memory_order_acquire) != SocketState::kReady)
        return false;
    int listening = 0;
    socklen_t length = sizeof listening;
    syscall(SYS_getsockopt, socket->Fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length);
    if (listening != 0) AddFlags(socket, kSocketListening);
    return listening != 0;
}

DWORD TimeoutOf(SocketObject *socket, bool receive) {
    std::atomic<DWORD> &known = receive ? socket->ReceiveTimeout : socket->SendTimeout;
    const DWORD own = known.load(std::memory_order_relaxed);
    if ((FlagsOf(socket) & kSocketShared) == 0 || socket->State.load(std::memory_order_acquire) != SocketState::kReady)
        return own;
    // May have been set through a duplicate.
    timeval limit{};
    socklen_t length = sizeof limit;
    syscall(SYS_getsockopt, socket->Fd, SOL_SOCKET, receive ? SO_RCVTIMEO : SO_SNDTIMEO, &limit, &length);
    const DWORD kernels = static_cast<DWORD>(limit.tv_sec * 1000 + limit.tv_usec / 1000);
    // The kernel keeps ticks of its clock, at most ten milliseconds long, and rounds up.
    if (own != 0 && kernels - own < 10) return own;
    known.store(kernels, std::memory_order_relaxed);
    return kernels;
}

void CopyTimeouts(SocketObject *socket, SocketObject *from) {
    socket->ReceiveTimeout.store(TimeoutOf(from, true), std::memory_order_relaxed);
    socket->SendTimeout.store(TimeoutOf(from, false), std::memory_order_relaxed);
}

SOCKET socket(int family, int type, int protocol) {
    if (ShouldFail("socket")) return INVALID_SOCKET;
    return NewSocket(family, type, protocol);
}

SOCKET WSASocketA(int family, int type, int protocol, WSAPROTOCOL_INFOA *info, DWORD group, DWORD flags) {
    static_cast<void>(group);
    static_cast<void>(flags);  // every socket is overlapped-capable
    if (ShouldFail("WSASocketA")) return INVALID_SOCKET;
    if (info == nullptr) return NewSocket(family, type, protocol);
    DuplicateRecord record;
    ReadRecord(info, &record);
    if (record.Magic == kDuplicate) {
        if (record.Target == OwnProcess()) {
            const SOCKET s =
                info->dwReservedProcess == record.Target ? DuplicateHere(info, record) : DuplicateFrom(info, record);
            if (s == INVALID_SOCKET) return s;
            record.Magic = kConsumed;
            WriteRecord(info, record);
            return s;
        }
    } else if (record.Magic != kConsumed) {
        // A description of a protocol, not of a socket.
        return NewSocket(info->iAddressFamily, info->iSocketType, info->iProtocol);
    }
    SetLastError(WSAEINVAL);
    return INVALID_SOCKET;
}

int WSADuplicateSocketA(SOCKET s, DWORD processId, WSAPROTOCOL_INFOA *info) {
    if (ShouldFail("WSADuplicateSocketA")) return SOCKET_ERROR;
    if (info == nullptr) return FailSocket(WSAEFAULT);
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    const DWORD own = OwnProcess();
    DuplicateRecord record{kDuplicate, processId, socket->Serial, -1, 0};
    DWORD error = ERROR_SUCCESS;
    if (processId != own) {
        error = processId == 0 || kill(static_cast<pid_t>(processId), 0) != 0 ? WSAEINVAL : NeedDescriptor(socket);
        if (error == ERROR_SUCCESS) {
            AddFlags(socket, kSocketShared);
            record.Fd = socket->Fd;
            record.Cookie = CookieOf(socket->Fd);
            // Where the kernel lets a process look only into its children, the other one is let in by name.
            prctl(PR_SET_PTRACER, processId, 0, 0, 0);
        }
    }
    if (error == ERROR_SUCCESS) {
        memset(info, 0, offsetof(WSAPROTOCOL_INFOA, szProtocol));
        info->dwServiceFlags1 = socket->SocketType == SOCK_STREAM ? 0x20066u : 0x20609u;
        info->iVersion = 2;
        info->iAddressFamily = socket->Family;
        info->iMaxSockAddr = info->iMinSockAddr =
            socket->Family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        info->iSocketType = socket->SocketType;
        info->iProtocol = socket->Protocol;
        info->dwProviderReserved = static_cast<DWORD>(s);
        info->dwReservedProcess = own;
        strcpy(info->szProtocol, socket->SocketType == SOCK_STREAM ? "Stream socket" : "Socket");
        WriteRecord(info, record);
    }
    UnrefObject(socket);
    return error == ERROR_SUCCESS ? 0 : FailSocket(error);
}

int closesocket(SOCKET s) {
    if (ShouldFail("closesocket")) return SOCKET_ERROR;
    const HANDLE handle = reinterpret_cast<HANDLE>(s);
    const Object *object = PeekHandle(handle);
    if (object == nullptr || object->Type != ObjectType::kSocket || !CloseHandle(handle))
        return FailSocket(WSAENOTSOCK);
    return 0;
}

int WSAStartup(WORD version, WSADATA *data) {
    if (ShouldFail("WSAStartup")) return static_cast<int>(GetLastError());
    if (data == nullptr) return static_cast<int>(WSAEFAULT);
    // Major number in the low byte. Nothing here depends on the call.
    const unsigned major = version & 0xFFu, minor = version >> 8;
    if (major == 0) return static_cast<int>(WSAVERNOTSUPPORTED);
    memset(data, 0, sizeof *data);
    data->wHighVersion = 0x0202;
    data->wVersion = major > 2 || (major == 2 && minor > 2) ? data->wHighVersion : version;
    strcpy(data->szDescription, "Stream sockets");
    strcpy(data->szSystemStatus, "Running");
    return 0;
}

int WSACleanup() {
    if (ShouldFail("WSACleanup")) return SOCKET_ERROR;
    return 0;
}

}  // namespace os
