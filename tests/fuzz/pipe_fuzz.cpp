// tests/fuzz/pipe_fuzz.cpp - a named pipe whose client is no library, but somebody who writes bytes to its socket.
//
// The server's end reads, peeks, cancels and writes in between. In a pipe of messages it must get what the bytes say,
// with the ends of the messages where they say, whatever the pieces, the sizes of its reads and the reads it gave up;
// a length that nothing follows costs no memory.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "fuzz/started.h"
#include "zvxkvt/pipes.h"

namespace {

std::string gFolder;

// By the system's own calls: the library has functions of the same names.
int Connect() {
    const long fd = syscall(SYS_socket, AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    for (const auto &entry : std::filesystem::recursive_directory_iterator(gFolder)) {
        if (!entry.is_socket()) continue;
        sockaddr_un address{AF_UNIX, {}};
        entry.path().string().copy(address.sun_path, sizeof address.sun_path - 1);
        if (syscall(SYS_connect, fd, &address, sizeof address) == 0) return static_cast<int>(fd);
    }
    fuzz::Require(false, "no socket to connect to", static_cast<uint64_t>(errno));
    return -1;
}

// What the peer has written, and how far the server has read it.
struct Stream {
    int Peer;
    bool Messages;
    std::string Sent;
    size_t At = 0;        // next byte to be read
    bool Inside = false;  // of a message, of which Left bytes are to come
    uint32_t Left = 0;

    void Send(const std::string &bytes) {
        const int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
        const long put = syscall(SYS_sendto, Peer, bytes.data(), bytes.size(), flags, nullptr, 0);
        Sent += bytes.substr(0, put > 0 ? static_cast<size_t>(put) : 0);
    }
    // The next read of a message pipe may bring so many bytes of one message.
    bool Open() {
        if (Inside) return true;
        if (Sent.size() - At < 4) return false;
        std::memcpy(&Left, Sent.data() + At, 4);
        At += 4;
        return Inside = true;
    }
    void Check(const char *got, DWORD size, DWORD room, bool more) {
        if (Messages) {
            fuzz::Require(Open(), "a message from nothing");
            fuzz::Require(size == std::min<uint64_t>(room, Left), "a message's part", size, Left);
            Left -= size;
            fuzz::Require(more == (Left != 0), "the end of a message", size, Left);
            Inside = Left != 0;
        }
        const bool same = size <= Sent.size() - At && std::memcmp(got, Sent.data() + At, size) == 0;
        fuzz::Require(same, "other bytes", At, size);
        At += size;
    }
};

char gBuffer[8192];
const DWORD kSizes[] = {0, 1, 3, 16, 100, 4096, 8192};

void AwaitEnd(OVERLAPPED &ov, const char *what, auto meanwhile) {
    for (int i = 0; !HasOverlappedIoCompleted(&ov); i++) {
        fuzz::Require(i < 20000, what);
        meanwhile(i);
        SleepEx(i < 4 ? 0 : 1, FALSE);
    }
}

// A read that is given up when nothing comes. False at the end of the connection.
bool Read(HANDLE pipe, Stream *stream, DWORD room) {
    OVERLAPPED ov{};
    DWORD size = 0;
    DWORD error = ReadFile(pipe, gBuffer, room, &size, &ov) ? DWORD{ERROR_SUCCESS} : GetLastError();
    if (error == ERROR_IO_PENDING) {
        AwaitEnd(ov, "a read that is not cancelled", [pipe](int tries) { tries == 3 && CancelIo(pipe); });
        error = GetOverlappedResult(pipe, &ov, &size, FALSE) ? DWORD{ERROR_SUCCESS} : GetLastError();
    }
    if (error == ERROR_OPERATION_ABORTED) return true;
    if (error == ERROR_BROKEN_PIPE) return false;
    fuzz::Require(error == ERROR_SUCCESS || error == ERROR_MORE_DATA, "an error of a read", error);
    // Nothing to take was asked for, and nothing is taken but, of messages, the empty ones.
    if (room != 0 || stream->Messages) stream->Check(gBuffer, size, room, error == ERROR_MORE_DATA);
    return true;
}

void RunInput(fuzz::Input input) {
    const std::string name = "\\\\.\\pipe\\fuzz." + std::to_string(GetCurrentProcessId());
    const bool messages = (input.Byte() & 1) != 0;
    const HANDLE pipe = CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                         messages ? PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE : 0, 1, 0, 0, 0, nullptr);
    fuzz::Require(pipe != INVALID_HANDLE_VALUE, "no pipe", GetLastError());
    Stream stream{Connect(), messages, {}};
    static char sink[1 << 18];
    const auto drain = [&](int) { syscall(SYS_recvfrom, stream.Peer, sink, sizeof sink, 0, nullptr, nullptr); };
    bool open = true;
    for (int steps = 0; open && !input.Empty() && steps < 100; steps++) {
        const uint8_t what = input.Byte();
        DWORD counts[3];
        OVERLAPPED ov{};
        switch (what % 8) {
            case 0:
            case 1:
            case 2: stream.Send(std::string(input.Bytes(what / 8u))); break;
            case 3: {  // a message as it should be, or only its beginning
                const std::string body(input.Byte(), static_cast<char>(what));
                const uint32_t length = static_cast<uint32_t>(body.size()) + (what >= 0xF0 ? 1u << 30 : 0);
                stream.Send(std::string(reinterpret_cast<const char *>(&length), 4) + body);
                break;
            }
            case 4: PeekNamedPipe(pipe, gBuffer, kSizes[what / 8 % 7], &counts[0], &counts[1], &counts[2]); break;
            case 5:
                if (WriteFile(pipe, gBuffer, kSizes[what / 8 % 6], nullptr, &ov) || GetLastError() == ERROR_IO_PENDING)
                    AwaitEnd(ov, "a write that does not end", drain);
                drain(0);
                break;
            default: open = Read(pipe, &stream, kSizes[what / 8 % 7]);
        }
    }
    fuzz::Require(open, "an end before the end");
    syscall(SYS_shutdown, stream.Peer, SHUT_WR);
    for (int i = 0; open; i++) {
        fuzz::Require(i < 100000, "no end");
        open = Read(pipe, &stream, sizeof gBuffer);
    }
    // Only the beginning of a message may be left.
    const uint64_t wanted = !messages ? 1 : stream.Open() ? uint64_t{stream.Left} : 4;
    const size_t left = stream.Sent.size() - stream.At;
    fuzz::Require(left < wanted, "bytes are lost", left, wanted);
    close(stream.Peer);
    fuzz::Require(CloseHandle(pipe), "a pipe is not closed");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (gFolder.empty()) {
        gFolder = fuzz::Scratch("pipe");
        std::filesystem::create_directory(gFolder);
        setenv("ZVXKVT_PIPES", gFolder.c_str(), 1);
    }
    fuzz::RunStarted(RunInput, data, size);
    return 0;
}
