// sched/completion.cpp - overlapped records: how the end of an operation is noticed and whom it wakes.
//
// An operation is filed in a poll list while its user thread waits for it. The platform hands over records
// as their operations end; they wait in EndedOvs, one list a poll list, in the order in which a walk over the
// poll list would meet them, and are consumed where that walk stands (SchedYield, the idle routine, the full
// sweep). So no pass costs more than the operations that ended, however many are parked. The counts that the
// idle decision needs are kept as records enter and leave.
//
// A record may have ended before it is filed (an injected routine ran, a poll set moved on): its status is
// tested at every filing. That an operation of the fiber's own ended while another one is waited on is
// remembered in Fiber.OwnEnded, which a deep poll acts on.
//
// Runs on the owning scheduler's thread only; takes no lock.
#include <cstring>

#include "alloc/alloc.h"
#include "diag/timeline.h"
#include "diag/trace.h"
#include "kernel/psehand.h"
#include "sched/internal.h"
#include "sched/upcalls.h"

namespace zvx {

// ---- Records -----------------------------------------------------------------------------------------

void InitOv(FIBEROVERLAPPED *rec, Fiber *F) {
    std::memset(static_cast<void *>(rec), 0, sizeof *rec);
    InitLink(&rec->Link);
    InitLink(&rec->PollLink);
    InitLink(&rec->EndedLink);
    rec->Fiber = F;
    rec->Magic = FIBEROVERLAPPED_MAGIC;
    rec->PollList = kNotPolled;
    rec->Io.Ov = &rec->Ov;
}

FIBEROVERLAPPED *AllocOv(Fiber *F, PSEHAND *handleRec, uint32_t opArg) {
    Scheduler *S = SchedOf(F);
    FIBEROVERLAPPED *rec;
    if (ListLink *link = PopLink(&S->FreeOvs)) {
        rec = OvOfLink(link);
    } else {
        rec = static_cast<FIBEROVERLAPPED *>(AllocChunk(&gAllocTypes[ALLOC_FIBEROVERLAPPED], S, S->NumaNode));
        InitOv(rec, F);
    }
    rec->Fiber = F;
    rec->HandleRec = handleRec;
    rec->HandleType = handleRec->Type;
    rec->OsHandle = HandleValue(handleRec);
    rec->OpArg = opArg;
    rec->Flags = 0;
    rec->OwnEnded = 0;
    rec->ForeignPort = 0;
    return rec;
}

void FreeOv(FIBEROVERLAPPED *rec, Scheduler *S) {
    rec->Flags = 0;  // it may still be handed over, and is nobody's own operation any more
    PushLink(&S->FreeOvs, &rec->Link);
}

bool AttachHandleToPort(Scheduler *S, PSEHAND *handleRec, HANDLE handle) {
    if (gNumContextSwitchesBeforePolling == 0) return true;
    uint32_t flags = handleRec->Flags.load(std::memory_order_relaxed);
    if (flags & PHAND_FLAG_ON_PORT) return true;
    HANDLE port = os::CreateIoCompletionPort(handle, S->Port, reinterpret_cast<uintptr_t>(handle), 0);
    if (port == INVALID_HANDLE_VALUE || port != S->Port) return false;
    handleRec->PortIndex = S->Index;
    handleRec->Flags.fetch_or(PHAND_FLAG_ON_PORT, std::memory_order_release);
    return true;
}

void PacketOrPoll(Scheduler *S, FIBEROVERLAPPED *rec, PSEHAND *handleRec, uint32_t kind, bool neverPoll) {
    rec->Flags = kind;
    rec->ForeignPort = 0;
    rec->Issuer = S;
    if (!(handleRec->Flags.load(std::memory_order_acquire) & PHAND_FLAG_ON_PORT)) return;
    // A packet would arrive at the port of the scheduler that attached the handle, whose thread must not
    // touch this fiber. The own ring ends the operation and the own wait in the port all the same.
    bool foreign = handleRec->PortIndex != S->Index;
    bool busy = !neverPoll && gNumContextSwitchesBeforePolling < kAlwaysPackets &&
                S->SwitchesSinceIdle >= gNumContextSwitchesBeforePolling;
    if (!foreign && !busy) {
        rec->Flags |= OV_PACKET_EXPECTED;
        return;
    }
    rec->ForeignPort = foreign;
    HANDLE event = rec->Ov.hEvent != nullptr ? rec->Ov.hEvent : AvoidCompletionEvent;
    rec->Ov.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<uintptr_t>(event) | 1);
}

