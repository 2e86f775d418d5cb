// tests/model/scenarios.cpp - the hand-overs between schedulers, each as a small program with its property.
//
// A scenario is set up by running everybody to rest without choices. Its threads then wait at their gates; those that
// are let through race with each other from the same moment. That nothing is left behind in a port is checked in every
// scenario by the explorer, and that each comes to its end.
#include <memory>
#include <vector>

#include "alloc/alloc.h"
#include "dedicated/dedicated.h"
#include "explorer.h"
#include "kernel/critsec.h"
#include "kernel/file.h"
#include "kernel/handles.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "postwait/postwait.h"
#include "sched/internal.h"
#include "sched_fixture.h"

namespace zvx::model {

namespace {

namespace script = os::script;
using Body = std::function<void(Fiber *)>;
// What threads of several schedulers use: the explorer must see it.
template <typename T>
using Shared = std::atomic<T>;

Scheduler *gS[4];
Shared<uint32_t> gEnded;
uint32_t gToEnd;

void AddSchedulers(int n, uint32_t portWait) {
    gPortWaitMs = portWait;
    for (int i = 0; i < n; ++i) {
        gS[i] = AddScheduler();
        gS[i]->AffinityMask = 1u << i;
    }
}

Fiber *AddFiber(int on, const char *name, Body body) {
    gToEnd++;
    Fiber *F = test::NewFiber(gS[on], [body = std::move(body)](Fiber *self) {
        body(self);
        gEnded++;
    });
    F->Role = ROLE_OTHER;
    NameFiber(F, name);
    return F;
}

DWORD RunBody(void *param) {
    const auto *body = static_cast<Body *>(param);
    (*body)(static_cast<Fiber *>(os::GetFiberData()));
    return 5;
}

// A thread by the library's own creation, at rest. Not one of those that must end.
HANDLE CreateOn(int on, Body *body) {
    return ZCreateThreadWithAffinity(nullptr, 0, RunBody, body, 0, nullptr, 1u << on);
}
HANDLE AddThread(int on, const char *name, Body body) {
    static std::vector<std::unique_ptr<Body>> bodies;
    bodies.push_back(std::make_unique<Body>(std::move(body)));
    HANDLE thread = nullptr;
    AddFiber(0, "maker", [&](Fiber *) { thread = CreateOn(on, bodies.back().get()); });
    RunToRest();
    NameFiber(LookUpHandle(thread)->OwnerFiber, name);
    return thread;
}
Fiber *ThreadOf(HANDLE thread) {
    return LookUpHandle(thread)->OwnerFiber;
}

// The next record that is handed out is the next one that comes back.
void DrainShells() {
    while (!IsEmpty(&gFreeShells[0].Shells)) AllocFiberShell(gS[0], 0);
}

// A fiber waits at its gate until the set-up is complete.
void Gate(Fiber *F) {
    F->WaitTimeoutMs = INFINITE;
    SchedYield(F, Yield_TIMER_WAIT);
}
void Open(Fiber *F) {
    UnlinkTimedWaiter(SchedOf(F), F);
    MakeRunnable(SchedOf(F), F, gORQ);
}

HANDLE NewEvent() {
    return os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
}

Fiber *gTarget;
Shared<bool> gTargetGone;
Shared<uint32_t> gRoutineRuns;
void CountRun() {
    MUST(os::GetFiberData() == gTarget && !gTargetGone);
    Sleep(4);
    gRoutineRuns++;
}

bool AllEnded() {
    return gEnded == gToEnd;
}

void NothingMore() {
    int32_t messages = 0;
    for (Scheduler *S : gSchedulers)
        if (S != nullptr) messages += S->ChunkTypeCount[ALLOC_FIBER_MESSAGE].load();
    MUST(messages == 0);
}

// ---- 1. A message to a scheduler that goes to sleep --------------------------------------------------

HANDLE gEvent;

// The waiter goes to sleep while the post comes.
void SetUpWake(uint32_t portWait) {
    AddSchedulers(2, portWait);
    gEvent = NewEvent();
    Fiber *waiter = AddFiber(1, "waiter", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
    });
    RunToRest();
    Open(waiter);
    AddFiber(0, "poster", [](Fiber *) { MUST(PostUserThread(gEvent)); });
}
void WakeShort() {
    SetUpWake(1);
}
void WakeLong() {
    SetUpWake(100);
}

// Two senders, of a list of posts and of a new thread, and a receiver that goes to sleep.
void TwoSenders(uint32_t portWait) {
    AddSchedulers(3, portWait);
    gEvent = NewEvent();
    Fiber *waiter = AddFiber(1, "waiter", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
    });
    RunToRest();
    Open(waiter);
    AddFiber(0, "poster", [](Fiber *) {
        const HANDLE events[] = {gEvent, nullptr};
        MUST(PostMultipleUserThreads(events) == -1);
    });
    gToEnd++;
    AddFiber(2, "creator", [](Fiber *) {
        static Body body = [](Fiber *F) {
            MUST(SchedOf(F) == gS[1]);
            gEnded++;
        };
        MUST(CreateOn(1, &body) != nullptr);
    });
}
void TwoSendersShort() {
    TwoSenders(1);
}
void TwoSendersLong() {
    TwoSenders(100);
}

