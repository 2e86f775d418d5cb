// host/fileio.cpp - writes and reads that are split in steps and run side by side.
#include "fileio.h"

#include <atomic>
#include <cstring>
#include <memory>

namespace host {

namespace {

// Steps in flight for one caller. The routines run on the caller's thread, in its alertable wait.
struct Group {
    DWORD Ended = 0;
    DWORD Outstanding = 0;
    DWORD Error = ERROR_SUCCESS;
    uint64_t Moved = 0;
};

struct Step {
    OVERLAPPED Ov;  // first: the routine gets its address
    Group *Of;
    DWORD Size;
};

void WINAPI StepEnded(DWORD error, DWORD bytes, LPOVERLAPPED overlapped) {
    Step *const step = reinterpret_cast<Step *>(overlapped);
    Group *const group = step->Of;
    // A write that moved less than it was given met the end of the disk or a limit, which the next one would name.
    if (error == ERROR_SUCCESS && bytes != step->Size) error = ERROR_DISK_FULL;
    if (error != ERROR_SUCCESS) group->Error = error;
    group->Moved += bytes;
    group->Ended++;
    group->Outstanding--;
}

constexpr size_t kSteps = 16;  // in flight at most

}  // namespace

std::string PathOf(const std::string &name) {
    return gOptions.Dir + "/" + name;
}

HANDLE OpenForBlocks(const std::string &name, DWORD disposition, bool writeThrough) {
    return CreateFileA(PathOf(name).c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                       disposition, FILE_FLAG_OVERLAPPED | (writeThrough ? FILE_FLAG_WRITE_THROUGH : 0), nullptr);
}

DWORD WriteBlocks(HANDLE file, uint64_t offset, const char *data, size_t size, size_t step) {
    Group group;
    Step few[2];
    std::unique_ptr<Step[]> many;
    while (size != 0 && group.Error == ERROR_SUCCESS) {
        Step *steps = few;
        if (size > 2 * step) {
            if (many == nullptr) many = std::make_unique<Step[]>(kSteps);
            steps = many.get();
        }
        group.Ended = group.Outstanding = 0;
        DWORD started = 0;
        for (; size != 0 && started < (steps == few ? 2 : kSteps); started++) {
            const size_t now = size < step ? size : step;
            steps[started] = Step{OVERLAPPED{}, &group, static_cast<DWORD>(now)};
            steps[started].Ov.Offset = static_cast<DWORD>(offset);
            steps[started].Ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
            group.Outstanding++;
            if (!WriteFileEx(file, data, static_cast<DWORD>(now), &steps[started].Ov, StepEnded)) {
                group.Outstanding--;
                group.Error = GetLastError();
                break;
            }
            offset += now;
            data += now;
            size -= now;
        }
        while (group.Outstanding != 0) ZSleepExN(0, started, &group.Ended, &group.Outstanding);
    }
    return group.Error;
}

DWORD ReadBlocks(HANDLE file, uint64_t offset, char *data, size_t size, size_t *got) {
    constexpr DWORD kStep = 1 << 20;
    *got = 0;
    while (*got < size) {
        const size_t left = size - *got;
        OVERLAPPED overlapped{};
        overlapped.Offset = static_cast<DWORD>(offset + *got);
        overlapped.OffsetHigh = static_cast<DWORD>((offset + *got) >> 32);
        DWORD bytes = 0;
        if (!ReadFile(file, data + *got, static_cast<DWORD>(left < kStep ? left : kStep), &bytes, &overlapped)) {
            DWORD error = GetLastError();
            if (error == ERROR_IO_PENDING) {
                error = GetOverlappedResult(file, &overlapped, &bytes, TRUE) ? DWORD{ERROR_SUCCESS} : GetLastError();
            }
            if (error == ERROR_HANDLE_EOF) break;
            if (error != ERROR_SUCCESS) return error;
        }
        if (bytes == 0) break;
        *got += bytes;
    }
    return ERROR_SUCCESS;
}

namespace {

struct BlockingCall {
    const std::function<DWORD()> &Call;
    DWORD Result = 0;
    std::atomic<bool> Done{false};  // the thread's last touch
};

DWORD WINAPI BlockingThread(LPVOID argument) {
    auto *const call = static_cast<BlockingCall *>(argument);
    call->Result = call->Call();
    call->Done.store(true, std::memory_order_release);
    return 0;
}

}  // namespace

DWORD RunBlocking(const std::function<DWORD()> &function) {
    BlockingCall call{function};
    const HANDLE thread = CreateRemoteThread(GetCurrentProcess(), nullptr, 0, BlockingThread, &call, 0, nullptr);
    if (thread == nullptr) return function();
    // Whatever the wait says: the thread works with what lies on this stack.
    while (!call.Done.load(std::memory_order_acquire)) {
        if (WaitForSingleObject(thread, INFINITE) != WAIT_OBJECT_0) Sleep(1);
    }
    CloseHandle(thread);
    return call.Result;
}

}  // namespace host
