/* zvxkvt/sockets.h - the socket functions: those of the operating system that the library replaces, and the few that a
 * host needs besides. TCP over IPv4.
 *
 * Link with -lzvxkvt; usable from C and C++, before and after any header of the C library, which keeps its own
 * functions of these names for every module that was not linked against this library.
 *
 * Names. What the C library has too is declared here as zvx_send, zvx_recv and so on, and the plain names (functions,
 * options, flags, fd_set, linger) are macros for them. A source file that cannot live with these macros, because it
 * also uses std::bind or a class with a method `connect` that was compiled elsewhere, defines
 * ZVXKVT_NO_PLAIN_SOCKET_NAMES before the first include and writes the zvx_ and ZVX_ names. What differs nowhere
 * (sockaddr_in, htons, inet_addr, getaddrinfo, timeval) comes from the C library.
 *
 * A SOCKET is a handle value and no descriptor of the kernel: read, write, close, poll and fcntl do not take it;
 * CloseHandle and DuplicateHandle do. One that a user thread makes is entered in the library's table, and then send,
 * recv, WSASend, WSARecv and accept on it yield where the operating system's function would block (see zvxkvt.h on
 * "yields" and "blocks"). On any other socket, and on a thread that is no user thread, every function is the operating
 * system's. A socket may be used by user threads of several schedulers.
 *
 * Results. SOCKET_ERROR, or INVALID_SOCKET where a SOCKET is returned, is a failure, with a WSAE code in
 * WSAGetLastError, which is one value with GetLastError; each user thread has its own. A connection that the other side
 * reset gives WSAECONNRESET; no signal is ever raised. Every function may be called from any thread; one of which
 * neither yielding nor blocking is said does neither.
 */
#ifndef ZVXKVT_SOCKETS_H
#define ZVXKVT_SOCKETS_H

/* All that declares one of the names below, so that an include that follows finds it done. */
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>
#ifdef __cplusplus
#include <cstdlib>
#include <functional>
#endif

#include "zvxkvt/sockettypes.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ZVXKVT_API
#define ZVXKVT_API __attribute__((visibility("default")))
#endif

/* ---- Start and last error ---------------------------------------------------------------------------- */

/* Accepted for the sake of older hosts: 0, or the error itself (WSAVERNOTSUPPORTED). Nothing depends on it. */
ZVXKVT_API int WINAPI WSAStartup(WORD version, LPWSADATA data);
ZVXKVT_API int WINAPI WSACleanup(void);
ZVXKVT_API int WINAPI WSAGetLastError(void);
ZVXKVT_API void WINAPI WSASetLastError(int error);

/* ---- Making and closing ------------------------------------------------------------------------------ */

/* A socket; INVALID_SOCKET on failure. One made without WSA_FLAG_OVERLAPPED is for synchronous use: WSARecv and WSASend
 * on it return when the operation has ended, whatever OVERLAPPED or routine they are given. With the flag, and by
 * zvx_socket always, the caller may drive its own operations. `info` describes the socket of another process
 * (WSADuplicateSocketA); null for a new one. Neither blocks nor yields. */
ZVXKVT_API SOCKET WINAPI WSASocketA(int family, int type, int protocol, LPWSAPROTOCOL_INFOA info, GROUP group,
                                    DWORD flags);
ZVXKVT_API SOCKET WINAPI zvx_socket(int family, int type, int protocol);
/* 0. Operations that are outstanding on the socket end with WSA_OPERATION_ABORTED. Neither blocks nor yields. */
ZVXKVT_API int WINAPI closesocket(SOCKET s);
/* Fills `info` for one WSASocketA of the process `processId`. */
ZVXKVT_API int WINAPI WSADuplicateSocketA(SOCKET s, DWORD processId, LPWSAPROTOCOL_INFOA info);

/* ---- Connections ------------------------------------------------------------------------------------- */

ZVXKVT_API int WINAPI zvx_bind(SOCKET s, const struct sockaddr *name, int length);
ZVXKVT_API int WINAPI zvx_listen(SOCKET s, int backlog);

/* Yields until a client has connected, and returns its socket, which is of the listening socket's kind. `address` and
 * `length` (both may be null) receive the client's address; *length says how large the buffer is, 16 at most: a larger
 * one ends the process, and so does an address that does not fit. A thread that is terminated meanwhile leaves no
 * socket behind. IPv4 only. */
