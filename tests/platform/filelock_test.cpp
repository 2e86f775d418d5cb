// Byte ranges: who excludes whom, what waiting looks like on each kind of handle, and what is left after a release.
#include <sys/wait.h>

#include <thread>

#include "io_support.h"

namespace {

BOOL Lock(HANDLE file, uint64_t offset, uint64_t length, DWORD flags, OVERLAPPED *ov) {
    ov->Offset = static_cast<DWORD>(offset);
    ov->OffsetHigh = static_cast<DWORD>(offset >> 32);
    return os::LockFileEx(file, flags, 0, static_cast<DWORD>(length), static_cast<DWORD>(length >> 32), ov);
}

bool TryLock(HANDLE file, uint64_t offset, uint64_t length, bool exclusive) {
    OVERLAPPED ov{};
    const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
    const BOOL ok = Lock(file, offset, length, flags, &ov);
    if (!ok) {
        EXPECT_EQ(ERROR_LOCK_VIOLATION, os::GetLastError());
    }
    return ok != FALSE;
}

DWORD Unlock(HANDLE file, uint64_t offset, uint64_t length) {
    OVERLAPPED ov{};
    ov.Offset = static_cast<DWORD>(offset);
    ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
    const BOOL ok = os::UnlockFileEx(file, 0, static_cast<DWORD>(length), static_cast<DWORD>(length >> 32), &ov);
    return ok ? 0 : os::GetLastError();
}

// Whether another process could take the range now.
bool FreeElsewhere(const Scratch &file, off_t offset, off_t length, bool exclusive) {
    const pid_t child = fork();
    if (child == 0) {
        const int fd = open(file.Name.c_str(), O_RDWR);
        struct flock range {};
        range.l_type = static_cast<short>(exclusive ? F_WRLCK : F_RDLCK);
        range.l_start = offset;
        range.l_len = length;
        _exit(fcntl(fd, F_OFD_SETLK, &range) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WEXITSTATUS(status) == 0;
}

}  // namespace

TEST(FileLock, ExcludesBetweenHandlesAndProcesses) {
    Scratch file("exclude");
    file.Fill(1000);
    const HANDLE a = file.Open(), b = file.Open(0);
    EXPECT_TRUE(TryLock(a, 100, 50, true));
    EXPECT_FALSE(TryLock(b, 149, 1, true));
    EXPECT_FALSE(TryLock(b, 0, 101, false));
    EXPECT_FALSE(TryLock(a, 100, 50, true)) << "not even by the same handle";
    EXPECT_TRUE(TryLock(b, 150, 50, true)) << "ranges that touch do not overlap";
    EXPECT_FALSE(FreeElsewhere(file, 120, 1, false));
    EXPECT_TRUE(FreeElsewhere(file, 0, 100, true));
    EXPECT_EQ(ERROR_NOT_LOCKED, Unlock(a, 100, 49)) << "only what was locked can be released";
    EXPECT_EQ(ERROR_NOT_LOCKED, Unlock(b, 100, 50));
    EXPECT_EQ(0u, Unlock(a, 100, 50));
    EXPECT_TRUE(FreeElsewhere(file, 100, 50, true));
    // Ranges may lie beyond the end, up to where offsets end; one of no length excludes nobody.
    EXPECT_TRUE(TryLock(a, 1ull << 40, UINT64_MAX, true));
    EXPECT_FALSE(TryLock(b, INT64_MAX, 1, false));
    EXPECT_TRUE(TryLock(b, 1ull << 41, 0, true));
    EXPECT_EQ(0u, Unlock(a, 1ull << 40, UINT64_MAX));
    OVERLAPPED ov{};
    EXPECT_FALSE(Lock(a, 1ull << 63, 1, 0, &ov));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, os::GetLastError());
    // Closing releases.
    EXPECT_TRUE(TryLock(a, 0, 10, true));
    os::CloseHandle(a);
    EXPECT_TRUE(TryLock(b, 0, 10, true));
    os::CloseHandle(b);
}

TEST(FileLock, SharedRangesOverlapAndAreReleasedOneByOne) {
    Scratch file("shared");
    file.Fill(1000);
    const HANDLE a = file.Open(), b = file.Open();
    EXPECT_TRUE(TryLock(a, 0, 100, false));
    EXPECT_TRUE(TryLock(a, 50, 100, false));
    EXPECT_TRUE(TryLock(a, 70, 10, false));
    EXPECT_TRUE(TryLock(b, 0, 60, false));
    EXPECT_EQ(0u, Unlock(b, 0, 60));
    EXPECT_EQ(0u, Unlock(a, 0, 100));
    // [50, 150) is still held, by the second.
    EXPECT_TRUE(FreeElsewhere(file, 0, 50, true));
    EXPECT_FALSE(FreeElsewhere(file, 50, 1, true));
    EXPECT_FALSE(FreeElsewhere(file, 99, 1, true));
    EXPECT_TRUE(FreeElsewhere(file, 50, 100, false));
    EXPECT_EQ(0u, Unlock(a, 50, 100));
    EXPECT_TRUE(FreeElsewhere(file, 50, 20, true));
    EXPECT_FALSE(FreeElsewhere(file, 79, 1, true));
    EXPECT_TRUE(FreeElsewhere(file, 80, 70, true));
    const HANDLE readOnly = file.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ);
    OVERLAPPED ov{};
    EXPECT_FALSE(Lock(readOnly, 500, 1, LOCKFILE_EXCLUSIVE_LOCK, &ov));
    EXPECT_EQ(ERROR_ACCESS_DENIED, os::GetLastError());
    for (HANDLE each : {a, b, readOnly}) os::CloseHandle(each);
}

