// tests/support/sched_fixture.cpp - see sched_fixture.h.
#include "sched_fixture.h"

#include <cstring>
#include <map>
#include <memory>

#include "alloc/alloc.h"
#include "diag/stats.h"
#include "sched/startup.h"

namespace zvx::test {

namespace {

struct Rig {
    os::FiberContext *TestSide = nullptr;
    std::map<HANDLE, Scheduler *> ByPort;
    std::map<Scheduler *, os::FiberContext *> Continue;  // where RunUntilIdle goes on
    Names Notes;
    std::vector<std::unique_ptr<std::function<void(Fiber *)>>> Bodies;
    uint32_t Schedulers = 0;
} gRig;

// Slots and last error stay with the side that switches.
void SwitchKeeping(os::FiberContext *to) {
    os::ThreadBlock *block = os::CurrentThreadBlock();
    void **slots = block->Slots;
    const DWORD error = block->LastError;
    os::SwitchToFiber(block, to);
    block->Slots = slots;
    block->LastError = error;
}

void BackToTest(Scheduler *S) {
    gRig.Continue[S] = os::CurrentThreadBlock()->Current;
    SwitchKeeping(gRig.TestSide);
}

void InitFiberLoop(void *fiber) {
    auto *F = static_cast<Fiber *>(fiber);
    for (;; InitFiberRoutine(SchedOf(F))) SchedYield(F, Yield_SCHED);
}

}  // namespace

void InitLibrary() {
    StatsInit();
    gLookupValue = [](const char *, char *, int) { return 0; };
    ReadSchedulerSettings();
    gProcessAffinityMask = os::script::gScript.ProcessMask;
    for (uint32_t &mask : gNodeMasks) mask = gProcessAffinityMask;
    ClearOption(su_EnableLargePages);
    KVTAllocInit();
    gStackSize = 0x10000;
    gNumSchedulers = 0;
    gProcessTls = os::CurrentThreadBlock()->StaticTls;
    InitSchedulerGlobals();
    AvoidCompletionEvent = os::CreateEventA(nullptr, TRUE, TRUE, nullptr);
    // The test side is no user thread, although it is a fiber.
    gRig.TestSide = os::ConvertThreadToFiber(reinterpret_cast<void *>(os::kNoFiberData));
    os::script::gScript.OnPortWait = [](HANDLE port, DWORD) { BackToTest(gRig.ByPort.at(port)); };
    os::script::gScript.OnSpin = [] { BackToTest(SchedOf(static_cast<Fiber *>(os::GetFiberData()))); };
    SetOption(su_InFiber | su_FiberMode);
}

Scheduler *NewScheduler() {
    auto *S = static_cast<Scheduler *>(std::aligned_alloc(alignof(Scheduler), sizeof(Scheduler)));
    std::memset(static_cast<void *>(S), 0, sizeof *S);
    S->AffinityMask = gProcessAffinityMask;
    InitScheduler(S, gRig.Schedulers++);
    gNumSchedulers = gRig.Schedulers;
    InitDynamicSchedulers();
    S->Os = os::CurrentThreadBlock();
    S->Port = os::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0);
    S->Io = os::script::IoThreadOf(S->Port);
    gRig.ByPort[S->Port] = S;
    Fiber *F = AllocFiberShell(S, 0);
    os::DeleteFiber(F->OsFiber);
    F->OsFiber = os::CreateFiber(gStackSize, InitFiberLoop, F);
    F->Flags |= FIBER_STARTED;
    S->InitFiber = F;
    S->InitFiberLink = &F->RunLink;
    S->Running.store(1);
    gRig.Continue[S] = F->OsFiber;
    return S;
}

Fiber *NewFiber(Scheduler *S, std::function<void(Fiber *)> body) {
    Fiber *F = AllocFiberShell(S, 0);
    gRig.Bodies.push_back(std::make_unique<std::function<void(Fiber *)>>(std::move(body)));
    F->StartRoutine = [](void *of) -> DWORD {
        (*static_cast<std::function<void(Fiber *)> *>(of))(static_cast<Fiber *>(os::GetFiberData()));
        return 0;
    };
    F->StartParam = gRig.Bodies.back().get();
    F->Flags |= FIBER_USER_THREAD;
    S->FiberCount.store(S->FiberCount.load() + 1);
    F->State = FSTATE_READY;
    AppendRunQueue(S, gORQ, F);
    return F;
}

void RunUntilIdle(Scheduler *S) {
    os::CurrentThreadBlock()->Io = S->Io;  // the thread block is one for all schedulers of the test
    SwitchKeeping(gRig.Continue.at(S));
    CheckScheduler(S);
}

void SendOne(Scheduler *to, uint8_t kind, Fiber *F, uint32_t generation, uint32_t code) {
    FIBER_MESSAGE *msg = AllocMessage(to, to, kind);
    msg->Count = 1;
    msg->Generation = generation;
    msg->One = {F, code, nullptr};
    SendMessage(to, msg);
}

void Pause() { BackToTest(SchedOf(static_cast<Fiber *>(os::GetFiberData()))); }

void Note(const std::string &what) { gRig.Notes.push_back(what); }

Names TakeNotes() { return std::exchange(gRig.Notes, {}); }

PSEHAND *NewEntry(Scheduler *S, uint32_t type) {
    PSEHAND *entry = AllocHandleEntry(S, S->NumaNode);
    entry->Type = type;
    entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(os::script::NewFile()));
    entry->Flags.store(PHAND_FLAG_ASYNC_ADDED);
    InsertHandle(entry);
    if (!AttachHandleToPort(S, entry, HandleValue(entry))) std::abort();
    return entry;
}

DWORD ReadOn(Fiber *F, PSEHAND *entry, const std::function<void()> &between) {
    FIBEROVERLAPPED *rec = &F->OwnOvs[0];
    F->CurOv = &rec->Ov;
    rec->OpArg = 3;
    rec->HandleType = entry->Type;
    rec->HandleRec = entry;
    rec->OsHandle = HandleValue(entry);
    rec->Ov = {0xFFFFFFFF, 0xFFFFFFFF, 0, 0, nullptr};
    PacketOrPoll(SchedOf(F), rec, entry, OV_FILE, false);
    DWORD got = 0;
    if (os::ReadFile(rec->OsHandle, nullptr, 1, &got, &rec->Ov, &rec->Io)) {
        AccountPacket(rec);
        return 0;
    }
    if (os::GetLastError() != ERROR_IO_PENDING) std::abort();
    if (between) between();
    WaitForCurOv(F);
    return os::LoadStatus(&rec->Ov);
}

}  // namespace zvx::test
