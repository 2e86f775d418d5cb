// tests/platform/file_test.cpp - byte ranges locked between handles and processes.
#include "support.h"

namespace {

DWORD Lock(HANDLE file, DWORD flags, DWORD offset, DWORD length, Operation *a) {
    return ErrorOf(os::LockFileEx(file, flags, 0, length, 0, a->At(offset)));
}

bool TryLock(HANDLE file, DWORD offset, DWORD length, DWORD kind = LOCKFILE_EXCLUSIVE_LOCK) {
    Operation a;
    const DWORD error = Lock(file, LOCKFILE_FAIL_IMMEDIATELY | kind, offset, length, &a);
    EXPECT_TRUE(error == 0 || error == ERROR_LOCK_VIOLATION) << error;
    return error == 0;
}

bool Unlock(HANDLE file, DWORD offset, DWORD length) {
    Operation a;
    return os::UnlockFileEx(file, 0, length, 0, a.At(offset)) != FALSE;
}

// Whether another process could take the range now.
bool FreeElsewhere(const Scratch &file, off_t offset, off_t length) {
    return RunInChild([&] {
               struct flock range {};
               range.l_type = F_WRLCK;
               range.l_start = offset;
               range.l_len = length;
               _exit(fcntl(open(file.Name.c_str(), O_RDWR), F_OFD_SETLK, &range) == 0 ? 0 : 1);
           }).ExitCode == 0;
}

}  // namespace

TEST(FileLock, ExcludesBetweenHandlesAndProcessesAndIsReleasedRangeByRange) {
    Scratch file(1000);
    const HANDLE a = file.Open(), b = file.Open(0);
    EXPECT_TRUE(TryLock(a, 100, 50));
    EXPECT_FALSE(TryLock(b, 149, 1));
    EXPECT_FALSE(TryLock(b, 0, 101, 0));
    EXPECT_FALSE(TryLock(a, 100, 50)) << "not even by the same handle";
    EXPECT_TRUE(TryLock(b, 150, 50)) << "ranges that touch do not overlap";
    EXPECT_FALSE(FreeElsewhere(file, 120, 1));
    EXPECT_FALSE(Unlock(a, 100, 49)) << "only what was locked can be released";
    EXPECT_TRUE(Unlock(a, 100, 50));
    EXPECT_TRUE(FreeElsewhere(file, 100, 50));
    // Shared ones overlap; a release leaves what another of them still covers.
    for (const DWORD begin : {500u, 550u}) EXPECT_TRUE(TryLock(a, begin, 100, 0));
    EXPECT_TRUE(TryLock(a, 570, 10, 0) && TryLock(b, 500, 60, 0));
    EXPECT_TRUE(Unlock(b, 500, 60) && Unlock(a, 500, 100));
    EXPECT_TRUE(FreeElsewhere(file, 500, 50) && !FreeElsewhere(file, 599, 1));
    EXPECT_TRUE(Unlock(a, 550, 100));
    EXPECT_TRUE(FreeElsewhere(file, 550, 20) && !FreeElsewhere(file, 579, 1) && FreeElsewhere(file, 580, 70));
    os::CloseHandle(a);
    EXPECT_TRUE(TryLock(b, 570, 10)) << "closing releases";
    os::CloseHandle(b);
}

TEST(FileLock, IsGrantedLaterOrCancelled) {
    Scratch file(1000);
    const HANDLE holder = file.Open(0), port = NewPort(), waiter = file.Open();
    ASSERT_EQ(port, os::CreateIoCompletionPort(waiter, port, 3, 0));
    ASSERT_TRUE(TryLock(holder, 0, 10));
    Operation a[5];
    for (Operation &each : a) EXPECT_EQ(ERROR_IO_PENDING, Lock(waiter, LOCKFILE_EXCLUSIVE_LOCK, 0, 10, &each));
    EXPECT_TRUE(os::IoNeedsAttention(Io())) << "a busy owner must keep looking";
    EXPECT_EQ(nullptr, Take(port, 30).Ov);
    EXPECT_TRUE(os::CancelIoEx(waiter, &a[1].Ov));
    EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[1].Ov));
    Together([&] { EXPECT_TRUE(Unlock(holder, 0, 10)); });
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &a[0].Ov));
    EXPECT_FALSE(TryLock(holder, 0, 10));
    EXPECT_TRUE(Unlock(waiter, 0, 10));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &a[2].Ov));
    Together([&] { os::CloseHandle(waiter); });
    for (const int i : {3, 4}) EXPECT_EQ(STATUS_CANCELLED, Await(port, &a[i].Ov));
    EXPECT_FALSE(os::IoNeedsAttention(Io()));
    EXPECT_TRUE(FreeElsewhere(file, 0, 10)) << "a cancelled waiter took the range";
}
