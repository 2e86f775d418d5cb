// tests/support/scripted_dedicated.cpp - the calls that dedicated threads make, by script.
//
// A test stores what a call does in gDedicatedScript; without that it fails as not implemented. The call runs where
// the test lets the thread run: see RunThread in scripted_os.h.
#include "platform/os_pipe.h"
#include "platform/os_process.h"
#include "scripted_os.h"

namespace os {

namespace script {
DedicatedScript gDedicatedScript;
}

using script::gDedicatedScript;

namespace {
BOOL NotScripted() {
    SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return FALSE;
}
}  // namespace

BOOL ReadConsoleA(HANDLE, void *buffer, DWORD characters, DWORD *read, void *) {
    return gDedicatedScript.OnReadConsole ? gDedicatedScript.OnReadConsole(buffer, characters, read) : NotScripted();
}

BOOL CallNamedPipeA(const char *name, void *in, DWORD inBytes, void *out, DWORD outBytes, DWORD *read, DWORD) {
    return gDedicatedScript.OnCallPipe ? gDedicatedScript.OnCallPipe(name, in, inBytes, out, outBytes, read)
                                       : NotScripted();
}

}  // namespace os
