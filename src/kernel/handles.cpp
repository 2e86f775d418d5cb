// kernel/handles.cpp - the table of wrapped handles, and what is exported over it.
//
// A flat array indexed by the handle value divided by four. User threads of every scheduler come here, and so
// does the dump. Look-ups (handles.h) take no lock; insertion, removal, growth and the dump hold HandHashQLock,
// reference counts gHandleRefLock. Nothing here yields.
//
// Life of an entry: AllocHandleEntry -> completed by its maker -> InsertHandle -> RefCount 0 -> out of the table,
// retired -> ReleaseRetiredHandle, when every scheduler has moved on. The handle value is pinned from insertion to
// release, so it is not given out again meanwhile. A post event leaves the table before RefCount is 0 when its thread
// is unidentified while duplicates are open.
#include "kernel/handles.h"

#include <cstdio>
#include <cstring>

#include "alloc/alloc.h"
#include "base/assert.h"
#include "diag/stats.h"
#include "diag/trace.h"
#include "sched/sched.h"
#include "sched/upcalls.h"

namespace zvx {

std::atomic<HandleSlot *> gHandleTable{nullptr};
std::atomic<uint32_t> gHandleTableSize{0};
std::atomic<uint32_t> gHandleCount{0};
HandleSlot *gRetiredHandleTable = nullptr;
SpinLock HandHashQLock;
os::CriticalSection gHandleRefLock;

static_assert(sizeof(HandleSlot) == sizeof(void *), "a zeroed array is an empty table");

namespace {

std::atomic<uint32_t> sHandleSerial{0};

constexpr const char *kTypeNames[] = {
    "PHAND_HTYPE_FiberSpecific",     "PHAND_HTYPE_CreateFileA",       "PHAND_HTYPE_CreateFileW",
    "PHAND_HTYPE_CreateNamedPipeA",  "PHAND_HTYPE_CreateNamedPipeW",  "PHAND_HTYPE_CreateThread",
    "PHAND_HTYPE_CreateSchedThread", "PHAND_HTYPE_WSASocket",         "PHAND_HTYPE_socket",
    "PHAND_HTYPE_PostEventHandle",   "PHAND_HTYPE_PostEventNTHandle",
};
constexpr uint32_t kTypeCount = sizeof(kTypeNames) / sizeof(kTypeNames[0]);
static_assert(kTypeCount == PHAND_HTYPE_PostEventNTHandle + 1, "one name a type");

// Fresh pages read as zero without being given memory, and a large table is mostly empty: only what is not zero
// already is written.
void ZeroSlots(void *memory, size_t bytes) {
    constexpr size_t kStep = 4096;
    static const char zeros[kStep] = {};
    for (size_t at = 0; at < bytes; at += kStep) {
        char *page = static_cast<char *>(memory) + at;
        const size_t length = bytes - at < kStep ? bytes - at : kStep;
        if (std::memcmp(page, zeros, length) != 0) std::memset(page, 0, length);
    }
}

// HandHashQLock is held.
void GrowTableLocked() {
    HandleSlot *old = gHandleTable.load(std::memory_order_relaxed);
    const uint32_t oldSize = gHandleTableSize.load(std::memory_order_relaxed);
    const uint64_t slots = old == nullptr ? kFirstHandleSlots : uint64_t{oldSize} * 2;
    const uint64_t bytes = slots * sizeof(HandleSlot);
    void *memory = bytes > UINT32_MAX ? nullptr : KVTAllocNoSched(static_cast<uint32_t>(bytes), 0);
    if (memory == nullptr) {
        ReleaseSpinLock(&HandHashQLock);
        FatalExit("COULD not expand HANDLE TABLE\n");
    }
    ZeroSlots(memory, bytes);
    HandleSlot *table = static_cast<HandleSlot *>(memory);
    for (uint32_t i = 0; i < oldSize; i++) {
        PSEHAND *entry = old[i].load(std::memory_order_relaxed);
        if (entry != nullptr) table[i].store(entry, std::memory_order_relaxed);
    }
    if (old != nullptr) {
        if (gRetiredHandleTable != nullptr) KVTFree(gRetiredHandleTable, 0);
        gRetiredHandleTable = old;
    }
    // The array first: whoever sees the new size sees the new array.
    gHandleTable.store(table, std::memory_order_release);
    gHandleTableSize.store(static_cast<uint32_t>(slots), std::memory_order_release);
}

void ReleaseRetiredHandle(Scheduler *S, RetireEntry *retired) {
    PSEHAND *entry = ZVX_RECORD_OF(retired, PSEHAND, Retire);
    os::UnpinHandleValue(HandleValue(entry));
    FreeHandleEntry(entry, S);
}

// gHandleRefLock is held. Its memory, and its handle value, come back once no other scheduler can have it in hand.
void DropRefLocked(PSEHAND *entry, Scheduler *S) {
    if (--entry->RefCount != 0) return;
    RemoveHandle(entry);
    entry->Retire.Release = ReleaseRetiredHandle;
    RetireRecord(S, &entry->Retire);
}

// gHandleRefLock is held. The entry's own handle counts in its family no more.
void DropOwnHandleLocked(PSEHAND *entry, Scheduler *S) {
    PSEHAND *parent = entry->Parent;
    if (parent != nullptr && parent->RefCount != 0) DropRefLocked(parent, S);
    entry->Closed = true;
    DropRefLocked(entry, S);
}

// gHandleRefLock is held. Out of the table although its handle may be open; duplicates of it keep it alive.
void WithdrawLocked(PSEHAND *entry, Scheduler *S) {
    RemoveHandle(entry);
    if (!entry->Closed) DropOwnHandleLocked(entry, S);
}

}  // namespace

void InitHandleTable() {
    InitSpinLock(&HandHashQLock, &gStats[STAT_HandHashQLock]);
    os::InitializeCriticalSection(&gHandleRefLock);
    gHandleTableSize.store(0, std::memory_order_release);
    gHandleTable.store(nullptr, std::memory_order_release);
    gRetiredHandleTable = nullptr;
    gHandleCount.store(0, std::memory_order_relaxed);
}

PSEHAND *AllocHandleEntry(Scheduler *S, uint8_t node) {
    void *chunk = AllocChunk(&gAllocTypes[ALLOC_PSEHAND], S, node == kOwnNode ? S->NumaNode : node);
    PSEHAND *entry = new (chunk) PSEHAND{};
    entry->RefCount = 1;
    InitLink(&entry->Retire.Link);
    do {
        entry->Serial = sHandleSerial.fetch_add(1, std::memory_order_relaxed) + 1;
    } while (entry->Serial == 0);
    return entry;
}

void FreeHandleEntry(PSEHAND *entry, Scheduler *S) {
    if (entry->Hid != nullptr) FreeChunk(&gAllocTypes[ALLOC_STRING], S, entry->Hid, S->NumaNode);
    FreeChunk(&gAllocTypes[ALLOC_PSEHAND], S, entry, S->NumaNode);
}

void InsertHandle(PSEHAND *entry) {
    os::PinHandleValue(HandleValue(entry));
    const uint32_t slot = entry->Handle >> 2;
    SpinGuard guard(&HandHashQLock);
    while (slot >= gHandleTableSize.load(std::memory_order_relaxed)) GrowTableLocked();
    // An occupied slot is overwritten, and counts once. Release: a reader that finds the entry finds it complete.
    HandleSlot &place = gHandleTable.load(std::memory_order_relaxed)[slot];
    if (place.load(std::memory_order_relaxed) == nullptr) gHandleCount.fetch_add(1, std::memory_order_relaxed);
    place.store(entry, std::memory_order_release);
}

bool RemoveHandle(PSEHAND *entry) {
    const uint32_t slot = entry->Handle >> 2;
    SpinGuard guard(&HandHashQLock);
    if (slot >= gHandleTableSize.load(std::memory_order_relaxed)) return false;
    HandleSlot &place = gHandleTable.load(std::memory_order_relaxed)[slot];
    if (place.load(std::memory_order_relaxed) != entry) return false;
    place.store(nullptr, std::memory_order_relaxed);
    gHandleCount.fetch_sub(1, std::memory_order_relaxed);
    return true;
}

void ReleaseHandleRef(PSEHAND *entry, uintptr_t handle, Scheduler *S) {
    os::EnterCriticalSection(&gHandleRefLock);
    // Another scheduler may have withdrawn it since it was looked up, perhaps for good. And what is in the table with
    // its handle closed belongs to its duplicates.
    if (LookUpHandle(handle) != entry || entry->Closed) {
        os::LeaveCriticalSection(&gHandleRefLock);
        return;
    }
    if (entry->RefCount == 0) {
        os::LeaveCriticalSection(&gHandleRefLock);
        FatalExit("in CLOSE HANDLE REF ALREADY ZERO handle %d \n", static_cast<int>(handle));
    }
    DropOwnHandleLocked(entry, S);
    os::LeaveCriticalSection(&gHandleRefLock);
}

void InsertPostEvent(PSEHAND *entry, Scheduler *S) {
    os::EnterCriticalSection(&gHandleRefLock);
    if (PSEHAND *before = LookUpHandle(HandleValue(entry)); before != nullptr) WithdrawLocked(before, S);
    InsertHandle(entry);
    os::LeaveCriticalSection(&gHandleRefLock);
}

void WithdrawPostEvent(HANDLE event, uint32_t serial, Scheduler *S) {
    os::EnterCriticalSection(&gHandleRefLock);
    if (PSEHAND *entry = SameHandle(event, serial); entry != nullptr) WithdrawLocked(entry, S);
    os::LeaveCriticalSection(&gHandleRefLock);
}

void RecordDuplicate(HANDLE copy, HANDLE source, Scheduler *S, uint8_t node) {
    os::EnterCriticalSection(&gHandleRefLock);
    PSEHAND *from = LookUpHandle(source);
    if (from != nullptr) {
        PSEHAND *root = RootOf(from);
        PSEHAND *entry = AllocHandleEntry(S, node);
        root->RefCount++;
        entry->Parent = root;
        entry->Flags.store(root->Flags.load(std::memory_order_acquire), std::memory_order_relaxed);
        entry->PortIndex = root->PortIndex;
        entry->OwnerFiber = root->OwnerFiber;
        entry->OwnerGeneration = root->OwnerGeneration;
        entry->Type = root->Type;
        entry->Handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(copy));
        InsertHandle(entry);
    }
    os::LeaveCriticalSection(&gHandleRefLock);
}

