// kernel/pipe.h - the exported named-pipe functions. CallNamedPipeA is in dedicated/.
//
// A pipe that a user thread creates is opened for overlapped I/O, whatever the host asked for, and belongs to the port
// of its scheduler; reads and writes on it are those of files (kernel/file.h).
#ifndef ZVX_KERNEL_PIPE_H
#define ZVX_KERNEL_PIPE_H

#include "zvxkvt/ostypes.h"

namespace zvx {

HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security);
HANDLE CreateNamedPipeW(const WCHAR *name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes,
                        DWORD inBytes, DWORD defaultMs, SECURITY_ATTRIBUTES *security);
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped);
BOOL WaitNamedPipeA(const char *name, DWORD ms);
BOOL WaitNamedPipeW(const WCHAR *name, DWORD ms);

}  // namespace zvx

#endif  // ZVX_KERNEL_PIPE_H
