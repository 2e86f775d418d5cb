// tools/zvxctl/process.h - another process, seen through /proc and the call for reading another one's memory.
//
// The other process is never stopped and need not co-operate; it may end, or change what is read, at any moment. So
// every read may fail or give a record that is half old and half new, and callers check what they follow.
#ifndef ZVXCTL_PROCESS_H
#define ZVXCTL_PROCESS_H

#include <fmt/format.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zvxctl {

using Address = uint64_t;

// Ends the command: the text goes to standard error and the code to the shell.
struct Failure : std::runtime_error {
    Failure(int code, const std::string &text) : std::runtime_error(text), Code(code) {}
    int Code;
};
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

template <typename... Args>
[[noreturn]] void Fail(fmt::format_string<Args...> format, Args &&...args) {
    throw Failure(kExitFailed, fmt::format(format, std::forward<Args>(args)...));
}

struct Mapping {
    Address Start = 0;
    Address End = 0;
    uint64_t Offset = 0;  // of the first byte, in the file
    bool Executable = false;
    std::string Path;
};

struct Process {
    pid_t Pid = 0;
    std::vector<Mapping> Maps;  // ascending
};

// Fails with a reason that says what to do: no such process, or which right is missing.
Process OpenProcess(pid_t pid);
// The same for `zvxctl list`: false for any process that cannot be looked at.
bool TryOpenProcess(pid_t pid, Process *process);
std::vector<pid_t> AllProcesses();

// All of it or nothing; false when some of it is not mapped. Ends the command when the process is gone or reading it
// is forbidden.
bool Read(const Process &process, Address from, void *to, size_t bytes);
bool Write(const Process &process, Address to, const void *from, size_t bytes);
template <typename T>
bool ReadValue(const Process &process, Address from, T *value) {
    return Read(process, from, value, sizeof(T));
}
// Up to the zero, `most` characters, or the end of what is mapped. What is not printable is shown as '?'.
std::string ReadText(const Process &process, Address from, size_t most);

const Mapping *MappingOf(const Process &process, Address address);

// What /proc tells; each is empty or 0 when it cannot be read.
std::string UserOf(pid_t pid);
uid_t UidOf(pid_t pid);
std::string CommandOf(pid_t pid);
std::string WorkingFolderOf(pid_t pid);
std::string BackendOf(pid_t pid);  // "io_uring", "epoll" or "-", from the descriptors that it has open
double UptimeOf(pid_t pid);        // seconds
double CpuOf(pid_t pid, uint32_t thread, char *state);  // seconds of a kernel thread, and its state letter
double ProcessorWaitOf(pid_t pid, uint32_t thread);  // seconds in which it could run but another had the processor
Address SleepingStackPointer(pid_t pid, uint32_t thread);  // of a kernel thread that sleeps in the kernel, else 0
bool IsAlive(pid_t pid);
uint64_t MonotonicMs();

}  // namespace zvxctl

#endif  // ZVXCTL_PROCESS_H
