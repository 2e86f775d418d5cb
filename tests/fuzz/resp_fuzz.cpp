// tests/fuzz/resp_fuzz.cpp - a session of the server, from the bytes of a client to those that it gets back.
//
// The session's own code runs, with the two socket functions replaced: what recv gives is the input, first whole and
// then in pieces whose sizes the input chooses. The answers must be the same, and one well-formed reply for each
// request. The log takes every record and writes none, so that only the session's part is looked at.
#include "host/session.h"

#include "fuzz/fuzz.h"
#include "host/checkpoint.h"
#include "host/commands.h"

namespace host {
namespace {

struct Client {
    std::string_view Bytes;   // not received yet
    std::string_view Pieces;  // sizes of the pieces; empty: whole
    size_t Piece = 0;
    std::string Answers{};
    uint64_t Requests = 0;
    bool Timed = false;  // an answer depends on the clock or on counters
};
Client *gClient;
uint64_t gSeq;

int FromClient(char *buffer, int room) {
    size_t size = gClient->Bytes.size();
    if (!gClient->Pieces.empty()) {
        const auto wanted = static_cast<uint8_t>(gClient->Pieces[gClient->Piece++ % gClient->Pieces.size()]);
        size = std::min<size_t>(size, wanted % 64 + 1u);
    }
    size = std::min(size, static_cast<size_t>(room));
    std::memcpy(buffer, gClient->Bytes.data(), size);
    gClient->Bytes.remove_prefix(size);
    return static_cast<int>(size);
}

int ToClient(const char *bytes, int size) {
    gClient->Answers.append(bytes, static_cast<size_t>(size));
    return size;
}

void Watch(Session *session, const char *data, const RespRequest &request) {
    const Arguments a{data, &request, request.Count};
    gClient->Requests++;
    for (uint32_t i = 0; i < a.Count; i++) {
        for (const char *word : {"info", "ttl", "pttl", "ex", "px", "expire", "pexpire"}) gClient->Timed |= a.Is(i, word);
    }
    Execute(session, data, request);
}

}  // namespace

// The log's part.
uint64_t AppendLog(RecordType type, const LogItem *items, uint32_t count, Contents *flushed) {
    fuzz::Require((type == RecordType::kFlush) == (flushed != nullptr) && (count != 0) != (flushed != nullptr),
                  "a record of nothing", count);
    for (uint32_t i = 0; i < count; i++) {
        fuzz::Require(items[i].Hash == HashKey(items[i].Key), "a record with another key's hash", i);
        fuzz::Require(items[i].Key.size() <= gOptions.MaxValue && items[i].Bytes.size() <= gOptions.MaxValue,
                      "a record beyond the limits", items[i].Key.size(), items[i].Bytes.size());
    }
    for (uint32_t i = 0; flushed != nullptr && i < kShards; i++) FreeContents(&flushed[i]);
    delete[] flushed;
    return ++gSeq;
}
uint64_t LastSeq() { return gSeq; }
uint64_t SettledSeq() { return gSeq; }
void AwaitLogRoom(Waiter *) {}
void AwaitRecord(Waiter *, uint64_t) {}
bool WasRefused(uint64_t) { return false; }
DWORD SyncLog(Waiter *, DWORD) { return 0; }
void ForgetWaiter(Waiter *) {}
void MendLog() {}
LogPosition DurableEnd() { return {}; }
uint64_t RefusedCount() { return 0; }
void ReleaseSegments(uint64_t) {}
bool MakeSpareSegment() { return false; }
bool RequestLgwrMigration() { return false; }
uint64_t SegmentBytes() { return 1 << 20; }
LogFigures GetLogFigures() { return {}; }

}  // namespace host

// The session's own file, with the two functions of the socket and a look at each request.
#undef recv
#undef send
#define recv(socket, buffer, room, flags) FromClient(buffer, room)
#define send(socket, bytes, size, flags) ToClient(bytes, size)
#define Execute(session, data, request) Watch(session, data, request)
#include "host/session.cpp"

namespace host {
namespace {

// The reply at text[at]; the place behind it.
size_t SkipReply(std::string_view text, size_t at, int depth = 0) {
    const size_t end = text.find("\r\n", at);
    fuzz::Require(end != text.npos && depth < 4, "a reply without end", at, text.size());
    const char kind = text[at];
    const std::string line(text.substr(at + 1, end - at - 1));
    at = end + 2;
    fuzz::Require(line.find_first_of("\r\n") == line.npos, "a line in two");
    if (kind == '+' || kind == '-') return at;
    char *rest = nullptr;
    const long long number = std::strtoll(line.c_str(), &rest, 10);
    fuzz::Require(!line.empty() && *rest == 0 && std::strchr(":$*", kind) != nullptr, "no reply", at);
    if (kind == ':') return at;
    fuzz::Require(number >= -1, "a negative length");
    if (kind == '$' && number >= 0) {
        at += static_cast<size_t>(number);
        fuzz::Require(at + 2 <= text.size() && text.substr(at, 2) == "\r\n", "a string without its end", at);
        return at + 2;
    }
    for (long long i = 0; kind == '*' && i < number; i++) at = SkipReply(text, at, depth + 1);
    return at;
}

Client Run(std::string_view bytes, std::string_view pieces) {
    for (Shard &shard : gShards) {
        Contents all = TakeContents(&shard, 0);
        FreeContents(&all);
    }
    Client client{bytes, pieces};
    gClient = &client;
    SessionSlot slot{};
    Session session;
    session.Slot = &slot;
    Serve(&session);
    if (session.In != session.SmallIn) ReleaseInput(&session);
    fuzz::Require(session.Out == session.SmallOut && gCounters.BufferBytes == 0, "a buffer is left");
    size_t replies = 0;
    for (size_t at = 0; at < client.Answers.size(); replies++) at = SkipReply(client.Answers, at);
    // One that breaks the protocol or the limits gets a reply too, the last.
    const bool refused = replies == client.Requests + 1 && session.Closing;
    fuzz::Require(replies == client.Requests || refused, "requests and replies", client.Requests, replies);
    return client;
}

}  // namespace
}  // namespace host

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace host;
    if (gShards[0].Buckets == nullptr) {
        gOptions.MaxValue = 4096;
        gOptions.MaxSessions = 1;
        InitKeyspace();
        InitSessions();
        InitCommands();
    }
    fuzz::Input input{data, size};
    const std::string_view pieces = input.Bytes(input.Byte() % 8 + 1u), bytes = input.Bytes(size);
    const Client whole = Run(bytes, {}), split = Run(bytes, pieces);
    fuzz::Require(whole.Requests == split.Requests, "the pieces change the requests", whole.Requests, split.Requests);
    if (!whole.Timed) fuzz::Require(whole.Answers == split.Answers, "the pieces change the answers");
    return 0;
}
