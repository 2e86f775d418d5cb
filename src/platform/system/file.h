// platform/system/file.h - the object behind a file handle, for the files that open, transfer and lock.
//
// Made by CreateFile on any thread, used by any thread that holds a reference. Nothing here is known outside the
// file functions: engines and ports see the IoObject.
#ifndef ZVX_PLATFORM_SYSTEM_FILE_H
#define ZVX_PLATFORM_SYSTEM_FILE_H

#include <mutex>

#include "platform/system/io_engine.h"

namespace os {

// A byte range that this file object holds. From the heap, one a lock.
struct HeldRange {
    HeldRange *Next;
    uint64_t Offset;
    uint64_t Length;
    bool Exclusive;
};

// One for each successful CreateFile; duplicated handles share it, and with it the position and the byte ranges.
struct FileObject : IoObject {
    bool Overlapped = false;  // init: opened with FILE_FLAG_OVERLAPPED
    bool CanRead = false;     // init
    bool CanWrite = false;    // init
    bool Regular = false;     // init: a regular file, so it has a size
    // Whether the file system answers "would this block?" (RWF_NOWAIT). Cleared for good at the first refusal; a late
    // reader of the old value costs one more refused call.
    std::atomic<bool> NowaitRead{false};
    std::atomic<bool> NowaitWrite{false};
    std::atomic<uint64_t> Position{0};  // of SetFilePointer and of synchronous transfers
    std::mutex PositionLock;            // held over a synchronous transfer of a seekable file: they follow each other
    char *DeletePath = nullptr;         // init: absolute, from the heap; removed when the last handle is closed
    InnerLock LockLock;
    HeldRange *Held = nullptr;  // [LockLock] newest first
};

// The file behind a handle, with a reference; null with ERROR_INVALID_HANDLE.
inline FileObject *RefFile(HANDLE handle) {
    return static_cast<FileObject *>(RefHandle(handle, ObjectType::kFile));
}

// file.cpp. A handle for a descriptor that is open already and from now on the file's; null, with the descriptor closed
// and the last error set, on failure.
HANDLE AdoptDescriptor(int fd, bool canRead, bool canWrite);
void FreeHeldRanges(FileObject *file);  // file_lock.cpp: the descriptor takes the kernel's locks with it

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_FILE_H
