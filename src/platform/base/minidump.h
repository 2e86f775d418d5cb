// platform/base/minidump.h - writing the state of the process as a minidump file.
//
// Dumps are written when anything may be broken, also by a thread that ends the process: nothing here allocates from
// the heap, asks the dynamic loader or waits for a lock without a limit. Memory comes from mappings of its own, which
// are kept for the next dump.
//
// One dump at a time has the mappings, by gDumpInProgress. Another that cannot have them within a second (its
// predecessor hangs, or was the victim) works with mappings of its own and without signals.
#ifndef ZVX_PLATFORM_BASE_MINIDUMP_H
#define ZVX_PLATFORM_BASE_MINIDUMP_H

#include <atomic>

#include "platform/base/minidump_format.h"
#include "platform/os.h"

namespace os {

// Bits of MiniDumpWriteDump's type. Everything else that the bits of the imitated system ask for is not written.
constexpr DWORD kMiniDumpWithHandleData = 4;

// What "dbghelp.dll" answers for "MiniDumpWriteDump". Writes the calling process to `file`, opened for writing, from
// its position on: every kernel thread with its registers and its stack (first the thread that made the calling
// one, or the calling one when it runs a fiber), the modules, and with kMiniDumpWithHandleData
// the open handles. The other threads run on meanwhile. The last three arguments are not read. FALSE with
// ERROR_INVALID_PARAMETER for another process, with the error of the write, or with ERROR_NOT_ENOUGH_MEMORY. Blocks.
BOOL MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, DWORD type, void *exception, void *userStreams,
                       void *callback);

// ---- What the parts share ----------------------------------------------------------------------------

// Copies memory of this process that may not be there; returns the bytes that could be read.
size_t ReadOwnMemory(const void *from, void *to, size_t bytes);
// The first bytes of a small file; 0 when there is none.
size_t ReadWholeFile(const char *path, void *to, size_t room);
// Zero-filled pages that cost nothing until they are touched; null without address space.
void *MapDumpPages(size_t bytes);

// minidump_threads.cpp: one kernel thread at the moment when it was looked at.
struct ThreadShot {
    int Tid;
    uint32_t StackBytes;        // 0 when nothing is known
    uint64_t StackStart;        // address in the process
    const char *Stack;          // the copy
    minidump::Context Context;  // Flags 0 when nothing is known
};
// Calls visit for every kernel thread of the process, the calling one first. With `exclusive` threads answer a
// signal; without, and where they do not answer, the kernel tells where they are blocked.
void VisitThreads(bool exclusive, void (*visit)(const ThreadShot &shot, void *arg), void *arg);

// minidump_images.cpp: what is mapped.
struct ImageInfo {
    uint64_t Base;
    uint32_t Size;
    const char *Path;
    uint32_t BuildIdBytes;  // 0 when the file has none
    uint8_t BuildId[32];
    uint16_t Version[4];  // of libname.so.1.2.3.4; 0 where there is none
};
struct ImageList {
    uint64_t TakenNs;
    uint32_t Count;
    ImageInfo *Images;
    const char *Maps;  // lines of /proc/self/maps; those without a name only while they are few
    size_t MapsBytes;
};
// The list in `pages` (kImagePages bytes, zero at first), read again when it is older than a second: the dumps of one
// sweep share it.
constexpr size_t kImagePages = 4 * 1024 * 1024;
const ImageList *TakeImages(void *pages);

// handle_table.cpp: calls visit for every open handle, without a lock. Of the object only what PeekHandle allows.
struct Object;
void VisitHandles(void (*visit)(HANDLE handle, const Object *object, void *arg), void *arg);

// handle_table.cpp, for tools that look from outside: handles in use are gNextFreshHandle - 1 - gFreeHandleCount.
extern std::atomic<uint32_t> gNextFreshHandle;
extern std::atomic<uint32_t> gFreeHandleCount;

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_MINIDUMP_H