// ---- 2. Posts ----------------------------------------------------------------------------------------

Shared<uint32_t> gPosts, gTaken, gNeeded;

// A post against the end of the wait. Posts that no wait has consumed yet count once, others count each.
void PostAgainstTimeout() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    Fiber *waiter = AddFiber(1, "waiter", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        while (gTaken < gNeeded || gPosts < 2)
            if (WaitForUserThreadPost(gEvent, 2) == WAIT_OBJECT_0) MUST(++gTaken <= gPosts);
        MUST(WaitForUserThreadPost(gEvent, 0) == WAIT_TIMEOUT);
    });
    RunToRest();
    gNeeded = 1;
    Open(waiter);
    AddFiber(0, "poster", [](Fiber *) {
        for (uint32_t i = 0; i < 2; ++i) {
            if (gTaken == gPosts)
                gNeeded = gPosts.load() + 1;  // all of before are consumed, so this one counts by itself
            gPosts++;
            MUST(PostUserThread(gEvent));
            if (i == 0) Sleep(1);
        }
    });
}

// More posts than a lane holds: some go as messages. The last one is not lost.
void ManyPosts() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    static Shared<bool> last;
    Fiber *waiter = AddFiber(1, "waiter", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        while (!last) MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
    });
    RunToRest();
    Open(waiter);
    AddFiber(0, "poster", [](Fiber *) {
        for (uint32_t i = 0; i <= kLaneSlots; ++i) {
            last = i == kLaneSlots;
            MUST(PostUserThread(gEvent));
        }
    });
}

// A thread that waits for a post runs a routine meanwhile: the post is there afterwards.
void PostAndRoutine() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    Fiber *waiter = gTarget = AddFiber(1, "waiter", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
        MUST(WaitForUserThreadPost(gEvent, 0) == WAIT_TIMEOUT);
        while (gRoutineRuns == 0) Sleep(1);
    });
    RunToRest();
    Open(waiter);
    AddFiber(0, "sender", [](Fiber *) {
        MUST(UserThreadExecRoutine(gEvent, CountRun));
        MUST(PostUserThread(gEvent));
    });
}

// A thread ends while it is posted, and its record becomes another thread's, which was never posted.
void PostAndReuse(int secondOn) {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    static const HANDLE other = NewEvent();
    const HANDLE first = AddThread(1, "first", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
    });
    Fiber *F = ThreadOf(first);
    Fiber *again = AddFiber(1, "again", [=](Fiber *self) {
        Gate(self);
        static Body body = [](Fiber *second) {
            IdentifyUserThread("TEST", other);
            MUST(WaitForUserThreadPost(other, 0) == WAIT_TIMEOUT);
            Sleep(2);
            MUST(second->PostPending == 0);
            gEnded++;
        };
        CreateOn(secondOn, &body);
    });
    RunToRest();
    gToEnd++;
    Open(F);
    Open(again);
    AddFiber(0, "poster", [](Fiber *) { PostUserThread(gEvent); });
    DrainShells();
}
void PostAndReuseFar() {
    PostAndReuse(1);
}
void PostAndReuseNear() {
    PostAndReuse(0);
}

