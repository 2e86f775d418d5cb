// tests/support/sched_fixture.h - a scheduler that runs on fibers of the test's own thread, over the scripted
// operating system.
//
// The test's thread is a fiber of its own (the "test side"). Each scheduler has an init fiber made here, which
// runs the real loop: SchedYield, then the idle routine. RunUntilIdle switches to it and comes back when the
// scheduler waits in its port, which is where a scheduler thread would block: whatever was runnable has run by then.
// What ran is told by the fibers themselves, usually through Note.
//
// Single-threaded and without a clock of its own; the same order every run.
#ifndef ZVX_TESTS_SUPPORT_SCHED_FIXTURE_H
#define ZVX_TESTS_SUPPORT_SCHED_FIXTURE_H

#include <gtest/gtest.h>

#include "kernel/file.h"
#include "kernel/handles.h"
#include "sched/sched.h"
#include "sched/upcalls.h"
#include "scripted_os.h"

namespace zvx::test {

using Names = std::vector<std::string>;
namespace script = os::script;

// Settings with their defaults, statistics, allocator, handle table and process-wide lists; fiber mode on. Once a
// process, before the first NewScheduler. Settings variables may be changed afterwards.
void InitLibrary();

// A scheduler with the next free index; its init fiber is parked at the start of its loop.
Scheduler *NewScheduler();

// A user thread on S that runs `body` when it is dispatched the second time, as every user thread does; placed in
// ORQ. It exits when the body returns.
Fiber *NewFiber(Scheduler *S, std::function<void(Fiber *)> body);

// Lets S run until it waits in its port with a time-out.
void RunUntilIdle(Scheduler *S);
// A message of one target to the scheduler `to`; `code` is what a termination has. Not before the next pass of `to`.
void SendOne(Scheduler *to, uint8_t kind, Fiber *F, uint32_t generation, uint32_t code = 0);
// From a fiber of S: back to the test, which continues the fiber with the next RunUntilIdle(S).
void Pause();
// A wait of F without an end.
inline void ParkForEver(Fiber *F) {
    F->WaitTimeoutMs = INFINITE;
    SchedYield(F, Yield_TIMER_WAIT);
}

// The order in which things happened, as the test compares it.
void Note(const std::string &what);
Names TakeNotes();

// A handle entry of the given type for a scripted file, inserted in the table and bound to S's port.
PSEHAND *NewEntry(Scheduler *S, uint32_t type);
// Issues an operation of F's embedded record on `entry` as the file functions do, which the script must answer as
// pending, and waits for it, after `between`. Returns the final status.
DWORD ReadOn(Fiber *F, PSEHAND *entry, const std::function<void()> &between = nullptr);

// One scheduler; it, and any other one, is checked at the end.
struct SchedTest : testing::Test {
    void SetUp() override {
        InitLibrary();
        S = NewScheduler();
    }
    void TearDown() override {
        for (uint32_t i = 0; i < gNumSchedulers; i++) CheckScheduler(gSchedulers[i]);
    }
    // Runs body as a user thread until it parks or ends.
    Fiber *Run(std::function<void(Fiber *)> body, uint32_t role = ROLE_OTHER) {
        Fiber *F = NewFiber(S, std::move(body));
        F->Role = role;
        RunUntilIdle(S);
        return F;
    }
    // Lets time pass at once; below, a millisecond at a time.
    void Advance(uint32_t ms) {
        script::AdvanceClock(ms);
        RunUntilIdle(S);
    }
    void Pass(uint32_t ms) {
        for (uint32_t i = 0; i < ms; i++) Advance(1);
    }
    Scheduler *S = nullptr;
};

// For tests of the exported functions.
struct CallTest : SchedTest {
    void TearDown() override {
        CheckHandleTable();
        SchedTest::TearDown();
    }
    // Runs a body that must come to its end at once.
    void RunToEnd(const std::function<void(Fiber *)> &body) {
        bool ended = false;
        Run([&](Fiber *F) { body(F), ended = true; });
        EXPECT_TRUE(ended) << "it waits";
    }
    void End(OVERLAPPED *ov, DWORD status = STATUS_SUCCESS, DWORD bytes = 1) {
        script::EndOperation(ov, status, bytes);
        RunUntilIdle(S);
    }
    // Ends the operation that F waits for; below, F's oldest one that has a routine, of a file or else of a socket.
    void EndWaitOf(Fiber *F, DWORD status = STATUS_SUCCESS, DWORD bytes = 1) { End(&F->OwnOvs[0].Ov, status, bytes); }
    void EndRoutineOf(Fiber *F, DWORD status, DWORD bytes) {
        ListHead *ovs = F->FileOvs.Count != 0 ? &F->FileOvs : &F->SocketOvs;
        End(&ZVX_RECORD_OF(FirstLink(ovs), FIBEROVERLAPPED, Link)->Ov, status, bytes);
    }
    static void Answer(script::IoAnswer answer) {
        script::gScript.OnIo = [answer](const script::IoCall &) { return answer; };
    }
    static HANDLE Open(DWORD flags = FILE_FLAG_OVERLAPPED) {
        return CreateFileA("name", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    }
    static HANDLE Duplicate(HANDLE source, DWORD options = DUPLICATE_SAME_ACCESS) {
        const HANDLE process = os::GetCurrentProcess();
        HANDLE copy = nullptr;
        EXPECT_TRUE(DuplicateHandle(process, source, process, &copy, 0, FALSE, options));
        return copy;
    }
    static HANDLE NewEvent(bool manual, bool set) { return os::CreateEventA(nullptr, manual, set, nullptr); }
};

struct TwoSchedulers : CallTest {
    void SetUp() override {
        CallTest::SetUp();
        Other = NewScheduler();
    }
    Scheduler *Other = nullptr;
};

}  // namespace zvx::test

#endif  // ZVX_TESTS_SUPPORT_SCHED_FIXTURE_H
