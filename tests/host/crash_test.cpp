// tests/host/crash_test.cpp - kill -9 under load, again and again, and a look at every key after each.
//
// Every client owns some keys and numbers its writes. What it knows of a key is the value of the last acknowledged
// write and those of the writes that were under way: after a restart the key must hold one of these, and two keys that
// were written by one MSET must agree. KEYHOST_ROUNDS sets the number of rounds.
#include <atomic>
#include <map>
#include <random>
#include <set>

#include "server.h"

namespace keyhost_test {
namespace {

// What a restart may show of each key; "nil" for no key.
using Model = std::map<std::string, std::set<std::string>>;

using After = std::map<std::string, std::string>;  // what each key is when a write is done

// One client's load until the server is gone. Up to 16 writes are under way at a time.
void Load(const Server &host, size_t number, unsigned seed, Model *model, std::atomic<uint64_t> *acknowledged) {
    std::mt19937 random(seed);
    Client client(host);
    uint64_t serial = uint64_t{seed} << 20;
    for (;;) {
        std::string text;
        std::vector<After> writes;
        const size_t count = random() % 4 == 0 ? 1 + random() % 16 : 1;
        for (size_t i = 0; i < count; i++) {
            const std::string id = std::to_string(number) + ":" + std::to_string(random() % 40);
            const std::string value =
                std::to_string(++serial) + std::string(random() % 8 == 0 ? random() % 20000 : 5, 'v');
            std::vector<std::string> words{"SET", "s" + id, value};
            After after{{"s" + id, "$" + value}};
            const unsigned kind = random() % 8;
            if (kind == 0) words = {"DEL", "s" + id}, after = {{"s" + id, "nil"}};
            if (kind == 1) words.insert(words.end(), {"EX", "1000"});
            if (kind == 2 || kind == 3)
                words = {"MSET", "a" + id, value, "b" + id, value},
                after = {{"a" + id, "$" + value}, {"b" + id, "$" + value}};
            text += Request(words);
            writes.push_back(after);
            for (const auto &[key, now] : after)
                model->try_emplace(key, Model::mapped_type{"nil"}).first->second.insert(now);
        }
        if (!client.Send(text)) return;
        for (size_t i = 0; i < writes.size(); i++) {
            const std::string answer = client.Answer();
            if (answer == "closed") return;
            ASSERT_TRUE(answer == "+OK" || answer[0] == ':') << answer;
            acknowledged->fetch_add(1);
        }
        // All of it is acknowledged: for each key only the last write remains.
        for (const After &each : writes)
            for (const auto &[key, now] : each) (*model)[key] = {now};
    }
}

struct Crash : OnEachBackEnd {};
ON_EACH_BACK_END(Crash);

TEST_P(Crash, NothingAcknowledgedIsLost) {
    const char *const wanted = std::getenv("KEYHOST_ROUNDS");
    const int rounds = wanted != nullptr ? std::atoi(wanted) : 10;
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    constexpr unsigned kClients = 6;
    std::vector<Model> models(kClients);
    std::atomic<uint64_t> acknowledged{0};
    size_t checked = 0;
    for (int round = 0; round <= rounds; round++) {
        // Checkpoints come often, so that many a kill meets one.
        const std::vector<std::string> arguments{"--checkpoint", "300000", "--schedulers", round % 2 == 0 ? "1" : "2"};
        ASSERT_TRUE(Host.Start(arguments)) << "round " << round << " " << Host.Text();
        {
            Client client(Host);
            for (Model &model : models) {
                std::string text;
                for (const auto &[key, known] : model) text += Request({"GET", key});
                std::thread sender([&] { client.Send(text); });
                After now;
                for (auto &[key, known] : model) {
                    const std::string value = client.Answer();
                    EXPECT_EQ(known.count(value), 1u) << "round " << round << " " << key << " is "
                                                      << value.substr(0, 40) << ", not one of " << known.size();
                    known = {value};
                    now[key] = value;
                    // The keys come in order, so the other half is known.
                    if (key[0] == 'b') {
                        EXPECT_EQ(now["a" + key.substr(1)], value) << "half an MSET: " << key;
                    }
                    checked++;
                }
                sender.join();
            }
            if (HasFailure()) return;
        }
        if (round == rounds) break;
        std::vector<std::thread> clients;
        for (unsigned c = 0; c < kClients; c++) {
            const unsigned number = static_cast<unsigned>(round) * kClients + c + 1;
            clients.emplace_back(Load, std::cref(Host), c, number, &models[c], &acknowledged);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50 + random() % 300));
        Host.Kill();
        for (std::thread &client : clients) client.join();
    }
    std::printf("%d rounds, %llu writes acknowledged, %zu keys checked\n", rounds,
                static_cast<unsigned long long>(acknowledged.load()), checked);
    EXPECT_GT(acknowledged.load(), static_cast<uint64_t>(rounds) * 10);
}

// A key whose time was put off outlives the time that it had first, which is over when the log is applied: one from the
// log alone, one whose first time a checkpoint shows.
TEST_P(Crash, TimesThatWerePutOff) {
    ASSERT_TRUE(Host.Start({"--checkpoint", "4096"})) << Host.Text();
    for (int ms = 400, done = 0;; ms *= 2) {
        Client client(Host);
        const std::string time = " v PX " + std::to_string(ms);
        for (const char *key : {"a", "b"}) EXPECT_EQ(client.Ask("SET " + std::string(key) + time), "+OK");
        client.Ask({"SET", "filler", std::string(5000, 'f')});
        done++;
        ASSERT_TRUE(Await([&] { return Figure(client, "checkpoints") >= done; })) << Host.Text();
        for (const char *key : {"c", "d"}) EXPECT_EQ(client.Ask("SET " + std::string(key) + time), "+OK");
        std::string all;
        for (const char *ask : {"PERSIST a", "EXPIRE b 1000", "PERSIST c", "EXPIRE d 1000"}) all += client.Ask(ask);
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        if (all == ":1:1:1:1") break;  // else the checkpoint took longer
    }
    Host.Kill();
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("MGET a b c d"), "[v v v v]");
}

}  // namespace
}  // namespace keyhost_test