CRITICAL_SECTION gSection;
Shared<uint32_t> gInside;

void UseSection() {
    EnterCriticalSection(&gSection);
    MUST(++gInside == 1);
    MayStop();
    MUST(--gInside == 0);
    LeaveCriticalSection(&gSection);
}

// Two threads want a section, and one of them is posted by the other meanwhile: the post is for its next wait.
void SectionAndPost() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    Fiber *near = AddFiber(0, "near", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        InitializeCriticalSection(&gSection);
        Gate(F);
        UseSection();
        UseSection();
        MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
        MUST(WaitForUserThreadPost(gEvent, 0) == WAIT_TIMEOUT);
    });
    RunToRest();
    Open(near);
    AddFiber(1, "far", [](Fiber *) {
        UseSection();
        PostUserThread(gEvent);
    });
    AddFiber(1, "far 2", [](Fiber *) { UseSection(); });
}

// One leaves a section while another comes.
void SectionAndSection() {
    AddSchedulers(2, 100);
    AddFiber(0, "init", [](Fiber *) { InitializeCriticalSection(&gSection); });
    RunToRest();
    for (int i = 0; i < 2; ++i) AddFiber(i, i == 0 ? "near" : "far", [](Fiber *) { UseSection(); });
}

// A waiter of a section is ended while it may have been posted: the next one must get the section.
void SectionAndEnd() {
    AddSchedulers(2, 100);
    AddFiber(0, "init", [](Fiber *) { InitializeCriticalSection(&gSection); });
    RunToRest();
    static const HANDLE victim = AddThread(1, "victim", [](Fiber *F) {
        Gate(F);
        UseSection();
    });
    Fiber *holder = AddFiber(0, "holder", [](Fiber *F) {
        EnterCriticalSection(&gSection);
        Gate(F);
        LeaveCriticalSection(&gSection);
    });
    Fiber *next = AddFiber(1, "next", [](Fiber *F) {
        Gate(F);
        UseSection();
    });
    RunToRest();
    Open(ThreadOf(victim));
    RunToRest();
    Open(next);
    RunToRest();
    Open(holder);
    AddFiber(0, "terminator", [](Fiber *) {
        TerminateThread(victim, 7);
        CloseHandle(victim);
    });
}

// A waiter of a section runs a routine while it may have been posted: both waiters get the section.
void SectionAndRoutine() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    AddFiber(0, "init", [](Fiber *) { InitializeCriticalSection(&gSection); });
    RunToRest();
    Fiber *holder = AddFiber(0, "holder", [](Fiber *F) {
        EnterCriticalSection(&gSection);
        Gate(F);
        LeaveCriticalSection(&gSection);
    });
    gTarget = AddFiber(1, "first", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        UseSection();
        while (gRoutineRuns == 0) Sleep(1);
    });
    Fiber *next = AddFiber(1, "next", [](Fiber *F) {
        Gate(F);
        UseSection();
    });
    RunToRest();
    Open(gTarget);
    RunToRest();
    Open(next);
    RunToRest();
    AddFiber(0, "sender", [](Fiber *) { MUST(UserThreadExecRoutine(gEvent, CountRun)); });
    Open(holder);
}

// ---- 3. Cancel against completion --------------------------------------------------------------------

Fiber *gAgain;

