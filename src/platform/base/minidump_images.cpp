// platform/base/minidump_images.cpp - what is mapped into the process: modules with their build identifiers.
//
// Runs on the thread that writes a dump. Everything is read from /proc/self/maps and from the modules' own headers in
// memory: the dynamic loader would have to be asked under its lock. Nothing is allocated but the pages that are given.
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include "platform/base/futex.h"
#include "platform/base/minidump.h"

namespace os {

namespace {

constexpr uint64_t kListAgeNs = 1000000000;
constexpr uint32_t kMaxImages = 1024;
constexpr size_t kPathRoom = 256 * 1024;
constexpr size_t kMapsRoom = 2 * 1024 * 1024;
// A process with thousands of anonymous mappings does not get a text of them that is larger than all the rest.
constexpr size_t kNamelessMaps = 64 * 1024;
constexpr uint32_t kMaxHeaders = 64;
constexpr size_t kMaxNotes = 4096;

struct Pages {
    ImageList List;
    ImageInfo Images[kMaxImages];
    char Paths[kPathRoom];
    char Maps[kMapsRoom];
    char Input[64 * 1024];
    size_t PathBytes;
    Elf64_Phdr Headers[kMaxHeaders];  // here and not on the stack, which may be a fiber's
    char Notes[kMaxNotes];
};
static_assert(sizeof(Pages) <= kImagePages);

struct MapLine {
    uint64_t Start;
    uint64_t End;
    uint64_t Offset;
    bool Readable;
    const char *Name;  // not terminated
    size_t NameBytes;  // 0 for an anonymous mapping
};

const char *ParseHex(const char *at, const char *end, uint64_t *value) {
    *value = 0;
    for (; at < end; ++at) {
        const char c = *at;
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (digit < 0) break;
        *value = *value * 16 + static_cast<uint64_t>(digit);
    }
    return at;
}

// "start-end rwxp offset device inode   name"
bool ParseLine(const char *line, const char *end, MapLine *map) {
    const char *at = ParseHex(line, end, &map->Start);
    if (at == end || *at != '-') return false;
    at = ParseHex(at + 1, end, &map->End);
    if (end - at < 6) return false;
    map->Readable = at[1] == 'r';
    at = ParseHex(at + 6, end, &map->Offset);
    for (int field = 0; field < 2; ++field) {  // device, inode
        while (at < end && *at == ' ') ++at;
        while (at < end && *at != ' ') ++at;
    }
    while (at < end && *at == ' ') ++at;
    map->Name = at;
    map->NameBytes = static_cast<size_t>(end - at);
    return true;
}

uint64_t LoadBias(uint64_t base, const Elf64_Phdr *headers, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        if (headers[i].p_type == PT_LOAD) return base - (headers[i].p_vaddr & ~uint64_t{4095});
    return base;
}

// The note of type NT_GNU_BUILD_ID in `notes`, if it is there.
void FindBuildId(const char *notes, size_t bytes, ImageInfo *image) {
    for (size_t at = 0; at + sizeof(Elf64_Nhdr) <= bytes;) {
        Elf64_Nhdr note;
        memcpy(&note, notes + at, sizeof note);
        const size_t name = at + sizeof note;
        const size_t content = name + ((size_t{note.n_namesz} + 3) & ~size_t{3});
        const size_t next = content + ((size_t{note.n_descsz} + 3) & ~size_t{3});
        if (next > bytes || next <= at) return;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && memcmp(notes + name, "GNU", 4) == 0) {
            const size_t length = note.n_descsz < sizeof image->BuildId ? note.n_descsz : sizeof image->BuildId;
            memcpy(image->BuildId, notes + content, length);
            image->BuildIdBytes = static_cast<uint32_t>(length);
            return;
        }
        at = next;
    }
}

// From the headers of the image in memory; false when there is no image of a program at `base`.
bool ReadHeaders(Pages *pages, uint64_t base, ImageInfo *image) {
    Elf64_Ehdr elf;
    if (ReadOwnMemory(reinterpret_cast<const void *>(base), &elf, sizeof elf) != sizeof elf) return false;
    if (memcmp(elf.e_ident, ELFMAG, SELFMAG) != 0 || elf.e_phentsize != sizeof(Elf64_Phdr)) return false;
    Elf64_Phdr *headers = pages->Headers;
    const uint32_t wanted = elf.e_phnum < kMaxHeaders ? elf.e_phnum : kMaxHeaders;
    const size_t got =
        ReadOwnMemory(reinterpret_cast<const void *>(base + elf.e_phoff), headers, wanted * sizeof headers[0]);
    const uint32_t count = static_cast<uint32_t>(got / sizeof headers[0]);
    const uint64_t bias = LoadBias(base, headers, count);
    for (uint32_t i = 0; i < count && image->BuildIdBytes == 0; ++i) {
        if (headers[i].p_type != PT_NOTE) continue;
        const size_t bytes = headers[i].p_filesz < kMaxNotes ? headers[i].p_filesz : kMaxNotes;
        const void *where = reinterpret_cast<const void *>(bias + headers[i].p_vaddr);
        FindBuildId(pages->Notes, ReadOwnMemory(where, pages->Notes, bytes), image);
    }
    return true;
}

// libname.so.6.0.30 is version 6.0.30.
void ReadVersion(ImageInfo *image) {
    const char *suffix = nullptr;
    for (const char *at = strstr(image->Path, ".so."); at != nullptr; at = strstr(at + 1, ".so.")) suffix = at + 4;
    for (int part = 0; suffix != nullptr && part < 4; ++part) {
        uint32_t value = 0;
        const char *at = suffix;
        for (; *at >= '0' && *at <= '9' && value < 6000; ++at) value = value * 10 + static_cast<uint32_t>(*at - '0');
        if (at == suffix) return;
        image->Version[part] = static_cast<uint16_t>(value);
        if (*at != '.') return;
        suffix = at + 1;
    }
}

// A mapping of the file that was met last makes its image larger; a readable one that begins with a program's header
// begins another image.
void AddMapping(Pages *pages, const MapLine &map) {
    size_t length = map.NameBytes;
    constexpr char kDeleted[] = " (deleted)";
    constexpr size_t kDeletedBytes = sizeof kDeleted - 1;
    if (length > kDeletedBytes && memcmp(map.Name + length - kDeletedBytes, kDeleted, kDeletedBytes) == 0)
        length -= kDeletedBytes;
    ImageList *list = &pages->List;
    if (list->Count > 0) {
        ImageInfo *last = &pages->Images[list->Count - 1];
        if (strlen(last->Path) == length && memcmp(last->Path, map.Name, length) == 0 && map.Offset != 0) {
            const uint64_t size = map.End - last->Base;
            if (size <= UINT32_MAX) last->Size = static_cast<uint32_t>(size);
            return;
        }
    }
    const bool vdso = length == 6 && memcmp(map.Name, "[vdso]", 6) == 0;
    const bool device = length > 5 && memcmp(map.Name, "/dev/", 5) == 0;
    if ((map.Name[0] != '/' && !vdso) || device || !map.Readable || map.Offset != 0) return;
    if (list->Count == kMaxImages || pages->PathBytes + length + 1 > kPathRoom) return;
    ImageInfo *image = &pages->Images[list->Count];
    *image = {};
    if (!ReadHeaders(pages, map.Start, image)) return;
    char *path = pages->Paths + pages->PathBytes;
    memcpy(path, map.Name, length);
    path[length] = 0;
    pages->PathBytes += length + 1;
    image->Base = map.Start;
    image->Size = static_cast<uint32_t>(map.End - map.Start);
    image->Path = path;
    ReadVersion(image);
    list->Count++;
}

void AddLine(Pages *pages, const char *line, size_t bytes) {
    MapLine map;
    if (!ParseLine(line, line + bytes, &map)) return;
    ImageList *list = &pages->List;
    if (map.NameBytes != 0) AddMapping(pages, map);
    if (map.NameBytes == 0 && list->MapsBytes > kNamelessMaps) return;
    if (list->MapsBytes + bytes + 1 > kMapsRoom) return;
    memcpy(pages->Maps + list->MapsBytes, line, bytes);
    pages->Maps[list->MapsBytes + bytes] = '\n';
    list->MapsBytes += bytes + 1;
}

}  // namespace

