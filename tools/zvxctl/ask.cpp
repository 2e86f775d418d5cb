// tools/zvxctl/ask.cpp - what the process does itself when it is asked: dumps, its logs, administration.
//
// The event and the pipe have names, which the library resolves; this process uses the same library as a host without
// user threads does, so every call goes straight to the operating system.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include "commands.h"
#include "zvxkvt/osapi.h"
#if ZVXCTL_HAS_PIPES
#include "zvxkvt/pipes.h"
#endif
#include "zvxkvt/zvxkvt.h"

namespace zvxctl {

namespace {

constexpr DWORD kMaySet = 2;  // the right to set an event

// Named objects belong to a user; root asks as the one whose process it is.
void BecomeOwner(pid_t pid) {
    const uid_t owner = UidOf(pid);
    if (geteuid() == owner || geteuid() != 0) return;
    if (seteuid(owner) != 0) Fail("cannot act as user {}: {}", UserOf(pid), std::strerror(errno));
}

std::set<std::string> DumpFiles(const std::vector<std::string> &folders, pid_t pid) {
    std::set<std::string> names;
    const std::string mark = fmt::format("_pid_{}_", pid);
    for (const std::string &path : folders) {
        DIR *folder = opendir(path.c_str());
        if (folder == nullptr) continue;
        while (const dirent *entry = readdir(folder)) {
            const std::string name = entry->d_name;
            if (name.find("_minidump_") == std::string::npos || name.find(mark) == std::string::npos) continue;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".dmp") == 0) names.insert(path + name);
        }
        closedir(folder);
    }
    return names;
}

bool DumpsRequested(const Library &library) {
    for (const SchedulerState &s : ReadSchedulers(library))
        if (Field(library, s.Copy, "Scheduler.DebugRequest") != 0) return true;
    return false;
}

}  // namespace

int RequestDump(const DumpOptions &options) {
    const Library library = OpenLibrary(options.Pid);
    CatchSignals();
    // Where a dump goes when its folder refuses it.
    std::vector<std::string> folders{TraceFolder(library)};
    const std::string current = WorkingFolderOf(options.Pid) + "/";
    if (current != folders[0]) folders.push_back(current);
    const std::set<std::string> before = DumpFiles(folders, options.Pid);
    const std::string name = "zorvex_zvxkvt_debugger_" + GlobalText(library, "gSid");
    const uid_t own = geteuid();
    BecomeOwner(options.Pid);
    HANDLE event = OpenEventA(kMaySet, FALSE, name.c_str());
    if (event == nullptr) event = OpenEventA(kMaySet, FALSE, ("Global\\" + name).c_str());
    if (event == nullptr)
        Fail("nobody waits on the event {} (error {}): the debugger thread of process {} does not run", name,
             GetLastError(), options.Pid);
    const bool set = SetEvent(event) != FALSE;
    if (seteuid(own) != 0) Fail("cannot be user {} again", own);
    if (!set) Fail("the event {} cannot be set", name);

    // Every scheduler clears its request when its sweep is done. One that is held by a user thread never comes to it.
    const uint64_t until = MonotonicMs() + static_cast<uint64_t>(options.Seconds * 1000);
    std::set<std::string> shown;
    bool begun = false;
    uint32_t quiet = 0;
    while (!gStop && MonotonicMs() < until) {
        SleepMs(100);
        const bool working = DumpsRequested(library);
        bool fresh = false;
        for (const std::string &file : DumpFiles(folders, options.Pid)) {
            if (before.count(file) != 0 || !shown.insert(file).second) continue;
            fmt::print("{}\n", file);
            fresh = true;
        }
        std::fflush(stdout);
        begun |= working || fresh;
        quiet = begun && !working && !fresh ? quiet + 1 : 0;
        if (quiet >= 5) break;
    }
    if (DumpsRequested(library)) {
        for (const SchedulerState &s : ReadSchedulers(library))
            if (Field(library, s.Copy, "Scheduler.DebugRequest") != 0)
                fmt::print(stderr, "zvxctl: scheduler {} has not served the request: see zvxctl sched {}\n", s.Index,
                           options.Pid);
        return kExitFailed;
    }
    if (shown.empty())
        Fail("process {} was asked, and no dump appeared in {} in {:.0f} seconds", options.Pid, folders[0],
             options.Seconds);
    return 0;
}

int PrintLog(const LogOptions &options) {
    const Library library = OpenLibrary(options.Pid);
    const std::string sid = GlobalText(library, "gSid");
    const std::string name = options.Trace ? GlobalText(library, "gTraceFileName")
                                           : fmt::format("{}_pid_{}_fiber_stats.txt", sid, options.Pid);
    const std::string path = TraceFolder(library) + name;
    FILE *file = std::fopen(path.c_str(), "r");
    if (file == nullptr && options.Trace) file = std::fopen((WorkingFolderOf(options.Pid) + "/" + name).c_str(), "r");
    if (file == nullptr) {
        const int error = errno;
        if (!options.Trace && (Global(library, "OptionFlags") & Number(library, "su_LogToFile")) == 0)
            Fail("process {} keeps no ring log: it was started without the setting LogToFile", options.Pid);
        if (options.Trace && error == ENOENT)
            Fail("process {} has written nothing to its trace log {}", options.Pid, path);
        Fail("cannot read {}: {}", path, std::strerror(error));
    }
    CatchSignals();
    char buffer[16384];
    while (!gStop) {
        const size_t got = std::fread(buffer, 1, sizeof buffer, file);
        if (got != 0) {
            std::fwrite(buffer, 1, got, stdout);
            continue;
        }
        std::fflush(stdout);
        if (!options.Follow || !IsAlive(options.Pid)) break;
        SleepMs(200);
        std::clearerr(file);
    }
    std::fclose(file);
    return 0;
}

int SendAdminCommand(const std::string &pipe, const std::vector<std::string> &words, double seconds) {
    std::string command;
    for (const std::string &word : words) command += (command.empty() ? "" : " ") + word;
#if ZVXCTL_HAS_PIPES
    const std::string name = pipe.find('\\') == std::string::npos ? "\\\\.\\pipe\\" + pipe : pipe;
    std::vector<char> answer(1 << 20);
    DWORD got = 0;
    if (!CallNamedPipeA(name.c_str(), command.data(), static_cast<DWORD>(command.size()), answer.data(),
                        static_cast<DWORD>(answer.size()), &got, static_cast<DWORD>(seconds * 1000))) {
        const DWORD error = GetLastError();
        if (error == ERROR_FILE_NOT_FOUND) Fail("there is no pipe {}, or it belongs to another user", name);
        Fail("pipe {} did not answer: error {}", name, error);
    }
    std::fwrite(answer.data(), 1, got, stdout);
    if (got == 0 || answer[got - 1] != '\n') std::fputc('\n', stdout);
    return 0;
#else
    (void)seconds;
    Fail("this zvxctl was built without named pipes: cannot send \"{}\" to {}", command, pipe);
#endif
}

}  // namespace zvxctl
