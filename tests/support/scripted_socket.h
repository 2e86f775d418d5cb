// tests/support/scripted_socket.h - sockets by script; goes with scripted_os.h.
//
// A socket is a scripted file: OnIo answers its overlapped operations and EndOperation ends them. Every call of a
// socket function is noted in gSockets.Calls, as its name and what the library chose for it. os::FailCall takes the
// names of the socket functions.
#ifndef ZVX_TESTS_SUPPORT_SCRIPTED_SOCKET_H
#define ZVX_TESTS_SUPPORT_SCRIPTED_SOCKET_H

#include <set>
#include <string>

#include "platform/os_socket.h"
#include "scripted_os.h"

namespace os::script {

constexpr char kPeerAddress[] = "address of peer";  // 16 bytes

struct Sockets {
    std::vector<std::string> Calls;
    std::set<SOCKET> Open;
    int PeerAddressBytes = 16;
    // Rewrites the sets as select does; without one nothing is ever ready.
    std::function<int(zvx_fd_set *read, zvx_fd_set *write, zvx_fd_set *error)> OnSelect;
};
extern Sockets gSockets;

// The calls since the last time.
std::vector<std::string> TakeCalls();
SOCKET NewSocket();

}  // namespace os::script

#endif  // ZVX_TESTS_SUPPORT_SCRIPTED_SOCKET_H
