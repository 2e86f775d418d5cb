// host/resp.cpp - the parser of requests.
//
// Runs on the session's thread, allocates only for requests of many arguments, and trusts nothing: every length is
// bounded before it is used.
#include "resp.h"

#include <cstring>

namespace host {

namespace {

constexpr size_t kMaxNumberLine = 32;

enum class Line : uint8_t { kMore, kNumber, kBad, kLong };

// The line "<number>\r\n" at data[*at]; moves *at behind it.
Line ReadNumber(const char *data, size_t size, size_t *at, int64_t *value) {
    size_t i = *at;
    const bool negative = i < size && data[i] == '-';
    if (negative) i++;
    const size_t digits = i;
    uint64_t number = 0;
    for (; i < size && data[i] >= '0' && data[i] <= '9'; i++) {
        if (i - digits >= 18) return Line::kLong;
        number = number * 10 + static_cast<uint64_t>(data[i] - '0');
    }
    if (i >= size) return i - *at > kMaxNumberLine ? Line::kLong : Line::kMore;
    if (data[i] != '\r' || i == digits) return Line::kBad;
    if (i + 1 >= size) return Line::kMore;
    if (data[i + 1] != '\n') return Line::kBad;
    *value = negative ? -static_cast<int64_t>(number) : static_cast<int64_t>(number);
    *at = i + 2;
    return Line::kNumber;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// The word at line[*at] with its quotes and escapes resolved to the front of the word's own place.
bool Unquote(char *line, size_t length, size_t *at, size_t *put) {
    size_t i = *at;
    char quote = 0;
    for (; i < length; i++) {
        char c = line[i];
        if (quote == 0) {
            if (IsBlank(c)) break;
            if (c == '"' || c == '\'') {
                quote = c;
                continue;
            }
        } else if (c == quote) {
            // A closing quote ends the word.
            if (i + 1 < length && !IsBlank(line[i + 1])) return false;
            quote = 0;
            continue;
        } else if (c == '\\' && i + 1 < length && (quote == '"' || line[i + 1] == '\'')) {
            c = line[++i];
            if (quote == '"') {
                if (c == 'x' && i + 2 < length && HexDigit(line[i + 1]) >= 0 && HexDigit(line[i + 2]) >= 0) {
                    c = static_cast<char>(HexDigit(line[i + 1]) * 16 + HexDigit(line[i + 2]));
                    i += 2;
                } else if (c == 'n') {
                    c = '\n';
                } else if (c == 'r') {
                    c = '\r';
                } else if (c == 't') {
                    c = '\t';
                }
            }
        }
        line[(*put)++] = c;
    }
    *at = i;
    return quote == 0;
}

}  // namespace

void RespRequest::Add(size_t offset, size_t length) {
    const Arg arg{static_cast<uint32_t>(offset), static_cast<uint32_t>(length)};
    if (Count < kFew) {
        Few[Count] = arg;
    } else {
        if (Count == kFew) Many.assign(Few, Few + kFew);
        Many.push_back(arg);
    }
    Count++;
}

RespState RespRequest::ParseInline(char *data, size_t size) {
    const size_t seen = At < size ? At : size;
    const void *end = std::memchr(data + seen, '\n', size - seen);
    if (end == nullptr) {
        At = size;
        return size > kMaxInline ? Broken("Protocol error: too big inline request") : RespState::kMore;
    }
    size_t length = static_cast<size_t>(static_cast<const char *>(end) - data);
    At = length + 1;
    if (length > kMaxInline) return Broken("Protocol error: too big inline request");
    if (length != 0 && data[length - 1] == '\r') length--;
    for (size_t i = 0; i < length;) {
        if (IsBlank(data[i])) {
            i++;
            continue;
        }
        const size_t start = i;
        size_t put = i;
        if (!Unquote(data, length, &i, &put)) return Broken("Protocol error: unbalanced quotes in request");
        Add(start, put - start);
    }
    return RespState::kReady;
}

RespState RespRequest::Parse(char *data, size_t size, const RespLimits &limits) {
    if (Wanted == 0) {
        if (size == 0) return RespState::kMore;
        if (data[0] != '*') return ParseInline(data, size);
        size_t at = 1;
        int64_t number = 0;
        switch (ReadNumber(data, size, &at, &number)) {
            case Line::kMore: return RespState::kMore;
            case Line::kLong: return Broken("Protocol error: too big mbulk count string");
            case Line::kBad: return Broken("Protocol error: invalid multibulk length");
            case Line::kNumber: break;
        }
        if (number > kMaxArguments) return Broken("Protocol error: invalid multibulk length");
        At = at;
        if (number <= 0) return RespState::kReady;
        Wanted = static_cast<uint32_t>(number);
    }
    while (Count < Wanted) {
        if (Bulk == kNoBulk) {
            if (At >= size) return RespState::kMore;
            if (data[At] != '$') {
                Got = data[At];
                return Broken("Protocol error: expected '$', got '");
            }
            size_t at = At + 1;
            int64_t number = 0;
            switch (ReadNumber(data, size, &at, &number)) {
                case Line::kMore: return RespState::kMore;
                case Line::kLong: return Broken("Protocol error: too big bulk count string");
                case Line::kBad: return Broken("Protocol error: invalid bulk length");
                case Line::kNumber: break;
            }
            if (number < 0 || static_cast<uint64_t>(number) > limits.Bulk) {
                return Broken("Protocol error: invalid bulk length");
            }
            Total += static_cast<size_t>(number);
            if (Total > limits.Request) return Broken("Protocol error: too big request");
            Bulk = static_cast<uint64_t>(number);
            At = at;
        }
        if (size - At < Bulk + 2) return RespState::kMore;
        if (data[At + Bulk] != '\r' || data[At + Bulk + 1] != '\n') {
            return Broken("Protocol error: bulk string without its end");
        }
        Add(At, static_cast<size_t>(Bulk));
        At += static_cast<size_t>(Bulk) + 2;
        Bulk = kNoBulk;
    }
    return RespState::kReady;
}

}  // namespace host
