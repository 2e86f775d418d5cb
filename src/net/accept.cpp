// net/accept.cpp - accept, as an overlapped operation into a socket that is made beforehand.
//
// Runs on the calling user thread and yields while no client has come. The socket for the client exists from before
// the wait: a clean-up entry closes it when the thread is terminated meanwhile. Nothing of the listening socket's entry
// is used after the yield, because the socket may be closed by then.
#include <cstring>

#include "diag/trace.h"
#include "kernel/file.h"
#include "net/net.h"
#include "sched/sched.h"

namespace zvx {

namespace {

constexpr DWORD kAddressBytes = 16;               // one IPv4 address
constexpr DWORD kAreaBytes = kAddressBytes + 16;  // what AcceptEx wants for one
constexpr uint32_t kCleanupTerminate = 1;

void CloseSocketOnTerminate(Fiber *, Scheduler *, uintptr_t *args, uint32_t reason) {
    if (reason == kCleanupTerminate) closesocket(args[0]);
}

// The error that made it give up is the one that the caller sees.
SOCKET GiveUp(SOCKET accepted) {
    const DWORD error = os::GetLastError();
    closesocket(accepted);
    os::SetLastError(error);
    return INVALID_SOCKET;
}

// A socket of the listening socket's kind, wrapped and bound.
SOCKET MakeAcceptSocket(Fiber *F, SOCKET listener, uint32_t listenerFlags) {
    WSAPROTOCOL_INFOA info;
    if (os::WSADuplicateSocketA(listener, os::GetCurrentProcessId(), &info) != 0) return INVALID_SOCKET;
    const SOCKET accepted = WSASocketA(info.iAddressFamily, info.iSocketType, info.iProtocol, nullptr, 0,
                                       (listenerFlags & PHAND_FLAG_ASYNC_ADDED) != 0 ? 0 : WSA_FLAG_OVERLAPPED);
    if (accepted == INVALID_SOCKET) return INVALID_SOCKET;
    // The duplication stays open in the operating system until a socket has been made of it.
    const SOCKET consumed =
        os::WSASocketA(info.iAddressFamily, info.iSocketType, info.iProtocol, &info, 0, WSA_FLAG_OVERLAPPED);
    if (consumed == INVALID_SOCKET) return GiveUp(accepted);
    os::closesocket(consumed);
    if (!AttachSocketToPort(SchedOf(F), LookUpSocket(accepted), accepted)) return GiveUp(accepted);
    return accepted;
}

bool AwaitClient(Fiber *F, PSEHAND *entry, SOCKET listener, SOCKET accepted, void *areas) {
    FIBEROVERLAPPED *rec = PrepareSocketOv(F, entry, OP_ACCEPT, /*neverPoll=*/true);
    DWORD bytes = 0;
    if (os::AcceptEx(listener, accepted, areas, 0, kAreaBytes, kAreaBytes, &bytes, &rec->Ov, &rec->Io)) {
        AccountPacket(rec);
        return true;
    }
    if (os::GetLastError() != ERROR_IO_PENDING) {
        ForgetFailedOv(rec);
        return false;
    }
    WaitForCurOv(F);
    if (os::LoadStatus(&rec->Ov) == STATUS_SUCCESS) return true;
    DWORD flags = 0;
    return os::WSAGetOverlappedResult(listener, &rec->Ov, &bytes, FALSE, &flags);
}

void CopyAddress(void *areas, sockaddr *address, int *length) {
    sockaddr *local = nullptr;
    sockaddr *remote = nullptr;
    int localBytes = 0;
    int remoteBytes = 0;
    os::GetAcceptExSockaddrs(areas, 0, kAreaBytes, kAreaBytes, &local, &localBytes, &remote, &remoteBytes);
    const auto bytes = static_cast<uint32_t>(remoteBytes);
    if (length != nullptr) {
        const auto room = static_cast<uint32_t>(*length);
        if (bytes > room) FatalExit("Copied address too long %u > %u", bytes, room);
        *length = remoteBytes;
    }
    std::memcpy(address, remote, bytes);
}

}  // namespace

SOCKET accept(SOCKET s, sockaddr *address, int *length) {
    Fiber *F = CallingFiber();
    PSEHAND *entry = F != nullptr ? LookUpSocket(s) : nullptr;
    if (entry == nullptr) return os::accept(s, address, length);
    if (!AttachSocketToPort(SchedOf(F), entry, s)) return INVALID_SOCKET;
    const SOCKET accepted = MakeAcceptSocket(F, s, entry->Flags.load(std::memory_order_acquire));
    if (accepted == INVALID_SOCKET) return INVALID_SOCKET;
    F->TermCleanup.Args[TermCleanupFuncSet(F, CloseSocketOnTerminate)][0] = accepted;
    if (address != nullptr && length != nullptr && static_cast<uint32_t>(*length) > kAddressBytes) {
        FatalExit("Address too long %u > %u", static_cast<uint32_t>(*length), kAddressBytes);
    }

    alignas(8) char areas[2 * kAreaBytes];
    bool connected = AwaitClient(F, entry, s, accepted, areas);
    if (connected) {
        if (address != nullptr) CopyAddress(areas, address, length);
        const DWORD from = static_cast<DWORD>(s);
        connected = os::setsockopt(accepted, ZVX_SOL_SOCKET, ZVX_SO_UPDATE_ACCEPT_CONTEXT,
                                   reinterpret_cast<const char *>(&from), sizeof from) == 0;
    }
    TermCleanupFuncRemove(F, CloseSocketOnTerminate);
    return connected ? accepted : GiveUp(accepted);
}

}  // namespace zvx