void *MapDumpPages(size_t bytes) {
    void *pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return pages == MAP_FAILED ? nullptr : pages;
}

// By the kernel, which tells how far it came: memory that another thread unmaps meanwhile is no fault then.
size_t ReadOwnMemory(const void *from, void *to, size_t bytes) {
    iovec local = {to, bytes};
    iovec remote = {const_cast<void *>(from), bytes};
    ssize_t got = syscall(SYS_process_vm_readv, getpid(), &local, 1ul, &remote, 1ul, 0ul);
    if (got < 0 && (errno == ENOSYS || errno == EPERM)) {  // a container's filter
        const int memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
        if (memory < 0) return 0;
        got = pread(memory, to, bytes, static_cast<off_t>(reinterpret_cast<uintptr_t>(from)));
        close(memory);
    }
    return got > 0 ? static_cast<size_t>(got) : 0;
}

size_t ReadWholeFile(const char *path, void *to, size_t room) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return 0;
    size_t filled = 0;
    while (filled < room) {
        const ssize_t got = read(file, static_cast<char *>(to) + filled, room - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        filled += static_cast<size_t>(got);
    }
    close(file);
    return filled;
}

const ImageList *TakeImages(void *memory) {
    Pages *pages = static_cast<Pages *>(memory);
    ImageList *list = &pages->List;
    const uint64_t now = MonotonicNs();
    if (list->TakenNs != 0 && now - list->TakenNs < kListAgeNs) return list;
    *list = {now, 0, pages->Images, pages->Maps, 0};
    pages->PathBytes = 0;
    const int file = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (file < 0) return list;
    size_t filled = 0;
    for (;;) {
        const ssize_t got = read(file, pages->Input + filled, sizeof pages->Input - filled);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        filled += static_cast<size_t>(got);
        size_t begin = 0;
        while (const void *end = memchr(pages->Input + begin, '\n', filled - begin)) {
            const size_t bytes = static_cast<size_t>(static_cast<const char *>(end) - (pages->Input + begin));
            AddLine(pages, pages->Input + begin, bytes);
            begin += bytes + 1;
        }
        memmove(pages->Input, pages->Input + begin, filled - begin);
        filled -= begin;
        if (filled == sizeof pages->Input) filled = 0;  // no line is that long
    }
    close(file);
    return list;
}

}  // namespace os
