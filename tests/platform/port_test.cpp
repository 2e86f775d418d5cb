// tests/platform/port_test.cpp - ports: order and number of packets, wake-ups of a blocked owner, closing, and what
// needs no packet; byte ranges locked between handles and processes.
#include "platform/os_process.h"
#include "support.h"

TEST(Port, PostersKeepTheirOrderAndLoseNothing) {
    constexpr DWORD kEach = 20000;
    const HANDLE port = NewPort();
    std::atomic<uintptr_t> posters{0};
    const auto post = [&] {
        const uintptr_t key = posters++;
        for (DWORD i = 0; i < kEach; i++) {
            ASSERT_TRUE(os::PostQueuedCompletionStatus(port, i, key, nullptr));
            if (i % 64 == 0) std::this_thread::yield();
        }
    };
    std::thread all([&] { Together(post, post, post, post); });
    DWORD next[5] = {};
    for (DWORD i = 0; i < 4 * kEach; i++) {
        const Packet packet = Take(port, 10000);
        ASSERT_EQ(0u, packet.Error) << "after " << i;
        ASSERT_EQ(next[packet.Key]++, packet.Bytes);
    }
    all.join();
    // The owner's own packet was posted after somebody's, although it takes a shorter way.
    Together([&] { os::PostQueuedCompletionStatus(port, 0, 1, nullptr); });
    os::PostQueuedCompletionStatus(port, 0, 2, nullptr);
    for (uintptr_t key : {1u, 2u}) EXPECT_EQ(key, Take(port, 0).Key);
    // Idle, the owner sleeps.
    const clock_t before = clock();
    EXPECT_EQ(WAIT_TIMEOUT, Take(port, 300).Error);
    EXPECT_LT(clock() - before, CLOCKS_PER_SEC / 10);
}

// The window between "will sleep" and "sleeps" is hit from both sides by pauses of every small length.
TEST(Port, ForeignPostAlwaysWakesTheOwner) {
    std::atomic<HANDLE> ports[2] = {nullptr, nullptr};
    auto player = [&](int self) {
        ports[self] = NewPort();
        while (ports[1 - self] == nullptr) std::this_thread::yield();
        std::minstd_rand random(static_cast<unsigned>(self + 77));
        for (int i = 0; i < 20000; i++) {
            if (self == 0 || i > 0) Spin(random, 512), os::PostQueuedCompletionStatus(ports[1 - self], 0, 1, nullptr);
            ASSERT_EQ(0u, Take(ports[self], 10000).Error) << "lost after " << i;
        }
        os::PostQueuedCompletionStatus(ports[1 - self], 0, 1, nullptr);
    };
    Together([&] { player(0); }, [&] { player(1); });
}

TEST(Port, ARecordIsQueuedOnceAndCounted) {
    Scratch file(65536);
    const HANDLE port = NewPort(), handle = file.Open();
    ASSERT_EQ(port, os::CreateIoCompletionPort(handle, port, 42, 0));
    char buffer[4096];
    Operation a, b;
    // What succeeds at once queues a packet too, and is not handed over.
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(0u, a.Read(handle, buffer, 4096));
        ASSERT_EQ(0u, b.Read(handle, buffer, 1000, 4096));
    }
    EXPECT_EQ(nullptr, os::TakeEndedOps(Io()));
    for (Operation *expected : {&a, &a, &b, &b}) {
        const Packet packet = Take(port, 0);
        EXPECT_TRUE(packet.Ov == &expected->Ov && packet.Bytes == expected->Got && packet.Key == 42) << packet.Bytes;
    }
    EXPECT_EQ(WAIT_TIMEOUT, Take(port, 0).Error);
    EXPECT_EQ(0u, a.Op.PacketsQueued);
    // A failed operation's packet carries its error; one that fails at once has none.
    EXPECT_EQ(ERROR_HANDLE_EOF, a.Read(handle, buffer, 10, 1 << 20));
    EXPECT_EQ(nullptr, Take(port, 0).Ov);
    os::CurrentThreadBlock()->InlineBudget = 0;
    EXPECT_EQ(ERROR_IO_PENDING, a.Read(handle, buffer, 10, 1 << 20));
    const Packet failed = Take(port, 5000);
    EXPECT_TRUE(failed.Ov == &a.Ov && failed.Error == ERROR_HANDLE_EOF) << failed.Error;
    EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
    // A closed port keeps nothing of the caller's.
    ASSERT_EQ(0u, a.Read(handle, buffer, 16));
    os::CloseHandle(port);
    EXPECT_EQ(0u, a.Op.PacketsQueued);
}

