// tests/host/faults_test.cpp - a log that cannot be written, and files that were damaged.
#include <atomic>
#include <map>

#include "server.h"

namespace keyhost_test {
namespace {

struct Faulty : OnEachBackEnd {
    // Changes one byte of a file.
    void Damage(const std::string &name, size_t offset) {
        std::string bytes = ReadWhole(Host.File(name));
        bytes.at(offset) ^= 0x55;
        std::ofstream(Host.File(name), std::ios::binary) << bytes;
    }
    // With that byte changed the server does not start, and says why.
    void Refuses(const std::string &name, size_t offset, const std::string &why) {
        Damage(name, offset);
        EXPECT_FALSE(Host.Start());
        EXPECT_EQ(Host.ExitCode, 1);
        EXPECT_NE(Host.Text().find(why), std::string::npos) << Host.Text();
        Damage(name, offset);
    }
};

ON_EACH_BACK_END(Faulty);

[[maybe_unused]] bool IsMisconf(const std::string &answer) {
    return answer.substr(0, 8) == "-MISCONF";
}

// A file in the place of the next segment, as an attempt leaves it that fails behind its move, is replaced.
TEST_P(Faulty, SegmentThatIsThere) {
    ASSERT_TRUE(Host.Start({"--checkpoint", "1000000000"})) << Host.Text();
    ASSERT_TRUE(Await([&] { return std::filesystem::exists(Host.File("log-1.dat")); }));
    std::ofstream(Host.File("log-2.dat")) << "left";
    // Two segments are not enough for it.
    const std::string value(1 << 20, 'v');
    for (int i = 0; i < 20; i++) ASSERT_EQ(Client(Host).Ask({"SET", std::to_string(i), value}), "+OK");
    Host.Kill();
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("DBSIZE"), ":20");
}

// A value from a time with a larger --max-value is logged anew by EXPIRE, in a segment in which it fits.
TEST_P(Faulty, ValueLargerThanASegment) {
    ASSERT_TRUE(Host.Start({"--max-value", "10000000"})) << Host.Text();
    const std::string value(9900000, 'v');
    EXPECT_EQ(Client(Host).Ask({"SET", "k", value}), "+OK");
    Host.Kill();
    ASSERT_TRUE(Host.Start({"--checkpoint", "1000000000"})) << Host.Text();
    for (int i = 0; i < 6; i++) ASSERT_EQ(Client(Host).Ask("EXPIRE k 1000"), ":1");
    Host.Kill();
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("GET k"), "$" + value);
}

#ifdef ZVX_FAIL_POINTS
// A client whose connection cannot be shut down keeps its session no longer than the monitor's patience.
TEST_P(Faulty, SessionThatDoesNotNoticeItsEnd) {
    ASSERT_TRUE(Host.Start({"--request-timeout", "1"}, "shutdown:1:10022")) << Host.Text();
    Client slow(Host), other(Host);
    ASSERT_TRUE(slow.Send("*2\r\n$3\r\nGET"));
    EXPECT_TRUE(slow.AwaitClose() || slow.AwaitClose());  // it has ten seconds each time
    EXPECT_EQ(other.Ask("SET k v"), "+OK");
    EXPECT_TRUE(Await([&] { return Figure(other, "connected_clients") == 1; }));
}

// A start that cannot make durable what it has read is none. What an earlier process failed to write is in the system's
// memory as if it were written: a flush alone says nothing of it.
TEST_P(Faulty, RecoveryThatIsNotDurable) {
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("SET k v"), "+OK");
    Host.Kill();
    const char *const write = GetParam().Argument != nullptr ? "WriteFileEx:1:1117" : "WriteFile:1:1117";
    for (const char *fault : {write, "FlushFileBuffers:1:1117", "MoveFileExA:1:1117"}) {
        EXPECT_FALSE(Host.Start({}, fault)) << fault;
        EXPECT_NE(Host.Text().find("error 1117"), std::string::npos) << Host.Text();
    }
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("GET k"), "$v");
}

// A flush that failed is told, nothing is built on it, and what it was about is written again: the next flush alone
// would say nothing. The first flush is recovery's.
TEST_P(Faulty, FailedFlush) {
    const std::string filler(5000, 'f');
    for (const bool checkpoint : {false, true}) {
        if (!checkpoint) {
            ASSERT_TRUE(Host.Start()) << Host.Text();
        }
        EXPECT_EQ(Client(Host).Ask("SET before v"), "+OK");
        Host.Kill();
        // The flusher's and the writer's first attempt, or a checkpoint's.
        const char *const second = "FlushFileBuffers:2:1117";
        const char *const both = "FlushFileBuffers:2:1117,FlushFileBuffers:3:1117";
        ASSERT_TRUE(checkpoint ? Host.Start({"--durability", "no", "--checkpoint", "4096"}, second)
                               : Host.Start({"--durability", "everysec"}, both))
            << Host.Text();
        Client client(Host);
        EXPECT_EQ(client.Ask({"SET", "filler", filler}), "+OK");
        const auto shows = [&](const char *text) {
            return Await([&] { return client.Ask("INFO").find(text) != std::string::npos; });
        };
        EXPECT_TRUE(checkpoint || shows("log_status:not durable: error 1117"));
        EXPECT_TRUE(Await([&] { return Host.Text().find("written anew and durable") != std::string::npos; }))
            << Host.Text();
        EXPECT_TRUE(shows("log_status:ok"));
        EXPECT_NE(Host.Text().find("could not be flushed: error 1117"), std::string::npos) << Host.Text();
        if (!checkpoint) continue;
        EXPECT_TRUE(Await([&] { return Host.Text().find("no checkpoint: error 1117") != std::string::npos; }));
        EXPECT_EQ(Figure(client, "checkpoints"), 0);
        EXPECT_EQ(client.Ask({"SET", "again", filler}), "+OK");
        EXPECT_TRUE(Await([&] { return Figure(client, "checkpoints") == 1; })) << Host.Text();
    }
    Host.Kill();
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("MGET before filler again"), "[v " + filler + " " + filler + "]");
}

