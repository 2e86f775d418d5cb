// kernel/wait.h - the exported waits on objects, and the event functions.
#ifndef ZVX_KERNEL_WAIT_H
#define ZVX_KERNEL_WAIT_H

#include "zvxkvt/ostypes.h"

namespace zvx {

DWORD WaitForSingleObject(HANDLE handle, DWORD ms);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms);
DWORD WaitForSingleObjectEx(HANDLE handle, DWORD ms, BOOL alertable);
DWORD WaitForMultipleObjectsEx(DWORD count, const HANDLE *handles, BOOL waitAll, DWORD ms, BOOL alertable);
HANDLE CreateEventA(SECURITY_ATTRIBUTES *security, BOOL manualReset, BOOL initiallySet, const char *name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

}  // namespace zvx

#endif  // ZVX_KERNEL_WAIT_H
