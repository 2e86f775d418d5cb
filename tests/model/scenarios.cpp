// tests/model/scenarios.cpp - the hand-overs between schedulers, each as a small program with its property.
//
// A scenario is set up by running everybody to rest without choices. Its threads then wait at their gates; those that
// are let through race with each other from the same moment. That nothing is left behind in a port or a list, and that
// everybody comes to his end, is checked in every scenario by the explorer.
#include "alloc/alloc.h"
#include "dedicated/dedicated.h"
#include "explorer.h"
#include "kernel/critsec.h"
#include "kernel/thread.h"
#include "kernel/wait.h"
#include "postwait/postwait.h"
#include "sched/internal.h"
#include "sched_fixture.h"

namespace zvx::model {

namespace {

namespace script = os::script;
using Body = std::function<void(Fiber *)>;
using Ask = std::function<void()>;  // what somebody does to gThread
// What threads of several schedulers use: the explorer must see it.
template <typename T>
using Shared = std::atomic<T>;

Shared<uint32_t> gEnded;
uint32_t gToEnd;

HANDLE gEvent, gThread;  // the thread that is asked for something; its post event
Fiber *gTarget;          // the same thread
Shared<bool> gTargetGone;
Shared<uint32_t> gRoutineRuns;

Fiber *AddFiber(int on, Body body) {
    gToEnd++;
    Fiber *F = test::NewFiber(gSchedulers[on], [body = std::move(body)](Fiber *self) {
        body(self);
        gEnded++;
    });
    F->Role = ROLE_OTHER;
    return F;
}

// From a user thread: one by the library's own creation. `ends`: one of those that must come to their end.
HANDLE CreateOn(int on, Body body, bool ends = true) {
    auto *kept = new Body([=](Fiber *F) {
        body(F);
        if (ends) gEnded++;
    });
    const auto run = [](void *param) -> DWORD {
        (*static_cast<Body *>(param))(static_cast<Fiber *>(os::GetFiberData()));
        return 5;
    };
    return ZCreateThreadWithAffinity(nullptr, 0, run, kept, 0, nullptr, 1u << on);
}
// gThread, at rest.
Fiber *AddThread(int on, bool ends, Body body) {
    gToEnd += ends;
    AddFiber(0, [=](Fiber *) { gThread = CreateOn(on, body, ends); });
    RunToRest();
    return gTarget = LookUpHandle(gThread)->OwnerFiber;
}

// The next record that is handed out is the next one that comes back.
void DrainShells() {
    while (!IsEmpty(&gFreeShells[0].Shells)) AllocFiberShell(gSchedulers[0], 0);
}

// A fiber waits at its gate until the set-up is complete.
constexpr auto Gate = test::ParkForEver;
void IdentifyAtGate(Fiber *F) {
    IdentifyUserThread("TEST", gEvent);
    Gate(F);
}
void Open(Fiber *F) {
    UnlinkTimedWaiter(SchedOf(F), F);
    MakeRunnable(SchedOf(F), F, gORQ);
}
void OpenAtRest(std::initializer_list<Fiber *> fibers) {
    RunToRest();
    for (Fiber *F : fibers) Open(F);
}

void AwaitPost() {
    MUST(WaitForUserThreadPost(gEvent, INFINITE) == WAIT_OBJECT_0);
}
void Post() {
    PostUserThread(gEvent);
}
void NoPost() {
    MUST(WaitForUserThreadPost(gEvent, 0) == WAIT_TIMEOUT);
}
BOOL Inject() {
    return UserThreadExecRoutine(gEvent, [] {
        MUST(os::GetFiberData() == gTarget && !gTargetGone);
        Sleep(4);
        gRoutineRuns++;
    });
}
void AwaitRoutine() {
    while (gRoutineRuns == 0) Sleep(1);
}
void Terminate() {
    TerminateThread(gThread, 7);
}
DWORD AwaitEnd() {
    DWORD code = 0;
    while (GetExitCodeThread(gThread, &code) && code == STILL_ACTIVE) Sleep(1);
    CloseHandle(gThread);
    return code;
}

// ---- 1. A message to a scheduler that goes to sleep --------------------------------------------------

Shared<bool> gLast{true};

// Posts come while their receiver goes to sleep.
void Wake(Body post) {
    Fiber *waiter = AddFiber(1, [](Fiber *F) {
        IdentifyAtGate(F);
        do AwaitPost();
        while (!gLast);
    });
    OpenAtRest({waiter});
    AddFiber(0, std::move(post));
}
void WakeByOne() {
    Wake([](Fiber *) { MUST(PostUserThread(gEvent)); });
}
// Two senders, of a list of posts and of a new thread.
void WakeByTwo() {
    Wake([](Fiber *) {
        const HANDLE events[] = {gEvent, nullptr};
        MUST(PostMultipleUserThreads(events) == -1);
    });
    gToEnd++;
    AddFiber(2, [](Fiber *) { MUST(CreateOn(1, [](Fiber *F) { MUST(SchedOf(F) == gSchedulers[1]); }) != nullptr); });
}
// More posts than a lane holds: some go as messages. The last one is not lost.
void WakeByMany() {
    gLast = false;
    Wake([](Fiber *) {
        for (uint32_t i = 0; i <= kLaneSlots; ++i) {
            gLast = i == kLaneSlots;
            MUST(PostUserThread(gEvent));
        }
    });
}

// ---- 2. Posts ----------------------------------------------------------------------------------------

Shared<uint32_t> gPosts, gTaken, gNeeded;

// A post against the end of the wait. Posts that no wait has consumed yet count once, others count each.
void PostAgainstTimeout() {
    Fiber *waiter = AddFiber(1, [](Fiber *F) {
        IdentifyAtGate(F);
        while (gTaken < gNeeded || gPosts < 2)
            if (WaitForUserThreadPost(gEvent, 2) == WAIT_OBJECT_0) MUST(++gTaken <= gPosts);
        NoPost();
    });
    gNeeded = 1;
    OpenAtRest({waiter});
    AddFiber(0, [](Fiber *) {
        for (uint32_t i = 0; i < 2; ++i) {
            if (gTaken == gPosts)
                gNeeded = gPosts.load() + 1;  // all of before are consumed, so this one counts by itself
            gPosts++;
            MUST(PostUserThread(gEvent));
            if (i == 0) Sleep(1);
        }
    });
}

// A thread that waits for a post runs a routine meanwhile: the post is there afterwards.
void PostAndRoutine() {
    gTarget = AddFiber(1, [](Fiber *F) {
        IdentifyAtGate(F);
        AwaitPost();
        NoPost();
        AwaitRoutine();
    });
    OpenAtRest({gTarget});
    AddFiber(0, [](Fiber *) {
        MUST(Inject());
        MUST(PostUserThread(gEvent));
    });
}

CRITICAL_SECTION gSection;
Shared<uint32_t> gInside;

void MakeSection() {
    AddFiber(0, [](Fiber *) { InitializeCriticalSection(&gSection); });
    RunToRest();
}
void UseSection() {
    EnterCriticalSection(&gSection);
    MUST(++gInside == 1);
    MayStop();
    MUST(--gInside == 0);
    LeaveCriticalSection(&gSection);
}

// Two threads want a section, and one of them is posted by the other meanwhile: the post is for its next wait.
void SectionAndPost() {
    MakeSection();
    Fiber *near = AddFiber(0, [](Fiber *F) {
        IdentifyAtGate(F);
        UseSection();
        UseSection();
        AwaitPost();
        NoPost();
    });
    OpenAtRest({near});
    AddFiber(1, [](Fiber *) {
        UseSection();
        PostUserThread(gEvent);
    });
    AddFiber(1, [](Fiber *) { UseSection(); });
}

// One leaves a section while another comes.
void SectionAndSection() {
    MakeSection();
    for (int i = 0; i < 2; ++i) AddFiber(i, [](Fiber *) { UseSection(); });
}

Shared<uint32_t> gNextGot;

// The first in a line and a next one wait already, and something is done to the first while what they wait for comes.
// `ends`: the first one does not.
void TwoInLine(void (*use)(), bool ends, bool routine, Ask ask) {
    Fiber *first = AddThread(1, !ends, [=](Fiber *F) {
        IdentifyAtGate(F);
        use();
        if (routine) AwaitRoutine();
    });
    Fiber *next = AddFiber(1, [=](Fiber *F) {
        Gate(F);
        use();
        gNextGot = 1;
    });
    OpenAtRest({first});
    OpenAtRest({next});
    RunToRest();
    AddFiber(0, [=](Fiber *) { ask(); });
}
// It may have been posted that it is its turn: the next one gets the section all the same, and, if it can, the first.
void SectionAnd(bool ends, Ask ask) {
    MakeSection();
    Fiber *holder = AddFiber(0, [](Fiber *F) {
        EnterCriticalSection(&gSection);
        Gate(F);
        LeaveCriticalSection(&gSection);
    });
    TwoInLine(UseSection, ends, !ends, std::move(ask));
    Open(holder);
}

// ---- 3. Cancel against completion --------------------------------------------------------------------

// The read of a thread (null until it is known) that runs on `entry`.
OVERLAPPED *ReadOf(Fiber *reader, const PSEHAND *entry) {
    OVERLAPPED *ov = reader == nullptr ? nullptr : &reader->OwnOvs[0].Ov;
    return ov != nullptr && script::RunningOn(ov) == HandleValue(entry) ? ov : nullptr;
}

Fiber *gAgain;

// A thread in a read is terminated while the read ends; the thread that gets its record reads as well.
void CancelAgainstEnd(bool foreign, bool hold) {
    static PSEHAND *entries[2];
    for (PSEHAND *&entry : entries) entry = test::NewEntry(gSchedulers[foreign ? 0 : 1], PHAND_HTYPE_CreateFileA);
    script::gScript.HoldCancels = hold;
    static Fiber *F = AddThread(1, false, [](Fiber *self) {
        Gate(self);
        // The other one runs as soon as this one ends.
        TermCleanupFuncSet(self, [](Fiber *, Scheduler *, uintptr_t *, uint32_t) { Open(gAgain); });
        test::ReadOn(self, entries[0]);
    });
    static uint32_t generation = Generation(F);
    static Fiber *second;
    gAgain = AddFiber(1, [](Fiber *self) {
        Gate(self);
        while (F->State != FSTATE_EXITED && Generation(F) == generation) SchedYield(self, Yield_SCHED);
        CreateOn(1, [](Fiber *reader) {
            second = reader;
            MUST(test::ReadOn(reader, entries[1]) == STATUS_SUCCESS);
            MUST(reader->OwnOvs[0].Ov.InternalHigh == 2);
        });
    });
    gToEnd++;
    OpenAtRest({F});
    RunToRest();
    AddFiber(0, [](Fiber *) {
        Terminate();
        CloseHandle(gThread);
    });
    AddEnd("the first read ends", 1, [] { return ReadOf(F, entries[0]); });
    AddEnd("the second read ends", 2, [] { return ReadOf(second, entries[1]); });
    DrainShells();
}
// No packet is taken for a record that has been given to somebody else since.
void NoPacketOwed() {
    for (const FIBEROVERLAPPED &rec : gTarget->OwnOvs) MUST(rec.Io.PacketsQueued == 0 && rec.SkipPackets == 0);
}

// A thread in a read runs a routine while the read ends.
void ReadAndRoutine() {
    static PSEHAND *entry = test::NewEntry(gSchedulers[1], PHAND_HTYPE_CreateFileA);
    gTarget = AddFiber(1, [](Fiber *F) {
        IdentifyAtGate(F);
        MUST(test::ReadOn(F, entry) == STATUS_SUCCESS && F->OwnOvs[0].Ov.InternalHigh == 1);
        AwaitRoutine();
    });
    OpenAtRest({gTarget});
    RunToRest();
    AddFiber(0, [](Fiber *) { MUST(Inject()); });
    AddEnd("the read ends", 1, [] { return ReadOf(gTarget, entry); });
}

// A thread waits alertably for two reads with routines, and is asked for something meanwhile. Each routine runs once,
// or not at all when the thread is ended.
Shared<uint32_t> gCompletions[2];
OVERLAPPED gReads[2];
void Alertable(Ask ask) {
    AddThread(1, false, [](Fiber *F) {
        const HANDLE file = CreateFileA("name", GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        static char buffer[2];
        for (int i = 0; i < 2; ++i)
            MUST(ReadFileEx(file, buffer + i, 1, &gReads[i],
                            [](DWORD, DWORD, OVERLAPPED *ov) { gCompletions[ov - gReads]++; }));
        IdentifyAtGate(F);
        while (gCompletions[0] + gCompletions[1] < 2) SleepEx(10, TRUE);
        UnidentifyUserThread(0);
        CloseHandle(file);
        gTargetGone = true;
    });
    OpenAtRest({gTarget});
    AddFiber(0, [=](Fiber *) {
        ask();
        const DWORD code = AwaitEnd();
        for (Shared<uint32_t> &count : gCompletions) MUST(code == 7 ? count <= 1 : count == 1);
    });
    for (ListLink *link : {gTarget->FileOvs.Ends.Next, gTarget->FileOvs.Ends.Prev}) {
        OVERLAPPED *ov = &OvOfLink(link)->Ov;
        AddEnd("a read ends", 1, [=] { return script::RunningOn(ov) != nullptr ? ov : nullptr; });
    }
}

// ---- 4. Exit against message -------------------------------------------------------------------------

// A thread ends while something is asked of it; its record becomes another thread's, of which nothing was asked.
void ExitAgainst(Ask ask, int secondOn = 1) {
    static const HANDLE other = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    AddThread(1, false, [](Fiber *F) {
        IdentifyAtGate(F);
        UnidentifyUserThread(0);
        gTargetGone = true;
    });
    Fiber *again = AddFiber(1, [=](Fiber *self) {
        Gate(self);
        CreateOn(secondOn, [](Fiber *second) {
            IdentifyUserThread("TEST", other);
            for (int i = 0; i < 2; ++i) {
                MUST(second->SuspendRequests.load() == 0 && second->SuspendCount.load() == 0);
                MUST((second->Flags & (FIBER_TERMINATE | FIBER_EXEC_PENDING)) == 0);
                MUST(WaitForUserThreadPost(other, 0) == WAIT_TIMEOUT && second->PostPending == 0);
                Sleep(2);
            }
        });
    });
    gToEnd++;
    OpenAtRest({gTarget, again});
    AddFiber(0, [=](Fiber *) {
        ask();
        CloseHandle(gThread);
    });
    DrainShells();
}
void ExitAgainstSuspend() {
    ExitAgainst([] {
        if (SuspendThread(gThread) == 0xFFFFFFFF) return;
        MayStop();
        ResumeThread(gThread);
    });
}

// An entry that was looked up stands until the next yield, whatever happens to its handle.
void CloseAgainstLookUp() {
    static const HANDLE file = HandleValue(test::NewEntry(gSchedulers[1], PHAND_HTYPE_CreateFileA));
    Fiber *reader = AddFiber(0, [](Fiber *F) {
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
    Fiber *closer = AddFiber(1, [](Fiber *F) {
        Gate(F);
        CloseHandle(file);
        for (int i = 0; i < 3; ++i) {
            Scheduler *S = gSchedulers[1];
            FreeHandleEntry(AllocHandleEntry(S, 0), S);  // the same memory, as soon as it is free
            S->SelectPasses = kFullSweepPasses + 1;
            SchedYield(F, Yield_USER);
        }
    });
    OpenAtRest({reader, closer});
}

// The event by which a thread is identified is closed while the thread gives it up: its entry goes once.
void CloseAgainstUnidentify() {
    Fiber *owner = AddFiber(0, [](Fiber *F) {
        IdentifyAtGate(F);
        UnidentifyUserThread(0);
    });
    OpenAtRest({owner});
    AddFiber(1, [](Fiber *) { CloseHandle(gEvent); });
}
void OneEntryIsGone() {
    int64_t entries = 0;
    for (const Scheduler *S : {gSchedulers[0], gSchedulers[1]})
        entries += int64_t{S->ChunkTypeCount[ALLOC_PSEHAND]} - S->RetireOpen.Count - S->RetireWaiting.Count;
    MUST(entries == 0 && LookUpHandle(gEvent) == nullptr);
}

// ---- 5. Migration ------------------------------------------------------------------------------------

Shared<uint32_t> gProgress;
Shared<bool> gAnswered;  // what was asked of the target has been done

// While it is suspended a thread makes no progress.
void SuspendAndResume() {
    if (SuspendThread(gThread) == 0xFFFFFFFF) return;
    const uint32_t progress = gProgress;
    MayStop();
    Sleep(3);
    MUST(gProgress == progress);
    ResumeThread(gThread);
}

// A thread moves to another scheduler while somebody there, or on a third one, asks something of it. It ends when that
// has been done, so that nothing may be lost.
void Move(int sender, Ask ask) {
    AddThread(0, false, [](Fiber *F) {
        IdentifyAtGate(F);
        F->MigrateTarget = gSchedulers[1];
        LeaveRole(F);
        // Whoever leaves is still on its stack in the pass that follows.
        gSchedulers[0]->SelectPasses = kFullSweepPasses + 1;
        SchedYield(F, Yield_MIGRATE);
        MUST(SchedOf(F) == gSchedulers[1]);
        while (!gAnswered && gRoutineRuns == 0) {
            gProgress++;
            Sleep(1);
        }
        UnidentifyUserThread(0);
        gTargetGone = true;
    });
    OpenAtRest({gTarget});
    AddFiber(sender, [=](Fiber *) {
        ask();
        AwaitEnd();
    });
}
void SuspendOnTheWay() {
    SuspendAndResume();
    gAnswered = true;
}

// ---- 6. Counts of suspensions ------------------------------------------------------------------------

// Two senders stop a thread and let it go on again, each for itself.
void Suspenders(int sender, Ask second) {
    static Shared<int> sent;
    AddThread(1, true, [](Fiber *F) {
        IdentifyAtGate(F);
        while (sent < 2) {
            gProgress++;
            SchedYield(F, Yield_USER);
            gProgress++;
            Sleep(1);
        }
        AwaitPost();
        MUST(F->SuspendCount.load() == 0);
    });
    OpenAtRest({gTarget});
    for (int i = 0; i < 2; ++i)
        AddFiber(i == 0 ? 0 : sender, [ask = i == 0 ? SuspendAndResume : second](Fiber *) {
            ask();
            if (++sent == 2) PostUserThread(gEvent);
        });
}

// ---- 7. Waits for objects ----------------------------------------------------------------------------

HANDLE gUnits;

void Give() {
    MUST(os::ReleaseSemaphore(gUnits, 1, nullptr));
}

// Units come while waits for them run out of time, on both sides.
void ObjectAndTimeout() {
    Fiber *waiters[2];
    for (int i = 0; i < 2; ++i)
        waiters[i] = AddFiber(i, [](Fiber *F) {
            Gate(F);
            DWORD result;
            while ((result = WaitForSingleObject(gUnits, 2)) != WAIT_OBJECT_0) MUST(result == WAIT_TIMEOUT);
        });
    OpenAtRest({waiters[0], waiters[1]});
    AddFiber(0, [](Fiber *) {
        Give();
        Sleep(1);
        Give();
    });
}

void ObjectAnd(bool ends, bool routine, Ask ask) {
    TwoInLine([] { MUST(WaitForSingleObject(gUnits, INFINITE) == WAIT_OBJECT_0); }, ends, routine, std::move(ask));
}
// What comes while the first one is stopped is the next one's.
void ObjectAndSuspend() {
    ObjectAnd(false, false, [] {
        MUST(SuspendThread(gThread) == 0);
        Give();
        while (!gNextGot) Sleep(1);
        MUST(ResumeThread(gThread) == 1);
        Give();
    });
}
// Of two units the first may take one before it ends.
void ObjectAndTwoUnits(bool ends, void (*ask)()) {
    ObjectAnd(ends, !ends, [=] {
        ask();
        Give();
    });
    AddFiber(2, [](Fiber *) { Give(); });
}
void NoUnitIsLeft() {
    MUST(os::WaitForSingleObject(gUnits, 0) == WAIT_TIMEOUT);
}

void RoutineRanOnce() {
    MUST(gRoutineRuns == 1);
}
void InjectSurely() {
    MUST(Inject());
}

}  // namespace

void BeginScenario() {
    gEvent = os::CreateEventA(nullptr, FALSE, FALSE, nullptr);
    gUnits = os::CreateSemaphoreA(nullptr, 0, 9, nullptr);
}
bool AllEnded() {
    return gEnded == gToEnd;
}

// Short looks of a scheduler that sleeps, in place of waits that others end.
constexpr uint32_t kShort = 1, kLong = 100;

const Scenario gScenarios[] = {
    {"wake-short", 2, kShort, WakeByOne, nullptr, {2, 1, 1}, {4, 2, 2}},
    {"wake-long", 2, kLong, WakeByOne, nullptr, {2, 1, 1}, {4, 2, 2}},
    {"senders-short", 3, kShort, WakeByTwo, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"senders-long", 3, kLong, WakeByTwo, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"post-timeout", 2, kLong, PostAgainstTimeout, nullptr, {1, 1, 1}, {2, 2, 2}},
    {"posts-many", 2, kLong, WakeByMany, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"post-routine", 2, kLong, PostAndRoutine, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"post-reuse-far", 2, kLong, [] { ExitAgainst(Post); }, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"post-reuse-near", 2, kLong, [] { ExitAgainst(Post, 0); }, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"section", 2, kLong, SectionAndSection, nullptr, {2, 1, 0}, {4, 2, 1}},
    {"section-post", 2, kLong, SectionAndPost, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"section-end", 2, kLong, [] { SectionAnd(true, Terminate); }, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"section-routine", 2, kLong, [] { SectionAnd(false, InjectSurely); }, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"read-routine", 2, kLong, ReadAndRoutine, RoutineRanOnce, {1, 1, 0}, {3, 1, 1}},
    {"alertable-routine", 2, kLong, [] { Alertable(Inject); }, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"alertable-terminate", 2, kLong, [] { Alertable(Terminate); }, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"cancel", 2, kLong, [] { CancelAgainstEnd(false, false); }, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"cancel-held", 2, kLong, [] { CancelAgainstEnd(false, true); }, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"cancel-foreign", 2, kLong, [] { CancelAgainstEnd(true, true); }, NoPacketOwed, {1, 1, 0}, {3, 1, 1}},
    {"exit-suspend", 2, kLong, ExitAgainstSuspend, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"exit-terminate", 2, kLong, [] { ExitAgainst(Terminate); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"exit-routine", 2, kLong, [] { ExitAgainst(Inject); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"close-lookup", 2, kLong, CloseAgainstLookUp, nullptr, {1, 1, 0}, {3, 1, 1}},
    {"close-unidentify", 2, kLong, CloseAgainstUnidentify, OneEntryIsGone, {1, 1, 0}, {3, 1, 1}},
    {"move-suspend", 2, kLong, [] { Move(1, SuspendOnTheWay); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"move-suspend-third", 3, kLong, [] { Move(2, SuspendOnTheWay); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"move-terminate", 2, kLong, [] { Move(1, Terminate); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"move-routine", 2, kLong, [] { Move(1, Inject); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"suspenders", 2, kLong, [] { Suspenders(1, SuspendAndResume); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"suspenders-third", 3, kLong, [] { Suspenders(2, SuspendAndResume); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"suspend-routine", 2, kLong, [] { Suspenders(1, InjectSurely); }, RoutineRanOnce, {1, 1, 0}, {2, 1, 1}},
    {"suspend-routine-third", 3, kLong, [] { Suspenders(2, InjectSurely); }, RoutineRanOnce, {1, 1, 0}, {2, 1, 1}},
    {"object-timeout", 2, kLong, ObjectAndTimeout, NoUnitIsLeft, {1, 1, 1}, {3, 2, 2}},
    {"object-suspend", 3, kLong, ObjectAndSuspend, NoUnitIsLeft, {1, 1, 0}, {2, 1, 1}},
    {"object-terminate", 3, kLong, [] { ObjectAndTwoUnits(true, Terminate); }, nullptr, {1, 1, 0}, {2, 1, 1}},
    {"object-routine", 3, kLong, [] { ObjectAndTwoUnits(false, InjectSurely); }, NoUnitIsLeft, {1, 1, 0}, {2, 1, 1}},
};
const uint32_t gNumScenarios = sizeof gScenarios / sizeof gScenarios[0];

}  // namespace zvx::model
