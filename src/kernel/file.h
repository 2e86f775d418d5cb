// kernel/file.h - the exported file functions, and what they share with the pipes.
//
// Every file that a user thread opens is opened for overlapped I/O, whatever the host asked for. A host that
// wanted synchronous use gets calls that wait by yielding, and a file position that the library keeps; a host
// that drives overlapped operations itself is left to do so.
#ifndef ZVX_KERNEL_FILE_H
#define ZVX_KERNEL_FILE_H

#include "kernel/handles.h"
#include "sched/records.h"

namespace zvx {

// FIBEROVERLAPPED.OpArg.
enum OpCode : uint32_t {
    OP_READ_FILE = 3,
    OP_WRITE_FILE = 4,
    OP_CONNECT_NAMED_PIPE = 5,
    OP_READ_FILE_EX = 6,
    OP_WRITE_FILE_EX = 7,
    OP_FLUSH_FILE = 8,
};

// The event with its low bit set, AvoidCompletionEvent where there is none: no packet goes to the port.
HANDLE WithoutPacket(HANDLE event);
// Associates a fresh handle with the port of S; nothing to do in the polling model. False when it was refused, with
// the reason as last error. The entry is not in the table yet.
bool BindNewHandle(Scheduler *S, PSEHAND *entry);
// Prepares one of F's three embedded records for an operation on `entry`: where `given` says, else at the
// position that the library keeps. Points F->CurOv at it.
FIBEROVERLAPPED *PrepareOwnOv(Fiber *F, const OVERLAPPED *given, PSEHAND *entry, bool neverPoll, uint32_t opArg);
// The operation on `rec` failed at once: nothing is outstanding and no packet will come.
void ForgetFailedOv(FIBEROVERLAPPED *rec);

// Exported.
HANDLE CreateFileA(const char *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile);
HANDLE CreateFileW(const WCHAR *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile);
BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *got, OVERLAPPED *overlapped);
BOOL WriteFile(HANDLE file, const void *buffer, DWORD count, DWORD *put, OVERLAPPED *overlapped);
BOOL FlushFileBuffers(HANDLE file);
BOOL ReadFileEx(HANDLE file, void *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine);
BOOL WriteFileEx(HANDLE file, const void *buffer, DWORD count, OVERLAPPED *overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine);
BOOL LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped);
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait);
DWORD SetFilePointer(HANDLE file, LONG distance, LONG *distanceHigh, DWORD method);

}  // namespace zvx

#endif  // ZVX_KERNEL_FILE_H
