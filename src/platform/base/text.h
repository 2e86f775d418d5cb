// platform/base/text.h - names of wide characters in the kernel's encoding.
#ifndef ZVX_PLATFORM_BASE_TEXT_H
#define ZVX_PLATFORM_BASE_TEXT_H

#include <cstddef>
#include <cstdlib>

#include "platform/os.h"

namespace os {

// The text as UTF-8, with its zero, in `narrow`. False when a character is none, or with *tooLong when the result does
// not fit `size` bytes.
bool NarrowText(const WCHAR *text, char *narrow, size_t size, bool *tooLong);
// The same in memory from the heap, which the caller frees; null with the last error set (ERROR_INVALID_NAME,
// ERROR_NOT_ENOUGH_MEMORY). A null text gives null with last error 0.
char *NarrowCopy(const WCHAR *text);

// What open(name) returns for the name in the kernel's encoding; null when it has none there.
template <typename Open>
HANDLE WithNarrowName(const WCHAR *name, Open open) {
    char *narrow = NarrowCopy(name);
    if (narrow == nullptr && name != nullptr) return nullptr;
    const HANDLE handle = open(narrow);
    free(narrow);
    return handle;
}

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_TEXT_H
