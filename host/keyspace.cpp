// host/keyspace.cpp - hash tables of the shards.
//
// Runs on sessions, recovery and background threads. Nothing here waits but for a shard's section.
#include "keyspace.h"

#include <cstdlib>
#include <new>

namespace host {

Shard gShards[kShards];

namespace {

constexpr uint32_t kLeastBits = 4;

Entry **NewBuckets(uint32_t bits) {
    auto **buckets = static_cast<Entry **>(std::calloc(size_t{1} << bits, sizeof(Entry *)));
    if (buckets == nullptr) Refuse("no memory for a table of %zu keys", size_t{1} << bits);
    return buckets;
}

Entry **BucketOf(Shard *shard, uint64_t hash) {
    return &shard->Buckets[(hash << kShardBits) >> (64 - shard->Bits)];
}

void Resize(Shard *shard, uint32_t bits) {
    Entry **old = shard->Buckets;
    const uint64_t count = uint64_t{1} << shard->Bits;
    shard->Buckets = NewBuckets(bits);
    shard->Bits = bits;
    for (uint64_t i = 0; i < count; i++) {
        for (Entry *entry = old[i]; entry != nullptr;) {
            Entry *const next = entry->Next;
            Entry **bucket = BucketOf(shard, entry->Hash);
            entry->Next = *bucket;
            *bucket = entry;
            entry = next;
        }
    }
    std::free(old);
}

}  // namespace

Value *NewValue(size_t length) {
    void *memory = std::malloc(sizeof(Value) + length);
    if (memory == nullptr) Refuse("no memory for a value of %zu bytes", length);
    return new (memory) Value{{1}, static_cast<uint32_t>(length)};
}

Value *NewValue(std::string_view bytes) {
    Value *value = NewValue(bytes.size());
    std::memcpy(value->Bytes(), bytes.data(), bytes.size());
    return value;
}

void Release(Value *value) {
    if (value != nullptr && value->References.fetch_sub(1, std::memory_order_acq_rel) == 1) std::free(value);
}

void InitKeyspace() {
    for (Shard &shard : gShards) {
        InitializeCriticalSection(&shard.Section);
        shard.Buckets = NewBuckets(kLeastBits);
        shard.Bits = kLeastBits;
    }
}

Entry *FindEntry(Shard *shard, uint64_t hash, std::string_view key, int64_t now) {
    Entry *entry = *BucketOf(shard, hash);
    while (entry != nullptr && (entry->Hash != hash || entry->Key() != key)) entry = entry->Next;
    if (entry != nullptr && entry->Expire != kNever && entry->Expire <= (now != kNever ? now : NowMs())) [[unlikely]] {
        Count(gCounters.Expired);
        RemoveEntry(shard, entry, entry->Seq);
        return nullptr;
    }
    return entry;
}

void SetExpire(Shard *shard, Entry *entry, int64_t expire) {
    shard->Expiring += uint64_t{expire != kNever} - uint64_t{entry->Expire != kNever};
    entry->Expire = expire;
}

void StoreEntry(Shard *shard, Entry *entry, uint64_t hash, std::string_view key, Value *value, int64_t expire,
                uint64_t seq) {
    if (entry == nullptr) {
        if (shard->Count >= uint64_t{1} << shard->Bits) Resize(shard, shard->Bits + 1);
        void *memory = std::malloc(sizeof(Entry) + key.size());
        if (memory == nullptr) Refuse("no memory for a key of %zu bytes", key.size());
        Entry **bucket = BucketOf(shard, hash);
        entry = new (memory) Entry{*bucket, hash, nullptr, kNever, 0, static_cast<uint32_t>(key.size())};
        std::memcpy(static_cast<void *>(entry + 1), key.data(), key.size());
        *bucket = entry;
        shard->Count++;
    }
    Release(entry->Val);
    entry->Val = value;
    entry->Seq = seq;
    SetExpire(shard, entry, expire);
}

void RemoveEntry(Shard *shard, Entry *entry, uint64_t seq) {
    Entry **link = BucketOf(shard, entry->Hash);
    while (*link != entry) link = &(*link)->Next;
    *link = entry->Next;
    shard->Count--;
    if (entry->Expire != kNever) shard->Expiring--;
    if (seq > shard->RemoveSeq) shard->RemoveSeq = seq;
    Release(entry->Val);
    std::free(entry);
}

Contents TakeContents(Shard *shard, uint64_t seq) {
    const Contents taken{shard->Buckets, shard->Bits, shard->Count, shard->Expiring};
    shard->Buckets = NewBuckets(kLeastBits);
    shard->Bits = kLeastBits;
    shard->Count = shard->Expiring = 0;
    if (seq > shard->RemoveSeq) shard->RemoveSeq = seq;
    return taken;
}

void PutContents(Shard *shard, const Contents &from) {
    Contents old{shard->Buckets, shard->Bits, shard->Count, shard->Expiring};
    FreeContents(&old);
    shard->Buckets = from.Buckets;
    shard->Bits = from.Bits;
    shard->Count = from.Count;
    shard->Expiring = from.Expiring;
}

void FreeContents(Contents *contents) {
    for (uint64_t i = 0; contents->Buckets != nullptr && i < uint64_t{1} << contents->Bits; i++) {
        for (Entry *entry = contents->Buckets[i]; entry != nullptr;) {
            Entry *const next = entry->Next;
            Release(entry->Val);
            std::free(entry);
            entry = next;
        }
    }
    std::free(contents->Buckets);
    *contents = Contents{};
}

uint64_t KeyCount(uint64_t *expiring) {
    uint64_t count = 0;
    uint64_t withTime = 0;
    for (Shard &shard : gShards) {
        Guard guard(&shard.Section);
        count += shard.Count;
        withTime += shard.Expiring;
    }
    if (expiring != nullptr) *expiring = withTime;
    return count;
}

uint64_t SweepExpired() {
    static uint64_t position = 0;  // the process monitor's own
    constexpr uint64_t kLook = 4096;
    uint64_t seen = 0;
    uint64_t removed = 0;
    const int64_t now = NowMs();
    for (uint32_t i = 0; i < kShards && seen < kLook; i++) {
        Shard *const shard = &gShards[ShardOf(position)];
        bool done = true;
        {
            Guard guard(&shard->Section);
            const auto visit = [&](Entry *entry) {
                seen++;
                if (entry->Expire == kNever || entry->Expire > now) return;
                RemoveEntry(shard, entry, entry->Seq);
                removed++;
            };
            uint64_t next = 0;
            if (shard->Expiring != 0)
                next = VisitShard(
                    shard, position, visit, [&] { return seen >= kLook; }, &done);
            position = done ? uint64_t{(ShardOf(position) + 1) % kShards} << (64 - kShardBits) : next;
        }
    }
    Count(gCounters.Expired, removed);
    return removed;
}

}  // namespace host
