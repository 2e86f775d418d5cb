// host/commands.cpp - the commands on keys.
//
// Runs on sessions. A command enters the section of its shard (or of all its shards, by rising index), looks, appends a
// record to the log, applies it and leaves; nothing in between waits except for the log's section. Whether the record
// is durable is awaited later, once for all that the client has sent, or when an answer gets long.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "commands.h"
#include "glob.h"

namespace host {

namespace {

constexpr std::string_view kSyntax = "syntax error";
constexpr std::string_view kNoInteger = "value is not an integer or out of range";
constexpr std::string_view kLongPattern = "pattern is too long";
constexpr std::string_view kTooLong = "string exceeds maximum allowed size";

// The section of one shard, or of the shards of many keys.
struct Keyed {
    std::string_view Key;
    uint64_t Hash;
    Shard *In;

    explicit Keyed(std::string_view key) : Key(key), Hash(HashKey(key)), In(&gShards[ShardOf(Hash)]) {}
    CRITICAL_SECTION *Section() const { return &In->Section; }
    Entry *Find(Session &s, int64_t now = kNever) const {
        Entry *const entry = FindEntry(In, Hash, Key, now);
        s.DependOn(entry != nullptr ? entry->Seq : In->RemoveSeq);
        return entry;
    }
};

class ManyGuard {
  public:
    explicit ManyGuard(uint64_t mask) : Mask(mask) {
        for (uint64_t left = Mask; left != 0; left &= left - 1) EnterCriticalSection(SectionOf(left));
    }
    ~ManyGuard() {
        for (uint64_t left = Mask; left != 0; left &= left - 1) LeaveCriticalSection(SectionOf(left));
    }
    ManyGuard(const ManyGuard &) = delete;
    ManyGuard &operator=(const ManyGuard &) = delete;

