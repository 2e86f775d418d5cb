/* zvxkvt/pipetypes.h - constants and last-error values of named pipes. Usable from C and C++. */
#ifndef ZVXKVT_PIPETYPES_H
#define ZVXKVT_PIPETYPES_H

#include "zvxkvt/ostypes.h"

/* CreateNamedPipe, open mode: directions as the server sees them, and flags. FILE_FLAG_OVERLAPPED is in ostypes.h. */
#define PIPE_ACCESS_INBOUND 0x1u  /* from client to server */
#define PIPE_ACCESS_OUTBOUND 0x2u /* from server to client */
#define PIPE_ACCESS_DUPLEX 0x3u
#define FILE_FLAG_FIRST_PIPE_INSTANCE 0x00080000u

/* CreateNamedPipe, pipe mode, and SetNamedPipeHandleState. */
#define PIPE_WAIT 0x0u
#define PIPE_NOWAIT 0x1u
#define PIPE_READMODE_BYTE 0x0u
#define PIPE_READMODE_MESSAGE 0x2u
#define PIPE_TYPE_BYTE 0x0u
#define PIPE_TYPE_MESSAGE 0x4u
#define PIPE_ACCEPT_REMOTE_CLIENTS 0x0u
#define PIPE_REJECT_REMOTE_CLIENTS 0x8u
#define PIPE_UNLIMITED_INSTANCES 255u

/* Time-outs of WaitNamedPipe and CallNamedPipe besides a number of milliseconds. */
#define NMPWAIT_USE_DEFAULT_WAIT 0u /* what the pipe's creator gave; 50 ms when that is 0 */
#define NMPWAIT_NOWAIT 1u           /* CallNamedPipe only */
#define NMPWAIT_WAIT_FOREVER 0xFFFFFFFFu

/* Last-error values. */
#define ERROR_SEM_TIMEOUT 121u
#define ERROR_BAD_PIPE 230u
#define ERROR_PIPE_BUSY 231u
#define ERROR_NO_DATA 232u
#define ERROR_PIPE_NOT_CONNECTED 233u
#define ERROR_MORE_DATA 234u
#define ERROR_PIPE_CONNECTED 535u
#define ERROR_PIPE_LISTENING 536u

/* OVERLAPPED.Internal of a read that brought the beginning of a longer message. */
#define STATUS_BUFFER_OVERFLOW 0x80000005u

#endif /* ZVXKVT_PIPETYPES_H */
