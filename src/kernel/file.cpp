// kernel/file.cpp - opening, reading, writing and positioning files.
//
// Runs on the calling user thread. A read or write of a synchronous-use file starts an overlapped operation on one
// of the three records inside the Fiber and yields until it has ended, so it allocates nothing and makes no system
// call of its own. Operations with a completion routine, locks and results are in file_ex.cpp.
//
// Whoever yields here may find the handle closed when it runs again. It keeps the handle value and the serial of
// the entry across the wait, never the entry.
#include "kernel/file.h"

#include "diag/trace.h"
#include "sched/sched.h"
#include "zvxkvt/pipetypes.h"

namespace zvx {

HANDLE WithoutPacket(HANDLE event) {
    const HANDLE used = event != nullptr ? event : AvoidCompletionEvent;
    return reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(used) | 1);
}

// ---- Opening -----------------------------------------------------------------------------------------

bool BindNewHandle(Scheduler *S, PSEHAND *entry) {
    if (gNumContextSwitchesBeforePolling == 0) return true;
    const HANDLE handle = HandleValue(entry);
    const HANDLE port = os::CreateIoCompletionPort(handle, S->Port, reinterpret_cast<uintptr_t>(handle), 0);
    // An answer without the port and without an error counts as an association.
    if (port != S->Port && os::GetLastError() != ERROR_SUCCESS) return false;
    entry->PortIndex = S->Index;
    entry->Flags.fetch_or(PHAND_FLAG_ON_PORT, std::memory_order_release);
    return true;
}

namespace {

template <typename Name, HANDLE (*OsCreate)(const Name *, DWORD, DWORD, SECURITY_ATTRIBUTES *, DWORD, DWORD, HANDLE)>
HANDLE OpenFile(uint32_t type, const Name *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security,
                DWORD disposition, DWORD flags, HANDLE templateFile) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return OsCreate(name, access, share, security, disposition, flags, templateFile);
    const bool byCaller = (flags & FILE_FLAG_OVERLAPPED) != 0;
    const HANDLE file =
        OsCreate(name, access, share, security, disposition, flags | FILE_FLAG_OVERLAPPED, templateFile);
    if (file == INVALID_HANDLE_VALUE) return INVALID_HANDLE_VALUE;

    Scheduler *S = SchedOf(F);
    PSEHAND *entry = AllocHandleEntry(S, S->NumaNode);
    entry->Flags.store(byCaller ? PHAND_FLAG_ASYNC_CALLER : PHAND_FLAG_ASYNC_ADDED, std::memory_order_relaxed);
    entry->OwnerFiber = F;
    entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(file));
    entry->Type = type;
    // Bound before it is inserted, so that whoever finds the entry finds it complete.
    if (!BindNewHandle(S, entry)) {
        const DWORD error = os::GetLastError();
        FreeHandleEntry(entry, S);
        os::CloseHandle(file);
        os::SetLastError(error);
        return INVALID_HANDLE_VALUE;
    }
    InsertHandle(entry);
    return file;
}

}  // namespace

HANDLE CreateFileA(const char *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    return OpenFile<char, os::CreateFileA>(PHAND_HTYPE_CreateFileA, name, access, share, security, disposition, flags,
                                           templateFile);
}

HANDLE CreateFileW(const WCHAR *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    return OpenFile<WCHAR, os::CreateFileW>(PHAND_HTYPE_CreateFileW, name, access, share, security, disposition, flags,
                                            templateFile);
}

// ---- Reading and writing -----------------------------------------------------------------------------

FIBEROVERLAPPED *PrepareOwnOv(Fiber *F, const OVERLAPPED *given, PSEHAND *entry, bool neverPoll, uint32_t opArg) {
    FIBEROVERLAPPED *rec = FreeOwnOv(F);
    F->CurOv = &rec->Ov;
    rec->OpArg = opArg;
    rec->HandleType = entry->Type;
    rec->HandleRec = entry;
    rec->OsHandle = HandleValue(entry);
    os::StoreStatus(&rec->Ov, 0xFFFFFFFF);
    rec->Ov.InternalHigh = 0xFFFFFFFF;
    if (given != nullptr) {
        rec->Ov.Offset = given->Offset;
        rec->Ov.OffsetHigh = given->OffsetHigh;
        // Without the low bit of an earlier operation of the caller's: whether a packet comes is decided below.
        rec->Ov.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(given->hEvent) & ~uintptr_t{1});
    } else {
        const uint64_t position = RootOf(entry)->FilePosition.load(std::memory_order_relaxed);
        rec->Ov.Offset = static_cast<DWORD>(position);
        rec->Ov.OffsetHigh = static_cast<DWORD>(position >> 32);
        rec->Ov.hEvent = nullptr;
    }
    PacketOrPoll(SchedOf(F), rec, entry, OV_FILE, neverPoll);
    return rec;
}

