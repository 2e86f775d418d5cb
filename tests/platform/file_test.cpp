// Files: opening by disposition, names, positions, sizes, moving and deleting, and synchronous transfers.
#include <thread>

#include "io_support.h"

namespace {

struct Outcome {
    bool Opened;
    DWORD Error;
};

Outcome Open(const char *name, DWORD access, DWORD disposition, DWORD flags = 0) {
    os::SetLastError(77);
    const HANDLE handle = os::CreateFileA(name, access, 0, nullptr, disposition, flags, nullptr);
    const DWORD error = os::GetLastError();
    if (handle != INVALID_HANDLE_VALUE) os::CloseHandle(handle);
    return {handle != INVALID_HANDLE_VALUE, error};
}

long SizeOf(const std::string &name) {
    struct stat info;
    return stat(name.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;

}  // namespace

TEST(File, Dispositions) {
    struct {
        DWORD Disposition;
        bool Exists;
        bool Opened;
        DWORD Error;  // 77: untouched
        long Size;
    } const cases[] = {
        {CREATE_NEW, false, true, 77, 0},
        {CREATE_NEW, true, false, ERROR_FILE_EXISTS, 100},
        {CREATE_ALWAYS, false, true, 0, 0},
        {CREATE_ALWAYS, true, true, ERROR_ALREADY_EXISTS, 0},
        {OPEN_EXISTING, false, false, 2, -1},
        {OPEN_EXISTING, true, true, 77, 100},
        {OPEN_ALWAYS, false, true, 0, 0},
        {OPEN_ALWAYS, true, true, ERROR_ALREADY_EXISTS, 100},
        {TRUNCATE_EXISTING, false, false, 2, -1},
        {TRUNCATE_EXISTING, true, true, 77, 0},
        {0, true, false, ERROR_INVALID_PARAMETER, 100},
        {6, true, false, ERROR_INVALID_PARAMETER, 100},
    };
    for (const auto &each : cases) {
        Scratch file("disposition");
        if (each.Exists) file.Fill(100);
        const Outcome outcome = Open(file.Name.c_str(), kBoth, each.Disposition);
        EXPECT_EQ(each.Opened, outcome.Opened) << each.Disposition << each.Exists;
        EXPECT_EQ(each.Error, outcome.Error) << each.Disposition << each.Exists;
        EXPECT_EQ(each.Size, SizeOf(file.Name)) << each.Disposition << each.Exists;
    }
}

TEST(File, NamesThatCannotBeOpened) {
    Scratch file("names");
    file.Fill(10);
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, Open(nullptr, kBoth, OPEN_ALWAYS).Error);
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, Open("", kBoth, OPEN_ALWAYS).Error);
    EXPECT_EQ(ERROR_PATH_NOT_FOUND, Open((file.Name + "/x").c_str(), kBoth, OPEN_ALWAYS).Error);
    EXPECT_EQ(ERROR_ACCESS_DENIED, Open(".", GENERIC_READ, OPEN_EXISTING).Error);
    EXPECT_EQ(ERROR_ACCESS_DENIED, Open(".", kBoth, OPEN_EXISTING).Error);
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE, Open(std::string(300, 'n').c_str(), kBoth, OPEN_ALWAYS).Error);
    EXPECT_EQ(ERROR_INVALID_PARAMETER, Open(file.Name.c_str(), GENERIC_READ, TRUNCATE_EXISTING).Error);
    EXPECT_FALSE(Open("\\\\.\\pipe\\zvx_no_such_pipe", kBoth, OPEN_EXISTING).Opened);
    // A backslash is a character like any other.
    Scratch odd("odd\\name");
    EXPECT_TRUE(Open(odd.Name.c_str(), kBoth, CREATE_NEW).Opened);
    EXPECT_EQ(0, SizeOf(odd.Name));
}

TEST(File, WideNames) {
    Scratch file("wide-\u00e4\u20ac\U0001F600");
    file.Fill(8);
    std::wstring wide = L"zvx_scratch_wide-\u00e4\u20ac\U0001F600";
    wide += std::wstring(file.Name.begin() + static_cast<long>(file.Name.find("_", 15)), file.Name.end());
    const HANDLE handle = os::CreateFileW(wide.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, handle) << os::GetLastError();
    os::CloseHandle(handle);
    for (const WCHAR bad : {WCHAR(0xD800), WCHAR(0x110000)}) {
        const WCHAR name[] = {L'x', bad, 0};
        EXPECT_EQ(INVALID_HANDLE_VALUE, os::CreateFileW(name, kBoth, 0, nullptr, CREATE_NEW, 0, nullptr));
        EXPECT_EQ(ERROR_INVALID_NAME, os::GetLastError());
    }
    EXPECT_EQ(INVALID_HANDLE_VALUE,
              os::CreateFileW(std::wstring(5000, L'x').c_str(), kBoth, 0, nullptr, CREATE_NEW, 0, nullptr));
    EXPECT_EQ(ERROR_FILENAME_EXCED_RANGE, os::GetLastError());
}