BOOL CloseHandleOn(Scheduler *S, HANDLE handle) {
    PSEHAND *entry = LookUpHandle(handle);
    if (entry != nullptr) ReleaseHandleRef(entry, reinterpret_cast<uintptr_t>(handle), S);
    return os::CloseHandle(handle);
}

BOOL CloseHandle(HANDLE handle) {
    Fiber *F = CallingFiber();
    if (F == nullptr) return os::CloseHandle(handle);
    return CloseHandleOn(SchedOf(F), handle);
}

BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target, DWORD access,
                     BOOL inherit, DWORD options) {
    HANDLE copy = nullptr;
    const BOOL done = os::DuplicateHandle(sourceProcess, source, targetProcess, &copy, access, inherit, options);
    if (target != nullptr) *target = copy;
    Fiber *F = CallingFiber();
    if (F == nullptr || !done) return done;
    if (targetProcess != os::GetCurrentProcess() || targetProcess != sourceProcess) {
        FatalExit("DuplicateHandle: Must fix tph=%d sph=%d\n",
                  static_cast<int>(reinterpret_cast<intptr_t>(targetProcess)),
                  static_cast<int>(reinterpret_cast<intptr_t>(sourceProcess)));
    }
    Scheduler *S = SchedOf(F);
    RecordDuplicate(copy, source, S, kOwnNode);
    // The operating system has closed the source already; its entry must not keep the value pinned for ever.
    if ((options & DUPLICATE_CLOSE_SOURCE) != 0) {
        PSEHAND *closed = LookUpHandle(source);
        if (closed != nullptr) ReleaseHandleRef(closed, reinterpret_cast<uintptr_t>(source), S);
    }
    return done;
}

