// net/net.h - the exported socket functions, and what their files share.
//
// Every socket that a user thread makes is an overlapped socket with an entry in the handle table, whatever the host
// asked for. Sending, receiving and accepting on it is an overlapped operation that parks only the calling user
// thread; its scheduler runs others meanwhile. Calls on a socket without an entry, and calls of threads that are no
// user threads, are the operating system's own. What the library leaves as it is (options, WSAIoctl and the like) has
// no function here: the exports name the operating system's.
#ifndef ZVX_NET_NET_H
#define ZVX_NET_NET_H

#include "kernel/handles.h"
#include "platform/os_socket.h"
#include "sched/records.h"

namespace zvx {

// FIBEROVERLAPPED.OpArg.
enum SocketOpCode : uint32_t { OP_RECEIVE = 0, OP_SEND = 1, OP_ACCEPT = 2 };

inline HANDLE SocketHandle(SOCKET s) {
    return reinterpret_cast<HANDLE>(s);
}

// The entry of a wrapped socket; null for any other handle. Readable until the calling user thread yields.
inline PSEHAND *LookUpSocket(SOCKET s) {
    PSEHAND *entry = LookUpHandle(s);
    if (entry == nullptr) return nullptr;
    return entry->Type == PHAND_HTYPE_WSASocket || entry->Type == PHAND_HTYPE_socket ? entry : nullptr;
}

// Binds the socket to the port of S, the calling user thread's scheduler, unless it is bound to some port already or
// everything is polled. False with the reason as last error; the next call tries again.
bool AttachSocketToPort(Scheduler *S, PSEHAND *entry, SOCKET s);
// Prepares the one of F's three embedded records that is free now, and points F->CurOv at it. With `neverPoll` a
// packet is expected wherever one can come.
FIBEROVERLAPPED *PrepareSocketOv(Fiber *F, PSEHAND *entry, uint32_t opArg, bool neverPoll);
// A record for an operation with a completion routine; counted in F->PendingApcIos.
FIBEROVERLAPPED *AllocSocketOv(Fiber *F, PSEHAND *entry, uint32_t opArg);

// Exported: the public header says what each does. wrap.cpp; neither blocks nor yields but for WSAAccept, which blocks
// every user thread of the scheduler.
SOCKET WSASocketA(int family, int type, int protocol, WSAPROTOCOL_INFOA *info, DWORD group, DWORD flags);
SOCKET socket(int family, int type, int protocol);
SOCKET WSAAccept(SOCKET s, sockaddr *address, int *length, LPCONDITIONPROC condition, DWORD_PTR callbackData);
// The operating system's, which block every user thread of the scheduler.
int connect(SOCKET s, const sockaddr *name, int length);
int WSAConnect(SOCKET s, const sockaddr *name, int length, WSABUF *callerData, WSABUF *calleeData, QOS *sqos,
               QOS *gqos);
int closesocket(SOCKET s);
// Ends the process: datagrams are not supported, in any mode. The name is that of the function that was called.
[[noreturn]] int RefuseDatagram(const char *name);

// transfer.cpp: may yield.
int WSARecv(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int WSASend(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD flags, OVERLAPPED *overlapped,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
int recv(SOCKET s, char *buffer, int length, int flags);
int send(SOCKET s, const char *buffer, int length, int flags);
BOOL WSAGetOverlappedResult(SOCKET s, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait, DWORD *flags);

// accept.cpp: yields until a client has connected.
SOCKET accept(SOCKET s, sockaddr *address, int *length);

// select.cpp: the first two may yield. Events are taken with and without their low bit.
int select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const os::TimeVal *timeout);
DWORD WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms, BOOL alertable);
BOOL WSACloseEvent(WSAEVENT event);
BOOL WSASetEvent(WSAEVENT event);
BOOL WSAResetEvent(WSAEVENT event);
int WSAEventSelect(SOCKET s, WSAEVENT event, LONG events);
int WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, WSANETWORKEVENTS *result);

}  // namespace zvx

#endif  // ZVX_NET_NET_H