void ForgetFailedOv(FIBEROVERLAPPED *rec) {
    os::StoreStatus(&rec->Ov, 0);
    rec->Flags &= ~static_cast<uint32_t>(OV_PACKET_EXPECTED);
}

namespace {

struct Transfer {
    HANDLE File;
    void *Buffer;
    DWORD Count;
    bool Write;
};

BOOL Issue(const Transfer &what, DWORD *moved, OVERLAPPED *overlapped, os::IoOp *op) {
    return what.Write ? os::WriteFile(what.File, what.Buffer, what.Count, moved, overlapped, op)
                      : os::ReadFile(what.File, what.Buffer, what.Count, moved, overlapped, op);
}

// The host's own operation, or a handle that is not wrapped: the operating system's answer, and its byte count
// where the caller asked for it.
BOOL PassThrough(const Transfer &what, DWORD *moved, OVERLAPPED *overlapped) {
    DWORD bytes = 0;
    const BOOL result = Issue(what, &bytes, overlapped, nullptr);
    if (moved != nullptr) *moved = bytes;
    return result;
}

// The end of the file is no error for a read: nothing is left, and that is what it returns.
bool IsEndOfFile(const Transfer &what) {
    return !what.Write && os::GetLastError() == ERROR_HANDLE_EOF;
}

// Yields until the operation on `rec` has ended; its result. The caller's handle may be closed by then.
[[gnu::noinline]] BOOL AwaitTransfer(Fiber *F, const Transfer &what, FIBEROVERLAPPED *rec, DWORD *bytes) {
    WaitForCurOv(F);
    if (os::LoadStatus(&rec->Ov) == STATUS_SUCCESS) {
        *bytes = rec->Ov.InternalHigh;
        return TRUE;
    }
    if (os::GetOverlappedResult(what.File, &rec->Ov, bytes, FALSE)) return TRUE;
    if (os::GetLastError() == ERROR_MORE_DATA) return FALSE;
    *bytes = 0;
    return IsEndOfFile(what);
}

BOOL TransferAndWait(Fiber *F, const Transfer &what, PSEHAND *entry, DWORD *moved, OVERLAPPED *caller) {
    FIBEROVERLAPPED *rec =
        PrepareOwnOv(F, caller, entry, false, what.Write ? uint32_t{OP_WRITE_FILE} : uint32_t{OP_READ_FILE});
    const uint32_t serial = entry->Serial;
    DWORD bytes = 0;
    BOOL result = Issue(what, &bytes, &rec->Ov, &rec->Io);
    if (result) {
        AccountPacket(rec);
    } else if (os::GetLastError() == ERROR_IO_PENDING) {
        result = AwaitTransfer(F, what, rec, &bytes);
        entry = SameHandle(what.File, serial);
    } else {
        // The beginning of a message that is longer than the buffer comes with its bytes.
        if (os::GetLastError() != ERROR_MORE_DATA) bytes = 0;
        ForgetFailedOv(rec);
        result = IsEndOfFile(what);
    }
    if (caller != nullptr) {
        caller->InternalHigh = rec->Ov.InternalHigh;
        os::StoreStatus(caller, os::LoadStatus(&rec->Ov));
    }
    if (!result) {
        if (moved != nullptr) *moved = bytes;
        return FALSE;
    }
    if (entry != nullptr) {
        // Last finisher wins, as with one file pointer that several threads share.
        const uint64_t start = uint64_t{rec->Ov.OffsetHigh} << 32 | rec->Ov.Offset;
        RootOf(entry)->FilePosition.store(start + bytes, std::memory_order_relaxed);
    }
    if (moved != nullptr) *moved = bytes;
    return TRUE;
}

BOOL TransferFile(Fiber *F, const Transfer &what, DWORD *moved, OVERLAPPED *overlapped) {
    if (moved != nullptr) *moved = 0;
    PSEHAND *entry = LookUpHandle(what.File);
    if (entry == nullptr) return PassThrough(what, moved, overlapped);
    if (entry->Type == PHAND_HTYPE_WSASocket || entry->Type == PHAND_HTYPE_socket) [[unlikely]] {
        FatalExit("%s", what.Write ? "ZWriteFile: NOT WRAPPED SOCKET\n" : "ZReadFile: NOT WRAPPED SOCKET\n");
    }
    const uint32_t flags = entry->Flags.load(std::memory_order_acquire);
    if ((flags & PHAND_FLAG_ASYNC_ADDED) == 0 && overlapped != nullptr) {
        // The host waits for this one itself; its packet would only wake our scheduler.
        if ((flags & PHAND_FLAG_ON_PORT) != 0) overlapped->hEvent = WithoutPacket(overlapped->hEvent);
        return PassThrough(what, moved, overlapped);
    }
    return TransferAndWait(F, what, entry, moved, overlapped);
}

}  // namespace

