// tests/platform/backend_test.cpp - the choice of the back end: what is refused, and that everything still works then.
#include "support.h"

namespace {

// A read that must go through the engine.
void ReadPending() {
    Scratch file(16384);
    const HANDLE port = NewPort(), handle = file.Open(kDirect);
    Pages pages(8192);
    Operation a;
    ASSERT_EQ(ERROR_IO_PENDING, a.Read(handle, pages.Data, 8192, 8192));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &a.Ov));
    EXPECT_TRUE(HasPattern(pages.Data, 8192, 8192));
    os::TakeEndedOps(Io());
}

}  // namespace

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
    EXPECT_EQ(Io()->TaskMask, 1u) << "the ring was not refused";
    // The descriptor was opened for rings, which wait in the kernel; this thread must not.
    Fifo fifo;
    const HANDLE port = NewPort(), pipe = fifo.Open();
    char byte = 0;
    Operation get, put;
    ASSERT_EQ(ERROR_IO_PENDING, get.Read(pipe, &byte, 1));
    if (put.Write(pipe, "n", 1) != 0) {
        EXPECT_EQ(STATUS_SUCCESS, Await(port, &put.Ov));
    }
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &get.Ov));
    EXPECT_EQ('n', byte);
}
#endif
