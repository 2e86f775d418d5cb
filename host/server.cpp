// host/server.cpp - the dispatch of requests, and the commands that are not about keys.
//
// Runs on sessions. Nothing here waits except for sections and for room in the log.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "checkpoint.h"
#include "commands.h"
#include "glob.h"

namespace host {

namespace {

void Ping(Session &s, const Arguments &a) {
    if (a.Count > 2) return s.PutError("wrong number of arguments for 'ping' command");
    if (a.Count == 2) {
        s.PutBulk(a[1]);
    } else {
        s.Put("+PONG\r\n");
    }
}

void Echo(Session &s, const Arguments &a) {
    s.PutBulk(a[1]);
}

void Select(Session &s, const Arguments &a) {
    if (a[1] == "0") return s.Put("+OK\r\n");
    s.PutError("DB index is out of range");
}

void Quit(Session &s, const Arguments &) {
    s.Put("+OK\r\n");
    s.Closing = true;
}

void Shutdown(Session &s, const Arguments &a) {
    if (a.Count > 2 || (a.Count == 2 && !a.Is(1, "SAVE") && !a.Is(1, "NOSAVE"))) return s.PutError("syntax error");
    s.Closing = true;
    gStop = true;
}

void Info(Session &s, const Arguments &a) {
    s.PutBulk(InfoText(a.Count > 1 ? a[1] : "all"));
}

void Config(Session &s, const Arguments &a) {
    if (!a.Is(1, "GET") || a.Count < 3) {
        return s.PutError("unknown subcommand or wrong number of arguments for '" + Quoted(a[1]) + "'");
    }
    const bool always = gOptions.Sync == Durability::kAlways;
    const std::pair<std::string_view, std::string> known[] = {
        {"appendonly", "yes"},
        {"appendfsync", always                             ? "always"
                        : gOptions.Sync == Durability::kNo ? "no"
                                                           : "everysec"},
        {"save", ""},
        {"bind", gOptions.Bind},
        {"port", std::to_string(gOptions.Port)},
        {"dir", gOptions.Dir},
        {"databases", "1"},
        {"maxclients", std::to_string(gOptions.MaxSessions)},
        {"maxmemory", "0"},
        {"proto-max-bulk-len", std::to_string(gOptions.MaxValue)},
        {"timeout", std::to_string(gOptions.IdleTimeout)},
    };
    bool asked[std::size(known)] = {};
    for (uint32_t i = 2; i < a.Count; i++) {
        if (a[i].size() > kMostPattern) return s.PutError("pattern is too long");
        const Glob pattern(a[i]);
        for (size_t k = 0; k < std::size(known); k++) asked[k] |= pattern.Matches(known[k].first);
        GiveWay();
    }
    s.PutArray(2 * static_cast<size_t>(std::count(std::begin(asked), std::end(asked), true)));
    for (size_t k = 0; k < std::size(known); k++) {
        if (!asked[k]) continue;
        s.PutBulk(known[k].first);
        s.PutBulk(known[k].second);
    }
}

void Client(Session &s, const Arguments &a) {
    if (a.Is(1, "SETNAME") && a.Count == 3) {
        for (const char c : a[2]) {
            if (c <= ' ' || c > '~')
                return s.PutError("Client names cannot contain spaces, newlines or special characters.");
        }
        if (a[2].size() > 256) return s.PutError("Client name is too long");
        s.Name = a[2];
        s.Put("+OK\r\n");
    } else if (a.Is(1, "GETNAME") && a.Count == 2) {
        if (s.Name.empty()) return s.PutNull();
        s.PutBulk(s.Name);
    } else if (a.Is(1, "ID") && a.Count == 2) {
        s.PutInteger(static_cast<int64_t>(s.Id));
    } else if (a.Is(1, "SETINFO") && a.Count == 4) {
        s.Put("+OK\r\n");
    } else {
        s.PutError("unknown subcommand or wrong number of arguments for '" + Quoted(a[1]) + "'");
    }
}

void Hello(Session &s, const Arguments &a) {
    for (uint32_t i = 1; i < a.Count; i++) {
        if (i == 1 && a[1] != "2") {
            return s.Put(a[1] == "3" ? "-NOPROTO unsupported protocol version\r\n"
                                     : "-ERR Protocol version is not an integer or out of range\r\n");
        }
        if (i == 1) continue;
        if (!a.Is(i, "SETNAME") || i + 1 >= a.Count) return s.PutError("syntax error in HELLO");
        s.Name = a[++i].substr(0, 256);
    }
    s.PutArray(14);
    s.PutBulk("server");
    s.PutBulk("keyhost");
    s.PutBulk("version");
    s.PutBulk("7.0.0");
    s.PutBulk("proto");
    s.PutInteger(2);
    s.PutBulk("id");
    s.PutInteger(static_cast<int64_t>(s.Id));
    s.PutBulk("mode");
    s.PutBulk("standalone");
    s.PutBulk("role");
    s.PutBulk("master");
    s.PutBulk("modules");
    s.PutArray(0);
}

void AboutCommands(Session &s, const Arguments &a);

const Command kServerCommands[] = {
    {"ping", -1, 0, 0, 0, 0, Ping},         {"echo", 2, 0, 0, 0, 0, Echo},
    {"select", 2, 0, 0, 0, 0, Select},      {"quit", -1, 0, 0, 0, 0, Quit},
    {"shutdown", -1, 0, 0, 0, 0, Shutdown}, {"info", -1, 0, 0, 0, 0, Info},
    {"config", -2, 0, 0, 0, 0, Config},     {"client", -2, 0, 0, 0, 0, Client},
    {"hello", -1, 0, 0, 0, 0, Hello},       {"command", -1, 0, 0, 0, 0, AboutCommands},
};

// Names are letters only, so that one bit makes them lower case and nothing else becomes one of them. A slot is found
// by the name's eight bytes.
constexpr uint32_t kSlotBits = 9;
struct NameSlot {
    uint64_t Name = 0;
    const Command *Is = nullptr;
};
NameSlot gSlots[1u << kSlotBits];

uint64_t PackName(std::string_view name) {
    uint64_t packed = 0;
    std::memcpy(&packed, name.data(), name.size());
    return packed | 0x2020202020202020u >> (64 - 8 * name.size());
}
uint32_t SlotOf(uint64_t name) {
    return static_cast<uint32_t>((name * 0x9E3779B97F4A7C15u) >> (64 - kSlotBits));
}

const Command *FindCommand(std::string_view name) {
    if (name.empty() || name.size() > sizeof(uint64_t)) return nullptr;
    const uint64_t packed = PackName(name);
    uint32_t slot = SlotOf(packed);
    while (gSlots[slot].Is != nullptr && gSlots[slot].Name != packed) slot = (slot + 1) % std::size(gSlots);
    return gSlots[slot].Is;
}

void AboutCommands(Session &s, const Arguments &a) {
    std::vector<const Command *> listed;
    if (a.Count > 1 && a.Is(1, "DOCS")) return s.PutArray(0);
    const bool info = a.Count > 1 && a.Is(1, "INFO");
    if (info) {
        for (uint32_t i = 2; i < a.Count; i++) listed.push_back(FindCommand(a[i]));
    } else {
        for (const NameSlot &slot : gSlots) {
            if (slot.Is != nullptr) listed.push_back(slot.Is);
        }
    }
    if (a.Count > 1 && a.Is(1, "COUNT")) return s.PutInteger(static_cast<int64_t>(listed.size()));
    if (a.Count > 1 && !info) return s.PutError("unknown subcommand '" + Quoted(a[1]) + "'");
    s.PutArray(listed.size());
    for (const Command *command : listed) {
        if (s.OutUsed >= kSpillBytes && !s.Spill()) return;
        if (command == nullptr) {
            s.Put("*-1\r\n");
            continue;
        }
        s.PutArray(6);
        s.PutBulk(command->Name);
        s.PutInteger(command->Arity);
        s.PutArray(command->Flags != 0 ? 1 : 0);
        if (command->Flags != 0) s.Put(command->Flags == kWrites ? "+write\r\n" : "+readonly\r\n");
        s.PutInteger(command->FirstKey);
        s.PutInteger(command->LastKey);
        s.PutInteger(command->KeyStep);
    }
}

}  // namespace

std::string Quoted(std::string_view text) {
    std::string out;
    for (const char c : text.substr(0, 128)) out += c < ' ' || c > '~' ? '?' : c;
    return out;
}

bool Arguments::Is(uint32_t i, std::string_view word) const {
    const std::string_view is = (*this)[i];
    if (is.size() != word.size()) return false;
    for (size_t c = 0; c < is.size(); c++) {
        if ((is[c] | 0x20) != (word[c] | 0x20)) return false;
    }
    return true;
}

void InitCommands() {
    const auto enter = [](const Command &command) {
        const uint64_t packed = PackName(command.Name);
        uint32_t slot = SlotOf(packed);
        while (gSlots[slot].Is != nullptr) slot = (slot + 1) % std::size(gSlots);
        gSlots[slot] = NameSlot{packed, &command};
    };
    for (size_t i = 0; i < kKeyCommandCount; i++) enter(kKeyCommands[i]);
    for (const Command &command : kServerCommands) enter(command);
}

void Execute(Session *session, const char *data, const RespRequest &request) {
    const Arguments arguments{data, &request, request.Count};
    const Command *const command = FindCommand(arguments[0]);
    if (command == nullptr) [[unlikely]] {
        return session->PutError("unknown command '" + Quoted(arguments[0]) + "'");
    }
    const auto count = static_cast<int32_t>(request.Count);
    if (command->Arity >= 0 ? count != command->Arity : count < -command->Arity) [[unlikely]] {
        return session->PutError("wrong number of arguments for '" + std::string(command->Name) + "' command");
    }
    if (command->Flags == kWrites) AwaitLogRoom(&session->Wait);
    command->Run(*session, arguments);
}

}  // namespace host
