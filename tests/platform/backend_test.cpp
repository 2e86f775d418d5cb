// tests/platform/backend_test.cpp - rings are allowed, but this thread's cannot be had (locked memory, descriptors): it
// gets the other kind. Where all are refused: fault injection.
#include "support.h"

#ifdef ZVX_FAIL_POINTS
TEST(Backend, OneThreadWithoutARing) {
    unsetenv("ZVXKVT_IO");
    if (strcmp(os::IoBackendName(), "io_uring") != 0) GTEST_SKIP() << os::IoBackendNote();
    os::FailCall("io_uring_setup", 1, ERROR_NOT_ENOUGH_MEMORY);
    Scratch file(16384);
    Fifo fifo;
    const HANDLE port = NewPort(), direct = file.Open(FILE_FLAG_OVERLAPPED | FILE_FLAG_NO_BUFFERING),
                 pipe = fifo.Open();
    EXPECT_EQ(Io()->TaskMask, 1u) << "the ring was not refused";
    alignas(4096) static char pages[8192];
    char byte = 0;
    Operation read, get, put;
    ASSERT_EQ(ERROR_IO_PENDING, read.Read(direct, pages, 8192, 8192));
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &read.Ov));
    EXPECT_TRUE(std::string(pages, 8192) == Pattern(8192, 8192));
    // The descriptor was opened for rings, which wait in the kernel; this thread must not.
    ASSERT_EQ(ERROR_IO_PENDING, get.Read(pipe, &byte, 1));
    if (put.Write(pipe, "n", 1) != 0) Await(port, &put.Ov);
    EXPECT_EQ(STATUS_SUCCESS, Await(port, &get.Ov));
    EXPECT_EQ('n', byte);
}
#endif
