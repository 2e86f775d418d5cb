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
DWORD Word() {
    return static_cast<DWORD>(gIn.Number(4));
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
// Null at times.
LPOVERLAPPED PrepareOrNot(uint8_t how) {
    if (how % 8 != 0) return Prepare();
    gCall = nullptr;
    return nullptr;
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

// One of the calls for every byte. Most must say FALSE, with a reason, of what is no handle.
enum Says { kFalse, kNothing };
constexpr uint32_t kFiles = 4;  // the first ones: on a socket they end the process by design
const struct {
    const char *Name;
    Says OfNone;
    BOOL (*Use)(const Picked &h, uint8_t how);
} kCalls[] = {
    {"ReadFile", kFalse,
     [](const Picked &h, uint8_t how) {
         const LPOVERLAPPED ov = PrepareOrNot(how);
         return Started(ReadFile(h.Value, gMemory, gSize, ov == nullptr || how % 2 != 0 ? &gDone : nullptr, ov));
     }},
    {"WriteFile", kFalse,
     [](const Picked &h, uint8_t how) {
         const LPOVERLAPPED ov = PrepareOrNot(how);
         return Started(WriteFile(h.Value, gMemory, gSize, ov == nullptr || how % 2 != 0 ? &gDone : nullptr, ov));
     }},
    {"ReadFileEx", kFalse,
     [](const Picked &h, uint8_t) { return Started(ReadFileEx(h.Value, gMemory, gSize, Prepare(), Ended), true); }},
    {"WriteFileEx", kFalse,
     [](const Picked &h, uint8_t) { return Started(WriteFileEx(h.Value, gMemory, gSize, Prepare(), Ended), true); }},
    {"CreateFileA", kNothing,
     [](const Picked &, uint8_t how) {
         const DWORD access = how & 16 ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE, disposition = Byte() % 7;
         return Hold(
             CreateFileA(how & 32 ? "/nowhere/at/all" : gPath.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                         nullptr, disposition, how & 8 ? FILE_FLAG_OVERLAPPED : 0, nullptr),
             Kind::kFile);
     }},
    {"CreateEventA", kNothing,
     [](const Picked &, uint8_t how) { return Hold(CreateEventA(nullptr, how & 8, how & 16, nullptr), Kind::kEvent); }},
    {"CreateThread", kNothing,
     [](const Picked &, uint8_t how) {
         const DWORD flags = how & 16 ? CREATE_SUSPENDED : 0;
         return Hold(CreateThread(nullptr, 0, Worker, how & 8 ? gMemory : nullptr, flags, nullptr), Kind::kThread);
     }},
    {"socket", kNothing,
     [](const Picked &, uint8_t how) {
         return Hold(reinterpret_cast<HANDLE>(socket(how & 16 ? AF_INET : Byte(), SOCK_STREAM, 0)), Kind::kSocket);
     }},
    {"CreateNamedPipeA", kNothing,
     [](const Picked &, uint8_t how) {
         return Hold(CreateNamedPipeA(gPipeName.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, how % 8, Byte(), 0,
                                      0, 0, nullptr),
                     Kind::kPipe);
     }},
    // Not on what may mean the thread that calls.
    {"SuspendThread", kNothing,
     [](const Picked &h, uint8_t) -> BOOL {
         return (h.Live || h.Value == nullptr) && SuspendThread(h.Value) != 0xFFFFFFFF;
     }},
    {"ResumeThread", kNothing, [](const Picked &h, uint8_t) -> BOOL { return ResumeThread(h.Value) != 0xFFFFFFFF; }},
    {"TerminateThread", kNothing,
     [](const Picked &h, uint8_t) -> BOOL { return h.Live && TerminateThread(h.Value, 9); }},
    {"GetExitCodeThread", kFalse, [](const Picked &h, uint8_t) { return GetExitCodeThread(h.Value, &gDone); }},
    {"GetThreadTimes", kNothing,
     [](const Picked &h, uint8_t) {
         FILETIME times[4];
         return GetThreadTimes(h.Value, &times[0], &times[1], &times[2], &times[3]);
     }},
    {"UserThreadExecRoutine", kNothing, [](const Picked &h, uint8_t) { return UserThreadExecRoutine(h.Value, [] {}); }},
    {"ioctlsocket", kFalse,
     [](const Picked &h, uint8_t how) -> BOOL {
         ULONG argument = how % 2;
         return ioctlsocket(reinterpret_cast<SOCKET>(h.Value), static_cast<LONG>(Word()), &argument) == 0;
     }},
    {"setsockopt", kFalse,
     [](const Picked &h, uint8_t how) -> BOOL {
         const int level = static_cast<int>(gIn.Number(2));
         return setsockopt(reinterpret_cast<SOCKET>(h.Value), level, how, gMemory, Byte()) == 0;
     }},
    {"WSARecv", kFalse,
     [](const Picked &h, uint8_t how) {
         WSABUF buffers[2] = {{gSize, gMemory}, {1, gMemory}};
         DWORD flags = 0;
         return Started(
             WSARecv(reinterpret_cast<SOCKET>(h.Value), buffers, how % 3u, &gDone, &flags, Prepare(), nullptr) == 0);
     }},
    {"send", kFalse,
     [](const Picked &h, uint8_t how) -> BOOL {
         return send(reinterpret_cast<SOCKET>(h.Value), gMemory, static_cast<int>(gSize), how) >= 0;
     }},
    {"WSAEventSelect", kNothing,
     [](const Picked &h, uint8_t) -> BOOL {
         const HANDLE event = Pick().Value;
         return WSAEventSelect(reinterpret_cast<SOCKET>(h.Value), event, static_cast<LONG>(gIn.Number(2))) == 0;
     }},
    {"select", kNothing,
     [](const Picked &h, uint8_t how) -> BOOL {
         const timeval none{0, 1000};
         const SOCKET s = reinterpret_cast<SOCKET>(h.Value);
         fd_set set{how % 3u, {s, s}};
         return select(0, &set, nullptr, nullptr, &none) >= 0;
     }},
    {"WaitForMultipleObjectsEx", kNothing,
     [](const Picked &h, uint8_t how) -> BOOL {
         static const DWORD counts[] = {0, 1, 2, 4, 63, 64, 65, 70};
         HANDLE many[70];
         for (HANDLE &one : many) one = h.Value;
         for (uint32_t i = 0; how % 4 == 1 && i < 4; i++) many[i] = Pick().Value;
         return WaitForMultipleObjectsEx(counts[how / 16 % 8], many, how % 2, how % 3, (how & 4) != 0) != WAIT_FAILED;
     }},
    // What means the process or the thread itself is waited for in vain.
    {"WaitForSingleObjectEx", kNothing,
     [](const Picked &h, uint8_t how) -> BOOL {
         const DWORD result = WaitForSingleObjectEx(h.Value, how % 3, (how & 4) != 0);
         const bool ended = result != WAIT_FAILED && result != WAIT_IO_COMPLETION;
         fuzz::Require(h.Live || h.Own() || !ended, "a wait for no handle", result);
         return ended;
     }},
    {"SetFilePointer", kNothing,
     [](const Picked &h, uint8_t how) -> BOOL {
         LONG high = static_cast<LONG>(Byte()) - 128;
         return SetFilePointer(h.Value, static_cast<LONG>(Word()), how & 16 ? &high : nullptr, how % 5) != 0xFFFFFFFF;
     }},
    // Not to be waited for: what is outstanding on a pipe ends with its handle only.
    {"GetOverlappedResult", kNothing,
     [](const Picked &h, uint8_t how) {
         return GetOverlappedResult(h.Value, &gCalls[how % std::size(gCalls)].Ov, &gDone, FALSE);
     }},
    {"SetEvent", kFalse, [](const Picked &h, uint8_t) { return SetEvent(h.Value); }},
    {"ResetEvent", kFalse, [](const Picked &h, uint8_t) { return ResetEvent(h.Value); }},
    // Another process would end this one by design; what stands for the thread itself is not to be suspended.
    {"DuplicateHandle", kNothing,
     [](const Picked &h, uint8_t) -> BOOL {
         HANDLE copy = nullptr;
         const HANDLE process = GetCurrentProcess();
         return h.Live && DuplicateHandle(process, h.Value, process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS) &&
                Hold(copy, h.Is);
     }},
    {"LockFileEx", kFalse,
     [](const Picked &h, uint8_t how) {
         const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (how & 16 ? LOCKFILE_EXCLUSIVE_LOCK : 0u), low = Word();
         return LockFileEx(h.Value, flags, 0, low, Word(), Prepare());
     }},
    {"ConnectNamedPipe", kFalse,
     [](const Picked &h, uint8_t) { return Started(ConnectNamedPipe(h.Value, Prepare())); }},
    {"DisconnectNamedPipe", kNothing, [](const Picked &h, uint8_t) { return DisconnectNamedPipe(h.Value); }},
    {"CancelIo", kFalse, [](const Picked &h, uint8_t) { return CancelIo(h.Value); }},
    {"PostUserThread", kNothing, [](const Picked &h, uint8_t) { return PostUserThread(h.Value); }},
    {"SleepEx", kNothing, [](const Picked &, uint8_t how) -> BOOL { return SleepEx(how / 64, TRUE) == 0; }},
    {"TlsAlloc", kNothing,
     [](const Picked &, uint8_t how) {
         const DWORD slot = how % 2 != 0 ? TlsAlloc() : Word();
         const bool mine = how % 2 != 0 && slot != 0xFFFFFFFF;
         if (!mine && slot < 64 + 1024) return FALSE;
         fuzz::Require(!!TlsSetValue(slot, gMemory) == mine, "a slot that is none", slot);
         fuzz::Require((TlsGetValue(slot) == gMemory) == mine, "a slot's value", slot);
         fuzz::Require(!!TlsFree(slot) == mine, "a slot that is none is freed", slot);
         return TRUE;
     }},
    {"CloseHandle", kNothing,
     [](const Picked &h, uint8_t how) -> BOOL {
         if (h.Live)
             CloseOne(how % gHeld.size());
         else if (h.Value != gStale.Value && !h.Own())
             fuzz::Require(!CloseHandle(h.Value) && GetLastError() != 0, "no handle is closed", GetLastError());
         return TRUE;
     }},
};

void RunInput(fuzz::Input input) {
    gIn = input;
    std::memset(static_cast<void *>(gCalls), 0, sizeof gCalls);
    gStale = {};
    if (truncate(gPath.c_str(), 8192) != 0) fuzz::Require(errno == ENOENT, "no file", static_cast<uint64_t>(errno));
    for (uint32_t steps = 0; !gIn.Empty() && steps < 64; steps++) {
        while (gHeld.size() > 20) CloseOne(Byte() % gHeld.size());
        const uint8_t what = Byte() % std::size(kCalls), how = Byte();
        const auto &call = kCalls[what];
        const Picked handle = Pick();
        if (what < kFiles && handle.Is == Kind::kSocket) continue;
        gSize = kSizes[how / 8 % std::size(kSizes)];
        SetLastError(0);
        const BOOL result = call.Use(handle, how);
        if (call.OfNone == kFalse && !handle.Live && !handle.Own())
            fuzz::Require(!result && GetLastError() != 0, call.Name, static_cast<uint64_t>(result), GetLastError());
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
