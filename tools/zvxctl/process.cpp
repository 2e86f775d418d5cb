// tools/zvxctl/process.cpp - /proc, and reading and writing another process's memory.
#include "process.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zvxctl {

namespace {

std::string ProcPath(pid_t pid, const std::string &rest) {
    return fmt::format("/proc/{}{}", pid, rest);
}

bool ReadFile(const std::string &path, std::string *text) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    text->clear();
    char buffer[65536];
    ssize_t got = 0;
    while ((got = read(fd, buffer, sizeof buffer)) > 0) text->append(buffer, static_cast<size_t>(got));
    const int error = errno;
    close(fd);
    errno = error;
    return got == 0;
}

std::string NameOfUser(uid_t uid) {
    const passwd *entry = getpwuid(uid);
    return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

// Why the kernel refused, as far as it can be told from outside.
[[noreturn]] void FailForbidden(pid_t pid) {
    const uid_t owner = UidOf(pid);
    if (owner != geteuid() && geteuid() != 0) {
        Fail("process {} belongs to {}: run zvxctl as that user, or with the capability CAP_SYS_PTRACE (root)", pid,
             NameOfUser(owner));
    }
    std::string scope;
    if (ReadFile("/proc/sys/kernel/yama/ptrace_scope", &scope) && !scope.empty() && scope[0] != '0') {
        Fail(
            "reading process {} is forbidden: kernel.yama.ptrace_scope is {}; run zvxctl with the capability "
            "CAP_SYS_PTRACE (root){}",
            pid, scope.substr(0, 1), scope[0] == '3' ? " after a reboot, 3 cannot be undone" : ", or set it to 0");
    }
    Fail("reading process {} is forbidden (ptrace): it may not be dumped, or the container lacks CAP_SYS_PTRACE", pid);
}

// False with errno.
bool ReadMaps(pid_t pid, std::vector<Mapping> *maps) {
    std::string text;
    if (!ReadFile(ProcPath(pid, "/maps"), &text)) return false;
    maps->clear();
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        Mapping mapping;
        unsigned long long start = 0, stop = 0, offset = 0;
        char rights[8] = "";
        int path = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx %7s %llx %*s %*s %n", &start, &stop, rights, &offset, &path) < 4)
            continue;
        mapping.Start = start;
        mapping.End = stop;
        mapping.Offset = offset;
        mapping.Executable = std::strchr(rights, 'x') != nullptr;
        if (path > 0) mapping.Path = line.substr(static_cast<size_t>(path));
        maps->push_back(mapping);
    }
    return true;
}

bool Transfer(const Process &process, Address remote, void *local, size_t bytes, bool write) {
    if (remote == 0 || remote + bytes < remote) return false;
    const iovec here{local, bytes};
    const iovec there{reinterpret_cast<void *>(remote), bytes};
    const ssize_t done = write ? process_vm_writev(process.Pid, &here, 1, &there, 1, 0)
                               : process_vm_readv(process.Pid, &here, 1, &there, 1, 0);
    if (done == static_cast<ssize_t>(bytes)) return true;
    if (done >= 0 || errno == EFAULT) {
        // A process on its way out has no memory any more.
        if (!IsAlive(process.Pid)) Fail("process {} has ended", process.Pid);
        return false;
    }
    if (errno == ESRCH) Fail("process {} has ended", process.Pid);
    if (errno == EPERM || errno == EACCES) FailForbidden(process.Pid);
    if (errno == ENOSYS) Fail("this kernel has no call for reading another process's memory");
    return false;
}

// The fields of /proc/PID/stat after the name, from the third (state) on.
std::vector<std::string> StatFields(const std::string &path) {
    std::string text;
    std::vector<std::string> fields;
    if (!ReadFile(path, &text)) return fields;
    size_t at = text.rfind(')');
    if (at == std::string::npos) return fields;
    while ((at = text.find_first_not_of(" \n", at + 1)) != std::string::npos) {
        size_t end = text.find_first_of(" \n", at);
        if (end == std::string::npos) end = text.size();
        fields.push_back(text.substr(at, end - at));
        at = end - 1;
    }
    return fields;
}

std::string LinkTarget(const std::string &path) {
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target - 1);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

}  // namespace

Process OpenProcess(pid_t pid) {
    Process process;
    process.Pid = pid;
    errno = 0;
    if (!ReadMaps(pid, &process.Maps)) {
        if (errno == EACCES || errno == EPERM) FailForbidden(pid);
        Fail("there is no process {}", pid);
    }
    if (process.Maps.empty()) {
        if (!IsAlive(pid)) Fail("process {} has ended", pid);
        Fail("process {} is a kernel thread", pid);
    }
    return process;
}

bool TryOpenProcess(pid_t pid, Process *process) {
    process->Pid = pid;
    return ReadMaps(pid, &process->Maps) && !process->Maps.empty();
}

