// platform/base/module.cpp - modules and procedures, over the dynamic loader.
//
// Any thread. Loading a library reads files and runs its initialisers, so it blocks for as long as that takes. Two
// modules have no file: hosts and the library's own dumps ask for them by name and get the platform's functions.
#include "platform/base/module.h"

#include <dlfcn.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include "platform/base/minidump.h"
#include "platform/os_process.h"

namespace os {

namespace {

// A module without a file; the handle is its address.
struct OwnModule {
    const char *Name;
};
constinit OwnModule gOwnModules[] = {{"kernel32.dll"}, {"dbghelp.dll"}};

struct Provided {
    const OwnModule *Module;
    const char *Name;
    FARPROC Procedure;
};
constexpr uint32_t kMaxProvided = 16;
constinit Provided gProvided[kMaxProvided] = {};
constinit std::atomic<uint32_t> gProvidedCount{0};

[[gnu::constructor]] void ProvideOwn() {
    ProvideProcedure("dbghelp.dll", "MiniDumpWriteDump",
                     reinterpret_cast<FARPROC>(reinterpret_cast<void *>(MiniDumpWriteDump)));
}

// With or without the suffix, in any case.
OwnModule *FindOwnModule(const char *name) {
    for (OwnModule &module : gOwnModules) {
        const size_t stem = strlen(module.Name) - 4;
        if (strcasecmp(name, module.Name) == 0) return &module;
        if (strlen(name) == stem && strncasecmp(name, module.Name, stem) == 0) return &module;
    }
    return nullptr;
}

const OwnModule *AsOwnModule(HMODULE handle) {
    for (const OwnModule &module : gOwnModules) {
        if (handle == &module) return &module;
    }
    return nullptr;
}

// What the object that holds this code exports under the name, and nothing of the libraries that it uses: a host
// that asks whether the system has a function must not be given one of the C library with another meaning.
void *FindOwnExport(const char *name) {
    Dl_info self;
    if (dladdr(reinterpret_cast<void *>(&FindOwnModule), &self) == 0) return nullptr;
    void *handle = dlopen(self.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) handle = dlopen(nullptr, RTLD_LAZY | RTLD_NOLOAD);  // linked into the program
    if (handle == nullptr) return nullptr;
    void *found = dlsym(handle, name);
    dlclose(handle);
    Dl_info where;
    return found != nullptr && dladdr(found, &where) != 0 && where.dli_fbase == self.dli_fbase ? found : nullptr;
}

// The module of that name by the loader's own search: first the name as it was given, then, for a name that ends in
// ".dll" or in nothing, what the same library is called here. Null when there is none.
void *OpenModule(const char *name, int flags) {
    if (void *handle = dlopen(name, flags)) return handle;
    const char *base = strrchr(name, '/');
    base = base == nullptr ? name : base + 1;
    const size_t length = strlen(base);
    const bool suffix = length > 4 && strcasecmp(base + length - 4, ".dll") == 0;
    if (!suffix && strchr(base, '.') != nullptr) return nullptr;
    const int folder = static_cast<int>(base - name);
    const int stem = static_cast<int>(suffix ? length - 4 : length);
    for (const char *prefix : {"lib", ""}) {
        char other[1024];
        const int put = snprintf(other, sizeof other, "%.*s%s%.*s.so", folder, name, prefix, stem, base);
        if (put < 0 || put >= static_cast<int>(sizeof other)) return nullptr;
        if (void *handle = dlopen(other, flags)) return handle;
    }
    return nullptr;
}

HMODULE Load(const char *name, int flags) {
    if (name == nullptr || name[0] == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (OwnModule *own = FindOwnModule(name)) return own;
    void *handle = OpenModule(name, flags | RTLD_LOCAL);
    if (handle == nullptr) SetLastError(ERROR_MOD_NOT_FOUND);
    return handle;
}

}  // namespace

void ProvideProcedure(const char *module, const char *name, FARPROC procedure) {
    const uint32_t count = gProvidedCount.load(std::memory_order_relaxed);
    const OwnModule *own = FindOwnModule(module);
    if (own == nullptr || count == kMaxProvided) return;
    gProvided[count] = {own, name, procedure};
    gProvidedCount.store(count + 1, std::memory_order_release);
}

HMODULE GetModuleHandleA(const char *name) {
    if (ShouldFail("GetModuleHandleA")) return nullptr;
    if (name != nullptr) {
        if (OwnModule *own = FindOwnModule(name)) return own;
    }
    // Loaded already or nothing. The reference that this takes is given back: the module's owner keeps it loaded.
    const int flags = RTLD_LAZY | RTLD_NOLOAD;
    void *handle = name == nullptr ? dlopen(nullptr, flags) : OpenModule(name, flags);
    if (handle == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    dlclose(handle);
    return handle;
}

HMODULE LoadLibraryA(const char *name) {
    if (ShouldFail("LoadLibraryA")) return nullptr;
    return Load(name, RTLD_NOW);
}

HMODULE LoadLibraryExA(const char *name, HANDLE file, DWORD flags) {
    if (ShouldFail("LoadLibraryExA")) return nullptr;
    if (file != nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Load(name, (flags & DONT_RESOLVE_DLL_REFERENCES) != 0 ? RTLD_LAZY : RTLD_NOW);
}

BOOL FreeLibrary(HMODULE module) {
    if (ShouldFail("FreeLibrary")) return FALSE;
    if (AsOwnModule(module) != nullptr) return TRUE;
    if (module == nullptr || dlclose(module) != 0) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return FALSE;
    }
    return TRUE;
}

FARPROC GetProcAddress(HMODULE module, const char *name) {
    if (ShouldFail("GetProcAddress")) return nullptr;
    void *found = nullptr;
    // Below 0x10000 it is an ordinal, which no module here has.
    if (reinterpret_cast<uintptr_t>(name) >= 0x10000 && module != nullptr) {
        const OwnModule *own = AsOwnModule(module);
        if (own != nullptr) {
            const uint32_t count = gProvidedCount.load(std::memory_order_acquire);
            for (uint32_t i = 0; i < count; ++i) {
                if (gProvided[i].Module == own && strcmp(gProvided[i].Name, name) == 0) return gProvided[i].Procedure;
            }
        }
        found = own != nullptr ? FindOwnExport(name) : dlsym(module, name);
    }
    if (found == nullptr) SetLastError(ERROR_PROC_NOT_FOUND);
    return reinterpret_cast<FARPROC>(found);
}

}  // namespace os