// A thread in a read is terminated while the read ends; the thread that gets its record reads as well.
void CancelAgainstEnd(bool foreign, bool hold) {
    AddSchedulers(2, 100);
    static PSEHAND *entries[2];
    for (PSEHAND *&entry : entries) entry = test::NewEntry(gS[foreign ? 0 : 1], PHAND_HTYPE_CreateFileA);
    script::gScript.HoldCancels = hold;
    static const HANDLE victim = AddThread(1, "victim", [](Fiber *F) {
        Gate(F);
        // The other one runs as soon as this one ends.
        TermCleanupFuncSet(F, [](Fiber *, Scheduler *, uintptr_t *, uint32_t) { Open(gAgain); });
        test::ReadOn(F, entries[0]);
    });
    static Fiber *F = gTarget = ThreadOf(victim);
    static uint32_t generation = Generation(F);
    static Fiber *second;
    static bool secondEnded;
    gAgain = AddFiber(1, "again", [](Fiber *self) {
        Gate(self);
        while (F->State != FSTATE_EXITED && Generation(F) == generation) SchedYield(self, Yield_SCHED);
        static Body body = [](Fiber *reader) {
            second = reader;
            MUST(test::ReadOn(reader, entries[1]) == STATUS_SUCCESS);
            MUST(secondEnded && reader->OwnOvs[0].Ov.InternalHigh == 2);
            gEnded++;
        };
        CreateOn(1, &body);
    });
    RunToRest();
    gToEnd++;
    Open(F);
    RunToRest();
    AddFiber(0, "terminator", [](Fiber *) {
        TerminateThread(victim, 7);
        CloseHandle(victim);
    });
    AddEvent(
        "the first read ends", [] { return script::RunningOn(&F->OwnOvs[0].Ov) == HandleValue(entries[0]); },
        [] { script::EndOperation(&F->OwnOvs[0].Ov, STATUS_SUCCESS, 1); }, gS[1]->Io->Tail);
    AddEvent(
        "the second read ends",
        [] { return second != nullptr && script::RunningOn(&second->OwnOvs[0].Ov) == HandleValue(entries[1]); },
        [] {
            secondEnded = true;
            script::EndOperation(&second->OwnOvs[0].Ov, STATUS_SUCCESS, 2);
        },
        nullptr);
    DrainShells();
}

// A thread in a read runs a routine, which reads as well, while either read ends.
void ReadAndRoutine() {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    static PSEHAND *entries[2];
    for (PSEHAND *&entry : entries) entry = test::NewEntry(gS[1], PHAND_HTYPE_CreateFileA);
    gTarget = AddFiber(1, "reader", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        MUST(test::ReadOn(F, entries[0]) == STATUS_SUCCESS && F->OwnOvs[0].Ov.InternalHigh == 1);
        while (gRoutineRuns == 0) Sleep(1);
    });
    RunToRest();
    Open(gTarget);
    RunToRest();
    AddFiber(0, "sender", [](Fiber *) { MUST(UserThreadExecRoutine(gEvent, CountRun)); });
    AddEvent(
        "the read ends", [] { return script::RunningOn(&gTarget->OwnOvs[0].Ov) != nullptr; },
        [] { script::EndOperation(&gTarget->OwnOvs[0].Ov, STATUS_SUCCESS, 1); }, gS[1]->Io->Tail);
}

// A thread waits alertably for two reads with routines, and is asked for something meanwhile. Each routine runs once,
// or not at all when the thread is ended.
Shared<uint32_t> gCompletions[2];
OVERLAPPED gReads[2];
void Alertable(const std::function<void(HANDLE thread)> &ask) {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    static const HANDLE thread = AddThread(1, "reader", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        const HANDLE file = CreateFileA("name", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        static char buffer[2];
        for (int i = 0; i < 2; ++i)
            MUST(ReadFileEx(file, buffer + i, 1, &gReads[i],
                            [](DWORD, DWORD, OVERLAPPED *ov) { gCompletions[ov - gReads]++; }));
        Gate(F);
        while (gCompletions[0] + gCompletions[1] < 2) SleepEx(10, TRUE);
        UnidentifyUserThread(0);
        CloseHandle(file);
        gTargetGone = true;
    });
    gTarget = ThreadOf(thread);
    RunToRest();
    Open(gTarget);
    AddFiber(0, "sender", [ask](Fiber *) {
        ask(thread);
        DWORD code = 0;
        while (GetExitCodeThread(thread, &code) && code == STILL_ACTIVE) Sleep(1);
        for (Shared<uint32_t> &count : gCompletions) MUST(code == 7 ? count <= 1 : count == 1);
        CloseHandle(thread);
    });
    for (int i = 0; i < 2; ++i) {
        OVERLAPPED *ov = &OvOfLink(i == 0 ? gTarget->FileOvs.Ends.Next : gTarget->FileOvs.Ends.Prev)->Ov;
        AddEvent(
            i == 0 ? "the first read ends" : "the second read ends", [ov] { return script::RunningOn(ov) != nullptr; },
            [ov] { script::EndOperation(ov, STATUS_SUCCESS, 1); }, i == 0 ? gS[1]->Io->Tail : nullptr);
    }
}
void AlertableAgainstRoutine() {
    Alertable([](HANDLE) { UserThreadExecRoutine(gEvent, CountRun); });
}
void AlertableAgainstTerminate() {
    Alertable([](HANDLE handle) { TerminateThread(handle, 7); });
}

