// tests/fuzz/exports_fuzz.cpp - the exported functions, called from a user thread in any order with odd arguments.
//
// Handles are of every kind, closed ones, handles with low bits and values that were never one; OVERLAPPEDs are zeroed,
// reused while outstanding, with events of every kind and offsets at the ends of the range. Memory stays valid, sizes
// are odd. A function given what is no handle must say so; whatever was started must end once everything is closed, and
// each routine must run once for each success of its function.
#include <cerrno>
#include <unistd.h>
#include <vector>

#include "fuzz/started.h"
#include "zvxkvt/pipes.h"
#include "zvxkvt/sockets.h"

namespace {

struct Call {
    OVERLAPPED Ov;  // first: routines get its address
    bool Busy;      // an operation was started
    bool Unsure;    // another one was started while it ran: nothing is known of either
    uint32_t Owed, Ran;  // routines
};

enum class Kind : uint8_t { kFile, kEvent, kThread, kPipe, kSocket };
struct Held {
    HANDLE Value;
    Kind Is;
};

char gMemory[65536];
Call gCalls[6];
std::vector<Held> gHeld;
HANDLE gStale;    // the last one that was closed, while no other can have its value
Kind gStaleKind;  // a socket's entry, and with it this, stays as long as a duplicate of it
std::string gPath;

const uint64_t kOffsets[] = {0,          1,          4095,      4096,           8192,          0x7FFFFFFF,
                             0xFFFFFFFF, 1ull << 32, INT64_MAX, INT64_MAX - 10, 1ull << 63, UINT64_MAX};
const DWORD kSizes[] = {0, 1, 511, 4096, 65535, 65536};

void WINAPI Ended(DWORD, DWORD, LPOVERLAPPED overlapped) {
    reinterpret_cast<Call *>(overlapped)->Ran++;
}
void WINAPI Injected() {}
DWORD WINAPI Worker(LPVOID argument) {
    if (argument != nullptr) SleepEx(0, TRUE);
    return 7;
}

HANDLE Value(uint64_t value) { return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(value)); }

Kind gKind;  // of the last handle picked that is open or was

// A handle to hand over; *live when it is one that is open, perhaps with low bits, which may be looked past.
HANDLE Pick(fuzz::Input *in, bool *live) {
    static const uint64_t odd[] = {0, 1, 3, 0x7FFFFFFC, 0xFFFFFFFC, 0xFFFFFFFFFFFFFFFF, 0x123456789ABCDEF0, 0xFFFFFFF0};
    const uint8_t which = in->Byte();
    *live = which < 0xE0 && !gHeld.empty() && (which < 0xC0 || which >= 0xD0 || gStale == nullptr);
    if (*live) {
        const Held &held = gHeld[which % gHeld.size()];
        gKind = held.Is;
        return which < 0xC0 ? held.Value : Value(reinterpret_cast<uintptr_t>(held.Value) | (which % 4));
    }
    if (which < 0xD0 && gStale != nullptr) {
        gKind = gStaleKind;
        return gStale;
    }
    return Value(odd[which % 8]);
}

void Hold(HANDLE handle, Kind kind) {
    gStale = nullptr;
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) return;
    gHeld.push_back({handle, kind});
}

bool gLive;  // of the last handle picked
// What a function says of something that is no handle.
void Refused(BOOL result, const char *what) {
    if (!gLive) fuzz::Require(!result && GetLastError() != 0, what, static_cast<uint64_t>(result), GetLastError());
}

