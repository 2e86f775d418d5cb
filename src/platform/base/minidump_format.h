// platform/base/minidump_format.h - the records of a minidump file, as debuggers read them.
//
// A file is a header, a directory of streams, and the streams, which point at each other by their distance from the
// beginning of the file. Everything is little-endian and packed to four bytes. The streams with numbers from
// 0x47670000 on hold texts of /proc as they are.
#ifndef ZVX_PLATFORM_BASE_MINIDUMP_FORMAT_H
#define ZVX_PLATFORM_BASE_MINIDUMP_FORMAT_H

#include <cstddef>
#include <cstdint>

namespace os::minidump {

#pragma pack(push, 4)

enum StreamType : uint32_t {
    kThreadList = 3,
    kModuleList = 4,
    kMemoryList = 5,
    kSystemInfo = 7,
    kHandleData = 12,
    kMiscInfo = 15,
    kLinuxCpuInfo = 0x47670003,
    kLinuxProcStatus = 0x47670004,
    kLinuxCmdLine = 0x47670006,
    kLinuxAuxv = 0x47670008,
    kLinuxMaps = 0x47670009,
};

struct Location {
    uint32_t Bytes;
    uint32_t Rva;  // from the beginning of the file
};

struct Header {
    uint32_t Signature;  // "MDMP"
    uint32_t Version;    // low half 0xA793
    uint32_t StreamCount;
    uint32_t DirectoryRva;
    uint32_t Checksum;
    uint32_t Time;   // seconds since 1970
    uint64_t Flags;  // the type that the caller asked for
};
static_assert(sizeof(Header) == 32);

constexpr uint32_t kSignature = 0x504D444D;
constexpr uint32_t kVersion = 0xA793;

struct Directory {
    uint32_t Type;
    Location Where;
};
static_assert(sizeof(Directory) == 12);

struct Memory {
    uint64_t Start;  // address in the process
    Location Where;
};
static_assert(sizeof(Memory) == 16);

struct Thread {
    uint32_t Id;
    uint32_t SuspendCount;
    uint32_t PriorityClass;
    uint32_t Priority;
    uint64_t Teb;
    Memory Stack;
    Location Context;
};
static_assert(sizeof(Thread) == 48);

struct Module {
    uint64_t Base;
    uint32_t Size;
    uint32_t Checksum;
    uint32_t Time;
    uint32_t NameRva;
    struct {
        uint32_t Signature;
        uint32_t StructVersion;
        uint32_t FileVersionHigh;
        uint32_t FileVersionLow;
        uint32_t ProductVersionHigh;
        uint32_t ProductVersionLow;
        uint32_t Rest[7];
    } Version;
    Location CodeView;  // kBuildIdSignature and the build identifier
    Location Misc;
    uint64_t Reserved[2];
};
static_assert(sizeof(Module) == 108);

constexpr uint32_t kVersionSignature = 0xFEEF04BD;
constexpr uint32_t kVersionStruct = 0x00010000;
constexpr uint32_t kBuildIdSignature = 0x4270454C;

struct SystemInfo {
    uint16_t Architecture;
    uint16_t Level;     // processor family
    uint16_t Revision;  // model in the high byte, stepping in the low one
    uint8_t Processors;
    uint8_t ProductType;
    uint32_t Major;
    uint32_t Minor;
    uint32_t Build;
    uint32_t Platform;
    uint32_t ReleaseRva;  // a text
    uint16_t Suites;
    uint16_t Reserved;
    uint32_t Cpu[6];  // vendor, version, features
};
static_assert(sizeof(SystemInfo) == 56);

constexpr uint32_t kPlatformLinux = 0x8201;

struct MiscInfo {
    uint32_t Bytes;
    uint32_t Flags;  // 1: ProcessId is valid
    uint32_t ProcessId;
    uint32_t Times[3];
};
static_assert(sizeof(MiscInfo) == 24);

struct HandleData {
    uint32_t HeaderBytes;
    uint32_t DescriptorBytes;
    uint32_t Count;
    uint32_t Reserved;
};
static_assert(sizeof(HandleData) == 16);

struct HandleDescriptor {
    uint64_t Handle;
    uint32_t TypeRva;  // a text
    uint32_t NameRva;  // a text, or 0
    uint32_t Attributes;
    uint32_t Access;
    uint32_t HandleCount;
    uint32_t ReferenceCount;
};
static_assert(sizeof(HandleDescriptor) == 32);

#if defined(__x86_64__)

constexpr uint16_t kArchitecture = 9;

struct Context {
    uint64_t Home[6];
    uint32_t Flags;
    uint32_t Mxcsr;
    uint16_t Cs, Ds, Es, Fs, Gs, Ss;
    uint32_t Eflags;
    uint64_t Debug[6];
    uint64_t Rax, Rcx, Rdx, Rbx, Rsp, Rbp, Rsi, Rdi, R8, R9, R10, R11, R12, R13, R14, R15, Rip;
    uint8_t Fxsave[512];
    uint8_t Vectors[416];
    uint64_t VectorControl;
    uint64_t DebugControl[5];
};
static_assert(offsetof(Context, Rax) == 0x78 && offsetof(Context, Fxsave) == 0x100);
static_assert(sizeof(Context) == 1232);

// Control and integer registers, segments, floating point.
constexpr uint32_t kContextControl = 0x00100001;
constexpr uint32_t kContextFull = 0x0010000F;

#else
#error "the registers of this processor have no record yet"
#endif

#pragma pack(pop)

}  // namespace os::minidump

#endif  // ZVX_PLATFORM_BASE_MINIDUMP_FORMAT_H
