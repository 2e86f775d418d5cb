// tests/fuzz/exports_fuzz.cpp - the exported functions, called from a user thread in any order with odd arguments.
//
// Handles are of every kind, closed ones, handles with low bits and values that were never one; OVERLAPPEDs are zeroed,
// reused while outstanding, with events of every kind and offsets at the ends of the range. Memory stays valid, sizes
// are odd. A function given what is no handle must say so; whatever was started must end once everything is closed, and
// each routine must run once for each success of its function.
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "fuzz/started.h"
#include "zvxkvt/pipes.h"
#include "zvxkvt/sockets.h"

namespace {

struct Call {
    OVERLAPPED Ov;       // first: routines get its address
    bool Busy;           // an operation was started
    bool Unsure;         // another one was started while it ran: nothing is known of either
    uint32_t Owed, Ran;  // routines
};

enum class Kind : uint8_t { kFile, kEvent, kThread, kPipe, kSocket };
struct Picked {
    HANDLE Value;
    Kind Is;
    bool Live;          // open; perhaps with low bits, which may be looked past
    bool Own() const {  // means the process or the thread itself
        return !Live && (reinterpret_cast<uintptr_t>(Value) & 0xFFFFFFF0u) == 0xFFFFFFF0u;
    }
};

char gMemory[65536];
Call gCalls[6], *gCall;  // the one that was prepared last
std::vector<Picked> gHeld;
Picked gStale;  // the last one that was closed, while no other can have its value
std::string gPath, gPipeName;
fuzz::Input gIn;

const uint64_t kOffsets[] = {0,          1,          4095,      4096,           8192,       0x7FFFFFFF,
                             0xFFFFFFFF, 1ull << 32, INT64_MAX, INT64_MAX - 10, 1ull << 63, UINT64_MAX};
const DWORD kSizes[] = {0, 1, 511, 4096, 65535, 65536};
DWORD gSize, gDone;  // of the bytes to be moved, and moved

uint8_t Byte() {
    return gIn.Byte();
}
HANDLE Value(uint64_t value) {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value));
}
HANDLE WithBits(HANDLE handle, uint32_t bits) {
    return Value(reinterpret_cast<uintptr_t>(handle) | bits);
}

void WINAPI Ended(DWORD, DWORD, LPOVERLAPPED overlapped) {
    reinterpret_cast<Call *>(overlapped)->Ran++;
}
DWORD WINAPI Worker(LPVOID argument) {
    if (argument != nullptr) SleepEx(0, TRUE);
    return 7;
}

Picked Pick() {
    static const uint64_t odd[] = {0, 1, 3, 0x7FFFFFFC, 0xFFFFFFFC, 0xFFFFFFFFFFFFFFFF, 0x123456789ABCDEF0, 0xFFFFFFF0};
    const uint8_t which = Byte();
    if (which < 0xE0 && gStale.Value != nullptr && (which >= 0xD0 || gHeld.empty())) return gStale;
    if (which >= 0xE0 || gHeld.empty()) return {Value(odd[which % 8]), Kind::kFile, false};
    Picked picked = gHeld[which % gHeld.size()];
    if (which >= 0xC0) picked.Value = WithBits(picked.Value, which % 4u);
    return picked;
}

BOOL Hold(HANDLE handle, Kind kind) {
    gStale = {};
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return FALSE;
    gHeld.push_back({handle, kind, true});
    return TRUE;
}

// A call's OVERLAPPED, filled.
LPOVERLAPPED Prepare() {
    const uint8_t which = Byte();
    Call *const c = gCall = &gCalls[which % std::size(gCalls)];
    if (c->Busy && !c->Unsure && (which & 0x40) == 0 && HasOverlappedIoCompleted(&c->Ov) && c->Owed == c->Ran)
        c->Busy = false;
    c->Unsure |= c->Busy;
    if (c->Busy) return &c->Ov;
    c->Ov = {};
    const uint64_t offset = kOffsets[Byte() % std::size(kOffsets)];
    c->Ov.Offset = static_cast<DWORD>(offset);
    c->Ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    if ((which & 0x80) != 0) c->Ov.hEvent = WithBits(Pick().Value, Byte() % 2u);
    return &c->Ov;
}
// Notes that the prepared call was started, if it was.
BOOL Started(BOOL result, bool routine = false) {
    if (gCall == nullptr || !(result || (!routine && GetLastError() == ERROR_IO_PENDING))) return result;
    gCall->Busy = true;
    gCall->Owed += routine;
    return result;
}

