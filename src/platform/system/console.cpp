// platform/system/console.cpp - the three standard streams, and reading lines from a terminal.
//
// Any thread; a read blocks the kernel thread until there is a line. It waits for the line in an inner region, so that
// a thread that is to be ended or suspended meanwhile first lets go of what it holds, and then serves the request.
//
// A terminal here ends a line with a line feed; what a console gives ends with a carriage return and a line feed. A
// read therefore asks the kernel for one byte less than it has room for. With room for one character only, the line
// feed is owed to the next read; a process has one console, so one word remembers whose it is.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/inner_lock.h"
#include "platform/base/thread_object.h"
#include "platform/os_process.h"
#include "platform/system/file.h"

namespace os {

namespace {

std::atomic<uint64_t> gOwesLineFeed{0};  // device number of the terminal, 0 for none

struct StdHandle {
    HANDLE Handle;
    uint32_t Serial;  // of the file that it leads to, so that the value's next user is not taken for it
};
InnerLock gStdLock;
StdHandle gStdHandles[3];  // [gStdLock] by descriptor

enum class Waited { kReady, kEnd, kError };

// Until the descriptor can be read. Every signal is blocked except while the kernel waits, so that none arrives
// between the look at what is asked of this thread and the wait.
Waited WaitUntilReadable(int fd, int *error) {
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    EnterInnerRegion();
    Waited result = Waited::kError;
    for (;;) {
        if (EndIsRequested()) {
            result = Waited::kEnd;
            break;
        }
        if (CurrentInnerRegion()->Pending.load(std::memory_order_relaxed) == 0) {
            pollfd ready{fd, POLLIN, 0};
            const int count = ppoll(&ready, 1, nullptr, &before);
            if (count > 0) {
                // A thread that was to end before the line came leaves it to the next reader.
                result = EndIsRequested() ? Waited::kEnd : Waited::kReady;
                break;
            }
            if (count < 0 && errno != EINTR) {
                *error = errno;
                break;
            }
        }
        LeaveInnerRegion();  // serves a suspension
        EnterInnerRegion();
    }
    LeaveInnerRegion();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

bool IsOpenStill(const StdHandle &made) {
    const DWORD lastError = GetLastError();
    FileObject *file = made.Handle != nullptr ? RefFile(made.Handle) : nullptr;
    const bool same = file != nullptr && file->Serial == made.Serial;
    if (file != nullptr) UnrefObject(file);
    SetLastError(lastError);
    return same;
}

uint64_t DeviceOf(int fd) {
    struct stat info;
    return fstat(fd, &info) == 0 ? info.st_rdev : 0;
}

// Characters stored in *read; 0 or the error. kErrorAbandonedWait: the thread is to end.
DWORD ReadLine(int fd, char *text, DWORD room, DWORD *read) {
    const uint64_t device = DeviceOf(fd);
    uint64_t owes = device;
    if (owes != 0 && gOwesLineFeed.compare_exchange_strong(owes, 0)) {
        text[0] = '\n';
        *read = 1;
        return ERROR_SUCCESS;
    }
    const size_t most = room > 1 ? room - 1 : 1;
    ssize_t got;
    do {
        int error = 0;
        const Waited waited = WaitUntilReadable(fd, &error);
        if (waited == Waited::kEnd) return kErrorAbandonedWait;
        if (waited == Waited::kError) return ErrorOfErrno(error);
        // Somebody else may take the line before us; then this waits for the next one like any read.
        got = ::read(fd, text, most);
    } while (got < 0 && (errno == EINTR || errno == EAGAIN));
    // Hung up: the input has ended.
    if (got < 0 && errno == EIO) got = 0;
    if (got < 0) return ErrorOfErrno(errno);
    size_t used = static_cast<size_t>(got);
    if (used != 0 && text[used - 1] == '\n') {
        text[used - 1] = '\r';
        if (used < room)
            text[used++] = '\n';
        else
            gOwesLineFeed.store(device);
    }
    *read = static_cast<DWORD>(used);
    return ERROR_SUCCESS;
}

}  // namespace

HANDLE GetStdHandle(DWORD which) {
    if (ShouldFail("GetStdHandle")) return INVALID_HANDLE_VALUE;
    const int fd = static_cast<int>(STD_INPUT_HANDLE - which);
    if (fd < 0 || fd > 2) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
    InnerGuard guard(&gStdLock);
    StdHandle *made = &gStdHandles[fd];
    if (IsOpenStill(*made)) return made->Handle;
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    const int mode = copy >= 0 ? fcntl(copy, F_GETFL) & O_ACCMODE : 0;
    const HANDLE handle = copy >= 0 ? AdoptDescriptor(copy, mode != O_WRONLY, mode != O_RDONLY) : nullptr;
    if (handle == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return INVALID_HANDLE_VALUE;
    }
    FileObject *file = RefFile(handle);
    *made = {handle, file->Serial};
    UnrefObject(file);
    return handle;
}

BOOL ReadConsoleA(HANDLE console, void *buffer, DWORD characters, DWORD *read, void *reserved) {
    static_cast<void>(reserved);
    if (ShouldFail("ReadConsoleA")) return FALSE;
    // Touched before anything is held: a bad pointer of the caller's faults here and leaves nothing behind.
    *read = 0;
    volatile char *text = static_cast<volatile char *>(buffer);
    for (DWORD at = 0; at < characters; at += 4096) text[at] = text[at];
    if (characters != 0) text[characters - 1] = text[characters - 1];
    FileObject *file = RefFile(console);
    if (file == nullptr) return FALSE;
    DWORD error = ERROR_SUCCESS;
    if (!file->CanRead)
        error = ERROR_ACCESS_DENIED;
    else if (isatty(file->Fd) == 0)
        error = ERROR_INVALID_HANDLE;
    else if (characters != 0)
        error = ReadLine(file->Fd, static_cast<char *>(buffer), characters, read);
    UnrefObject(file);
    if (error == kErrorAbandonedWait) EndCallingThread();
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

}  // namespace os
