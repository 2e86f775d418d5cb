// examples/filesum.cpp - checksums of all files below some folders, as the cksum utility prints them.
//
// A complete host. It reads its options, hands its main routine to the library and shares the files among many user
// threads, each of which reads with plain, waiting calls. The main routine prints results in the order of the list
// as they come in. With --threads or --disable-fibers the same code runs on kernel threads, because every call then
// passes through to the operating system.
#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cksum.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

namespace {

constexpr DWORD kChunk = 32 * 1024;  // bytes a read
constexpr DWORD kProgressMs = 50;    // between two looks at what has come in
constexpr uint32_t kMostUserThreads = 1000000;

// ---- Options -----------------------------------------------------------------------------------------

struct Options {
    uint32_t UserThreads = 64;
    std::string Schedulers;  // empty: the library's default
    bool KernelThreads = false;
    bool DisableFibers = false;
    std::vector<std::string> Folders;
};
Options gOptions;

const char kHelp[] =
    "Usage: filesum [options] [folder or file ...]\n"
    "Prints checksum, size and name of every regular file below the folders, as cksum does.\n"
    "Symbolic links are not followed. Without an argument: the current folder.\n"
    "\n"
    "  --user-threads N   user threads that share the files (default 64)\n"
    "  --schedulers N     scheduler threads that run them (default: one a processor, 16 at most)\n"
    "  --threads          kernel threads instead of user threads\n"
    "  --disable-fibers   the same, decided before anything else is set up\n"
    "  --help             this text\n"
    "\n"
    "The exit status is 1 when something could not be read, 2 when the options are not understood. Settings of\n"
    "the library may also come from the environment (ZVX_FIBERS_...), those above win.\n";

// A plain decimal number from 1 to `most`.
bool ParseCount(const char *text, uint32_t most, uint32_t *value) {
    char *end = nullptr;
    errno = 0;
    const unsigned long parsed = std::strtoul(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || *text == '-' || parsed == 0 || parsed > most) return false;
    *value = static_cast<uint32_t>(parsed);
    return true;
}

// Exits on --help and on mistakes.
void ParseOptions(int argc, char **argv) {
    enum { kUserThreads = 1, kSchedulers, kThreads, kDisableFibers, kHelpOption };
    static const option kOptions[] = {{"user-threads", required_argument, nullptr, kUserThreads},
                                      {"schedulers", required_argument, nullptr, kSchedulers},
                                      {"threads", no_argument, nullptr, kThreads},
                                      {"disable-fibers", no_argument, nullptr, kDisableFibers},
                                      {"help", no_argument, nullptr, kHelpOption},
                                      {nullptr, 0, nullptr, 0}};
    uint32_t schedulers = 0;
    for (int c; (c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        bool valid = true;
        switch (c) {
            case kUserThreads: valid = ParseCount(optarg, kMostUserThreads, &gOptions.UserThreads); break;
            case kSchedulers:
                valid = ParseCount(optarg, 31, &schedulers);
                gOptions.Schedulers = optarg;
                break;
            case kThreads: gOptions.KernelThreads = true; break;
            case kDisableFibers: gOptions.DisableFibers = true; break;
            case kHelpOption: std::fputs(kHelp, stdout); std::exit(0);
            default: std::fputs("Try 'filesum --help'.\n", stderr); std::exit(2);
        }
        if (!valid) {
            std::fprintf(stderr, "filesum: invalid number '%s'\n", optarg);
            std::exit(2);
        }
    }
    gOptions.Folders.assign(argv + optind, argv + argc);
    if (gOptions.Folders.empty()) gOptions.Folders.push_back(".");
}

// What the library asks for during its start-up: our own settings first, then the environment.
int LookupValue(const char *name, char *buffer, int capacity) {
    const char *value = nullptr;
    if (std::strcmp(name, "ZVX_FIBERS_Schedulers") == 0 && !gOptions.Schedulers.empty()) {
        value = gOptions.Schedulers.c_str();
    } else if (std::strcmp(name, "ZVX_FIBERS_FiberModeReq") == 0 && gOptions.KernelThreads) {
        value = "0";
    } else if (std::strcmp(name, "ZVX_FIBERS_DisableFibers") == 0 && gOptions.DisableFibers) {
        value = "1";
    } else {
        value = std::getenv(name);
    }
    if (value == nullptr) return 0;
    const size_t length = strnlen(value, static_cast<size_t>(capacity));
    std::memcpy(buffer, value, length);
    return static_cast<int>(length);
}

// ---- The list of files -------------------------------------------------------------------------------

enum class FileState : uint8_t { kOpen, kSummed, kFailed };

struct File {
    std::string Name;
    std::atomic<FileState> State{FileState::kOpen};  // stored last by the user thread that had the file
    uint32_t Crc = 0;
    uint64_t Bytes = 0;
    DWORD Error = 0;
};

struct Job {
    std::vector<std::unique_ptr<File>> Files;
    std::atomic<size_t> Next{0};      // first file that nobody has taken
    std::atomic<uint32_t> Active{1};  // user threads at work, and the one that creates them
    HANDLE Finished = nullptr;        // set by the last of them
    bool Failed = false;              // main routine only
};
Job gJob;

void Complain(const std::string &name, const char *reason) {
    std::fprintf(stderr, "filesum: %s: %s\n", name.c_str(), reason);
    gJob.Failed = true;
}

void ListFolder(const std::string &folder, std::vector<std::string> *below) {
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr) {
        Complain(folder, std::strerror(errno));
        return;
    }
    const std::string prefix = folder.back() == '/' ? folder : folder + '/';
    for (;;) {
        errno = 0;
        const dirent *entry = readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) Complain(folder, std::strerror(errno));
            break;
        }
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        struct stat info {};
        if (fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            Complain(prefix + entry->d_name, std::strerror(errno));
        } else if (S_ISDIR(info.st_mode)) {
            below->push_back(prefix + entry->d_name);
        } else if (S_ISREG(info.st_mode)) {
            gJob.Files.push_back(std::make_unique<File>());
            gJob.Files.back()->Name = prefix + entry->d_name;
        }
    }
    closedir(dir);
}

