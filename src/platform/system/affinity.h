// platform/system/affinity.h - processor masks and priorities of kernel threads by their kernel identifier.
//
// The functions on handles (SetThreadAffinityMask, SetThreadPriority, GetThreadPriority) belong to the thread
// objects, which remember the priority that was asked for; these do the work on the kernel's side. Any thread may
// call them; none blocks.
#ifndef ZVX_PLATFORM_SYSTEM_AFFINITY_H
#define ZVX_PLATFORM_SYSTEM_AFFINITY_H

#include <cstdint>

namespace os {

// The process mask that is in force now (SetProcessAffinityMask narrows it), in the numbering of process start.
uint32_t ProcessProcessorMask();
// Confines the thread to `mask`, which must not be empty and must lie within the process mask. Returns the mask
// that was in force, or 0 with ERROR_INVALID_PARAMETER (mask) or ERROR_INVALID_HANDLE (no such thread any more).
uint32_t SetAffinityOfTid(int tid, uint32_t mask);
// Whether `priority` is one of the seven values that a thread may have.
bool IsThreadPriority(int priority);
// Gives the thread the nice value of `priority`. True when the kernel took it or refused for lack of privilege (the
// caller remembers the priority either way); false with ERROR_INVALID_PARAMETER or ERROR_INVALID_HANDLE.
bool SetPriorityOfTid(int tid, int priority);
// First thing on every new kernel thread of CreateThread: the kernel lets it inherit mask and nice value of its
// creator, which may be pinned or raised; a new thread starts with the process mask and normal priority.
void InitThreadScheduling();

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_AFFINITY_H
