// platform/system/pipe_names.cpp - the records of pipes and the sockets that their instances listen on.
//
// Any thread, any process. Every call opens what it needs and trusts nothing that it finds: files have the right owner
// and type, or the answer is ERROR_ACCESS_DENIED. Only a lease stays open, for as long as its instance lives.
#include "platform/system/pipe_names.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/base/futex.h"
#include "platform/base/inner_lock.h"
#include "platform/system/io_engine.h"

namespace os {

namespace {

constexpr uint32_t kMagic = 0x4550495Au;
constexpr uint32_t kLayout = 1;  // part of the folder's name: another layout is another world
constexpr uint32_t kMaxSlots = 65536;
constexpr off_t kStates = 512;      // of the record: a byte for each slot
constexpr off_t kLeases = 1 << 20;  // bytes that are only locked
constexpr uint32_t kLockWaitMs = 2000;
constexpr uint32_t kMostAbandoned = 256;  // records that are looked at when a pipe is made
constexpr char kListening = 1;
constexpr char kTaken = 2;  // or closed; 0 and this are the same to everybody

struct NameRecord {
    uint32_t Magic;
    PipeTraits Traits;
    uint32_t High;  // slots below this were used
    char Name[kPipeNameBytes + 1];
};
static_assert(sizeof(NameRecord) <= kStates);

struct Region {
    Region() { EnterInnerRegion(); }
    ~Region() { LeaveInnerRegion(); }
    Region(const Region &) = delete;
    Region &operator=(const Region &) = delete;
};

// A descriptor of this function's.
struct Owned {
    int Fd = -1;
    Owned() = default;
    ~Owned() { Close(); }
    void Close() {
        if (Fd >= 0) close(Fd);
        Fd = -1;
    }
    int Release() {
        const int fd = Fd;
        Fd = -1;
        return fd;
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
};

// ---- The folders -------------------------------------------------------------------------------------

// The folder's path; false when it leaves no room for a socket's name.
bool FolderPath(bool everybody, char *path, size_t size) {
    static const bool hasShared = access("/dev/shm", F_OK) == 0;
    const char *parent = getenv("ZVXKVT_PIPES");
    if (parent == nullptr || *parent == 0) parent = hasShared ? "/dev/shm" : "/tmp";
    const int length = everybody ? snprintf(path, size, "%s/zvxkvt-pipes-%u-all", parent, kLayout)
                                 : snprintf(path, size, "%s/zvxkvt-pipes-%u-%u", parent, kLayout, geteuid());
    return length > 0 && static_cast<size_t>(length) < size && length < 76;
}

// Opens the folder: 0, ERROR_FILE_NOT_FOUND when there is none (and none is to be made), or the reason.
DWORD OpenFolder(bool everybody, bool make, Owned *folder) {
    char path[256];
    if (!FolderPath(everybody, path, sizeof path)) return ERROR_FILENAME_EXCED_RANGE;
    const mode_t mode = everybody ? 01777 : 0700;
    const bool made = make && mkdir(path, mode) == 0;
    if (!made && make && errno != EEXIST) return ErrorOfErrno(errno);
    folder->Fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder->Fd < 0) return errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED;
    if (made && everybody) fchmod(folder->Fd, mode);  // whatever the umask
    struct stat info;
    if (fstat(folder->Fd, &info) != 0) return ErrorOfErrno(errno);
    const bool good = everybody ? (info.st_mode & 01000) != 0 : info.st_uid == geteuid() && (info.st_mode & 077) == 0;
    return good ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

bool SocketAddress(bool everybody, const char *key, uint32_t slot, sockaddr_un *address) {
    char path[256];
    if (!FolderPath(everybody, path, sizeof path)) return false;
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    const int length = snprintf(address->sun_path, sizeof address->sun_path, "%s/%s.%u", path, key, slot);
    return length > 0 && static_cast<size_t>(length) < sizeof address->sun_path;
}

// ---- Records -----------------------------------------------------------------------------------------

struct flock RangeOf(uint32_t slot, uint32_t count, short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = kLeases + static_cast<off_t>(slot);
    range.l_len = static_cast<off_t>(count);
    return range;
}

// Whether an instance lives in one of the slots; those of this very descriptor do not count.
bool AnyLease(int fd, uint32_t slot, uint32_t count) {
    struct flock range = RangeOf(slot, count, F_WRLCK);
    return fcntl(fd, F_OFD_GETLK, &range) == 0 && range.l_type != F_UNLCK;
}

bool LockRecord(int fd) {
    const uint64_t deadline = DeadlineAfter(kLockWaitMs);
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        if ((errno != EWOULDBLOCK && errno != EINTR) || MonotonicNs() > deadline) return false;
        usleep(200);
    }
    return true;
}

bool IsRemoved(int fd) {
    struct stat info;
    return fstat(fd, &info) != 0 || info.st_nlink == 0;
}

void GuardName(const char *key, char (&name)[40]) {
    snprintf(name, sizeof name, "%s.all", key);
}

// The guard of a record that everybody may read, in its maker's own folder: there are the record's lock and the leases
// that exclude each other, because who may read a file may hold a lock on it for ever.
DWORD OpenGuard(const char *key, bool make, Owned *guard) {
    Owned folder;
    const DWORD error = OpenFolder(false, make, &folder);
    if (error != ERROR_SUCCESS) return error;
    char name[40];
    GuardName(key, name);
    guard->Fd = openat(folder.Fd, name, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | (make ? O_CREAT : 0), 0600);
    if (guard->Fd >= 0) return ERROR_SUCCESS;
    return errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED;
}

// A record as its user has it open. What is locked is the guard, where there is one; that of a pipe of somebody else's
// is out of reach, and its record is read as it is.
struct OpenedRecord {
    Owned File, Guard;
    struct stat Info;  // of the file
    int Keeper() const { return Guard.Fd >= 0 ? Guard.Fd : File.Fd; }
};

// One attempt; *again when the last instance took the file with it just when it was opened.
DWORD TryOpenRecord(int folder, const char *key, bool everybody, bool make, bool lock, OpenedRecord *record,
                    bool *again) {
    const auto guard = [&] {
        const DWORD error = OpenGuard(key, make, &record->Guard);
        if (error == ERROR_SUCCESS && lock && !LockRecord(record->Guard.Fd)) return ERROR_BUSY;
        *again = error == ERROR_SUCCESS && lock && IsRemoved(record->Guard.Fd);
        return error;
    };
    // A record is only made by who has its guard.
    DWORD error = everybody && make ? guard() : ERROR_SUCCESS;
    if (error != ERROR_SUCCESS || *again) return error;
    const int flags = O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    int fd = openat(folder, key, O_RDWR | flags | (make ? O_CREAT : 0), everybody ? 0644 : 0600);
    if (fd < 0 && errno == EACCES && everybody && !make) fd = openat(folder, key, O_RDONLY | flags);
    if (fd < 0) return errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED;
    record->File.Fd = fd;
    struct stat &info = record->Info;
    if (fstat(fd, &info) != 0) return ErrorOfErrno(errno);
    const bool own = info.st_uid == geteuid();
    if (!S_ISREG(info.st_mode) || (make && !own) || (!everybody && (!own || (info.st_mode & 077) != 0)))
        return ERROR_ACCESS_DENIED;
    if (everybody && own && !make) error = guard();
    if (error != ERROR_SUCCESS || *again) return error;
    if (!everybody && lock && !LockRecord(fd)) return ERROR_BUSY;
    *again = lock && (own || make) && IsRemoved(fd);
    if (make && everybody) fchmod(fd, 0644);
    return ERROR_SUCCESS;
}

// Opens the record of a pipe, making it if that is asked for, and says whose it is. With `lock` under its lock.
DWORD OpenRecord(int folder, const char *key, bool everybody, bool make, bool lock, OpenedRecord *record) {
    for (int tries = 0; tries < 100; tries++) {
        record->File.Close();
        record->Guard.Close();
        bool again = false;
        const DWORD error = TryOpenRecord(folder, key, everybody, make, lock, record, &again);
        if (!again) return error;
    }
    return ERROR_BUSY;
}

// False for a record that nobody has filled in yet, or that is another name's.
bool ReadRecord(int fd, NameRecord *record) {
    return pread(fd, record, sizeof *record, 0) == static_cast<ssize_t>(sizeof *record) && record->Magic == kMagic &&
           memchr(record->Name, 0, sizeof record->Name) != nullptr && record->High <= kMaxSlots;
}

bool WriteRecord(int fd, const NameRecord &record) {
    return pwrite(fd, &record, sizeof record, 0) == static_cast<ssize_t>(sizeof record);
}

void WriteState(int fd, uint32_t slot, char state) {
    // One that cannot be written makes an instance hard to find or be tried in vain; no more than that.
    const ssize_t written = pwrite(fd, &state, 1, kStates + static_cast<off_t>(slot));
    static_cast<void>(written);
}

// The pipe's record in one of the folders, when an instance lives.
DWORD FindPipe(const PipeName &name, bool everybody, bool lock, Owned *folder, OpenedRecord *opened,
               NameRecord *record) {
    DWORD error = OpenFolder(everybody, false, folder);
    if (error == ERROR_SUCCESS) error = OpenRecord(folder->Fd, name.Key, everybody, false, lock, opened);
    if (error != ERROR_SUCCESS) return error;
    if (!ReadRecord(opened->File.Fd, record) || strcmp(record->Name, name.Text) != 0 ||
        !AnyLease(opened->Keeper(), 0, kMaxSlots))
        return ERROR_FILE_NOT_FOUND;
    return ERROR_SUCCESS;
}

// [record] The states of `count` slots from `first` on.
void ReadStates(int fd, uint32_t first, char *states, uint32_t count) {
    const ssize_t got = pread(fd, states, count, kStates + static_cast<off_t>(first));
    const size_t known = got > 0 ? static_cast<size_t>(got) : 0;
    memset(states + known, 0, count - known);
}

// Calls visit(slot) for the slots whose instances listen, until it returns true.
template <typename Visit>
bool VisitListening(int fd, const NameRecord &record, Visit visit) {
    char states[256];
    for (uint32_t first = 0; first < record.High; first += sizeof states) {
        const uint32_t count = record.High - first < sizeof states ? record.High - first : uint32_t{sizeof states};
        ReadStates(fd, first, states, count);
        for (uint32_t i = 0; i < count; i++)
            if (states[i] == kListening && visit(first + i)) return true;
    }
    return false;
}

// ---- Sockets -----------------------------------------------------------------------------------------

// [record] A socket that listens in the slot, in place of what lies there.
DWORD Listen(const PipeLease &lease, int *listener) {
    sockaddr_un address;
    if (!SocketAddress(lease.Everybody, lease.Key, lease.Slot, &address)) return ERROR_FILENAME_EXCED_RANGE;
    unlink(address.sun_path);
    Owned made;
    made.Fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.Fd < 0) return ErrorOfErrno(errno);
    // The file gets the mode that the socket has; a umask may take from it, so the open one is set again.
    const mode_t mode = lease.Everybody ? 0666 : 0600;
    fchmod(made.Fd, mode);
    const sockaddr *name = reinterpret_cast<const sockaddr *>(&address);
    if (syscall(SYS_bind, made.Fd, name, sizeof address) != 0) return ErrorOfErrno(errno);
    if (lease.Everybody) chmod(address.sun_path, mode);
    // Room for one connection: whoever comes second is told so.
    if (syscall(SYS_listen, made.Fd, 0) != 0) return ErrorOfErrno(errno);
    WriteState(lease.Fd, lease.Slot, kListening);
    *listener = made.Release();
    return ERROR_SUCCESS;
}

// Whether the socket's file is of the pipe's owner, and open to nobody else where it should not be.
bool IsTrusted(int folder, const char *key, uint32_t slot, bool everybody, uid_t owner) {
    char name[40];
    snprintf(name, sizeof name, "%s.%u", key, slot);
    struct stat info;
    if (fstatat(folder, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT;
    return S_ISSOCK(info.st_mode) && info.st_uid == owner && (everybody || (info.st_mode & 077) == 0);
}

// A connection to the instance in the slot, or -1 with the error of an instance that cannot be had.
int ConnectToSlot(bool everybody, const char *key, uint32_t slot, uid_t owner, DWORD *error) {
    sockaddr_un address;
    if (!SocketAddress(everybody, key, slot, &address)) return -1;
    Owned made;
    made.Fd = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (made.Fd < 0) {
        *error = ErrorOfErrno(errno);
        return -1;
    }
    if (syscall(SYS_connect, made.Fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return -1;
    ucred peer{};
    socklen_t length = sizeof peer;
    if (syscall(SYS_getsockopt, made.Fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != owner) {
        *error = ERROR_ACCESS_DENIED;
        return -1;
    }
    return made.Release();
}

// [record] Makes the record's descriptors an instance of the pipe; 0 or the reason.
DWORD TakeSlot(const OpenedRecord &opened, const PipeName &name, const PipeTraits &traits, bool mustBeFirst,
               uint32_t *slot) {
    NameRecord record{};
    const int fd = opened.File.Fd;
    if (!AnyLease(opened.Keeper(), 0, kMaxSlots)) {
        // Nobody's, or a dead one's: what the file holds means nothing.
        record.Magic = kMagic;
        record.Traits = traits;
        strcpy(record.Name, name.Text);
        if (ftruncate(fd, 0) != 0) return ErrorOfErrno(errno);
    } else {
        if (mustBeFirst || !ReadRecord(fd, &record) || strcmp(record.Name, name.Text) != 0) return ERROR_ACCESS_DENIED;
        const PipeTraits &first = record.Traits;
        if (first.Access != traits.Access || first.Messages != traits.Messages ||
            first.MaxInstances != traits.MaxInstances)
            return ERROR_ACCESS_DENIED;
    }
    const uint32_t limit = traits.MaxInstances == PIPE_UNLIMITED_INSTANCES ? kMaxSlots : traits.MaxInstances;
    for (*slot = 0; *slot < limit; (*slot)++) {
        struct flock range = RangeOf(*slot, 1, F_WRLCK);
        if (fcntl(opened.Keeper(), F_OFD_SETLK, &range) == 0) break;
        if (errno != EAGAIN && errno != EACCES) return ErrorOfErrno(errno);
    }
    if (*slot == limit) return ERROR_PIPE_BUSY;
    if (opened.Guard.Fd >= 0) {
        // For the others to see, who can hold one like it, and none that would stand in its way.
        struct flock seen = RangeOf(*slot, 1, F_RDLCK);
        if (fcntl(fd, F_OFD_SETLK, &seen) != 0) return ErrorOfErrno(errno);
    }
    if (record.High <= *slot) record.High = *slot + 1;
    return WriteRecord(fd, record) ? ERROR_SUCCESS : ERROR_DISK_FULL;
}

// [record] Nobody's any more: removes what lies in its slots, the record itself, and then its guard.
void RemoveRecord(int folder, int fd, const char *key, bool everybody) {
    struct stat named, mine;
    if (fstatat(folder, key, &named, AT_SYMLINK_NOFOLLOW) != 0 || fstat(fd, &mine) != 0 ||
        named.st_ino != mine.st_ino || named.st_dev != mine.st_dev)
        return;
    NameRecord record;
    if (ReadRecord(fd, &record)) {
        for (uint32_t slot = 0; slot < record.High; slot++) {
            char name[40];
            snprintf(name, sizeof name, "%s.%u", key, slot);
            unlinkat(folder, name, 0);
        }
    }
    unlinkat(folder, key, 0);
    Owned own;
    if (!everybody || OpenFolder(false, false, &own) != ERROR_SUCCESS) return;
    char guard[40];
    GuardName(key, guard);
    unlinkat(own.Fd, guard, 0);
}

int KeeperOf(const PipeLease &lease) {
    return lease.Guard >= 0 ? lease.Guard : lease.Fd;
}

void CloseLease(PipeLease *lease) {
    for (int *fd : {&lease->Fd, &lease->Guard}) {
        if (*fd >= 0) close(*fd);
        *fd = -1;
    }
}

// [record] Lets go of the slot, and of the record with the last one.
void LeaveSlot(int folder, PipeLease *lease) {
    struct flock range = RangeOf(lease->Slot, 1, F_UNLCK);
    fcntl(KeeperOf(*lease), F_OFD_SETLK, &range);
    if (!AnyLease(KeeperOf(*lease), 0, kMaxSlots)) RemoveRecord(folder, lease->Fd, lease->Key, lease->Everybody);
    CloseLease(lease);
}

// Processes that end without closing their pipes leave records, and a name that nobody takes again would lie there for
// ever: whoever makes a new one removes some of them.
void RemoveAbandoned(int folder, bool everybody) {
    const int listed = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *entries = listed < 0 ? nullptr : fdopendir(listed);
    if (entries == nullptr) {
        if (listed >= 0) close(listed);
        return;
    }
    uint32_t budget = kMostAbandoned;
    while (const dirent *entry = readdir(entries)) {
        if (strlen(entry->d_name) != sizeof PipeName::Key - 1 || strchr(entry->d_name, '.') != nullptr) continue;
        if (budget-- == 0) break;
        Owned file, guard;
        file.Fd = openat(folder, entry->d_name, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        struct stat info;
        if (file.Fd < 0 || fstat(file.Fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_uid != geteuid()) continue;
        if (everybody && OpenGuard(entry->d_name, true, &guard) != ERROR_SUCCESS) continue;
        const int keeper = everybody ? guard.Fd : file.Fd;
        // One that somebody is about to fill in is locked.
        if (AnyLease(keeper, 0, kMaxSlots) || flock(keeper, LOCK_EX | LOCK_NB) != 0) continue;
        if (!IsRemoved(keeper) && !AnyLease(keeper, 0, kMaxSlots))
            RemoveRecord(folder, file.Fd, entry->d_name, everybody);
    }
    closedir(entries);
}

}  // namespace

DWORD ParsePipeName(const char *name, PipeName *parsed) {
    constexpr size_t kPrefix = sizeof kPipePrefix - 1;
    if (name == nullptr || strncasecmp(name, kPipePrefix, kPrefix) != 0) return ERROR_INVALID_NAME;
    const char *text = name + kPrefix;
    if (strnlen(name, kPipeNameBytes + 1) > kPipeNameBytes) return ERROR_FILENAME_EXCED_RANGE;
    if (*text == 0 || strchr(text, '\\') != nullptr) return ERROR_INVALID_NAME;
    uint64_t hash = 0xCBF29CE484222325u;
    size_t length = 0;
    for (; text[length] != 0; length++) {
        const char c = text[length];
        parsed->Text[length] = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
        hash = (hash ^ static_cast<unsigned char>(parsed->Text[length])) * 0x100000001B3u;
    }
    parsed->Text[length] = 0;
    snprintf(parsed->Key, sizeof parsed->Key, "%016llx", static_cast<unsigned long long>(hash));
    return ERROR_SUCCESS;
}

DWORD ClaimInstance(const PipeName &name, const PipeTraits &traits, bool mustBeFirst, bool everybody, PipeLease *lease,
                    int *listener) {
    Region region;
    bool exists = false;
    // Where the pipe exists its first instance has decided who may open it.
    for (const bool other : {false, true}) {
        Owned folder;
        OpenedRecord opened;
        NameRecord record;
        const DWORD error = FindPipe(name, other, false, &folder, &opened, &record);
        if (error != ERROR_SUCCESS) continue;
        // Somebody else's, for everybody: no hindrance to one that is for its user alone.
        if (opened.Info.st_uid != geteuid()) {
            if (everybody) return ERROR_ACCESS_DENIED;
            continue;
        }
        everybody = other;
        exists = true;
        break;
    }
    Owned folder;
    OpenedRecord opened;
    DWORD error = OpenFolder(everybody, true, &folder);
    if (error == ERROR_SUCCESS && !exists) RemoveAbandoned(folder.Fd, everybody);
    if (error == ERROR_SUCCESS) error = OpenRecord(folder.Fd, name.Key, everybody, true, true, &opened);
    if (error != ERROR_SUCCESS) return error;
    lease->Everybody = everybody;
    strcpy(lease->Key, name.Key);
    error = TakeSlot(opened, name, traits, mustBeFirst, &lease->Slot);
    if (error != ERROR_SUCCESS) return error;
    lease->Fd = opened.File.Release();
    lease->Guard = opened.Guard.Release();
    error = Listen(*lease, listener);
    if (error != ERROR_SUCCESS) {
        LeaveSlot(folder.Fd, lease);
    } else {
        flock(KeeperOf(*lease), LOCK_UN);
    }
    return error;
}

DWORD ListenAgain(const PipeLease &lease, int *listener) {
    Region region;
    if (!LockRecord(KeeperOf(lease))) return ERROR_BUSY;
    const DWORD error = Listen(lease, listener);
    flock(KeeperOf(lease), LOCK_UN);
    return error;
}

void StopListening(const PipeLease &lease) {
    if (lease.Fd < 0) return;
    Region region;
    WriteState(lease.Fd, lease.Slot, kTaken);
    sockaddr_un address;
    if (SocketAddress(lease.Everybody, lease.Key, lease.Slot, &address)) unlink(address.sun_path);
}

void ReleaseInstance(PipeLease *lease) {
    if (lease->Fd < 0) return;
    Region region;
    StopListening(*lease);
    Owned folder;
    OpenFolder(lease->Everybody, false, &folder);
    // Without the lock, should somebody stand on it, a record may stay behind; the next instance takes it over.
    if (LockRecord(KeeperOf(*lease)) && folder.Fd >= 0) {
        LeaveSlot(folder.Fd, lease);
    } else {
        CloseLease(lease);
    }
}

DWORD ConnectToInstance(const PipeName &name, bool read, bool write, int *fd, PipeTraits *traits) {
    Region region;
    for (const bool everybody : {false, true}) {
        Owned folder;
        OpenedRecord opened;
        NameRecord record;
        DWORD error = FindPipe(name, everybody, true, &folder, &opened, &record);
        if (error == ERROR_FILE_NOT_FOUND) continue;
        if (error != ERROR_SUCCESS) return error;
        *traits = record.Traits;
        if ((read && (record.Traits.Access & PIPE_ACCESS_OUTBOUND) == 0) ||
            (write && (record.Traits.Access & PIPE_ACCESS_INBOUND) == 0))
            return ERROR_ACCESS_DENIED;
        error = ERROR_PIPE_BUSY;
        const uid_t owner = opened.Info.st_uid;
        const bool found = VisitListening(opened.File.Fd, record, [&](uint32_t slot) {
            if (!IsTrusted(folder.Fd, name.Key, slot, everybody, owner)) {
                error = ERROR_ACCESS_DENIED;
                return false;
            }
            *fd = ConnectToSlot(everybody, name.Key, slot, owner, &error);
            if (*fd >= 0) WriteState(opened.File.Fd, slot, kTaken);
            return *fd >= 0;
        });
        return found ? ERROR_SUCCESS : error;
    }
    return ERROR_FILE_NOT_FOUND;
}

DWORD LookForInstance(const PipeName &name, PipeTraits *traits) {
    Region region;
    for (const bool everybody : {false, true}) {
        Owned folder;
        OpenedRecord opened;
        NameRecord record;
        const DWORD error = FindPipe(name, everybody, false, &folder, &opened, &record);
        if (error == ERROR_FILE_NOT_FOUND) continue;
        if (error != ERROR_SUCCESS) return error;
        *traits = record.Traits;
        const auto lives = [&](uint32_t slot) { return AnyLease(opened.Keeper(), slot, 1); };
        return VisitListening(opened.File.Fd, record, lives) ? ERROR_SUCCESS : ERROR_PIPE_BUSY;
    }
    return ERROR_FILE_NOT_FOUND;
}

}  // namespace os