// A call's OVERLAPPED, filled; null at times.
LPOVERLAPPED Prepare(fuzz::Input *in, Call **call, bool needed) {
    const uint8_t which = in->Byte();
    *call = nullptr;
    if (which >= 0xF0 && !needed) return nullptr;
    Call *const c = &gCalls[which % std::size(gCalls)];
    *call = c;
    if (c->Busy && !c->Unsure && (which & 0x40) == 0 && HasOverlappedIoCompleted(&c->Ov) && c->Owed == c->Ran) c->Busy = false;
    if (c->Busy) {
        c->Unsure = true;
        return &c->Ov;
    }
    std::memset(&c->Ov, 0, sizeof c->Ov);
    const uint64_t offset = kOffsets[in->Byte() % std::size(kOffsets)];
    c->Ov.Offset = static_cast<DWORD>(offset);
    c->Ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    bool live;
    if ((which & 0x80) != 0) {
        c->Ov.hEvent = Pick(in, &live);
        if (in->Byte() % 2 != 0) c->Ov.hEvent = Value(reinterpret_cast<uintptr_t>(c->Ov.hEvent) | 1);
    }
    return &c->Ov;
}

void Started(Call *call, BOOL result, bool routine) {
    if (call == nullptr || !(result || (!routine && GetLastError() == ERROR_IO_PENDING))) return;
    call->Busy = true;
    if (routine) call->Owed++;
}

void MoveBytes(fuzz::Input *in, HANDLE handle) {
    if ((gLive || handle == gStale) && gKind == Kind::kSocket) return;  // ends the process by design
    const uint8_t how = in->Byte();
    Call *call;
    DWORD done = 0;
    LPOVERLAPPED ov = Prepare(in, &call, (how & 2) != 0);
    const DWORD size = kSizes[in->Byte() % std::size(kSizes)];
    SetLastError(0);
    BOOL result;
    DWORD *const moved = ov == nullptr || (how & 4) != 0 ? &done : nullptr;
    switch (how % 4) {
        case 0: result = ReadFile(handle, gMemory, size, moved, ov); break;
        case 1: result = WriteFile(handle, gMemory, size, moved, ov); break;
        case 2: result = ReadFileEx(handle, gMemory, size, ov, Ended); break;
        default: result = WriteFileEx(handle, gMemory, size, ov, Ended); break;
    }
    Started(call, result, how % 4 >= 2);
    Refused(result, "bytes of no handle");
}

void Create(fuzz::Input *in) {
    const uint8_t how = in->Byte();
    switch (how % 5) {
        case 0:
        case 1: {
            const DWORD flags = (how & 8) != 0 ? FILE_FLAG_OVERLAPPED : 0;
            const DWORD access = (how & 16) != 0 ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
            const DWORD disposition = in->Byte() % 7;
            Hold(CreateFileA((how & 32) != 0 ? "/nowhere/at/all" : gPath.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                             nullptr, disposition, flags, nullptr), Kind::kFile);
            break;
        }
        case 2: Hold(CreateEventA(nullptr, how & 8, how & 16, nullptr), Kind::kEvent); break;
        case 3:
            Hold(CreateThread(nullptr, 0, Worker, (how & 8) != 0 ? gMemory : nullptr, (how & 16) != 0 ? CREATE_SUSPENDED : 0,
                              nullptr), Kind::kThread);
            break;
        default:
            if ((how & 8) != 0) {
                const SOCKET s = socket((how & 16) != 0 ? AF_INET : in->Byte(), SOCK_STREAM, 0);
                Hold(reinterpret_cast<HANDLE>(s), Kind::kSocket);
            } else {
                const std::string name = "\\\\.\\pipe\\fuzz." + std::to_string(GetCurrentProcessId());
                Hold(CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, in->Byte() % 8, in->Byte(), 0, 0,
                                      0, nullptr), Kind::kPipe);
            }
    }
}

void Threads(fuzz::Input *in, HANDLE handle) {
    // Not on what may mean the thread that calls.
    const bool thread = gLive && !gHeld.empty();
    FILETIME times[4];
    DWORD code;
    SetLastError(0);
    switch (in->Byte() % 6) {
        case 0:
            if (gLive || handle == nullptr) SuspendThread(handle);
            break;
        case 1: ResumeThread(handle); break;
        case 2: Refused(GetExitCodeThread(handle, &code), "the exit code of no handle"); break;
        case 3: GetThreadTimes(handle, &times[0], &times[1], &times[2], &times[3]); break;
        case 4:
            if (thread) TerminateThread(handle, 9);
            break;
        default: UserThreadExecRoutine(handle, Injected);
    }
}

