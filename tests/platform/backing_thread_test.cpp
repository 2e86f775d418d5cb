// tests/platform/backing_thread_test.cpp - thread objects that run two functions on whoever resumes them.
#include "support.h"

namespace {

// What the two functions saw, and what they answer.
struct Seen {
    std::atomic<int> Captures{0}, Ends{0}, Step{2};
    DWORD Id = 0, ErrorAtEnd = 0, Slot = 0;
    void *FiberData = nullptr, *SlotBefore = nullptr, *StaticTls = nullptr;
    HANDLE Mutex = nullptr;  // taken at the end
    HANDLE Thread = nullptr;

    // Waits for Step 2, which most cases have set at once.
    static void Capture(void *arg) {
        Seen *seen = static_cast<Seen *>(arg);
        if (seen->Step == 0) seen->Step = 1;
        while (seen->Step != 2) std::this_thread::yield();
        seen->Captures++;
        seen->Id = os::GetCurrentThreadId();
        seen->FiberData = os::GetFiberData();
        seen->StaticTls = os::CurrentThreadBlock()->StaticTls;
        seen->SlotBefore = os::TlsGetValue(seen->Slot);
        os::TlsSetValue(seen->Slot, seen);
        os::SetLastError(4321);
    }
    static DWORD End(void *arg) {
        Seen *seen = static_cast<Seen *>(arg);
        seen->Ends++;
        seen->ErrorAtEnd = os::GetLastError();
        if (seen->Mutex != nullptr) os::WaitForSingleObject(seen->Mutex, 0);
        return 7;
    }
    DWORD Make() {
        DWORD id = 0;
        Thread = os::CreateBackingThread(nullptr, Capture, End, this, &id);
        return id;
    }
    DWORD Code() const {
        DWORD code = 0;
        EXPECT_TRUE(os::GetExitCodeThread(Thread, &code));
        return code;
    }
};

TEST(BackingThread, LivesFromCaptureToEndAsAThreadOfItsOwn) {
    Seen seen;
    seen.Slot = os::TlsAlloc();
    seen.Mutex = os::CreateMutexA(nullptr, FALSE, nullptr);
    int own = 0, data = 0;
    os::TlsSetValue(seen.Slot, &own);
    ASSERT_NE(os::ConvertThreadToFiber(&data), nullptr);
    void *staticTls = os::CurrentThreadBlock()->StaticTls;
    const DWORD myId = os::GetCurrentThreadId(), id = seen.Make();
    const HANDLE thread = seen.Thread;
    EXPECT_EQ(seen.Captures, 0) << "created suspended";
    os::SetLastError(1234);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_TRUE(seen.Captures == 1 && seen.Id == id);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(seen.FiberData), os::kNoFiberData);
    EXPECT_TRUE(seen.SlotBefore == nullptr && seen.StaticTls != nullptr && seen.StaticTls != staticTls);
    // The resuming thread is as it was.
    EXPECT_TRUE(os::GetLastError() == 1234 && os::GetCurrentThreadId() == myId && os::GetFiberData() == &data);
    EXPECT_TRUE(os::CurrentThreadBlock()->StaticTls == staticTls && os::TlsGetValue(seen.Slot) == &own);

    // Suspended again; every suspension needs its resume, and the last one ends it.
    EXPECT_EQ(os::SuspendThread(thread), 1u);
    EXPECT_EQ(os::ResumeThread(thread), 2u);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
    EXPECT_EQ(os::ResumeThread(thread), 1u);
    EXPECT_EQ(seen.Ends, 1);
    EXPECT_EQ(seen.ErrorAtEnd, 4321u) << "its last error is its own";
    EXPECT_EQ(seen.Code(), 7u);
    EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(os::WaitForSingleObject(seen.Mutex, 0), WAIT_ABANDONED_0);
    EXPECT_EQ(os::ResumeThread(thread), 0u);
}

TEST(BackingThread, RequestsDuringCaptureWaitForItsEnd) {
    for (const bool terminate : {false, true}) {
        Seen seen;
        seen.Step = 0;
        seen.Make();
        const HANDLE thread = seen.Thread;
        std::thread resumer([&] { EXPECT_EQ(os::ResumeThread(thread), 1u); });
        while (seen.Step != 1) std::this_thread::yield();
        // A suspension adds to the one that follows capture; a termination lets capture finish, because its caller's
        // memory must not go while it runs.
        EXPECT_TRUE(terminate ? os::TerminateThread(thread, 55) != 0 : os::SuspendThread(thread) == 0);
        EXPECT_EQ(os::WaitForSingleObject(thread, 0), WAIT_TIMEOUT);
        seen.Step = 2;
        resumer.join();
        EXPECT_EQ(os::ResumeThread(thread), terminate ? 0u : 2u);
        EXPECT_TRUE(seen.Captures == 1 && seen.Ends == 0);
        if (!terminate) os::ResumeThread(thread);
        EXPECT_EQ(os::WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(seen.Code(), terminate ? 55u : 7u);
        EXPECT_EQ(seen.Ends, terminate ? 0 : 1);
    }
}

}  // namespace
