/* zvxkvt/pipes.h - named pipes: the functions of the operating system that the library replaces, and those that a host
 * needs besides.
 *
 * Included by zvxkvt/zvxkvt.h, which says what "yields" and "blocks" mean. A pipe has a name of the form \\.\pipe\NAME:
 * at most 256 bytes in all, no further backslash, upper and lower case of ASCII letters the same. It is known to every
 * process of the same user, and to nobody else unless its first instance was made with a null access-control list. It
 * exists while an instance of it does; a process that is killed leaves nothing behind that would be in the way.
 *
 * The server's ends are made by CreateNamedPipe, one for each client at a time; a client opens its end with CreateFileA
 * or CreateFileW. ReadFile, WriteFile, CloseHandle and CancelIoEx work on both ends, and yield on those that a user
 * thread made. A read in message mode whose buffer is too small returns FALSE with ERROR_MORE_DATA and the bytes that
 * fit; the rest of the message is the next read's. Other errors of reads and writes: ERROR_PIPE_LISTENING before the
 * first client, ERROR_BROKEN_PIPE (reads) and ERROR_NO_DATA (writes) when the other end is closed,
 * ERROR_PIPE_NOT_CONNECTED after DisconnectNamedPipe, ERROR_OPERATION_ABORTED when cancelled or the handle was closed.
 */
#ifndef ZVXKVT_PIPES_H
#define ZVXKVT_PIPES_H

#include "zvxkvt/pipetypes.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifndef ZVXKVT_API
#define ZVXKVT_API __attribute__((visibility("default")))
#endif

/* ---- ZVXKVT_3.1 -------------------------------------------------------------------------------------- */

/* An instance of a pipe, which listens at once; INVALID_HANDLE_VALUE on failure.
 *   name          see above: ERROR_INVALID_NAME, ERROR_FILENAME_EXCED_RANGE
 *   openMode      PIPE_ACCESS_ bits; FILE_FLAG_OVERLAPPED; FILE_FLAG_FIRST_PIPE_INSTANCE refuses a further instance
 *   pipeMode      PIPE_TYPE_ and PIPE_READMODE_ bits. PIPE_NOWAIT is refused with ERROR_NOT_SUPPORTED
 *   maxInstances  1 to 254, or PIPE_UNLIMITED_INSTANCES; ERROR_PIPE_BUSY when there are so many
 *   outBytes, inBytes  bytes of buffers; have no effect, messages may be longer
 *   defaultMs     milliseconds that NMPWAIT_USE_DEFAULT_WAIT stands for; 0 for 50. The first instance decides
 *   security      may be null; a descriptor with a null access-control list opens the pipe to every user
 * A further instance must agree with the first one in directions, type and maxInstances: ERROR_ACCESS_DENIED, as for a
 * name that is another user's. In fiber mode the pipe is bound to the scheduler's port (last error 0xFFFFFFFF when that
 * is refused), and a pipe made without FILE_FLAG_OVERLAPPED is used synchronously by yielding. Any thread. Touches the
 * file system; does not yield. */
ZVXKVT_API HANDLE WINAPI CreateNamedPipeA(LPCSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                                          DWORD outBytes, DWORD inBytes, DWORD defaultMs,
                                          LPSECURITY_ATTRIBUTES security);
ZVXKVT_API HANDLE WINAPI CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                                          DWORD outBytes, DWORD inBytes, DWORD defaultMs,
                                          LPSECURITY_ATTRIBUTES security);

/* Waits until a client has opened the instance: TRUE. FALSE with ERROR_PIPE_CONNECTED when one had done so before the
 * call, which is a success too; with ERROR_NO_DATA when that one has closed its end already (DisconnectNamedPipe makes
 * room for the next), with ERROR_PIPE_LISTENING while another call waits for the same instance, with
 * ERROR_INVALID_FUNCTION for a client's end.
 * Yields on a pipe that a user thread made, for as long as it takes. With `overlapped` on a pipe that was made with
 * FILE_FLAG_OVERLAPPED it returns at once, normally FALSE with ERROR_IO_PENDING, and the caller waits for the operation
 * itself (its event, HasOverlappedIoCompleted); in fiber mode the low bit of hEvent is set. Blocks on other threads. */
ZVXKVT_API BOOL WINAPI ConnectNamedPipe(HANDLE pipe, LPOVERLAPPED overlapped);