void CloseOne(size_t index) {
    const Picked held = gHeld[index];
    gHeld.erase(gHeld.begin() + static_cast<std::ptrdiff_t>(index));
    if (held.Is == Kind::kThread) {
        // None is left behind suspended.
        for (DWORD before = 1; before != 0xFFFFFFFF && before != 0;) before = ResumeThread(held.Value);
        fuzz::Require(WaitForSingleObject(held.Value, 30000) == WAIT_OBJECT_0, "a thread that does not end");
    }
    const bool closed = held.Is == Kind::kSocket ? closesocket(reinterpret_cast<SOCKET>(held.Value)) == 0
                                                 : CloseHandle(held.Value) != FALSE;
    fuzz::Require(closed, "an open handle is not closed", reinterpret_cast<uintptr_t>(held.Value), GetLastError());
    gStale = {held.Value, held.Is, false};  // a socket's kind: its entry stays as long as a duplicate of it
}

// One of the calls. The first kFiles end the process by design on a socket; the first kRefuse must say FALSE, with a
// reason, of what is no handle.
constexpr uint32_t kFiles = 4, kPrepared = 7, kRefuse = 13, kCalls = 31;
BOOL Use(uint32_t what, const Picked &picked, uint8_t how) {
    const HANDLE h = picked.Value, process = GetCurrentProcess();
    const SOCKET s = reinterpret_cast<SOCKET>(h);
    gCall = nullptr;
    const LPOVERLAPPED ov = what < kPrepared && (what >= 2 || how % 8 != 0) ? Prepare() : nullptr;
    DWORD *const moved = ov == nullptr || how % 2 != 0 ? &gDone : nullptr;
    HANDLE many[70], copy = nullptr;
    switch (what) {
        case 0: return Started(ReadFile(h, gMemory, gSize, moved, ov));
        case 1: return Started(WriteFile(h, gMemory, gSize, moved, ov));
        case 2: return Started(ReadFileEx(h, gMemory, gSize, ov, Ended), true);
        case 3: return Started(WriteFileEx(h, gMemory, gSize, ov, Ended), true);
        case 4: {
            WSABUF buffers[2] = {{gSize, gMemory}, {1, gMemory}};
            DWORD flags = 0;
            return Started(WSARecv(s, buffers, how % 3u, &gDone, &flags, ov, nullptr) == 0);
        }
        case 5: return Started(ConnectNamedPipe(h, ov));
        case 6:
            return LockFileEx(h, LOCKFILE_FAIL_IMMEDIATELY | (how & LOCKFILE_EXCLUSIVE_LOCK), 0,
                              static_cast<DWORD>(gIn.Number(4)), how, ov);
        case 7: return GetExitCodeThread(h, &gDone);
        case 8: return setsockopt(s, static_cast<int>(gIn.Number(2)), how, gMemory, Byte()) == 0;
        case 9: return send(s, gMemory, static_cast<int>(gSize), how) >= 0;
        case 10: return SetEvent(h);
        case 11: return ResetEvent(h);
        case 12: return CancelIo(h);
        case 13:
            if (picked.Live)
                CloseOne(how % gHeld.size());
            else if (h != gStale.Value && !picked.Own())
                fuzz::Require(!CloseHandle(h) && GetLastError() != 0, "no handle is closed", GetLastError());
            return TRUE;
        case 14: {
            const DWORD access = how & 16 ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE, disposition = Byte() % 7;
            const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE, flags = how & 8 ? FILE_FLAG_OVERLAPPED : 0;
            const char *const name = how & 32 ? "/nowhere/at/all" : gPath.c_str();
            return Hold(CreateFileA(name, access, share, nullptr, disposition, flags, nullptr), Kind::kFile);
        }
        case 15: return Hold(CreateEventA(nullptr, how & 8, how & 16, nullptr), Kind::kEvent);
        case 16: {
            const DWORD flags = how & 16 ? CREATE_SUSPENDED : 0;
            return Hold(CreateThread(nullptr, 0, Worker, how & 8 ? gMemory : nullptr, flags, nullptr), Kind::kThread);
        }
        case 17: return Hold(reinterpret_cast<HANDLE>(socket(how & 16 ? AF_INET : how, SOCK_STREAM, 0)), Kind::kSocket);
        case 18: {
            const DWORD mode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
            return Hold(CreateNamedPipeA(gPipeName.c_str(), mode, how % 8, Byte(), 0, 0, 0, nullptr), Kind::kPipe);
        }
        // Another process would end this one by design; what stands for the thread itself is not to be suspended.
        case 19:
            return picked.Live && DuplicateHandle(process, h, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS) &&
                   Hold(copy, picked.Is);
        case 20: return (picked.Live || h == nullptr) && SuspendThread(h) != 0xFFFFFFFF;
        case 21: return picked.Live && TerminateThread(h, 9);
        case 22: return ResumeThread(h) != 0xFFFFFFFF;
        case 23: return UserThreadExecRoutine(h, [] {});
        case 24: return PostUserThread(h);
        case 25: return DisconnectNamedPipe(h);
        // Not to be waited for: what is outstanding on a pipe ends with its handle only.
        case 26: return GetOverlappedResult(h, &gCalls[how % std::size(gCalls)].Ov, &gDone, FALSE);
        case 27: return WSAEventSelect(s, Pick().Value, static_cast<LONG>(gIn.Number(2))) == 0;
        case 28: {
            static const DWORD counts[] = {0, 1, 2, 4, 63, 64, 65, 70};
            for (HANDLE &one : many) one = h;
            for (uint32_t i = 0; how % 4 == 1 && i < 4; i++) many[i] = Pick().Value;
            return WaitForMultipleObjectsEx(counts[how / 16 % 8], many, how % 2, how % 3, (how & 4) != 0) !=
                   WAIT_FAILED;
        }
        case 29: {  // What means the process or the thread itself is waited for in vain.
            const DWORD result = WaitForSingleObjectEx(h, how % 3, (how & 4) != 0);
            const bool ended = result != WAIT_FAILED && result != WAIT_IO_COMPLETION;
            fuzz::Require(picked.Live || picked.Own() || !ended, "a wait for no handle", result);
            return ended;
        }
        default: return SleepEx(how / 64, TRUE) == 0;
    }
}