void Sockets(fuzz::Input *in, HANDLE handle) {
    const SOCKET s = reinterpret_cast<SOCKET>(handle);
    const uint8_t how = in->Byte();
    ULONG argument = in->Byte() % 2;
    DWORD bytes = 0, flags = 0;
    WSABUF buffers[2] = {{static_cast<ULONG>(kSizes[how % 6]), gMemory}, {1, gMemory}};
    Call *call;
    bool live;
    SetLastError(0);
    int result = 0;
    switch (how / 8 % 6) {
        case 0: result = ioctlsocket(s, static_cast<LONG>(in->Number(4)), &argument); break;
        case 1: result = setsockopt(s, static_cast<int>(in->Number(2)), in->Byte(), gMemory, in->Byte()); break;
        case 2: {
            const LPOVERLAPPED ov = Prepare(in, &call, true);
            result = WSARecv(s, buffers, how % 3u, &bytes, &flags, ov, nullptr);
            Started(call, result == 0, false);
            break;
        }
        case 3: result = send(s, gMemory, static_cast<int>(kSizes[how % 6]), in->Byte()); break;
        case 4: result = WSAEventSelect(s, Pick(in, &live), static_cast<LONG>(in->Number(2))); break;
        default: {
            const timeval none{0, 1000};
            fd_set set{};
            set.fd_count = how % 3u;
            for (u_int i = 0; i < set.fd_count; i++) set.fd_array[i] = s;
            result = select(0, &set, nullptr, nullptr, &none);
            return;
        }
    }
    if (!gLive && how / 8 % 6 != 4) fuzz::Require(result == -1 && GetLastError() != 0, "a socket that is none");
}

void Waits(fuzz::Input *in, HANDLE handle) {
    const uint8_t how = in->Byte();
    HANDLE many[70];
    bool live = gLive;
    for (HANDLE &one : many) one = handle;
    if (how % 4 == 1) {
        for (uint32_t i = 0; i < 4; i++) many[i] = Pick(in, &live);
    }
    static const DWORD counts[] = {0, 1, 2, 4, 63, 64, 65, 70};
    SetLastError(0);
    if ((how & 8) != 0) {
        WaitForMultipleObjectsEx(counts[how / 16 % 8], many, how % 2, how % 3, (how & 4) != 0);
        return;
    }
    const DWORD result = WaitForSingleObjectEx(handle, how % 3, (how & 4) != 0);
    // What means the process or the thread itself is waited for in vain.
    if (!gLive && (reinterpret_cast<uintptr_t>(handle) & 0xFFFFFFF0u) != 0xFFFFFFF0u) {
        fuzz::Require(result == WAIT_FAILED || result == WAIT_IO_COMPLETION, "a wait for no handle", result);
    }
}