// The file is bound to another thread's port: the operation ends here, its packet arrives there.
TEST(Port, PacketsFollowTheHandleToItsPortAndAClosedPortEndsTheWait) {
    Scratch file(65536);
    const HANDLE handle = file.Open(), mine = NewPort();
    std::atomic<HANDLE> theirs{nullptr};
    std::atomic<int> taken{0};
    Operation a;
    std::thread owner([&] {
        theirs = NewPort();
        for (; taken < 2; taken++) {
            const Packet packet = Take(theirs, 10000);
            EXPECT_TRUE(packet.Ov == &a.Ov && packet.Bytes == 100 && packet.Key == 9) << packet.Bytes;
        }
        EXPECT_EQ(735u, Take(theirs, 10000).Error);
    });
    while (theirs == nullptr) std::this_thread::yield();
    ASSERT_EQ(theirs, os::CreateIoCompletionPort(handle, theirs, 9, 0));
    char buffer[100];
    EXPECT_EQ(0u, a.Read(handle, buffer, 100));
    os::CurrentThreadBlock()->InlineBudget = 0;
    EXPECT_EQ(ERROR_IO_PENDING, a.Read(handle, buffer, 100, 400));
    EXPECT_EQ(STATUS_SUCCESS, Await(mine, &a.Ov));
    while (taken < 2) std::this_thread::yield();
    Pause(20);
    os::CloseHandle(theirs);
    owner.join();
    EXPECT_EQ(0u, a.Read(handle, buffer, 100));
    EXPECT_EQ(0u, a.Op.PacketsQueued);
}

// It is reset when the operation begins and set at its end; the low bit keeps the packet away and nothing else, and a
// named event is meant by its name.
TEST(Port, TheEventOfAnOperation) {
    Fifo fifo;
    const HANDLE port = NewPort(), pipe = fifo.Open();
    char byte;
    Operation put;
    const auto end = [&](Operation &a, const OVERLAPPED *packet) {
        put.Ov.hEvent = reinterpret_cast<HANDLE>(1);
        put.Write(pipe, "x", 1);
        const OVERLAPPED *got = nullptr;
        while (os::LoadStatus(&a.Ov) == STATUS_PENDING || os::LoadStatus(&put.Ov) == STATUS_PENDING)
            if (const OVERLAPPED *of = Take(port, 1000).Ov) got = of;
        EXPECT_EQ(got, packet);
        os::TakeEndedOps(Io());  // before the record goes
    };
    {
        Operation early;
        ASSERT_EQ(ERROR_IO_PENDING, early.Read(pipe, &byte, 1));
        EXPECT_EQ(port, os::CreateIoCompletionPort(pipe, port, 5, 0));
        end(early, nullptr);  // was issued when nobody was to be told
    }
    const std::string name = "zvx-test-" + std::to_string(getpid());
    for (int way = 0; way < 4; way++) {
        SCOPED_TRACE(way);
        const HANDLE event = os::CreateEventA(nullptr, TRUE, TRUE, way < 2 ? nullptr : name.c_str());
        const HANDLE other = way < 2 ? Duplicate(event) : os::OpenEventA(0, FALSE, name.c_str());
        Operation a;
        a.Ov.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) | (way & 1));
        ASSERT_EQ(ERROR_IO_PENDING, a.Read(pipe, &byte, 1));
        EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(other, 0));
        end(a, way % 2 == 0 ? &a.Ov : nullptr);
        EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(other, 0));
        EXPECT_TRUE(os::ResetEvent(other));
        EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(a.Ov.hEvent, 0));
        EXPECT_TRUE(os::CloseHandle(a.Ov.hEvent));
        EXPECT_EQ(ERROR_INVALID_HANDLE, ErrorOf(os::CloseHandle(event)));
        os::CloseHandle(other);
    }
    Operation a;
    a.Ov.hEvent = os::CreateEventA(nullptr, TRUE, FALSE, nullptr);
    EXPECT_TRUE(os::KeepSignalled(a.Ov.hEvent) && os::ResetEvent(a.Ov.hEvent) && os::CloseHandle(a.Ov.hEvent));
    ASSERT_EQ(ERROR_IO_PENDING, a.Read(pipe, &byte, 1));
    EXPECT_EQ(WAIT_OBJECT_0, os::WaitForSingleObject(a.Ov.hEvent, 0));
    end(a, &a.Ov);
}