/* TRUE as soon as an instance of the pipe listens that nobody has taken; that is no reservation. `ms`: milliseconds,
 * NMPWAIT_WAIT_FOREVER, or, outside fiber mode, NMPWAIT_USE_DEFAULT_WAIT. A user thread waits for a pipe that does not
 * exist yet too, and yields between two looks, each of which may block the scheduler for the pipe's default time-out; 0
 * looks once. FALSE when the time is over, the last error being that of the latest look: ERROR_FILE_NOT_FOUND or
 * ERROR_SEM_TIMEOUT. On other threads it blocks, and fails at once when there is no such pipe. */
ZVXKVT_API BOOL WINAPI WaitNamedPipeA(LPCSTR name, DWORD ms);
ZVXKVT_API BOOL WINAPI WaitNamedPipeW(LPCWSTR name, DWORD ms);

/* Opens a pipe of messages, writes one message, reads one and closes: TRUE, with its bytes in *read (never null).
 * `ms`: how long it may wait for an instance, in milliseconds or one of the NMPWAIT_ values; the answer is waited for
 * without a limit. FALSE with ERROR_FILE_NOT_FOUND when there is no such pipe, ERROR_PIPE_BUSY (NMPWAIT_NOWAIT) or
 * ERROR_SEM_TIMEOUT, ERROR_ACCESS_DENIED, ERROR_INVALID_PARAMETER for a pipe of bytes, ERROR_BROKEN_PIPE when the
 * server ends before it has answered, ERROR_MORE_DATA when the answer does not fit; then *read bytes of it are there.
 * CallNamedPipeA yields: the call runs on a kernel thread of its own, which is ended with the calling user thread.
 * CallNamedPipeW blocks, on user threads too. Both work in a process that never started the library. */
ZVXKVT_API BOOL WINAPI CallNamedPipeA(LPCSTR name, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes, LPDWORD read,
                                      DWORD ms);
ZVXKVT_API BOOL WINAPI CallNamedPipeW(LPCWSTR name, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes, LPDWORD read,
                                      DWORD ms);

/* ---- ZVXKVT_OS --------------------------------------------------------------------------------------- */

/* Ends the connection of a server's end; ConnectNamedPipe then waits for the next client. What was written to the
 * client stays readable for it. Operations that are outstanding end with ERROR_PIPE_NOT_CONNECTED. FALSE with that
 * error when there was nothing to end, ERROR_INVALID_FUNCTION for a client's end. Any thread; neither blocks nor
 * yields. */
ZVXKVT_API BOOL WINAPI DisconnectNamedPipe(HANDLE pipe);

/* Sets the read mode of this end, PIPE_READMODE_BYTE or PIPE_READMODE_MESSAGE; a client's end begins in byte mode.
 * FALSE with ERROR_INVALID_PARAMETER for message mode on a pipe of bytes, or when one of the other two pointers is not
 * null, ERROR_NOT_SUPPORTED for PIPE_NOWAIT. Any thread; neither blocks nor yields. */
ZVXKVT_API BOOL WINAPI SetNamedPipeHandleState(HANDLE pipe, LPDWORD mode, LPDWORD maxCollection, LPDWORD collectMs);

/* Copies what can be read now without taking it, at most `bytes` (in message mode of the first message only). *read
 * receives the bytes copied, *available the bytes that wait, *left the bytes of the first message that were not copied
 * (0 in byte mode); every pointer may be null. FALSE with the errors of a read. Any thread; neither blocks nor yields.
 */
ZVXKVT_API BOOL WINAPI PeekNamedPipe(HANDLE pipe, LPVOID buffer, DWORD bytes, LPDWORD read, LPDWORD available,
                                     LPDWORD left);

/* Writes a message of inBytes and reads the next one into `out`. FALSE with ERROR_BAD_PIPE when this end is not in
 * message mode, ERROR_MORE_DATA when the answer does not fit, and the errors of reads and writes. Blocks, on user
 * threads too: with an OVERLAPPED, which an overlapped handle needs, only until the request is taken. A user thread
 * does better with WriteFile and ReadFile. */
ZVXKVT_API BOOL WINAPI TransactNamedPipe(HANDLE pipe, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes,
                                         LPDWORD read, LPOVERLAPPED overlapped);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_PIPES_H */