const char *HandleTypeName(uint32_t type) {
    return type < kTypeCount ? kTypeNames[type] : "?";
}

bool DescribeHandle(uintptr_t handle, const char **hid, const char **typeName) {
    const PSEHAND *entry = LookUpHandle(handle);
    if (entry == nullptr) return false;
    *hid = entry->Hid != nullptr ? entry->Hid : "";
    *typeName = HandleTypeName(entry->Type);
    return true;
}

void DumpHandleTable() {
    TraceLog(true, true, true, "skvtphand: debug info START\n");
    {
        // No entry of the table is freed while the lock keeps it there.
        SpinGuard guard(&HandHashQLock);
        const uint32_t size = gHandleTableSize.load(std::memory_order_relaxed);
        const HandleSlot *table = gHandleTable.load(std::memory_order_relaxed);
        for (uint32_t i = 0; i < size; i++) {
            const PSEHAND *entry = table[i].load(std::memory_order_relaxed);
            if (entry == nullptr) continue;
            char line[1024];
            size_t used = 0;
            const auto add = [&](const char *format, auto... values) {
                const int n = std::snprintf(line + used, sizeof(line) - used, format, values...);
                if (n > 0)
                    used =
                        used + static_cast<size_t>(n) < sizeof(line) ? used + static_cast<size_t>(n) : sizeof(line) - 1;
            };
            add("Handle[x%X/x%X]: flags[x%X] type[%s] ref[%u]", i * 4, entry->Handle,
                entry->Flags.load(std::memory_order_relaxed), HandleTypeName(entry->Type), entry->RefCount);
            add(" hid[%s]", entry->Hid != nullptr ? entry->Hid : "");
            if (entry->Parent != nullptr) add(" parent[x%X]", entry->Parent->Handle);
            if (const Fiber *owner = entry->OwnerFiber; owner != nullptr) {
                const char *tag = owner->Tag.load(std::memory_order_relaxed);
                add(" fiber[%p/%u/%u] ftid[x%X] fid[%s]", static_cast<const void *>(owner), Generation(owner),
                    entry->OwnerGeneration, owner->OsThreadId.load(std::memory_order_relaxed),
                    tag != nullptr ? tag : "");
            }
            add("%s", "\n");
            TraceLog(false, true, false, "%s", line);
        }
    }
    TraceLog(true, true, true, "skvtphand: debug info END\n");
}

