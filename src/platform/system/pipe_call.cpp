// platform/system/pipe_call.cpp - waiting for an instance of a pipe, and a request and its answer in one step.
//
// Runs on any thread and blocks it: there is nothing to sleep on until some instance of some process listens, so
// whoever waits looks again and again; and the answer takes as long as the server does. A thread that is ended while it
// waits for the answer must not leave the connection behind, or its server would wait for a request that never comes:
// the channel belongs to the thread, and goes with it.
#include <stdlib.h>

#include "platform/base/futex.h"
#include "platform/system/pipe.h"

namespace os {

namespace {

constexpr DWORD kFirstStepMs = 1;
constexpr DWORD kLongestStepMs = 8;

// The connection of the call that the thread makes; there is one at a time.
struct CallInProgress {
    PipeChannel *Channel = nullptr;
    ~CallInProgress() { End(); }
    void End() {
        PipeChannel *channel = Channel;
        Channel = nullptr;
        if (channel != nullptr) UnrefObject(channel);
    }
};
thread_local CallInProgress tCall;

bool Fail(DWORD error) {
    SetLastError(error);
    return false;
}

// Tries until it is 0, fails for good, or the time is over: 0 or the error.
template <typename Try>
DWORD Persist(DWORD ms, Try attempt) {
    uint64_t deadline = 0;
    for (DWORD step = kFirstStepMs;; step = step < kLongestStepMs ? step * 2 : step) {
        PipeTraits traits{};
        const DWORD error = attempt(&traits);
        if (error != ERROR_PIPE_BUSY) return error;
        if (deadline == 0) deadline = DeadlineAfter(ms == NMPWAIT_USE_DEFAULT_WAIT ? traits.DefaultMs : ms);
        const uint64_t now = MonotonicNs();
        if (now >= deadline) return ERROR_SEM_TIMEOUT;
        const uint64_t left = (deadline - now + 999999) / 1000000;
        Sleep(left < step ? static_cast<DWORD>(left) : step);
    }
}

// Connects the thread's channel to an instance; 0 or the error.
DWORD OpenInstance(const PipeName &name, DWORD ms, PipeTraits *traits) {
    const auto open = [&](PipeTraits *found) {
        // Not to be ended before the descriptor has an owner.
        EnterInnerRegion();
        int fd = -1;
        DWORD error = ConnectToInstance(name, true, true, &fd, found);
        if (error == ERROR_SUCCESS) tCall.Channel = NewChannel(fd, found->Messages != 0);
        if (error == ERROR_SUCCESS && tCall.Channel == nullptr) error = ERROR_NOT_ENOUGH_MEMORY;
        LeaveInnerRegion();
        *traits = *found;
        return error;
    };
    if (ms != NMPWAIT_NOWAIT) return Persist(ms, open);
    PipeTraits found{};
    return open(&found);
}

// Makes a call on the thread's channel until it is final; 0 or the error.
DWORD Run(IoCall *call) {
    DWORD status;
    while (!MoveChannel(tCall.Channel, call, &status)) WaitForChannel(tCall.Channel, call->Kind);
    return ErrorOfStatus(status);
}

}  // namespace

BOOL WaitNamedPipeA(const char *name, DWORD ms) {
    if (ShouldFail("WaitNamedPipeA")) return FALSE;
    PipeName parsed;
    DWORD error = ParsePipeName(name, &parsed);
    if (error == ERROR_SUCCESS)
        error = Persist(ms, [&](PipeTraits *traits) { return LookForInstance(parsed, traits); });
    return error == ERROR_SUCCESS || Fail(error);
}

BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD ms) {
    if (ShouldFail("CallNamedPipeA")) return FALSE;
    *read = 0;
    PipeName parsed;
    PipeTraits traits{};
    DWORD error = ParsePipeName(name, &parsed);
    if (error == ERROR_SUCCESS) error = OpenInstance(parsed, ms, &traits);
    if (error != ERROR_SUCCESS) return Fail(error);
    if (traits.Messages == 0) {
        tCall.End();
        return Fail(ERROR_INVALID_PARAMETER);
    }
    IoCall call;
    call.Buffer = static_cast<char *>(in);
    call.Count = inBytes;
    call.Kind = RequestKind::kPipeWrite;
    error = Run(&call);
    if (error == ERROR_SUCCESS) {
        call = IoCall{};
        call.Buffer = static_cast<char *>(out);
        call.Count = outBytes;
        call.Kind = RequestKind::kPipeRead;
        call.MsgFlags = 1;
        error = Run(&call);
        *read = call.Done;
    }
    tCall.End();
    return error == ERROR_SUCCESS || Fail(error);
}

}  // namespace os