void AccountPacket(FIBEROVERLAPPED *rec) {
    if (!(rec->Flags & OV_PACKET_EXPECTED)) return;
    rec->Flags &= ~static_cast<uint32_t>(OV_PACKET_EXPECTED);
    rec->SkipPackets++;
}

void WaitForCurOv(Fiber *F) {
    F->IoWaitOv = F->CurOv;
    SchedYield(F, Yield_IO_WAIT);
    F->IoWaitOv = nullptr;
}

// ---- Poll lists and their counts ---------------------------------------------------------------------

static void Uncount(Scheduler *S, FIBEROVERLAPPED *rec) {
    switch (rec->CountClass) {
        case kCountPort: S->PortCount--; break;
        case kCountNet: S->NetCount--; [[fallthrough]];
        case kCountPolled: S->PolledCount--; break;
        default: break;
    }
    rec->CountClass = kCountNone;
}

static void CountPending(Scheduler *S, FIBEROVERLAPPED *rec) {
    const Fiber *F = rec->Fiber;
    if ((rec->Flags & OV_PACKET_EXPECTED) || rec->ForeignPort) {
        rec->CountClass = kCountPort;
        S->PortCount++;
    } else if (F->Role != ROLE_DBWR && F->Role != ROLE_INTERNAL) {
        bool pipe = rec->HandleType == PHAND_HTYPE_CreateNamedPipeA || rec->HandleType == PHAND_HTYPE_CreateNamedPipeW;
        bool net = F->Role == ROLE_SHAD && (!IsFileRecord(rec) || pipe);
        rec->CountClass = net ? kCountNet : kCountPolled;
        S->PolledCount++;
        if (net) S->NetCount++;
    }
}

// In PollSeq order from the tail: operations mostly end in the order in which they were filed.
static void InsertInPollOrder(ListHead *list, FIBEROVERLAPPED *rec) {
    ListLink *after = list->Ends.Prev;
    if (after != &list->Ends && OvOfEndedLink(FirstLink(list))->PollSeq > rec->PollSeq) after = &list->Ends;
    while (after != &list->Ends && OvOfEndedLink(after)->PollSeq > rec->PollSeq) after = after->Prev;
    InsertBefore(list, after->Next, &rec->EndedLink);
}

static void LeaveEndedLists(Scheduler *S, FIBEROVERLAPPED *rec) {
    if (rec->EndedIn == kEndedNowhere) return;
    ListHead *list = rec->EndedIn == kEndedList ? &S->EndedOvs[rec->PollList] : &S->DeepOvs[rec->PollList];
    UnlinkFrom(list, &rec->EndedLink);
    if (rec->EndedIn == kEndedList && IsEmpty(list)) S->Attention &= ~(1u << rec->PollList);
    rec->EndedIn = kEndedNowhere;
}

static void EnterEnded(Scheduler *S, FIBEROVERLAPPED *rec) {
    if (rec->EndedIn == kEndedList) return;
    LeaveEndedLists(S, rec);
    Uncount(S, rec);
    InsertInPollOrder(&S->EndedOvs[rec->PollList], rec);
    rec->EndedIn = kEndedList;
    S->Attention |= 1u << rec->PollList;
}

static void EnterDeep(Scheduler *S, FIBEROVERLAPPED *rec) {
    if (rec->EndedIn != kEndedNowhere) return;
    InsertInPollOrder(&S->DeepOvs[rec->PollList], rec);
    rec->EndedIn = kDeepList;
}

void FilePollRecord(Scheduler *S, FIBEROVERLAPPED *rec) {
    ZVX_CHECK(!IsLinked(&rec->PollLink) && rec->PollList == kNotPolled);
    rec->PollList = PollListOf(rec);
    rec->PollSeq = S->PollSeqNext++;
    AppendLink(&S->PollLists[rec->PollList], &rec->PollLink);
    if (HasEnded(rec)) {
        EnterEnded(S, rec);
        return;
    }
    CountPending(S, rec);
    if ((rec->Fiber->Flags & FIBER_POLL_OWN_OVS) && rec->Fiber->OwnEnded != 0) EnterDeep(S, rec);
}

void UnfilePollRecord(Scheduler *S, FIBEROVERLAPPED *rec) {
    if (rec->PollList == kNotPolled) return;
    LeaveEndedLists(S, rec);
    Uncount(S, rec);
    UnlinkFrom(&S->PollLists[rec->PollList], &rec->PollLink);
    rec->PollList = kNotPolled;
}

