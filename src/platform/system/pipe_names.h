// platform/system/pipe_names.h - where the names of pipes are, and how the ends of a pipe find each other.
//
// A folder of shared memory holds a record for each pipe that exists, and a socket for each instance that listens. The
// folder is the user's alone (0700, its owner and that it is no symbolic link are verified each time, because its
// parent is everybody's); pipes that everybody may open lie in a second one, which is everybody's too.
//
//   <folder>/<key>         the record: a NameRecord, then a byte for each slot that says what its instance does
//   <folder>/<key>.<slot>  the socket that the instance in this slot listens on
//
// <key> is a hash of the name in lower case; the record has the name in full. An instance lives in a slot as long as it
// holds a lock on the slot's byte far behind the record's end. The kernel drops that lock with the process, so nothing
// has to be cleaned up by the dying: a slot whose byte can be locked is free, whatever files lie there.
//
// Who may read a file may hold a lock on it. So a record in the second folder has a guard, an empty file <key>.all in
// the folder of its maker's own: there are the advisory lock and the locks on bytes that exclude each other. The record
// itself has shared ones on the same bytes, which tell the others that an instance lives.
//
// Everything that must be seen as one step (creating, listening, connecting, closing) happens under the record's
// advisory lock, which is held for a few system calls and never waited for longer than two seconds. Other users cannot
// take it and connect without: a listening socket has room for one connection, so whoever connected first has the
// instance. For the same reason taking a client needs no lock.
//
// Any thread; all functions run in an inner region, because they hold descriptors that nobody else knows.
#ifndef ZVX_PLATFORM_SYSTEM_PIPE_NAMES_H
#define ZVX_PLATFORM_SYSTEM_PIPE_NAMES_H

#include <cstdint>

#include "platform/os_pipe.h"

namespace os {

constexpr uint32_t kPipeNameBytes = 256;  // the longest name, with its prefix

struct PipeName {
    char Text[kPipeNameBytes + 1];  // behind the prefix, in lower case
    char Key[17];
};

// What all instances of a pipe have in common.
struct PipeTraits {
    uint32_t Access;        // PIPE_ACCESS_ bits
    uint32_t Messages;      // 1 for a pipe of messages
    uint32_t MaxInstances;  // PIPE_UNLIMITED_INSTANCES: no limit
    uint32_t DefaultMs;     // of the first instance; never 0
};

// The place of one instance.
struct PipeLease {
    int Fd = -1;     // of the record; -1: none
    int Guard = -1;  // of its guard; -1 for a pipe of the user's own, whose record is its own guard
    uint32_t Slot;
    bool Everybody;  // in the second folder
    char Key[17];
};

// 0, or the error of a name that is no pipe's.
DWORD ParsePipeName(const char *name, PipeName *parsed);

// Makes an instance, which listens on *listener. 0 or the error.
DWORD ClaimInstance(const PipeName &name, const PipeTraits &traits, bool mustBeFirst, bool everybody, PipeLease *lease,
                    int *listener);
DWORD ListenAgain(const PipeLease &lease, int *listener);  // 0 or the error
void StopListening(const PipeLease &lease);  // its client has come, or none shall; no lock
void ReleaseInstance(PipeLease *lease);

// Connects to an instance that listens. ERROR_PIPE_BUSY when all are taken.
DWORD ConnectToInstance(const PipeName &name, bool read, bool write, int *fd, PipeTraits *traits);
// The same without connecting: 0 when one could have been had.
DWORD LookForInstance(const PipeName &name, PipeTraits *traits);

}  // namespace os

#endif  // ZVX_PLATFORM_SYSTEM_PIPE_NAMES_H