void RunInput(fuzz::Input input) {
    gIn = input;
    std::memset(static_cast<void *>(gCalls), 0, sizeof gCalls);
    gStale = {};
    if (truncate(gPath.c_str(), 8192) != 0) fuzz::Require(errno == ENOENT, "no file", static_cast<uint64_t>(errno));
    for (uint32_t steps = 0; !gIn.Empty() && steps < 64; steps++) {
        while (gHeld.size() > 20) CloseOne(Byte() % gHeld.size());
        const uint8_t what = Byte() % kCalls, how = Byte();
        const Picked handle = Pick();
        if (what < kFiles && handle.Is == Kind::kSocket) continue;
        gSize = kSizes[how / 8 % std::size(kSizes)];
        SetLastError(0);
        const BOOL result = Use(what, handle, how);
        if (what < kRefuse && !handle.Live && !handle.Own())
            fuzz::Require(!result && GetLastError() != 0, "a call with no handle", what, GetLastError());
    }
    while (!gHeld.empty()) CloseOne(gHeld.size() - 1);
    for (uint32_t i = 0;; i++) {
        bool all = true;
        for (Call &call : gCalls) all &= !call.Busy || (HasOverlappedIoCompleted(&call.Ov) && call.Ran >= call.Owed);
        if (all && i >= 2) break;
        fuzz::Require(i < 20000, "an operation does not end");
        SleepEx(i < 2 ? 0 : 1, TRUE);
    }
    for (Call &call : gCalls) fuzz::Require(call.Ran == call.Owed, "routines and successes", call.Ran, call.Owed);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (gPath.empty()) {
        gPath = fuzz::Scratch("exports");
        gPipeName = "\\\\.\\pipe\\fuzz." + std::to_string(GetCurrentProcessId());
    }
    fuzz::Keep(data, size);
    fuzz::RunStarted(RunInput, data, size);
    return 0;
}
