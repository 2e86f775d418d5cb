// platform/system/process.cpp - starting other processes, watching for their end, and ending them.
//
// Starting runs on the calling thread and blocks for as long as the kernel takes to load the program. The end of every
// process that somebody has a handle for is noticed by one thread that waits for all of them, takes the exit code of
// those that were started here, and signals the objects; the thread is made with the first of them.
//
// Who owns what: the watch holds a reference on every process that has not ended, so that OpenProcess finds the object
// of a child, and with it the exit code, when it is asked for a child by its number. A host that waits for children by
// itself takes the code away; such a child ends with code 0 here.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/base/command_line.h"
#include "platform/base/inner_lock.h"
#include "platform/base/object_pool.h"
#include "platform/base/process_object.h"
#include "platform/base/text.h"
#include "platform/base/thread_object.h"
#include "platform/system/affinity.h"
#include "platform/system/file.h"

namespace os {

namespace {

constexpr DWORD kSignalledCode = 128;  // plus the number of the signal that ended the process
constexpr uint64_t kKilled = 1ull << 32;

// ---- The first thread of a child ---------------------------------------------------------------------
//
// Known by its handle only: it is signalled with its process and has the same exit code.

DWORD RefuseCount(ThreadObject *) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return kSuspendFailed;
}

BOOL RefuseTerminate(ThreadObject *, DWORD) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

uint32_t SetChildAffinity(ThreadObject *thread, uint32_t mask) {
    return SetAffinityOfTid(static_cast<int>(thread->Id.load(std::memory_order_relaxed)), mask);
}

BOOL SetChildPriority(ThreadObject *thread, int priority) {
    return SetPriorityOfTid(static_cast<int>(thread->Id.load(std::memory_order_relaxed)), priority) ? TRUE : FALSE;
}

void NoCpuTimes(ThreadObject *, uint64_t *kernel, uint64_t *user) {
    *kernel = *user = 0;
}

BOOL RefuseApc(ThreadObject *, PAPCFUNC, ULONG_PTR) {
    SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

constexpr ThreadOps kChildThread = {RefuseCount,      RefuseCount, RefuseTerminate, SetChildAffinity,
                                    SetChildPriority, NoCpuTimes,  RefuseApc};

void DestroyChildThread(Object *object);
constexpr ObjectOps kChildThreadOps = {nullptr, DestroyChildThread};
constinit ObjectPool<ThreadObject> gChildThreads(ObjectType::kThread, &kChildThreadOps);

void DestroyChildThread(Object *object) {
    FreeObject(&gChildThreads, static_cast<ThreadObject *>(object));
}

// ---- The watch ---------------------------------------------------------------------------------------

InnerLock gWatchLock;
ProcessObject *gWatched;  // [gWatchLock] those that have not ended, each with a reference
int gWatchFd = -1;        // [gWatchLock] epoll; -1 before the first process

// The code that a process of ours ended with.
DWORD CodeOfEnd(const ProcessObject *process, const siginfo_t &info) {
    if (info.si_code == CLD_EXITED) return static_cast<DWORD>(info.si_status);
    const uint64_t kill = process->KillCode.load(std::memory_order_acquire);
    if (info.si_status == SIGKILL && (kill & kKilled) != 0) return static_cast<DWORD>(kill);
    return kSignalledCode + static_cast<DWORD>(info.si_status);
}

void NoteEnd(ProcessObject *process) {
    DWORD code = 0;
    if (process->Child) {
        siginfo_t info{};
        int result;
        do result = waitid(P_PIDFD, static_cast<id_t>(process->PidFd), &info, WEXITED);
        while (result != 0 && errno == EINTR);
        if (result == 0) code = CodeOfEnd(process, info);
    } else {
        process->CodeKnown.store(false, std::memory_order_relaxed);
    }
    {
        InnerGuard guard(&gWatchLock);
        ProcessObject **link = &gWatched;
        while (*link != process) link = &(*link)->NextWatched;
        *link = process->NextWatched;
        epoll_ctl(gWatchFd, EPOLL_CTL_DEL, process->PidFd, nullptr);
    }
    process->ExitCode.store(code, std::memory_order_release);
    if (ThreadObject *thread = process->FirstThread; thread != nullptr) {
        thread->ExitTime.store(CoarseFileTime(), std::memory_order_relaxed);
        thread->ExitCode.store(code, std::memory_order_release);
        SignalObject(thread);
    }
    SignalObject(process);
    UnrefObject(process);
}

void *WatchMain(void *arg) {
    const int watch = static_cast<int>(reinterpret_cast<intptr_t>(arg));
    for (;;) {
        epoll_event ended[16];
        const int count = epoll_wait(watch, ended, 16, -1);
        for (int i = 0; i < count; i++) NoteEnd(static_cast<ProcessObject *>(ended[i].data.ptr));
    }
    return nullptr;
}

void ForgetWatch() {
    if (gWatchFd >= 0) close(gWatchFd);
    gWatchFd = -1;
    gWatched = nullptr;
}

// [gWatchLock] 0 or the error.
DWORD StartWatchLocked() {
    if (gWatchFd >= 0) return ERROR_SUCCESS;
    const int watch = epoll_create1(EPOLL_CLOEXEC);
    if (watch < 0) return ErrorOfErrno(errno);
    const int error = StartHelperThread(WatchMain, reinterpret_cast<void *>(static_cast<intptr_t>(watch)));
    if (error != 0) {
        close(watch);
        return ERROR_MAX_THRDS_REACHED;
    }
    gWatchFd = watch;
    // A forked copy of the process has no thread that watches, and no children yet.
    static bool prepared = false;
    if (!prepared) pthread_atfork(nullptr, nullptr, ForgetWatch);
    prepared = true;
    return ERROR_SUCCESS;
}

// From here on the end of the process is noticed. 0 or the error, and then nothing is watched.
DWORD Watch(ProcessObject *process) {
    InnerGuard guard(&gWatchLock);
    DWORD error = StartWatchLocked();
    if (error != ERROR_SUCCESS) return error;
    RefObject(process);
    process->NextWatched = gWatched;
    gWatched = process;
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.ptr = process;
    if (epoll_ctl(gWatchFd, EPOLL_CTL_ADD, process->PidFd, &event) == 0) return ERROR_SUCCESS;
    error = ErrorOfErrno(errno);
    gWatched = process->NextWatched;
    UnrefObject(process);  // the caller's own reference remains
    return error;
}

// A process that is watched already, with a reference; null when there is none of that number.
ProcessObject *RefWatched(DWORD id) {
    InnerGuard guard(&gWatchLock);
    for (ProcessObject *process = gWatched; process != nullptr; process = process->NextWatched) {
        if (process->Id.load(std::memory_order_relaxed) != id) continue;
        RefObject(process);
        return process;
    }
    return nullptr;
}

int OpenPidFd(pid_t pid) {
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

// ---- What a child is started with --------------------------------------------------------------------

// Everything in it is from the heap and its own.
struct SpawnPlan {
    char *Program = nullptr;        // path of the file
    char **Words = nullptr;         // argv
    char **Environment = nullptr;   // null for the caller's
    char *Block = nullptr;          // what Environment points into, when that is not the host's own block
    int Streams[3] = {-1, -1, -1};  // copies for the child; -1 for the caller's own

    SpawnPlan() = default;
    SpawnPlan(const SpawnPlan &) = delete;
    SpawnPlan &operator=(const SpawnPlan &) = delete;
    ~SpawnPlan() {
        free(Program);
        free(Words);
        free(Environment);
        free(Block);
        for (int fd : Streams)
            if (fd >= 0) close(fd);
    }
};

bool IsProgram(const char *path) {
    struct stat info;
    return stat(path, &info) == 0 && S_ISREG(info.st_mode) && access(path, X_OK) == 0;
}

// The path `folder`/`name` if there is a program, else null; also with an ".exe" left away.
char *ProgramIn(const char *folder, size_t folderLength, const char *name) {
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof path, "%.*s%s%s", static_cast<int>(folderLength), folder,
                                folderLength != 0 ? "/" : "", name);
    if (length <= 0 || length >= static_cast<int>(sizeof path)) return nullptr;
    if (IsProgram(path)) return strdup(path);
    if (length <= 4 || strcasecmp(path + length - 4, ".exe") != 0) return nullptr;
    path[length - 4] = 0;
    return IsProgram(path) ? strdup(path) : nullptr;
}

// Beside the calling program, then along PATH; a name with a slash is a path. Null when there is no such program.
char *FindProgram(const char *name, bool search) {
    if (!search || strchr(name, '/') != nullptr) return ProgramIn("", 0, name);
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        self[length] = 0;
        const char *slash = strrchr(self, '/');
        if (char *found = ProgramIn(self, static_cast<size_t>(slash - self), name)) return found;
    }
    const char *at = getenv("PATH");
    while (at != nullptr && *at != 0) {
        const size_t folder = strcspn(at, ":");
        if (folder != 0) {
            if (char *found = ProgramIn(at, folder, name)) return found;
        }
        at += folder + (at[folder] != 0);
    }
    return nullptr;
}

// A path that still leads to the same file in another directory.
bool MakeAbsolute(SpawnPlan *plan) {
    if (plan->Program[0] == '/') return true;
    char *absolute = realpath(plan->Program, nullptr);
    if (absolute == nullptr) return false;
    free(plan->Program);
    plan->Program = absolute;
    return true;
}

DWORD PlanProgram(SpawnPlan *plan, const char *application, const char *line) {
    if (application == nullptr && line == nullptr) return ERROR_INVALID_PARAMETER;
    plan->Words = SplitCommandLine(line != nullptr ? line : "");
    if (plan->Words == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (application == nullptr && plan->Words[0] == nullptr) return ERROR_INVALID_PARAMETER;
    plan->Program = FindProgram(application != nullptr ? application : plan->Words[0], application == nullptr);
    if (plan->Program == nullptr) return ERROR_FILE_NOT_FOUND;
    if (!MakeAbsolute(plan)) return ErrorOfErrno(errno);
    if (plan->Words[0] == nullptr) {
        // The block of an empty line has room for two pointers.
        plan->Words[0] = plan->Program;
        plan->Words[1] = nullptr;
    }
    return ERROR_SUCCESS;
}

// From texts that follow one another, an empty one at the end.
DWORD PlanEnvironment(SpawnPlan *plan, const char *block) {
    size_t count = 0;
    for (const char *at = block; *at != 0; at += strlen(at) + 1) count++;
    plan->Environment = static_cast<char **>(malloc((count + 1) * sizeof(char *)));
    if (plan->Environment == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    char **to = plan->Environment;
    for (const char *at = block; *at != 0; at += strlen(at) + 1) *to++ = const_cast<char *>(at);
    *to = nullptr;
    return ERROR_SUCCESS;
}

// The same from wide characters.
DWORD PlanWideEnvironment(SpawnPlan *plan, const WCHAR *block) {
    size_t length = 0;
    while (block[length] != 0 || (length != 0 && block[length - 1] != 0)) length++;
    plan->Block = static_cast<char *>(malloc(4 * length + 2));
    if (plan->Block == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    char *to = plan->Block;
    for (const WCHAR *at = block; *at != 0;) {
        bool tooLong = false;
        if (!NarrowText(at, to, 4 * length + 1, &tooLong)) return ERROR_INVALID_PARAMETER;
        to += strlen(to) + 1;
        while (*at != 0) at++;
        at++;
    }
    *to = 0;
    return PlanEnvironment(plan, plan->Block);
}

DWORD PlanStreams(SpawnPlan *plan, const HANDLE (&handles)[3]) {
    for (int i = 0; i < 3; i++) {
        if (handles[i] == nullptr || handles[i] == INVALID_HANDLE_VALUE) continue;
        FileObject *file = RefFile(handles[i]);
        if (file == nullptr) return ERROR_INVALID_HANDLE;
        // Above the three, so that putting one in its place never covers another.
        plan->Streams[i] = fcntl(file->Fd, F_DUPFD_CLOEXEC, 3);
        UnrefObject(file);
        if (plan->Streams[i] < 0) return ErrorOfErrno(errno);
    }
    return ERROR_SUCCESS;
}

// ---- Starting ----------------------------------------------------------------------------------------

// A child inherits the mask of the thread that makes it, and a scheduler's thread is bound to one processor. So the
// thread has the process's mask for as long as it takes to make a child.
struct FullMask {
    FullMask() : Before(SetAffinityOfTid(0, ProcessProcessorMask())) {}
    ~FullMask() {
        if (Before != 0) SetAffinityOfTid(0, Before);
    }
    FullMask(const FullMask &) = delete;
    FullMask &operator=(const FullMask &) = delete;
    const uint32_t Before;
};

DWORD ErrorOfSpawn(int error) {
    if (error == ENOEXEC) return ERROR_BAD_EXE_FORMAT;
    return ErrorOfErrno(error);
}

// 0 with the child's number, or the error.
DWORD Spawn(const SpawnPlan &plan, const char *directory, DWORD flags, pid_t *child) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    if (posix_spawn_file_actions_init(&actions) != 0) return ERROR_NOT_ENOUGH_MEMORY;
    if (posix_spawnattr_init(&attributes) != 0) {
        posix_spawn_file_actions_destroy(&actions);
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    int error = 0;
    for (int i = 0; i < 3; i++)
        if (plan.Streams[i] >= 0 && error == 0) error = posix_spawn_file_actions_adddup2(&actions, plan.Streams[i], i);
    if (error == 0) error = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    if (error == 0 && directory != nullptr) error = posix_spawn_file_actions_addchdir_np(&actions, directory);
    // What this process ignores or blocks is nothing to its children.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    short how = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if ((flags & DETACHED_PROCESS) != 0)
        how = static_cast<short>(how | POSIX_SPAWN_SETSID);
    else if ((flags & CREATE_NEW_PROCESS_GROUP) != 0)
        how = static_cast<short>(how | POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setflags(&attributes, how);
    if (error == 0) {
        FullMask mask;
        char **environment = plan.Environment != nullptr ? plan.Environment : environ;
        error = posix_spawn(child, plan.Program, &actions, &attributes, plan.Words, environment);
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? ERROR_SUCCESS : ErrorOfSpawn(error);
}

// The child cannot be kept track of: it is taken back.
void UndoSpawn(pid_t child) {
    kill(child, SIGKILL);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
}

ThreadObject *NewChildThread(pid_t child) {
    ThreadObject *thread = AllocObject(&gChildThreads);
    if (thread != nullptr) InitThreadObject(thread, &kChildThread, static_cast<DWORD>(child));
    return thread;
}

// Objects and handles for a child that runs. 0 or the error, and then nothing of it is left.
DWORD Present(pid_t child, PROCESS_INFORMATION *information) {
    const int pidFd = OpenPidFd(child);
    DWORD error = pidFd < 0 ? ErrorOfErrno(errno) : ERROR_SUCCESS;
    ThreadObject *thread = nullptr;
    ProcessObject *process = nullptr;
    HANDLE processHandle = nullptr, threadHandle = nullptr;
    if (error == ERROR_SUCCESS) {
        thread = NewChildThread(child);
        process = thread != nullptr ? NewProcessObject(static_cast<DWORD>(child), pidFd, true) : nullptr;
        if (process == nullptr) {
            close(pidFd);
            if (thread != nullptr) UnrefObject(thread);
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (error == ERROR_SUCCESS) {
        process->FirstThread = thread;
        RefObject(thread);
        RefObject(process);
        // Each handle takes a reference; this function has one more of the process until it is watched.
        threadHandle = NewHandle(thread);
        if (threadHandle == nullptr) UnrefObject(thread);
        processHandle = threadHandle != nullptr ? NewHandle(process) : nullptr;
        if (processHandle == nullptr) {
            UnrefObject(process);
            error = ERROR_TOO_MANY_OPEN_FILES;
        } else {
            error = Watch(process);
        }
        UnrefObject(process);
    }
    if (error != ERROR_SUCCESS) {
        UndoSpawn(child);
        if (threadHandle != nullptr) CloseHandle(threadHandle);
        if (processHandle != nullptr) CloseHandle(processHandle);
        return error;
    }
    *information = {processHandle, threadHandle, static_cast<DWORD>(child), static_cast<DWORD>(child)};
    return ERROR_SUCCESS;
}

// What the two forms of CreateProcess have in common.
struct StartOrder {
    const char *Application;
    const char *CommandLine;
    const char *Directory;
    const void *Environment;
    DWORD Flags;
    bool UseStreams;
    HANDLE Streams[3];
};

BOOL StartProcess(const StartOrder &order, PROCESS_INFORMATION *information) {
    SpawnPlan plan;
    pid_t child = 0;
    DWORD error = (order.Flags & CREATE_SUSPENDED) != 0 ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS;
    if (error == ERROR_SUCCESS) error = PlanProgram(&plan, order.Application, order.CommandLine);
    if (error == ERROR_SUCCESS && order.Environment != nullptr) {
        error = (order.Flags & CREATE_UNICODE_ENVIRONMENT) != 0
                    ? PlanWideEnvironment(&plan, static_cast<const WCHAR *>(order.Environment))
                    : PlanEnvironment(&plan, static_cast<const char *>(order.Environment));
    }
    if (error == ERROR_SUCCESS && order.UseStreams) error = PlanStreams(&plan, order.Streams);
    if (error == ERROR_SUCCESS) error = Spawn(plan, order.Directory, order.Flags, &child);
    if (error == ERROR_SUCCESS) error = Present(child, information);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

template <typename StartupInfo>
void TakeStreams(StartOrder *order, const StartupInfo *startup) {
    if (startup == nullptr || (startup->dwFlags & STARTF_USESTDHANDLES) == 0) return;
    order->UseStreams = true;
    order->Streams[0] = startup->hStdInput;
    order->Streams[1] = startup->hStdOutput;
    order->Streams[2] = startup->hStdError;
}

}  // namespace

BOOL CreateProcessA(const char *application, char *commandLine, SECURITY_ATTRIBUTES *processSecurity,
                    SECURITY_ATTRIBUTES *threadSecurity, BOOL inherit, DWORD flags, void *environment,
                    const char *directory, STARTUPINFOA *startup, PROCESS_INFORMATION *information) {
    static_cast<void>(processSecurity);
    static_cast<void>(threadSecurity);
    static_cast<void>(inherit);
    if (ShouldFail("CreateProcessA")) return FALSE;
    StartOrder order{application, commandLine, directory, environment, flags, false, {}};
    TakeStreams(&order, startup);
    return StartProcess(order, information);
}

BOOL CreateProcessW(const WCHAR *application, WCHAR *commandLine, SECURITY_ATTRIBUTES *processSecurity,
                    SECURITY_ATTRIBUTES *threadSecurity, BOOL inherit, DWORD flags, void *environment,
                    const WCHAR *directory, STARTUPINFOW *startup, PROCESS_INFORMATION *information) {
    static_cast<void>(processSecurity);
    static_cast<void>(threadSecurity);
    static_cast<void>(inherit);
    if (ShouldFail("CreateProcessW")) return FALSE;
    char *texts[3] = {};
    const WCHAR *const wide[3] = {application, commandLine, directory};
    BOOL started = FALSE;
    bool narrow = true;
    for (int i = 0; i < 3 && narrow; i++) {
        texts[i] = NarrowCopy(wide[i]);
        narrow = texts[i] != nullptr || wide[i] == nullptr;
    }
    if (narrow) {
        StartOrder order{texts[0], texts[1], texts[2], environment, flags, false, {}};
        TakeStreams(&order, startup);
        started = StartProcess(order, information);
    }
    const DWORD error = GetLastError();
    for (char *text : texts) free(text);
    SetLastError(error);
    return started;
}

HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD processId) {
    static_cast<void>(access);
    static_cast<void>(inherit);
    if (ShouldFail("OpenProcess")) return nullptr;
    DWORD error = ERROR_SUCCESS;
    Object *object = nullptr;
    if (processId == GetCurrentProcessId()) {
        object = RefCurrentProcess();
    } else if (ProcessObject *watched = RefWatched(processId); watched != nullptr) {
        object = watched;
    } else {
        const int pidFd = processId != 0 && processId <= INT_MAX ? OpenPidFd(static_cast<pid_t>(processId)) : -1;
        // Also for the number of a thread that is not a process's first.
        if (pidFd < 0) error = errno == ENOSYS ? ERROR_CALL_NOT_IMPLEMENTED : ERROR_INVALID_PARAMETER;
        ProcessObject *made = pidFd >= 0 ? NewProcessObject(processId, pidFd, false) : nullptr;
        if (made == nullptr && pidFd >= 0) close(pidFd);
        if (made != nullptr) {
            error = Watch(made);
            if (error != ERROR_SUCCESS) UnrefObject(made);
        }
        object = error == ERROR_SUCCESS ? made : nullptr;
    }
    if (error != ERROR_SUCCESS) SetLastError(error);
    if (object == nullptr) return nullptr;
    const HANDLE handle = NewHandle(object);
    if (handle == nullptr) UnrefObject(object);
    return handle;
}

BOOL TerminateProcess(HANDLE handle, DWORD code) {
    if (ShouldFail("TerminateProcess")) return FALSE;
    if (handle == GetCurrentProcess()) _exit(static_cast<int>(code));
    ProcessObject *process = static_cast<ProcessObject *>(RefHandle(handle, ObjectType::kProcess));
    if (process == nullptr) return FALSE;
    DWORD error = ERROR_SUCCESS;
    if (process->PidFd < 0) {
        _exit(static_cast<int>(code));  // a handle for the calling process
    } else {
        // The first code counts.
        uint64_t none = 0;
        const bool first = process->KillCode.compare_exchange_strong(none, kKilled | code, std::memory_order_acq_rel);
        if (syscall(SYS_pidfd_send_signal, process->PidFd, SIGKILL, nullptr, 0) != 0) {
            error = errno == EPERM || errno == ESRCH ? ERROR_ACCESS_DENIED : ErrorOfErrno(errno);
            if (first) process->KillCode.store(0, std::memory_order_relaxed);
        }
    }
    UnrefObject(process);
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

}  // namespace os
