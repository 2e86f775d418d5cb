// tests/support/netapi32.cpp - a stand-in for the directory service, loaded by name.
//
// What it does is told by the domain: "crash", "divide" and "throw" do what they say, "slow" takes a while, "stuck"
// never comes back, and any other is found. The answer is a text that names the domain.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zvxkvt/ostypes.h"

extern "C" {

__attribute__((visibility("default"), no_sanitize("undefined"))) DWORD DsGetDcNameA(const char *computer, const char *domain, const void *,
                                                          const char *site, DWORD flags, void **result) {
    volatile int zero = 0;
    if (strcmp(domain, "crash") == 0) *reinterpret_cast<volatile int *>(static_cast<uintptr_t>(zero)) = 1;
    if (strcmp(domain, "divide") == 0) return static_cast<DWORD>(flags / static_cast<DWORD>(zero));
    if (strcmp(domain, "throw") == 0) throw 1;
    if (strcmp(domain, "slow") == 0) usleep(100000);
    while (strcmp(domain, "stuck") == 0) pause();
    auto *text = static_cast<char *>(malloc(256));
    snprintf(text, 256, "%s/%s/%s/%u/%d", computer != nullptr ? computer : "-", domain, site != nullptr ? site : "-",
             flags, gettid() == getpid() ? 1 : 0);
    *result = text;
    return 0;
}

}  // extern "C"
