// base/assert.h - invariants that debug builds check; compiled out where ZVX_CHECKS is off.
#ifndef ZVX_BASE_ASSERT_H
#define ZVX_BASE_ASSERT_H

namespace zvx {
// Writes the failed condition with its place on standard error and aborts.
[[noreturn]] void CheckFailed(const char *condition, const char *file, int line);
}  // namespace zvx

#ifdef ZVX_CHECKS
#define ZVX_CHECK(condition) \
    do {                     \
        if (!(condition)) ::zvx::CheckFailed(#condition, __FILE__, __LINE__); \
    } while (0)
#else
#define ZVX_CHECK(condition) \
    do {                     \
        (void)sizeof(!(condition)); \
    } while (0)
#endif

#endif  // ZVX_BASE_ASSERT_H
