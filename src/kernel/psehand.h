// kernel/psehand.h - the handle-table entry: data only.
#ifndef ZVX_KERNEL_PSEHAND_H
#define ZVX_KERNEL_PSEHAND_H

#include <atomic>
#include <cstdint>

#include "base/list.h"
#include "zvxkvt/ostypes.h"

namespace zvx {

struct Fiber;

enum PsehandFlag : uint32_t {
    PHAND_FLAG_ASYNC_ADDED = 0x04,    // synchronous use; the library added the overlapped flag
    PHAND_FLAG_ASYNC_CALLER = 0x08,   // the host asked for overlapped I/O
    PHAND_FLAG_ON_PORT = 0x10,        // associated with a scheduler's port, key = handle value
    PHAND_FLAG_PROTOCOL_INFO = 0x20,  // socket made from a protocol-information block
};

enum PsehandType : uint32_t {
    PHAND_HTYPE_FiberSpecific = 0,
    PHAND_HTYPE_CreateFileA = 1,
    PHAND_HTYPE_CreateFileW = 2,
    PHAND_HTYPE_CreateNamedPipeA = 3,
    PHAND_HTYPE_CreateNamedPipeW = 4,
    PHAND_HTYPE_CreateThread = 5,
    PHAND_HTYPE_CreateSchedThread = 6,
    PHAND_HTYPE_WSASocket = 7,
    PHAND_HTYPE_socket = 8,
    PHAND_HTYPE_PostEventHandle = 9,
    PHAND_HTYPE_PostEventNTHandle = 10,
};

// PSEHAND: one wrapped handle.
//
// It lives from the creation of its handle until RefCount reaches 0; it is then taken out of the table and
// retired, and its memory is reused only after every scheduler has made a selection pass or was blocked
// (sched/grace.cpp), because another scheduler's user thread may have looked it up a moment before. Nobody keeps an
// entry across SchedYield without looking it up again and comparing Serial.
//
// Written before insertion and constant afterwards: Type, Handle, Parent, OwnerFiber, OwnerGeneration,
// Serial, Hid, CreationTime, PortIndex. Changed later: RefCount and Closed (under gHandleRefLock), Flags (by the user
// thread that associates the handle), and the atomics below.
struct PSEHAND {
    std::atomic<uint32_t> Flags;         // PHAND_FLAG_ bits
    uint32_t Type;                       // a PsehandType
    uint32_t Handle;                     // the operating-system handle value; the table key
    PSEHAND *Parent;                     // root entry of a duplicate; null for a root
    std::atomic<uint64_t> FilePosition;  // root: position of a synchronous-use file; last finisher wins
    uint32_t RefCount;                   // [gHandleRefLock] open handles that refer to this entry
    bool Closed;                         // [gHandleRefLock] its own handle no longer counts in RefCount
    Fiber *OwnerFiber;                   // creator; for a thread or post event the user thread it stands for
    uint32_t OwnerGeneration;            // owner's Generation, for thread and post-event entries; else 0
    uint32_t Serial;                     // unique per entry ever made, never 0
    uint32_t PortIndex;                  // with ON_PORT: index of the scheduler whose port it is bound to
    char *Hid;                           // identifying text (chunk "String") or null
    uint64_t CreationTime;               // threads: creation of the backing thread, as a file time
    std::atomic<uint64_t> ExitTime;      // threads: end of the user thread, as a file time
    std::atomic<uint64_t> UserTime;      // threads: last computed by the thread itself, 100-ns units
    RetireEntry Retire;                  // in a scheduler's retire lists after removal
};
static_assert(sizeof(PSEHAND) <= 256, "one chunk holds one entry");

inline HANDLE HandleValue(const PSEHAND *entry) {
    return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(entry->Handle));
}

}  // namespace zvx

#endif  // ZVX_KERNEL_PSEHAND_H