// A server that is to end while it cannot write what it has answered ends, and says so.
TEST_P(Faulty, EndWithoutTheLog) {
    ASSERT_TRUE(Host.Start()) << Host.Text();
    Host.Kill();
    std::string faults;
    for (int i = 2; i <= 31; i++)  // the first is recovery's
        faults += (GetParam().Argument != nullptr ? ",WriteFileEx:" : ",WriteFile:") + std::to_string(i) + ":112";
    ASSERT_TRUE(Host.Start({"--durability", "everysec"}, faults.c_str() + 1)) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("SET k v"), "+OK");
    EXPECT_EQ(kill(Host.Child, SIGTERM), 0);
    EXPECT_EQ(Host.AwaitEnd(), 1);
    EXPECT_NE(Host.Text().find("ended, but the log could not be written: the disk is full"), std::string::npos)
        << Host.Text();
}

// One write of the log fails. Everybody whose record was in it is refused, what they changed is taken back in the right
// order, reads go on, and a restart shows exactly what was acknowledged.
TEST_P(Faulty, OneFailedWrite) {
    // Two segments are filled with zeros first; the number leaves some writes after them. The function that the library
    // calls below WriteFileEx depends on the mode.
    const char *const call = GetParam().Argument != nullptr ? "WriteFileEx" : "WriteFile";
    ASSERT_TRUE(Host.Start({}, (std::string(call) + ":140:112").c_str())) << Host.Text();
    constexpr size_t kClients = 8;
    std::vector<std::map<std::string, std::string>> models(kClients);
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (size_t c = 0; c < kClients; c++) {
        threads.emplace_back([&, c] {
            Client client(Host);
            for (int i = 0; i < 120; i++) {
                const std::string key = "k" + std::to_string(c) + "_" + std::to_string(i % 7);
                const std::string value = std::to_string(i);
                // Two writes to one key in one piece: both or neither, and the first of them must not stay.
                client.Send(Request({"APPEND", key, "x"}) + Request({"SET", key, value}) +
                            Request({"MSET", key + "a", value, key + "b", value}));
                for (const char *what : {"append", "set", "mset"}) {
                    const std::string answer = client.Answer();
                    ASSERT_TRUE(IsMisconf(answer) || answer == "+OK" || answer[0] == ':') << answer;
                    if (IsMisconf(answer))
                        refused++;
                    else if (*what == 'm')
                        models[c][key + "a"] = models[c][key + "b"] = value;
                    else
                        models[c][key] = *what == 's' ? value : models[c][key] + "x";
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_GT(refused.load(), 0) << Host.Text();
    for (int round = 0; round < 2; round++) {
        Client client(Host);
        size_t keys = 0;
        for (const auto &model : models) {
            keys += model.size();
            for (const auto &[key, value] : model) EXPECT_EQ(client.Ask({"GET", key}), "$" + value) << key;
        }
        EXPECT_EQ(client.Ask("DBSIZE"), ":" + std::to_string(keys));
        if (round == 0) {
            Host.Kill();
            ASSERT_TRUE(Host.Start()) << Host.Text();
        }
    }
}
#endif

// What was durable and cannot be read keeps the server from starting; a torn end does not. Checkpoints: tests/fuzz.
TEST_P(Faulty, DamagedLog) {
    ASSERT_TRUE(Host.Start()) << Host.Text();
    {
        Client client(Host);
        for (int i = 0; i < 20; i++)
            ASSERT_EQ(client.Ask("SET key" + std::to_string(i) + " value" + std::to_string(i)), "+OK");
    }
    Host.Kill();
    const size_t middle = ReadWhole(Host.File("log-0.dat")).find("value7");
    Refuses("log-0.dat", middle, "damaged record, and the log goes on");
    Refuses("log-0.dat", 3, "log-0.dat: offset 0: damaged header of a log segment");
    // The last record is what a write leaves behind that was under way: it goes, and nothing else.
    Damage("log-0.dat", ReadWhole(Host.File("log-0.dat")).find("value19"));
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(Host.Start()) << Host.Text();
        Client client(Host);
        EXPECT_EQ(client.Ask("DBSIZE"), ":" + std::to_string(19 + round));
        EXPECT_EQ(client.Ask("GET key19"), round == 0 ? "nil" : "$again");
        EXPECT_EQ(client.Ask("SET key19 again"), "+OK");
        Host.Kill();
    }
    // What was lost behind a torn record does not come back when another run writes that record again. It fills its
    // block, whose rest would be zeros else.
    for (const long writes : {2, 1}) {
        ASSERT_TRUE(Host.Start({"--durability", "everysec"})) << Host.Text();
        Client client(Host);
        const std::string value(static_cast<size_t>(8192 - Figure(client, "log_offset") % 4096 - 120), 't');
        for (long i = 0; i < writes; i++) {
            EXPECT_EQ(client.Ask({"SET", i == 0 ? "torn" : "lost", value}), "+OK");
            EXPECT_TRUE(Await([&] { return Figure(client, "commits") == i + 1; }));
        }
        Host.Kill();
        if (writes == 2) Damage("log-0.dat", ReadWhole(Host.File("log-0.dat")).find("torntttt"));
    }
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("EXISTS torn lost"), ":1");
}

}  // namespace
}  // namespace keyhost_test
