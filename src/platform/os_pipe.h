// platform/os_pipe.h - the contract of the operating system's named pipes; goes with os.h.
//
// A pipe has a name of the form \\.\pipe\NAME: at most 256 bytes in all (ERROR_FILENAME_EXCED_RANGE), no further
// backslash (ERROR_INVALID_NAME), upper and lower case of ASCII letters the same. It exists while one of its instances
// does, in this process or another one; what a killed process leaves is nobody's and taken over. A name belongs to the
// user who made it and is seen by nobody else, unless the first instance was made with a null access-control list:
// then everybody may connect. ERROR_ACCESS_DENIED where the name is somebody else's.
//
// An instance listens from its creation on and takes one client, also before ConnectNamedPipe is called. Both ends are
// files in every other respect: CreateFile opens the client's end, and ReadFile, WriteFile, CloseHandle,
// DuplicateHandle, CancelIo, GetOverlappedResult and CreateIoCompletionPort take both. An overlapped operation needs a
// handle made with FILE_FLAG_OVERLAPPED, and such a handle takes no other; InlineBudget as in os.h.
//
// A write ends when the system has taken everything. In a pipe of messages a write is one message of any length, 0
// included, and messages of several writers are never mixed. A read in message mode whose buffer is too small brings
// the beginning: FALSE with ERROR_MORE_DATA and the count, at once (then no packet is queued and no event set) or by
// GetOverlappedResult; the rest is the next read's. A write of a message that is cancelled half-way breaks the
// connection for its reader.
//
// Errors of reads and writes: ERROR_PIPE_LISTENING before a client has come, ERROR_BROKEN_PIPE (reads, once everything
// was read) and ERROR_NO_DATA (writes) when the other end is closed, ERROR_PIPE_NOT_CONNECTED after
// DisconnectNamedPipe, ERROR_OPERATION_ABORTED when cancelled or when the last handle was closed.
#ifndef ZVX_PLATFORM_OS_PIPE_H
#define ZVX_PLATFORM_OS_PIPE_H

#include "platform/os.h"
#include "zvxkvt/pipetypes.h"

namespace os {

// A further instance must have the same directions, type and number of instances as the first one
// (ERROR_ACCESS_DENIED), and may not ask to be the first. ERROR_PIPE_BUSY when there are `maxInstances` (1 to 254; 255:
// no limit) already. Buffer sizes have no effect. PIPE_NOWAIT is refused with ERROR_NOT_SUPPORTED. INVALID_HANDLE_VALUE
// on failure. Touches the file system.
HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security);
HANDLE CreateNamedPipeW(const WCHAR *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security);
// Waits for a client; overlapped, as ReadFile. ERROR_PIPE_CONNECTED when there is one already, ERROR_NO_DATA when it
// has come and gone, ERROR_PIPE_LISTENING while another call waits, ERROR_INVALID_FUNCTION for a client's end. Blocks
// on a handle that is not overlapped.
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped, IoOp *op = nullptr);
// Ends the connection, after which ConnectNamedPipe listens again. Outstanding operations end with
// ERROR_PIPE_NOT_CONNECTED. The client can still read what was written to it.
BOOL DisconnectNamedPipe(HANDLE pipe);
// Waits until an instance listens and nobody has taken it; that is no reservation. ERROR_FILE_NOT_FOUND at once when
// there is no such pipe, ERROR_SEM_TIMEOUT when the time is over. Blocks, looking every few milliseconds.
BOOL WaitNamedPipeA(const char *name, DWORD ms);
BOOL WaitNamedPipeW(const WCHAR *name, DWORD ms);
// The read mode of this end; a client's end begins in byte mode. ERROR_INVALID_PARAMETER for message mode on a pipe of
// bytes, ERROR_NOT_SUPPORTED for PIPE_NOWAIT. The other two must be null.
BOOL SetNamedPipeHandleState(HANDLE pipe, DWORD *mode, DWORD *maxCollection, DWORD *collectMs);
// Copies what can be read now without taking it: of the first message only, in message mode. *available counts
// everything that waits, *left what of the first message does not fit. Any pointer may be null.
BOOL PeekNamedPipe(HANDLE pipe, void *buffer, DWORD bytes, DWORD *read, DWORD *available, DWORD *left);
// Writes a message and reads the next one. ERROR_BAD_PIPE unless this end is in message mode. Blocks until the request
// is taken; the reading is overlapped with an OVERLAPPED.
BOOL TransactNamedPipe(HANDLE pipe, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read,
                       OVERLAPPED *overlapped);
// Waits for an instance of a pipe of messages (`ms` as WaitNamedPipe, or NMPWAIT_NOWAIT), writes, reads the answer and
// closes. ERROR_INVALID_PARAMETER for a pipe of bytes, ERROR_MORE_DATA when the answer does not fit. Blocks; a thread
// that is ended meanwhile leaves nothing open.
BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms);
BOOL CallNamedPipeW(const WCHAR *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms);

}  // namespace os

#endif  // ZVX_PLATFORM_OS_PIPE_H
