// platform/system/file_lock.cpp - byte ranges that exclude between handles and between processes.
//
// The kernel's open-file-description locks exclude between file objects, here and in other processes, but not within
// one object: there a second exclusive lock would be merged silently. So each object keeps its ranges in a list, which
// also says what is left of overlapping shared ranges when one of them is released. An exclusive range needs a handle
// that may write, a shared one a handle that may read: the kernel asks for that.
//
// The kernel wakes nobody who does not block in it. A range that is taken is therefore tried again: a synchronous
// handle sleeps between its tries, an overlapped one leaves a request that the engine's owner tries from its reaps.
#include <errno.h>
#include <fcntl.h>

#include <new>

#include "platform/base/futex.h"
#include "platform/system/file.h"

namespace os {

namespace {

// Tries that come too often burn the processor of the holder; 8 ms bound what a waiter loses after the release.
constexpr uint32_t kFirstBackoffMs = 1;
constexpr uint32_t kLastBackoffMs = 8;
constexpr uint32_t kCallsPerClock = 16;  // reaps between two looks at the clock (25 ns)

bool Overlap(const HeldRange *held, uint64_t offset, uint64_t length) {
    return held->Offset < offset + length && offset < held->Offset + held->Length;
}

// One call to the kernel, which never sleeps. 0 or errno.
int SetKernelLock(int fd, short type, uint64_t offset, uint64_t length) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(offset);
    // The largest file offset is where the kernel's ranges end.
    const uint64_t room = static_cast<uint64_t>(INT64_MAX) - offset;
    range.l_len = length > room ? 0 : static_cast<off_t>(length);
    int result;
    do result = fcntl(fd, F_OFD_SETLK, &range);
    while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

// [LockLock] Releases in the kernel what no remaining range of the object covers of [offset, offset + length).
int ReleaseUncoveredLocked(const FileObject *file, uint64_t offset, uint64_t length) {
    const uint64_t end = offset + length;
    while (offset < end) {
        uint64_t next = end;
        bool covered = false;
        for (const HeldRange *held = file->Held; held != nullptr && !covered; held = held->Next) {
            if (held->Offset <= offset && offset < held->Offset + held->Length) {
                next = held->Offset + held->Length;
                covered = true;
            } else if (held->Offset > offset && held->Offset < next) {
                next = held->Offset;
            }
        }
        if (!covered)
            if (const int error = SetKernelLock(file->Fd, F_UNLCK, offset, next - offset)) return error;
        offset = next;
    }
    return 0;
}

DWORD Unlock(FileObject *file, uint64_t offset, uint64_t length) {
    InnerGuard guard(&file->LockLock);
    for (HeldRange **link = &file->Held; *link != nullptr; link = &(*link)->Next) {
        HeldRange *held = *link;
        if (held->Offset != offset || held->Length != length) continue;
        *link = held->Next;
        delete held;
        return ErrorOfErrno(ReleaseUncoveredLocked(file, offset, length));
    }
    return ERROR_NOT_LOCKED;
}

// The range of a caller; false when it lies beyond what a file can have.
bool TakeRange(DWORD low, DWORD high, const OVERLAPPED *overlapped, uint64_t *offset, uint64_t *length) {
    *offset = static_cast<uint64_t>(overlapped->OffsetHigh) << 32 | overlapped->Offset;
    *length = static_cast<uint64_t>(high) << 32 | low;
    if (*offset > INT64_MAX) return false;
    // One past the largest offset ends every range, so that the sums above cannot wrap.
    const uint64_t room = static_cast<uint64_t>(INT64_MAX) + 1 - *offset;
    if (*length > room) *length = room;
    return true;
}

BOOL LockAndWait(FileObject *file, Engine *engine, IoCall *call, bool failAtOnce) {
    uint32_t backoff = kFirstBackoffMs;
    for (;;) {
        const DWORD status = TryLockRange(file, call->Offset, call->Length, call->Exclusive);
        if (status == STATUS_SUCCESS) {
            FinishAtOnce(engine, call);
            return TRUE;
        }
        if (status != kStatusLockConflict || failAtOnce) return FailAtOnce(call, status);
        if (file->Overlapped) return IssueCall(engine, call);
        Sleep(backoff);
        backoff = backoff * 2 < kLastBackoffMs ? backoff * 2 : kLastBackoffMs;
    }
}

}  // namespace

DWORD TryLockRange(IoObject *object, uint64_t offset, uint64_t length, bool exclusive) {
    FileObject *file = static_cast<FileObject *>(object);
    HeldRange *fresh = new (std::nothrow) HeldRange{nullptr, offset, length, exclusive};
    if (fresh == nullptr) return StatusOfError(ERROR_NOT_ENOUGH_MEMORY);
    DWORD status = STATUS_SUCCESS;
    {
        InnerGuard guard(&file->LockLock);
        for (const HeldRange *held = file->Held; held != nullptr; held = held->Next)
            if ((exclusive || held->Exclusive) && Overlap(held, offset, length)) status = kStatusLockConflict;
        if (status == STATUS_SUCCESS) {
            const short type = exclusive ? F_WRLCK : F_RDLCK;
            const int error = SetKernelLock(file->Fd, type, offset, length);
            if (error == EAGAIN || error == EACCES)
                status = kStatusLockConflict;
            else if (error != 0)
                status = StatusOfError(error == EBADF ? ERROR_ACCESS_DENIED : ErrorOfErrno(error));
        }
        if (status == STATUS_SUCCESS) {
            fresh->Next = file->Held;
            file->Held = fresh;
            return status;
        }
    }
    delete fresh;
    return status;
}

void FreeHeldRanges(FileObject *file) {
    while (HeldRange *held = file->Held) {
        file->Held = held->Next;
        delete held;
    }
}

void ParkLock(Engine *engine, Request *request) {
    request->Stage.store(RequestStage::kLocking, std::memory_order_relaxed);
    request->QueueNext = nullptr;
    if (engine->LockTail != nullptr)
        engine->LockTail->QueueNext = request;
    else
        engine->LockHead = request;
    engine->LockTail = request;
    engine->LockCount++;
    engine->Io.Unsubmitted++;
    engine->LockCalls = 0;
    engine->LockBackoffMs = kFirstBackoffMs;
    engine->LockNextTry = DeadlineAfter(kFirstBackoffMs);
}

void RetryLocksSoon(Engine *engine) {
    engine->LockNextTry = 0;
    engine->LockCalls = kCallsPerClock;
}

void RetryLocks(Engine *engine) {
    if (++engine->LockCalls < kCallsPerClock) return;
    engine->LockCalls = 0;
    if (engine->LockNextTry != 0 && MonotonicNs() < engine->LockNextTry) return;
    Request *waiting = engine->LockHead;
    engine->LockHead = engine->LockTail = nullptr;
    engine->Io.Unsubmitted -= engine->LockCount;
    engine->LockCount = 0;
    const uint32_t backoff = engine->LockBackoffMs * 2;
    while (waiting != nullptr) {
        Request *request = waiting;
        waiting = request->QueueNext;
        const IoCall &call = request->Call;
        if (request->Cancelled.load(std::memory_order_relaxed))
            request->Status = STATUS_CANCELLED;
        else
            request->Status = TryLockRange(call.Target, call.Offset, call.Length, call.Exclusive);
        if (request->Status == kStatusLockConflict)
            ParkLock(engine, request);
        else
            EndRequest(engine, request);
    }
    if (engine->LockHead == nullptr) return;
    engine->LockBackoffMs = backoff < kLastBackoffMs ? backoff : kLastBackoffMs;
    engine->LockNextTry = DeadlineAfter(engine->LockBackoffMs);
}

BOOL LockFileEx(HANDLE handle, DWORD flags, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped) {
    if (ShouldFail("LockFileEx")) return FALSE;
    if (overlapped == nullptr || reserved != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    IoCall call;
    call.Target = file;
    call.Ov = overlapped;
    call.Kind = RequestKind::kLock;
    call.ThreadId = GetCurrentThreadId();
    call.Exclusive = (flags & LOCKFILE_EXCLUSIVE_LOCK) != 0;
    const bool valid = TakeRange(low, high, overlapped, &call.Offset, &call.Length);
    if (!valid) SetLastError(ERROR_INVALID_PARAMETER);
    if (!valid || !TakeEvent(&call)) {
        DropCall(&call);
        return FALSE;
    }
    Engine *engine = CurrentEngine();
    if (call.Length == 0) {
        // Nothing to exclude anybody from.
        FinishAtOnce(engine, &call);
        return TRUE;
    }
    return LockAndWait(file, engine, &call, (flags & LOCKFILE_FAIL_IMMEDIATELY) != 0);
}

BOOL UnlockFileEx(HANDLE handle, DWORD reserved, DWORD low, DWORD high, OVERLAPPED *overlapped) {
    if (ShouldFail("UnlockFileEx")) return FALSE;
    uint64_t offset, length;
    if (overlapped == nullptr || reserved != 0 || !TakeRange(low, high, overlapped, &offset, &length)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    const DWORD error = length == 0 ? ERROR_SUCCESS : Unlock(file, offset, length);
    UnrefObject(file);
    // Somebody on this thread may be waiting for just this range.
    if (Engine *engine = CurrentEngine())
        if (engine->LockHead != nullptr) RetryLocksSoon(engine);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

}  // namespace os