void EmptyPollSet(Fiber *F) {
    while (ListLink *link = PopLink(&F->PollSetOvs))
        OvOfPollLink(link)->Flags &= ~static_cast<uint32_t>(OV_IN_POLL_SET);
}

OVERLAPPED *GatherPollSet(Fiber *F, uint32_t which, uint32_t n) {
    ListHead *list = nullptr;
    if ((which & 1) && !IsEmpty(&F->FileOvs)) {
        list = &F->FileOvs;
    } else if ((which & 2) && !IsEmpty(&F->SocketOvs)) {
        list = &F->SocketOvs;
    }
    if (list == nullptr) return nullptr;
    FIBEROVERLAPPED *oldest = OvOfLink(FirstLink(list));
    ListLink *link = oldest->Link.Next;
    for (; n > 0 && link != &list->Ends; --n, link = link->Next) {
        FIBEROVERLAPPED *rec = OvOfLink(link);
        rec->Flags |= OV_IN_POLL_SET;
        AppendLink(&F->PollSetOvs, &rec->PollLink);
    }
    return &oldest->Ov;
}

// ---- What has ended ----------------------------------------------------------------------------------

static void CountOwnEnded(FIBEROVERLAPPED *rec) {
    if (!(rec->Flags & OV_ANY_ROUTINE) || rec->OwnEnded || !IsLinked(&rec->Link)) return;
    rec->OwnEnded = 1;
    rec->Fiber->OwnEnded++;
}

void NoteOwnOvFiled(Scheduler *S, FIBEROVERLAPPED *rec) {
    (void)S;
    if (HasEnded(rec)) CountOwnEnded(rec);
}

// The operation of `rec` has ended and the record may be filed, gathered in a poll set, or neither.
static void NoteEnded(Scheduler *S, FIBEROVERLAPPED *rec) {
    if (!HasEnded(rec)) return;  // an older end of a record that is in use again
    CountOwnEnded(rec);
    if (rec->PollList != kNotPolled) {
        EnterEnded(S, rec);
        return;
    }
    Fiber *F = rec->Fiber;
    if ((F->Flags & FIBER_POLL_OWN_OVS) && F->State == FSTATE_TIMED_WAIT && F->OwnEnded != 0 && F->CurOv != nullptr) {
        FIBEROVERLAPPED *current = OvRecord(F->CurOv);
        if (current->PollList != kNotPolled) EnterDeep(S, current);
    }
}

void HandOverEnded(Scheduler *S) {
    if (os::IoNeedsAttention(S->Io)) os::ReapIo(S->Io);
    os::IoOp *op = os::TakeEndedOps(S->Io);
    while (op != nullptr) {
        os::IoOp *next = op->NextEnded;
        NoteEnded(S, ZVX_RECORD_OF(op, FIBEROVERLAPPED, Io));
        op = next;
    }
}

void LookForEnded(Scheduler *S) {
    if (S->Io->Outstanding == 0) return;
    // Always, and not only when the ring asks for it: a cancellation from another thread waits in the inbox.
    os::ReapIo(S->Io);
    if (S->Io->EndedHead != nullptr) HandOverEnded(S);
}

bool CompleteIo(FIBEROVERLAPPED *rec, Scheduler *S) {
    AccountPacket(rec);
    Fiber *F = rec->Fiber;
    while (ListLink *link = PopLink(&F->PollSetOvs)) {
        FIBEROVERLAPPED *next = OvOfPollLink(link);
        next->Flags &= ~static_cast<uint32_t>(OV_IN_POLL_SET);
        if (!HasEnded(next)) {
            F->CurOv = &next->Ov;
            FilePollRecord(S, next);
            return false;
        }
    }
    if (rec->Flags & OV_ANY_ROUTINE) {
        UnlinkTimedWaiter(S, F);
    } else {
        UnlinkFrom(&S->IoWaiters, &F->RunLink);
    }
    MakeRunnable(S, F, IsFileRecord(rec) ? gFRQ : gSRQ);
    return true;
}

// An own operation ended although the one that is waited on is still pending.
static void WakeDeep(Scheduler *S, FIBEROVERLAPPED *rec) {
    Fiber *F = rec->Fiber;
    UnfilePollRecord(S, rec);
    EmptyPollSet(F);
    UnlinkTimedWaiter(S, F);
    MakeRunnable(S, F, gFRQ);
}

