// platform/base/fail.h - fault points inside the platform: steps that fail below a function of os.h.
#ifndef ZVX_PLATFORM_BASE_FAIL_H
#define ZVX_PLATFORM_BASE_FAIL_H

namespace os {

// The error number with which this step is to fail, or 0. Armed as the functions of os.h are; what is given as the
// error is an errno value here. The last error stays as it is, and errno too.
#ifdef ZVX_FAIL_POINTS
int ShouldFailInside(const char *step);
#else
inline int ShouldFailInside(const char *) { return 0; }
#endif

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_FAIL_H
