// platform/base/process.cpp - environment, security descriptors, console output and the end of the process.
//
// Any thread. ExitProcess and WriteConsole are called in the middle of a fatal error, with any lock held by anybody,
// so they never wait for a lock of the C library.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/os.h"

namespace os {

namespace {

constexpr DWORD kErrorUnknownRevision = 1305;
constexpr DWORD kSecurityRevision = 1;
constexpr uint16_t kDaclPresent = 0x4;
constexpr uint16_t kDaclDefaulted = 0x8;
constexpr size_t kDescriptorBytes = 20;
constexpr size_t kControlOffset = 2;

// Skipped when another thread, or another user thread of this one, is inside the stream.
void FlushIfFree(FILE *stream) {
    if (ftrylockfile(stream) != 0) return;
    fflush_unlocked(stream);
    funlockfile(stream);
}

}  // namespace

FILE *OpenPrivateLog(const char *name) {
    // Without O_NONBLOCK a FIFO under the name would hold the process up until somebody reads it.
    const int fd = open(name, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0) return nullptr;
    struct stat info;
    FILE *stream = nullptr;
    errno = EACCES;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() && info.st_nlink == 1)
        stream = fdopen(fd, "a");
    if (stream == nullptr) close(fd);
    return stream;
}

DWORD GetEnvironmentVariableA(const char *name, char *buffer, DWORD size) {
    if (ShouldFail("GetEnvironmentVariableA")) return 0;
    const char *value = name != nullptr ? getenv(name) : nullptr;
    if (value == nullptr) {
        SetLastError(ERROR_ENVVAR_NOT_FOUND);
        return 0;
    }
    SetLastError(ERROR_SUCCESS);  // 0 is also the length of an empty value
    const size_t length = strlen(value);
    if (length >= size) return static_cast<DWORD>(length + 1);
    memcpy(buffer, value, length + 1);
    return static_cast<DWORD>(length);
}

// The descriptor is opaque to its users; all it can say is whether everybody has access (a null list that is present).
// Pipes go by that; other objects are their own user's whatever it says.
BOOL InitializeSecurityDescriptor(void *descriptor, DWORD revision) {
    if (ShouldFail("InitializeSecurityDescriptor")) return FALSE;
    if (revision != kSecurityRevision) {
        SetLastError(kErrorUnknownRevision);
        return FALSE;
    }
    memset(descriptor, 0, kDescriptorBytes);
    *static_cast<BYTE *>(descriptor) = static_cast<BYTE>(revision);
    return TRUE;
}

BOOL SetSecurityDescriptorDacl(void *descriptor, BOOL present, void *dacl, BOOL defaulted) {
    if (ShouldFail("SetSecurityDescriptorDacl")) return FALSE;
    if (*static_cast<const BYTE *>(descriptor) != kSecurityRevision) {
        SetLastError(kErrorUnknownRevision);
        return FALSE;
    }
    if (present && dacl != nullptr) {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    const unsigned control = (present ? kDaclPresent : 0u) | (present && defaulted ? kDaclDefaulted : 0u);
    const uint16_t word = static_cast<uint16_t>(control);
    memcpy(static_cast<char *>(descriptor) + kControlOffset, &word, sizeof word);
    return TRUE;
}

[[noreturn]] void ExitProcess(DWORD code) {
    FlushIfFree(stdout);
    FlushIfFree(stderr);
    _exit(static_cast<int>(code));
}

void WriteConsole(const char *text, size_t length) {
    const int savedErrno = errno;
    FlushIfFree(stdout);
    while (length > 0) {
        const ssize_t put = write(STDOUT_FILENO, text, length);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) break;  // closed, full or not blocking: there is nobody to tell
        text += put;
        length -= static_cast<size_t>(put);
    }
    errno = savedErrno;
}

uint32_t KernelThreadCount() {
    const int savedErrno = errno;
    uint32_t threads = 0;
    const int stat = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    if (stat >= 0) {
        char text[1024];
        const ssize_t got = read(stat, text, sizeof text - 1);
        close(stat);
        text[got > 0 ? got : 0] = 0;
        // The program's name, in parentheses, may hold blanks and parentheses; the count is the 18th word after it.
        const char *at = strrchr(text, ')');
        for (int i = 0; at != nullptr && i < 18; ++i) at = strchr(at + 1, ' ');
        if (at != nullptr) threads = static_cast<uint32_t>(strtoul(at, nullptr, 10));
    }
    errno = savedErrno;
    return threads;
}

}  // namespace os
