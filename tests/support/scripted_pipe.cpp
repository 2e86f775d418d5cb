// tests/support/scripted_pipe.cpp - named pipes, made like files and connected like reads; and the console.
#include "platform/os_pipe.h"
#include "platform/os_process.h"
#include "scripted_os.h"

namespace os {

using script::gScript;

HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD, DWORD, DWORD, DWORD, DWORD, SECURITY_ATTRIBUTES *) {
    if (ShouldFail("CreateNamedPipeA")) return INVALID_HANDLE_VALUE;
    if ((openMode & FILE_FLAG_OVERLAPPED) == 0) script::Misuse("a pipe that is not overlapped");
    return CreateFileA(name, 0, 0, nullptr, OPEN_EXISTING, openMode, nullptr);
}
HANDLE CreateNamedPipeW(const WCHAR *, DWORD openMode, DWORD pipeMode, DWORD instances, DWORD, DWORD, DWORD,
                        SECURITY_ATTRIBUTES *) {
    return CreateNamedPipeA("wide", openMode, pipeMode, instances, 0, 0, 0, nullptr);
}
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped, IoOp *op) {
    return ReadFile(pipe, nullptr, 0, nullptr, overlapped, op);
}
BOOL WaitNamedPipeA(const char *, DWORD ms) {
    script::NoteProgress();
    const DWORD error = gScript.OnWaitPipe(ms);
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS;
}
BOOL WaitNamedPipeW(const WCHAR *, DWORD ms) {
    return WaitNamedPipeA("wide", ms);
}

// These two run where the test lets a thread of their own run: see RunThread.
BOOL ReadConsoleA(HANDLE, void *buffer, DWORD characters, DWORD *read, void *) {
    return gScript.OnReadConsole(buffer, characters, read);
}
BOOL CallNamedPipeA(const char *, void *, DWORD, void *, DWORD, DWORD *, DWORD) {
    script::Misuse("CallNamedPipeA");
}

}  // namespace os
