// base/assert.cpp - how a broken invariant ends the process in debug builds.
#include "base/assert.h"

#include <cstdio>
#include <cstdlib>

namespace zvx {

void CheckFailed(const char *condition, const char *file, int line) {
    std::fprintf(stderr, "zvxkvt: check failed: %s (%s:%d)\n", condition, file, line);
    std::abort();
}

}  // namespace zvx
