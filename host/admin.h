// host/admin.h - the pipe for the administrator.
#ifndef HOST_ADMIN_H
#define HOST_ADMIN_H

#include "base.h"

namespace host {

// Makes the pipe that --admin-pipe asks for, and the threads that serve it. Ends the process when the name cannot be
// had. The pipe's whole name; empty when none was asked for.
std::string OpenAdminPipe();
// From the monitor, once a second: ends connections whose client keeps them waiting.
void WatchAdminPipe(uint32_t now);

}  // namespace host

#endif  // HOST_ADMIN_H
