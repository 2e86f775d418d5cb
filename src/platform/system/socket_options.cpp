// platform/system/socket_options.cpp - options and control codes.
//
// Runs on any thread and never blocks. The names and values of the host are not the kernel's: a table translates those
// that differ by number only, and the rest have a function each. What the host sets is kept here only where the kernel
// could not tell it again.
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "platform/system/socket.h"

namespace os {

namespace {

int Report(SocketObject *socket, DWORD error) {
    UnrefObject(socket);
    return error == 0 ? 0 : FailSocket(error);
}

// Options that are one number here and there.
struct PlainOption {
    int Level, Name;              // the host's
    int KernelLevel, KernelName;  // KernelLevel -1: accepted and without meaning
    bool Flag;                    // any value but 0 is 1
    bool ReadOnly;
};
constexpr int kTcp = IPPROTO_TCP;  // the host's level has the same number
constexpr PlainOption kPlain[] = {
    {ZVX_SOL_SOCKET, ZVX_SO_DEBUG, -1, 0, true, false},
    {ZVX_SOL_SOCKET, ZVX_SO_ACCEPTCONN, SOL_SOCKET, SO_ACCEPTCONN, true, true},
    {ZVX_SOL_SOCKET, ZVX_SO_KEEPALIVE, SOL_SOCKET, SO_KEEPALIVE, true, false},
    {ZVX_SOL_SOCKET, ZVX_SO_DONTROUTE, SOL_SOCKET, SO_DONTROUTE, true, false},
    {ZVX_SOL_SOCKET, ZVX_SO_BROADCAST, SOL_SOCKET, SO_BROADCAST, true, false},
    {ZVX_SOL_SOCKET, ZVX_SO_OOBINLINE, SOL_SOCKET, SO_OOBINLINE, true, false},
    {ZVX_SOL_SOCKET, ZVX_SO_SNDBUF, SOL_SOCKET, SO_SNDBUF, false, false},
    {ZVX_SOL_SOCKET, ZVX_SO_RCVBUF, SOL_SOCKET, SO_RCVBUF, false, false},
    {ZVX_SOL_SOCKET, ZVX_SO_TYPE, SOL_SOCKET, SO_TYPE, false, true},
    {kTcp, ZVX_TCP_NODELAY, IPPROTO_TCP, TCP_NODELAY, true, false},
    {kTcp, ZVX_TCP_KEEPALIVE, IPPROTO_TCP, TCP_KEEPIDLE, false, false},
    {kTcp, ZVX_TCP_KEEPCNT, IPPROTO_TCP, TCP_KEEPCNT, false, false},
    {kTcp, ZVX_TCP_KEEPINTVL, IPPROTO_TCP, TCP_KEEPINTVL, false, false},
};

const PlainOption *FindPlain(int level, int name) {
    for (const PlainOption &option : kPlain)
        if (option.Level == level && option.Name == name) return &option;
    return nullptr;
}

DWORD SetKernel(SocketObject *socket, int level, int name, const void *value, socklen_t length) {
    if (const DWORD error = NeedDescriptor(socket)) return error;
    return syscall(SYS_setsockopt, socket->Fd, level, name, value, length) == 0 ? 0 : SocketErrorOfErrno(errno);
}

DWORD GetKernel(SocketObject *socket, int level, int name, void *value, socklen_t length) {
    if (const DWORD error = NeedDescriptor(socket)) return error;
    return syscall(SYS_getsockopt, socket->Fd, level, name, value, &length) == 0 ? 0 : SocketErrorOfErrno(errno);
}

DWORD SetInt(SocketObject *socket, int level, int name, int value) {
    return SetKernel(socket, level, name, &value, sizeof value);
}

DWORD GetInt(SocketObject *socket, int level, int name, int *value) {
    return GetKernel(socket, level, name, value, sizeof *value);
}

// A number of the host: BOOLs may be one byte long.
DWORD TakeInt(const char *value, int length, int *number) {
    if (value == nullptr || length < 1) return WSAEFAULT;
    *number = *value;
    if (length >= 4)
        memcpy(number, value, 4);
    else if (length != 1)
        return WSAEFAULT;
    return 0;
}

DWORD GiveInt(int number, char *value, int *length) {
    if (*length < 1) return WSAEFAULT;
    if (*length >= 4) {
        memcpy(value, &number, 4);
        *length = 4;
    } else {
        *value = static_cast<char>(number);
        *length = 1;
    }
    return 0;
}

DWORD SetLinger(SocketObject *socket, bool on, int seconds) {
    const linger wanted{on ? 1 : 0, seconds};
    return SetKernel(socket, SOL_SOCKET, SO_LINGER, &wanted, sizeof wanted);
}

DWORD SetTimeout(SocketObject *socket, bool receive, DWORD ms) {
    timeval limit{};
    if (ms != INFINITE) limit = {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    const DWORD error = SetKernel(socket, SOL_SOCKET, receive ? SO_RCVTIMEO : SO_SNDTIMEO, &limit, sizeof limit);
    if (error == 0) (receive ? socket->ReceiveTimeout : socket->SendTimeout).store(ms == INFINITE ? 0 : ms);
    return error;
}

// The value names the listening socket that the connection came from.
DWORD UpdateAcceptContext(SocketObject *socket, const char *value, int length) {
    if (value == nullptr || (length != 4 && length != 8)) return WSAEFAULT;
    uint64_t s = 0;
    memcpy(&s, value, static_cast<size_t>(length));
    SocketObject *listener = RefSocket(s);
    if (listener == nullptr) return WSAENOTSOCK;
    const bool listening = IsListening(listener);
    UnrefObject(listener);
    if (!listening) return WSAEINVAL;
    return IsConnected(socket) ? 0 : WSAENOTCONN;
}

DWORD SetSocketOption(SocketObject *socket, int name, const char *value, int length) {
    int number = 0;
    if (name == ZVX_SO_LINGER) {
        zvx_linger wanted;
        if (value == nullptr || length < static_cast<int>(sizeof wanted)) return WSAEFAULT;
        memcpy(&wanted, value, sizeof wanted);
        return SetLinger(socket, wanted.l_onoff != 0, wanted.l_linger);
    }
    if (name == ZVX_SO_UPDATE_ACCEPT_CONTEXT) return UpdateAcceptContext(socket, value, length);
    if (name == ZVX_SO_UPDATE_CONNECT_CONTEXT) return IsConnected(socket) ? 0 : WSAENOTCONN;
    if (const DWORD error = TakeInt(value, length, &number)) return error;
    switch (name) {
        case ZVX_SO_REUSEADDR:
            if (number != 0 && (FlagsOf(socket) & kSocketExclusive) != 0) return WSAEINVAL;
            return SetInt(socket, SOL_SOCKET, SO_REUSEADDR, number != 0);
        case ZVX_SO_EXCLUSIVEADDRUSE: {
            // The kernel's default; SO_REUSEADDR is what would loosen it.
            int reuse = 0;
            if (const DWORD error = GetInt(socket, SOL_SOCKET, SO_REUSEADDR, &reuse)) return error;
            if (number != 0 && reuse != 0) return WSAEINVAL;
            if (number != 0)
                AddFlags(socket, kSocketExclusive);
            else
                socket->Flags.fetch_and(~kSocketExclusive, std::memory_order_relaxed);
            return 0;
        }
        case ZVX_SO_DONTLINGER: return SetLinger(socket, number == 0, 0);
        case ZVX_SO_RCVTIMEO:
        case ZVX_SO_SNDTIMEO: return SetTimeout(socket, name == ZVX_SO_RCVTIMEO, static_cast<DWORD>(number));
        default: return WSAENOPROTOOPT;
    }
}

DWORD GetSocketOption(SocketObject *socket, int name, char *value, int *length) {
    int number = 0;
    DWORD error = 0;
    linger lingering{};
    switch (name) {
        case ZVX_SO_LINGER: {
            if (*length < static_cast<int>(sizeof(zvx_linger))) return WSAEFAULT;
            error = GetKernel(socket, SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering);
            if (error != 0) return error;
            const zvx_linger answer{static_cast<WORD>(lingering.l_onoff), static_cast<WORD>(lingering.l_linger)};
            memcpy(value, &answer, sizeof answer);
            *length = sizeof answer;
            return 0;
        }
        case ZVX_SO_DONTLINGER:
            error = GetKernel(socket, SOL_SOCKET, SO_LINGER, &lingering, sizeof lingering);
            number = lingering.l_onoff == 0;
            break;
        case ZVX_SO_REUSEADDR: error = GetInt(socket, SOL_SOCKET, SO_REUSEADDR, &number); break;
        case ZVX_SO_EXCLUSIVEADDRUSE: number = (FlagsOf(socket) & kSocketExclusive) != 0; break;
        case ZVX_SO_RCVTIMEO:
        case ZVX_SO_SNDTIMEO:
            // A duplicate without a descriptor of its own would not hear of what was set meanwhile.
            if ((FlagsOf(socket) & kSocketDuplicate) != 0) error = NeedDescriptor(socket);
            if (error == 0) number = static_cast<int>(TimeoutOf(socket, name == ZVX_SO_RCVTIMEO));
            break;
        case ZVX_SO_ERROR:
            if (socket->State.load(std::memory_order_acquire) != SocketState::kReady) break;
            error = GetInt(socket, SOL_SOCKET, SO_ERROR, &number);
            if (number == ECONNRESET) AddFlags(socket, kSocketReset);
            number = number == 0 ? 0 : static_cast<int>(SocketErrorOfErrno(number));
            break;
        default: return WSAENOPROTOOPT;
    }
    return error != 0 ? error : GiveInt(number, value, length);
}

DWORD SetNonBlocking(SocketObject *socket, bool on) {
    if (!on && socket->Events.load(std::memory_order_relaxed) != nullptr) return WSAEINVAL;
    // First the wish, then the look at the descriptor; MakeDescriptor does it the other way round.
    socket->NonBlocking.store(on, std::memory_order_seq_cst);
    if (socket->State.load(std::memory_order_seq_cst) == SocketState::kReady) ApplyMode(socket);
    return 0;
}

DWORD Control(SocketObject *socket, DWORD code, ULONG *argument) {
    if (argument == nullptr) return WSAEFAULT;
    if (code == ZVX_FIONBIO) return SetNonBlocking(socket, *argument != 0);
    if (code != ZVX_FIONREAD && code != ZVX_SIOCATMARK) return WSAEOPNOTSUPP;
    int number = 0;
    if (const DWORD error = NeedDescriptor(socket)) return error;
    if (ioctl(socket->Fd, code == ZVX_FIONREAD ? FIONREAD : SIOCATMARK, &number) != 0) return SocketErrorOfErrno(errno);
    // The host's question is whether everything urgent has been read.
    *argument = static_cast<ULONG>(number);
    return 0;
}

DWORD SetKeepAlive(SocketObject *socket, const tcp_keepalive &wanted) {
    DWORD error = SetInt(socket, SOL_SOCKET, SO_KEEPALIVE, wanted.onoff != 0);
    if (error != 0 || wanted.onoff == 0) return error;
    // Whole seconds, at least one.
    auto seconds = [](ULONG ms) { return static_cast<int>(ms < 1000 ? 1 : ms / 1000); };
    error = SetInt(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds(wanted.keepalivetime));
    return error != 0 ? error : SetInt(socket, IPPROTO_TCP, TCP_KEEPINTVL, seconds(wanted.keepaliveinterval));
}

DWORD ControlBuffers(SocketObject *socket, DWORD code, void *in, DWORD inLength, void *out, DWORD outLength,
                     DWORD *returned) {
    ULONG number = 0;
    switch (code) {
        case ZVX_FIONBIO:
            if (in == nullptr || inLength < sizeof number) return WSAEFAULT;
            memcpy(&number, in, sizeof number);
            return Control(socket, code, &number);
        case ZVX_FIONREAD:
        case ZVX_SIOCATMARK: {
            if (out == nullptr || outLength < sizeof number) return WSAEFAULT;
            const DWORD error = Control(socket, code, &number);
            if (error != 0) return error;
            memcpy(out, &number, sizeof number);
            *returned = sizeof number;
            return 0;
        }
        case SIO_KEEPALIVE_VALS: {
            tcp_keepalive wanted;
            if (in == nullptr || inLength < sizeof wanted) return WSAEFAULT;
            memcpy(&wanted, in, sizeof wanted);
            return SetKeepAlive(socket, wanted);
        }
        default: return WSAEOPNOTSUPP;
    }
}

}  // namespace

int setsockopt(SOCKET s, int level, int name, const char *value, int length) {
    if (ShouldFail("setsockopt")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    const PlainOption *plain = FindPlain(level, name);
    if (plain == nullptr)
        return Report(socket, level == ZVX_SOL_SOCKET ? SetSocketOption(socket, name, value, length) : WSAENOPROTOOPT);
    int number = 0;
    DWORD error = plain->ReadOnly ? WSAENOPROTOOPT : TakeInt(value, length, &number);
    if (plain->Flag) number = number != 0;
    if (error == 0 && plain->KernelLevel >= 0) error = SetInt(socket, plain->KernelLevel, plain->KernelName, number);
    return Report(socket, error);
}

int getsockopt(SOCKET s, int level, int name, char *value, int *length) {
    if (ShouldFail("getsockopt")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    if (value == nullptr || length == nullptr) return Report(socket, WSAEFAULT);
    const PlainOption *plain = FindPlain(level, name);
    if (plain == nullptr)
        return Report(socket, level == ZVX_SOL_SOCKET ? GetSocketOption(socket, name, value, length) : WSAENOPROTOOPT);
    int number = 0;
    DWORD error = plain->KernelLevel < 0 ? 0 : GetInt(socket, plain->KernelLevel, plain->KernelName, &number);
    if (error == 0) error = GiveInt(plain->Flag ? number != 0 : number, value, length);
    return Report(socket, error);
}

int ioctlsocket(SOCKET s, LONG command, ULONG *argument) {
    if (ShouldFail("ioctlsocket")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    return socket == nullptr ? SOCKET_ERROR : Report(socket, Control(socket, static_cast<DWORD>(command), argument));
}

int WSAIoctl(SOCKET s, DWORD code, void *in, DWORD inLength, void *out, DWORD outLength, DWORD *returned,
             OVERLAPPED *overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (ShouldFail("WSAIoctl")) return SOCKET_ERROR;
    SocketObject *socket = RefSocket(s);
    if (socket == nullptr) return SOCKET_ERROR;
    DWORD bytes = 0;
    IoCall call;
    call.Target = socket;
    call.Ov = overlapped;
    DWORD error = 0;
    if (overlapped != nullptr && routine == nullptr && !TakeEvent(&call)) error = WSA_INVALID_HANDLE;
    if (error == 0 && overlapped != nullptr && routine != nullptr) {
        call.Routine = NewEndRoutine(routine, overlapped);
        if (call.Routine == nullptr) error = WSAENOBUFS;
    }
    if (error == 0) error = ControlBuffers(socket, code, in, inLength, out, outLength, &bytes);
    if (error == 0 && returned != nullptr) *returned = bytes;
    if (error == 0 && overlapped != nullptr) {
        call.Done = bytes;
        FinishAtOnce(CurrentEngine(), &call);
        return 0;
    }
    DropCall(&call);
    return error == 0 ? 0 : FailSocket(error);
}

}  // namespace os
