// platform/base/shared_names.cpp - the table of names that the processes of a user share.
//
// Any thread. Opening and closing names scan the table and may ask the kernel about processes; waiting and signalling
// take its lock for a few instructions. Nothing here knows handles or waiters. A process that is stopped by a debugger
// inside those few instructions stops the others at their next use of a name; that is the price of a lock without a
// server behind it.
#include "platform/base/shared_names.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/futex.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/base/futex.h"
#include "platform/base/inner_lock.h"

namespace os {

namespace {

constexpr uint32_t kMagic = 0x4E58565Au;
constexpr uint32_t kLayout = 1;  // part of the file's name: another layout is another table
constexpr uint32_t kNoNumber = 0xFFFFFFFFu;
// How long a sleep lasts where the kernel cannot sleep on several words.
constexpr uint64_t kPollNs = 3000000;

struct SharedTable {
    std::atomic<uint32_t> Magic;  // stored last
    uint32_t HighWater;           // [Lock] slots from here on were never used
    pthread_mutex_t Lock;
    SharedSlot Slots[kSharedSlots];
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

pthread_once_t gMapOnce = PTHREAD_ONCE_INIT;
SharedTable *gTable;                          // init: null where there is none
int gTableFd = -1;                            // init
bool gTaken;                                  // init: a file that is not to be trusted bears the table's name
std::atomic<uint32_t> gOwnNumber{kNoNumber};  // [table lock] for writing; none before the first name and after a fork
std::atomic<bool> gNoMultipleWait{false};     // the kernel refused to sleep on several words

// ---- The file ----------------------------------------------------------------------------------------

// A file of ours and nobody else's, or -1, with *taken when we could have made one and there is another thing instead.
int OpenTableFile(bool *taken) {
    char path[64];
    snprintf(path, sizeof path, "/dev/shm/zvxkvt-names-%u-%u", kLayout, static_cast<unsigned>(geteuid()));
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    struct stat info;
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid() &&
        (info.st_mode & 077) == 0)
        return fd;
    *taken = fd >= 0 || access("/dev/shm", W_OK | X_OK) == 0;
    if (fd >= 0) close(fd);
    return -1;
}

bool InitLock(pthread_mutex_t *lock) {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    const bool done = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED) == 0 &&
                      pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST) == 0 &&
                      pthread_mutex_init(lock, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return done;
}

// Held while the file is made, so that it is made once.
bool MakeTable(int fd, SharedTable **table) {
    struct stat info;
    // Every page is there before it is touched: a full file system is an error now and not a fault later.
    if (fstat(fd, &info) != 0) return false;
    if (static_cast<size_t>(info.st_size) < sizeof(SharedTable) && posix_fallocate(fd, 0, sizeof(SharedTable)) != 0)
        return false;
    void *memory = mmap(nullptr, sizeof(SharedTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) return false;
    *table = static_cast<SharedTable *>(memory);
    if ((*table)->Magic.load(std::memory_order_acquire) == kMagic) return true;
    if (InitLock(&(*table)->Lock)) {
        (*table)->Magic.store(kMagic, std::memory_order_release);
        return true;
    }
    munmap(memory, sizeof(SharedTable));
    return false;
}

void MapTable() {
    const int savedErrno = errno;
    const int fd = ShouldFail("SharedNames") ? -1 : OpenTableFile(&gTaken);
    SharedTable *table = nullptr;
    if (fd >= 0) {
        int result;
        do result = flock(fd, LOCK_EX);
        while (result != 0 && errno == EINTR);
        const bool made = result == 0 && MakeTable(fd, &table);
        flock(fd, LOCK_UN);
        if (made) {
            gTable = table;
            gTableFd = fd;
            // A forked copy is a process of its own, which holds no lock yet.
            pthread_atfork(nullptr, nullptr, [] { gOwnNumber.store(kNoNumber, std::memory_order_relaxed); });
        } else {
            close(fd);
        }
    }
    errno = savedErrno;
}

// ---- Processes ---------------------------------------------------------------------------------------

struct flock ByteLock(uint32_t number, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(number);
    lock.l_len = 1;
    return lock;
}

bool IsAlive(uint32_t number) {
    if (number == gOwnNumber.load(std::memory_order_relaxed)) return true;
    const int savedErrno = errno;
    struct flock lock = ByteLock(number, F_WRLCK);
    const bool alive = fcntl(gTableFd, F_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
    errno = savedErrno;
    return alive;
}

bool HasOpen(const SharedSlot *slot, uint32_t number) {
    return (slot->Openers[number / 64] >> number % 64 & 1) != 0;
}

void SetOpen(SharedSlot *slot, uint32_t number, bool open) {
    const uint64_t bit = uint64_t{1} << number % 64;
    uint64_t &word = slot->Openers[number / 64];
    word = open ? word | bit : word & ~bit;
}

bool AnyOpener(const SharedSlot *slot) {
    for (uint64_t word : slot->Openers)
        if (word != 0) return true;
    return false;
}

void WakeSlot(SharedSlot *slot) {
    slot->Seq.fetch_add(1, std::memory_order_seq_cst);
    if (slot->Sleepers.load(std::memory_order_seq_cst) == 0) return;
    const int savedErrno = errno;
    syscall(SYS_futex, &slot->Seq, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    errno = savedErrno;
}

// [table lock] What an ended process left behind in one slot.
void ForgetProcess(SharedSlot *slot, uint32_t number) {
    SetOpen(slot, number, false);
    if (slot->Type == static_cast<uint32_t>(ObjectType::kMutex) &&
        slot->Value.load(std::memory_order_relaxed) == number + 1) {
        slot->Abandoned = 1;
        slot->Value.store(0, std::memory_order_release);
        WakeSlot(slot);
    }
    if (!AnyOpener(slot)) slot->Type = static_cast<uint32_t>(ObjectType::kAny);
}

// [table lock] Forgets the openers of the slot that have ended.
void ForgetEnded(SharedSlot *slot) {
    for (uint32_t i = 0; i < kSharedProcesses; i++) {
        if (slot->Openers[i / 64] == 0) {
            i |= 63;
        } else if (HasOpen(slot, i) && !IsAlive(i)) {
            ForgetProcess(slot, i);
        }
    }
}

bool InUse(const SharedSlot *slot) {
    return slot->Type != static_cast<uint32_t>(ObjectType::kAny);
}

SharedSlot *FindSlot(const char *name) {
    for (uint32_t i = 0; i < gTable->HighWater; i++) {
        SharedSlot *slot = &gTable->Slots[i];
        if (InUse(slot) && strcmp(slot->Name, name) == 0) return slot;
    }
    return nullptr;
}

// A slot that nobody uses, null when all are in use by the living.
SharedSlot *FreeSlot() {
    for (uint32_t i = 0; i < gTable->HighWater; i++)
        if (!InUse(&gTable->Slots[i])) return &gTable->Slots[i];
    if (gTable->HighWater < kSharedSlots) return &gTable->Slots[gTable->HighWater++];
    for (SharedSlot &slot : gTable->Slots) {
        ForgetEnded(&slot);
        if (!InUse(&slot)) return &slot;
    }
    return nullptr;
}

}  // namespace

bool SharedNamesReady() {
    pthread_once(&gMapOnce, MapTable);
    return gTable != nullptr;
}

bool SharedNamesTaken() {
    return gTaken;
}

void LockShared() {
    EnterInnerRegion();
    // Whoever died with the lock left the table valid: every field that matters is stored on its own.
    if (pthread_mutex_lock(&gTable->Lock) == EOWNERDEAD) pthread_mutex_consistent(&gTable->Lock);
}

void UnlockShared() {
    pthread_mutex_unlock(&gTable->Lock);
    LeaveInnerRegion();
}

uint32_t OwnNumberLocked() {
    uint32_t own = gOwnNumber.load(std::memory_order_relaxed);
    if (own != kNoNumber) return own;
    const int savedErrno = errno;
    for (uint32_t i = 0; i < kSharedProcesses && own == kNoNumber; i++) {
        struct flock lock = ByteLock(i, F_WRLCK);
        if (fcntl(gTableFd, F_SETLK, &lock) == 0) own = i;
    }
    errno = savedErrno;
    if (own == kNoNumber) return own;
    // The number may have been another process's.
    for (uint32_t i = 0; i < gTable->HighWater; i++)
        if (InUse(&gTable->Slots[i]) && HasOpen(&gTable->Slots[i], own)) ForgetProcess(&gTable->Slots[i], own);
    gOwnNumber.store(own, std::memory_order_relaxed);
    return own;
}

bool IsOwnNumber(uint32_t value) {
    const uint32_t own = gOwnNumber.load(std::memory_order_relaxed);
    return own != kNoNumber && value == own + 1;
}

bool OwnerHasEnded(const SharedSlot *slot) {
    const uint32_t owner = slot->Value.load(std::memory_order_acquire);
    return owner != 0 && owner <= kSharedProcesses && !IsAlive(owner - 1);
}

SharedSlot *OpenSlotLocked(const char *name, ObjectType type, const SharedInit *init, bool create, bool *fresh,
                           DWORD *error) {
    const uint32_t own = OwnNumberLocked();
    SharedSlot *slot = FindSlot(name);
    if (slot != nullptr) ForgetEnded(slot);
    *fresh = slot == nullptr || !InUse(slot);
    *error = ERROR_SUCCESS;
    if (!*fresh && slot->Type != static_cast<uint32_t>(type)) *error = ERROR_INVALID_HANDLE;
    if (*fresh && !create) *error = ERROR_FILE_NOT_FOUND;
    if (*error == ERROR_SUCCESS && *fresh && slot == nullptr) slot = FreeSlot();
    if (*error == ERROR_SUCCESS && (slot == nullptr || own == kNoNumber)) *error = ERROR_NOT_ENOUGH_MEMORY;
    if (*error != ERROR_SUCCESS) return nullptr;
    if (*fresh) {
        slot->Sleepers.store(0, std::memory_order_relaxed);
        slot->Value.store(init->Owned ? own + 1 : init->Value, std::memory_order_relaxed);
        slot->Limit = init->Limit;
        slot->Abandoned = 0;
        memset(slot->Openers, 0, sizeof slot->Openers);
        strncpy(slot->Name, name, sizeof slot->Name - 1);
        SetOpen(slot, own, true);
        slot->Type = static_cast<uint32_t>(type);
    }
    SetOpen(slot, own, true);
    return slot;
}

void KeepSlotLocked(SharedSlot *slot, const char *name) {
    const uint32_t own = OwnNumberLocked();
    if (own != kNoNumber && InUse(slot) && strcmp(slot->Name, name) == 0) SetOpen(slot, own, true);
}

void CloseSlotLocked(SharedSlot *slot) {
    const uint32_t own = gOwnNumber.load(std::memory_order_relaxed);
    if (own != kNoNumber && HasOpen(slot, own)) ForgetProcess(slot, own);
}

void AnnounceSlot(SharedSlot *slot) {
    WakeSlot(slot);
}

void SleepOnSlots(std::atomic<uint32_t> *word, uint32_t seen, SharedSlot *const *slots, const uint32_t *seqs,
                  uint32_t count, uint64_t deadline) {
    const int savedErrno = errno;
    if (!gNoMultipleWait.load(std::memory_order_relaxed) && !ShouldFail("futex_waitv")) {
        futex_waitv words[1 + MAXIMUM_WAIT_OBJECTS] = {};
        words[0].val = seen;
        words[0].uaddr = reinterpret_cast<uintptr_t>(word);
        words[0].flags = FUTEX_32 | FUTEX_PRIVATE_FLAG;
        for (uint32_t i = 0; i < count; i++) {
            words[i + 1].val = seqs[i];
            words[i + 1].uaddr = reinterpret_cast<uintptr_t>(&slots[i]->Seq);
            words[i + 1].flags = FUTEX_32;
            slots[i]->Sleepers.fetch_add(1, std::memory_order_seq_cst);
        }
        timespec until;
        until.tv_sec = static_cast<time_t>(deadline / 1000000000u);
        until.tv_nsec = static_cast<long>(deadline % 1000000000u);
        const long result = syscall(SYS_futex_waitv, words, count + 1, 0, &until, CLOCK_MONOTONIC);
        const bool refused = result < 0 && errno != EAGAIN && errno != ETIMEDOUT && errno != EINTR;
        for (uint32_t i = 0; i < count; i++) slots[i]->Sleepers.fetch_sub(1, std::memory_order_relaxed);
        errno = savedErrno;
        if (!refused) return;
        gNoMultipleWait.store(true, std::memory_order_relaxed);  // an older kernel, or a container's filter
    }
    const uint64_t soon = MonotonicNs() + kPollNs;
    FutexWait(word, seen, soon < deadline ? soon : deadline);
    errno = savedErrno;
}

}  // namespace os