void CheckHandleTable() {
#ifdef ZVX_CHECKS
    os::EnterCriticalSection(&gHandleRefLock);
    {
        SpinGuard guard(&HandHashQLock);
        const uint32_t size = gHandleTableSize.load(std::memory_order_relaxed);
        const HandleSlot *table = gHandleTable.load(std::memory_order_relaxed);
        ZVX_CHECK((table == nullptr) == (size == 0));
        uint32_t occupied = 0;
        uint64_t roots = 0, children = 0, rootRefs = 0;
        for (uint32_t i = 0; i < size; i++) {
            const PSEHAND *entry = table[i].load(std::memory_order_relaxed);
            if (entry == nullptr) continue;
            occupied++;
            ZVX_CHECK(entry->Handle >> 2 == i);
            ZVX_CHECK(entry->RefCount != 0 && entry->Serial != 0);
            ZVX_CHECK(!IsLinked(&entry->Retire.Link));
            if (entry->Parent == nullptr) {
                roots++;
                rootRefs += entry->RefCount;
                continue;
            }
            // A duplicate hangs on the first handle of its family, which outlives it.
            const PSEHAND *root = entry->Parent;
            ZVX_CHECK(entry->RefCount == 1);
            ZVX_CHECK(root->Parent == nullptr && root->RefCount != 0);
            ZVX_CHECK(entry->Type == root->Type);
            // One whose root is withdrawn is not counted, as the root is not.
            if (table[root->Handle >> 2].load(std::memory_order_relaxed) == root) children++;
        }
        ZVX_CHECK(occupied == gHandleCount.load(std::memory_order_relaxed));
        // Every duplicate counts once in its root, and a root once more while its own handle is open.
        ZVX_CHECK(rootRefs >= children && rootRefs <= children + roots);
    }
    os::LeaveCriticalSection(&gHandleRefLock);
#endif
}

}  // namespace zvx
