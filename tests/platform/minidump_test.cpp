// Minidump files: what is in them for threads in every state and for handles, and writes that fail. The process, its
// modules and their identifiers: a debugger shows them, see the integration tests.
#include "platform/base/minidump.h"

#include <signal.h>

#include <fstream>
#include <map>

#include "support.h"
#include "support/sanitizers.h"

namespace {

using namespace os::minidump;

// A file as a reader sees it; every access is checked against its length.
struct Dump {
    std::string Bytes;
    std::map<uint32_t, Location> Streams;

    template <typename T>
    T At(uint64_t rva) const {
        T value{};
        EXPECT_LE(rva + sizeof value, Bytes.size());
        if (rva + sizeof value <= Bytes.size()) memcpy(&value, Bytes.data() + rva, sizeof value);
        return value;
    }
    std::string Text(uint32_t rva) const {
        std::string text;
        for (uint32_t i = 0; i < At<uint32_t>(rva) / 2; i++) text += static_cast<char>(At<uint16_t>(rva + 4 + i * 2));
        EXPECT_EQ(At<uint16_t>(rva + 4 + text.size() * 2), 0);
        return text;
    }
    template <typename T>
    std::vector<T> List(uint32_t type) const {
        const Location where = Streams.at(type);
        const uint32_t count = At<uint32_t>(where.Rva);
        EXPECT_EQ(where.Bytes, 4 + count * sizeof(T));
        std::vector<T> list;
        for (uint32_t i = 0; i < count; i++) list.push_back(At<T>(where.Rva + 4 + i * sizeof(T)));
        return list;
    }
    const Thread *Find(const std::vector<Thread> &threads, int tid) const {
        for (const Thread &thread : threads)
            if (thread.Id == static_cast<uint32_t>(tid)) return &thread;
        return nullptr;
    }
    // The word at an address of the process, from the stacks; 0 when none has it.
    uint64_t Word(uint64_t address) const {
        for (const Memory &memory : List<Memory>(kMemoryList))
            if (address >= memory.Start && address + 8 <= memory.Start + memory.Where.Bytes)
                return At<uint64_t>(memory.Where.Rva + (address - memory.Start));
        return 0;
    }
};

Dump WriteAndRead(DWORD type = os::kMiniDumpWithHandleData) {
    const std::string name = "zvx_dump_" + std::to_string(gettid());
    HANDLE file = os::CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                  0, nullptr);
    EXPECT_TRUE(os::MiniDumpWriteDump(os::GetCurrentProcess(), os::GetCurrentProcessId(), file, type, nullptr, nullptr,
                                      nullptr));
    os::CloseHandle(file);
    std::ifstream stream(name, std::ios::binary);
    unlink(name.c_str());
    Dump dump;
    dump.Bytes.assign(std::istreambuf_iterator<char>(stream), {});
    const Header header = dump.At<Header>(0);
    EXPECT_EQ(header.Signature, kSignature);
    EXPECT_EQ(header.Version & 0xFFFF, kVersion);
    for (uint32_t i = 0; i < header.StreamCount; i++) {
        const Directory entry = dump.At<Directory>(header.DirectoryRva + i * sizeof(Directory));
        EXPECT_TRUE(dump.Streams.emplace(entry.Type, entry.Where).second) << "twice: " << entry.Type;
        EXPECT_LE(uint64_t{entry.Where.Rva} + entry.Where.Bytes, dump.Bytes.size());
    }
    return dump;
}

// A thread that says where it is, in the state that `stay` keeps it in until Leave is set.
struct Stayer {
    std::atomic<int> Tid{0};
    std::atomic<uint64_t> Marker{0};  // address of a word on its stack
    std::atomic<bool> Leave{false};
    std::thread Thread;