void Others(fuzz::Input *in, HANDLE handle) {
    DWORD bytes = 0;
    Call *call;
    HANDLE copy = nullptr;
    const Kind kind = gKind;
    LONG high = static_cast<LONG>(in->Number(1)) - 128;
    const uint8_t how = in->Byte();
    SetLastError(0);
    switch (how % 12) {
        case 0: SetFilePointer(handle, static_cast<LONG>(in->Number(4)), (how & 16) != 0 ? &high : nullptr, in->Byte() % 5); break;
        case 1:
            call = &gCalls[in->Byte() % std::size(gCalls)];
            // Not to be waited for: what is outstanding on a pipe ends with its handle only.
            GetOverlappedResult(handle, &call->Ov, &bytes, FALSE);
            break;
        case 2: Refused(SetEvent(handle), "an event that is none"); break;
        case 3: Refused(ResetEvent(handle), "an event that is none"); break;
        case 4:
            // Another process would end this one by design; what stands for the thread itself is not to be suspended.
            if (!gLive) break;
            if (DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
                Hold(copy, kind);
            }
            break;
        case 5: {
            const LPOVERLAPPED ov = Prepare(in, &call, true);
            const bool locked = LockFileEx(handle, LOCKFILE_FAIL_IMMEDIATELY | (how & 16 ? LOCKFILE_EXCLUSIVE_LOCK : 0u), 0,
                                           static_cast<DWORD>(in->Number(4)), static_cast<DWORD>(in->Number(4)), ov);
            Refused(locked, "a lock of no handle");
            break;
        }
        case 6: SleepEx(how / 64, TRUE); break;
        case 7: {
            const LPOVERLAPPED ov = Prepare(in, &call, true);
            const BOOL result = ConnectNamedPipe(handle, ov);
            Started(call, result, false);
            Refused(result, "a pipe that is none");
            break;
        }
        case 8: Refused(CancelIo(handle), "cancelled on no handle"); break;
        case 9: {
            const DWORD slot = (how & 16) != 0 ? TlsAlloc() : static_cast<DWORD>(in->Number(4));
            const bool mine = (how & 16) != 0 && slot != 0xFFFFFFFF;
            if (mine || slot >= 64 + 1024) {
                fuzz::Require(!!TlsSetValue(slot, gMemory) == mine, "a slot that is none", slot);
                fuzz::Require((TlsGetValue(slot) == gMemory) == mine, "a slot's value", slot);
                fuzz::Require(!!TlsFree(slot) == mine, "a slot that is none is freed", slot);
            }
            break;
        }
        case 10: PostUserThread(handle); break;
        default: DisconnectNamedPipe(handle);
    }
}

void CloseOne(size_t index) {
    const Held held = gHeld[index];
    gHeld.erase(gHeld.begin() + static_cast<std::ptrdiff_t>(index));
    if (held.Is == Kind::kThread) {
        // None is left behind suspended.
        for (int i = 0; i < 10000; i++) {
            const DWORD before = ResumeThread(held.Value);
            if (before == 0xFFFFFFFF || before == 0) break;
        }
        fuzz::Require(WaitForSingleObject(held.Value, 30000) == WAIT_OBJECT_0, "a thread that does not end");
    }
    const bool closed = held.Is == Kind::kSocket ? closesocket(reinterpret_cast<SOCKET>(held.Value)) == 0
                                                 : CloseHandle(held.Value) != FALSE;
    fuzz::Require(closed, "an open handle is not closed", reinterpret_cast<uintptr_t>(held.Value), GetLastError());
    gStale = held.Value;
    gStaleKind = held.Is;
}

void RunInput(fuzz::Input input) {
    std::memset(static_cast<void *>(gCalls), 0, sizeof gCalls);
    gStale = nullptr;
    if (truncate(gPath.c_str(), 8192) != 0) fuzz::Require(errno == ENOENT, "no file", static_cast<uint64_t>(errno));
    for (uint32_t steps = 0; !input.Empty() && steps < 64; steps++) {
        const uint8_t what = input.Byte() % 8;
        if (what == 0 || gHeld.size() > 20) {
            if (gHeld.size() <= 20) Create(&input);
            else CloseOne(input.Byte() % gHeld.size());
            continue;
        }
        const HANDLE handle = Pick(&input, &gLive);
        switch (what) {
            case 1: MoveBytes(&input, handle); break;
            case 2: Threads(&input, handle); break;
            case 3: Sockets(&input, handle); break;
            case 4: Waits(&input, handle); break;
            case 5:
                if (!gHeld.empty()) CloseOne(input.Byte() % gHeld.size());
                break;
            case 6:
                SetLastError(0);
                if (!gLive && handle != gStale && (reinterpret_cast<uintptr_t>(handle) & 0xFFFFFFF0u) != 0xFFFFFFF0u) {
                    Refused(CloseHandle(handle), "no handle is closed");
                }
                break;
            default: Others(&input, handle);
        }
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
    if (gPath.empty()) gPath = fuzz::Scratch("exports");
    fuzz::Keep(data, size);
    fuzz::RunStarted(RunInput, data, size);
    return 0;
}
