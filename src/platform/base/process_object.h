// platform/base/process_object.h - what is behind a process's handle.
//
// A process object of another process is made when the process is started or opened, and signalled by the thread that
// watches for its end (system/process.cpp). The object of the calling process is one for good and never signalled.
#ifndef ZVX_PLATFORM_BASE_PROCESS_OBJECT_H
#define ZVX_PLATFORM_BASE_PROCESS_OBJECT_H

#include "platform/base/object.h"
#include "platform/os_process.h"

namespace os {

struct ThreadObject;

struct ProcessObject : Object {
    std::atomic<DWORD> Id{0};
    std::atomic<DWORD> ExitCode{0};        // STILL_ACTIVE until the end; stored before Signalled
    std::atomic<bool> CodeKnown{false};    // false when it ended and only its parent was told how
    std::atomic<uint64_t> KillCode{0};     // 1 << 32 plus the code that TerminateProcess was given, 0 for none
    int PidFd = -1;                        // init: the kernel's own handle; -1 for the calling process
    bool Child = false;                    // init: started here, so its exit code comes here
    ThreadObject *FirstThread = nullptr;   // init: a reference; null when it was only opened
    ProcessObject *NextWatched = nullptr;  // [watch lock] those that have not ended
};

// A new object; null without memory. Its descriptor and its thread are given up with it.
ProcessObject *NewProcessObject(DWORD id, int pidFd, bool child);
// A reference on the calling process's object; null without memory.
Object *RefCurrentProcess();

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_PROCESS_OBJECT_H
