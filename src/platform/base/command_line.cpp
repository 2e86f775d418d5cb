// platform/base/command_line.cpp - splitting a command line. Pure functions, any thread.
#include "platform/base/command_line.h"

#include <cstdlib>
#include <cstring>

namespace os {

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

const char *SkipBlanks(const char *at) {
    while (IsBlank(*at)) at++;
    return at;
}

// The program's name; returns where it ended in the line and moves *to past what was stored.
const char *CopyProgram(const char *at, char **to) {
    const bool quoted = *at == '"';
    if (quoted) at++;
    while (*at != 0 && (quoted ? *at != '"' : !IsBlank(*at))) *(*to)++ = *at++;
    if (quoted && *at == '"') at++;
    return at;
}

const char *CopyWord(const char *at, char **to) {
    bool quoted = false;
    while (*at != 0 && (quoted || !IsBlank(*at))) {
        size_t slashes = strspn(at, "\\");
        at += slashes;
        const bool quote = *at == '"';
        for (size_t i = quote ? slashes / 2 : slashes; i > 0; i--) *(*to)++ = '\\';
        if (!quote) {
            if (slashes == 0) *(*to)++ = *at++;
            continue;
        }
        at++;
        if (slashes % 2 != 0) {
            *(*to)++ = '"';
        } else if (quoted && *at == '"') {
            *(*to)++ = *at++;
        } else {
            quoted = !quoted;
        }
    }
    return at;
}

}  // namespace

char **SplitCommandLine(const char *line) {
    // No word is longer than what it is made of, and there are at most half as many as characters.
    const size_t length = strlen(line);
    const size_t pointers = length / 2 + 2;
    char **words = static_cast<char **>(malloc(pointers * sizeof(char *) + 2 * length + 2));
    if (words == nullptr) return nullptr;
    char *to = reinterpret_cast<char *>(words + pointers);
    size_t count = 0;
    for (const char *at = SkipBlanks(line); *at != 0; at = SkipBlanks(at)) {
        words[count] = to;
        at = count == 0 ? CopyProgram(at, &to) : CopyWord(at, &to);
        *to++ = 0;
        count++;
    }
    words[count] = nullptr;
    return words;
}

}  // namespace os
