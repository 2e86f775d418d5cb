// platform/system/io_service.cpp - the thread that ends the operations of threads without a port.
//
// Started by the first such operation and never ended. It owns an engine like any other; operations and
// cancellations reach it as messages, and it sleeps in the kernel when there is nothing to do. It runs no code of the
// host: completion routines are queued to the thread that asked.
#include <errno.h>
#include <pthread.h>
#include <signal.h>

#include "platform/base/futex.h"
#include "platform/system/io_engine.h"

namespace os {

namespace {

InnerLock gStartLock;
std::atomic<Engine *> gService{nullptr};
std::atomic<uint32_t> gStarted{0};  // futex: 0 not yet, 1 gService is valid, 2 no engine could be had
DWORD gStartError = 0;              // written before gStarted becomes 2

void *ServiceMain(void *) {
    pthread_setname_np(pthread_self(), "zvx-io-service");
    Engine *engine = OpenEngine(Backend());
    if (engine == nullptr) {
        gStartError = GetLastError();
        gStarted.store(2, std::memory_order_release);
        FutexWake(&gStarted, 1);
        return nullptr;
    }
    CurrentThreadBlock()->Io = &engine->Io;
    gService.store(engine, std::memory_order_release);
    gStarted.store(1, std::memory_order_release);
    FutexWake(&gStarted, 1);
    for (;;) {
        ReapEngine(engine);
        WaitEngine(engine, -1);
    }
}

}  // namespace

Engine *PeekServiceEngine() {
    return gService.load(std::memory_order_acquire);
}

Engine *ServiceEngine() {
    Engine *engine = PeekServiceEngine();
    if (engine != nullptr) return engine;
    InnerGuard guard(&gStartLock);
    engine = PeekServiceEngine();
    if (engine != nullptr) return engine;
    gStarted.store(0, std::memory_order_relaxed);
    const int error = StartHelperThread(ServiceMain, nullptr);
    if (error != 0) {
        SetLastError(ErrorOfErrno(error));
        return nullptr;
    }
    while (gStarted.load(std::memory_order_acquire) == 0) FutexWait(&gStarted, 0, kNoDeadline);
    if (gStarted.load(std::memory_order_acquire) == 2) SetLastError(gStartError);
    return PeekServiceEngine();
}

int StartHelperThread(void *(*start)(void *), void *arg) {
    // Signals of the process are the host's business and shall not land on a thread that it does not know.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    int error = ShouldFailInside("pthread_create");
    if (error == 0) error = pthread_create(&thread, &attributes, start, arg);
    pthread_attr_destroy(&attributes);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return error;
}

}  // namespace os
