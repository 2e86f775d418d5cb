// tests/platform/process_test.cpp - modules, environment, descriptors, console and the end of the process.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <thread>

#include "child.h"
#include "platform/base/fiber_internal.h"
#include "platform/base/module.h"
#include "platform/os.h"

using namespace os;

TEST(Module, FilesAreLoadedAndThePlatformsOwnAreAnswered) {
    EXPECT_EQ(LoadLibraryA("there-is-no-such-library.dll"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_MOD_NOT_FOUND);
    HMODULE math = LoadLibraryA("libm.so.6");
    ASSERT_NE(math, nullptr);
    EXPECT_EQ(GetModuleHandleA("libm.so.6"), math);
    auto cosine = reinterpret_cast<double (*)(double)>(reinterpret_cast<void *>(GetProcAddress(math, "cos")));
    ASSERT_NE(cosine, nullptr);
    EXPECT_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(GetProcAddress(math, "NoSuchFunction"), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_PROC_NOT_FOUND);
    EXPECT_EQ(GetProcAddress(math, reinterpret_cast<const char *>(uintptr_t{17})), nullptr) << "an ordinal";
    EXPECT_TRUE(FreeLibrary(math));
    EXPECT_NE(GetModuleHandleA(nullptr), nullptr);

    HMODULE own = GetModuleHandleA("KERNEL32.dll");
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(LoadLibraryA("kernel32"), own);
    HMODULE dumps = LoadLibraryA("dbghelp.dll");
    ASSERT_NE(dumps, nullptr);
    EXPECT_NE(dumps, own);
    // A function of the C library is no function of the system that is asked for here.
    EXPECT_EQ(GetProcAddress(own, "getservbyport"), nullptr);
    ProvideProcedure("dbghelp.dll", "Provided", [] { return intptr_t{5}; });
    ASSERT_NE(GetProcAddress(dumps, "Provided"), nullptr);
    EXPECT_EQ(GetProcAddress(dumps, "Provided")(), 5);
    EXPECT_EQ(GetProcAddress(own, "Provided"), nullptr);
    EXPECT_TRUE(FreeLibrary(own));
}

TEST(Process, EnvironmentValuesFitExactlyOrNotAtAll) {
    setenv("ZVX_TEST_VALUE", "12345", 1);
    setenv("ZVX_TEST_EMPTY", "", 1);
    char buffer[8];
    memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(GetEnvironmentVariableA("ZVX_TEST_VALUE", buffer, 5), 6u);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(GetEnvironmentVariableA("ZVX_TEST_VALUE", buffer, 6), 5u);
    EXPECT_STREQ(buffer, "12345");
    EXPECT_EQ(buffer[6], '#');
    EXPECT_EQ(GetEnvironmentVariableA("ZVX_TEST_NONE", buffer, 6), 0u);
    EXPECT_EQ(GetLastError(), ERROR_ENVVAR_NOT_FOUND);
    EXPECT_EQ(GetEnvironmentVariableA("ZVX_TEST_EMPTY", buffer, 6), 0u);
    EXPECT_EQ(GetLastError(), ERROR_SUCCESS);
}

TEST(Process, DescriptorsStayWithinTwentyBytes) {
    BYTE descriptor[24];
    memset(descriptor, 0xEE, sizeof descriptor);
    ASSERT_TRUE(InitializeSecurityDescriptor(descriptor, 1));
    ASSERT_TRUE(SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE));
    for (size_t i = 20; i < sizeof descriptor; ++i) EXPECT_EQ(descriptor[i], 0xEE);
    EXPECT_FALSE(InitializeSecurityDescriptor(descriptor, 2));
    memset(descriptor, 0, sizeof descriptor);
    EXPECT_FALSE(SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE)) << "not initialised";
}

TEST(Process, ExitFlushesWhatIsFreeAndWaitsForNoLock) {
    const ChildResult plain = RunChild([] {
        atexit([] { puts("destructors ran"); });
        printf("buffered ");
        const char text[] = "direct ";
        WriteConsole(text, sizeof text - 1);
        printf("at the end");
        ExitProcess(7);
    });
    EXPECT_EQ(plain.ExitCode, 7);
    EXPECT_EQ(plain.Output, "buffered direct at the end");

#if defined(ZVX_TSAN)
    GTEST_SKIP() << "the sanitizer itself flushes the streams when a process ends, and waits for their locks";
#endif
    const ChildResult locked = RunChild([] {
        std::thread holder([] {
            flockfile(stdout);
            fputs_unlocked("never seen", stdout);
            for (;;) pause();
        });
        usleep(50000);
        WriteConsole("out", 3);
        alarm(10);
        ExitProcess(9);
    });
    EXPECT_EQ(locked.ExitCode, 9) << "signal " << locked.Signal;
    EXPECT_EQ(locked.Output, "out");
}

TEST(Process, KernelThreadsAreCounted) {
    std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first
    const uint32_t before = KernelThreadCount();
    EXPECT_GE(before, 1u);
    std::thread other([] { usleep(300000); });
    EXPECT_EQ(KernelThreadCount(), before + 1);
    other.join();
}
