// exports/pipes.cpp - the named-pipe functions that leave the library, under the operating system's names.
//
// Each calls the function of the same name in zvx, or in os where the library leaves it as it is, and does nothing
// else.
#include "zvxkvt/pipes.h"

#include "dedicated/dedicated.h"
#include "kernel/pipe.h"
#include "platform/os_pipe.h"

extern "C" {

// ---- ZVXKVT_3.1 --------------------------------------------------------------------------------------

HANDLE CreateNamedPipeA(LPCSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes, DWORD inBytes,
                        DWORD defaultMs, LPSECURITY_ATTRIBUTES security) {
    return zvx::CreateNamedPipeA(name, openMode, pipeMode, maxInstances, outBytes, inBytes, defaultMs, security);
}
HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBytes, DWORD inBytes,
                        DWORD defaultMs, LPSECURITY_ATTRIBUTES security) {
    return zvx::CreateNamedPipeW(name, openMode, pipeMode, maxInstances, outBytes, inBytes, defaultMs, security);
}
BOOL ConnectNamedPipe(HANDLE pipe, LPOVERLAPPED overlapped) {
    return zvx::ConnectNamedPipe(pipe, overlapped);
}
BOOL WaitNamedPipeA(LPCSTR name, DWORD ms) {
    return zvx::WaitNamedPipeA(name, ms);
}
BOOL WaitNamedPipeW(LPCWSTR name, DWORD ms) {
    return zvx::WaitNamedPipeW(name, ms);
}
BOOL CallNamedPipeA(LPCSTR name, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes, LPDWORD read, DWORD ms) {
    return zvx::CallNamedPipeA(name, in, inBytes, out, outBytes, read, ms);
}
BOOL CallNamedPipeW(LPCWSTR name, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes, LPDWORD read, DWORD ms) {
    return os::CallNamedPipeW(name, in, inBytes, out, outBytes, read, ms);
}

// ---- ZVXKVT_OS ---------------------------------------------------------------------------------------

BOOL DisconnectNamedPipe(HANDLE pipe) {
    return os::DisconnectNamedPipe(pipe);
}
BOOL SetNamedPipeHandleState(HANDLE pipe, LPDWORD mode, LPDWORD maxCollection, LPDWORD collectMs) {
    return os::SetNamedPipeHandleState(pipe, mode, maxCollection, collectMs);
}
BOOL PeekNamedPipe(HANDLE pipe, LPVOID buffer, DWORD bytes, LPDWORD read, LPDWORD available, LPDWORD left) {
    return os::PeekNamedPipe(pipe, buffer, bytes, read, available, left);
}
BOOL TransactNamedPipe(HANDLE pipe, LPVOID in, DWORD inBytes, LPVOID out, DWORD outBytes, LPDWORD read,
                       LPOVERLAPPED overlapped) {
    return os::TransactNamedPipe(pipe, in, inBytes, out, outBytes, read, overlapped);
}

}  // extern "C"
