// tests/unit/wait_call_test.cpp - waits on objects under a clock that stands still.
#include "kernel/wait.h"

#include <gtest/gtest.h>

#include "kernel/file.h"
#include "sched_fixture.h"

namespace zvx::test {
namespace {

namespace script = os::script;
using Names = std::vector<std::string>;

HANDLE gEvent;
uint32_t gRoutines;

void PlainRoutine(DWORD, DWORD, LPOVERLAPPED) {
    gRoutines++;
}
// A routine that itself waits, alertably too.
void WaitingRoutine(DWORD, DWORD, LPOVERLAPPED) {
    gRoutines++;
    Sleep(3);
    EXPECT_EQ(SleepEx(2, TRUE), 0u);
}

struct WaitCall : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
        gEvent = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
        gRoutines = 0;
    }
    void TearDown() override { CheckScheduler(S); }
    Fiber *Run(std::function<void(Fiber *)> body) {
        Fiber *F = NewFiber(S, std::move(body));
        RunUntilIdle(S);
        return F;
    }
    void Pass(uint32_t ms) {
        for (uint32_t i = 0; i < ms; i++) {
            script::AdvanceClock(1);
            RunUntilIdle(S);
        }
    }
    static HANDLE Open() {
        return CreateFileA("name", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    }
    Scheduler *S = nullptr;
};

TEST_F(WaitCall, ZeroTestsOnceAndNeverYields) {
    Run([&](Fiber *) {
        const uint32_t passes = S->SwitchCount.load();
        EXPECT_EQ(WaitForSingleObject(gEvent, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForMultipleObjects(1, &gEvent, TRUE, 0), WAIT_TIMEOUT);
        os::SetEvent(gEvent);
        EXPECT_EQ(WaitForSingleObject(gEvent, 0), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObjectEx(nullptr, INFINITE, TRUE), WAIT_FAILED);
        EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(S->SwitchCount.load(), passes);
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

TEST_F(WaitCall, TimesOutAfterTheWholeTimeAndSeesASetInTime) {
    Run([](Fiber *) { Note(std::to_string(WaitForSingleObject(gEvent, 25))); });
    Pass(24);
    EXPECT_TRUE(TakeNotes().empty());
    Pass(1 + gTimerInterval);
    EXPECT_EQ(TakeNotes(), Names{"258"});
    Run([](Fiber *) { Note(std::to_string(WaitForSingleObject(gEvent, INFINITE))); });
    Pass(100);
    os::SetEvent(gEvent);
    Pass(gTimerInterval + 1);
    EXPECT_EQ(TakeNotes(), Names{"0"});
}

// The event of an overlapped call keeps its mark in the caller's OVERLAPPED; it is still that event.
TEST_F(WaitCall, TheMarkOfAnEventIsNoPartOfIt) {
    Run([&](Fiber *) {
        const HANDLE marked = WithoutPacket(gEvent);
        EXPECT_TRUE(SetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(marked, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked));
        const HANDLE both[2] = {os::CreateEventA(nullptr, TRUE, TRUE, nullptr), marked};
        EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked) && ResetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(gEvent, 0), WAIT_TIMEOUT);
        Note("done");
    });
    EXPECT_EQ(TakeNotes(), Names{"done"});
}

// An alertable wait is ended by an own operation at once, not at the next slice; an object that is signalled at the
// same test wins, and the routine is remembered for the next alertable call.
TEST_F(WaitCall, AlertableWaitsEndForRoutines) {
    OVERLAPPED ov{};
    Fiber *F = Run([&](Fiber *self) {
        const HANDLE file = Open();
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        EXPECT_EQ(WaitForSingleObjectEx(gEvent, INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->ApcDelivered, 0u);
        Note("routine");
        script::gScript.OnIo = [](const script::IoCall &) { return script::Done(1); };
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        os::SetEvent(gEvent);
        EXPECT_EQ(WaitForMultipleObjectsEx(1, &gEvent, FALSE, INFINITE, TRUE), WAIT_OBJECT_0);
        EXPECT_EQ(gRoutines, 2u);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(self->Flags & FIBER_POLL_OWN_OVS, 0u);
        Note("object");
    });
    EXPECT_TRUE(F->Flags & FIBER_POLL_OWN_OVS);
    script::EndOperation(&ZVX_RECORD_OF(FirstLink(&F->FileOvs), FIBEROVERLAPPED, Link)->Ov, 0, 1);
    RunUntilIdle(S);  // no time passes
    EXPECT_EQ(TakeNotes(), (Names{"routine", "object"}));
}

// A routine may wait itself, for longer than one slice and for other operations of the same thread: the wait that it
// interrupts keeps its remaining time, and comes to its end.
TEST_F(WaitCall, ARoutineMayWait) {
    OVERLAPPED ovs[2] = {};
    Fiber *F = Run([&](Fiber *) {
        const HANDLE file = Open();
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ovs[0], WaitingRoutine));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ovs[1], PlainRoutine));
        const uint32_t start = os::GetTickCount();
        EXPECT_EQ(WaitForSingleObjectEx(gEvent, 1000, TRUE), WAIT_IO_COMPLETION);
        EXPECT_GE(os::GetTickCount() - start, 5u);
        EXPECT_EQ(WaitForSingleObjectEx(gEvent, 20, TRUE), WAIT_TIMEOUT) << "the second read is still out";
        Note("timed out");
        EXPECT_EQ(WaitForSingleObjectEx(gEvent, INFINITE, TRUE), WAIT_IO_COMPLETION);
        Note("second");
    });
    ASSERT_EQ(F->FileOvs.Count, 2u);
    FIBEROVERLAPPED *first = ZVX_RECORD_OF(FirstLink(&F->FileOvs), FIBEROVERLAPPED, Link);
    FIBEROVERLAPPED *second = ZVX_RECORD_OF(first->Link.Next, FIBEROVERLAPPED, Link);
    script::EndOperation(&first->Ov, 0, 1);
    RunUntilIdle(S);
    Pass(12);
    EXPECT_EQ(gRoutines, 1u);
    Pass(30);
    EXPECT_EQ(TakeNotes(), Names{"timed out"});
    script::EndOperation(&second->Ov, 0, 1);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"second"});
}

}  // namespace
}  // namespace zvx::test
