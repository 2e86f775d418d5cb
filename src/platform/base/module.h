// platform/base/module.h - procedures that the platform answers for under a module's name.
//
// "kernel32.dll" and "dbghelp.dll" are not files here. GetProcAddress on them finds what was provided under the name
// and then what this library exports; parts of the platform above provide theirs at start.
#ifndef ZVX_PLATFORM_BASE_MODULE_H
#define ZVX_PLATFORM_BASE_MODULE_H

#include "platform/os.h"

namespace os {

// `module` is "kernel32.dll" or "dbghelp.dll"; both texts must live as long as the process. At most 16, before any
// thread asks for them.
void ProvideProcedure(const char *module, const char *name, FARPROC procedure);

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_MODULE_H