    template <typename Body>
    explicit Stayer(Body stay) {
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

// That the thread is there, with its own stack around its stack pointer.
void ExpectShown(const Dump &dump, const Stayer &stayer, bool registers) {
    const auto threads = dump.List<Thread>(kThreadList);
    const Thread *thread = dump.Find(threads, stayer.Tid);
    ASSERT_NE(thread, nullptr);
    const Context context = dump.At<Context>(thread->Context.Rva);
    EXPECT_EQ(thread->Context.Bytes, sizeof(Context));
    // ThreadSanitizer holds signals back until the thread makes a call.
    if (!kThreadSanitizer) {
        EXPECT_EQ(context.Flags, registers ? kContextFull : kContextControl);
    }
    EXPECT_NE(context.Rip, 0u);
    EXPECT_LE(context.Rsp, stayer.Marker) << "the marker lies in a frame below the top";
    EXPECT_EQ(dump.Word(stayer.Marker), 0x5A5A0000u + static_cast<uint64_t>(stayer.Tid));
}

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
        const Dump dump = WriteAndRead();
        for (const Stayer *stayer : {&runs, &blocks}) ExpectShown(dump, *stayer, true);
        ExpectShown(dump, deaf, false);
        const auto threads = dump.List<Thread>(kThreadList);
        EXPECT_GE(threads.size(), 4u);
        const Thread *self = dump.Find(threads, gettid());
        ASSERT_NE(self, nullptr);
        EXPECT_EQ(dump.At<Context>(self->Context.Rva).Flags, kContextFull);
        EXPECT_LT(dump.Bytes.size(), 300u * 1024);
    }
    EXPECT_LT(MillisecondsSince(start), 900) << "a thread that does not answer is waited for once, not in every dump";
    EXPECT_EQ(got, -2);
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    blocks.Leave = true;
}

TEST(Minidump, HandlesWithTypesAndNames) {
    const std::string name = "zvx_dump_" + std::to_string(getpid());
    HANDLE event = os::CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    HANDLE copy = Duplicate(event);
    HANDLE thread = os::CreateBackingThread(nullptr, nullptr, nullptr, nullptr, nullptr);
    const Dump dump = WriteAndRead();
    const uint32_t at = dump.Streams.at(kHandleData).Rva;
    const HandleData head = dump.At<HandleData>(at);
    std::map<uint64_t, std::string> seen;
    for (uint32_t i = 0; i < head.Count; i++) {
        const auto entry = dump.At<HandleDescriptor>(at + head.HeaderBytes + i * uint64_t{head.DescriptorBytes});
        seen[entry.Handle] = dump.Text(entry.TypeRva) + "/" + std::to_string(entry.HandleCount) + "/" +
                             (entry.NameRva != 0 ? dump.Text(entry.NameRva) : "");
    }
    const auto value = [](HANDLE handle) { return reinterpret_cast<uint64_t>(handle); };
    EXPECT_EQ(seen[value(event)], "Event/2/" + name);
    EXPECT_EQ(seen[value(copy)], "Event/2/" + name);
    EXPECT_EQ(seen[value(thread)], "Thread/1/");
    EXPECT_EQ(seen.size(), 4u) << "and the file itself";
    EXPECT_EQ(WriteAndRead(0).Streams.count(kHandleData), 0u);
}

// A file at the process's limit is a case of the dumps of a whole host.
TEST(Minidump, WritesThatFail) {
    const auto error = [](HANDLE process, HANDLE to) {
        os::SetLastError(0);
        EXPECT_FALSE(os::MiniDumpWriteDump(process, os::GetCurrentProcessId(), to, 0, nullptr, nullptr, nullptr));
        return os::GetLastError();
    };
    HANDLE full = os::CreateFileA("/dev/full", GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(error(os::GetCurrentProcess(), full), ERROR_DISK_FULL);
    EXPECT_EQ(error(os::GetCurrentProcess(), nullptr), ERROR_INVALID_HANDLE);
    EXPECT_EQ(error(nullptr, full), ERROR_INVALID_PARAMETER);
}

// Two at once, while threads come and go.
TEST(Minidump, AtTheSameTime) {
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) std::thread([] {}).join();
    });
    const auto write = [] {
        for (int i = 0; i < 20; i++) WriteAndRead();
    };
    Together(write, write);
    stop = true;
    churn.join();
}
