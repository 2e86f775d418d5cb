// platform/base/memory.cpp - pages and small blocks from the kernel.
//
// Any thread; every function here may enter the kernel, so nothing on a hot path calls it. The allocator's memory
// comes from one reserved range of 4 GiB, handed out from the bottom up and never given back, so that 32 bits name
// every byte of it. General allocations remember their size, because the one who frees them does not say it.
#include <errno.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <new>

#include "platform/base/fail.h"
#include "platform/base/fiber_internal.h"
#include "platform/base/spin.h"
#include "platform/os.h"

namespace os {

namespace {

constexpr DWORD kErrorInvalidAddress = 487;
constexpr DWORD kZeroInit = 0x40;  // LocalAlloc
constexpr size_t kLargePageBytes = size_t{2} << 20;
constexpr size_t kRangeBytes = size_t{4} << 30;
constexpr size_t kRangeSkip = size_t{64} << 10;  // offsets that are never handed out: 0 is "none", small ones are bugs
constexpr int kHuge2M = 21 << 26;                // MAP_HUGE_2MB

// The one reserved range. Base is null until it was reserved; Next only grows.
struct Range {
    SpinWord Lock;
    std::atomic<char *> Base;  // [Lock] for writing
    size_t Next;               // [Lock] offset of the first byte that was not handed out
};
constinit Range gRange = {};

// General allocations, by address.
struct Mapping {
    Mapping *Next;
    char *Address;
    size_t Bytes;
};
constexpr size_t kBuckets = 64;
constinit SpinWord gMappingLock;
constinit Mapping *gMappings[kBuckets] = {};  // [gMappingLock]

constinit std::atomic<bool> gMayUseLargePages{false};

size_t RoundUp(size_t bytes, size_t unit) {
    return (bytes + unit - 1) & ~(unit - 1);
}

size_t BucketOf(const void *address) {
    return (reinterpret_cast<uintptr_t>(address) >> 12) * 0x9E3779B1u % kBuckets;
}

// False for a protection that we do not have.
bool AccessOf(DWORD protect, int *access) {
    switch (protect) {
        case PAGE_NOACCESS: *access = PROT_NONE; return true;
        case PAGE_READONLY: *access = PROT_READ; return true;
        case PAGE_READWRITE: *access = PROT_READ | PROT_WRITE; return true;
        default: return false;
    }
}

// Checks what both allocations check. False with the last error set.
bool CheckRequest(size_t bytes, DWORD type, DWORD protect, int *access) {
    const DWORD known = MEM_COMMIT | MEM_RESERVE | MEM_LARGE_PAGES;
    if (bytes == 0 || (type & ~known) != 0 || (type & (MEM_COMMIT | MEM_RESERVE)) == 0 || !AccessOf(protect, access)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if ((type & MEM_LARGE_PAGES) != 0 && !gMayUseLargePages.load(std::memory_order_relaxed)) {
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
        return false;
    }
    if (bytes > kRangeBytes << 14) {  // would wrap when rounded, and no address space is that large
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if ((type & MEM_COMMIT) == 0) *access = PROT_NONE;
    return true;
}

// Reserves the range at its first use: aligned to large pages, no memory behind it. Null when the address space is
// limited to less.
char *ReserveRangeLocked() {
    char *base = gRange.Base.load(std::memory_order_relaxed);
    if (base != nullptr) return base;
    void *memory =
        mmap(nullptr, kRangeBytes + kLargePageBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) return nullptr;
    char *start = static_cast<char *>(memory);
    base = reinterpret_cast<char *>(RoundUp(reinterpret_cast<uintptr_t>(start), kLargePageBytes));
    const size_t head = static_cast<size_t>(base - start);
    if (head != 0) munmap(start, head);
    munmap(base + kRangeBytes, kLargePageBytes - head);
    // Nor do debuggers that write a core file read four gigabytes of nothing.
    madvise(base, kRangeBytes, MADV_DONTDUMP);
    gRange.Next = kRangeSkip;
    gRange.Base.store(base, std::memory_order_release);
    return base;
}

// Large pages are given where they are touched, and a container may be given fewer than are free: who touches one too
// many is killed. So they are all asked for here, by the calling thread, which decides their node. A kernel before
// 5.14 is believed.
bool GetLargePages(void *at, size_t bytes, int access) {
    if ((access & PROT_WRITE) == 0) return true;
    if (ShouldFailInside("populate") != 0) return false;
    return madvise(at, bytes, MADV_POPULATE_WRITE) == 0 || errno == EINVAL;
}

// Whether the kernel would set so many aside, which is known before any address is given up for them.
bool LargePagesAreFree(size_t bytes, int access) {
    void *at = mmap(nullptr, bytes, access, MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB | kHuge2M, -1, 0);
    if (at == MAP_FAILED) return false;
    munmap(at, bytes);
    return true;
}

// Puts large pages over a part of the reserved range. On failure the kernel may have taken the reservation away; it is
// put back if nobody has moved in meanwhile, and in either case the range does not use those addresses again.
bool CommitLargePages(char *at, size_t bytes, int access) {
    if (mmap(at, bytes, access, MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB | kHuge2M | MAP_FIXED, -1, 0) != MAP_FAILED) {
        return true;
    }
    mmap(at, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    return false;
}

}  // namespace

void *VirtualAllocInRange(size_t bytes, DWORD type, DWORD protect) {
    if (ShouldFail("VirtualAllocInRange")) return nullptr;
    int access;
    if (!CheckRequest(bytes, type, protect, &access)) return nullptr;
    const bool large = (type & MEM_LARGE_PAGES) != 0;
    bytes = RoundUp(bytes, large ? kLargePageBytes : kPageBytes);
    // Regions of that size start on a large page's boundary anyway, so that the kernel may use one by itself.
    const size_t alignment = bytes >= kLargePageBytes ? kLargePageBytes : kPageBytes;
    const int savedErrno = errno;
    if (large && !LargePagesAreFree(bytes, access)) {
        errno = savedErrno;
        SetLastError(ERROR_NO_SYSTEM_RESOURCES);
        return nullptr;
    }
    DWORD error = ERROR_NOT_ENOUGH_MEMORY;
    char *result = nullptr;
    {
        // The kernel is entered under the lock: regions are megabytes, and rare.
        SpinGuard guard(gRange.Lock);
        char *base = ReserveRangeLocked();
        const size_t offset = RoundUp(gRange.Next, alignment);
        if (base != nullptr && offset <= kRangeBytes && bytes <= kRangeBytes - offset) {
            if (large) {
                gRange.Next = offset + bytes;
                if (CommitLargePages(base + offset, bytes, access)) {
                    result = base + offset;
                } else {
                    error = ERROR_NO_SYSTEM_RESOURCES;
                }
            } else if (mprotect(base + offset, bytes, access) == 0) {
                gRange.Next = offset + bytes;
                madvise(base + offset, bytes, MADV_DODUMP);
                // The allocator touches every page of a region at once, so a large one that the kernel may have
                // free costs no memory, and saves thousands of faults now and as many translations later. A hint.
                if (bytes >= kLargePageBytes) madvise(base + offset, bytes, MADV_HUGEPAGE);
                result = base + offset;
            }
        }
    }
    // Those addresses are this call's alone by now, whatever becomes of them.
    if (large && result != nullptr && !GetLargePages(result, bytes, access)) {
        SpinGuard guard(gRange.Lock);
        const bool whole =
            mmap(result, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0) == result;
        const size_t offset = static_cast<size_t>(result - gRange.Base.load(std::memory_order_relaxed));
        if (whole && gRange.Next == offset + bytes) gRange.Next = offset;
        error = ERROR_NO_SYSTEM_RESOURCES;
        result = nullptr;
    }
    errno = savedErrno;
    if (result == nullptr) SetLastError(error);
    return result;
}

char *RangeBase() {
    char *base = gRange.Base.load(std::memory_order_acquire);
    if (base != nullptr) return base;
    SpinGuard guard(gRange.Lock);
    return ReserveRangeLocked();
}

void *VirtualAlloc(void *address, size_t bytes, DWORD type, DWORD protect) {
    if (ShouldFail("VirtualAlloc")) return nullptr;
    int access;
    if (!CheckRequest(bytes, type, protect, &access)) return nullptr;
    const bool large = (type & MEM_LARGE_PAGES) != 0;
    bytes = RoundUp(bytes, large ? kLargePageBytes : kPageBytes);
    const int savedErrno = errno;
    if (address != nullptr && (type & MEM_RESERVE) == 0) {
        // Commits pages of an earlier reservation.
        const bool done = mprotect(address, bytes, access) == 0;
        if (!done) SetLastError(errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : kErrorInvalidAddress);
        errno = savedErrno;
        return done ? address : nullptr;
    }
    Mapping *mapping = new (std::nothrow) Mapping;
    if (mapping == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    int flags = MAP_PRIVATE | MAP_ANONYMOUS;
    if (large) flags |= MAP_HUGETLB | kHuge2M;
    if (address != nullptr) flags |= MAP_FIXED_NOREPLACE;
    if (access == PROT_NONE) flags |= MAP_NORESERVE;
    void *memory = mmap(address, bytes, access, flags, -1, 0);
    if (large && memory != MAP_FAILED && !GetLargePages(memory, bytes, access)) {
        munmap(memory, bytes);
        memory = MAP_FAILED;
        errno = ENOMEM;
    }
    if (memory == MAP_FAILED) {
        const DWORD error = errno != ENOMEM ? kErrorInvalidAddress
                            : large         ? ERROR_NO_SYSTEM_RESOURCES
                                            : ERROR_NOT_ENOUGH_MEMORY;
        delete mapping;
        errno = savedErrno;
        SetLastError(error);
        return nullptr;
    }
    mapping->Address = static_cast<char *>(memory);
    mapping->Bytes = bytes;
    SpinGuard guard(gMappingLock);
    Mapping **bucket = &gMappings[BucketOf(memory)];
    mapping->Next = *bucket;
    *bucket = mapping;
    return memory;
}

BOOL VirtualFree(void *address, size_t bytes, DWORD type) {
    if (ShouldFail("VirtualFree")) return FALSE;
    if (type != MEM_RELEASE || bytes != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Mapping *found = nullptr;
    {
        SpinGuard guard(gMappingLock);
        for (Mapping **link = &gMappings[BucketOf(address)]; *link != nullptr; link = &(*link)->Next) {
            if ((*link)->Address != address) continue;
            found = *link;
            *link = found->Next;
            break;
        }
    }
    if (found == nullptr) {
        SetLastError(kErrorInvalidAddress);
        return FALSE;
    }
    munmap(found->Address, found->Bytes);
    delete found;
    return TRUE;
}

BOOL EnableLockMemoryPrivilege() {
    if (ShouldFail("EnableLockMemoryPrivilege")) return FALSE;
    const int savedErrno = errno;
    // Asked of the kernel itself: counts in /proc say nothing about limits of a container.
    void *page = mmap(nullptr, kLargePageBytes, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_HUGETLB | kHuge2M, -1, 0);
    const bool had = page != MAP_FAILED && GetLargePages(page, kLargePageBytes, PROT_WRITE);
    if (page != MAP_FAILED) munmap(page, kLargePageBytes);
    errno = savedErrno;
    if (!had) {
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
        return FALSE;
    }
    gMayUseLargePages.store(true, std::memory_order_relaxed);
    return TRUE;
}

void *LocalAlloc(DWORD flags, size_t bytes) {
    if (ShouldFail("LocalAlloc")) return nullptr;
    if (bytes == 0) bytes = 1;  // null means failure
    void *memory = (flags & kZeroInit) != 0 ? calloc(1, bytes) : malloc(bytes);
    if (memory == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return memory;
}

void *LocalFree(void *memory) {
    free(memory);
    return nullptr;
}

}  // namespace os