void CancelHere() {
    CancelAgainstEnd(false, false);
}
void CancelHeld() {
    CancelAgainstEnd(false, true);
}
void CancelForeign() {
    CancelAgainstEnd(true, true);
}
// No packet is taken for a record that has been given to somebody else since.
void NoPacketOwed() {
    for (const FIBEROVERLAPPED &rec : gTarget->OwnOvs) MUST(rec.Io.PacketsQueued == 0 && rec.SkipPackets == 0);
    NothingMore();
}

// ---- 4. Exit against message -------------------------------------------------------------------------

// A thread ends while something is asked of it; its record becomes another thread's, of which nothing was asked.
void ExitAgainst(const std::function<void(HANDLE thread)> &ask) {
    AddSchedulers(2, 100);
    gEvent = NewEvent();
    static const HANDLE victim = AddThread(1, "victim", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        UnidentifyUserThread(0);
        gTargetGone = true;
    });
    gTarget = ThreadOf(victim);
    Fiber *again = AddFiber(1, "again", [](Fiber *self) {
        Gate(self);
        static Body body = [](Fiber *second) {
            for (int i = 0; i < 2; ++i) {
                MUST(second->SuspendRequests.load() == 0 && second->SuspendCount.load() == 0);
                MUST((second->Flags & (FIBER_TERMINATE | FIBER_EXEC_PENDING)) == 0);
                Sleep(2);
            }
            gEnded++;
        };
        CreateOn(1, &body);
    });
    RunToRest();
    gToEnd++;
    Open(gTarget);
    Open(again);
    AddFiber(0, "sender", [ask](Fiber *) {
        ask(victim);
        CloseHandle(victim);
    });
    DrainShells();
}
void ExitAgainstSuspend() {
    ExitAgainst([](HANDLE thread) {
        if (SuspendThread(thread) == 0xFFFFFFFF) return;
        MayStop();
        ResumeThread(thread);
    });
}
void ExitAgainstTerminate() {
    ExitAgainst([](HANDLE thread) { TerminateThread(thread, 7); });
}
void ExitAgainstRoutine() {
    ExitAgainst([](HANDLE) { UserThreadExecRoutine(gEvent, CountRun); });
}

// An entry that was looked up stands until the next yield, whatever happens to its handle.
void CloseAgainstLookUp() {
    AddSchedulers(2, 100);
    static const HANDLE file = script::NewFile();
    Fiber *reader = AddFiber(0, "reader", [](Fiber *F) {
        Gate(F);
        for (int i = 0; i < 3; ++i) {
            if (const PSEHAND *entry = LookUpHandle(file); entry != nullptr) {
                const uint32_t serial = entry->Serial;
                MayStop();
                MUST(entry->Serial == serial && HandleValue(entry) == file);
            }
            SchedYield(F, Yield_USER);
        }
    });
    Fiber *closer = AddFiber(1, "closer", [](Fiber *F) {
        Gate(F);
        CloseHandle(file);
        for (int i = 0; i < 3; ++i) {
            FreeHandleEntry(AllocHandleEntry(gS[1], 0), gS[1]);  // the same memory, as soon as it is free
            gS[1]->SelectPasses = kFullSweepPasses + 1;
            SchedYield(F, Yield_USER);
        }
    });
    PSEHAND *entry = AllocHandleEntry(gS[1], 0);
    entry->Type = PHAND_HTYPE_CreateFileA;
    entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(file));
    InsertHandle(entry);
    RunToRest();
    Open(reader);
    Open(closer);
}

