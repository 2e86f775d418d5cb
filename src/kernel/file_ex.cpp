// kernel/file_ex.cpp - operations with a completion routine, file locks, and results of operations.
//
// Runs on the calling user thread. A routine never runs inside the call that starts its operation: the record
// waits in the thread's FileOvs until the thread waits alertably, and ReapOwnOvs of the scheduler then comes back
// here to deliver it.
#include "alloc/alloc.h"
#include "diag/trace.h"
#include "kernel/file.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

namespace {

// Only the log writer's thread comes here, so plain read-modify-write is enough; idle decisions of every
// scheduler read the figures.
void NoteLogWrite(const Scheduler *S) {
    const uint32_t now = os::GetTickCount();
    const uint32_t writes = gLgwrWriteCount.load(std::memory_order_relaxed) + 1;
    gLgwrWriteCount.store(writes, std::memory_order_relaxed);
    gLgwrLastWriteTick.store(now, std::memory_order_relaxed);
    const uint32_t start = gLgwrPeriodStart.load(std::memory_order_relaxed);
    const uint32_t elapsed = now < start ? now : now - start;
    if (elapsed <= gLGWRHighActivityPeriodInMs) return;
    const bool counts = S->ShadowCount.load(std::memory_order_relaxed) > gLGWRHighActivityNumShadowsThreshold;
    gLgwrWritesLastPeriod.store(counts ? writes : 0, std::memory_order_relaxed);
    gLgwrWriteCount.store(0, std::memory_order_relaxed);
    gLgwrPeriodStart.store(now, std::memory_order_relaxed);
}

void NoteWriteWithRoutine(Fiber *F, FIBEROVERLAPPED *rec) {
    if (F->Role == ROLE_LGWR) {
        NoteLogWrite(SchedOf(F));
    } else if (F->Role == ROLE_DBWR && !IsEmpty(&F->FileOvs) && (rec->Flags & OV_PACKET_EXPECTED) != 0) {
        // A database writer keeps many writes in flight; after the first, a packet each would be waste.
        rec->Ov.hEvent = WithoutPacket(nullptr);
        rec->Flags &= ~static_cast<uint32_t>(OV_PACKET_EXPECTED);
    }
}

BOOL StartWithRoutine(Fiber *F, PSEHAND *entry, HANDLE file, void *buffer, DWORD count, OVERLAPPED *caller,
                      LPOVERLAPPED_COMPLETION_ROUTINE routine, bool write) {
    if (entry->Type == PHAND_HTYPE_WSASocket || entry->Type == PHAND_HTYPE_socket) [[unlikely]] {
        FatalExit("%s", write ? "ZWriteFileEx NOT WRAPPED SOCKET\n" : "ZReadFileEx NOT WRAPPED SOCKET\n");
    }
    if ((entry->Flags.load(std::memory_order_acquire) & PHAND_FLAG_ASYNC_CALLER) == 0) {
        os::SetLastError(0xFFFFFFFF);
        return FALSE;
    }
    Scheduler *S = SchedOf(F);
    FIBEROVERLAPPED *rec = AllocOv(F, entry, write ? uint32_t{OP_WRITE_FILE_EX} : uint32_t{OP_READ_FILE_EX});
    F->PendingApcIos++;
    rec->Ov.hEvent = nullptr;
    rec->Ov.Offset = caller->Offset;
    rec->Ov.OffsetHigh = caller->OffsetHigh;
    os::StoreStatus(&rec->Ov, 0xFFFFFFFF);
    rec->Ov.InternalHigh = 0;
    PacketOrPoll(S, rec, entry, OV_FILE_ROUTINE, false);
    rec->OsHandle = file;
    rec->CompletionRoutine = routine;
    rec->CallerOv = caller;
    if (write) NoteWriteWithRoutine(F, rec);

    DWORD bytes = 0;
    const BOOL done = write ? os::WriteFile(file, buffer, count, &bytes, &rec->Ov, &rec->Io)
                            : os::ReadFile(file, buffer, count, &bytes, &rec->Ov, &rec->Io);
    if (!done && os::GetLastError() != ERROR_IO_PENDING) {
        ForgetFailedOv(rec);
        FreeOv(rec, S);
        F->PendingApcIos--;
        return FALSE;
    }
    AppendLink(&F->FileOvs, &rec->Link);
    NoteOwnOvFiled(S, rec);
    return TRUE;
}

}  // namespace

