// tests/host/storage_test.cpp - tables. Outside fiber mode, where the library passes through: the sections are the
// operating system's. What a damaged log or checkpoint does: tests/fuzz.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "host/keyspace.h"

namespace host {
namespace {

struct Tables : testing::Test {
    Tables() {
        if (gShards[0].Buckets == nullptr) InitKeyspace();
        for (Shard &shard : gShards) {
            Contents left = TakeContents(&shard, 0);
            FreeContents(&left);
        }
    }

    static Shard *ShardOfKey(const std::string &key) { return &gShards[ShardOf(HashKey(key))]; }
    static Entry *Find(const std::string &key) { return FindEntry(ShardOfKey(key), HashKey(key), key); }
    static void Put(const std::string &key, const std::string &value, int64_t expire = kNever) {
        StoreEntry(ShardOfKey(key), Find(key), HashKey(key), key, NewValue(value), expire, 0);
    }
};

// Tables that grow and shrink under a scan: what is there all the time is seen exactly once.
TEST_F(Tables, ScanSeesWhatStays) {
    std::mt19937 random(3);
    std::set<std::string> stays;
    for (int i = 0; i < 500; i++) stays.insert("stay" + std::to_string(i));
    for (const std::string &key : stays) Put(key, "v");
    std::multiset<std::string> seen;
    uint64_t position = 0;
    int added = 0;
    for (int steps = 0;; steps++) {
        ASSERT_LT(steps, 100000);
        const uint32_t index = ShardOf(position);
        bool done = false;
        int visited = 0;
        uint64_t next = VisitShard(
            &gShards[index], position,
            [&](const Entry *entry) {
                visited++;
                if (stays.count(std::string(entry->Key())) != 0) seen.emplace(entry->Key());
            },
            [&] { return visited >= 3; }, &done);
        for (int i = 0; i < 40 && added < 60000; i++) Put("new" + std::to_string(added++), "x");
        if (random() % 400 == 0) {
            // Everything moves into the smallest tables: the table of an emptied shard starts over.
            for (Shard &shard : gShards) {
                std::vector<std::string> kept;
                Contents all = TakeContents(&shard, 0);
                for (uint64_t b = 0; b < uint64_t{1} << all.Bits; b++)
                    for (const Entry *entry = all.Buckets[b]; entry != nullptr; entry = entry->Next)
                        if (stays.count(std::string(entry->Key())) != 0) kept.emplace_back(entry->Key());
                FreeContents(&all);
                for (const std::string &key : kept) Put(key, "v");
            }
        }
        if (done && index + 1 == kShards) break;
        position = done ? uint64_t{index + 1} << (64 - kShardBits) : next;
    }
    EXPECT_TRUE(std::equal(seen.begin(), seen.end(), stays.begin(), stays.end())) << seen.size();
}

// A key whose time is over is not found, and the sweep finds those that nobody asks for.
TEST_F(Tables, Expiry) {
    for (int i = 0; i < 1000; i++) Put("old" + std::to_string(i), "v", NowMs() - 1);
    for (int i = 0; i < 1000; i++) Put("late" + std::to_string(i), "v", NowMs() + 100000);
    EXPECT_EQ(Find("old7"), nullptr);
    uint64_t swept = 0, expiring = 0;
    for (int i = 0; i < 100; i++) swept += SweepExpired();
    for (const Shard &shard : gShards) expiring += shard.Expiring;
    EXPECT_TRUE(swept == 999 && expiring == 1000 && KeyCount() == 1000) << swept << " " << expiring;
}

}  // namespace
}  // namespace host
