// platform/base/text.cpp - from wide characters to the kernel's encoding. Pure functions, any thread.
#include "platform/base/text.h"

#include <cstdint>
#include <cstdlib>

namespace os {

bool NarrowText(const WCHAR *text, char *narrow, size_t size, bool *tooLong) {
    size_t used = 0;
    *tooLong = false;
    for (; *text != 0; text++) {
        const uint32_t c = static_cast<uint32_t>(*text);
        if (c > 0x10FFFF || (c >= 0xD800 && c < 0xE000)) return false;
        const int more = c < 0x80 ? 0 : c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
        *tooLong = used + static_cast<size_t>(more) + 2 > size;
        if (*tooLong) return false;
        if (more == 0) {
            narrow[used++] = static_cast<char>(c);
            continue;
        }
        narrow[used++] = static_cast<char>((0xF00u >> (more + 1) & 0xF0u) | c >> (6 * more));
        for (int i = more; i-- > 0;) narrow[used++] = static_cast<char>(0x80u | (c >> (6 * i) & 0x3Fu));
    }
    narrow[used] = 0;
    return true;
}

char *NarrowCopy(const WCHAR *text) {
    SetLastError(ERROR_SUCCESS);
    if (text == nullptr) return nullptr;
    size_t length = 0;
    while (text[length] != 0) length++;
    const size_t size = 4 * length + 1;
    char *copy = static_cast<char *>(malloc(size));
    bool tooLong = false;
    if (copy == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    } else if (!NarrowText(text, copy, size, &tooLong)) {
        free(copy);
        copy = nullptr;
        SetLastError(ERROR_INVALID_NAME);
    }
    return copy;
}

}  // namespace os
