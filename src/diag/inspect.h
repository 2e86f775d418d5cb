// diag/inspect.h - the table by which tools outside the process find their way through it.
//
// The symbol zvx_inspect is in the dynamic symbol table, so it survives `strip`, and needs no debug information: a tool
// finds it in the mapped library of a process, or of a core file, reads it whole, and from then on knows the
// addresses of the library's globals, the offsets in its records and the numbers of its enumerations by name. Nothing
// of it is read or written at run time by the library.
//
// A tool asks for what it needs by name and treats a name that is missing as a figure that it cannot show; so rows may
// be added and moved freely. kInspectLayout is raised only when a row that tools rely on changes its meaning.
#ifndef ZVX_DIAG_INSPECT_H
#define ZVX_DIAG_INSPECT_H

#include <cstdint>

namespace zvx {

constexpr uint32_t kInspectLayout = 1;
constexpr uint32_t kInspectNameBytes = 40;  // with the zero

enum InspectKind : uint32_t {
    kInspectGlobal = 1,    // Address of a variable, Size its bytes
    kInspectField = 2,     // Number: offset in its record, Size its bytes
    kInspectRecord = 3,    // Number: bytes of the record
    kInspectConstant = 4,  // Number: value of an enumerator or a bit; the name is what a tool may show
};

struct InspectRow {
    char Name[kInspectNameBytes];
    uint32_t Kind;  // InspectKind
    uint32_t Size;
    union {
        const void *Address;
        uint64_t Number;
    };
};
static_assert(sizeof(InspectRow) == 56, "tools step through the rows by RowBytes, and read these fields");

struct InspectHead {
    char Magic[8];    // "ZVXTABLE"
    uint32_t Layout;  // kInspectLayout
    uint32_t Rows;    // how many follow
    uint32_t RowBytes;
    uint32_t HeadBytes;  // where the first row begins
    char Version[32];    // of the library
};

}  // namespace zvx

#endif  // ZVX_DIAG_INSPECT_H