  private:
    static CRITICAL_SECTION *SectionOf(uint64_t mask) { return &gShards[__builtin_ctzll(mask)].Section; }
    uint64_t Mask;
};

std::vector<Keyed> KeysOf(const Arguments &a, uint32_t from, uint32_t step, uint64_t *mask) {
    std::vector<Keyed> keys;
    keys.reserve(a.Count / step);
    *mask = 0;
    for (uint32_t i = from; i < a.Count; i += step) {
        keys.emplace_back(a[i]);
        *mask |= uint64_t{1} << ShardOf(keys.back().Hash);
    }
    return keys;
}

void PutMisconf(Session &s) {
    s.Put("-MISCONF The log cannot be written: writes are refused until it can\r\n");
}

// For an answer from many shards, which may tell of any record so far. False with another answer when some were taken
// back since RefusedCount() was `refused`: they may be in it.
bool DependOnAll(Session &s, uint64_t refused) {
    s.DependOn(LastSeq());
    if (RefusedCount() == refused) return true;
    PutMisconf(s);
    return false;
}

// Gives the key a value, with its section held. False with the answer when writes are refused.
bool Write(Session &s, const Keyed &key, Entry *old, std::string_view bytes, int64_t expire) {
    const LogItem item{key.Hash, key.Key, bytes, expire, old};
    const uint64_t seq = AppendLog(RecordType::kSet, &item, 1);
    if (seq == 0) {
        PutMisconf(s);
        return false;
    }
    StoreEntry(key.In, old, key.Hash, key.Key, NewValue(bytes), expire, seq);
    s.DependOn(seq);
    return true;
}

bool ToInteger(std::string_view text, int64_t *value) {
    const char *const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, *value);
    if (result.ec != std::errc() || result.ptr != end) return false;
    // Only the shortest form counts, as clients expect.
    const size_t sign = text[0] == '-' ? 1 : 0;
    return text[sign] != '0' || (sign == 0 && text.size() == 1);
}

void PutValue(Session &s, const Entry *entry) {
    if (entry == nullptr) {
        s.PutNull();
    } else {
        s.PutBulk(entry->Val->View());
    }
}

// Appends a part of an answer, and sends on the way what there is: a client that asks for much and reads nothing must
// not make us hold it. False when the rest need not be made. No section may be held.
bool PutInPieces(Session &s, std::string_view bytes) {
    for (size_t at = 0; at < bytes.size(); at += kSpillBytes) {
        s.Put(bytes.substr(at, kSpillBytes));
        if (s.OutUsed >= kSpillBytes && !s.Spill()) return false;
    }
    return true;
}

// The same with a value, null for none, of which the caller's reference goes.
bool PutAndRelease(Session &s, Value *value) {
    bool wanted = true;
    if (value == nullptr) {
        s.PutNull();
    } else {
        s.PutLine('$', value->Length);
        wanted = PutInPieces(s, value->View());
        if (wanted) s.Put("\r\n");
    }
    Release(value);
    return wanted;
}

// ---- Strings -----------------------------------------------------------------------------------------

constexpr uint32_t kLargeValue = 4096;  // copied to the answer outside the section

void Get(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Value *large = nullptr;
    {
        Guard guard(key.Section());
        const Entry *const entry = key.Find(s);
        if (entry == nullptr || entry->Val->Length <= kLargeValue) {
            PutValue(s, entry);
        } else {
            large = Share(entry->Val);
        }
    }
    if (large != nullptr) PutAndRelease(s, large);
}

// A time as EX and PX give it; false with the answer.
bool ToExpire(Session &s, std::string_view text, int64_t unit, bool relative, std::string_view command,
              int64_t *expire) {
    int64_t value = 0;
    if (!ToInteger(text, &value)) {
        s.PutError(kNoInteger);
        return false;
    }
    const int64_t base = relative ? NowMs() : 0;
    if (__builtin_mul_overflow(value, unit, &value) || __builtin_add_overflow(value, base, expire)) {
        s.PutError("invalid expire time in '" + std::string(command) + "' command");
        return false;
    }
    return true;
}

void Set(Session &s, const Arguments &a) {
    bool ifAbsent = false, ifPresent = false, keep = false, get = false, timed = false;
    int64_t expire = kNever;
    for (uint32_t i = 3; i < a.Count; i++) {
        if (a.Is(i, "NX")) {
            ifAbsent = true;
        } else if (a.Is(i, "XX")) {
            ifPresent = true;
        } else if (a.Is(i, "KEEPTTL")) {
            keep = true;
        } else if (a.Is(i, "GET")) {
            get = true;
        } else if ((a.Is(i, "EX") || a.Is(i, "PX")) && i + 1 < a.Count && !timed) {
            const int64_t unit = a.Is(i, "EX") ? 1000 : 1;
            timed = true;
            if (!ToExpire(s, a[++i], unit, true, "set", &expire)) return;
            if (a[i][0] == '-' || a[i] == "0") return s.PutError("invalid expire time in 'set' command");
        } else {
            return s.PutError(kSyntax);
        }
    }
    if ((ifAbsent && ifPresent) || (keep && timed)) return s.PutError(kSyntax);
    const Keyed key(a[1]);
    bool wanted = false;
    Value *before = nullptr;
    {
        Guard guard(key.Section());
        Entry *const entry = key.Find(s);
        wanted = !(ifAbsent && entry != nullptr) && !(ifPresent && entry == nullptr);
        if (get && entry != nullptr) before = Share(entry->Val);
        if (keep && entry != nullptr) expire = entry->Expire;
        if (wanted && !Write(s, key, entry, a[2], expire)) return Release(before);
    }
    if (get || !wanted) {
        PutAndRelease(s, before);
    } else {
        s.Put("+OK\r\n");
    }
}

void SetNx(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Guard guard(key.Section());
    Entry *const entry = key.Find(s);
    if (entry != nullptr) return s.PutInteger(0);
    if (Write(s, key, entry, a[2], kNever)) s.PutInteger(1);
}

void GetSet(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Value *before = nullptr;
    {
        Guard guard(key.Section());
        Entry *const entry = key.Find(s);
        if (entry != nullptr) before = Share(entry->Val);
        if (!Write(s, key, entry, a[2], kNever)) return Release(before);
    }
    PutAndRelease(s, before);
}

void Append(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Guard guard(key.Section());
    Entry *const entry = key.Find(s);
    std::string bytes;
    if (entry != nullptr) bytes = entry->Val->View();
    if (bytes.size() + a[2].size() > gOptions.MaxValue) return s.PutError(kTooLong);
    bytes += a[2];
    const int64_t expire = entry != nullptr ? entry->Expire : kNever;
    if (Write(s, key, entry, bytes, expire)) s.PutInteger(static_cast<int64_t>(bytes.size()));
}

void StrLen(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Guard guard(key.Section());
    const Entry *const entry = key.Find(s);
    s.PutInteger(entry != nullptr ? entry->Val->Length : 0);
}

void Add(Session &s, std::string_view name, int64_t by) {
    const Keyed key(name);
    Guard guard(key.Section());
    Entry *const entry = key.Find(s);
    int64_t value = 0;
    if (entry != nullptr && !ToInteger(entry->Val->View(), &value)) return s.PutError(kNoInteger);
    if (__builtin_add_overflow(value, by, &value)) return s.PutError("increment or decrement would overflow");
    char text[24];
    const auto end = std::to_chars(text, text + sizeof text, value);
    const int64_t expire = entry != nullptr ? entry->Expire : kNever;
    if (Write(s, key, entry, {text, static_cast<size_t>(end.ptr - text)}, expire)) s.PutInteger(value);
}

void Incr(Session &s, const Arguments &a) {
    Add(s, a[1], 1);
}
void Decr(Session &s, const Arguments &a) {
    Add(s, a[1], -1);
}

void IncrBy(Session &s, const Arguments &a) {
    int64_t by = 0;
    if (!ToInteger(a[2], &by)) return s.PutError(kNoInteger);
    Add(s, a[1], by);
}

void DecrBy(Session &s, const Arguments &a) {
    int64_t by = 0;
    if (!ToInteger(a[2], &by)) return s.PutError(kNoInteger);
    if (by == INT64_MIN) return s.PutError("decrement would overflow");
    Add(s, a[1], -by);
}

void MSet(Session &s, const Arguments &a) {
    if (a.Count % 2 == 0) return s.PutError("wrong number of arguments for 'mset' command");
    uint64_t mask = 0;
    std::vector<Keyed> keys = KeysOf(a, 1, 2, &mask);
    ManyGuard guard(mask);
    const int64_t now = NowMs();
    std::vector<LogItem> items;
    items.reserve(keys.size());
    for (uint32_t i = 0; i < keys.size(); i++) {
        Entry *const old = FindEntry(keys[i].In, keys[i].Hash, keys[i].Key, now);
        items.push_back(LogItem{keys[i].Hash, keys[i].Key, a[2 * i + 2], kNever, old});
    }
    const uint64_t seq = AppendLog(RecordType::kSet, items.data(), static_cast<uint32_t>(items.size()));
    if (seq == 0) return PutMisconf(s);
    for (const LogItem &item : items) {
        Shard *const shard = &gShards[ShardOf(item.Hash)];
        // Looked up once more: a key may be named twice.
        StoreEntry(shard, FindEntry(shard, item.Hash, item.Key, now), item.Hash, item.Key, NewValue(item.Bytes), kNever,
                   seq);
    }
    s.DependOn(seq);
    s.Put("+OK\r\n");
}

void MGet(Session &s, const Arguments &a) {
    uint64_t mask = 0;
    const std::vector<Keyed> keys = KeysOf(a, 1, 1, &mask);
    std::vector<Value *> values(keys.size());
    {
        ManyGuard guard(mask);
        for (size_t i = 0; i < keys.size(); i++) {
            const Entry *const entry = keys[i].Find(s);
            values[i] = entry != nullptr ? Share(entry->Val) : nullptr;
        }
    }
    s.PutArray(values.size());
    bool wanted = true;
    for (Value *value : values) {
        if (wanted) {
            wanted = PutAndRelease(s, value);
        } else {
            Release(value);
        }
        if (wanted && s.OutUsed >= kSpillBytes) wanted = s.Spill();
    }
}

// ---- Keys --------------------------------------------------------------------------------------------

void Delete(Session &s, const Arguments &a) {
    uint64_t mask = 0;
    const std::vector<Keyed> keys = KeysOf(a, 1, 1, &mask);
    ManyGuard guard(mask);
    const int64_t now = NowMs();
    std::vector<LogItem> items;
    for (const Keyed &key : keys) {
        Entry *const entry = key.Find(s, now);
        if (entry != nullptr) items.push_back(LogItem{key.Hash, key.Key, {}, kNever, entry});
    }
    // A key that is named twice is deleted once.
    std::sort(items.begin(), items.end(), [](const LogItem &x, const LogItem &y) { return x.Old < y.Old; });
    const auto same = [](const LogItem &x, const LogItem &y) { return x.Old == y.Old; };
    items.erase(std::unique(items.begin(), items.end(), same), items.end());
    if (items.empty()) return s.PutInteger(0);
    const uint64_t seq = AppendLog(RecordType::kDelete, items.data(), static_cast<uint32_t>(items.size()));
    if (seq == 0) return PutMisconf(s);
    for (const LogItem &item : items) {
        RemoveEntry(&gShards[ShardOf(item.Hash)], const_cast<Entry *>(item.Old), seq);
    }
    s.DependOn(seq);
    s.PutInteger(static_cast<int64_t>(items.size()));
}

void Exists(Session &s, const Arguments &a) {
    uint64_t mask = 0;
    int64_t count = 0;
    const std::vector<Keyed> keys = KeysOf(a, 1, 1, &mask);
    ManyGuard guard(mask);
    for (const Keyed &key : keys) count += key.Find(s) != nullptr ? 1 : 0;
    s.PutInteger(count);
}

// Sets or removes the time of a key, with its section held. The record has the value, too: recovery may come when the
// time that the record before it gives is over, and has not kept the key then.
bool WriteExpire(Session &s, const Keyed &key, Entry *entry, int64_t expire) {
    const bool gone = expire != kNever && expire <= NowMs();
    const std::string_view bytes = gone ? std::string_view() : entry->Val->View();
    const LogItem item{key.Hash, key.Key, bytes, expire, entry};
    const uint64_t seq = AppendLog(gone ? RecordType::kDelete : RecordType::kSet, &item, 1);
    if (seq == 0) {
        PutMisconf(s);
        return false;
    }
    if (gone) {
        RemoveEntry(key.In, entry, seq);
    } else {
        SetExpire(key.In, entry, expire);
        entry->Seq = seq;
    }
    s.DependOn(seq);
    return true;
}

void ExpireIn(Session &s, const Arguments &a, int64_t unit, std::string_view command) {
    bool ifNone = false, ifSome = false, ifGreater = false, ifLess = false;
    for (uint32_t i = 3; i < a.Count; i++) {
        if (a.Is(i, "NX")) {
            ifNone = true;
        } else if (a.Is(i, "XX")) {
            ifSome = true;
        } else if (a.Is(i, "GT")) {
            ifGreater = true;
        } else if (a.Is(i, "LT")) {
            ifLess = true;
        } else {
            return s.PutError("Unsupported option " + Quoted(a[i]));
        }
    }
    if (ifNone && (ifSome || ifGreater || ifLess)) {
        return s.PutError("NX and XX, GT or LT options at the same time are not compatible");
    }
    if (ifGreater && ifLess) return s.PutError("GT and LT options at the same time are not compatible");
    int64_t expire = 0;
    if (!ToExpire(s, a[2], unit, true, command, &expire)) return;
    // The word 0 means that a key stays.
    if (expire <= kNever) expire = 1;
    const Keyed key(a[1]);
    Guard guard(key.Section());
    Entry *const entry = key.Find(s);
    const int64_t now = entry != nullptr ? entry->Expire : kNever;
    const bool refused = entry == nullptr || (ifNone && now != kNever) || (ifSome && now == kNever) ||
                         (ifGreater && (now == kNever || expire <= now)) || (ifLess && now != kNever && expire >= now);
    if (refused) return s.PutInteger(0);
    if (WriteExpire(s, key, entry, expire)) s.PutInteger(1);
}

void Expire(Session &s, const Arguments &a) {
    ExpireIn(s, a, 1000, "expire");
}
void PExpire(Session &s, const Arguments &a) {
    ExpireIn(s, a, 1, "pexpire");
}

void TimeLeft(Session &s, std::string_view name, int64_t unit) {
    const Keyed key(name);
    Guard guard(key.Section());
    const Entry *const entry = key.Find(s);
    if (entry == nullptr) return s.PutInteger(-2);
    if (entry->Expire == kNever) return s.PutInteger(-1);
    const int64_t left = entry->Expire - NowMs();
    s.PutInteger(left < 0 ? 0 : (left + unit / 2) / unit);
}

void Ttl(Session &s, const Arguments &a) {
    TimeLeft(s, a[1], 1000);
}
void PTtl(Session &s, const Arguments &a) {
    TimeLeft(s, a[1], 1);
}

void Persist(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Guard guard(key.Section());
    Entry *const entry = key.Find(s);
    if (entry == nullptr || entry->Expire == kNever) return s.PutInteger(0);
    if (WriteExpire(s, key, entry, kNever)) s.PutInteger(1);
}

void Type(Session &s, const Arguments &a) {
    const Keyed key(a[1]);
    Guard guard(key.Section());
    s.Put(key.Find(s) != nullptr ? "+string\r\n" : "+none\r\n");
}

// Keys that match, from whole buckets. What they take counts with the requests that are not complete, as it is for a
// client to say how much it will be.
class Collected {
  public:
    Collected() = default;
    Collected(const Collected &) = delete;
    ~Collected() { gCounters.BufferBytes.fetch_sub(Held, std::memory_order_relaxed); }