// Depth is the memory's limit, not the stack's.
void ListFiles() {
    for (const std::string &argument : gOptions.Folders) {
        struct stat info {};
        if (lstat(argument.c_str(), &info) != 0) {
            Complain(argument, std::strerror(errno));
        } else if (S_ISREG(info.st_mode)) {
            gJob.Files.push_back(std::make_unique<File>());
            gJob.Files.back()->Name = argument;
        } else if (S_ISDIR(info.st_mode)) {
            std::vector<std::string> folders{argument};
            while (!folders.empty()) {
                const std::string folder = std::move(folders.back());
                folders.pop_back();
                ListFolder(folder, &folders);
            }
        }
    }
}

// ---- The user threads --------------------------------------------------------------------------------

uint64_t SizeOf(HANDLE file) {
    LONG high = 0;
    const DWORD low = SetFilePointer(file, 0, &high, FILE_END);
    SetFilePointer(file, 0, nullptr, FILE_BEGIN);
    if (low == INVALID_SET_FILE_POINTER && GetLastError() != ERROR_SUCCESS) return 0;
    return uint64_t{static_cast<uint32_t>(high)} << 32 | low;
}

// The last error, 0 when the whole file was read.
DWORD SumFile(File *file) {
    const HANDLE handle =
        CreateFileA(file->Name.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return GetLastError();
    alignas(64) char buffer[kChunk];
    Cksum sum;
    DWORD error = ERROR_SUCCESS;
    const uint64_t size = SizeOf(handle);
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(handle, buffer, kChunk, &got, nullptr)) {
            error = GetLastError();
            break;
        }
        CksumAdd(&sum, buffer, got);
        // A short read at the known end needs no other one to see it. A file that has grown since is read on.
        if (got == 0 || (got < kChunk && sum.Bytes == size)) break;
    }
    CloseHandle(handle);
    file->Crc = CksumResult(&sum);
    file->Bytes = sum.Bytes;
    return error;
}

void Leave() {
    if (gJob.Active.fetch_sub(1) == 1) SetEvent(gJob.Finished);
}

DWORD WINAPI UserThread(LPVOID) {
    for (size_t i; (i = gJob.Next.fetch_add(1)) < gJob.Files.size();) {
        File *file = gJob.Files[i].get();
        file->Error = SumFile(file);
        file->State.store(file->Error == ERROR_SUCCESS ? FileState::kSummed : FileState::kFailed,
                          std::memory_order_release);
    }
    Leave();
    return 0;
}

const char *ReasonOf(DWORD error) {
    static char other[32];
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND: return "No such file or directory";
        case ERROR_TOO_MANY_OPEN_FILES: return "Too many open files";
        case ERROR_ACCESS_DENIED: return "Permission denied";
        case ERROR_NOT_ENOUGH_MEMORY: return "Cannot allocate memory";
        case ERROR_MAX_THRDS_REACHED: return "Limit of kernel threads reached";
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION: return "In use by somebody else";
        default: std::snprintf(other, sizeof other, "Error %u", error); return other;
    }
}

