// platform/system/pipe.h - the two objects behind the handle of a pipe, for the files that make, connect and transfer.
//
// A PipeObject is what the handle stands for: one end of a pipe, with its state. A PipeChannel is a socket: the one
// that an instance listens on, or one connection. An end has at most one channel at a time, and lets go of it when the
// connection ends; operations hold a reference on the channel that they began with, so that none of them ever meets
// the next client's connection, and a descriptor is closed when the last operation on it has ended.
//
// On the wire a pipe of bytes is its bytes. In a pipe of messages each message has its length before it, four bytes.
// Everything is tried without blocking, under the channel's lock; who would block waits for readiness, in its engine or
// in poll, and tries again.
#ifndef ZVX_PLATFORM_SYSTEM_PIPE_H
#define ZVX_PLATFORM_SYSTEM_PIPE_H

#include "platform/system/io_engine.h"
#include "platform/system/pipe_names.h"

namespace os {

constexpr uint32_t kMessageHeader = 4;

struct PipeChannel : IoObject {
    bool Messages = false;         // init
    std::atomic<bool> Cut{false};  // DisconnectNamedPipe ended it
    InnerLock Lock;                // over system calls that do not block
    uint32_t HeaderGot = 0;        // [Lock] bytes of the next message's length; kMessageHeader: inside a message
    unsigned char Header[kMessageHeader];  // [Lock]
    uint32_t Left = 0;                     // [Lock] bytes of the message that no reader has got yet
    // [Lock] Beginning of those bytes, taken from the socket for a reader that wants more than has come. Whoever reads
    // next gets them, so a reader that gives up loses nothing. From the heap.
    char *Early = nullptr;
    std::atomic<uint32_t> EarlyBytes{0};  // changed under the lock
    uint32_t EarlyRoom = 0;               // [Lock]
    // [Lock] Rest of a message that the socket had no room for: nobody else's may come before it. From the heap.
    char *Rest = nullptr;
    uint64_t RestBegin = 0;   // [Lock]
    uint64_t RestEnd = 0;     // [Lock]
    uint64_t RestTicket = 0;  // [Lock] whose rest it is, 0: nobody's
    uint64_t LastTicket = 0;  // [Lock]
};

enum class PipeState : uint8_t { kListening, kConnected, kDisconnected };

struct PipeObject : IoObject {
    bool Server = false;      // init
    bool Overlapped = false;  // init
    bool CanRead = false;     // init
    bool CanWrite = false;    // init
    bool Messages = false;    // init
    std::atomic<bool> ReadMessages{false};
    InnerLock Lock;                              // before a channel's
    PipeState State = PipeState::kDisconnected;  // [Lock]
    bool Connecting = false;                     // [Lock] an operation waits for the client
    PipeChannel *Channel = nullptr;              // [Lock] a reference; null when disconnected
    PipeLease Lease{};                           // [Lock] of a server's end, until its last handle is closed
};

// pipe_channel.cpp

// A channel for a socket, which it takes over also when it fails: null without memory.
PipeChannel *NewChannel(int fd, bool messages);
// Sleeps until the channel is ready for what the call wants.
void WaitForChannel(const PipeChannel *channel, RequestKind kind);
DWORD PeekChannel(PipeChannel *channel, bool messages, char *buffer, DWORD bytes, DWORD *read, DWORD *available,
                  DWORD *left);
// One try of kPipeRead or kPipeWrite: true when it is final.
bool MoveChannel(PipeChannel *channel, IoCall *call, DWORD *status);
bool ClientWaits(const PipeChannel *listener);  // somebody has connected
bool OtherEndGone(const PipeChannel *channel);

// pipe.cpp: one try of kPipeConnect.
bool MoveConnect(IoCall *call, DWORD *status);

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_PIPE_H
