// tests/platform/minidump_test.cpp - minidump files: what is in them for threads in every state. The process, its
// modules and their identifiers, handles, and files without room: a debugger shows them, see the integration tests.
#include "platform/base/minidump.h"

#include <signal.h>

#include <functional>
#include <map>

#include "support.h"

namespace {

using namespace os::minidump;

// A file as a reader sees it; every access is checked against its length.
struct Dump {
    std::string Bytes;
    std::map<uint32_t, Location> Streams;

    Dump() {
        const Scratch scratch(0);
        const HANDLE file = scratch.Open(0);
        EXPECT_TRUE(os::MiniDumpWriteDump(os::GetCurrentProcess(), os::GetCurrentProcessId(), file,
                                          os::kMiniDumpWithHandleData, nullptr, nullptr, nullptr));
        os::CloseHandle(file);
        Bytes = ReadWhole(scratch.Name);
        const Header header = At<Header>(0);
        EXPECT_TRUE(header.Signature == kSignature && (header.Version & 0xFFFF) == kVersion);
        for (uint32_t i = 0; i < header.StreamCount; i++) {
            const Directory entry = At<Directory>(header.DirectoryRva + i * sizeof(Directory));
            EXPECT_TRUE(Streams.emplace(entry.Type, entry.Where).second) << "twice: " << entry.Type;
            EXPECT_LE(uint64_t{entry.Where.Rva} + entry.Where.Bytes, Bytes.size());
        }
    }
    template <typename T>
    T At(uint64_t rva) const {
        T value{};
        EXPECT_LE(rva + sizeof value, Bytes.size());
        if (rva + sizeof value <= Bytes.size()) memcpy(&value, Bytes.data() + rva, sizeof value);
        return value;
    }
    template <typename T>
    std::vector<T> List(uint32_t type) const {
        const Location where = Streams.at(type);
        std::vector<T> list(At<uint32_t>(where.Rva));
        EXPECT_EQ(where.Bytes, 4 + list.size() * sizeof(T));
        for (size_t i = 0; i < list.size(); i++) list[i] = At<T>(where.Rva + 4 + i * sizeof(T));
        return list;
    }
    // The word at an address of the process, from the stacks; 0 when none has it.
    uint64_t Word(uint64_t address) const {
        for (const Memory &memory : List<Memory>(kMemoryList))
            if (address >= memory.Start && address + 8 <= memory.Start + memory.Where.Bytes)
                return At<uint64_t>(memory.Where.Rva + (address - memory.Start));
        return 0;
    }
    // That the thread is there, with that word of its own stack in a frame below its stack pointer.
    void ExpectThread(int tid, [[maybe_unused]] uint32_t registers, uint64_t marker) const {
        int found = 0;
        for (const Thread &thread : List<Thread>(kThreadList)) {
            if (thread.Id != static_cast<uint32_t>(tid)) continue;
            found++;
            const Context context = At<Context>(thread.Context.Rva);
#if !defined(ZVX_TSAN)  // which holds signals back until the thread makes a call
            EXPECT_EQ(context.Flags, registers);
#endif
            EXPECT_TRUE(context.Rip != 0 && context.Rsp <= marker);
            EXPECT_EQ(Word(marker), 0x5A5A0000u + static_cast<uint64_t>(tid));
        }
        EXPECT_EQ(found, 1);
    }
};

// A thread that says where it is, in the state that `stay` keeps it in until Leave is set.
struct Stayer {
    std::atomic<int> Tid{0};
    std::atomic<uint64_t> Marker{0};  // address of a word on its stack
    std::atomic<bool> Leave{false};
    std::thread Thread;

    explicit Stayer(std::function<void(Stayer *)> stay) {
        Thread = std::thread([this, stay] {
            volatile uint64_t word = 0x5A5A0000u + static_cast<uint64_t>(gettid());
            Marker = reinterpret_cast<uint64_t>(&word);
            Tid = gettid();
            stay(this);
        });
        while (Tid == 0) Pause(1);
    }
    ~Stayer() {
        Leave = true;
        Thread.join();
    }
};

}  // namespace

TEST(Minidump, ThreadsInEveryState) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Stayer runs([](Stayer *self) {
        while (!self->Leave) os::CpuRelax();
    });
    // A read that was interrupted goes on: the writer of the dump does not end it.
    std::atomic<ssize_t> got{-2};
    Stayer blocks([&](Stayer *) {
        char byte;
        got = read(ends[0], &byte, 1);
    });
    // One that no signal reaches is shown where the kernel has it.
    Stayer deaf([](Stayer *self) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        while (!self->Leave) usleep(100000);
    });
    Pause(20);
    const auto start = std::chrono::steady_clock::now();
    for (int round = 0; round < 3; round++) {
        const volatile uint64_t own = 0x5A5A0000u + static_cast<uint64_t>(gettid());
        const Dump dump;
        for (const Stayer *stayer : {&runs, &blocks}) dump.ExpectThread(stayer->Tid, kContextFull, stayer->Marker);
        dump.ExpectThread(deaf.Tid, kContextControl, deaf.Marker);
        dump.ExpectThread(gettid(), kContextFull, reinterpret_cast<uint64_t>(&own));
        EXPECT_LT(dump.Bytes.size(), 300u * 1024);
        EXPECT_EQ(dump.Streams.count(kHandleData), 1u);
    }
    EXPECT_LT(MillisecondsSince(start), 900) << "a thread that does not answer is waited for once, not in every dump";
    EXPECT_EQ(got, -2);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
}
