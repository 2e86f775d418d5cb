// tests/host/upheaval_test.cpp - everything that an operator can do to a server at once, under load: dumps of every
// user thread, a scheduler of its own for the log writer, routines injected into every session, a checkpoint.
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>

#include "server.h"
#include "zvxkvt/osapi.h"
#include "zvxkvt/zvxkvt.h"

namespace keyhost_test {
namespace {

// A connection by the kernel's calls: in this program the plain names are the library's.
struct RawClient {
    explicit RawClient(uint16_t port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        Fd = static_cast<int>(syscall(SYS_socket, AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        Good = syscall(SYS_connect, Fd, &address, sizeof address) == 0;
    }
    ~RawClient() { close(Fd); }
    // The answer's first line; empty when the connection is gone.
    std::string Ask(const std::string &text) {
        if (write(Fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) return "";
        std::string line;
        char buffer[4096];
        while (line.find("\r\n") == line.npos) {
            const ssize_t got = read(Fd, buffer, sizeof buffer);
            if (got <= 0) return "";
            line.append(buffer, static_cast<size_t>(got));
        }
        return line;
    }
    int Fd;
    bool Good;
};

std::string Set(const std::string &key, uint64_t value) {
    const std::string text = std::to_string(value);
    return "*3\r\n$3\r\nSET\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n$" + std::to_string(text.size()) +
           "\r\n" + text + "\r\n";
}

struct Upheaval : testing::TestWithParam<Mode> {
    Server Host{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(On, Upheaval, testing::Values(kModes[0], kModes[1]),
                         [](const testing::TestParamInfo<Mode> &mode) { return std::string(mode.param.Name); });

size_t Dumps(const std::string &folder) {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator(folder))
        if (entry.path().extension() == ".dmp" && entry.file_size() > 1000) count++;
    return count;
}

// Kernel threads of the server by name, less the workers that the kernel adds for the rings.
std::multiset<std::string> Tasks(pid_t process) {
    std::multiset<std::string> names;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        const std::string name = ReadWhole(task.path() / "comm");
        if (name.compare(0, 4, "iou-") != 0) names.insert(name);
    }
    return names;
}

TEST_P(Upheaval, DumpsAMoveAndRoutinesAtOnceLoseNothing) {
    const std::string name = "\\\\.\\pipe\\upheaval-" + std::to_string(getpid());
    const std::string instance = "UP" + std::to_string(getpid());
    ASSERT_TRUE(Host.Start(
        {"--admin-pipe", name.substr(9), "--migrate-lgwr", "later", "--schedulers", "2", "--trace-dir", Host.Folder},
        {"ZORVEX_SID=" + instance}))
        << Host.Text();
    constexpr size_t kClients = 24;
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> total{0}, started{0};
    std::vector<uint64_t> acknowledged(kClients);
    std::vector<std::thread> clients;
    for (size_t i = 0; i < kClients; i++) {
        clients.emplace_back([&, i] {
            RawClient client(Host.Port);
            ASSERT_TRUE(client.Good);
            for (uint64_t value = 1; !stop; value++) {
                const std::string answer = client.Ask(Set("key" + std::to_string(i), value));
                ASSERT_EQ("+OK\r\n", answer) << "client " << i << " at " << value;
                acknowledged[i] = value;
                total++;
                started += value == 1;
            }
        });
    }
    const auto ask = [&name](std::string request) {
        char answer[4096];
        DWORD got = 0;
        const BOOL done = CallNamedPipeA(name.c_str(), request.data(), static_cast<DWORD>(request.size()), answer,
                                         sizeof answer, &got, 20000);
        return done ? std::string(answer, got) : "!" + std::to_string(GetLastError());
    };
    EXPECT_TRUE(Await([&] { return started == kClients && total > 500; }));
    const size_t tasks = Tasks(Host.Child).size();
    const HANDLE event = OpenEventA(EVENT_ALL_ACCESS, FALSE, ("zorvex_zvxkvt_debugger_" + instance).c_str());
    ASSERT_NE(nullptr, event) << GetLastError();
    EXPECT_TRUE(SetEvent(event));
    EXPECT_EQ("requested", ask("migrate-lgwr"));
    for (int i = 0; i < 5; i++) {
        const std::string answer = ask("probe");
        EXPECT_EQ("asked:" + std::to_string(kClients) + " answered:" + std::to_string(kClients), answer);
        EXPECT_EQ("paused:" + std::to_string(kClients), ask("pause"));
        if (i == 1) ask("checkpoint");
        if (i == 2) SetEvent(event);
    }
    // A log writer that is just between two schedulers is nobody's to dump.
    EXPECT_TRUE(Await([&] { return Dumps(Host.Folder) >= kClients + 7; }, 20000)) << Dumps(Host.Folder);
    const uint64_t before = total;
    EXPECT_TRUE(Await([&] { return total > before + 500; }));
    EXPECT_TRUE(Await([&] { return Tasks(Host.Child).size() == tasks + 1; }))
        << tasks << testing::PrintToString(Tasks(Host.Child));
    stop = true;
    for (std::thread &client : clients) client.join();
    Host.Kill();
    CloseHandle(event);

    ASSERT_TRUE(Host.Start()) << Host.Text();
    RawClient reader(Host.Port);
    for (size_t i = 0; i < kClients; i++) {
        const std::string key = "key" + std::to_string(i);
        const std::string answer =
            reader.Ask("*2\r\n$3\r\nGET\r\n$" + std::to_string(key.size()) + "\r\n" + key + "\r\n");
        EXPECT_EQ(std::to_string(acknowledged[i]),
                  answer.substr(answer.find('\n') + 1, answer.size() - answer.find('\n') - 3));
    }
}

}  // namespace
}  // namespace keyhost_test