    void Add(std::string_view key) {
        const size_t size = Bulks.size() + key.size() + 32;
        if (Full || (size > Held && !Grow(size))) return;
        Bulks += '$';
        Bulks += std::to_string(key.size());
        Bulks += "\r\n";
        Bulks += key;
        Bulks += "\r\n";
        Count++;
    }
    bool Full = false;  // there is no room for all

    // Answers with `outer` and the keys, or with an error.
    void Put(Session &s, std::string_view outer) const {
        if (Full) return s.PutError("too many keys match for the memory of --max-buffers; SCAN asks for fewer");
        s.Put(outer);
        s.PutArray(Count);
        PutInPieces(s, Bulks);
    }

  private:
    bool Grow(size_t size) {
        const size_t larger = std::max(size, std::max<size_t>(4096, 2 * Held));
        const size_t more = larger - Held;
        if (gCounters.BufferBytes.fetch_add(more, std::memory_order_relaxed) + more > gOptions.MaxBuffers) {
            gCounters.BufferBytes.fetch_sub(more, std::memory_order_relaxed);
            Full = true;
            return false;
        }
        Held = larger;
        Bulks.reserve(larger);
        return true;
    }
    std::string Bulks;
    size_t Held = 0;  // counted, of the bulks
    size_t Count = 0;
};

// What is looked at in one go, with the section of a shard held: many short keys or few long ones.
struct Stretch {
    uint32_t Entries = 0;
    size_t Bytes = 0;