ZVXKVT_API SOCKET WINAPI zvx_accept(SOCKET s, struct sockaddr *address, int *length);
/* The same with a condition function that is asked first. Blocks. */
ZVXKVT_API SOCKET WINAPI WSAAccept(SOCKET s, struct sockaddr *address, int *length, LPCONDITIONPROC condition,
                                   DWORD_PTR callbackData);

/* 0 when connected. Blocks, with every user thread of the scheduler, until the other side has answered; on a
 * non-blocking socket (FIONBIO, WSAEventSelect) returns SOCKET_ERROR with WSAEWOULDBLOCK, and select or
 * WSAWaitForMultipleEvents tells when it is done. */
ZVXKVT_API int WINAPI zvx_connect(SOCKET s, const struct sockaddr *name, int length);
ZVXKVT_API int WINAPI WSAConnect(SOCKET s, const struct sockaddr *name, int length, LPWSABUF callerData,
                                 LPWSABUF calleeData, LPQOS sqos, LPQOS gqos);
ZVXKVT_API int WINAPI zvx_shutdown(SOCKET s, int how); /* SD_RECEIVE, SD_SEND, SD_BOTH */
ZVXKVT_API int WINAPI zvx_getsockname(SOCKET s, struct sockaddr *name, int *length);
ZVXKVT_API int WINAPI zvx_getpeername(SOCKET s, struct sockaddr *name, int *length);

/* ---- Options ----------------------------------------------------------------------------------------- */

