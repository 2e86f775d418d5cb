// platform/base/guarded.h - how a fault inside CallGuarded comes back to it.
#ifndef ZVX_PLATFORM_BASE_GUARDED_H
#define ZVX_PLATFORM_BASE_GUARDED_H

namespace os {

// From the handler of a fault that the calling thread raised itself: does not return when the thread is in
// CallGuarded.
void LeaveGuardedCall();

}  // namespace os

#endif  // ZVX_PLATFORM_BASE_GUARDED_H
