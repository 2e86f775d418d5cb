// platform/os_socket.h - the contract of the operating system's sockets; goes with os.h.
//
// TCP over IPv4 (other stream families work as far as the kernel goes). A socket is an object behind a handle value:
// CloseHandle, DuplicateHandle, ReadFile, WriteFile, GetOverlappedResult and CreateIoCompletionPort take it too.
// Functions report SOCKET_ERROR (or INVALID_SOCKET), the reason a WSAE code in the last-error value, which is one with
// GetLastError. Options, flags and control codes have the values of zvxkvt/sockettypes.h.
//
// The kernel's socket behind a SOCKET is made when the first call needs it, so that an accept socket made for AcceptEx,
// or one made only to consume a duplication, costs no system call; AcceptEx gives the accepted connection to it.
//
// It is closed when the last handle is gone and the last operation has ended; a duplicate keeps the connection open. A
// thread that sleeps in a call on a socket whose last handle is closed, or has just begun one, returns with WSAEINTR
// (select: with the socket as ready, or WSAENOTSOCK), unless it has duplicates, or had some that were used; only a
// connect that meets the close before the kernel has begun it lasts until its own end. Nothing depends on WSAStartup.
// The first socket raises the soft limit of descriptors to the hard one.
#ifndef ZVX_PLATFORM_OS_SOCKET_H
#define ZVX_PLATFORM_OS_SOCKET_H

#include "platform/os.h"
#include "zvxkvt/sockettypes.h"

namespace os {

struct TimeVal {  // the C library's struct timeval
    long Seconds;
    long Microseconds;
};

// ---- Life --------------------------------------------------------------------------------------------

SOCKET socket(int family, int type, int protocol);  // overlapped-capable
// With `info` a second socket for the one that WSADuplicateSocketA described (also of another process of this user).
SOCKET WSASocketA(int family, int type, int protocol, WSAPROTOCOL_INFOA *info, DWORD group, DWORD flags);
int closesocket(SOCKET s);  // cancels what is outstanding, as CloseHandle does; WSAENOTSOCK for another object
// For one WSASocketA of that process, to which this one opens itself; the source must be open until then.
int WSADuplicateSocketA(SOCKET s, DWORD processId, WSAPROTOCOL_INFOA *info);
int WSAStartup(WORD version, WSADATA *data);  // 0, or the error itself
int WSACleanup();

// ---- Connections -------------------------------------------------------------------------------------

int bind(SOCKET s, const sockaddr *name, int length);
int listen(SOCKET s, int backlog);
SOCKET accept(SOCKET s, sockaddr *address, int *length);  // blocks unless FIONBIO
// CF_REJECT: the connection is reset, WSAECONNREFUSED. CF_DEFER: it is kept for the next accept, WSATRY_AGAIN.
SOCKET WSAAccept(SOCKET s, sockaddr *address, int *length, LPCONDITIONPROC condition, DWORD_PTR callbackData);
int connect(SOCKET s, const sockaddr *name, int length);  // blocks unless FIONBIO
int WSAConnect(SOCKET s, const sockaddr *name, int length, WSABUF *callerData, WSABUF *calleeData, QOS *sqos,
               QOS *gqos);
int shutdown(SOCKET s, int how);  // sends that the kernel has no room for yet fail with WSAESHUTDOWN
int getsockname(SOCKET s, sockaddr *name, int *length);
int getpeername(SOCKET s, sockaddr *name, int *length);
int setsockopt(SOCKET s, int level, int name, const char *value, int length);
int getsockopt(SOCKET s, int level, int name, char *value, int *length);
int ioctlsocket(SOCKET s, LONG command, ULONG *argument);
int WSAIoctl(SOCKET s, DWORD code, void *in, DWORD inLength, void *out, DWORD outLength, DWORD *returned,
             OVERLAPPED *overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

// Overlapped accept into `acceptSocket`, which must be fresh (no kernel socket yet, or one that was never bound and
// never had an operation; that one is closed), and which no other call may use until the operation has ended. Closing
// it cancels the operation; a connection that came meanwhile is closed. Only receiveLength 0; the buffer takes the two
// addresses, each localLength and remoteLength bytes (16 more than an address). TRUE at once, FALSE with 997, FALSE
// with the error. As for ReadFile in os.h.
BOOL AcceptEx(SOCKET listener, SOCKET acceptSocket, void *buffer, DWORD receiveLength, DWORD localLength,
              DWORD remoteLength, DWORD *received, OVERLAPPED *overlapped, IoOp *op = nullptr);
void GetAcceptExSockaddrs(void *buffer, DWORD receiveLength, DWORD localLength, DWORD remoteLength, sockaddr **local,
                          int *localSize, sockaddr **remote, int *remoteSize);

// ---- Transfers ---------------------------------------------------------------------------------------
//
// With an OVERLAPPED: 0 at once, SOCKET_ERROR with 997 when pending, SOCKET_ERROR with the error. Buffers and
// OVERLAPPED must live until the operation was reaped; the array of WSABUF need not outlive the call. Without one they
// block, or fail with WSAEWOULDBLOCK under FIONBIO. A send ends when everything was taken. A receive ends with what
// there is (MSG_WAITALL: everything, or the end). At the end of the connection a receive moves 0 bytes. A send or
// receive on a connection that was reset fails with WSAECONNRESET; no signal is ever raised. `routine` (alertable waits
// of a thread that is no fiber) excludes `op`. More than kMaxWsaBuffers buffers: WSAEINVAL. InlineBudget as in os.h.
constexpr DWORD kMaxWsaBuffers = 1024;
int WSARecv(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op = nullptr);
int WSASend(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op = nullptr);
int recv(SOCKET s, char *buffer, int length, int flags);        // blocks
int send(SOCKET s, const char *buffer, int length, int flags);  // blocks
int sendto(SOCKET s, const char *buffer, int length, int flags, const sockaddr *to, int toLength);
int recvfrom(SOCKET s, char *buffer, int length, int flags, sockaddr *from, int *fromLength);
// Result of an overlapped operation that has ended, or waits for it when `wait` (blocks); else FALSE with 996.
BOOL WSAGetOverlappedResult(SOCKET s, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait, DWORD *flags);

// ---- Readiness ---------------------------------------------------------------------------------------

// Rewrites the sets to the sockets that are ready. Null `timeout` blocks; 0 and 0 only looks. WSAEINVAL when all sets
// are null or empty, WSAENOTSOCK for a value that is no socket.
int select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const TimeVal *timeout);
WSAEVENT WSACreateEvent();  // manual reset, not set
BOOL WSACloseEvent(WSAEVENT event);
BOOL WSAResetEvent(WSAEVENT event);
BOOL WSASetEvent(WSAEVENT event);
// Records network events of the socket and signals the event for those in `events` (FD_ bits; 0 ends it); makes the
// socket non-blocking, as FIONBIO does. Level-triggered and re-enabled as the socket functions end.
int WSAEventSelect(SOCKET s, WSAEVENT event, LONG events);
int WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, WSANETWORKEVENTS *result);  // and resets `event` when not null
DWORD WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms, BOOL alertable);
int WSAAsyncSelect(SOCKET s, HANDLE window, DWORD message, LONG events);  // there are no windows: WSAEINVAL

}  // namespace os

#endif  // ZVX_PLATFORM_OS_SOCKET_H
