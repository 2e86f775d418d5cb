// The choice of the back end: what is asked for, what is refused, and that everything still works then.
#include "io_support.h"

namespace {

// A read that must go through the engine.
void ReadPending() {
    Scratch file("backend");
    file.Fill(16384);
    const HANDLE port = NewPort(), handle = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING);
    Pages pages(8192);
    Operation a;
    ASSERT_FALSE(os::ReadFile(handle, pages.Data, 8192, nullptr, a.At(8192), &a.Op));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
    EXPECT_TRUE(HasPattern(pages.Data, 8192, 8192));
    os::TakeEndedOps(os::CurrentThreadBlock()->Io);
    os::CloseHandle(handle);
    os::CloseHandle(port);
}

}  // namespace

TEST(Backend, EpollOnRequest) {
    setenv("ZVXKVT_IO", "epoll", 1);
    EXPECT_STREQ("epoll", os::IoBackendName());
    EXPECT_STREQ("", os::IoBackendNote());
    ReadPending();
}

#ifdef ZVX_FAIL_POINTS

TEST(Backend, RefusedRingsAreReplaced) {
    setenv("ZVXKVT_IO", "io_uring", 1);
    os::FailCall("io_uring_setup", 1, ERROR_ACCESS_DENIED);
    EXPECT_STREQ("epoll", os::IoBackendName());
    EXPECT_NE(nullptr, strstr(os::IoBackendNote(), "ZVXKVT_IO")) << os::IoBackendNote();
    ReadPending();
}

// Rings are allowed, but this thread's cannot be had (locked memory, descriptors): it gets the other kind.
TEST(Backend, OneThreadWithoutARing) {
    unsetenv("ZVXKVT_IO");
    if (strcmp(os::IoBackendName(), "io_uring") != 0) GTEST_SKIP() << os::IoBackendNote();
    os::FailCall("io_uring_setup", 1, ERROR_NOT_ENOUGH_MEMORY);
    ReadPending();
    EXPECT_EQ(os::CurrentThreadBlock()->Io->TaskMask, 1u) << "the ring was not refused";
    // The descriptor was opened for rings, which wait in the kernel; this thread must not.
    Scratch fifo("nonblocking");
    fifo.Fifo();
    const HANDLE port = NewPort(), pipe = fifo.Open();
    char byte = 0;
    OVERLAPPED get{}, put{};
    ASSERT_FALSE(os::ReadFile(pipe, &byte, 1, nullptr, &get));
    if (!os::WriteFile(pipe, "n", 1, nullptr, &put)) {
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &put));
    }
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &get));
    EXPECT_EQ('n', byte);
    os::CloseHandle(pipe);
    os::CloseHandle(port);
}

#endif
