// tests/support/sanitizers.h - which sanitizer the test is built with, under either compiler.
#ifndef ZVX_TESTS_SUPPORT_SANITIZERS_H
#define ZVX_TESTS_SUPPORT_SANITIZERS_H

#if defined(__has_feature)
constexpr bool kAddressSanitizer = __has_feature(address_sanitizer);
constexpr bool kThreadSanitizer = __has_feature(thread_sanitizer);
#else
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#endif

#endif  // ZVX_TESTS_SUPPORT_SANITIZERS_H