// ---- 5. Migration ------------------------------------------------------------------------------------

Shared<uint32_t> gProgress;
Shared<bool> gAnswered;  // what was asked of the target has been done

// While it is suspended a thread makes no progress.
void SuspendAndResume(HANDLE thread) {
    if (SuspendThread(thread) == 0xFFFFFFFF) return;
    const uint32_t progress = gProgress;
    MayStop();
    Sleep(3);
    MUST(gProgress == progress);
    ResumeThread(thread);
}

// A thread moves to another scheduler while somebody there, or on a third one, asks something of it. It ends when that
// has been done, so that nothing may be lost.
void Move(int schedulers, const std::function<void(HANDLE thread)> &ask) {
    AddSchedulers(schedulers, 100);
    gEvent = NewEvent();
    static const HANDLE mover = AddThread(0, "mover", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        F->MigrateTarget = gS[1];
        LeaveRole(F);
        gS[0]->SelectPasses = kFullSweepPasses + 1;  // whoever leaves is still on its stack in the pass that follows
        SchedYield(F, Yield_MIGRATE);
        MUST(SchedOf(F) == gS[1]);
        while (!gAnswered && gRoutineRuns == 0) {
            gProgress++;
            Sleep(1);
        }
        UnidentifyUserThread(0);
        gTargetGone = true;
    });
    gTarget = ThreadOf(mover);
    RunToRest();
    Open(gTarget);
    AddFiber(schedulers - 1, "sender", [ask](Fiber *) {
        ask(mover);
        DWORD code = 0;
        while (GetExitCodeThread(mover, &code) && code == STILL_ACTIVE) Sleep(1);
        CloseHandle(mover);
    });
}
void SuspendOnTheWay(HANDLE thread) {
    SuspendAndResume(thread);
    gAnswered = true;
}
void MoveAgainstSuspend() {
    Move(2, SuspendOnTheWay);
}
void MoveAgainstSuspendFromThird() {
    Move(3, SuspendOnTheWay);
}
void MoveAgainstTerminate() {
    Move(2, [](HANDLE thread) { TerminateThread(thread, 7); });
}
void MoveAgainstRoutine() {
    Move(2, [](HANDLE) { UserThreadExecRoutine(gEvent, CountRun); });
}

// Two threads move to schedulers of their own, which are made for them, and a third one when they have ended.
void MoveToOwn() {
    AddSchedulers(2, 100);
    SetOption(su_DynamicSchedulersEnabled);
    static Shared<Fiber *> users[4];
    static Shared<int> gone;
    Fiber *movers[3];
    for (int i = 0; i < 3; ++i) {
        const HANDLE mover = AddThread(i % 2,
                                       i == 0   ? "first"
                                       : i == 1 ? "second"
                                                : "third",
                                       [i](Fiber *F) {
                                           Gate(F);
                                           while (i == 2 && gone < 2) Sleep(1);
                                           MigrateUserThread("LGWR");
                                           const uint32_t index = SchedOf(F)->Index;
                                           MUST(IsDynamic(SchedOf(F)) && users[index].exchange(F) == nullptr);
                                           SchedYield(F, Yield_USER);
                                           MUST(users[index].exchange(nullptr) == F && SchedOf(F)->Index == index);
                                           gone++;
                                           gEnded++;
                                       });
        gToEnd++;
        movers[i] = ThreadOf(mover);
    }
    for (Fiber *mover : movers) Open(mover);
}
void AllSlotsFree() {
    MUST(gNumDynamicSchedulers.load() == 0);
    NothingMore();
}

// ---- 6. Counts of suspensions ------------------------------------------------------------------------