TEST(FileLock, OverlappedHandleIsGrantedLater) {
    Scratch file("later");
    file.Fill(1000);
    const HANDLE holder = file.Open(0), port = NewPort(), waiter = file.Open();
    ASSERT_EQ(port, os::CreateIoCompletionPort(waiter, port, 3, 0));
    ASSERT_TRUE(TryLock(holder, 0, 10, true));
    OVERLAPPED first{}, second{};
    EXPECT_FALSE(Lock(waiter, 0, 10, LOCKFILE_EXCLUSIVE_LOCK, &first));
    EXPECT_EQ(ERROR_IO_PENDING, os::GetLastError());
    EXPECT_FALSE(Lock(waiter, 5, 10, 0, &second));
    EXPECT_TRUE(os::IoNeedsAttention(os::CurrentThreadBlock()->Io)) << "a busy owner must keep looking";
    DWORD bytes;
    uintptr_t key;
    OVERLAPPED *packet;
    EXPECT_FALSE(os::GetQueuedCompletionStatus(port, &bytes, &key, &packet, 30));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&first));
    std::thread other([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(0u, Unlock(holder, 0, 10));
    });
    EXPECT_TRUE(os::GetQueuedCompletionStatus(port, &bytes, &key, &packet, 5000));
    EXPECT_EQ(&first, packet);
    EXPECT_EQ(3u, key);
    other.join();
    EXPECT_FALSE(TryLock(holder, 0, 10, true));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&second));
    EXPECT_EQ(0u, Unlock(waiter, 0, 10));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &second));
    EXPECT_FALSE(os::IoNeedsAttention(os::CurrentThreadBlock()->Io));
    for (HANDLE each : {holder, waiter, port}) os::CloseHandle(each);
}

TEST(FileLock, WaitersCanBeCancelled) {
    Scratch file("cancel");
    file.Fill(1000);
    const HANDLE holder = file.Open(0), port = NewPort(), waiter = file.Open();
    ASSERT_TRUE(TryLock(holder, 0, 10, true));
    OVERLAPPED a{}, b{}, c{};
    for (OVERLAPPED *each : {&a, &b, &c}) ASSERT_FALSE(Lock(waiter, 0, 10, LOCKFILE_EXCLUSIVE_LOCK, each));
    EXPECT_TRUE(os::CancelIoEx(waiter, &b));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &b));
    EXPECT_EQ(STATUS_PENDING, os::LoadStatus(&a));
    std::thread([&] { os::CloseHandle(waiter); }).join();
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &c));
    EXPECT_EQ(0u, Unlock(holder, 0, 10));
    EXPECT_TRUE(FreeElsewhere(file, 0, 10, true)) << "a cancelled waiter took the range";
    os::CloseHandle(holder);
    os::CloseHandle(port);
}

TEST(FileLock, PlainThreadsWaitTheirWay) {
    Scratch file("plain");
    file.Fill(1000);
    const HANDLE holder = file.Open(0), synchronous = file.Open(0), overlapped = file.Open();
    ASSERT_TRUE(TryLock(holder, 0, 10, true));
    OVERLAPPED later{};
    later.hEvent = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    EXPECT_FALSE(Lock(overlapped, 0, 10, LOCKFILE_EXCLUSIVE_LOCK, &later));
    EXPECT_EQ(ERROR_IO_PENDING, os::GetLastError());
    EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(later.hEvent, 30));
    std::atomic<bool> granted{false};
    std::thread blocked([&] {
        OVERLAPPED ov{};
        EXPECT_TRUE(Lock(synchronous, 0, 10, LOCKFILE_EXCLUSIVE_LOCK, &ov));
        granted = true;
        EXPECT_EQ(0u, Unlock(synchronous, 0, 10));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(granted);
    EXPECT_EQ(0u, Unlock(holder, 0, 10));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(later.hEvent, 5000));
    EXPECT_EQ(0u, Unlock(overlapped, 0, 10));
    blocked.join();
    EXPECT_TRUE(granted);
    for (HANDLE each : {holder, synchronous, overlapped, later.hEvent}) os::CloseHandle(each);
}
