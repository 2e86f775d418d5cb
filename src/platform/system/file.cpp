// platform/system/file.cpp - opening, sizing, moving and deleting files.
//
// Runs on any thread and blocks as long as the file system does; nothing here belongs to an engine. Share modes are
// not enforced: the kernel knows no mandatory sharing, and who needs exclusion takes byte ranges (file_lock.cpp).
//
// A FIFO is opened without waiting for its other end, because a handle that cannot be had for ever is of no use to a
// scheduler: a reader that is first reads the end (ERROR_BROKEN_PIPE) until a writer came, and a writer that is first
// gets ERROR_NOT_READY. Opened for both directions it needs no other end.
#include "platform/system/file.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/base/object_pool.h"
#include "platform/base/text.h"

namespace os {

namespace {

constexpr DWORD kFileReadData = 0x1;
constexpr DWORD kFileWriteData = 0x2;
constexpr DWORD kFileAppendData = 0x4;
constexpr size_t kMaxName = 4096;

void FileHandlesGone(Object *object);
void FileDestroy(Object *object);

const ObjectOps kFileOps{FileHandlesGone, FileDestroy, nullptr, nullptr};
ObjectPool<FileObject> gFilePool(ObjectType::kFile, &kFileOps);

// Removes the name that the file was opened by, unless it leads to another file by now.
void DeleteOnClose(const FileObject *file) {
    struct stat opened, named;
    if (fstat(file->Fd, &opened) != 0 || lstat(file->DeletePath, &named) != 0) return;
    if (opened.st_ino == named.st_ino && opened.st_dev == named.st_dev) unlink(file->DeletePath);
}

void FileHandlesGone(Object *object) {
    FileObject *file = static_cast<FileObject *>(object);
    CancelObject(file);
    if (file->DeletePath != nullptr) DeleteOnClose(file);
}

void FileDestroy(Object *object) {
    FileObject *file = static_cast<FileObject *>(object);
    FreeHeldRanges(file);
    EndIoObject(file);
    free(file->DeletePath);
    file->DeletePath = nullptr;
    FreeObject(&gFilePool, file);
}

struct OpenPlan {
    int Flags;  // access and the flags that do not depend on whether the file exists
    bool CanRead;
    bool CanWrite;
};

OpenPlan PlanAccess(DWORD access, DWORD flags) {
    OpenPlan plan{};
    plan.CanRead = (access & (GENERIC_READ | GENERIC_ALL | kFileReadData)) != 0;
    plan.CanWrite = (access & (GENERIC_WRITE | GENERIC_ALL | kFileWriteData | kFileAppendData)) != 0;
    plan.Flags = plan.CanRead && plan.CanWrite ? O_RDWR : plan.CanWrite ? O_WRONLY : O_RDONLY;
    if ((access & (GENERIC_WRITE | GENERIC_ALL | kFileWriteData)) == 0 && (access & kFileAppendData) != 0)
        plan.Flags |= O_APPEND;
    // Not to wait for the other end of a FIFO or the carrier of a line; taken back once it is open.
    plan.Flags |= O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    if ((flags & FILE_FLAG_WRITE_THROUGH) != 0) plan.Flags |= O_DSYNC;
    if ((flags & FILE_FLAG_NO_BUFFERING) != 0) plan.Flags |= O_DIRECT;
    return plan;
}

// open, again without O_DIRECT where the file system has no cache to go around.
int OpenOnce(const char *name, int flags, mode_t mode) {
    int fd;
    do fd = open(name, flags, mode);
    while (fd < 0 && errno == EINTR);
    if (fd < 0 && errno == EINVAL && (flags & O_DIRECT) != 0) return OpenOnce(name, flags & ~O_DIRECT, mode);
    return fd;
}

// A new file in place of whatever bears the name. -1 with errno.
int ReplaceByPrivate(const char *name, const OpenPlan &plan, bool *existed) {
    *existed = false;
    for (int tries = 0;; tries++) {
        const int fd = OpenOnce(name, plan.Flags | O_CREAT | O_EXCL, 0600);
        if (fd >= 0 || errno != EEXIST || tries == 100) return fd;
        *existed = true;
        if (unlink(name) != 0 && errno != ENOENT) return -1;
    }
}

// Opens by disposition; *existed tells whether the name was there. -1 with errno.
int OpenByDisposition(const char *name, const OpenPlan &plan, DWORD disposition, mode_t mode, bool *existed) {
    *existed = true;
    if (disposition == OPEN_EXISTING) return OpenOnce(name, plan.Flags, 0);
    if (disposition == TRUNCATE_EXISTING) return OpenOnce(name, plan.Flags | O_TRUNC, 0);
    // Creating and opening are told apart, because the caller is; between the two somebody else may create or delete.
    for (int tries = 0;; tries++) {
        int fd = OpenOnce(name, plan.Flags | O_CREAT | O_EXCL, mode);
        if (fd >= 0) {
            *existed = false;
            return fd;
        }
        if (errno != EEXIST || disposition == CREATE_NEW) return -1;
        fd = OpenOnce(name, plan.Flags | (disposition == CREATE_ALWAYS ? O_TRUNC : 0), 0);
        if (fd >= 0 || errno != ENOENT || tries == 100) return fd;
    }
}

// A write to a FIFO whose reader has gone would raise SIGPIPE, which ends a process that does not expect it; here it
// is an error of the operation. A disposition that the host chose is left alone.
void IgnoreBrokenPipes() {
    struct sigaction current;
    if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) signal(SIGPIPE, SIG_IGN);
}

// Learns what the descriptor is and fills the object. 0 or the error.
DWORD Describe(FileObject *file, int openFlags) {
    struct stat info;
    if (fstat(file->Fd, &info) != 0) return ErrorOfErrno(errno);
    if (S_ISDIR(info.st_mode)) return ERROR_ACCESS_DENIED;
    file->Regular = S_ISREG(info.st_mode);
    file->Seekable = file->Regular || S_ISBLK(info.st_mode);
    file->Pollable = S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode);
    file->EndIsBreak = S_ISFIFO(info.st_mode);
    const int flags = fcntl(file->Fd, F_GETFL);
    file->Direct = (flags & O_DIRECT) != 0;
    if (file->EndIsBreak && file->CanWrite) IgnoreBrokenPipes();
    if (fcntl(file->Fd, F_SETFL, flags & ~O_NONBLOCK) != 0) return ErrorOfErrno(errno);
    // Past the cache "would it block?" is always yes, and a synchronous write always waits.
    file->NowaitRead.store(file->Regular && !file->Direct, std::memory_order_relaxed);
    file->NowaitWrite.store(file->Regular && !file->Direct && (openFlags & O_DSYNC) == 0, std::memory_order_relaxed);
    return ERROR_SUCCESS;
}

