// tests/support/scripted_socket.cpp - sockets, named pipes and the console by script.
//
// Only what the library itself calls is here. Blocking calls are answered at once, as a test must not wait.
#include <cstring>
#include <utility>

#include "platform/os_pipe.h"
#include "platform/os_process.h"
#include "scripted_os.h"

namespace os {

namespace script {

namespace {

void NoteCall(const std::string &text) {
    NoteProgress();
    gScript.SocketCalls.push_back(text);
}

HANDLE FileOf(SOCKET s) {
    return reinterpret_cast<HANDLE>(s);
}

// A call that fails or succeeds at once.
int Simple(const char *name, const std::string &detail = "") {
    NoteCall(name + detail);
    return ShouldFail(name) ? SOCKET_ERROR : 0;
}

SOCKET Made(const char *name, const std::string &detail = "") {
    return Simple(name, detail) == 0 ? NewSocket() : INVALID_SOCKET;
}

int Transfer(const char *name, SOCKET s, const WSABUF *buffers, DWORD count, DWORD *bytes, OVERLAPPED *ov,
             const void *routine, IoOp *op) {
    if (routine != nullptr) Misuse("a routine reached the operating system");
    if (Simple(name) != 0) return SOCKET_ERROR;
    DWORD total = 0;
    for (DWORD i = 0; i < count; i++) total += buffers[i].len;
    return ReadFile(FileOf(s), nullptr, total, bytes, ov, op) ? 0 : SOCKET_ERROR;
}

}  // namespace

std::vector<std::string> TakeCalls() {
    return std::exchange(gScript.SocketCalls, {});
}

SOCKET NewSocket() {
    const auto s = reinterpret_cast<SOCKET>(NewFile());
    gScript.OpenSockets.insert(s);
    return s;
}

}  // namespace script

using namespace script;

// Calls of which only their name and their failure matter.
#define ZVX_AT_ONCE(type, name, answer, ...) \
    type name(__VA_ARGS__) {                 \
        return answer(#name);                \
    }
ZVX_AT_ONCE(SOCKET, socket, Made, int, int, int)
ZVX_AT_ONCE(SOCKET, accept, Made, SOCKET, sockaddr *, int *)
ZVX_AT_ONCE(int, recv, Simple, SOCKET, char *, int, int)
ZVX_AT_ONCE(int, send, Simple, SOCKET, const char *, int, int)
#undef ZVX_AT_ONCE

SOCKET WSASocketA(int, int, int, WSAPROTOCOL_INFOA *info, DWORD, DWORD flags) {
    return Made("WSASocketA", std::string(" ") + std::to_string(flags) + (info != nullptr ? " info" : ""));
}
SOCKET WSAAccept(SOCKET, sockaddr *, int *, LPCONDITIONPROC condition, DWORD_PTR data) {
    gScript.OnBlock();
    if (condition != nullptr &&
        condition(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, data) != CF_ACCEPT)
        return INVALID_SOCKET;
    return Made("WSAAccept");
}
int connect(SOCKET, const sockaddr *, int) {
    gScript.OnBlock();
    return Simple("connect");
}
int WSAConnect(SOCKET s, const sockaddr *name, int length, WSABUF *, WSABUF *, QOS *, QOS *) {
    return connect(s, name, length);
}
int closesocket(SOCKET s) {
    NoteCall("closesocket");
    gScript.OpenSockets.erase(s);
    return CloseHandle(FileOf(s)) ? 0 : SOCKET_ERROR;
}
int WSADuplicateSocketA(SOCKET, DWORD processId, WSAPROTOCOL_INFOA *info) {
    *info = {};
    return Simple("WSADuplicateSocketA", processId == GetCurrentProcessId() ? "" : " foreign");
}
int setsockopt(SOCKET, int, int name, const char *value, int length) {
    DWORD word = 0;
    if (length == 4) std::memcpy(&word, value, 4);
    return Simple("setsockopt", ' ' + std::to_string(name) + ' ' + std::to_string(word));
}

BOOL AcceptEx(SOCKET listener, SOCKET, void *buffer, DWORD, DWORD localLength, DWORD, DWORD *received,
              OVERLAPPED *overlapped, IoOp *op) {
    if (Simple("AcceptEx") != 0) return FALSE;
    std::memcpy(static_cast<char *>(buffer) + localLength, kPeerAddress, sizeof kPeerAddress);
    return ReadFile(FileOf(listener), nullptr, 0, received, overlapped, op);
}
void GetAcceptExSockaddrs(void *buffer, DWORD, DWORD localLength, DWORD, sockaddr **local, int *localSize,
                          sockaddr **remote, int *remoteSize) {
    *local = static_cast<sockaddr *>(buffer);
    *remote = reinterpret_cast<sockaddr *>(static_cast<char *>(buffer) + localLength);
    *localSize = 16;
    *remoteSize = 16;
}

int WSARecv(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD *, OVERLAPPED *ov,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op) {
    return Transfer("WSARecv", s, buffers, count, bytes, ov, reinterpret_cast<const void *>(routine), op);
}
int WSASend(SOCKET s, WSABUF *buffers, DWORD count, DWORD *bytes, DWORD, OVERLAPPED *ov,
            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, IoOp *op) {
    return Transfer("WSASend", s, buffers, count, bytes, ov, reinterpret_cast<const void *>(routine), op);
}
BOOL WSAGetOverlappedResult(SOCKET s, OVERLAPPED *overlapped, DWORD *bytes, BOOL wait, DWORD *flags) {
    NoteCall("WSAGetOverlappedResult");
    *flags = ZVX_MSG_PARTIAL;
    return GetOverlappedResult(FileOf(s), overlapped, bytes, wait);
}

int select(int, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const TimeVal *timeout) {
    if (timeout == nullptr || timeout->Seconds != 0 || timeout->Microseconds != 0) Misuse("select would wait");
    if (Simple("select") != 0) return SOCKET_ERROR;
    if (gScript.OnSelect) return gScript.OnSelect(read, write, error);
    for (zvx_fd_set *set : {read, write, error})
        if (set != nullptr) set->fd_count = 0;
    return 0;
}

// ---- Named pipes, made like files and connected like reads; and the console --------------------------

HANDLE CreateNamedPipeA(const char *name, DWORD openMode, DWORD, DWORD, DWORD, DWORD, DWORD, SECURITY_ATTRIBUTES *) {
    if ((openMode & FILE_FLAG_OVERLAPPED) == 0) Misuse("a pipe that is not overlapped");
    return CreateFileA(name, 0, 0, nullptr, OPEN_EXISTING, openMode, nullptr);
}
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED *overlapped, IoOp *op) {
    return ReadFile(pipe, nullptr, 0, nullptr, overlapped, op);
}
BOOL WaitNamedPipeA(const char *, DWORD) {
    NoteProgress();
    const DWORD error = gScript.OnWaitPipe();
    if (error != ERROR_SUCCESS) SetLastError(error);
    return error == ERROR_SUCCESS;
}

// Runs where the test lets a thread of its own run: see RunThread.
BOOL ReadConsoleA(HANDLE, void *buffer, DWORD characters, DWORD *read, void *) {
    return gScript.OnReadConsole(buffer, characters, read);
}

// ---- What the library refers to and no unit test comes to --------------------------------------------

#define ZVX_NEVER(type, name, ...) \
    type name(__VA_ARGS__) {       \
        Misuse(#name);             \
    }
ZVX_NEVER(DWORD, SleepEx, DWORD, BOOL)
ZVX_NEVER(void, ExitThread, DWORD)
ZVX_NEVER(BOOL, ReadFileEx, HANDLE, void *, DWORD, OVERLAPPED *, LPOVERLAPPED_COMPLETION_ROUTINE)
ZVX_NEVER(BOOL, WriteFileEx, HANDLE, const void *, DWORD, OVERLAPPED *, LPOVERLAPPED_COMPLETION_ROUTINE)
ZVX_NEVER(BOOL, FlushFileBuffers, HANDLE)
ZVX_NEVER(HANDLE, CreateFileW, const WCHAR *, DWORD, DWORD, SECURITY_ATTRIBUTES *, DWORD, DWORD, HANDLE)
ZVX_NEVER(BOOL, LockFileEx, HANDLE, DWORD, DWORD, DWORD, DWORD, OVERLAPPED *)
ZVX_NEVER(DWORD, SetFilePointer, HANDLE, LONG, LONG *, DWORD)
ZVX_NEVER(BOOL, SetEndOfFile, HANDLE)
ZVX_NEVER(const char *, IoBackendName)
ZVX_NEVER(const char *, IoBackendNote)
ZVX_NEVER(int, WSAEventSelect, SOCKET, WSAEVENT, LONG)
ZVX_NEVER(int, WSAEnumNetworkEvents, SOCKET, WSAEVENT, WSANETWORKEVENTS *)
ZVX_NEVER(DWORD, WSAWaitForMultipleEvents, DWORD, const WSAEVENT *, BOOL, DWORD, BOOL)
ZVX_NEVER(BOOL, WSACloseEvent, WSAEVENT)
ZVX_NEVER(BOOL, WSASetEvent, WSAEVENT)
ZVX_NEVER(BOOL, WSAResetEvent, WSAEVENT)
ZVX_NEVER(HANDLE, CreateNamedPipeW, const WCHAR *, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, SECURITY_ATTRIBUTES *)
ZVX_NEVER(BOOL, WaitNamedPipeW, const WCHAR *, DWORD)
ZVX_NEVER(BOOL, CallNamedPipeA, const char *, void *, DWORD, void *, DWORD, DWORD *, DWORD)
#undef ZVX_NEVER

}  // namespace os
