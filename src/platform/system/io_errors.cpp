// platform/system/io_errors.cpp - how the kernel's errors appear to the host.
//
// One table leads from errno to the last-error value, a second one between last-error values and the statuses of
// OVERLAPPED.Internal. An error without a status of its own is carried inside one (facility 7), so that nothing is
// lost on the way through Internal. Runs on every thread, touches nothing.
#include <errno.h>

#include "platform/system/io_engine.h"

namespace os {

namespace {

struct StatusPair {
    DWORD Error;
    DWORD Status;
};

// Statuses that hosts compare with, and that debuggers know.
constexpr StatusPair kStatusPairs[] = {
    {ERROR_HANDLE_EOF, STATUS_END_OF_FILE},
    {ERROR_OPERATION_ABORTED, STATUS_CANCELLED},
    {ERROR_BROKEN_PIPE, kStatusBrokenPipe},
    {ERROR_MORE_DATA, STATUS_BUFFER_OVERFLOW},
    {ERROR_PIPE_NOT_CONNECTED, 0xC00000B0u},
    {ERROR_NO_DATA, 0xC00000B1u},
    {ERROR_PIPE_LISTENING, 0xC00000B3u},
    {ERROR_LOCK_VIOLATION, kStatusLockConflict},
    {ERROR_DISK_FULL, kStatusDiskFull},
    {ERROR_INVALID_HANDLE, kStatusInvalidHandle},
    {ERROR_NOACCESS, 0xC0000005u},
    {ERROR_INVALID_PARAMETER, 0xC000000Du},
    {ERROR_ACCESS_DENIED, 0xC0000022u},
    {ERROR_NOT_ENOUGH_MEMORY, 0xC0000017u},
    {ERROR_NO_SYSTEM_RESOURCES, 0xC000009Au},
    {kErrorIoDevice, 0xC0000185u},
};

constexpr DWORD kCarried = 0xC0070000u;  // a last-error value in the low 16 bits

}  // namespace

DWORD ErrorOfErrno(int error) {
    switch (error) {
        case 0: return ERROR_SUCCESS;
        case ENOENT: return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
        case ELOOP: return ERROR_PATH_NOT_FOUND;
        case EMFILE:
        case ENFILE: return ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EISDIR:
        case ETXTBSY: return ERROR_ACCESS_DENIED;
        case EBADF: return ERROR_INVALID_HANDLE;
        case ENOMEM: return ERROR_NOT_ENOUGH_MEMORY;
        case EXDEV: return kErrorNotSameDevice;
        case EROFS: return ERROR_WRITE_PROTECT;
        case ENXIO:
        case ENODEV: return ERROR_NOT_READY;
        case EOPNOTSUPP:
        case ENOSYS: return ERROR_NOT_SUPPORTED;
        case EEXIST: return ERROR_FILE_EXISTS;
        case EINVAL: return ERROR_INVALID_PARAMETER;
        case EPIPE: return ERROR_BROKEN_PIPE;
        case ENOSPC:
        case EDQUOT: return ERROR_DISK_FULL;
        case ESPIPE: return kErrorSeekOnDevice;
        case ENOTEMPTY: return ERROR_DIR_NOT_EMPTY;
        case EBUSY: return ERROR_BUSY;
        case ENAMETOOLONG: return ERROR_FILENAME_EXCED_RANGE;
        case EFBIG:
        case EOVERFLOW: return ERROR_FILE_TOO_LARGE;
        case ECANCELED: return ERROR_OPERATION_ABORTED;
        case EFAULT: return ERROR_NOACCESS;
        case EIO: return kErrorIoDevice;
        case EAGAIN:
        case ENOLCK:
        case ENOBUFS: return ERROR_NO_SYSTEM_RESOURCES;
        case ETIMEDOUT: return ERROR_TIMEOUT;
        default: return ERROR_GEN_FAILURE;
    }
}

DWORD SocketErrorOfErrno(int error) {
    switch (error) {
        case 0: return ERROR_SUCCESS;
        case EINTR: return WSAEINTR;
        case EBADF:
        case ENOTSOCK: return WSAENOTSOCK;
        case EACCES:
        case EPERM: return WSAEACCES;
        case EFAULT: return WSAEFAULT;
        case EMFILE:
        case ENFILE: return WSAEMFILE;
        case EAGAIN: return WSAEWOULDBLOCK;
        case EINPROGRESS: return WSAEINPROGRESS;
        case EALREADY: return WSAEALREADY;
        case EDESTADDRREQ: return WSAEDESTADDRREQ;
        case EMSGSIZE: return WSAEMSGSIZE;
        case EPROTOTYPE: return WSAEPROTOTYPE;
        case ENOPROTOOPT: return WSAENOPROTOOPT;
        case EPROTONOSUPPORT: return WSAEPROTONOSUPPORT;
        case ESOCKTNOSUPPORT: return WSAESOCKTNOSUPPORT;
        case EOPNOTSUPP: return WSAEOPNOTSUPP;
        case EPFNOSUPPORT: return WSAEPFNOSUPPORT;
        case EAFNOSUPPORT: return WSAEAFNOSUPPORT;
        case EADDRINUSE: return WSAEADDRINUSE;
        case EADDRNOTAVAIL: return WSAEADDRNOTAVAIL;
        case ENETDOWN: return WSAENETDOWN;
        case ENETUNREACH: return WSAENETUNREACH;
        case ENETRESET: return WSAENETRESET;
        case ECONNABORTED: return WSAECONNABORTED;
        case EPIPE:
        case ECONNRESET: return WSAECONNRESET;
        case ENOMEM:
        case ENOBUFS: return WSAENOBUFS;
        case EISCONN: return WSAEISCONN;
        case ENOTCONN: return WSAENOTCONN;
        case ESHUTDOWN: return WSAESHUTDOWN;
        case ETIMEDOUT: return WSAETIMEDOUT;
        case ECONNREFUSED: return WSAECONNREFUSED;
        case EHOSTDOWN: return WSAEHOSTDOWN;
        case EHOSTUNREACH: return WSAEHOSTUNREACH;
        case ECANCELED: return ERROR_OPERATION_ABORTED;
        default: return WSAEINVAL;
    }
}

DWORD StatusOfError(DWORD error) {
    if (error == ERROR_SUCCESS) return STATUS_SUCCESS;
    for (const StatusPair &pair : kStatusPairs)
        if (pair.Error == error) return pair.Status;
    return kCarried | (error & 0xFFFFu);
}

DWORD StatusOfErrno(int error) {
    return StatusOfError(ErrorOfErrno(error));
}

DWORD ErrorOfStatus(DWORD status) {
    if (!IsFailure(status)) return status == STATUS_PENDING ? ERROR_IO_INCOMPLETE : ERROR_SUCCESS;
    for (const StatusPair &pair : kStatusPairs)
        if (pair.Status == status) return pair.Error;
    if ((status & 0xFFFF0000u) == kCarried) return status & 0xFFFFu;
    return ERROR_GEN_FAILURE;
}

}  // namespace os