HANDLE Fail(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

HANDLE OpenFile(const char *name, DWORD access, DWORD disposition, DWORD flags) {
    if (name == nullptr || name[0] == 0) return Fail(ERROR_PATH_NOT_FOUND);
    if (disposition < CREATE_NEW || disposition > TRUNCATE_EXISTING) return Fail(ERROR_INVALID_PARAMETER);
    if (strncasecmp(name, kPipePrefix, sizeof kPipePrefix - 1) == 0) return OpenPipe(name, access, flags);
    const OpenPlan plan = PlanAccess(access, flags);
    if (disposition == TRUNCATE_EXISTING && !plan.CanWrite) return Fail(ERROR_INVALID_PARAMETER);
    FileObject *file = AllocObject(&gFilePool);
    if (file == nullptr) return INVALID_HANDLE_VALUE;
    InitIoObject(file, -1);
    file->Overlapped = (flags & FILE_FLAG_OVERLAPPED) != 0;
    file->CanRead = plan.CanRead;
    file->CanWrite = plan.CanWrite;
    file->Position.store(0, std::memory_order_relaxed);
    bool existed = false;
    const mode_t mode = (flags & FILE_ATTRIBUTE_READONLY) != 0 ? 0444 : 0666;
    const bool isPrivate = disposition == CREATE_ALWAYS && (flags & kFileFlagPrivate) != 0;
    file->Fd =
        isPrivate ? ReplaceByPrivate(name, plan, &existed) : OpenByDisposition(name, plan, disposition, mode, &existed);
    DWORD error = file->Fd < 0 ? ErrorOfErrno(errno) : Describe(file, plan.Flags);
    if (error == ERROR_SUCCESS && (flags & FILE_FLAG_DELETE_ON_CLOSE) != 0) {
        file->DeletePath = realpath(name, nullptr);
        if (file->DeletePath == nullptr) error = ErrorOfErrno(errno);
    }
    const HANDLE handle = error == ERROR_SUCCESS ? NewHandle(file) : nullptr;
    if (handle == nullptr) {
        if (error == ERROR_SUCCESS) error = GetLastError();
        UnrefObject(file);
        return Fail(error);
    }
    if (disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS)
        SetLastError(existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL Report(DWORD error) {
    if (error == ERROR_SUCCESS) return TRUE;
    SetLastError(error);
    return FALSE;
}

DWORD SizeOf(const FileObject *file, uint64_t *size) {
    struct stat info;
    if (fstat(file->Fd, &info) != 0) return ErrorOfErrno(errno);
    if (file->Regular) {
        *size = static_cast<uint64_t>(info.st_size);
        return ERROR_SUCCESS;
    }
    // A block device has its size in no inode.
    const off_t end = file->Seekable ? lseek(file->Fd, 0, SEEK_END) : -1;
    *size = static_cast<uint64_t>(end);
    return end >= 0 ? ERROR_SUCCESS : ERROR_INVALID_FUNCTION;
}

DWORD CutOrGrow(const FileObject *file, uint64_t bytes) {
    if (!file->CanWrite) return ERROR_ACCESS_DENIED;
    if (bytes > INT64_MAX) return ERROR_INVALID_PARAMETER;
    int result;
    do result = ftruncate(file->Fd, static_cast<off_t>(bytes));
    while (result != 0 && errno == EINTR);
    return result == 0 ? ERROR_SUCCESS : ErrorOfErrno(errno);
}

// Makes the entries of the directory that holds `name` durable.
DWORD SyncDirectoryOf(const char *name) {
    char directory[kMaxName];
    const char *slash = strrchr(name, '/');
    const size_t length = slash == nullptr ? 0 : static_cast<size_t>(slash - name);
    if (length >= sizeof directory) return ERROR_FILENAME_EXCED_RANGE;
    memcpy(directory, name, length);
    strcpy(directory + length, slash == nullptr ? "." : length == 0 ? "/" : "");
    const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return ErrorOfErrno(errno);
    const DWORD error = fsync(fd) == 0 ? ERROR_SUCCESS : ErrorOfErrno(errno);
    close(fd);
    return error;
}

}  // namespace

HANDLE CreateFileA(const char *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    static_cast<void>(share);
    static_cast<void>(security);
    static_cast<void>(templateFile);
    if (ShouldFail("CreateFileA")) return INVALID_HANDLE_VALUE;
    return OpenFile(name, access, disposition, flags);
}

HANDLE CreateFileW(const WCHAR *name, DWORD access, DWORD share, SECURITY_ATTRIBUTES *security, DWORD disposition,
                   DWORD flags, HANDLE templateFile) {
    static_cast<void>(share);
    static_cast<void>(security);
    static_cast<void>(templateFile);
    if (ShouldFail("CreateFileW")) return INVALID_HANDLE_VALUE;
    char narrow[kMaxName];
    bool tooLong = false;
    if (name != nullptr && !NarrowText(name, narrow, sizeof narrow, &tooLong))
        return Fail(tooLong ? ERROR_FILENAME_EXCED_RANGE : ERROR_INVALID_NAME);
    return OpenFile(name == nullptr ? nullptr : narrow, access, disposition, flags);
}

HANDLE AdoptDescriptor(int fd, bool canRead, bool canWrite) {
    FileObject *file = AllocObject(&gFilePool);
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    InitIoObject(file, fd);
    file->Overlapped = false;
    file->CanRead = canRead;
    file->CanWrite = canWrite;
    file->Position.store(0, std::memory_order_relaxed);
    const DWORD error = Describe(file, 0);
    const HANDLE handle = error == ERROR_SUCCESS ? NewHandle(file) : nullptr;
    if (handle != nullptr) return handle;
    if (error != ERROR_SUCCESS) SetLastError(error);
    UnrefObject(file);  // and with it the descriptor
    return nullptr;
}

DWORD SetFilePointer(HANDLE handle, LONG distance, LONG *distanceHigh, DWORD method) {
    if (ShouldFail("SetFilePointer")) return INVALID_SET_FILE_POINTER;
    FileObject *file = RefFile(handle);
    if (file == nullptr) return INVALID_SET_FILE_POINTER;
    DWORD error = file->Seekable ? ERROR_SUCCESS : kErrorSeekOnDevice;
    uint64_t base = 0;
    if (error == ERROR_SUCCESS && method == FILE_CURRENT)
        base = file->Position.load(std::memory_order_relaxed);
    else if (error == ERROR_SUCCESS && method == FILE_END)
        error = SizeOf(file, &base);
    else if (method > FILE_END)
        error = ERROR_INVALID_PARAMETER;
    const int64_t by = distanceHigh == nullptr
                           ? distance
                           : static_cast<int64_t>(static_cast<uint64_t>(static_cast<uint32_t>(*distanceHigh)) << 32 |
                                                  static_cast<uint32_t>(distance));
    int64_t target = 0;
    if (error == ERROR_SUCCESS && __builtin_add_overflow(static_cast<int64_t>(base), by, &target))
        error = ERROR_INVALID_PARAMETER;
    if (error == ERROR_SUCCESS && target < 0) error = ERROR_NEGATIVE_SEEK;
    // Without a high part to store into, the position must be told from the error value.
    if (error == ERROR_SUCCESS && distanceHigh == nullptr && target >= INVALID_SET_FILE_POINTER)
        error = ERROR_INVALID_PARAMETER;
    if (error == ERROR_SUCCESS) {
        file->Position.store(static_cast<uint64_t>(target), std::memory_order_relaxed);
        if (distanceHigh != nullptr) *distanceHigh = static_cast<LONG>(target >> 32);
    }
    UnrefObject(file);
    SetLastError(error);
    return error == ERROR_SUCCESS ? static_cast<DWORD>(target) : INVALID_SET_FILE_POINTER;
}

BOOL SetEndOfFile(HANDLE handle) {
    if (ShouldFail("SetEndOfFile")) return FALSE;
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    const DWORD error = CutOrGrow(file, file->Position.load(std::memory_order_relaxed));
    UnrefObject(file);
    return Report(error);
}

BOOL SetFileLength(HANDLE handle, uint64_t bytes) {
    if (ShouldFail("SetFileLength")) return FALSE;
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    const DWORD error = CutOrGrow(file, bytes);
    UnrefObject(file);
    return Report(error);
}

BOOL FlushFileBuffers(HANDLE handle) {
    if (ShouldFail("FlushFileBuffers")) return FALSE;
    if (FlushPipe(handle)) return TRUE;
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    DWORD error = file->CanWrite ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    // fdatasync: the data, and of the metadata all that reading it back needs (size, extents); the times of access
    // and change alone would cost a journal commit each. Streams buffer nothing of ours.
    if (error == ERROR_SUCCESS && file->Seekable && fdatasync(file->Fd) != 0) error = ErrorOfErrno(errno);
    UnrefObject(file);
    return Report(error);
}

BOOL GetFileSizeEx(HANDLE handle, LARGE_INTEGER *size) {
    if (ShouldFail("GetFileSizeEx")) return FALSE;
    if (size == nullptr) return Report(ERROR_INVALID_PARAMETER);
    FileObject *file = RefFile(handle);
    if (file == nullptr) return FALSE;
    uint64_t bytes = 0;
    const DWORD error = SizeOf(file, &bytes);
    UnrefObject(file);
    if (error == ERROR_SUCCESS) size->QuadPart = static_cast<LONGLONG>(bytes);
    return Report(error);
}

DWORD GetFileSize(HANDLE handle, DWORD *high) {
    LARGE_INTEGER size;
    if (ShouldFail("GetFileSize") || !GetFileSizeEx(handle, &size)) return INVALID_FILE_SIZE;
    if (high != nullptr) *high = static_cast<DWORD>(size.QuadPart >> 32);
    SetLastError(ERROR_SUCCESS);  // a low word of all ones is a size, not a failure
    return static_cast<DWORD>(size.QuadPart);
}

BOOL DeleteFileA(const char *name) {
    if (ShouldFail("DeleteFileA")) return FALSE;
    if (name == nullptr || name[0] == 0) return Report(ERROR_PATH_NOT_FOUND);
    return unlink(name) == 0 ? TRUE : Report(ErrorOfErrno(errno));
}

BOOL MoveFileExA(const char *from, const char *to, DWORD flags) {
    if (ShouldFail("MoveFileExA")) return FALSE;
    if (from == nullptr || to == nullptr || from[0] == 0 || to[0] == 0) return Report(ERROR_PATH_NOT_FOUND);
    int result;
    if ((flags & MOVEFILE_REPLACE_EXISTING) != 0) {
        result = rename(from, to);
    } else {
        result = renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
        if (result != 0 && errno == EINVAL) {
            // The file system cannot do it in one step: a link refuses a name that is taken.
            result = link(from, to);
            if (result == 0) result = unlink(from);
        }
        if (result != 0 && errno == EEXIST) return Report(ERROR_ALREADY_EXISTS);
    }
    if (result != 0) return Report(ErrorOfErrno(errno));
    if ((flags & MOVEFILE_WRITE_THROUGH) == 0) return TRUE;
    const DWORD error = SyncDirectoryOf(to);
    return Report(error != ERROR_SUCCESS ? error : SyncDirectoryOf(from));
}

}  // namespace os
