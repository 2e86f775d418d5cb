/* zvxkvt/sockettypes.h - types and constants of the socket functions; zvxkvt/sockets.h has the functions.
 *
 * Usable from C and C++, before and after any header of the C library: constants that the C library has with other
 * values are spelt ZVX_ here, and sockets.h gives them their plain names. Addresses are the C library's sockaddr
 * structures, whose layout is the same.
 */
#ifndef ZVXKVT_SOCKETTYPES_H
#define ZVXKVT_SOCKETTYPES_H

#include "zvxkvt/ostypes.h"

#ifdef __cplusplus
extern "C" {
#endif

struct sockaddr;

typedef uintptr_t SOCKET; /* a handle value: CloseHandle and DuplicateHandle take it too */
typedef DWORD GROUP;
typedef HANDLE WSAEVENT; /* an event of CreateEventA serves as well */

#define INVALID_SOCKET (~(SOCKET)0)
#define SOCKET_ERROR (-1)
#define WSA_INVALID_EVENT ((WSAEVENT)0)

typedef struct _WSABUF {
    ULONG len;
    CHAR *buf;
} WSABUF, *LPWSABUF;

typedef OVERLAPPED WSAOVERLAPPED;
typedef LPOVERLAPPED LPWSAOVERLAPPED;

/* error: 0 or a WSAE code; bytes moved; the OVERLAPPED of the call; flags of the receive. */
typedef void(WINAPI *LPWSAOVERLAPPED_COMPLETION_ROUTINE)(DWORD error, DWORD bytes, LPOVERLAPPED overlapped,
                                                         DWORD flags);

#define WSAPROTOCOL_LEN 255
typedef struct _WSAPROTOCOL_INFOA {
    DWORD dwServiceFlags1;
    DWORD dwProviderFlags;
    int iVersion;
    int iAddressFamily;
    int iMaxSockAddr;
    int iMinSockAddr;
    int iSocketType;
    int iProtocol;
    DWORD dwProviderReserved; /* the socket that was duplicated; consumed by WSASocketA */
    DWORD dwReservedProcess;  /* its process */
    CHAR szProtocol[WSAPROTOCOL_LEN + 1];
} WSAPROTOCOL_INFOA, *LPWSAPROTOCOL_INFOA;

typedef struct _WSADATA {
    WORD wVersion;
    WORD wHighVersion;
    CHAR szDescription[257];
    CHAR szSystemStatus[129];
} WSADATA, *LPWSADATA;

typedef struct _ZVX_QUALITY_OF_SERVICE {
    DWORD Reserved[16];
} QOS, *LPQOS; /* never read */

#define CF_ACCEPT 0
#define CF_REJECT 1
#define CF_DEFER 2
/* Asked by WSAAccept whether a connection is wanted; the caller's address in callerId. */
typedef int(WINAPI *LPCONDITIONPROC)(LPWSABUF callerId, LPWSABUF callerData, LPQOS sqos, LPQOS gqos,
                                     LPWSABUF calleeId, LPWSABUF calleeData, GROUP *group, DWORD_PTR callbackData);

#define FD_MAX_EVENTS 10
typedef struct _WSANETWORKEVENTS {
    LONG lNetworkEvents;
    int iErrorCode[FD_MAX_EVENTS];
} WSANETWORKEVENTS, *LPWSANETWORKEVENTS;
#define FD_READ 0x01
#define FD_WRITE 0x02
#define FD_OOB 0x04
#define FD_ACCEPT 0x08
#define FD_CONNECT 0x10
#define FD_CLOSE 0x20
#define FD_READ_BIT 0
#define FD_WRITE_BIT 1
#define FD_OOB_BIT 2
#define FD_ACCEPT_BIT 3
#define FD_CONNECT_BIT 4
#define FD_CLOSE_BIT 5

/* A set of sockets for select: an array, not a mask. A host that needs larger sets defines ZVX_FD_SETSIZE before its
 * first include; the functions read fd_count elements whatever the size. */
#ifndef ZVX_FD_SETSIZE
#define ZVX_FD_SETSIZE 64
#endif
typedef struct zvx_fd_set {
    DWORD fd_count;
    SOCKET fd_array[ZVX_FD_SETSIZE];
} zvx_fd_set;

/* WSASocketA flags. */
#define WSA_FLAG_OVERLAPPED 0x01u

/* Flags of receives and sends. MSG_PEEK is 2 in the C library too. */
#define ZVX_MSG_OOB 0x1
#define ZVX_MSG_PEEK 0x2
#define ZVX_MSG_DONTROUTE 0x4
#define ZVX_MSG_WAITALL 0x8
#define ZVX_MSG_PARTIAL 0x8000

/* Options: levels and names. */
#define ZVX_SOL_SOCKET 0xFFFF
#define ZVX_SO_DEBUG 0x0001
#define ZVX_SO_ACCEPTCONN 0x0002
#define ZVX_SO_REUSEADDR 0x0004
#define ZVX_SO_KEEPALIVE 0x0008
#define ZVX_SO_DONTROUTE 0x0010
#define ZVX_SO_BROADCAST 0x0020
#define ZVX_SO_LINGER 0x0080 /* struct zvx_linger */
#define ZVX_SO_OOBINLINE 0x0100
#define ZVX_SO_DONTLINGER (~ZVX_SO_LINGER)
#define ZVX_SO_EXCLUSIVEADDRUSE (~ZVX_SO_REUSEADDR)
#define ZVX_SO_SNDBUF 0x1001
#define ZVX_SO_RCVBUF 0x1002
#define ZVX_SO_SNDTIMEO 0x1005 /* DWORD milliseconds; for calls that block the kernel thread */
#define ZVX_SO_RCVTIMEO 0x1006
#define ZVX_SO_ERROR 0x1007
#define ZVX_SO_TYPE 0x1008
#define ZVX_SO_UPDATE_ACCEPT_CONTEXT 0x700B
#define ZVX_SO_UPDATE_CONNECT_CONTEXT 0x7010
#define ZVX_TCP_NODELAY 0x0001
#define ZVX_TCP_KEEPALIVE 3  /* idle seconds before the first probe */
#define ZVX_TCP_KEEPCNT 16
#define ZVX_TCP_KEEPINTVL 17

struct zvx_linger {
    WORD l_onoff;
    WORD l_linger; /* seconds */
};

/* Control codes of ioctlsocket and WSAIoctl. */
#define ZVX_FIONREAD 0x4004667Fu
#define ZVX_FIONBIO 0x8004667Eu
#define ZVX_SIOCATMARK 0x40047307u
#define SIO_KEEPALIVE_VALS 0x98000004u
struct tcp_keepalive {
    ULONG onoff;
    ULONG keepalivetime;     /* milliseconds */
    ULONG keepaliveinterval; /* milliseconds */
};

/* shutdown. */
#define SD_RECEIVE 0
#define SD_SEND 1
#define SD_BOTH 2

/* Error codes. */
#define WSA_INVALID_HANDLE ERROR_INVALID_HANDLE
#define WSA_NOT_ENOUGH_MEMORY ERROR_NOT_ENOUGH_MEMORY
#define WSA_INVALID_PARAMETER ERROR_INVALID_PARAMETER
#define WSA_OPERATION_ABORTED ERROR_OPERATION_ABORTED
#define WSA_IO_INCOMPLETE ERROR_IO_INCOMPLETE
#define WSA_IO_PENDING ERROR_IO_PENDING
#define WSA_WAIT_FAILED WAIT_FAILED
#define WSA_WAIT_EVENT_0 WAIT_OBJECT_0
#define WSA_WAIT_IO_COMPLETION WAIT_IO_COMPLETION
#define WSA_WAIT_TIMEOUT WAIT_TIMEOUT
#define WSA_INFINITE INFINITE
#define WSA_MAXIMUM_WAIT_EVENTS MAXIMUM_WAIT_OBJECTS
#define WSAEINTR 10004u
#define WSAEBADF 10009u
#define WSAEACCES 10013u
#define WSAEFAULT 10014u
#define WSAEINVAL 10022u
#define WSAEMFILE 10024u
#define WSAEWOULDBLOCK 10035u
#define WSAEINPROGRESS 10036u
#define WSAEALREADY 10037u
#define WSAENOTSOCK 10038u
#define WSAEDESTADDRREQ 10039u
#define WSAEMSGSIZE 10040u
#define WSAEPROTOTYPE 10041u
#define WSAENOPROTOOPT 10042u
#define WSAEPROTONOSUPPORT 10043u
#define WSAESOCKTNOSUPPORT 10044u
#define WSAEOPNOTSUPP 10045u
#define WSAEPFNOSUPPORT 10046u
#define WSAEAFNOSUPPORT 10047u
#define WSAEADDRINUSE 10048u
#define WSAEADDRNOTAVAIL 10049u
#define WSAENETDOWN 10050u
#define WSAENETUNREACH 10051u
#define WSAENETRESET 10052u
#define WSAECONNABORTED 10053u
#define WSAECONNRESET 10054u
#define WSAENOBUFS 10055u
#define WSAEISCONN 10056u
#define WSAENOTCONN 10057u
#define WSAESHUTDOWN 10058u
#define WSAETIMEDOUT 10060u
#define WSAECONNREFUSED 10061u
#define WSAEHOSTDOWN 10064u
#define WSAEHOSTUNREACH 10065u
#define WSASYSNOTREADY 10091u
#define WSAVERNOTSUPPORTED 10092u
#define WSANOTINITIALISED 10093u
#define WSAEDISCON 10101u
#define WSATRY_AGAIN 11002u

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_SOCKETTYPES_H */