BOOL ReadFileEx(HANDLE file, void *buffer, DWORD count, OVERLAPPED *overlapped,
                LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpHandle(file) : nullptr;
    if (entry == nullptr) return os::ReadFileEx(file, buffer, count, overlapped, routine);
    return StartWithRoutine(F, entry, file, buffer, count, overlapped, routine, false);
}

BOOL WriteFileEx(HANDLE file, const void *buffer, DWORD count, OVERLAPPED *overlapped,
                 LPOVERLAPPED_COMPLETION_ROUTINE routine) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpHandle(file) : nullptr;
    if (entry == nullptr) return os::WriteFileEx(file, buffer, count, overlapped, routine);
    return StartWithRoutine(F, entry, file, const_cast<void *>(buffer), count, overlapped, routine, true);
}

void DeliverFileCompletion(FIBEROVERLAPPED *rec, Fiber *F) {
    const auto routine = (rec->Flags & OV_CANCELLED) == 0 ? rec->CompletionRoutine : nullptr;
    OVERLAPPED *const caller = rec->CallerOv;
    DWORD bytes = rec->Ov.InternalHigh;
    DWORD error = ERROR_SUCCESS;
    if (routine != nullptr) {
        const DWORD status = os::LoadStatus(&rec->Ov);
        caller->InternalHigh = bytes;
        os::StoreStatus(caller, status);
        if (status != STATUS_SUCCESS && !os::GetOverlappedResult(rec->OsHandle, &rec->Ov, &bytes, FALSE)) {
            error = os::GetLastError();
        }
    }
    // Before the routine, which may end the thread or take it to another scheduler: an end awaits what is counted, and
    // the record belongs to the scheduler that its packets come to.
    F->PendingApcIos--;
    FreeOv(rec, SchedOf(F));
    if (routine != nullptr) routine(error, bytes, caller);
    F->ApcDelivered = 1;
}

BOOL LockFileEx(HANDLE file, DWORD flags, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped) {
    PSEHAND *entry = CallingFiber() != nullptr ? LookUpHandle(file) : nullptr;
    if (entry == nullptr) return os::LockFileEx(file, flags, reserved, low, high, overlapped);
    const uint32_t handleFlags = entry->Flags.load(std::memory_order_acquire);
    if ((handleFlags & PHAND_FLAG_ON_PORT) != 0 && overlapped != nullptr) {
        overlapped->hEvent = WithoutPacket(overlapped->hEvent);
    }
    const BOOL locked = os::LockFileEx(file, flags, reserved, low, high, overlapped);
    if (!locked && (handleFlags & PHAND_FLAG_ASYNC_ADDED) != 0 && os::GetLastError() == ERROR_IO_PENDING) {
        DWORD bytes = 0;
        return GetOverlappedResult(file, overlapped, &bytes, TRUE);
    }
    return locked;
}

BOOL GetOverlappedResult(HANDLE file, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::GetOverlappedResult(file, overlapped, bytes, wait);
    if (wait) {
        // What the thread waits for, as dumps show it. It is put back, because the caller's record goes away.
        OVERLAPPED *const before = F->CurOv;
        F->CurOv = overlapped;
        while (!os::HasOverlappedIoCompleted(overlapped)) Sleep(10);
        F->CurOv = before;
    }
    if (os::LoadStatus(overlapped) == STATUS_SUCCESS) {
        *bytes = overlapped->InternalHigh;
        return TRUE;
    }
    return os::GetOverlappedResult(file, overlapped, bytes, FALSE);
}

}  // namespace zvx
