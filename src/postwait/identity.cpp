// postwait/identity.cpp - role tags, and the post event by which others name a user thread.
//
// Runs on the calling user thread and touches its own record and scheduler only. A tag decides the scheduling class,
// the queue a woken thread goes to, and whether its scheduler's kernel thread is raised. The host's string is kept by
// pointer; it must outlive the identification.
#include <cstring>

#include "diag/trace.h"
#include "kernel/handles.h"
#include "postwait/postwait.h"
#include "sched/sched.h"

namespace zvx {

namespace {

const char *const kNoTag = "NSHD";
const char *const kGoneTag = "DEAD";

bool IsEmptyTag(const char *tag) {
    return tag == nullptr || tag[0] == '\0';
}
bool IsSessionTag(const char *tag) {
    return std::strcmp(tag, "SHAD") == 0;
}
bool IsWriterTag(const char *tag) {
    return std::strncmp(tag, "DBW", 3) == 0;
}

void Add(std::atomic<uint32_t> *count, int32_t by) {
    count->store(count->load(std::memory_order_relaxed) + static_cast<uint32_t>(by), std::memory_order_relaxed);
}

// Who the scheduler counts as a session or a slave.
void CountTag(Scheduler *S, const char *tag, int32_t by) {
    if (IsSessionTag(tag)) {
        Add(&S->ShadowCount, by);
    } else if (IsSlaveTag(tag)) {
        Add(&S->SlaveCount, by);
    }
}

// The kernel thread of the calling fiber's scheduler. A refusal is no error.
void RaiseSchedulerThread(Scheduler *S, int32_t priority) {
    if (os::SetThreadPriority(os::GetCurrentThread(), priority)) S->CurPriority = priority;
}

void Classify(Scheduler *S, Fiber *F, const char *tag) {
    // The tag of before this call decides: only a thread that was tagged for migration may be a candidate.
    const bool candidate = DynamicCandidate(F);
    if (IsEmptyTag(tag) || IsSessionTag(tag)) {
        F->Role = ROLE_SHAD;
        F->SchedClass = CLASS_NORMAL;
    } else if (std::strcmp(tag, "LGWR") == 0) {
        F->Role = ROLE_LGWR;
        F->SchedClass = OptionSet(su_GiveLGWRHighPriority) && !candidate ? CLASS_HIGH : CLASS_NORMAL;
        if (OptionSet(su_BoostLGWROSThreadPri)) RaiseSchedulerThread(S, THREAD_PRIORITY_HIGHEST);
        if (F->SchedClass == CLASS_HIGH) S->LgwrFiber.store(F, std::memory_order_relaxed);
    } else if (IsWriterTag(tag)) {
        F->Role = ROLE_DBWR;
        F->SchedClass = candidate ? CLASS_NORMAL : OptionSet(su_BoostDBWRPriority) ? CLASS_BOOSTED : CLASS_BACKGROUND;
        S->DbwrFiber.store(F, std::memory_order_relaxed);
        if (OptionSet(su_BoostDBWOSThreadPri)) RaiseSchedulerThread(S, THREAD_PRIORITY_ABOVE_NORMAL);
    } else {
        F->Role = std::strcmp(tag, "PMON") == 0 ? ROLE_PMON : ROLE_OTHER;
        F->SchedClass = candidate ? CLASS_NORMAL : CLASS_BACKGROUND;
    }
}

// Stands in a record for the entry of a value that is no handle. The table is indexed by the value, so nobody could
// look such an entry up: posts and waits that name it go to the operating system, which says what is wrong with it.
PSEHAND gNoPostEvent;
bool PlausibleHandle(HANDLE handle) {
    const uintptr_t value = reinterpret_cast<uintptr_t>(handle);
    DWORD flags = 0;
    return (value & 3) == 0 && value <= UINT32_MAX && os::GetHandleInformation(handle, &flags);
}

// The host may have closed the event, which takes its entry along.
void DropPostEvent(Fiber *F, Scheduler *S) {
    const auto event = reinterpret_cast<HANDLE>(uintptr_t{F->PostEventHandle});
    if (event != nullptr) WithdrawPostEvent(event, F->PostEventSerial, S);
    F->PostEvent = nullptr;
    F->PostEventHandle = 0;
}

}  // namespace

bool DynamicCandidate(const Fiber *F) {
    if (!OptionSet(su_DynamicSchedulersEnabled)) return false;
    const char *tag = F->Tag.load(std::memory_order_relaxed);
    if (tag == nullptr) return false;
    if (IsWriterTag(tag)) return !OptionSet(su_DynamicSchedulersEnabledExcludeDBWR);
    return std::strcmp(tag, "LGWR") == 0;
}

bool IsSlaveTag(const char *tag) {
    const auto digit = [](char c) { return c >= '0' && c <= '9'; };
    return tag[0] == 'P' && std::strlen(tag) == 4 && digit(tag[2]) && digit(tag[3]);
}

void IdentifyUserThread(const char *tag, HANDLE postEvent) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return;
    Scheduler *S = SchedOf(F);
    Classify(S, F, tag);
    F->Tag.store(IsEmptyTag(tag) ? kNoTag : tag, std::memory_order_release);
    CountTag(S, F->Tag.load(std::memory_order_relaxed), 1);
    if (F->PostEvent != nullptr) FatalExit("PostEvent handle is not null\n");
    if (!PlausibleHandle(postEvent)) {
        F->PostEvent = &gNoPostEvent;
        return;
    }
    PSEHAND *entry = AllocHandleEntry(S, S->NumaNode);
    if (entry == nullptr) FatalExit("Could not allocate PostEvent handle\n");
    entry->OwnerFiber = F;
    entry->OwnerGeneration = Generation(F);
    entry->Type = S->Index >= gNumSchedulers && OptionSet(su_DynamicSchedUseNTPostWait) ? PHAND_HTYPE_PostEventNTHandle
                                                                                        : PHAND_HTYPE_PostEventHandle;
    F->PostEvent = entry;
    F->PostEventSerial = entry->Serial;
    entry->Handle = F->PostEventHandle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(postEvent));
    InsertPostEvent(entry, S);
}

void UnidentifyUserThread(DWORD reserved) {
    (void)reserved;
    Fiber *F = CallingFiber();
    if (F == nullptr) return;
    Scheduler *S = SchedOf(F);
    CountTag(S, F->Tag.load(std::memory_order_relaxed), -1);
    F->Tag.store(kGoneTag, std::memory_order_release);
    DropPostEvent(F, S);
}

void MigrateUserThread(const char *tag) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return;
    F->Tag.store(IsEmptyTag(tag) ? kNoTag : tag, std::memory_order_release);
    if (DynamicCandidate(F)) MoveToDynamicScheduler(F);
}

}  // namespace zvx
