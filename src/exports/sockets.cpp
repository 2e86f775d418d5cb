// exports/sockets.cpp - the socket functions that leave the library, under the operating system's names.
//
// Each calls the function of the same name in zvx, or in os where the library leaves it as it is, and does nothing
// else.
//
// Some of the names are the C library's as well. Their definitions have the plain name as assembler name only, so that
// no declaration of the C library clashes, and an alias zvx_... in the private node, which the public header calls: a
// sanitizer that intercepts `send` in the host's program never sees it. The library itself calls none of these names.
#define ZVXKVT_NO_PLAIN_SOCKET_NAMES
#include "zvxkvt/sockets.h"

#include "net/net.h"

static_assert(sizeof(zvx_fd_set) == offsetof(zvx_fd_set, fd_array) + ZVX_FD_SETSIZE * sizeof(SOCKET));

// name: what the C library calls it. The body is that of the definition.
#define ZVX_SHARED_NAME(Result, name, Parameters, Arguments, target) \
    ZVXKVT_API Result WINAPI ZvxExport_##name Parameters asm(#name); \
    Result WINAPI ZvxExport_##name Parameters {                      \
        return target Arguments;                                     \
    }                                                                \
    ZVXKVT_API Result WINAPI zvx_##name Parameters __attribute__((alias(#name)));

namespace {

// The C library's structure and the platform's have the same fields; which is what, only this file knows.
int Select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const struct timeval *timeout) {
    if (timeout == nullptr) return zvx::select(ignored, read, write, error, nullptr);
    const os::TimeVal copy{timeout->tv_sec, timeout->tv_usec};
    return zvx::select(ignored, read, write, error, &copy);
}

}  // namespace

extern "C" {

// ---- Names of the C library, replaced: ZVXKVT_3.1 ----------------------------------------------------

ZVX_SHARED_NAME(SOCKET, socket, (int family, int type, int protocol), (family, type, protocol), zvx::socket)
ZVX_SHARED_NAME(SOCKET, accept, (SOCKET s, struct sockaddr *address, int *length), (s, address, length), zvx::accept)
ZVX_SHARED_NAME(int, connect, (SOCKET s, const struct sockaddr *name, int length), (s, name, length), zvx::connect)
ZVX_SHARED_NAME(int, recv, (SOCKET s, char *buffer, int length, int flags), (s, buffer, length, flags), zvx::recv)
ZVX_SHARED_NAME(int, send, (SOCKET s, const char *buffer, int length, int flags), (s, buffer, length, flags), zvx::send)
ZVX_SHARED_NAME(int, select,
                (int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const struct timeval *timeout),
                (ignored, read, write, error, timeout), Select)
ZVX_SHARED_NAME(int, setsockopt, (SOCKET s, int level, int name, const char *value, int length),
                (s, level, name, value, length), os::setsockopt)
ZVX_SHARED_NAME(int, sendto, (SOCKET, const char *, int, int, const struct sockaddr *, int), ("sendto"),
                zvx::RefuseDatagram)
ZVX_SHARED_NAME(int, recvfrom, (SOCKET, char *, int, int, struct sockaddr *, int *), ("recvfrom"), zvx::RefuseDatagram)

// ---- Names of the C library, the operating system's: ZVXKVT_OS ---------------------------------------

ZVX_SHARED_NAME(int, bind, (SOCKET s, const struct sockaddr *name, int length), (s, name, length), os::bind)
ZVX_SHARED_NAME(int, listen, (SOCKET s, int backlog), (s, backlog), os::listen)
ZVX_SHARED_NAME(int, shutdown, (SOCKET s, int how), (s, how), os::shutdown)
ZVX_SHARED_NAME(int, getsockname, (SOCKET s, struct sockaddr *name, int *length), (s, name, length), os::getsockname)
ZVX_SHARED_NAME(int, getpeername, (SOCKET s, struct sockaddr *name, int *length), (s, name, length), os::getpeername)
ZVX_SHARED_NAME(int, getsockopt, (SOCKET s, int level, int name, char *value, int *length),
                (s, level, name, value, length), os::getsockopt)

// ---- ZVXKVT_3.1: sockets -----------------------------------------------------------------------------

int WSAStartup(WORD version, LPWSADATA data) {
    return os::WSAStartup(version, data);
}
int WSACleanup(void) {
    return os::WSACleanup();
}
int WSAGetLastError(void) {
    return static_cast<int>(os::GetLastError());
}
void WSASetLastError(int error) {
    os::SetLastError(static_cast<DWORD>(error));
}
SOCKET WSASocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group, DWORD flags) {
    return zvx::WSASocketA(family, type, protocol, info, group, flags);
}
int closesocket(SOCKET s) {
    return zvx::closesocket(s);
}
int WSADuplicateSocketA(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOA info) {
    return os::WSADuplicateSocketA(s, processId, info);
}
SOCKET WSAAccept(SOCKET s, struct sockaddr *address, int *length, LPCONDITIONPROC condition, DWORD_PTR callbackData) {
    return zvx::WSAAccept(s, address, length, condition, callbackData);
}
int WSAConnect(SOCKET s, const struct sockaddr *name, int length, LPWSABUF callerData, LPWSABUF calleeData, LPQOS sqos,
               LPQOS gqos) {
    return zvx::WSAConnect(s, name, length, callerData, calleeData, sqos, gqos);
}
int ioctlsocket(SOCKET s, LONG command, ULONG *argument) {
    return os::ioctlsocket(s, command, argument);
}
int WSAIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength, LPDWORD returned,
             LPOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    return os::WSAIoctl(s, code, in, inLength, out, outLength, returned, overlapped, routine);
}
int WSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags, LPOVERLAPPED overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    return zvx::WSARecv(s, buffers, count, bytes, flags, overlapped, routine);
}
int WSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, DWORD flags, LPOVERLAPPED overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    return zvx::WSASend(s, buffers, count, bytes, flags, overlapped, routine);
}
int WSARecvFrom(SOCKET, LPWSABUF, DWORD, LPDWORD, LPDWORD, struct sockaddr *, int *, LPOVERLAPPED,
                LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    return zvx::RefuseDatagram("WSARecvFrom");
}
int WSASendTo(SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, const struct sockaddr *, int, LPOVERLAPPED,
              LPWSAOVERLAPPED_COMPLETION_ROUTINE) {
    return zvx::RefuseDatagram("WSASendTo");
}
BOOL WSAGetOverlappedResult(SOCKET s, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait, LPDWORD flags) {
    return zvx::WSAGetOverlappedResult(s, overlapped, bytes, wait, flags);
}
WSAEVENT WSACreateEvent(void) {
    return os::WSACreateEvent();
}
BOOL WSACloseEvent(WSAEVENT event) {
    return zvx::WSACloseEvent(event);
}
BOOL WSAResetEvent(WSAEVENT event) {
    return zvx::WSAResetEvent(event);
}
int WSAEventSelect(SOCKET s, WSAEVENT event, LONG events) {
    return zvx::WSAEventSelect(s, event, events);
}
int WSAAsyncSelect(SOCKET s, HANDLE window, DWORD message, LONG events) {
    return os::WSAAsyncSelect(s, window, message, events);
}
int WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS result) {
    return zvx::WSAEnumNetworkEvents(s, event, result);
}
DWORD WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms, BOOL alertable) {
    return zvx::WSAWaitForMultipleEvents(count, events, waitAll, ms, alertable);
}

// ---- ZVXKVT_OS ---------------------------------------------------------------------------------------

BOOL WSASetEvent(WSAEVENT event) {
    return zvx::WSASetEvent(event);
}

}  // extern "C"
