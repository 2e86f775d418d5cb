// platform/base/thread_block.cpp - the record of every kernel thread, and its alert state.
//
// Runs on every kernel thread. The fast paths (GetFiberData, GetLastError, CurrentThreadBlock) are one or two
// thread-local loads and never allocate; the first CurrentThreadBlock of a thread completes its record and enters it
// in the registry, and the end of the thread takes it out again. Nothing here knows what a fiber's context looks
// like beyond freeing the one that a converted thread owns.
#include "platform/base/thread_block.h"

#include <cxxabi.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <new>

#include "platform/base/fiber_internal.h"
#include "platform/base/futex.h"
#include "platform/base/spin.h"

namespace os {

namespace {

// FiberData must be kNoFiberData before any code has run on the thread, so the record is initialised as bytes are:
// a pointer constant that is no address cannot be written in a constant expression, its first word can.
union Storage {
    uintptr_t FirstWord;
    ThreadLocals Locals;
    constexpr Storage() : FirstWord(kNoFiberData) {}
};
static_assert(offsetof(ThreadBlock, FiberData) == 0 && offsetof(ThreadLocals, Block) == 0);

constinit thread_local Storage gStorage;

// Every completed thread, newest first. The head is a real record, so that removal needs no special case.
constinit SpinWord gRegistryLock;
constinit ThreadLocals *gRegistry = nullptr;

constexpr int kMaxExitHooks = 4;
constinit std::atomic<ThreadExitHook> gExitHooks[kMaxExitHooks] = {};

pthread_key_t gEndKey;
pthread_once_t gOnce = PTHREAD_ONCE_INIT;

void Register(ThreadLocals *locals) {
    locals->Prev = nullptr;
    locals->Next = gRegistry;
    if (gRegistry != nullptr) gRegistry->Prev = locals;
    gRegistry = locals;
}

// The end of a kernel thread. A key's destructor and not a thread_local's: it runs after those, and runs again when
// a later destructor completes the record once more.
void ThreadEnds(void *arg) {
    ThreadLocals *locals = static_cast<ThreadLocals *>(arg);
    for (std::atomic<ThreadExitHook> &slot : gExitHooks) {
        ThreadExitHook hook = slot.load(std::memory_order_acquire);
        if (hook != nullptr) hook(locals);
    }
    {
        SpinGuard guard(gRegistryLock);
        if (locals->Prev != nullptr) locals->Prev->Next = locals->Next;
        if (locals->Next != nullptr) locals->Next->Prev = locals->Prev;
        if (gRegistry == locals) gRegistry = locals->Next;
    }
    AlertState *alert = locals->Alert;
    locals->Alert = nullptr;
    if (alert != nullptr) CloseAlert(alert);
    if (locals->Converted != nullptr) FreeConvertedContext(locals);
    DisarmSignalStack(locals);
    free(locals->Expansion.exchange(nullptr, std::memory_order_relaxed));
    locals->Block.Slots = nullptr;
    locals->Block.ThreadId = 0;
}

// The child of a fork has one thread, with a new identifier; the others' records are memory that will be reused.
void ForkedChild() {
    ThreadLocals *locals = &gStorage.Locals;
    gRegistryLock.Unlock();
    gRegistry = nullptr;
    if (locals->Block.ThreadId == 0) return;
    locals->Block.ThreadId = static_cast<DWORD>(gettid());
    Register(locals);
}

void MakeKey() {
    // Without a key the records of ended threads could not be taken out of the registry, so there is nothing to go on
    // with; 1024 keys and no memory are the only ways to get here.
    if (pthread_key_create(&gEndKey, ThreadEnds) != 0) abort();
    pthread_atfork([] { gRegistryLock.Lock(); }, [] { gRegistryLock.Unlock(); }, ForkedChild);
}

__attribute__((cold, noinline)) void Complete(ThreadLocals *locals) {
    const int savedErrno = errno;
    pthread_once(&gOnce, MakeKey);
    ThreadBlock &block = locals->Block;
    block.Slots = locals->OwnSlots;
    block.StaticTls = locals;
    block.Errno = &errno;
    block.ExceptionState = abi::__cxa_get_globals();
    block.InlineBudget = kInlineIoBudget;
    pthread_setspecific(gEndKey, locals);
    SpinGuard guard(gRegistryLock);
    Register(locals);
    block.ThreadId = static_cast<DWORD>(gettid());
    errno = savedErrno;
}

inline ThreadLocals *Locals() {
    ThreadLocals *locals = &gStorage.Locals;
    if (locals->Block.ThreadId == 0) [[unlikely]]
        Complete(locals);
    return locals;
}

}  // namespace

// The address goes through an asm statement: link-time optimisation of clang takes the address of a thread-local
// for a constant, and hands constant results to callers even of functions that it may not inline.
ZVX_THREAD_ACCESSOR ThreadBlock *CurrentThreadBlock() {
    ThreadBlock *block = &Locals()->Block;
    asm volatile("" : "+r"(block));
    return block;
}

ZVX_THREAD_ACCESSOR ThreadLocals *CurrentThreadLocals() {
    ThreadLocals *locals = Locals();
    asm volatile("" : "+r"(locals));
    return locals;
}

ZVX_THREAD_ACCESSOR void *GetFiberData() {
    asm volatile("");
    return gStorage.Locals.Block.FiberData;
}

ZVX_THREAD_ACCESSOR DWORD GetLastError() {
    asm volatile("");
    return gStorage.Locals.Block.LastError;
}

ZVX_THREAD_ACCESSOR void SetLastError(DWORD error) {
    asm volatile("");
    gStorage.Locals.Block.LastError = error;
}

// The overflow report runs in a signal handler, where completing a record is not allowed: whatever is there, as it is.
ZVX_THREAD_ACCESSOR const ThreadBlock *PeekThreadBlock() {
    const ThreadBlock *block = &gStorage.Locals.Block;
    asm volatile("" : "+r"(block));
    return block;
}

void AddThreadExitHook(ThreadExitHook hook) {
    for (std::atomic<ThreadExitHook> &slot : gExitHooks) {
        ThreadExitHook free = nullptr;
        if (slot.compare_exchange_strong(free, hook, std::memory_order_release) || free == hook) return;
    }
    abort();  // a programming error of the platform: more hooks than kMaxExitHooks
}

void ForEachThread(void (*visit)(ThreadLocals *locals, void *arg), void *arg) {
    SpinGuard guard(gRegistryLock);
    for (ThreadLocals *locals = gRegistry; locals != nullptr; locals = locals->Next) visit(locals, arg);
}

}  // namespace os