// How many there are: fewer than asked for when a limit was hit, 0 when not even one could be had.
uint32_t StartUserThreads() {
    const size_t useful = gJob.Files.size();
    const uint32_t wanted = useful < gOptions.UserThreads ? static_cast<uint32_t>(useful) : gOptions.UserThreads;
    uint32_t made = 0;
    for (; made < wanted; made++) {
        gJob.Active.fetch_add(1);
        const HANDLE thread = CreateThread(nullptr, 0, UserThread, nullptr, 0, nullptr);
        if (thread == nullptr) {
            std::fprintf(stderr, "filesum: only %u of %u threads could be created: %s\n", made, wanted,
                         ReasonOf(GetLastError()));
            gJob.Active.fetch_sub(1);
            break;
        }
        CloseHandle(thread);
    }
    return made;
}

// ---- The main routine --------------------------------------------------------------------------------

struct Totals {
    size_t Printed = 0;  // files from the head of the list that are dealt with
    size_t Summed = 0;
    uint64_t Bytes = 0;
};

// Prints what is known from where it stopped, in the order of the list.
void PrintResults(Totals *totals) {
    for (; totals->Printed < gJob.Files.size(); totals->Printed++) {
        File *file = gJob.Files[totals->Printed].get();
        const FileState state = file->State.load(std::memory_order_acquire);
        if (state == FileState::kOpen) return;
        if (state == FileState::kFailed) {
            Complain(file->Name, ReasonOf(file->Error));
            continue;
        }
        std::printf("%u %" PRIu64 " %s\n", file->Crc, file->Bytes, file->Name.c_str());
        totals->Summed++;
        totals->Bytes += file->Bytes;
    }
}

double Seconds() {
    LARGE_INTEGER count{}, frequency{};
    QueryPerformanceCounter(&count);
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(count.QuadPart) / static_cast<double>(frequency.QuadPart);
}

DWORD WINAPI Main(LPVOID) {
    const double start = Seconds();
    const bool terminal = isatty(STDERR_FILENO) != 0;
    gJob.Finished = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    if (gJob.Finished == nullptr) {
        std::fprintf(stderr, "filesum: no event: %s\n", ReasonOf(GetLastError()));
        return 1;
    }
    ListFiles();
    const uint32_t threads = StartUserThreads();
    DWORD peak = ZvxKernelThreadCount();
    Leave();
    if (threads == 0 && !gJob.Files.empty()) return 1;

    Totals totals;
    for (bool finished = false; !finished;) {
        finished = WaitForSingleObject(gJob.Finished, kProgressMs) == WAIT_OBJECT_0;
        const DWORD now = ZvxKernelThreadCount();
        if (now > peak) peak = now;
        PrintResults(&totals);
        if (terminal) {
            std::fprintf(stderr, "\rfilesum: %zu of %zu files, %" PRIu64 " bytes ", totals.Printed, gJob.Files.size(),
                         totals.Bytes);
        }
    }
    if (std::fflush(stdout) != 0) Complain("standard output", std::strerror(errno));
    const double seconds = Seconds() - start;
    std::fprintf(stderr,
                 "%sfilesum: %zu files, %" PRIu64
                 " bytes in %.3f s; %u %s threads, %u schedulers, "
                 "%u kernel threads (peak %u), %s\n",
                 terminal ? "\r" : "", totals.Summed, totals.Bytes, seconds, threads,
                 ZvxSchedulerCount() != 0 ? "user" : "kernel", ZvxSchedulerCount(), ZvxKernelThreadCount(), peak,
                 ZvxIoBackendName());
    return gJob.Failed ? 1 : 0;
}

// The library has no end of its own: in fiber mode the process ends here.
DWORD WINAPI MainAndExit(LPVOID) {
    ExitProcess(Main(nullptr));
}

}  // namespace

int main(int argc, char **argv) {
    ParseOptions(argc, argv);
    if (*ZvxIoBackendNote() != '\0') std::fprintf(stderr, "filesum: %s\n", ZvxIoBackendNote());
    ZVXKVT_INIT_PARAMS params{};
    params.LookupValue = LookupValue;
    InitUserThreadScheduler(MainAndExit, nullptr, &params);
    return 0;
}