// Two senders stop a thread and let it go on again, each for itself.
void Suspenders(int schedulers, const std::function<void(HANDLE thread)> &second) {
    AddSchedulers(schedulers, 100);
    static Shared<int> sent;
    gEvent = NewEvent();
    static const HANDLE thread = AddThread(1, "target", [](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        while (sent < 2) {
            gProgress++;
            SchedYield(F, Yield_USER);
            gProgress++;
            Sleep(1);
        }
        MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
        MUST(F->SuspendCount.load() == 0);
        gEnded++;
    });
    gTarget = ThreadOf(thread);
    RunToRest();
    gToEnd++;
    Open(gTarget);
    const auto sender = [](const std::function<void(HANDLE)> &ask) {
        return [ask](Fiber *) {
            ask(thread);
            if (++sent == 2) PostUserThread(gEvent);
        };
    };
    AddFiber(0, "first", sender(SuspendAndResume));
    AddFiber(schedulers - 1, "second", sender(second));
}
void TwoSuspenders() {
    Suspenders(2, SuspendAndResume);
}
void TwoSuspendersFromThird() {
    Suspenders(3, SuspendAndResume);
}
void SuspendAndRoutine() {
    Suspenders(2, [](HANDLE) { MUST(UserThreadExecRoutine(gEvent, CountRun)); });
}
void SuspendAndRoutineFromThird() {
    Suspenders(3, [](HANDLE) { MUST(UserThreadExecRoutine(gEvent, CountRun)); });
}
// One suspends it, the other ends it.
void SuspendAndTerminate() {
    AddSchedulers(3, 100);
    static const HANDLE thread = AddThread(1, "target", [](Fiber *F) {
        Gate(F);
        for (;;) Sleep(1);
    });
    RunToRest();
    Open(ThreadOf(thread));
    AddFiber(0, "suspender", [](Fiber *) {
        if (SuspendThread(thread) != 0xFFFFFFFF) ResumeThread(thread);
    });
    AddFiber(2, "terminator", [](Fiber *) {
        TerminateThread(thread, 7);
        DWORD code = 0;
        MUST(GetExitCodeThread(thread, &code) && code == 7);
    });
}
// ---- 7. Waits for objects ----------------------------------------------------------------------------

HANDLE gUnits;
Shared<uint32_t> gNextGot;

void Give() {
    MUST(os::ReleaseSemaphore(gUnits, 1, nullptr));
}
void AwaitUnit(DWORD ms) {
    DWORD result;
    while ((result = WaitForSingleObject(gUnits, ms)) != WAIT_OBJECT_0) MUST(result == WAIT_TIMEOUT && ms != INFINITE);
}

// Units come while waits for them run out of time, on both sides.
void ObjectAndTimeout() {
    AddSchedulers(2, 100);
    gUnits = os::CreateSemaphoreA(nullptr, 0, 9, nullptr);
    Fiber *waiters[2];
    for (int i = 0; i < 2; ++i)
        waiters[i] = AddFiber(i, i == 0 ? "near" : "far", [](Fiber *F) {
            Gate(F);
            AwaitUnit(2);
        });
    RunToRest();
    for (Fiber *waiter : waiters) Open(waiter);
    AddFiber(0, "giver", [](Fiber *) {
        Give();
        Sleep(1);
        Give();
    });
}

// The first in the line and a next one wait already, and something is done to the first while a unit comes.
void ObjectAnd(const std::function<void(HANDLE first)> &ask, bool ends, const std::function<void()> &after = [] {}) {
    AddSchedulers(3, 100);
    gUnits = os::CreateSemaphoreA(nullptr, 0, 9, nullptr);
    gEvent = NewEvent();
    static const HANDLE first = AddThread(1, "first", [=](Fiber *F) {
        IdentifyUserThread("TEST", gEvent);
        Gate(F);
        AwaitUnit(INFINITE);
        after();
        if (!ends) gEnded++;
    });
    gTarget = ThreadOf(first);
    Fiber *next = AddFiber(1, "next", [](Fiber *F) {
        Gate(F);
        AwaitUnit(INFINITE);
        gNextGot = 1;
    });
    RunToRest();
    if (!ends) gToEnd++;
    Open(gTarget);
    RunToRest();
    Open(next);
    RunToRest();
    AddFiber(0, "sender", [ask](Fiber *) { ask(first); });
}
void AddGiver() {
    AddFiber(2, "giver", [](Fiber *) { Give(); });
}
// What comes while the first one is stopped is the next one's.
void ObjectAndSuspend() {
    ObjectAnd(
        [](HANDLE first) {
            MUST(SuspendThread(first) == 0);
            Give();
            while (!gNextGot) Sleep(1);
            MUST(ResumeThread(first) == 1);
            Give();
        },
        false);
}
void ObjectAndTerminate() {
    ObjectAnd(
        [](HANDLE first) {
            TerminateThread(first, 7);
            Give();
        },
        true);
    AddGiver();
}
void ObjectAndRoutine() {
    ObjectAnd(
        [](HANDLE) {
            MUST(UserThreadExecRoutine(gEvent, CountRun));
            Give();
        },
        false,
        [] {
            while (gRoutineRuns == 0) Sleep(1);
        });
    AddGiver();
}
void NoUnitIsLeft() {
    MUST(os::WaitForSingleObject(gUnits, 0) == WAIT_TIMEOUT);
    NothingMore();
}