ZVXKVT_API int WINAPI zvx_setsockopt(SOCKET s, int level, int name, const char *value, int length);
ZVXKVT_API int WINAPI zvx_getsockopt(SOCKET s, int level, int name, char *value, int *length);
ZVXKVT_API int WINAPI ioctlsocket(SOCKET s, LONG command, ULONG *argument); /* FIONREAD, FIONBIO, SIOCATMARK */
ZVXKVT_API int WINAPI WSAIoctl(SOCKET s, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                               LPDWORD returned, LPOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

/* ---- Sending and receiving --------------------------------------------------------------------------- */

/* Bytes moved. zvx_send yields until all of it was taken, zvx_recv until there is something; 0 is the end of the
 * connection, or that the operation was cancelled. Flags: MSG_PEEK, MSG_OOB, MSG_WAITALL, MSG_DONTROUTE. A peek for 0
 * bytes fails with WSAEWOULDBLOCK at once. */
ZVXKVT_API int WINAPI zvx_send(SOCKET s, const char *buffer, int length, int flags);
ZVXKVT_API int WINAPI zvx_recv(SOCKET s, char *buffer, int length, int flags);

/* The same with several buffers, 1024 at most: 0, and the bytes in *bytes. Three ways:
 *   - neither OVERLAPPED nor routine, or a socket for synchronous use: yields until the operation has ended. A routine
 *     is then called before the return, hEvent signalled otherwise.
 *   - a routine: SOCKET_ERROR with WSA_IO_PENDING, even when it is done already; the routine runs on the calling user
 *     thread, in a later alertable wait of it and never before. Buffers and OVERLAPPED must stay valid until then.
 *   - an OVERLAPPED alone: SOCKET_ERROR with WSA_IO_PENDING while it runs; the caller waits for it itself. hEvent may
 *     get its low bit set; the functions of this library take it with and without that bit. */
ZVXKVT_API int WINAPI WSARecv(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags,
                              LPOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
ZVXKVT_API int WINAPI WSASend(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, DWORD flags,
                              LPOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

/* Result of an operation that the caller drives: TRUE, and the bytes in *bytes. With `wait` TRUE yields until it has
 * ended, looking every 10 milliseconds; without, FALSE with WSA_IO_INCOMPLETE while it runs. */
ZVXKVT_API BOOL WINAPI WSAGetOverlappedResult(SOCKET s, LPOVERLAPPED overlapped, LPDWORD bytes, BOOL wait,
                                              LPDWORD flags);

/* Datagrams are not supported: each of these ends the process with a message, whatever its arguments. */
ZVXKVT_API int WINAPI zvx_sendto(SOCKET s, const char *buffer, int length, int flags, const struct sockaddr *to,
                                 int toLength);
ZVXKVT_API int WINAPI zvx_recvfrom(SOCKET s, char *buffer, int length, int flags, struct sockaddr *from,
                                   int *fromLength);
ZVXKVT_API int WINAPI WSASendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, DWORD flags,
                                const struct sockaddr *to, int toLength, LPOVERLAPPED overlapped,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
ZVXKVT_API int WINAPI WSARecvFrom(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, LPDWORD flags,
                                  struct sockaddr *from, int *fromLength, LPOVERLAPPED overlapped,
                                  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);

/* ---- Readiness and events ---------------------------------------------------------------------------- */

/* How many sockets are ready; the sets (each may be null) keep those. 0 when the time was up, with empty sets. Without
 * a time-out it waits for good; with one of 0 it only looks. Yields between two looks: a scheduler with nothing else to
 * do looks every millisecond. A second of the time-out lasts 1024 milliseconds. `ignored` is not read. */
ZVXKVT_API int WINAPI zvx_select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error,
                                 const struct timeval *timeout);

/* A manual-reset event, not set; null on failure. SetEvent and WaitForSingleObject take it too. */
ZVXKVT_API WSAEVENT WINAPI WSACreateEvent(void);
ZVXKVT_API BOOL WINAPI WSACloseEvent(WSAEVENT event);
ZVXKVT_API BOOL WINAPI WSASetEvent(WSAEVENT event);
ZVXKVT_API BOOL WINAPI WSAResetEvent(WSAEVENT event);

/* Has the event signalled for the network events in `events` (FD_ bits; 0 ends it), and makes the socket
 * non-blocking. */
ZVXKVT_API int WINAPI WSAEventSelect(SOCKET s, WSAEVENT event, LONG events);
/* The network events since the last call, with an error for each; also resets `event`, which may be null. */
ZVXKVT_API int WINAPI WSAEnumNetworkEvents(SOCKET s, WSAEVENT event, LPWSANETWORKEVENTS result);
ZVXKVT_API int WINAPI WSAAsyncSelect(SOCKET s, HANDLE window, DWORD message, LONG events); /* WSAEINVAL: no windows */

/* Yields until one of 1 to 64 events is signalled (WSA_WAIT_EVENT_0 plus its index), or all of them with `waitAll`, or
 * `ms` milliseconds have passed (WSA_WAIT_TIMEOUT). When `alertable`, completion routines of the caller's own
 * operations run as these end, and the wait ends with WSA_WAIT_IO_COMPLETION. WSA_WAIT_FAILED with the reason. */
ZVXKVT_API DWORD WINAPI WSAWaitForMultipleEvents(DWORD count, const WSAEVENT *events, BOOL waitAll, DWORD ms,
                                                 BOOL alertable);

/* ---- Sets of sockets --------------------------------------------------------------------------------- */

static inline int zvx_fd_isset(SOCKET s, const zvx_fd_set *set) {
    DWORD i;
    for (i = 0; i < set->fd_count; i++)
        if (set->fd_array[i] == s) return 1;
    return 0;
}
/* A full set takes no more. */
static inline void zvx_fd_add(SOCKET s, zvx_fd_set *set) {
    if (set->fd_count < ZVX_FD_SETSIZE && !zvx_fd_isset(s, set)) set->fd_array[set->fd_count++] = s;
}
static inline void zvx_fd_clr(SOCKET s, zvx_fd_set *set) {
    DWORD from, to = 0;
    for (from = 0; from < set->fd_count; from++)
        if (set->fd_array[from] != s) set->fd_array[to++] = set->fd_array[from];
    set->fd_count = to;
}

#ifdef __cplusplus
} /* extern "C" */
#endif

/* ---- The plain names --------------------------------------------------------------------------------- */

#ifndef ZVXKVT_NO_PLAIN_SOCKET_NAMES

#undef accept
#define accept zvx_accept
#undef bind
#define bind zvx_bind
#undef connect
#define connect zvx_connect
#undef getpeername
#define getpeername zvx_getpeername
#undef getsockname
#define getsockname zvx_getsockname
#undef getsockopt
#define getsockopt zvx_getsockopt
#undef listen
#define listen zvx_listen
#undef recv
#define recv zvx_recv
#undef recvfrom
#define recvfrom zvx_recvfrom
#undef select
#define select zvx_select
#undef send
#define send zvx_send
#undef sendto
#define sendto zvx_sendto
#undef setsockopt
#define setsockopt zvx_setsockopt
#undef shutdown
#define shutdown zvx_shutdown
#undef socket
#define socket zvx_socket

#undef fd_set
#define fd_set zvx_fd_set
#undef FD_SETSIZE
#define FD_SETSIZE ZVX_FD_SETSIZE
#undef FD_ZERO
#define FD_ZERO(set) ((void)((set)->fd_count = 0))
#undef FD_SET
#define FD_SET(s, set) zvx_fd_add((s), (set))
#undef FD_CLR
#define FD_CLR(s, set) zvx_fd_clr((s), (set))
#undef FD_ISSET
#define FD_ISSET(s, set) zvx_fd_isset((s), (set))
#undef linger
#define linger zvx_linger

#undef MSG_OOB
#define MSG_OOB ZVX_MSG_OOB
#undef MSG_PEEK
#define MSG_PEEK ZVX_MSG_PEEK
#undef MSG_DONTROUTE
#define MSG_DONTROUTE ZVX_MSG_DONTROUTE
#undef MSG_WAITALL
#define MSG_WAITALL ZVX_MSG_WAITALL
#undef MSG_PARTIAL
#define MSG_PARTIAL ZVX_MSG_PARTIAL

#undef SOL_SOCKET
#define SOL_SOCKET ZVX_SOL_SOCKET
#undef SO_DEBUG
#define SO_DEBUG ZVX_SO_DEBUG
#undef SO_ACCEPTCONN
#define SO_ACCEPTCONN ZVX_SO_ACCEPTCONN
#undef SO_REUSEADDR
#define SO_REUSEADDR ZVX_SO_REUSEADDR
#undef SO_KEEPALIVE
#define SO_KEEPALIVE ZVX_SO_KEEPALIVE
#undef SO_DONTROUTE
#define SO_DONTROUTE ZVX_SO_DONTROUTE
#undef SO_BROADCAST
#define SO_BROADCAST ZVX_SO_BROADCAST
#undef SO_LINGER
#define SO_LINGER ZVX_SO_LINGER
#undef SO_OOBINLINE
#define SO_OOBINLINE ZVX_SO_OOBINLINE
#undef SO_DONTLINGER
#define SO_DONTLINGER ZVX_SO_DONTLINGER
#undef SO_EXCLUSIVEADDRUSE
#define SO_EXCLUSIVEADDRUSE ZVX_SO_EXCLUSIVEADDRUSE
#undef SO_SNDBUF
#define SO_SNDBUF ZVX_SO_SNDBUF
#undef SO_RCVBUF
#define SO_RCVBUF ZVX_SO_RCVBUF
#undef SO_SNDTIMEO
#define SO_SNDTIMEO ZVX_SO_SNDTIMEO
#undef SO_RCVTIMEO
#define SO_RCVTIMEO ZVX_SO_RCVTIMEO
#undef SO_ERROR
#define SO_ERROR ZVX_SO_ERROR
#undef SO_TYPE
#define SO_TYPE ZVX_SO_TYPE
#undef SO_UPDATE_ACCEPT_CONTEXT
#define SO_UPDATE_ACCEPT_CONTEXT ZVX_SO_UPDATE_ACCEPT_CONTEXT
#undef SO_UPDATE_CONNECT_CONTEXT
#define SO_UPDATE_CONNECT_CONTEXT ZVX_SO_UPDATE_CONNECT_CONTEXT
#undef TCP_NODELAY
#define TCP_NODELAY ZVX_TCP_NODELAY
#undef TCP_KEEPALIVE
#define TCP_KEEPALIVE ZVX_TCP_KEEPALIVE
#undef TCP_KEEPIDLE
#define TCP_KEEPIDLE ZVX_TCP_KEEPALIVE
#undef TCP_KEEPCNT
#define TCP_KEEPCNT ZVX_TCP_KEEPCNT
#undef TCP_KEEPINTVL
#define TCP_KEEPINTVL ZVX_TCP_KEEPINTVL

#undef FIONREAD
#define FIONREAD ((LONG)ZVX_FIONREAD)
#undef FIONBIO
#define FIONBIO ((LONG)ZVX_FIONBIO)
#undef SIOCATMARK
#define SIOCATMARK ((LONG)ZVX_SIOCATMARK)

#endif /* ZVXKVT_NO_PLAIN_SOCKET_NAMES */

#endif /* ZVXKVT_SOCKETS_H */
