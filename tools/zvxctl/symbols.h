// tools/zvxctl/symbols.h - names in ELF images: one symbol of a mapped library, and functions by address.
#ifndef ZVXCTL_SYMBOLS_H
#define ZVXCTL_SYMBOLS_H

#include "process.h"

namespace zvxctl {

// The address of a dynamic symbol of the library that is mapped at `base`, read from the process's memory and not from
// the file, which may have been replaced since. 0 when there is none.
Address FindDynamicSymbol(const Process &process, Address base, const char *name);

// Names functions of a process from the symbol tables of the files that it has mapped. A file is read at its first use.
struct Symbols {
    struct Function {
        uint64_t Start;
        uint64_t End;
        std::string Name;
    };
    struct File {
        std::vector<Function> Functions;  // by Start
        struct Segment {
            uint64_t Offset, Bytes, Vaddr;
        };
        std::vector<Segment> Segments;
    };
    std::map<std::string, File> Files;     // by path
    std::map<Address, std::string> Known;  // answers that were given
};
// "Function+0x12", or "file+0x1234" without a symbol table, or the number alone. `exact` leaves the offset out.
std::string NameOf(Symbols *symbols, const Process &process, Address address, bool exact);

}  // namespace zvxctl

#endif  // ZVXCTL_SYMBOLS_H