BOOL ReadFile(HANDLE file, void *buffer, DWORD count, DWORD *got, OVERLAPPED *overlapped) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::ReadFile(file, buffer, count, got, overlapped);
    return TransferFile(F, Transfer{file, buffer, count, false}, got, overlapped);
}

BOOL WriteFile(HANDLE file, const void *buffer, DWORD count, DWORD *put, OVERLAPPED *overlapped) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::WriteFile(file, buffer, count, put, overlapped);
    return TransferFile(F, Transfer{file, const_cast<void *>(buffer), count, true}, put, overlapped);
}

// A disk takes milliseconds: the caller parks, as for a transfer, and the position stays.
BOOL FlushFileBuffers(HANDLE file) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpHandle(file) : nullptr;
    if (entry == nullptr) return os::FlushFileBuffers(file);
    FIBEROVERLAPPED *rec = PrepareOwnOv(F, nullptr, entry, false, OP_FLUSH_FILE);
    if (os::FlushFileBuffers(file, &rec->Ov, &rec->Io)) {
        AccountPacket(rec);
        return TRUE;
    }
    if (os::GetLastError() == ERROR_IO_PENDING) {
        WaitForCurOv(F);
        DWORD bytes;
        return os::GetOverlappedResult(file, &rec->Ov, &bytes, FALSE);
    }
    ForgetFailedOv(rec);
    return FALSE;
}

// ---- The file position -------------------------------------------------------------------------------

namespace {

// FILE_CURRENT on a file whose position the library keeps: the operating system does not know where that is.
DWORD MovePosition(PSEHAND *root, LONG distance, LONG *distanceHigh) {
    int64_t offset = distance;
    if (distanceHigh != nullptr) {
        offset = static_cast<int64_t>(uint64_t{static_cast<uint32_t>(*distanceHigh)} << 32 |
                                      static_cast<uint32_t>(distance));
    }
    const uint64_t position = root->FilePosition.load(std::memory_order_relaxed);
    if (offset < 0 && uint64_t{0} - static_cast<uint64_t>(offset) > position) {
        os::SetLastError(ERROR_NEGATIVE_SEEK);
        return INVALID_SET_FILE_POINTER;
    }
    const uint64_t moved = position + static_cast<uint64_t>(offset);
    root->FilePosition.store(moved, std::memory_order_relaxed);
    if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(moved >> 32);
    os::SetLastError(ERROR_SUCCESS);
    return static_cast<DWORD>(moved);
}

}  // namespace

DWORD SetFilePointer(HANDLE file, LONG distance, LONG *distanceHigh, DWORD method) {
    PSEHAND *entry = CallingFiber() != nullptr ? LookUpHandle(file) : nullptr;
    if (entry == nullptr) return os::SetFilePointer(file, distance, distanceHigh, method);
    PSEHAND *root = RootOf(entry);
    if (method == FILE_CURRENT && (root->Flags.load(std::memory_order_acquire) & PHAND_FLAG_ASYNC_ADDED) != 0) {
        return MovePosition(root, distance, distanceHigh);
    }
    const DWORD low = os::SetFilePointer(file, distance, distanceHigh, method);
    if (low == INVALID_SET_FILE_POINTER && (distanceHigh == nullptr || os::GetLastError() != ERROR_SUCCESS)) return low;
    // Without a high part the operating system accepted a position below 4 GiB: the old high word would be wrong.
    const uint64_t high = distanceHigh != nullptr ? static_cast<uint32_t>(*distanceHigh) : 0;
    root->FilePosition.store(high << 32 | low, std::memory_order_relaxed);
    return low;
}

}  // namespace zvx
