// host/commands.h - the table of commands.
#ifndef HOST_COMMANDS_H
#define HOST_COMMANDS_H

#include <string>
#include <string_view>

#include "session.h"

namespace host {

// A request's arguments where they lie, the command's name first.
struct Arguments {
    const char *Data;
    const RespRequest *Request;
    uint32_t Count;

    std::string_view operator[](uint32_t i) const { return Request->Argument(Data, i); }
    bool Is(uint32_t i, std::string_view word) const;  // in any case
};

constexpr uint32_t kReads = 1;   // of keys
constexpr uint32_t kWrites = 2;  // of keys: waits for room in the log first

struct Command {
    std::string_view Name;  // at most eight letters
    int32_t Arity;          // negative: at least so many arguments, the name included
    uint32_t Flags;
    int32_t FirstKey, LastKey, KeyStep;
    void (*Run)(Session &session, const Arguments &arguments);
};

// What a client sent, as it may stand in the one line of an error: cut, and '?' for what cannot be printed.
std::string Quoted(std::string_view text);

extern const Command kKeyCommands[];
extern const size_t kKeyCommandCount;

}  // namespace host

#endif  // HOST_COMMANDS_H
