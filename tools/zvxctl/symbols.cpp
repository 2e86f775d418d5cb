// tools/zvxctl/symbols.cpp - reading ELF: dynamic symbols from memory, function names from files.
//
// Both come from outside: every offset is compared with what there is before it is used, every loop has an end.
#include "symbols.h"

#include <cxxabi.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zvxctl {

namespace {

constexpr size_t kMostProgramHeaders = 128;
constexpr size_t kMostDynamicEntries = 1024;
constexpr uint32_t kMostChain = 100000;

bool IsElf64(const Elf64_Ehdr &header) {
    return std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_ident[EI_CLASS] == ELFCLASS64;
}

uint32_t GnuHash(const char *name) {
    uint32_t hash = 5381;
    for (; *name != 0; ++name) hash = hash * 33 + static_cast<unsigned char>(*name);
    return hash;
}

struct DynamicPart {
    Address Symbols = 0;
    Address Strings = 0;
    Address Hash = 0;
};

// The loader has relocated the addresses in some libraries and not in others (the vdso).
bool ReadDynamic(const Process &process, Address base, DynamicPart *part) {
    Elf64_Ehdr header;
    if (!ReadValue(process, base, &header) || !IsElf64(header)) return false;
    Address dynamic = 0;
    uint64_t dynamicBytes = 0;
    uint64_t lowest = ~uint64_t{0};
    for (size_t i = 0; i < std::min<size_t>(header.e_phnum, kMostProgramHeaders); ++i) {
        Elf64_Phdr segment;
        if (!ReadValue(process, base + header.e_phoff + i * sizeof segment, &segment)) return false;
        if (segment.p_type == PT_LOAD) lowest = std::min<uint64_t>(lowest, segment.p_vaddr & ~uint64_t{4095});
        if (segment.p_type == PT_DYNAMIC) {
            dynamic = segment.p_vaddr;
            dynamicBytes = segment.p_memsz;
        }
    }
    if (dynamic == 0 || lowest == ~uint64_t{0}) return false;
    const Address bias = base - lowest;
    const size_t entries = std::min<size_t>(dynamicBytes / sizeof(Elf64_Dyn), kMostDynamicEntries);
    for (size_t i = 0; i < entries; ++i) {
        Elf64_Dyn entry;
        if (!ReadValue(process, bias + dynamic + i * sizeof entry, &entry) || entry.d_tag == DT_NULL) break;
        const Address value = entry.d_un.d_ptr >= bias ? entry.d_un.d_ptr : bias + entry.d_un.d_ptr;
        if (entry.d_tag == DT_SYMTAB) part->Symbols = value;
        if (entry.d_tag == DT_STRTAB) part->Strings = value;
        if (entry.d_tag == DT_GNU_HASH) part->Hash = value;
    }
    return part->Symbols != 0 && part->Strings != 0 && part->Hash != 0;
}

// A file that is looked at without being read whole: most of it is debug information.
struct Image {
    const char *Bytes = nullptr;
    size_t Size = 0;

    Image() = default;
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;
    ~Image() {
        if (Bytes != nullptr) munmap(const_cast<char *>(Bytes), Size);
    }
};

// Where the kernel still has the file that was mapped, even when the name leads to another one now; readable for root.
void OpenImage(const Process &process, const Mapping &mapping, Image *image) {
    for (const std::string &path :
         {fmt::format("/proc/{}/map_files/{:x}-{:x}", process.Pid, mapping.Start, mapping.End),
          fmt::format("/proc/{}/root{}", process.Pid, mapping.Path), mapping.Path}) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat info {};
        if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
            void *bytes = mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (bytes != MAP_FAILED) {
                image->Bytes = static_cast<const char *>(bytes);
                image->Size = static_cast<size_t>(info.st_size);
            }
        }
        close(fd);
        if (image->Bytes != nullptr) return;
    }
}

template <typename T>
bool At(const Image &image, uint64_t offset, T *value) {
    if (offset > image.Size || image.Size - offset < sizeof(T)) return false;
    std::memcpy(value, image.Bytes + offset, sizeof(T));
    return true;
}

std::string Demangled(const char *name) {
    int status = 0;
    char *text = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string result = status == 0 && text != nullptr ? text : name;
    std::free(text);
    // Without the arguments: a line of a table.
    int depth = 0;
    for (size_t i = result.size(); i > 0; --i) {
        if (result[i - 1] == ')') depth++;
        if (result[i - 1] == '(' && --depth == 0 && i > 1) {
            result.resize(i - 1);
            break;
        }
        if (depth == 0) break;
    }
    return result;
}

