// platform/base/symbols.cpp - what stands at an address of code, in words.
//
// Any thread; reads the module's file, allocates, and so blocks: for reports, never for what must be fast. The loader
// knows exported names only; a function that a module keeps for itself is found in the symbol table of its file, as
// long as nobody has stripped it.
#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os.h"

namespace os {

namespace {

struct FileView {
    const char *Data = nullptr;
    size_t Bytes = 0;
    explicit FileView(const char *path) {
        const int file = open(path, O_RDONLY | O_CLOEXEC);
        struct stat status;
        if (file >= 0 && fstat(file, &status) == 0 && status.st_size > 0) {
            void *data = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE, file, 0);
            if (data != MAP_FAILED) {
                Data = static_cast<const char *>(data);
                Bytes = static_cast<size_t>(status.st_size);
            }
        }
        if (file >= 0) close(file);
    }
    ~FileView() {
        if (Data != nullptr) munmap(const_cast<char *>(Data), Bytes);
    }
    FileView(const FileView &) = delete;
    FileView &operator=(const FileView &) = delete;
    template <typename T>
    const T *At(uint64_t offset, uint64_t count = 1) const {
        if (offset > Bytes || count > (Bytes - offset) / sizeof(T)) return nullptr;
        return reinterpret_cast<const T *>(Data + offset);
    }
};

// The function of the module's own table that `offset` (from where the module is loaded) lies in. Its name goes to
// `name`, its start to *start.
bool FindInFile(const char *path, uint64_t offset, char *name, size_t room, uint64_t *start) {
    const FileView file(path);
    const auto *header = file.At<ElfW(Ehdr)>(0);
    if (header == nullptr || memcmp(header->e_ident, ELFMAG, SELFMAG) != 0) return false;
    const auto *sections = file.At<ElfW(Shdr)>(header->e_shoff, header->e_shnum);
    if (sections == nullptr) return false;
    for (uint32_t i = 0; i < header->e_shnum; ++i) {
        const ElfW(Shdr) &section = sections[i];
        if (section.sh_type != SHT_SYMTAB || section.sh_link >= header->e_shnum) continue;
        const uint64_t count = section.sh_size / sizeof(ElfW(Sym));
        const auto *symbols = file.At<ElfW(Sym)>(section.sh_offset, count);
        const ElfW(Shdr) &strings = sections[section.sh_link];
        const char *text = file.At<char>(strings.sh_offset, strings.sh_size);
        if (symbols == nullptr || text == nullptr) return false;
        for (uint64_t n = 0; n < count; ++n) {
            const ElfW(Sym) &symbol = symbols[n];
            if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_shndx == SHN_UNDEF) continue;
            if (offset < symbol.st_value || offset >= symbol.st_value + symbol.st_size) continue;
            if (symbol.st_name >= strings.sh_size) continue;
            snprintf(name, room, "%.*s", static_cast<int>(strings.sh_size - symbol.st_name), text + symbol.st_name);
            *start = symbol.st_value;
            return true;
        }
    }
    return false;
}

}  // namespace

bool IsCode(const void *address) {
    struct Search {
        uintptr_t Address;
        bool Found;
    } search{reinterpret_cast<uintptr_t>(address), false};
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *arg) {
            auto *wanted = static_cast<Search *>(arg);
            for (int i = 0; i < info->dlpi_phnum; ++i) {
                const ElfW(Phdr) &part = info->dlpi_phdr[i];
                if (part.p_type != PT_LOAD || (part.p_flags & PF_X) == 0) continue;
                const uintptr_t low = info->dlpi_addr + part.p_vaddr;
                if (wanted->Address >= low && wanted->Address < low + part.p_memsz) wanted->Found = true;
            }
            return wanted->Found ? 1 : 0;
        },
        &search);
    return search.Found;
}

void DescribeCode(const void *address, char *text, size_t room) {
    Dl_info info;
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        snprintf(text, room, "%p", address);
        return;
    }
    const char *module = strrchr(info.dli_fname, '/');
    module = module != nullptr ? module + 1 : info.dli_fname;
    const auto where = reinterpret_cast<uintptr_t>(address);
    const uint64_t offset = where - reinterpret_cast<uintptr_t>(info.dli_fbase);
    // An executable without a base of its own is known by its absolute addresses.
    const auto *header = static_cast<const ElfW(Ehdr) *>(info.dli_fbase);
    const uint64_t inFile = header->e_type == ET_EXEC ? where : offset;
    // The program's own file, whatever name it was started by.
    const char *path = info.dli_fname;
    char found[512];
    uint64_t start = 0;
    if (!FindInFile(path, inFile, found, sizeof found, &start) &&
        !(strchr(path, '/') == nullptr && FindInFile("/proc/self/exe", inFile, found, sizeof found, &start))) {
        if (info.dli_sname == nullptr) {
            snprintf(text, room, "%s+0x%llx", module, static_cast<unsigned long long>(offset));
            return;
        }
        snprintf(found, sizeof found, "%s", info.dli_sname);
        start = inFile - (where - reinterpret_cast<uintptr_t>(info.dli_saddr));
    }
    int status = 0;
    char *plain = abi::__cxa_demangle(found, nullptr, nullptr, &status);
    snprintf(text, room, "%s+0x%llx (%s+0x%llx)", status == 0 && plain != nullptr ? plain : found,
             static_cast<unsigned long long>(inFile - start), module, static_cast<unsigned long long>(offset));
    free(plain);
}

}  // namespace os
