// platform/base/shared_names.h - the part of named objects that processes share.
//
// All processes of a user map one small file in shared memory: a table of slots, one for each name. The state of a
// named object is in its slot; every process that has the object open has an object of its own for it, which leads
// there and holds what concerns the process alone (handles, waiters, which thread owns a mutex).
//
// Who may write what:
//   - everything in a slot is changed under the table's lock, a robust lock of the kernel's: when a process dies with
//     it, the next one gets it, and every state that can be left behind is a valid one;
//   - Value is read without the lock, for tests that only need to be right at some moment;
//   - Seq and Sleepers are atomics for sleeping.
//
// Which processes live is told by the kernel: process number i holds a lock on byte i of the file for as long as it
// runs. Nothing has to be cleaned up by the dying: who needs to know asks.
//
// Sleeping across processes: a sleeper reads Seq before it tests the object, raises Sleepers, and sleeps while Seq is
// what it was. Whoever makes an object takeable raises Seq and then looks at Sleepers. A process that dies asleep
// leaves Sleepers too high, which costs needless wake-ups.
#ifndef ZVX_PLATFORM_BASE_SHARED_NAMES_H
#define ZVX_PLATFORM_BASE_SHARED_NAMES_H

#include <atomic>
#include <cstdint>

#include "platform/base/object.h"

namespace os {

constexpr uint32_t kSharedProcesses = 1024;
constexpr uint32_t kSharedSlots = 1024;
constexpr uint32_t kSharedNameBytes = 256;  // with the zero

struct SharedSlot {
    std::atomic<uint32_t> Seq;       // futex: raised when the object may have become takeable
    std::atomic<uint32_t> Sleepers;  // threads, of any process, that sleep on Seq
    std::atomic<uint32_t> Value;     // event: 1 when set; semaphore: its count; mutex: 1 + the owner's number, 0 free
    uint32_t Limit;                  // [table lock] event: 1 for manual reset; semaphore: the maximum
    uint32_t Abandoned;              // [table lock] mutex: the last owner ended; told to the next one
    uint32_t Type;                   // [table lock] an ObjectType; kAny while the slot is free
    uint64_t Openers[kSharedProcesses / 64];  // [table lock] a bit for each process that has it open
    char Name[kSharedNameBytes];              // [table lock] without a prefix
};

// What a new object starts with.
struct SharedInit {
    uint32_t Value;
    uint32_t Limit;
    bool Owned;  // mutex: Value becomes the calling process
};

// Maps the table at the first call; false where there is none to be had: no shared memory, or somebody else's file
// under the name. The answer never changes afterwards.
bool SharedNamesReady();
// Of a process without a table: whether somebody else has taken its place. Then names are refused, for a name that only
// this process knows would exclude nobody; where there is no shared memory at all, that is all that there can be.
bool SharedNamesTaken();

// Takes the table's lock; never yields, holds for a few dozen instructions. After the dispatcher lock and the lock of
// names, before nothing.
void LockShared();
void UnlockShared();
struct SharedGuard {
    SharedGuard() { LockShared(); }
    ~SharedGuard() { UnlockShared(); }
    SharedGuard(const SharedGuard &) = delete;
    SharedGuard &operator=(const SharedGuard &) = delete;
};

// [table lock] The slot of the name, opened for this process. With `create`, a new one when nobody has it open, and
// then *fresh. Null with *error: 6 (another type has the name), 2 (nobody has it), 8 (the table is full).
SharedSlot *OpenSlotLocked(const char *name, ObjectType type, const SharedInit *init, bool create, bool *fresh,
                           DWORD *error);
// [table lock] The same for a slot that an object of this process leads to already: one that a fork has copied is open
// for the new process from its first use on.
void KeepSlotLocked(SharedSlot *slot, const char *name);
// [table lock] This process has closed it.
void CloseSlotLocked(SharedSlot *slot);
// [table lock] This process's number; 0xFFFFFFFF when 1024 others have the table open.
uint32_t OwnNumberLocked();
// Whether `value`, that of a mutex, names this process. No lock; false before its first number.
bool IsOwnNumber(uint32_t value);
// Whether the mutex is held by a process that has ended. Asks the kernel.
bool OwnerHasEnded(const SharedSlot *slot);

// The object may have become takeable: wakes the sleepers of every process. Without the table's lock.
void AnnounceSlot(SharedSlot *slot);

// Sleeps until *word is no longer `seen`, one of the slots' Seq is no longer what `seqs` says, or the deadline. Where
// the kernel cannot sleep on several words, a few milliseconds at most.
void SleepOnSlots(std::atomic<uint32_t> *word, uint32_t seen, SharedSlot *const *slots, const uint32_t *seqs,
                  uint32_t count, uint64_t deadline);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_SHARED_NAMES_H