TEST(File, PositionOfASynchronousHandle) {
    Scratch file("position");
    file.Fill(1000);
    const HANDLE handle = file.Open(0);
    char buffer[1000];
    DWORD got;
    for (uint32_t at : {0u, 400u, 800u}) {
        ASSERT_TRUE(os::ReadFile(handle, buffer, 400, &got, nullptr));
        EXPECT_EQ(at == 800 ? 200u : 400u, got);
        EXPECT_TRUE(HasPattern(buffer, at, got));
    }
    EXPECT_TRUE(os::ReadFile(handle, buffer, 400, &got, nullptr)) << "the end is an empty answer";
    EXPECT_EQ(0u, got);
    // An offset of the caller's counts, and moves the position.
    OVERLAPPED ov{};
    ov.Offset = 100;
    EXPECT_TRUE(os::ReadFile(handle, buffer, 40, &got, &ov));
    EXPECT_EQ(40u, ov.InternalHigh);
    EXPECT_TRUE(HasPattern(buffer, 100, 40));
    EXPECT_EQ(140u, os::SetFilePointer(handle, 0, nullptr, FILE_CURRENT));
    ov.Offset = 1000;
    EXPECT_FALSE(os::ReadFile(handle, buffer, 40, &got, &ov));
    EXPECT_EQ(ERROR_HANDLE_EOF, os::GetLastError());
    EXPECT_TRUE(os::WriteFile(handle, "abcd", 4, &got, nullptr));
    EXPECT_EQ(144u, os::SetFilePointer(handle, 0, nullptr, FILE_CURRENT));
    EXPECT_FALSE(os::ReadFileEx(handle, buffer, 4, &ov, [](DWORD, DWORD, OVERLAPPED *) {}));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, os::GetLastError());

    // Threads that read along get every piece once.
    os::SetFilePointer(handle, 0, nullptr, FILE_BEGIN);
    os::SetFileLength(handle, 400000);
    std::atomic<uint32_t> total{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; i++)
        readers.emplace_back([&] {
            char piece[100];
            DWORD length = 1;
            while (length != 0 && os::ReadFile(handle, piece, 100, &length, nullptr)) total += length;
        });
    for (std::thread &reader : readers) reader.join();
    EXPECT_EQ(400000u, total.load());
    os::CloseHandle(handle);
}

TEST(File, MovingThePointer) {
    Scratch file("pointer");
    file.Fill(1000);
    const HANDLE handle = file.Open(0);
    LONG high = 0;
    EXPECT_EQ(1000u, os::SetFilePointer(handle, 0, nullptr, FILE_END));
    EXPECT_EQ(990u, os::SetFilePointer(handle, -10, nullptr, FILE_CURRENT));
    EXPECT_EQ(INVALID_SET_FILE_POINTER, os::SetFilePointer(handle, -991, nullptr, FILE_CURRENT));
    EXPECT_EQ(ERROR_NEGATIVE_SEEK, os::GetLastError());
    EXPECT_EQ(990u, os::SetFilePointer(handle, 0, nullptr, FILE_CURRENT)) << "a refused move moves nothing";
    high = 3;
    EXPECT_EQ(0x80000000u, os::SetFilePointer(handle, INT32_MIN, &high, FILE_BEGIN));
    EXPECT_EQ(3, high);
    high = -1;
    EXPECT_EQ(0x7FFFFFFFu, os::SetFilePointer(handle, -1, &high, FILE_CURRENT));
    EXPECT_EQ(3, high);
    // Positions that look like the error value: told by the last error, or refused where they cannot be told.
    high = 5;
    EXPECT_EQ(0xFFFFFFFFu, os::SetFilePointer(handle, -1, &high, FILE_BEGIN));
    EXPECT_EQ(0u, os::GetLastError());
    EXPECT_EQ(5, high);
    EXPECT_EQ(INVALID_SET_FILE_POINTER, os::SetFilePointer(handle, 1, nullptr, FILE_CURRENT));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, os::GetLastError());
    EXPECT_EQ(INVALID_SET_FILE_POINTER, os::SetFilePointer(handle, 0, nullptr, 3));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, os::GetLastError());

    os::SetFilePointer(handle, 300, nullptr, FILE_BEGIN);
    EXPECT_TRUE(os::SetEndOfFile(handle));
    EXPECT_EQ(300, SizeOf(file.Name));
    EXPECT_TRUE(os::SetFileLength(handle, (5ull << 30) + 1));
    DWORD upper = 0;
    EXPECT_EQ((5u << 30) + 1, os::GetFileSize(handle, &upper));
    EXPECT_EQ(1u, upper);
    LARGE_INTEGER size;
    EXPECT_TRUE(os::GetFileSizeEx(handle, &size));
    EXPECT_EQ((5ll << 30) + 1, size.QuadPart);
    EXPECT_TRUE(os::FlushFileBuffers(handle));
    os::CloseHandle(handle);

    const HANDLE readOnly = file.Open(0, GENERIC_READ);
    EXPECT_FALSE(os::SetFileLength(readOnly, 0));
    EXPECT_EQ(ERROR_ACCESS_DENIED, os::GetLastError());
    EXPECT_FALSE(os::FlushFileBuffers(readOnly));
    os::CloseHandle(readOnly);
    EXPECT_EQ(INVALID_SET_FILE_POINTER, os::SetFilePointer(readOnly, 0, nullptr, FILE_BEGIN));
    EXPECT_EQ(ERROR_INVALID_HANDLE, os::GetLastError());
}

