// tests/unit/wait_call_test.cpp - waits on objects under a clock that stands still.
#include "kernel/wait.h"

#include "call_fixture.h"

namespace zvx::test {
namespace {

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

struct WaitCall : CallTest {
    const HANDLE Event = NewEvent(false, false);
};

// The event of an overlapped call keeps its mark in the caller's OVERLAPPED; it is still that event.
TEST_F(WaitCall, ZeroTestsOnceAndNeverYields) {
    RunToEnd([&](Fiber *) {
        const uint32_t passes = S->SwitchCount.load();
        const HANDLE marked = WithoutPacket(Event);
        const HANDLE both[2] = {NewEvent(true, true), marked};
        EXPECT_EQ(WaitForSingleObject(Event, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(SetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(marked, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked));
        EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(SetEvent(marked) && ResetEvent(marked));
        EXPECT_EQ(WaitForSingleObject(Event, 0), WAIT_TIMEOUT);
        EXPECT_EQ(WaitForSingleObjectEx(nullptr, INFINITE, TRUE), WAIT_FAILED);
        EXPECT_EQ(os::GetLastError(), ERROR_INVALID_HANDLE);
        EXPECT_EQ(S->SwitchCount.load(), passes);
    });
}

// While nothing happens a wait costs nothing, whatever its limit; what ends it runs at once, in the order of waiting.
// Other ends of a parked wait: tests/model.
TEST_F(WaitCall, AParkedWaitSleepsUntilItIsWoken) {
    const HANDLE manual = NewEvent(true, false);
    const HANDLE both[2] = {Event, manual};
    const auto park = [&](const char *name, std::function<DWORD()> wait) {
        Run([=](Fiber *) { Note(std::to_string(wait()) + " " + name); });
    };
    park("first", [&] { return WaitForSingleObject(Event, INFINITE); });
    park("second", [&] { return WaitForSingleObject(WithoutPacket(Event), 3000); });
    park("any", [&] { return WaitForMultipleObjects(2, both, FALSE, 4000); });
    park("all", [&] { return WaitForMultipleObjects(2, both, TRUE, INFINITE); });
    park("late", [&] { return WaitForSingleObject(manual, 1500); });
    const uint32_t passes = S->SwitchCount.load();
    Pass(1000);
    EXPECT_EQ(S->SwitchCount.load(), passes);
    os::SetEvent(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"0 first"});
    Run([&](Fiber *) { EXPECT_TRUE(SetEvent(manual)); });
    EXPECT_EQ(TakeNotes(), (Names{"1 any", "0 late"}));
    os::SetEvent(Event);
    os::SetEvent(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), (Names{"0 second", "0 all"})) << "each hands the event over at once";
    // A handle that is closed ends the wait that was begun with it.
    Run([&](Fiber *) {
        const DWORD result = WaitForSingleObject(Event, INFINITE);
        Note(std::to_string(result) + " " + std::to_string(os::GetLastError()));
    });
    os::CloseHandle(Event);
    RunUntilIdle(S);
    EXPECT_EQ(TakeNotes(), Names{"4294967295 " + std::to_string(ERROR_INVALID_HANDLE)});
}

// An alertable wait is ended by an own operation at once, not at the next slice; an object that is signalled at the
// same test wins, and the routine is remembered for the next alertable call.
TEST_F(WaitCall, AlertableWaitsEndForRoutines) {
    OVERLAPPED ov{};
    Fiber *F = Run([&](Fiber *self) {
        const HANDLE file = Open();
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        EXPECT_EQ(WaitForSingleObjectEx(Event, INFINITE, TRUE), WAIT_IO_COMPLETION);
        EXPECT_EQ(self->ApcDelivered, 0u);
        Note("routine");
        Answer(script::Done(1));
        EXPECT_TRUE(ReadFileEx(file, nullptr, 1, &ov, PlainRoutine));
        os::SetEvent(Event);
        EXPECT_EQ(WaitForMultipleObjectsEx(1, &Event, FALSE, INFINITE, TRUE), WAIT_OBJECT_0);
        EXPECT_EQ(gRoutines, 2u);
        EXPECT_EQ(self->ApcDelivered, 1u);
        EXPECT_EQ(self->Flags & FIBER_POLL_OWN_OVS, 0u);
        Note("object");
    });
    EXPECT_TRUE(F->Flags & FIBER_POLL_OWN_OVS);
    EndRoutineOf(F, 0, 1);  // no time passes
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
        EXPECT_EQ(WaitForSingleObjectEx(Event, 1000, TRUE), WAIT_IO_COMPLETION);
        EXPECT_GE(os::GetTickCount() - start, 5u);
        EXPECT_EQ(WaitForSingleObjectEx(Event, 20, TRUE), WAIT_TIMEOUT) << "the second read is still out";
        Note("timed out");
        EXPECT_EQ(WaitForSingleObjectEx(Event, INFINITE, TRUE), WAIT_IO_COMPLETION);
        Note("second");
    });
    EndRoutineOf(F, 0, 1);
    Pass(12);
    EXPECT_EQ(gRoutines, 1u);
    Pass(30);
    EXPECT_EQ(TakeNotes(), Names{"timed out"});
    EndRoutineOf(F, 0, 1);
    EXPECT_EQ(TakeNotes(), Names{"second"});
}

}  // namespace
}  // namespace zvx::test