    void Count(const Entry *entry) {
        Entries++;
        Bytes += entry->Key().size();
    }
    bool Over() const { return Entries >= 1000 || Bytes >= 100000; }
};

void Keys(Session &s, const Arguments &a) {
    if (a[1].size() > kMostPattern) return s.PutError(kLongPattern);
    const Glob pattern(a[1]);
    const uint64_t refused = RefusedCount();
    Collected found;
    const int64_t now = NowMs();
    for (uint32_t i = 0; i < kShards && !found.Full; i++) {
        uint64_t position = uint64_t{i} << (64 - kShardBits);
        for (bool done = false; !done && !found.Full;) {
            Stretch stretch;
            {
                Guard guard(&gShards[i].Section);
                position = VisitShard(
                    &gShards[i], position,
                    [&](const Entry *entry) {
                        stretch.Count(entry);
                        if (entry->Expire != kNever && entry->Expire <= now) return;
                        if (pattern.Matches(entry->Key())) found.Add(entry->Key());
                    },
                    [&] { return stretch.Over() || found.Full; }, &done);
            }
            GiveWay();
        }
    }
    if (!DependOnAll(s, refused)) return;
    found.Put(s, "");
}

constexpr uint32_t kCursorShift = 16;  // low bits of a position, which are always 0: cursors stay below 2^48

void Scan(Session &s, const Arguments &a) {
    uint64_t cursor = 0;
    const std::string_view text = a[1];
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), cursor);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size() || cursor >> (64 - kCursorShift) != 0) {
        return s.PutError("invalid cursor");
    }
    std::string_view matching = "*";
    int64_t count = 10;
    bool strings = true;
    for (uint32_t i = 2; i < a.Count; i += 2) {
        if (i + 1 >= a.Count) return s.PutError(kSyntax);
        if (a.Is(i, "MATCH")) {
            matching = a[i + 1];
            if (matching.size() > kMostPattern) return s.PutError(kLongPattern);
        } else if (a.Is(i, "COUNT")) {
            if (!ToInteger(a[i + 1], &count)) return s.PutError(kNoInteger);
            if (count < 1) return s.PutError(kSyntax);
        } else if (a.Is(i, "TYPE")) {
            strings = a.Is(i + 1, "string");
        } else {
            return s.PutError(kSyntax);
        }
    }
    const Glob pattern(matching);
    const uint64_t refused = RefusedCount();
    Collected found;
    const int64_t now = NowMs();
    uint64_t position = cursor << kCursorShift;
    uint64_t next = 0;
    int64_t seen = 0, buckets = 0;
    for (;;) {
        const uint32_t index = ShardOf(position);
        bool done = false;
        Stretch stretch;
        {
            Guard guard(&gShards[index].Section);
            next = VisitShard(
                &gShards[index], position,
                [&](const Entry *entry) {
                    seen++;
                    stretch.Count(entry);
                    if (entry->Expire != kNever && entry->Expire <= now) return;
                    if (strings && pattern.Matches(entry->Key())) found.Add(entry->Key());
                },
                [&] { return ++buckets / 10 >= count || seen >= count || stretch.Over() || found.Full; },
                &done);
        }
        if (done && index + 1 == kShards) {
            next = 0;
            break;
        }
        if (done) next = uint64_t{index + 1} << (64 - kShardBits);
        if (seen >= count || buckets / 10 >= count || found.Full) break;
        position = next;
        GiveWay();
    }
    if (!DependOnAll(s, refused)) return;
    const std::string at = std::to_string(next >> kCursorShift);
    found.Put(s, "*2\r\n$" + std::to_string(at.size()) + "\r\n" + at + "\r\n");
}

