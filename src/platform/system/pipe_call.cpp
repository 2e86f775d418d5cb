// platform/system/pipe_call.cpp - a request and its answer through a named pipe, in one step.
//
// Runs on any thread and blocks it: opening waits for an instance, reading for the answer. It uses nothing of pipes
// but their names, so it serves whatever opens under one.
#include "platform/os_process.h"

namespace os {

namespace {

constexpr DWORD kErrorPipeBusy = 231;
constexpr DWORD kUseDefaultWait = 0;
constexpr DWORD kNoWait = 1;
constexpr DWORD kDefaultWaitMs = 50;
constexpr DWORD kBusyStepMs = 1;

// Every instance may be taken at this moment; whoever waits looks again every millisecond.
HANDLE OpenInstance(const char *name, DWORD ms) {
    const uint64_t start = GetTickCount64();
    for (;;) {
        const HANDLE pipe = CreateFileA(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe != INVALID_HANDLE_VALUE || GetLastError() != kErrorPipeBusy || ms == kNoWait) return pipe;
        if (ms != INFINITE && GetTickCount64() - start >= (ms == kUseDefaultWait ? kDefaultWaitMs : ms)) return pipe;
        Sleep(kBusyStepMs);
    }
}

}  // namespace

BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms) {
    if (ShouldFail("CallNamedPipeA")) return FALSE;
    *read = 0;
    const HANDLE pipe = OpenInstance(name, ms);
    if (pipe == INVALID_HANDLE_VALUE) return FALSE;
    DWORD written = 0;
    const BOOL done = WriteFile(pipe, in, inBytes, &written, nullptr) && ReadFile(pipe, out, outBytes, read, nullptr);
    const DWORD error = GetLastError();
    CloseHandle(pipe);
    SetLastError(done ? ERROR_SUCCESS : error);
    return done;
}

}  // namespace os