void ConsumeEnded(Scheduler *S, uint32_t pollList, bool deep) {
    ListHead *ended = &S->EndedOvs[pollList];
    ListHead *deepList = &S->DeepOvs[pollList];
    for (;;) {
        FIBEROVERLAPPED *rec = IsEmpty(ended) ? nullptr : OvOfEndedLink(FirstLink(ended));
        if (deep && !IsEmpty(deepList)) {
            FIBEROVERLAPPED *other = OvOfEndedLink(FirstLink(deepList));
            if (rec == nullptr || other->PollSeq < rec->PollSeq) {
                WakeDeep(S, other);
                continue;
            }
        }
        if (rec == nullptr) return;
        UnfilePollRecord(S, rec);
        CountOne(&S->DonePolled);
        NoteTimeline(S, kTimelineDone, rec->Fiber, 0);
        CompleteIo(rec, S);
    }
}

bool PollOvLists(Scheduler *S, bool deep) {
    if (MessagesWaiting(S)) DrainMessages(S);
    if (IoWaiting(S)) HandOverEnded(S);
    if (deep || (S->Attention & kAttEnded) != 0)
        for (uint32_t i = 0; i < kPollLists; ++i) ConsumeEnded(S, i, deep);
    return RunnableWork(S);
}

void ReapQueueSource(Scheduler *S, uint32_t queue) {
    if (queue == gPRQ) {
        if (MessagesWaiting(S)) DrainMessages(S);
    } else if (queue == gFRQ) {
        ConsumeEnded(S, kPollFile, false);
    } else if (queue == gSRQ) {
        ConsumeEnded(S, kPollSocket, false);
    }
}

// ---- The port ----------------------------------------------------------------------------------------

void PollPort(Scheduler *S, uint32_t waitMs) {
    S->PortPollCountdown = gDCPQ;
    uint32_t timeout = waitMs;
    if (timeout != 0) {
        S->BlockedInPort.store(1, std::memory_order_seq_cst);
        std::atomic_thread_fence(std::memory_order_seq_cst);  // the flag is set before the looks, in every order
        if (S->Messages.load(std::memory_order_seq_cst) != nullptr || PostsWaiting(S)) {
            S->BlockedInPort.store(0, std::memory_order_relaxed);
            timeout = 0;
        }
    }
    for (;;) {
        DWORD bytes = 0;
        uintptr_t key = 0;
        OVERLAPPED *overlapped = nullptr;
        BOOL got = os::GetQueuedCompletionStatus(S->Port, &bytes, &key, &overlapped, timeout);
        DWORD error = got ? 0 : S->Os->LastError;
        if (timeout != 0) {
            // Sequentially consistent: what fibers look up from now on is looked up after it (grace.cpp).
            S->BlockedInPort.store(0, std::memory_order_seq_cst);
            S->ExpectMessages = got && key == KEY_MESSAGES;
        }
        // Before any packet is looked at: a record must not be in the platform's chain when it is used again.
        HandOverEnded(S);
        if (!got && overlapped == nullptr) {
            // A wait that ended with news may have left packets behind; one that ended without has not, and what
            // comes in this moment is found before the next wait.
            if (error != WAIT_TIMEOUT || timeout == 0 || !(S->Attention & kAttEnded)) return;
            timeout = 0;
            continue;
        }
        timeout = 0;
        if (key == KEY_MESSAGES) {
            DrainMessages(S);
        } else {
            ProcessIOCPMessage(S, overlapped, key);
        }
    }
}

[[noreturn, gnu::noinline]] static void InvalidPacket(OVERLAPPED *overlapped, uintptr_t key, uint32_t magic) {
    const char *hid = "";
    const char *typeName = "";
    if (DescribeHandle(key, &hid, &typeName)) {
        TraceLog(true, true, true, "ProcessIOCPMessage: Inv. Completion Message [x%X][%s][%s]\n",
                 static_cast<unsigned>(key), hid, typeName);
    }
    FatalExit("ProcessIOCPMessage: Invalid Overlapped[%p] %u != %u\n", static_cast<void *>(overlapped), magic,
              FIBEROVERLAPPED_MAGIC);
}

