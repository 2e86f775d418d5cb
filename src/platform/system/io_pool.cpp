// platform/system/io_pool.cpp - threads that make blocking calls for the epoll back end.
//
// Requests come from the engines' owners through one queue; a file thread takes the oldest, makes the call until the
// transfer is final and pushes the request on its engine's done list. The pool starts small and grows while every
// thread is inside a call; idle threads stay. Nothing here touches an engine otherwise, nor any code of the host.
#include <errno.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include "platform/base/futex.h"
#include "platform/system/io_engine.h"

namespace os {

namespace {

// With 64 direct 8 KiB reads outstanding on two processors 16 threads gave 49,000 a second, 32 between 28,000 and
// 55,000, 64 at most 35,000 (a ring: 76,000). Each costs 256 KiB of address space.
constexpr uint32_t kMaxThreads = 16;

InnerLock gLock;
Request *gHead = nullptr;  // [gLock] oldest
Request *gTail = nullptr;
uint32_t gThreads = 0;           // [gLock]
uint32_t gIdle = 0;              // [gLock] threads that sleep or are about to
uint32_t gQueued = 0;            // [gLock] requests that no thread has taken
std::atomic<uint32_t> gWord{0};  // futex: raised with every request

Request *TakeLocked() {
    Request *request = gHead;
    if (request == nullptr) return nullptr;
    gHead = request->QueueNext;
    gQueued--;
    if (gHead != nullptr)
        gHead->QueuePrev = nullptr;
    else
        gTail = nullptr;
    request->Stage.store(RequestStage::kRunning, std::memory_order_relaxed);
    return request;
}

Request *WaitForRequest() {
    for (;;) {
        const uint32_t seen = gWord.load(std::memory_order_acquire);
        {
            InnerGuard guard(&gLock);
            if (Request *request = TakeLocked()) return request;
            gIdle++;
        }
        FutexWait(&gWord, seen, kNoDeadline);
        InnerGuard guard(&gLock);
        gIdle--;
    }
}

void *FileThread(void *) {
    pthread_setname_np(pthread_self(), "zvx-file");
    for (;;) {
        Request *request = WaitForRequest();
        request->Status = RunBlocking(&request->Call, &request->Cancelled);
        PushDone(request->Owner, request);
    }
}

}  // namespace

void PoolSubmit(Request *request) {
    bool grow;
    {
        InnerGuard guard(&gLock);
        request->Stage.store(RequestStage::kQueued, std::memory_order_relaxed);
        request->QueueNext = nullptr;
        request->QueuePrev = gTail;
        if (gTail != nullptr)
            gTail->QueueNext = request;
        else
            gHead = request;
        gTail = request;
        gQueued++;
        grow = gQueued > gIdle && gThreads < kMaxThreads;
        if (grow) gThreads++;
    }
    gWord.fetch_add(1, std::memory_order_release);
    FutexWake(&gWord, 1);
    // A refused thread is tried again with the next request; one that exists serves this one in the end. Without any
    // the call is made here: late is better than never.
    if (!grow || StartHelperThread(FileThread, nullptr) == 0) return;
    bool alone;
    {
        InnerGuard guard(&gLock);
        alone = --gThreads == 0;
    }
    if (!alone || !PoolWithdraw(request)) return;
    request->Status = RunBlocking(&request->Call, &request->Cancelled);
    PushDone(request->Owner, request);
}

bool PoolWithdraw(Request *request) {
    InnerGuard guard(&gLock);
    if (request->Stage.load(std::memory_order_relaxed) != RequestStage::kQueued) return false;
    if (request->QueuePrev != nullptr)
        request->QueuePrev->QueueNext = request->QueueNext;
    else
        gHead = request->QueueNext;
    if (request->QueueNext != nullptr)
        request->QueueNext->QueuePrev = request->QueuePrev;
    else
        gTail = request->QueuePrev;
    gQueued--;
    request->Stage.store(RequestStage::kStarting, std::memory_order_relaxed);
    return true;
}

DWORD RunBlocking(IoCall *call, const std::atomic<bool> *cancelled) {
    DWORD status;
    bool final;
    do {
        const int fd = call->Target->Fd;
        char *at = call->Buffer + call->Done;
        const size_t left = ShortOf(call->Count - call->Done);
        const off_t offset = static_cast<off_t>(call->Offset + call->Done);
        ssize_t moved = -1;
        errno = ShouldFailInside("file_call");
        if (errno != 0) {
            // moved is -1.
        } else if (IsSocketKind(call->Kind)) {
            moved = MoveSocket(call, 0);
            if (moved < 0) {
                errno = static_cast<int>(-moved);
                moved = -1;
            }
        } else if (call->Kind == RequestKind::kFlush) {
            moved = fdatasync(fd);
        } else if (call->Append) {
            iovec part{at, left};
            moved = pwritev2(fd, &part, 1, 0, RWF_APPEND);
        } else if (call->Kind == RequestKind::kRead) {
            moved = call->Target->Seekable ? pread(fd, at, left, offset) : read(fd, at, left);
        } else {
            moved = call->Target->Seekable ? pwrite(fd, at, left, offset) : write(fd, at, left);
        }
        const bool stop = cancelled != nullptr && cancelled->load(std::memory_order_relaxed);
        final = AccountTransfer(call, moved < 0 ? -errno : moved, stop, &status);
    } while (!final);
    return status;
}

}  // namespace os