void RoutineRanOnce() {
    MUST(gRoutineRuns == 1);
    NothingMore();
}

}  // namespace

const Scenario gScenarios[] = {
    {"wake-short", WakeShort, AllEnded, NothingMore, {2, 1, 1}, {4, 2, 2}},
    {"wake-long", WakeLong, AllEnded, NothingMore, {2, 1, 1}, {4, 2, 2}},
    {"senders-short", TwoSendersShort, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"senders-long", TwoSendersLong, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"post-timeout", PostAgainstTimeout, AllEnded, NothingMore, {1, 1, 1}, {2, 2, 2}},
    {"posts-many", ManyPosts, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"post-routine", PostAndRoutine, AllEnded, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"post-reuse-far", PostAndReuseFar, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"post-reuse-near", PostAndReuseNear, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"section", SectionAndSection, AllEnded, NothingMore, {2, 1, 0}, {4, 2, 1}},
    {"section-post", SectionAndPost, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"section-end", SectionAndEnd, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"section-routine", SectionAndRoutine, AllEnded, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"read-routine", ReadAndRoutine, AllEnded, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"alertable-routine", AlertableAgainstRoutine, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"alertable-terminate", AlertableAgainstTerminate, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"cancel", CancelHere, AllEnded, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"cancel-held", CancelHeld, AllEnded, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"cancel-foreign", CancelForeign, AllEnded, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"exit-suspend", ExitAgainstSuspend, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"exit-terminate", ExitAgainstTerminate, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"exit-routine", ExitAgainstRoutine, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"close-lookup", CloseAgainstLookUp, AllEnded, NothingMore, {1, 1, 0}, {3, 1, 1}},
    {"move-suspend", MoveAgainstSuspend, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"move-suspend-third", MoveAgainstSuspendFromThird, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"move-terminate", MoveAgainstTerminate, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"move-routine", MoveAgainstRoutine, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"move-own", MoveToOwn, AllEnded, AllSlotsFree, {1, 1, 0}, {2, 1, 1}},
    {"suspenders", TwoSuspenders, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"suspenders-third", TwoSuspendersFromThird, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"suspend-routine", SuspendAndRoutine, AllEnded, RoutineRanOnce, {1, 1, 0}, {2, 1, 1}},
    {"suspend-terminate", SuspendAndTerminate, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"suspend-routine-third", SuspendAndRoutineFromThird, AllEnded, RoutineRanOnce, {1, 1, 0}, {2, 1, 1}},
    {"object-timeout", ObjectAndTimeout, AllEnded, NoUnitIsLeft, {1, 1, 1}, {3, 2, 2}},
    {"object-suspend", ObjectAndSuspend, AllEnded, NoUnitIsLeft, {1, 1, 0}, {2, 1, 1}},
    {"object-terminate", ObjectAndTerminate, AllEnded, NothingMore, {1, 1, 0}, {2, 1, 1}},
    {"object-routine", ObjectAndRoutine, AllEnded, NoUnitIsLeft, {1, 1, 0}, {2, 1, 1}},
};
const uint32_t gNumScenarios = sizeof gScenarios / sizeof gScenarios[0];

}  // namespace zvx::model
