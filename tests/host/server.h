// tests/host/server.h - a server in a child process, and a client of it over plain sockets of the C library.
//
// The test's process does not link the library. Every wait here has a limit, so that a server that hangs fails a case
// and not the run.
#ifndef ZVX_TESTS_HOST_SERVER_H
#define ZVX_TESTS_HOST_SERVER_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace keyhost_test {

struct Mode {
    const char *Name;
    const char *Io;        // ZVXKVT_IO, null for the probed one
    const char *Argument;  // one more option, or null
};
inline void PrintTo(const Mode &mode, std::ostream *out) {
    *out << mode.Name;
}
inline const Mode kModes[] = {
    {"io_uring", "io_uring", nullptr}, {"epoll", "epoll", nullptr}, {"threads", nullptr, "--threads"}};

inline std::string ReadWhole(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

template <typename Condition>
bool Await(Condition condition) {
    for (int i = 0; i < 2400; i++) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

struct Server {
    explicit Server(const Mode &mode) : Is(mode) {
        std::filesystem::remove_all(Folder);
        std::filesystem::create_directories(Folder);
    }
    ~Server() {
        Kill();
        std::filesystem::remove_all(Folder);
    }
    Server(const Server &) = delete;

    // False when the process ended before it was ready; Text() says why.
    bool Start(const std::vector<std::string> &arguments = {}, const char *failPoint = nullptr) {
        const std::string data = Folder + "/data", out = Folder + "/out.txt";
        // Small log files, so that a start does not fill large ones.
        std::vector<std::string> all{KEYHOST,     "--port",  "0",           "--dir",  data,
                                     "--segment", "1048576", "--max-value", "1100000"};
        if (Is.Argument != nullptr) all.push_back(Is.Argument);
        all.insert(all.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &text : all) argv.push_back(text.data());
        argv.push_back(nullptr);
        const int file = open(out.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
        Child = fork();
        if (Child == 0) {
            for (const int to : {1, 2}) dup2(file, to);
            if (Is.Io != nullptr) setenv("ZVXKVT_IO", Is.Io, 1);
            if (failPoint != nullptr) setenv("ZVXKVT_FAIL", failPoint, 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(file);
        Port = 0;
        Await([&] {
            const std::string text = Text();
            const size_t at = text.find("ready on ");
            if (at != text.npos && text.find('\n', at) != text.npos)
                Port = static_cast<uint16_t>(std::atoi(text.c_str() + text.find(':', at) + 1));
            return Port != 0 || Ended(WNOHANG);
        });
        return Port != 0;
    }
    void Kill() {
        if (Child <= 0) return;
        kill(Child, SIGKILL);
        Ended(0);
    }
    // The exit code; -1 when it does not end in time, or ends by a signal.
    int AwaitEnd() {
        return Await([&] { return Ended(WNOHANG); }) ? ExitCode : -1;
    }
    bool Ended(int flags) {
        int status = 0;
        if (Child <= 0 || waitpid(Child, &status, flags) != Child) return Child <= 0;
        ExitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        Child = 0;
        return true;
    }
    std::string Text() const { return ReadWhole(Folder + "/out.txt"); }
    std::string File(const std::string &name) const { return Folder + "/data/" + name; }

    Mode Is;
    const std::string Folder =
        (std::filesystem::temp_directory_path() / ("keyhost_" + std::to_string(getpid()))).string();
    pid_t Child = 0;
    int ExitCode = -1;
    uint16_t Port = 0;
};

struct OnEachBackEnd : testing::TestWithParam<Mode> {
    Server Host{GetParam()};
};
#define ON_EACH_BACK_END(Suite)                                    \
    INSTANTIATE_TEST_SUITE_P(On, Suite, testing::ValuesIn(kModes), \
                             [](const auto &mode) { return std::string(mode.param.Name); })

inline std::string Request(const std::vector<std::string> &words) {
    std::string text = "*" + std::to_string(words.size()) + "\r\n";
    for (const std::string &word : words) text += "$" + std::to_string(word.size()) + "\r\n" + word + "\r\n";
    return text;
}

struct Client {
    explicit Client(const Server &server) {
        const timeval limit{10, 0};
        setsockopt(Fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(Fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        const int on = 1;
        setsockopt(Fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(server.Port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(Fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    ~Client() { fclose(In); }
    Client(const Client &) = delete;

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t moved = send(Fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (moved <= 0) return false;
            bytes.remove_prefix(static_cast<size_t>(moved));
        }
        return true;
    }
    // One answer as text: +OK, -ERR ..., :5, $bytes, nil, [a b]. "closed" at the end of the connection.
    std::string Answer() {
        char *text = nullptr;
        size_t room = 0;
        const ssize_t got = getline(&text, &room, In);
        const std::string line(text, got > 2 ? static_cast<size_t>(got) - 2 : 0);
        free(text);
        if (line.empty()) return "closed";
        const long count = std::atol(line.c_str() + 1);
        if (line[0] != '$' && line[0] != '*') return line;
        if (count < 0) return "nil";
        std::string all = line[0] == '$' ? "$" : "[";
        if (line[0] == '$') {
            all.resize(static_cast<size_t>(count) + 3);
            if (fread(all.data() + 1, all.size() - 1, 1, In) != 1) return "closed";
            return all.substr(0, all.size() - 2);
        }
        for (long i = 0; i < count; i++) {
            const std::string item = Answer();
            all += (i != 0 ? " " : "") + (item[0] == '$' ? item.substr(1) : item);
        }
        return all + "]";
    }
    std::string Ask(const std::vector<std::string> &words) { return Send(Request(words)) ? Answer() : "closed"; }
    std::string Ask(const std::string &line) {
        std::istringstream in(line);
        return Ask(std::vector<std::string>{std::istream_iterator<std::string>(in), {}});
    }
    // Whether the server has closed the connection, reading what comes before.
    bool AwaitClose() {
        while (getc(In) != EOF) continue;
        return feof(In) != 0 || errno == ECONNRESET;
    }

    const int Fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    FILE *const In = fdopen(Fd, "r");
};

// The number behind "name:" in an INFO answer.
inline long Figure(Client &client, const std::string &name) {
    const std::string info = client.Ask("INFO");
    const size_t at = info.find("\n" + name + ":");
    return at == info.npos ? -1 : std::atol(info.c_str() + at + name.size() + 2);
}

}  // namespace keyhost_test

#endif  // ZVX_TESTS_HOST_SERVER_H