TEST(File, MovingAndDeleting) {
    Scratch a("move_a"), b("move_b"), c("move_c");
    a.Fill(10), b.Fill(20);
    EXPECT_FALSE(os::MoveFileExA(a.Name.c_str(), b.Name.c_str(), 0));
    EXPECT_EQ(ERROR_ALREADY_EXISTS, os::GetLastError());
    EXPECT_EQ(10, SizeOf(a.Name));
    EXPECT_TRUE(os::MoveFileExA(a.Name.c_str(), b.Name.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
    EXPECT_EQ(10, SizeOf(b.Name));
    EXPECT_EQ(-1, SizeOf(a.Name));
    EXPECT_FALSE(os::MoveFileExA(a.Name.c_str(), c.Name.c_str(), MOVEFILE_REPLACE_EXISTING));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, os::GetLastError());
    EXPECT_TRUE(os::DeleteFileA(b.Name.c_str()));
    EXPECT_FALSE(os::DeleteFileA(b.Name.c_str()));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, os::GetLastError());
    EXPECT_FALSE(os::DeleteFileA("."));
    EXPECT_EQ(ERROR_ACCESS_DENIED, os::GetLastError());

    // Delete on close: with the last handle, and only what was opened.
    const HANDLE handle = c.Open(FILE_FLAG_DELETE_ON_CLOSE, kBoth, CREATE_NEW);
    HANDLE copy = nullptr;
    ASSERT_TRUE(os::DuplicateHandle(os::GetCurrentProcess(), handle, os::GetCurrentProcess(), &copy, 0, FALSE,
                                    DUPLICATE_SAME_ACCESS));
    os::CloseHandle(handle);
    EXPECT_EQ(0, SizeOf(c.Name));
    os::CloseHandle(copy);
    EXPECT_EQ(-1, SizeOf(c.Name));
    const HANDLE again = c.Open(FILE_FLAG_DELETE_ON_CLOSE, kBoth, CREATE_NEW);
    unlink(c.Name.c_str());
    c.Fill(5);
    os::CloseHandle(again);
    EXPECT_EQ(5, SizeOf(c.Name)) << "somebody else's file by then";
}

TEST(File, OpeningAFifoNeverWaits) {
    Scratch fifo("fifo");
    fifo.Fifo();
    EXPECT_EQ(ERROR_NOT_READY, Open(fifo.Name.c_str(), GENERIC_WRITE, OPEN_EXISTING).Error);
    const HANDLE reader = fifo.Open(0, GENERIC_READ), writer = fifo.Open(0, GENERIC_WRITE);
    char buffer[10];
    DWORD got;
    // Once both ends are there a synchronous read waits for data like any other.
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_TRUE(os::WriteFile(writer, "data", 4, nullptr, nullptr));
    });
    EXPECT_TRUE(os::ReadFile(reader, buffer, 10, &got, nullptr));
    EXPECT_EQ(4u, got);
    late.join();
    EXPECT_EQ(INVALID_SET_FILE_POINTER, os::SetFilePointer(reader, 0, nullptr, FILE_BEGIN));
    os::CloseHandle(writer);
    EXPECT_FALSE(os::ReadFile(reader, buffer, 10, &got, nullptr));
    EXPECT_EQ(ERROR_BROKEN_PIPE, os::GetLastError());
    os::CloseHandle(reader);
}