void ProcessIOCPMessage(Scheduler *S, OVERLAPPED *overlapped, uintptr_t key) {
    FIBEROVERLAPPED *rec = OvRecord(overlapped);
    if (rec->Magic != FIBEROVERLAPPED_MAGIC) InvalidPacket(overlapped, key, rec->Magic);
    if (rec->Issuer != S && rec->Issuer != nullptr) [[unlikely]] {
        // Issued by the thread of another scheduler, which alone may touch it. Not Fiber says so: a free record with
        // packets still to come names a thread that may have ended, and whose Fiber may run elsewhere by now.
        os::PostQueuedCompletionStatus(rec->Issuer->Port, 0, key, overlapped);
        return;
    }
    if (rec->SkipPackets != 0) {
        rec->SkipPackets--;
        return;
    }
    rec->Flags &= ~static_cast<uint32_t>(OV_PACKET_EXPECTED);
    if (!HasEnded(rec)) {
        if (rec->PollList != kNotPolled) {
            Uncount(S, rec);
            CountPending(S, rec);
        }
        return;
    }
    if (!IsLinked(&rec->PollLink)) return;
    if (rec->Flags & OV_IN_POLL_SET) {
        UnlinkFrom(&rec->Fiber->PollSetOvs, &rec->PollLink);
        rec->Flags &= ~static_cast<uint32_t>(OV_IN_POLL_SET);
        return;
    }
    UnfilePollRecord(S, rec);
    CountOne(&S->DoneByPacket);
    NoteTimeline(S, kTimelineDone, rec->Fiber, 1);
    CompleteIo(rec, S);
}

// ---- A fiber's own operations ------------------------------------------------------------------------

void CancelOwnIo(Scheduler *S, Fiber *F) {
    (void)S;
    for (FIBEROVERLAPPED &rec : F->OwnOvs) {
        if (!HasEnded(&rec)) os::CancelOp(&rec.Io);
        AccountPacket(&rec);
    }
}

void CancelFiberOvs(Fiber *F) {
    for (ListHead *list : {&F->FileOvs, &F->SocketOvs}) {
        for (ListLink *link = FirstLink(list); link != &list->Ends; link = link->Next) {
            FIBEROVERLAPPED *rec = OvOfLink(link);
            if (!HasEnded(rec)) os::CancelOp(&rec->Io);
            rec->Flags |= OV_CANCELLED;
        }
    }
}

static uint32_t ReapOwnList(Fiber *F, ListHead *list) {
    ListLink *link = FirstLink(list);
    while (link != &list->Ends) {
        FIBEROVERLAPPED *rec = OvOfLink(link);
        if (!HasEnded(rec)) {
            link = link->Next;
            continue;
        }
        UnlinkFrom(list, &rec->Link);
        if (rec->OwnEnded) {
            rec->OwnEnded = 0;
            F->OwnEnded--;
        }
        AccountPacket(rec);
        // The routine may start further operations, which are appended, or wait alertably itself, which
        // delivers what this walk has not reached: start over after each.
        if (rec->Flags & OV_FILE_ROUTINE) {
            DeliverFileCompletion(rec, F);
        } else {
            DeliverSocketCompletion(rec, F);
        }
        link = FirstLink(list);
    }
    return list->Count;
}

uint32_t ReapOwnOvs(Fiber *F, uint32_t which) {
    uint32_t pending = 0;
    if (which & 1) pending += ReapOwnList(F, &F->FileOvs);
    if (which & 2) pending += ReapOwnList(F, &F->SocketOvs);
    return pending;
}

// A routine may itself wait: it must find no alertable wait in progress and may use up WaitTimeoutMs, so both are put
// aside while routines run.
void ReapOwnOvsInWait(Fiber *F) {
    const uint32_t left = F->WaitTimeoutMs;
    F->Flags &= ~uint32_t{FIBER_POLL_OWN_OVS};
    ReapOwnOvs(F, 3);
    // A routine may have waited for the rest of them; then nothing is left that could wake the thread.
    if (HasOwnOperations(F)) F->Flags |= FIBER_POLL_OWN_OVS;
    F->WaitTimeoutMs = left;
}

bool AnyOwnOvDone(const Fiber *F, uint32_t which) {
    for (uint32_t bit = 1; bit <= 2; bit <<= 1) {
        if (!(which & bit)) continue;
        const ListHead *list = bit == 1 ? &F->FileOvs : &F->SocketOvs;
        for (ListLink *link = FirstLink(list); link != &list->Ends; link = link->Next)
            if (HasEnded(OvOfLink(link))) return true;
    }
    return false;
}

}  // namespace zvx
