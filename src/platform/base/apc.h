// platform/base/apc.h - routines that a host queues to a kernel thread.
#ifndef ZVX_PLATFORM_BASE_APC_H
#define ZVX_PLATFORM_BASE_APC_H

#include "platform/base/alertable.h"
#include "platform/os_process.h"

namespace os {

// From any thread that keeps `state` alive. FALSE with ERROR_NOT_ENOUGH_MEMORY, or ERROR_GEN_FAILURE when the owner
// has ended.
BOOL QueueApc(AlertState *state, PAPCFUNC routine, ULONG_PTR data);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_APC_H
