// The promises of the scripted operating system that every other unit test rests on: when Internal changes, which
// packets come and in which order, where control goes in a wait, and whose fiber data a recorded thread sees.
#include <gtest/gtest.h>

#include "scripted_os.h"

namespace os {
namespace {

using namespace script;

struct Got {
    BOOL Ok;
    OVERLAPPED *Ov;
    uintptr_t Key;
    DWORD Bytes;
};

Got Take(HANDLE port, DWORD ms = 0) {
    Got got{};
    got.Ok = GetQueuedCompletionStatus(port, &got.Bytes, &got.Key, &got.Ov, ms);
    return got;
}

TEST(ScriptedOs, AnOperationEndsAtTheReap) {
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    IoThread *io = IoThreadOf(port);
    ASSERT_EQ(CurrentThreadBlock()->Io, io);
    const HANDLE file = CreateFileA("data", 0, 0, nullptr, 0, FILE_FLAG_OVERLAPPED, nullptr);
    EXPECT_EQ(CreateIoCompletionPort(file, port, 42, 0), port);
    EXPECT_EQ(CreateIoCompletionPort(file, port, 43, 0), nullptr);

    OVERLAPPED ov[3] = {};
    IoOp ops[3] = {};
    ov[2].hEvent = reinterpret_cast<HANDLE>(uintptr_t{1});  // no packet
    for (int i = 0; i < 3; i++) EXPECT_FALSE(ReadFile(file, nullptr, 8, nullptr, &ov[i], &ops[i]));
    EXPECT_EQ(GetLastError(), ERROR_IO_PENDING);
    EndOperation(&ov[2], STATUS_SUCCESS, 3);
    EndOperation(&ov[1], StatusOfError(ERROR_DISK_FULL), 0);
    EXPECT_EQ(LoadStatus(&ov[2]), STATUS_PENDING);
    EXPECT_TRUE(IoNeedsAttention(io));
    ReapIo(io);
    EXPECT_FALSE(IoNeedsAttention(io));
    EXPECT_EQ(LoadStatus(&ov[2]), STATUS_SUCCESS);
    EXPECT_EQ(ov[2].InternalHigh, 3u);
    IoOp *ended = TakeEndedOps(io);
    EXPECT_EQ(ended, &ops[2]);
    EXPECT_EQ(ended->NextEnded, &ops[1]);
    EXPECT_EQ(TakeEndedOps(io), nullptr);
    EXPECT_EQ(io->Outstanding, 1u);

    // The packet of the failed one; the cancelled one ends within the next look at the port.
    Got got = Take(port);
    EXPECT_FALSE(got.Ok);
    EXPECT_EQ(got.Ov, &ov[1]);
    EXPECT_EQ(got.Key, 42u);
    EXPECT_EQ(GetLastError(), ERROR_DISK_FULL);
    EXPECT_EQ(CancelIoInRange(&ov[0], &ov[1]), 1u);
    EXPECT_EQ(LoadStatus(&ov[0]), STATUS_PENDING);
    got = Take(port);
    EXPECT_EQ(got.Ov, &ov[0]);
    EXPECT_EQ(GetLastError(), ERROR_OPERATION_ABORTED);
    EXPECT_FALSE(CancelIoEx(file, &ov[0]));
    EXPECT_EQ(TakeEndedOps(io), &ops[0]);

    // Done at once: its packet comes all the same, unless the event's low bit is set.
    gScript.OnIo = [](const IoCall &call) { return Done(call.Count); };
    EXPECT_TRUE(WriteFile(file, nullptr, 5, nullptr, &ov[0], &ops[0]));
    EXPECT_TRUE(WriteFile(file, nullptr, 5, nullptr, &ov[2], &ops[2]));
    EXPECT_EQ(TakeEndedOps(io), nullptr);
    got = Take(port);
    EXPECT_TRUE(got.Ok);
    EXPECT_EQ(got.Ov, &ov[0]);
    EXPECT_EQ(got.Bytes, 5u);
    EXPECT_EQ(Take(port).Ov, nullptr);
    EXPECT_EQ(GetLastError(), WAIT_TIMEOUT);
}

TEST(ScriptedOs, WaitsAndSpins) {
    const HANDLE port = CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    const uint64_t before = GetTickCount64();
    EXPECT_EQ(Take(port, 5).Ov, nullptr);
    EXPECT_EQ(GetTickCount64(), before + 5);
    gScript.OnPortWait = [](HANDLE waited, DWORD ms) { PostQueuedCompletionStatus(waited, ms, 1, nullptr); };
    Got got = Take(port, 7);
    EXPECT_TRUE(got.Ok);
    EXPECT_EQ(got.Bytes, 7u);
    for (uint32_t i = 0; i < gScript.SpinLimit; i++) ASSERT_FALSE(Take(port).Ok);
    EXPECT_TRUE(Take(port).Ok) << "a poller that finds nothing comes to a wait too";
    int spins = 0;
    gScript.OnSpin = [&spins] { spins++; };
    for (uint32_t i = 0; i <= 10 * gScript.SpinLimit; i++) ReadTsc();
    EXPECT_EQ(spins, 1);
}

DWORD ThreadBody(void *param) {
    *static_cast<uintptr_t *>(param) = reinterpret_cast<uintptr_t>(GetFiberData());
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_HIGHEST);
    if (GetCurrentThreadId() != gScript.Threads.front().Id) return 1;
    ExitThread(17);
}

TEST(ScriptedOs, RecordedThreads) {
    int mine;
    ASSERT_NE(ConvertThreadToFiber(&mine), nullptr);
    uintptr_t seen = 0;
    DWORD id = 0;
    const HANDLE thread = CreateThread(nullptr, 65536, ThreadBody, &seen, CREATE_SUSPENDED, &id);
    EXPECT_EQ(ResumeThread(thread), 1u);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    RunThread(id);
    DWORD code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 17u);
    EXPECT_EQ(seen, kNoFiberData);
    EXPECT_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(gScript.PriorityCalls.back().ThreadId, id);
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_HIGHEST);
    EXPECT_TRUE(CloseHandle(thread));
}

}  // namespace
}  // namespace os