void DbSize(Session &s, const Arguments &) {
    const uint64_t refused = RefusedCount();
    const uint64_t count = KeyCount();
    if (DependOnAll(s, refused)) s.PutInteger(static_cast<int64_t>(count));
}

void FlushAll(Session &s, const Arguments &a) {
    if (a.Count > 2 || (a.Count == 2 && !a.Is(1, "SYNC") && !a.Is(1, "ASYNC"))) return s.PutError(kSyntax);
    ManyGuard guard(~uint64_t{0});
    auto *const taken = new Contents[kShards];
    for (uint32_t i = 0; i < kShards; i++) taken[i] = TakeContents(&gShards[i], 0);
    const uint64_t seq = AppendLog(RecordType::kFlush, nullptr, 0, taken);
    if (seq == 0) {
        for (uint32_t i = 0; i < kShards; i++) PutContents(&gShards[i], taken[i]);
        delete[] taken;
        return PutMisconf(s);
    }
    for (Shard &shard : gShards) shard.RemoveSeq = seq;
    s.DependOn(seq);
    s.Put("+OK\r\n");
}

}  // namespace

const Command kKeyCommands[] = {
    {"get", 2, kReads, 1, 1, 1, Get},
    {"set", -3, kWrites, 1, 1, 1, Set},
    {"setnx", 3, kWrites, 1, 1, 1, SetNx},
    {"getset", 3, kWrites, 1, 1, 1, GetSet},
    {"append", 3, kWrites, 1, 1, 1, Append},
    {"strlen", 2, kReads, 1, 1, 1, StrLen},
    {"incr", 2, kWrites, 1, 1, 1, Incr},
    {"decr", 2, kWrites, 1, 1, 1, Decr},
    {"incrby", 3, kWrites, 1, 1, 1, IncrBy},
    {"decrby", 3, kWrites, 1, 1, 1, DecrBy},
    {"mset", -3, kWrites, 1, -1, 2, MSet},
    {"mget", -2, kReads, 1, -1, 1, MGet},
    {"del", -2, kWrites, 1, -1, 1, Delete},
    {"unlink", -2, kWrites, 1, -1, 1, Delete},
    {"exists", -2, kReads, 1, -1, 1, Exists},
    {"expire", -3, kWrites, 1, 1, 1, Expire},
    {"pexpire", -3, kWrites, 1, 1, 1, PExpire},
    {"ttl", 2, kReads, 1, 1, 1, Ttl},
    {"pttl", 2, kReads, 1, 1, 1, PTtl},
    {"persist", 2, kWrites, 1, 1, 1, Persist},
    {"type", 2, kReads, 1, 1, 1, Type},
    {"keys", 2, kReads, 0, 0, 0, Keys},
    {"scan", -2, kReads, 0, 0, 0, Scan},
    {"dbsize", 1, kReads, 0, 0, 0, DbSize},
    {"flushall", -1, kWrites, 0, 0, 0, FlushAll},
    {"flushdb", -1, kWrites, 0, 0, 0, FlushAll},
};
const size_t kKeyCommandCount = std::size(kKeyCommands);

}  // namespace host
