// platform/base/minidump.cpp - "MiniDumpWriteDump": the process as a minidump file.
//
// Runs on the thread that asks. The file is put together in memory, which is mapped once and kept, and then written
// from front to back. Nothing here allocates from the heap or takes a lock that the victim of a fatal error could hold,
// except those of the file that is written.
//
// What is left out: the environment (it may hold secrets), memory other than stacks, and, in a process with thousands
// of nameless mappings, most of those in the text of the maps.
#include "platform/base/minidump.h"

#include <cpuid.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include "platform/base/fiber_internal.h"
#include "platform/base/futex.h"
#include "platform/base/named_object.h"
#include "platform/base/thread_object.h"

namespace os {

namespace {

using minidump::Location;

constexpr size_t kFileRoom = 64 * 1024 * 1024;
constexpr size_t kWriteBytes = 1024 * 1024;
constexpr size_t kTextRoom = 16 * 1024;
constexpr uint32_t kMaxStreams = 16;
constexpr uint32_t kMaxThreads = 16384;
constexpr uint64_t kTurnPatienceNs = 1000000000;
constexpr uint32_t kTypeNames = 16;

// The file in the making. A part that does not fit is left out, and so is everything that would point at it.
struct File {
    char *Bytes;
    uint32_t Used;
    uint32_t Streams;
};

// Everything that outlives a dump, under gDumpInProgress, or that a dump without its turn maps for itself.
struct Work {
    File Out;
    char *OutPages;  // kFileRoom
    void *Images;    // kImagePages
    uint32_t ThreadCount;
    minidump::Thread Threads[kMaxThreads];
    uint32_t TypeRva[kTypeNames];  // texts of handle types in this file, 0 until one is needed
    char CpuText[4096];            // constant, so read once
    uint32_t CpuTextBytes;
};

constinit std::atomic<uint32_t> gDumpInProgress{0};
constinit Work *gWork = nullptr;  // [gDumpInProgress]

// Where `bytes` may be stored in the file, 8-byte aligned; null when there is no room.
char *Reserve(File *file, size_t bytes, uint32_t *rva) {
    const uint32_t at = (file->Used + 7) & ~7u;
    if (bytes > kFileRoom - at) return nullptr;
    memset(file->Bytes + file->Used, 0, at - file->Used);
    file->Used = at + static_cast<uint32_t>(bytes);
    *rva = at;
    return file->Bytes + at;
}

Location Store(File *file, const void *from, size_t bytes) {
    uint32_t rva;
    char *to = Reserve(file, bytes, &rva);
    if (to == nullptr) return {0, 0};
    memcpy(to, from, bytes);
    return {static_cast<uint32_t>(bytes), rva};
}

// A text of the format: its length in bytes, UTF-16, a zero. Characters beyond the first plane become '?', as does
// what is no UTF-8. 0 when there is no room.
uint32_t StoreText(File *file, const char *text) {
    const size_t most = strlen(text);
    uint32_t rva;
    char *to = Reserve(file, 4 + (most + 1) * 2, &rva);
    if (to == nullptr) return 0;
    const unsigned char *from = reinterpret_cast<const unsigned char *>(text);
    uint32_t units = 0;
    while (*from != 0) {
        uint32_t unit = *from++;
        const int more = unit < 0x80 ? 0 : unit < 0xC0 ? -1 : unit < 0xE0 ? 1 : unit < 0xF0 ? 2 : 3;
        if (more > 0) unit &= 0x3Fu >> more;
        for (int i = 0; i < more && (*from & 0xC0) == 0x80; ++i) unit = unit << 6 | (*from++ & 0x3Fu);
        if (more < 0 || more == 3) unit = '?';
        const uint16_t stored = static_cast<uint16_t>(unit);
        memcpy(to + 4 + units++ * 2, &stored, 2);
    }
    const uint32_t bytes = units * 2;
    memcpy(to, &bytes, 4);
    memset(to + 4 + bytes, 0, 2);
    file->Used = rva + 4 + bytes + 2;
    return rva;
}

void AddStream(File *file, uint32_t type, Location where) {
    if (where.Bytes == 0 || file->Streams == kMaxStreams) return;
    const minidump::Directory entry = {type, where};
    memcpy(file->Bytes + sizeof(minidump::Header) + file->Streams++ * sizeof entry, &entry, sizeof entry);
}

// ---- Streams -------------------------------------------------------------------------------------------

void AddSystemInfo(File *file) {
    minidump::SystemInfo info = {};
    info.Architecture = minidump::kArchitecture;
    info.Platform = minidump::kPlatformLinux;
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    info.Processors = static_cast<uint8_t>(processors < 1 ? 1 : processors > 255 ? 255 : processors);
#if defined(__x86_64__)
    uint32_t a = 0, b = 0, c = 0, d = 0;
    if (__get_cpuid(0, &a, &b, &c, &d) != 0) info.Cpu[0] = b, info.Cpu[1] = d, info.Cpu[2] = c;
    if (__get_cpuid(1, &a, &b, &c, &d) != 0) {
        const uint32_t family = (a >> 8 & 0xF) + ((a >> 8 & 0xF) == 0xF ? a >> 20 & 0xFF : 0);
        info.Level = static_cast<uint16_t>(family);
        info.Revision = static_cast<uint16_t>(((a >> 16 & 0xF) << 4 | (a >> 4 & 0xF)) << 8 | (a & 0xF));
        info.Cpu[3] = a, info.Cpu[4] = d;
    }
#endif
    utsname system;
    if (uname(&system) == 0) {
        unsigned numbers[3] = {0, 0, 0};
        const char *at = system.release;
        for (unsigned &number : numbers) {
            while (*at >= '0' && *at <= '9') number = number * 10 + static_cast<unsigned>(*at++ - '0');
            if (*at != '.') break;
            ++at;
        }
        info.Major = numbers[0], info.Minor = numbers[1], info.Build = numbers[2];
        char text[sizeof system];
        snprintf(text, sizeof text, "%s %s %s %s", system.sysname, system.release, system.version, system.machine);
        info.ReleaseRva = StoreText(file, text);
    }
    AddStream(file, minidump::kSystemInfo, Store(file, &info, sizeof info));
    const minidump::MiscInfo misc = {sizeof misc, 1, static_cast<uint32_t>(getpid()), {0, 0, 0}};
    AddStream(file, minidump::kMiscInfo, Store(file, &misc, sizeof misc));
}

void AddFileText(File *file, uint32_t type, const char *path) {
    uint32_t rva;
    char *to = Reserve(file, kTextRoom, &rva);
    if (to == nullptr) return;
    const uint32_t bytes = static_cast<uint32_t>(ReadWholeFile(path, to, kTextRoom));
    file->Used = rva + bytes;
    AddStream(file, type, {bytes, rva});
}

// The first processor; the others of a large machine say the same.
void AddCpuText(Work *work) {
    if (work->CpuTextBytes == 0) {
        const size_t got = ReadWholeFile("/proc/cpuinfo", work->CpuText, sizeof work->CpuText - 1);
        work->CpuText[got] = 0;
        const char *end = strstr(work->CpuText, "\n\n");
        work->CpuTextBytes = static_cast<uint32_t>(end != nullptr ? static_cast<size_t>(end + 1 - work->CpuText) : got);
    }
    AddStream(&work->Out, minidump::kLinuxCpuInfo, Store(&work->Out, work->CpuText, work->CpuTextBytes));
}

void AddModules(File *file, const ImageList *images) {
    uint32_t rva;
    const uint32_t bytes = 4 + images->Count * static_cast<uint32_t>(sizeof(minidump::Module));
    char *list = Reserve(file, bytes, &rva);
    if (list == nullptr) return;
    memcpy(list, &images->Count, 4);
    for (uint32_t i = 0; i < images->Count; ++i) {
        const ImageInfo &image = images->Images[i];
        minidump::Module module = {};
        module.Base = image.Base;
        module.Size = image.Size;
        module.NameRva = StoreText(file, image.Path);
        module.Version.Signature = minidump::kVersionSignature;
        module.Version.StructVersion = minidump::kVersionStruct;
        module.Version.FileVersionHigh = static_cast<uint32_t>(image.Version[0]) << 16 | image.Version[1];
        module.Version.FileVersionLow = static_cast<uint32_t>(image.Version[2]) << 16 | image.Version[3];
        module.Version.ProductVersionHigh = module.Version.FileVersionHigh;
        module.Version.ProductVersionLow = module.Version.FileVersionLow;
        if (image.BuildIdBytes != 0) {
            char record[4 + sizeof image.BuildId];
            memcpy(record, &minidump::kBuildIdSignature, 4);
            memcpy(record + 4, image.BuildId, image.BuildIdBytes);
            module.CodeView = Store(file, record, 4 + image.BuildIdBytes);
        }
        memcpy(list + 4 + i * sizeof module, &module, sizeof module);
    }
    AddStream(file, minidump::kModuleList, {bytes, rva});
    AddStream(file, minidump::kLinuxMaps, Store(file, images->Maps, images->MapsBytes));
}

void AddThread(const ThreadShot &shot, void *arg) {
    Work *work = static_cast<Work *>(arg);
    if (work->ThreadCount == kMaxThreads) return;
    minidump::Thread thread = {};
    thread.Id = static_cast<uint32_t>(shot.Tid);
    thread.Context = Store(&work->Out, &shot.Context, sizeof shot.Context);
    thread.Stack.Start = shot.StackStart;
    if (shot.StackBytes != 0) thread.Stack.Where = Store(&work->Out, shot.Stack, shot.StackBytes);
    work->Threads[work->ThreadCount++] = thread;
}

// Debuggers begin with the first thread of the list. A thread that was made for the dump writes about its maker, and
// one that runs a fiber about itself.
DWORD SubjectOfDump() {
    const ThreadLocals *locals = CurrentThreadLocals();
    if (locals->Block.Current != nullptr || locals->ThreadObject == nullptr) return locals->Block.ThreadId;
    return static_cast<const ThreadObject *>(locals->ThreadObject)->CreatedBy;
}

// A list of the format is its count and then its entries, which are not aligned further.
void AddThreads(Work *work, bool exclusive) {
    File *file = &work->Out;
    work->ThreadCount = 0;
    VisitThreads(exclusive, AddThread, work);
    const DWORD subject = SubjectOfDump();
    for (uint32_t i = 1; i < work->ThreadCount; ++i) {
        if (work->Threads[i].Id != subject) continue;
        const minidump::Thread first = work->Threads[0];
        work->Threads[0] = work->Threads[i];
        work->Threads[i] = first;
    }
    uint32_t rva;
    uint32_t bytes = 4 + work->ThreadCount * static_cast<uint32_t>(sizeof(minidump::Thread));
    char *list = Reserve(file, bytes, &rva);
    if (list == nullptr) return;
    memcpy(list, &work->ThreadCount, 4);
    memcpy(list + 4, work->Threads, bytes - 4);
    AddStream(file, minidump::kThreadList, {bytes, rva});

    list = Reserve(file, 4 + work->ThreadCount * sizeof(minidump::Memory), &rva);
    if (list == nullptr) return;
    uint32_t count = 0;
    for (uint32_t i = 0; i < work->ThreadCount; ++i) {
        const minidump::Memory stack = work->Threads[i].Stack;
        if (stack.Where.Bytes == 0) continue;
        memcpy(list + 4 + count++ * sizeof stack, &stack, sizeof stack);
    }
    memcpy(list, &count, 4);
    bytes = 4 + count * static_cast<uint32_t>(sizeof(minidump::Memory));
    file->Used = rva + bytes;
    AddStream(file, minidump::kMemoryList, {bytes, rva});
}

// ---- Handles -------------------------------------------------------------------------------------------

const char *TypeName(ObjectType type) {
    switch (type) {
        case ObjectType::kEvent: return "Event";
        case ObjectType::kMutex: return "Mutex";
        case ObjectType::kSemaphore: return "Semaphore";
        case ObjectType::kThread: return "Thread";
        case ObjectType::kProcess: return "Process";
        case ObjectType::kFile: return "File";
        case ObjectType::kPort: return "Port";
        case ObjectType::kPipe: return "Pipe";
        case ObjectType::kSocket: return "Socket";
        case ObjectType::kAny: break;
    }
    return "?";
}

// The name, if there is one. The object may be on its way out, and its name with it: what is read is believed only if
// the handle is still open afterwards.
#if defined(ZVX_TSAN)
__attribute__((no_sanitize("thread")))
#endif
bool ReadObjectName(HANDLE handle, const Object *object, char *name, size_t room) {
    if (object->Ops == nullptr || object->Type == ObjectType::kAny || object->Type > ObjectType::kSemaphore)
        return false;
    const char *from = static_cast<const NamedObject *>(object)->Name;
    if (from == nullptr) return false;
    const size_t got = ReadOwnMemory(from, name, room - 1);
    name[got] = 0;
    return name[0] != 0 && StillOpen(handle, object);
}

struct HandleList {
    Work *To;
    char *Entries;  // null while they are only counted
    uint32_t Count;
    uint32_t Room;
};

void AddHandle(HANDLE handle, const Object *object, void *arg) {
    HandleList *list = static_cast<HandleList *>(arg);
    if (list->Entries == nullptr) {
        ++list->Room;
        return;
    }
    if (list->Count == list->Room) return;
    File *file = &list->To->Out;
    minidump::HandleDescriptor entry = {};
    entry.Handle = reinterpret_cast<uintptr_t>(handle);
    entry.HandleCount = object->Handles.load(std::memory_order_relaxed);
    entry.ReferenceCount = object->Refs.load(std::memory_order_relaxed);
    const uint32_t type = static_cast<uint32_t>(object->Type);
    uint32_t *typeRva = &list->To->TypeRva[type % kTypeNames];
    if (*typeRva == 0) *typeRva = StoreText(file, TypeName(object->Type));
    entry.TypeRva = *typeRva;
    char name[kSharedNameBytes];
    if (ReadObjectName(handle, object, name, sizeof name)) entry.NameRva = StoreText(file, name);
    memcpy(list->Entries + list->Count++ * sizeof entry, &entry, sizeof entry);
}

void AddHandles(Work *work) {
    HandleList list = {work, nullptr, 0, 0};
    VisitHandles(AddHandle, &list);
    memset(work->TypeRva, 0, sizeof work->TypeRva);
    uint32_t rva;
    char *to = Reserve(&work->Out, sizeof(minidump::HandleData) + list.Room * sizeof(minidump::HandleDescriptor), &rva);
    if (to == nullptr) return;
    list.Entries = to + sizeof(minidump::HandleData);
    VisitHandles(AddHandle, &list);
    const minidump::HandleData head = {sizeof(minidump::HandleData), sizeof(minidump::HandleDescriptor), list.Count, 0};
    memcpy(to, &head, sizeof head);
    const uint32_t bytes = head.HeaderBytes + list.Count * head.DescriptorBytes;
    AddStream(&work->Out, minidump::kHandleData, {bytes, rva});
}

// ---- The file ------------------------------------------------------------------------------------------

Work *MapWork() {
    Work *work = static_cast<Work *>(MapDumpPages(sizeof(Work)));
    if (work == nullptr) return nullptr;
    work->OutPages = static_cast<char *>(MapDumpPages(kFileRoom));
    work->Images = MapDumpPages(kImagePages);
    return work;
}

void UnmapWork(Work *work) {
    munmap(work->OutPages, kFileRoom);
    munmap(work->Images, kImagePages);
    munmap(work, sizeof *work);
}

void Compose(Work *work, bool exclusive, DWORD type) {
    File *file = &work->Out;
    *file = {work->OutPages, sizeof(minidump::Header) + kMaxStreams * sizeof(minidump::Directory), 0};
    memset(file->Bytes, 0, file->Used);
    AddSystemInfo(file);
    // Threads before anything that takes time: they are what the dump is about.
    AddThreads(work, exclusive);
    AddModules(file, TakeImages(work->Images));
    if ((type & kMiniDumpWithHandleData) != 0) AddHandles(work);
    AddCpuText(work);
    AddFileText(file, minidump::kLinuxProcStatus, "/proc/self/status");
    AddFileText(file, minidump::kLinuxCmdLine, "/proc/self/cmdline");
    AddFileText(file, minidump::kLinuxAuxv, "/proc/self/auxv");
    const minidump::Header header = {minidump::kSignature,
                                     minidump::kVersion,
                                     file->Streams,
                                     sizeof(minidump::Header),
                                     0,
                                     static_cast<uint32_t>(time(nullptr)),
                                     type};
    memcpy(file->Bytes, &header, sizeof header);
}

bool WriteOut(HANDLE to, const File &file) {
    for (uint32_t written = 0; written < file.Used;) {
        const size_t left = file.Used - written;
        DWORD put = 0;
        const DWORD bytes = static_cast<DWORD>(left < kWriteBytes ? left : kWriteBytes);
        if (!WriteFile(to, file.Bytes + written, bytes, &put, nullptr)) return false;
        if (put == 0) {
            SetLastError(ERROR_DISK_FULL);
            return false;
        }
        written += put;
    }
    return true;
}

// Whether the calling thread has its turn; false when whoever has it keeps it for too long.
bool TakeTurn() {
    const uint64_t deadline = MonotonicNs() + kTurnPatienceNs;
    uint32_t free = 0;
    while (!gDumpInProgress.compare_exchange_strong(free, 1, std::memory_order_acquire)) {
        if (!FutexWait(&gDumpInProgress, 1, deadline)) return false;
        free = 0;
    }
    return true;
}

void EndTurn() {
    gDumpInProgress.store(0, std::memory_order_release);
    FutexWake(&gDumpInProgress, 1);
}

}  // namespace

BOOL MiniDumpWriteDump(HANDLE process, DWORD processId, HANDLE file, DWORD type, void *, void *, void *) {
    if (ShouldFail("MiniDumpWriteDump")) return FALSE;
    if (process != GetCurrentProcess() || processId != GetCurrentProcessId()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const bool exclusive = TakeTurn();
    Work *work = exclusive && gWork != nullptr ? gWork : MapWork();
    if (exclusive) gWork = work;
    bool written = false;
    if (work == nullptr || work->OutPages == nullptr || work->Images == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else {
        Compose(work, exclusive, type);
        written = WriteOut(file, work->Out);
    }
    const DWORD error = GetLastError();
    if (exclusive)
        EndTurn();
    else if (work != nullptr)
        UnmapWork(work);
    if (!written) SetLastError(error);
    return written ? TRUE : FALSE;
}

}  // namespace os
