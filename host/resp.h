// host/resp.h - requests as they come from the wire.
//
// A request is parsed where it lies in the session's buffer, by offsets from its first byte, so that the buffer may
// move or grow between two attempts. The parser takes up where it stopped: a request that arrives in many pieces is
// looked at once.
#ifndef HOST_RESP_H
#define HOST_RESP_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace host {

struct RespLimits {
    uint64_t Bulk = 8 << 20;      // bytes of an argument
    uint64_t Request = 17 << 20;  // bytes of a request
};
constexpr uint32_t kMaxArguments = 128 * 1024;
constexpr size_t kMaxInline = 64 * 1024;  // bytes of a line that is no array

enum class RespState : uint8_t { kMore, kReady, kBroken };

// One request under way. Session's thread only.
struct RespRequest {
    static constexpr uint32_t kFew = 8;
    struct Arg {
        uint32_t Offset;
        uint32_t Length;
    };

    uint32_t Count = 0;           // arguments that are there
    uint32_t Wanted = 0;          // arguments announced; 0 until the first line is complete
    uint64_t Bulk = kNoBulk;      // length of the argument that is awaited, once its line is complete
    size_t At = 0;                // next byte to look at; the length of the request when it is ready
    size_t Total = 0;             // bytes of the arguments so far
    const char *Error = nullptr;  // set with kBroken; what follows "-ERR "
    char Got = 0;                 // byte that was found where the error text ends with "got '"
    Arg Few[kFew];                // the usual request needs no memory
    std::vector<Arg> Many;        // all arguments, once there are more than kFew

    static constexpr uint64_t kNoBulk = ~uint64_t{0};

    // Looks at data[0, size), which begins with the request. Inline requests are unquoted in place.
    RespState Parse(char *data, size_t size, const RespLimits &limits);
    std::string_view Argument(const char *data, uint32_t i) const {
        const Arg &arg = Many.empty() ? Few[i] : Many[i];
        return {data + arg.Offset, arg.Length};
    }
    void Reset() {
        Count = Wanted = 0;
        Bulk = kNoBulk;
        At = Total = 0;
        if (!Many.empty()) [[unlikely]]
            std::vector<Arg>().swap(Many);
    }

  private:
    RespState ParseInline(char *data, size_t size);
    RespState Broken(const char *error) {
        Error = error;
        return RespState::kBroken;
    }
    void Add(size_t offset, size_t length);
};

}  // namespace host

#endif  // HOST_RESP_H
