// host/keyspace.h - the keys and values in memory.
//
// A key's hash decides its shard (top six bits) and, within the shard's table, its bucket (the bits that follow). So
// the buckets of all shards in order are the hashes in order, whatever the sizes of the tables: a position is a hash,
// and a scan that goes on from a position neither misses nor repeats a key because a table grew or shrank meanwhile.
#ifndef HOST_KEYSPACE_H
#define HOST_KEYSPACE_H

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "base.h"

namespace host {

// The bytes of a value, never changed once made. Held by the entry, by whoever answers with it and by the log until the
// write that replaced it is durable.
struct Value {
    std::atomic<uint32_t> References;
    uint32_t Length;

    char *Bytes() { return reinterpret_cast<char *>(this + 1); }
    std::string_view View() { return {Bytes(), Length}; }
};
Value *NewValue(size_t length);  // one reference, the caller's; the bytes are to be filled in
Value *NewValue(std::string_view bytes);
inline Value *Share(Value *value) {
    value->References.fetch_add(1, std::memory_order_relaxed);
    return value;
}
void Release(Value *value);  // null is allowed

constexpr int64_t kNever = 0;  // Entry::Expire of a key that stays

struct Entry {
    Entry *Next;      // [Section] chain of the bucket
    uint64_t Hash;    // init
    Value *Val;       // [Section] one reference
    int64_t Expire;   // [Section] milliseconds since 1970, or kNever
    uint64_t Seq;     // [Section] log sequence number of its last write; its readers wait for that to be durable
    uint32_t Length;  // init: of the key, whose bytes follow

    std::string_view Key() const { return {reinterpret_cast<const char *>(this + 1), Length}; }
};

struct alignas(64) Shard {
    CRITICAL_SECTION Section;
    Entry **Buckets;     // [Section] 1 << Bits chains
    uint32_t Bits;       // [Section]
    uint64_t Count;      // [Section]
    uint64_t Expiring;   // [Section] entries with an Expire
    uint64_t RemoveSeq;  // [Section] of the last removal, for readers that find nothing
};

constexpr uint32_t kShardBits = 6;
constexpr uint32_t kShards = 1u << kShardBits;
extern Shard gShards[kShards];

inline uint32_t ShardOf(uint64_t hash) {
    return static_cast<uint32_t>(hash >> (64 - kShardBits));
}

void InitKeyspace();

// ---- With the shard's section held -------------------------------------------------------------------

// An entry that has expired is removed and not found, so that another look-up of its key leaves no pointer to it valid.
// Who keeps several gives one `now` (milliseconds since 1970) to all look-ups; else the clock is read where it is
// needed.
Entry *FindEntry(Shard *shard, uint64_t hash, std::string_view key, int64_t now = kNever);
// Takes over the caller's reference to `value`. `entry` is what FindEntry found; null makes a new one.
void StoreEntry(Shard *shard, Entry *entry, uint64_t hash, std::string_view key, Value *value, int64_t expire,
                uint64_t seq);
void SetExpire(Shard *shard, Entry *entry, int64_t expire);
void RemoveEntry(Shard *shard, Entry *entry, uint64_t seq);

// A shard's content apart from the shard.
struct Contents {
    Entry **Buckets = nullptr;
    uint32_t Bits = 0;
    uint64_t Count = 0;
    uint64_t Expiring = 0;
};
Contents TakeContents(Shard *shard, uint64_t seq);     // leaves it empty
void PutContents(Shard *shard, const Contents &from);  // frees what is there

// Calls visit(entry) for the entries of whole buckets from position `from` on, until `enough()` after a bucket. The
// position to go on from; `*done` when the shard is through. visit may remove the entry that it is given.
template <typename Visit, typename Enough>
uint64_t VisitShard(Shard *shard, uint64_t from, Visit visit, Enough enough, bool *done) {
    const uint32_t shift = 64 - kShardBits - shard->Bits;
    const uint64_t first = (from << kShardBits) >> (64 - shard->Bits);
    for (uint64_t bucket = first; bucket < uint64_t{1} << shard->Bits; bucket++) {
        for (Entry *entry = shard->Buckets[bucket]; entry != nullptr;) {
            Entry *const next = entry->Next;
            if (entry->Hash >= from) visit(entry);
            entry = next;
        }
        if (bucket + 1 < uint64_t{1} << shard->Bits && enough()) {
            *done = false;
            return (from >> (64 - kShardBits) << (64 - kShardBits)) | (bucket + 1) << shift;
        }
    }
    *done = true;
    return 0;
}

// ---- Without -----------------------------------------------------------------------------------------

void FreeContents(Contents *contents);
// Keys; *expiring (may be null) receives how many of them have a time to live.
uint64_t KeyCount(uint64_t *expiring = nullptr);
// Removes up to a few hundred expired keys; how many. For the process monitor.
uint64_t SweepExpired();

}  // namespace host

#endif  // HOST_KEYSPACE_H
