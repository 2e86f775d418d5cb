// kernel/handles.h - the table of wrapped handles: look-up, entries, reference counts, duplicates.
//
// Every exported function that takes a handle looks it up here first. A handle without an entry is none of
// the library's business and goes to the operating system unchanged.
//
// Lock order: gHandleRefLock, then HandHashQLock, never the reverse. Neither is ever held across a yield.
#ifndef ZVX_KERNEL_HANDLES_H
#define ZVX_KERNEL_HANDLES_H

#include "kernel/psehand.h"
#include "sched/records.h"

namespace zvx {

using HandleSlot = std::atomic<PSEHAND *>;

constexpr uint32_t kFirstHandleSlots = 0x200000;  // large, so that growing under the spin lock is rare
constexpr uint8_t kOwnNode = 255;                 // "the scheduler's own node" where a node is asked for

// The array is published before its size, so a reader that loads the size first always finds an array of at
// least that many slots. A reader that still holds the previous array reads valid memory: it is kept in
// gRetiredHandleTable until the growth after the next.
extern std::atomic<HandleSlot *> gHandleTable;  // [HandHashQLock] to write; null until the first insertion
extern std::atomic<uint32_t> gHandleTableSize;  // [HandHashQLock] to write; slots
extern std::atomic<uint32_t> gHandleCount;                   // [HandHashQLock] occupied slots
extern HandleSlot *gRetiredHandleTable;         // [HandHashQLock] the array before the latest growth, or null
extern SpinLock HandHashQLock;                  // insertion, removal, growth and the dump
extern os::CriticalSection gHandleRefLock;      // reference counts and the recording of duplicates

// The entry of a handle value, or null. No lock: two loads and a bounds test. The entry stays readable until the
// calling user thread yields or blocks with BlockedOutside set; across either keep the value and the serial, and look
// up again (SameHandle).
inline PSEHAND *LookUpHandle(uintptr_t handle) {
    const uint32_t size = gHandleTableSize.load(std::memory_order_acquire);
    const uintptr_t slot = handle >> 2;
    if (slot >= size) return nullptr;
    return gHandleTable.load(std::memory_order_relaxed)[slot].load(std::memory_order_acquire);
}
inline PSEHAND *LookUpHandle(HANDLE handle) {
    return LookUpHandle(reinterpret_cast<uintptr_t>(handle));
}

// The entry again after a yield, or null when the handle was closed meanwhile (even if its value came back).
inline PSEHAND *SameHandle(HANDLE handle, uint32_t serial) {
    PSEHAND *entry = LookUpHandle(handle);
    return entry != nullptr && entry->Serial == serial ? entry : nullptr;
}

// Where the family keeps what its handles share: the file position, the times of a thread.
inline PSEHAND *RootOf(PSEHAND *entry) {
    return entry->Parent != nullptr ? entry->Parent : entry;
}

// Empties the table and names its locks. Start-up, before the first user thread; also resets a test.
void InitHandleTable();

// A zeroed entry with RefCount 1 and a fresh serial, from the chunks of `S` (the calling thread's scheduler).
PSEHAND *AllocHandleEntry(Scheduler *S, uint8_t node);
// Gives back an entry that was never inserted.
void FreeHandleEntry(PSEHAND *entry, Scheduler *S);
// Stores the entry in the slot of entry->Handle, growing the table as needed, and keeps the operating system
// from giving the value out again while the entry lives. The entry is complete by now.
void InsertHandle(PSEHAND *entry);
// Clears the entry's slot, if it is still this entry's; false otherwise.
bool RemoveHandle(PSEHAND *entry);
// Drops one open handle of the entry and of its root, and destroys what nobody refers to any more. `entry` is what
// was looked up under `handle`; nothing happens when it is no longer there, or the handle was closed before.
void ReleaseHandleRef(PSEHAND *entry, uintptr_t handle, Scheduler *S);
// InsertHandle for a post event. An entry that its handle has already, of a thread that ended or goes on under another
// event, gives way to it.
void InsertPostEvent(PSEHAND *entry, Scheduler *S);
// Takes the post event's entry of that serial out of the table, if the host has not closed the handle. Duplicates keep
// the entry alive.
void WithdrawPostEvent(HANDLE event, uint32_t serial, Scheduler *S);
// Notes that `copy` is a new handle for what `source` stands for; nothing to note when `source` is not wrapped.
void RecordDuplicate(HANDLE copy, HANDLE source, Scheduler *S, uint8_t node);
// CloseHandle for code that already runs on S: drops the entry's reference, if any, and closes.
BOOL CloseHandleOn(Scheduler *S, HANDLE handle);

const char *HandleTypeName(uint32_t type);
void DumpHandleTable();   // to the trace log; any thread
void CheckHandleTable();  // invariants, debug builds and tests

// Exported.
BOOL CloseHandle(HANDLE handle);
BOOL DuplicateHandle(HANDLE sourceProcess, HANDLE source, HANDLE targetProcess, HANDLE *target, DWORD access,
                     BOOL inherit, DWORD options);

}  // namespace zvx

#endif  // ZVX_KERNEL_HANDLES_H
