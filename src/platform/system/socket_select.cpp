// platform/system/socket_select.cpp - select over arrays of sockets, by poll.
//
// Runs on the calling thread, which sleeps in the kernel unless the time-out is 0. The sets stay as they are until the
// end: the answer is gathered beside them, and they are rewritten when something is ready or the time is over.
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "platform/base/futex.h"
#include "platform/system/socket.h"

namespace os {

namespace {

constexpr uint32_t kOnStack = 64;
// How often sockets are looked at whose readiness the kernel cannot report: those that were not connected yet.
constexpr uint64_t kLookAgainNs = 20 * 1000000ull;

enum SetKind { kReadSet, kWriteSet, kErrorSet };

struct Entry {
    SocketObject *Socket;  // a reference
    SetKind Kind;
    bool Ready;
};

// One select: an entry and a pollfd for each element of each set, in the order of the sets.
struct Selection {
    zvx_fd_set *Sets[3];
    uint32_t Count;
    Entry *Entries;
    pollfd *Polls;
    bool Blocks;
};

// What poll is to look for, or that the kernel's answer would mean nothing (-1 in fd).
void Prepare(const Entry &entry, pollfd *poll, bool *unreported) {
    SocketObject *socket = entry.Socket;
    const uint32_t flags = FlagsOf(socket);
    poll->fd = -1;
    poll->events = poll->revents = 0;
    if ((flags & kSocketDuplicate) != 0) NeedDescriptor(socket);
    const bool known = (flags & kSocketConnecting) != 0 || IsListening(socket);
    if (socket->State.load(std::memory_order_acquire) != SocketState::kReady ||
        (!known && socket->SocketType == SOCK_STREAM && !IsConnected(socket))) {
        *unreported = true;
        return;
    }
    poll->fd = socket->Fd;
    poll->events = entry.Kind == kReadSet ? POLLIN | POLLRDHUP : entry.Kind == kWriteSet ? POLLOUT : POLLPRI;
    // A connection that is being made is watched for either end.
    if ((flags & (kSocketConnecting | kSocketConnected)) == kSocketConnecting) poll->events |= POLLOUT;
}

// Whether what poll found makes the socket ready for its set.
bool IsReady(const Entry &entry, const pollfd &poll) {
    SocketObject *socket = entry.Socket;
    const uint32_t flags = FlagsOf(socket);
    if (entry.Kind == kReadSet && socket->DeferCount.load(std::memory_order_relaxed) != 0) return true;
    if (poll.fd < 0 || poll.revents == 0) return false;
    const bool broken = (poll.revents & (POLLERR | POLLHUP)) != 0;
    if ((flags & (kSocketConnecting | kSocketConnected)) == kSocketConnecting) {
        if (broken && !IsConnected(socket)) return entry.Kind == kErrorSet;
        if (!broken && (poll.revents & POLLOUT) != 0) AddFlags(socket, kSocketConnected);
    }
    switch (entry.Kind) {
        case kReadSet: return broken || (poll.revents & (POLLIN | POLLRDHUP)) != 0;
        case kWriteSet: return broken || (poll.revents & POLLOUT) != 0;
        default: return (poll.revents & POLLPRI) != 0;
    }
}

// Looks once, sleeping at most `ns` (-1: no limit); how many are ready.
int LookOnce(Selection *selection, int64_t ns, bool *unreported) {
    *unreported = false;
    for (uint32_t i = 0; i < selection->Count; i++) {
        Prepare(selection->Entries[i], &selection->Polls[i], unreported);
        if (selection->Entries[i].Kind == kReadSet &&
            selection->Entries[i].Socket->DeferCount.load(std::memory_order_relaxed) != 0)
            ns = 0;
    }
    if (*unreported && (ns < 0 || ns > static_cast<int64_t>(kLookAgainNs))) ns = kLookAgainNs;
    const timespec limit{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    ppoll(selection->Polls, selection->Count, ns < 0 ? nullptr : &limit, nullptr);
    int ready = 0;
    for (uint32_t i = 0; i < selection->Count; i++) {
        Entry *entry = &selection->Entries[i];
        entry->Ready = IsReady(*entry, selection->Polls[i]);
        ready += entry->Ready;
    }
    return ready;
}

// How many are ready, or -1 when one was closed. A closer sees that the socket is watched, or is seen here.
int Run(Selection *selection, uint64_t deadline) {
    for (;;) {
        for (uint32_t i = 0; i < selection->Count; i++)
            if (selection->Entries[i].Socket->Handles.load(std::memory_order_seq_cst) == 0) return -1;
        int64_t left = 0;
        if (selection->Blocks) {
            const uint64_t now = deadline == kNoDeadline ? 0 : MonotonicNs();
            left = deadline == kNoDeadline ? -1 : now < deadline ? static_cast<int64_t>(deadline - now) : 0;
        }
        bool unreported;
        const int ready = LookOnce(selection, left, &unreported);
        if (ready != 0 || left == 0) return ready;
        // Something that is no reason to return, and stays: an error on a socket of which only the urgent data matters.
        for (uint32_t i = 0; i < selection->Count; i++)
            if (selection->Polls[i].revents != 0) {
                const timespec pause{0, static_cast<long>(kLookAgainNs)};
                nanosleep(&pause, nullptr);
                break;
            }
    }
}

// Takes references on the sockets of a set; 0 or the reason.
DWORD Collect(Selection *selection, SetKind kind, uint32_t *at) {
    const zvx_fd_set *set = selection->Sets[kind];
    for (DWORD i = 0; set != nullptr && i < set->fd_count; i++) {
        SocketObject *socket = RefSocket(set->fd_array[i]);
        if (socket == nullptr) return WSAENOTSOCK;
        if (selection->Blocks) socket->Blockers.fetch_add(1, std::memory_order_seq_cst);
        selection->Entries[(*at)++] = {socket, kind, false};
    }
    return 0;
}

// Leaves in each set the sockets that are ready, in their order.
void Rewrite(Selection *selection) {
    uint32_t at = 0;
    for (zvx_fd_set *set : selection->Sets) {
        if (set == nullptr) continue;
        DWORD kept = 0;
        for (DWORD i = 0; i < set->fd_count; i++)
            if (selection->Entries[at++].Ready) set->fd_array[kept++] = set->fd_array[i];
        set->fd_count = kept;
    }
}

}  // namespace

int select(int ignored, zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error, const TimeVal *timeout) {
    static_cast<void>(ignored);
    if (ShouldFail("select")) return SOCKET_ERROR;
    Selection selection{{read, write, error}, 0, nullptr, nullptr, true};
    uint64_t total = 0;
    for (const zvx_fd_set *set : selection.Sets) total += set == nullptr ? 0 : set->fd_count;
    if (total == 0 || total > INT32_MAX / sizeof(Entry)) return FailSocket(WSAEINVAL);
    uint64_t deadline = kNoDeadline;
    if (timeout != nullptr) {
        if (timeout->Seconds < 0 || timeout->Microseconds < 0) return FailSocket(WSAEINVAL);
        selection.Blocks = timeout->Seconds != 0 || timeout->Microseconds != 0;
        // A century is for ever.
        const uint64_t seconds = std::min<uint64_t>(static_cast<uint64_t>(timeout->Seconds), 3153600000u);
        const uint64_t rest = std::min<uint64_t>(static_cast<uint64_t>(timeout->Microseconds), 3600000000u);
        if (selection.Blocks) deadline = MonotonicNs() + seconds * 1000000000u + rest * 1000u;
    }
    Entry entries[kOnStack];
    pollfd polls[kOnStack];
    selection.Entries = entries;
    selection.Polls = polls;
    void *memory = nullptr;
    if (total > kOnStack) {
        memory = malloc(total * (sizeof(Entry) + sizeof(pollfd)));
        if (memory == nullptr) return FailSocket(WSAENOBUFS);
        selection.Entries = static_cast<Entry *>(memory);
        selection.Polls = reinterpret_cast<pollfd *>(selection.Entries + total);
    }
    DWORD failure = 0;
    for (const SetKind kind : {kReadSet, kWriteSet, kErrorSet})
        if (failure == 0) failure = Collect(&selection, kind, &selection.Count);
    int ready = 0;
    if (failure == 0) {
        ready = Run(&selection, deadline);
        if (ready < 0)
            failure = WSAENOTSOCK;
        else
            Rewrite(&selection);
    }
    for (uint32_t i = 0; i < selection.Count; i++) {
        if (selection.Blocks) selection.Entries[i].Socket->Blockers.fetch_sub(1, std::memory_order_relaxed);
        UnrefObject(selection.Entries[i].Socket);
    }
    free(memory);
    return failure == 0 ? ready : FailSocket(failure);
}

}  // namespace os
