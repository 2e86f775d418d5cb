// tests/support/call_fixture.h - one scheduler and its user threads, for tests of the exported functions.
#ifndef ZVX_TESTS_SUPPORT_CALL_FIXTURE_H
#define ZVX_TESTS_SUPPORT_CALL_FIXTURE_H

#include "kernel/file.h"
#include "kernel/handles.h"
#include "sched_fixture.h"

namespace zvx::test {

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
    // Ends F's oldest operation that has a routine, of a file or else of a socket; below, the one that F waits for.
    void EndRoutineOf(Fiber *F, DWORD status, DWORD bytes) {
        ListHead *ovs = F->FileOvs.Count != 0 ? &F->FileOvs : &F->SocketOvs;
        script::EndOperation(&ZVX_RECORD_OF(FirstLink(ovs), FIBEROVERLAPPED, Link)->Ov, status, bytes);
        RunUntilIdle(S);
    }
    void EndWaitOf(Fiber *F, DWORD status, DWORD bytes) {
        script::EndOperation(&F->OwnOvs[0].Ov, status, bytes);
        RunUntilIdle(S);
    }
    static void Answer(script::IoAnswer answer) {
        script::gScript.OnIo = [answer](const script::IoCall &) { return answer; };
    }
    static HANDLE Open(DWORD flags = FILE_FLAG_OVERLAPPED) {
        return CreateFileA("name", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, flags, nullptr);
    }
    static HANDLE NewEvent(bool manual, bool set) { return os::CreateEventA(nullptr, manual, set, nullptr); }
};

}  // namespace zvx::test

#endif  // ZVX_TESTS_SUPPORT_CALL_FIXTURE_H