void ReadSymbolTable(const Image &image, const Elf64_Shdr &table, const Elf64_Shdr &strings, Symbols::File *file) {
    for (uint64_t at = 0; at + sizeof(Elf64_Sym) <= table.sh_size; at += sizeof(Elf64_Sym)) {
        Elf64_Sym symbol;
        if (!At(image, table.sh_offset + at, &symbol)) return;
        if (ELF64_ST_TYPE(symbol.st_info) != STT_FUNC || symbol.st_value == 0 || symbol.st_name >= strings.sh_size)
            continue;
        const uint64_t name = strings.sh_offset + symbol.st_name;
        if (name >= image.Size || image.Bytes[name] == 0) continue;
        const size_t room =
            static_cast<size_t>(std::min<uint64_t>(strings.sh_size - symbol.st_name, image.Size - name));
        file->Functions.push_back({symbol.st_value, symbol.st_value + std::max<uint64_t>(symbol.st_size, 1),
                                   std::string(image.Bytes + name, strnlen(image.Bytes + name, room))});
    }
}

Symbols::File ReadFunctions(const Image &image) {
    Symbols::File file;
    Elf64_Ehdr header;
    if (!At(image, 0, &header) || !IsElf64(header)) return file;
    for (uint64_t i = 0; i < header.e_phnum; ++i) {
        Elf64_Phdr segment;
        if (!At(image, header.e_phoff + i * sizeof segment, &segment)) break;
        if (segment.p_type == PT_LOAD) file.Segments.push_back({segment.p_offset, segment.p_filesz, segment.p_vaddr});
    }
    // The full table if it was not stripped, else what the loader needs.
    for (const uint32_t wanted : {uint32_t{SHT_SYMTAB}, uint32_t{SHT_DYNSYM}}) {
        for (uint64_t i = 0; i < header.e_shnum; ++i) {
            Elf64_Shdr table, strings;
            if (!At(image, header.e_shoff + i * sizeof table, &table) || table.sh_type != wanted) continue;
            if (!At(image, header.e_shoff + uint64_t{table.sh_link} * sizeof strings, &strings)) continue;
            ReadSymbolTable(image, table, strings, &file);
        }
        if (!file.Functions.empty()) break;
    }
    std::sort(file.Functions.begin(), file.Functions.end(),
              [](const auto &a, const auto &b) { return a.Start < b.Start; });
    return file;
}

}  // namespace

Address FindDynamicSymbol(const Process &process, Address base, const char *name) {
    DynamicPart part;
    if (!ReadDynamic(process, base, &part)) return 0;
    struct {
        uint32_t Buckets, FirstSymbol, BloomWords, BloomShift;
    } head;
    if (!ReadValue(process, part.Hash, &head) || head.Buckets == 0) return 0;
    const Address buckets = part.Hash + sizeof head + Address{head.BloomWords} * 8;
    const Address chains = buckets + Address{head.Buckets} * 4;
    const uint32_t hash = GnuHash(name);
    uint32_t index = 0;
    if (!ReadValue(process, buckets + Address{hash % head.Buckets} * 4, &index) || index < head.FirstSymbol) return 0;
    for (uint32_t steps = 0; steps < kMostChain; ++steps, ++index) {
        uint32_t link = 0;
        if (!ReadValue(process, chains + Address{index - head.FirstSymbol} * 4, &link)) return 0;
        Elf64_Sym symbol;
        if ((link | 1) == (hash | 1) && ReadValue(process, part.Symbols + Address{index} * sizeof symbol, &symbol) &&
            symbol.st_shndx != SHN_UNDEF && ReadText(process, part.Strings + symbol.st_name, 256) == name)
            return base + symbol.st_value;  // of a shared library, whose first byte has the address 0
        if (link & 1) return 0;
    }
    return 0;
}

std::string NameOf(Symbols *symbols, const Process &process, Address address, bool exact) {
    if (const auto known = symbols->Known.find(address); known != symbols->Known.end()) return known->second;
    std::string &answer = symbols->Known[address];
    const Mapping *mapping = MappingOf(process, address);
    if (mapping == nullptr || mapping->Path.empty() || mapping->Path[0] != '/')
        return answer = fmt::format("0x{:x}", address);
    auto found = symbols->Files.find(mapping->Path);
    if (found == symbols->Files.end()) {
        Image image;
        OpenImage(process, *mapping, &image);
        Symbols::File file = ReadFunctions(image);
        found = symbols->Files.emplace(mapping->Path, std::move(file)).first;
    }
    const Symbols::File &file = found->second;
    const uint64_t offset = address - mapping->Start + mapping->Offset;
    for (const auto &segment : file.Segments) {
        if (offset < segment.Offset || offset - segment.Offset >= segment.Bytes) continue;
        const uint64_t at = offset - segment.Offset + segment.Vaddr;
        const auto after = std::upper_bound(file.Functions.begin(), file.Functions.end(), at,
                                            [](uint64_t a, const auto &function) { return a < function.Start; });
        if (after == file.Functions.begin()) break;
        const auto &function = *(after - 1);
        if (at >= function.End) break;
        answer = Demangled(function.Name.c_str());
        if (!exact) answer += fmt::format("+0x{:x}", at - function.Start);
        return answer;
    }
    return answer = fmt::format("{}+0x{:x}", mapping->Path.substr(mapping->Path.rfind('/') + 1), offset);
}

}  // namespace zvxctl