TEST(Port, CachedReadsFinishAtOnceUntilTheBudgetIsSpent) {
    Scratch file(1 << 20);
    const HANDLE port = NewPort(), handle = file.Open();
    char buffer[8192];
    Operation a;
    os::CurrentThreadBlock()->InlineBudget = os::kInlineIoBudget;
    for (int round = 0; round < 2; round++) {
        for (uint32_t i = 0; i < 64; i++) {
            ASSERT_EQ(0u, a.Read(handle, buffer, 8192, i * 8192)) << i;
            ASSERT_TRUE(a.Got == 8192 && a.Ov.InternalHigh == 8192 && os::LoadStatus(&a.Ov) == STATUS_SUCCESS);
            ASSERT_TRUE(memcmp(buffer, Pattern(8192, i * 8192).data(), 8192) == 0);
        }
        EXPECT_EQ(nullptr, os::TakeEndedOps(Io()));
        // The 65th could, but others must have their turn.
        ASSERT_EQ(ERROR_IO_PENDING, a.Read(handle, buffer, 8192, 77824));
        EXPECT_TRUE(a.Got == 0 && Io()->Outstanding == 1);
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        EXPECT_TRUE(memcmp(buffer, Pattern(8192, 77824).data(), 8192) == 0);
        EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
        EXPECT_EQ(0u, Io()->Outstanding);
    }
}

// More operations than the submission queue has entries, each handed over once.
TEST(Port, ManyDirectReadsAllEnd) {
    constexpr uint32_t kCount = 600, kSize = 8192;
    Scratch file(kCount * kSize);
    const HANDLE port = NewPort(), handle = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    char *data = static_cast<char *>(std::aligned_alloc(4096, kCount * kSize));
    std::vector<Operation> operations(kCount);
    for (uint32_t i = 0; i < kCount; i++) {
        const uint32_t at = i * 7 % kCount * kSize;
        ASSERT_EQ(ERROR_IO_PENDING, operations[i].Read(handle, data + at, kSize, at));
    }
    uint32_t ended = 0;
    const auto start = std::chrono::steady_clock::now();
    while (ended < kCount && MillisecondsSince(start) < 20000) {
        Take(port, 100);
        for (os::IoOp *op = os::TakeEndedOps(Io()); op != nullptr; op = op->NextEnded, ended++) {
            EXPECT_EQ(STATUS_SUCCESS, os::LoadStatus(op->Ov));
            EXPECT_EQ(kSize, op->Ov->InternalHigh);
        }
    }
    EXPECT_EQ(kCount, ended);
    EXPECT_EQ(0u, Io()->Outstanding);
    EXPECT_EQ(0, std::memcmp(data, Pattern(kCount * kSize).data(), kCount * kSize));
    EXPECT_FALSE(os::IoNeedsAttention(Io()));
    std::free(data);
}

// The disk is awaited as for a transfer; what has no disk behind it is flushed already.
TEST(Port, FlushesEndLater) {
    Scratch file(65536);
    const HANDLE port = NewPort(), handle = file.Open(), event = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    const HANDLE null =
        os::CreateFileA("/dev/null", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    const HANDLE readOnly = file.Open(FILE_FLAG_OVERLAPPED, GENERIC_READ);
    ASSERT_NE(nullptr, os::CreateIoCompletionPort(handle, port, 7, 0));
    const struct {
        HANDLE On;
        DWORD Answer;
    } cases[] = {{handle, ERROR_IO_PENDING}, {null, 0}, {readOnly, ERROR_ACCESS_DENIED}, {event, ERROR_INVALID_HANDLE}};
    for (const auto &c : cases) {
        SCOPED_TRACE(&c - cases);
        Operation a;
        EXPECT_EQ(c.Answer, ErrorOf(os::FlushFileBuffers(c.On, &a.Ov, &a.Op)));
        if (c.Answer != ERROR_IO_PENDING) continue;
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
        EXPECT_EQ(&a.Op, os::TakeEndedOps(Io()));
        EXPECT_EQ(0u, a.Ov.InternalHigh);
    }
    EXPECT_EQ(0u, Io()->Outstanding);
}

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
