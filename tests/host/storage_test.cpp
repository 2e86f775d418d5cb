// tests/host/storage_test.cpp - tables, log batches and checkpoint pages. Outside fiber mode, where the library passes
// through: the sections are the operating system's.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "host/checkpoint.h"
#include "host/log.h"

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

TEST_F(Tables, ModelAndExpiry) {
    std::mt19937 random(5);
    std::map<std::string, std::string> model;
    for (int i = 0; i < 200000; i++) {
        const std::string key = "k" + std::to_string(random() % 5000);
        if (random() % 3 != 0) {
            const std::string value(random() % 20, 'v');
            Put(key, value);
            model[key] = value;
        } else {
            if (Entry *const entry = Find(key); entry != nullptr) RemoveEntry(ShardOfKey(key), entry, 0);
            model.erase(key);
        }
    }
    ASSERT_EQ(KeyCount(), model.size());
    for (const auto &[key, value] : model) ASSERT_EQ(Find(key)->Val->View(), value);
    // A key whose time is over is not found, and the sweep finds those that nobody asks for.
    for (int i = 0; i < 1000; i++) Put("old" + std::to_string(i), "v", NowMs() - 1);
    for (int i = 0; i < 1000; i++) Put("late" + std::to_string(i), "v", NowMs() + 100000);
    EXPECT_EQ(Find("old7"), nullptr);
    uint64_t swept = 0;
    for (int i = 0; i < 100; i++) swept += SweepExpired();
    EXPECT_EQ(swept, 999u);
    EXPECT_EQ(KeyCount(), model.size() + 1000);
    uint64_t expiring = 0;
    for (const Shard &shard : gShards) expiring += shard.Expiring;
    EXPECT_EQ(expiring, 1000u);
}

// A batch with records as the log writer makes it.
std::string MakeBatch(uint64_t logId, uint64_t first, uint32_t previous, const std::vector<std::string> &items) {
    std::string body;
    uint32_t all = 0;
    for (const std::string &item : items) {
        RecordHeader record{static_cast<uint32_t>(sizeof record + item.size()), 0, first, RecordType::kSet, 1};
        record.Seq = first + static_cast<uint64_t>(&item - items.data());
        record.Crc = Crc32c(0, item.data(), item.size());
        record.Crc = Crc32c(record.Crc, &record.Seq, 16);
        record.Crc = Crc32c(record.Crc, &record.Length, 4);
        all = Crc32c(all, &record.Crc, 4);
        body.append(reinterpret_cast<const char *>(&record), sizeof record);
        body += item;
    }
    BatchHeader header{};
    header.Magic = kBatchMagic;
    header.LogId = logId;
    header.First = first;
    header.Count = static_cast<uint32_t>(items.size());
    header.Bytes = static_cast<uint32_t>(body.size());
    header.RecordsCrc = all;
    header.Previous = previous;
    header.Crc = HeaderCrc(header);
    std::string text(reinterpret_cast<const char *>(&header), sizeof header);
    text += body;
    text.resize(RoundUp(text.size(), kLogAlign));
    return text;
}

// No byte of a batch can change, and no end of it can be missing, without being noticed.
TEST(LogFormat, EveryByteCounts) {
    EXPECT_EQ(Crc32c(0, "123456789", 9), 0xE3069283u) << "the known answer";
    const std::string batch = MakeBatch(9, 100, 77, {"first record", "second", std::string(200, 'x')});
    size_t bad = 0;
    ASSERT_EQ(CheckBatch(batch.data(), batch.size(), 9, 77, &bad), batch.size());
    EXPECT_EQ(CheckBatch(batch.data(), batch.size(), 8, 77, &bad), 0u) << "another log";
    EXPECT_EQ(CheckBatch(batch.data(), batch.size(), 9, 78, &bad), 0u) << "does not follow";
    BatchHeader header;
    std::memcpy(&header, batch.data(), sizeof header);
    const size_t whole = sizeof header + header.Bytes;
    for (size_t i = 0; i < whole; i++) {
        std::string damaged = batch;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x10);
        ASSERT_EQ(CheckBatch(damaged.data(), damaged.size(), 9, 77, &bad), 0u) << i;
        // A damaged record is named by its place.
        const bool named = i < sizeof header || (bad >= sizeof header && bad <= i);
        ASSERT_TRUE(named) << i << " " << bad;
        std::vector<char> cut(batch.begin(), batch.begin() + static_cast<long>(i));
        ASSERT_EQ(CheckBatch(cut.data(), cut.size(), 9, 77, &bad), 0u) << i;
    }
    // A torn write leaves zeros, or what was there before, in place of whole blocks.
    std::string torn = batch;
    std::fill(torn.begin() + 256, torn.end(), '\0');
    EXPECT_EQ(CheckBatch(torn.data(), torn.size(), 9, 77, &bad), 0u);
    EXPECT_EQ(CheckRecord(batch.data() + 64, 10), 0u);
}

TEST(CheckpointFormat, EveryByteCounts) {
    std::vector<char> page(kPage, 'x');
    SealPage(page.data(), 5, 12, 3, 1, 4000);
    ASSERT_EQ(CheckPage(page.data(), 5, 12), nullptr);
    EXPECT_STREQ(CheckPage(page.data(), 5, 13), "a page of another place");
    EXPECT_STREQ(CheckPage(page.data(), 6, 12), "a page of another checkpoint");
    for (size_t i = 0; i < kPage; i += i < 64 ? 1 : 61) {
        page[i] = static_cast<char>(page[i] ^ 1);
        ASSERT_NE(CheckPage(page.data(), 5, 12), nullptr) << i;
        page[i] = static_cast<char>(page[i] ^ 1);
    }
}

}  // namespace
}  // namespace host