std::vector<pid_t> AllProcesses() {
    std::vector<pid_t> pids;
    DIR *folder = opendir("/proc");
    if (folder == nullptr) return pids;
    while (const dirent *entry = readdir(folder)) {
        const int pid = std::atoi(entry->d_name);
        if (pid > 0) pids.push_back(pid);
    }
    closedir(folder);
    std::sort(pids.begin(), pids.end());
    return pids;
}

bool Read(const Process &process, Address from, void *to, size_t bytes) {
    return Transfer(process, from, to, bytes, false);
}

bool Write(const Process &process, Address to, const void *from, size_t bytes) {
    return Transfer(process, to, const_cast<void *>(from), bytes, true);
}

std::string ReadText(const Process &process, Address from, size_t most) {
    std::string text;
    while (text.size() < most) {
        // Never across a page of which the second may not be there.
        char piece[256];
        const Address at = from + text.size();
        const size_t bytes = std::min({sizeof piece, most - text.size(), static_cast<size_t>(4096 - (at & 4095))});
        if (!Read(process, at, piece, bytes)) break;
        const size_t length = strnlen(piece, bytes);
        text.append(piece, length);
        if (length < bytes) break;
    }
    for (char &c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return text;
}

const Mapping *MappingOf(const Process &process, Address address) {
    const auto after = std::upper_bound(process.Maps.begin(), process.Maps.end(), address,
                                        [](Address a, const Mapping &mapping) { return a < mapping.Start; });
    if (after == process.Maps.begin()) return nullptr;
    const Mapping *mapping = &*(after - 1);
    return address < mapping->End ? mapping : nullptr;
}

// Not the owner of the folder in /proc: that is root for a process that may not be dumped.
uid_t UidOf(pid_t pid) {
    std::string text;
    if (!ReadFile(ProcPath(pid, "/status"), &text)) return static_cast<uid_t>(-1);
    const size_t at = text.find("\nUid:");
    unsigned real = 0, effective = 0;
    if (at == std::string::npos || std::sscanf(text.c_str() + at, "\nUid: %u %u", &real, &effective) != 2)
        return static_cast<uid_t>(-1);
    return effective;
}

std::string UserOf(pid_t pid) {
    return NameOfUser(UidOf(pid));
}

std::string CommandOf(pid_t pid) {
    std::string text;
    if (!ReadFile(ProcPath(pid, "/cmdline"), &text)) return "";
    while (!text.empty() && text.back() == '\0') text.pop_back();
    for (char &c : text)
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    return text;
}

std::string WorkingFolderOf(pid_t pid) {
    return LinkTarget(ProcPath(pid, "/cwd"));
}

std::string BackendOf(pid_t pid) {
    DIR *folder = opendir(ProcPath(pid, "/fd").c_str());
    if (folder == nullptr) return "-";
    std::string found = "-";
    while (const dirent *entry = readdir(folder)) {
        const std::string target = LinkTarget(ProcPath(pid, std::string("/fd/") + entry->d_name));
        if (target == "anon_inode:[io_uring]") {
            found = "io_uring";
            break;
        }
        if (target == "anon_inode:[eventpoll]") found = "epoll";
    }
    closedir(folder);
    return found;
}

double UptimeOf(pid_t pid) {
    const std::vector<std::string> fields = StatFields(ProcPath(pid, "/stat"));
    if (fields.size() < 20) return 0;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const double started = std::strtod(fields[19].c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
    const double age = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 - started;
    return age > 0 ? age : 0;
}

double CpuOf(pid_t pid, uint32_t thread, char *state) {
    const std::vector<std::string> fields = StatFields(ProcPath(pid, fmt::format("/task/{}/stat", thread)));
    if (fields.size() < 13) return 0;
    *state = fields[0][0];
    return (std::strtod(fields[11].c_str(), nullptr) + std::strtod(fields[12].c_str(), nullptr)) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ProcessorWaitOf(pid_t pid, uint32_t thread) {
    std::string text;
    unsigned long long waited = 0;
    if (!ReadFile(ProcPath(pid, fmt::format("/task/{}/schedstat", thread)), &text) ||
        std::sscanf(text.c_str(), "%*u %llu", &waited) != 1)
        return 0;
    return static_cast<double>(waited) / 1e9;
}

Address SleepingStackPointer(pid_t pid, uint32_t thread) {
    // The number of the call, six arguments, stack pointer and program counter; or one word.
    std::string text;
    unsigned long long pointer = 0;
    if (!ReadFile(ProcPath(pid, fmt::format("/task/{}/syscall", thread)), &text) ||
        std::sscanf(text.c_str(), "%*s %*s %*s %*s %*s %*s %*s %llx", &pointer) != 1)
        return 0;
    return pointer;
}

bool IsAlive(pid_t pid) {
    const std::vector<std::string> fields = StatFields(ProcPath(pid, "/stat"));
    return !fields.empty() && fields[0] != "Z" && fields[0] != "X";
}

uint64_t MonotonicMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace zvxctl
