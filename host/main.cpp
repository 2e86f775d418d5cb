// host/main.cpp - options, settings of the library, start and end of the server.
//
// main parses the options and hands the main routine to the library, which runs it as the first user thread. The main
// routine recovers the database, starts the background threads and the listener, and then looks a few times a second
// whether it is to end.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "admin.h"
#include "checkpoint.h"
#include "recovery.h"
#include "session.h"

namespace host {

namespace {

const char kHelp[] =
    "Usage: keyhost [options]\n"
    "A durable key-value server that speaks RESP2, one user thread per session.\n"
    "\n"
    "  --port N             port to listen on (default 6379; 0: a free one)\n"
    "  --bind ADDRESS       IPv4 address to listen on (default 127.0.0.1)\n"
    "  --dir FOLDER         where log and checkpoint are (default .; made when missing)\n"
    "  --trace-dir FOLDER   where the trace log, dumps and the ring log go (default: that of --dir)\n"
    "  --durability WHEN    always: a write is answered when it is durable (default); everysec: at once, durable\n"
    "                       within a second; no: at once, durable when the system writes it\n"
    "  --schedulers N       scheduler threads (default 1)\n"
    "  --migrate-lgwr WHEN  a scheduler of its own for the log writer: start: from the start; later: when the\n"
    "                       administrator asks for it; never (default)\n"
    "  --threads            kernel threads instead of user threads\n"
    "  --max-sessions N     clients at a time (default 10000)\n"
    "  --max-value BYTES    longest key and value (default 8388608)\n"
    "  --max-buffers BYTES  memory for incomplete requests, and for keys that KEYS and SCAN gather\n"
    "                       (default 268435456)\n"
    "  --segment BYTES      size of a log file (default 33554432, more for large values)\n"
    "  --checkpoint BYTES   log after which a checkpoint is made (default: two segments)\n"
    "  --send-timeout S     seconds that a client may leave an answer unread (default 30)\n"
    "  --request-timeout S  seconds that a request may stay incomplete (default 60)\n"
    "  --idle-timeout S     seconds without a request (default 0: no limit)\n"
    "  --admin-pipe NAME    serve administrators on the pipe \\\\.\\pipe\\NAME; '': keyhost.PROCESS-NUMBER\n"
    "  --help               this text\n"
    "\n"
    "Settings of the library may come from the environment (ZVX_FIBERS_...); those that the options set win, and\n"
    "the number of schedulers is always the option's.\n";

uint64_t ToNumber(const char *option, const char *text, uint64_t least, uint64_t most) {
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || *text == '-' || value < least || value > most) {
        std::fprintf(stderr, "keyhost: %s wants a number from %llu to %llu, not '%s'\n", option,
                     static_cast<unsigned long long>(least), static_cast<unsigned long long>(most), text);
        std::exit(2);
    }
    return value;
}

void ParseOptions(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        const std::string_view option = argv[i];
        if (option == "--help") {
            std::fputs(kHelp, stdout);
            std::exit(0);
        }
        if (option == "--threads") {
            gOptions.Threads = true;
            continue;
        }
        const char *const value = i + 1 < argc ? argv[i + 1] : nullptr;
        const auto number = [&](uint64_t least, uint64_t most) {
            i++;
            return ToNumber(argv[i - 1], value, least, most);
        };
        const auto small = [&](uint64_t least, uint64_t most) { return static_cast<uint32_t>(number(least, most)); };
        bool known = value != nullptr;
        if (!known) {
            // Every option from here on has a value.
        } else if (option == "--port") {
            gOptions.Port = small(0, 65535);
        } else if (option == "--bind") {
            gOptions.Bind = argv[++i];
        } else if (option == "--dir") {
            gOptions.Dir = argv[++i];
        } else if (option == "--admin-pipe") {
            gOptions.Admin = true;
            gOptions.AdminPipe = argv[++i];
        } else if (option == "--trace-dir") {
            gOptions.TraceDir = argv[++i];
        } else if (option == "--schedulers") {
            gOptions.Schedulers = std::to_string(number(1, 16));
        } else if (option == "--max-sessions") {
            gOptions.MaxSessions = small(1, 1000000);
        } else if (option == "--max-value") {
            gOptions.MaxValue = number(1024, 512 << 20);
        } else if (option == "--max-buffers") {
            gOptions.MaxBuffers = number(1 << 20, 1ull << 40);
        } else if (option == "--segment") {
            gOptions.SegmentBytes = number(1 << 20, 1 << 30);
        } else if (option == "--checkpoint") {
            gOptions.CheckpointBytes = number(4096, 1ull << 40);
        } else if (option == "--send-timeout") {
            gOptions.SendTimeout = small(1, 86400);
        } else if (option == "--request-timeout") {
            gOptions.RequestTimeout = small(1, 86400);
        } else if (option == "--idle-timeout") {
            gOptions.IdleTimeout = small(0, 1u << 30);
        } else if (option == "--migrate-lgwr") {
            const std::string_view when = argv[++i];
            known = when == "start" || when == "later" || when == "never";
            gOptions.Migrate = when == "start";
            gOptions.MayMigrate = when != "never";
        } else if (option == "--durability") {
            const std::string_view when = argv[++i];
            known = when == "always" || when == "everysec" || when == "no";
            gOptions.Sync = when == "no"         ? Durability::kNo
                            : when == "everysec" ? Durability::kEverySecond
                                                 : Durability::kAlways;
        } else {
            known = false;
        }
        if (!known) {
            std::fprintf(stderr, "keyhost: '%s' is not understood. Try --help.\n", argv[i]);
            std::exit(2);
        }
    }
}

// Whether the environment has the key under the name with the instance in it. The library asks for that name when the
// common one, `name`, has no value: an answer of the host's own would hide it.
bool IsSetForInstance(std::string_view name) {
    constexpr std::string_view kCommon = "ZVX_FIBERS_";
    const char *const instance = std::getenv("ZORVEX_SID");
    if (instance == nullptr || name.substr(0, kCommon.size()) != kCommon) return false;
    const std::string own = "ZVX_" + std::string(instance) + "_FIBERS_" + std::string(name.substr(kCommon.size()));
    return std::getenv(own.c_str()) != nullptr;
}

// What the library asks for while it starts. A server waits for clients most of the time: an idle scheduler sleeps in
// its port until something happens, completions always come through the port, and stacks are small because there are
// many of them.
int LookupValue(const char *name, char *buffer, int capacity) {
    const std::string_view key = name;
    const char *value = std::getenv(name);
    if (key == "ZVX_FIBERS_Schedulers") value = gOptions.Schedulers.c_str();
    if (key == "ZVX_FIBERS_DisableFibers" && gOptions.Threads) value = "1";
    if (key == "ZVX_FIBERS_DynamicSchedulersEnabled" && gOptions.MayMigrate) value = "1";
    if (value == nullptr && !IsSetForInstance(key)) {
        if (key == "ZVX_FIBERS_PortWaitMs") value = "100";
        if (key == "ZVX_FIBERS_NumContextSwitchesBeforePolling") value = "10000";
        if (key == "ZVX_FIBERS_DefaultNetShadowSpinTimeMs") value = "0";
        if (key == "ZVX_FIBERS_SpinIfLGWRActiveInMs") value = "0";
        // A scheduler that runs above its clients wakes for each of them alone: twice the time for a request.
        if (key == "ZVX_FIBERS_BoostLGWROSThreadPri") value = "0";
        if (key == "ZVX_FIBERS_StackPages") value = "16";
        if (key == "ZVX_FIBERS_StallReportMs") value = "100";
        if (key == "ZVX_FIBERS_PrintToConsole") value = "0";
    }
    if (value == nullptr) return 0;
    const size_t length = std::strlen(value);
    const size_t put = length < static_cast<size_t>(capacity) ? length : static_cast<size_t>(capacity);
    std::memcpy(buffer, value, put);
    return static_cast<int>(put);
}

void Start(LPTHREAD_START_ROUTINE routine, LPVOID argument, const char *name) {
    const HANDLE thread = CreateThread(nullptr, 0, routine, argument, 0, nullptr);
    if (thread == nullptr) Refuse("no thread for %s: %s", name, ReasonOf(GetLastError()).c_str());
    CloseHandle(thread);
}

// A folder that the server makes itself is its user's alone; one that was there keeps its rights.
void MakeFolder(const std::string &path) {
    std::error_code ignored;
    if (std::filesystem::create_directories(path, ignored))
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, ignored);
}

// The file that keeps a second server out of the folder.
void LockFolder() {
    MakeFolder(gOptions.Dir);
    const std::string name = gOptions.Dir + "/lock";
    const HANDLE file = CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    nullptr, OPEN_ALWAYS, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) Refuse("%s: %s", name.c_str(), ReasonOf(GetLastError()).c_str());
    OVERLAPPED overlapped{};
    if (!LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &overlapped)) {
        Refuse("%s: %s", name.c_str(), ReasonOf(GetLastError()).c_str());
    }
}

std::atomic<bool> gServing{false};

// Recovery changes nothing that matters, so that it may be left at any moment.
void StopHandler(int) {
    if (!gServing.load()) std::_Exit(1);
    gStop = true;
}

DWORD WINAPI MainRoutine(LPVOID) {
    gOptions.Threads = ZvxSchedulerCount() == 0;  // a setting in the environment may have asked for it
    InitKeyspace();
    InitSessions();
    InitCommands();
    LockFolder();
    const HANDLE event = MakePostEvent();  // for the end
    Recovered recovered = RecoverDatabase();
    InitCheckpoints(recovered.Log.LogId);
    Start(DatabaseWriter, reinterpret_cast<LPVOID>(0), "DBW0");
    Start(DatabaseWriter, reinterpret_cast<LPVOID>(1), "DBW1");
    OpenLog(&recovered.Log);
    Start(LogWriter, nullptr, "LGWR");
    Start(Monitor, MakePostEvent(), "PMON");
    if (gOptions.Sync == Durability::kEverySecond &&
        CreateRemoteThread(GetCurrentProcess(), nullptr, 0, LogFlusher, nullptr, 0, nullptr) == nullptr) {
        Refuse("no thread for the flusher: %s", ReasonOf(GetLastError()).c_str());
    }
    uint32_t port = 0;
    const SOCKET listener = OpenListener(&port);
    gOptions.Port = port;
    const std::string admin = OpenAdminPipe();
    Start(Listener, reinterpret_cast<LPVOID>(listener), "the listener");
    if (recovered.CutBytes != 0) {
        std::fprintf(stderr, "keyhost: the log ended in a batch of %llu bytes that was not whole; it is cut off\n",
                     static_cast<unsigned long long>(recovered.CutBytes));
    }
    gServing = true;  // who reads that it is ready may end it
    if (!admin.empty()) std::printf("keyhost: administrators at %s\n", admin.c_str());
    std::printf(
        "keyhost: %llu keys from the checkpoint, %llu records from the log\n"
        "keyhost: ready on %s:%u, %s, %u schedulers, %s\n",
        static_cast<unsigned long long>(recovered.CheckpointKeys), static_cast<unsigned long long>(recovered.Records),
        gOptions.Bind.c_str(), port, gOptions.Threads ? "kernel threads" : "user threads", ZvxSchedulerCount(),
        ZvxIoBackendName());
    std::fflush(stdout);

    while (!gStop.load()) Sleep(200);
    closesocket(listener);
    CloseLog();  // what is answered from here on would not be awaited
    // Sessions that wait for the log get their answers; the others lose their connection with the process.
    IdentifyUserThread("MAIN", event);
    Waiter waiter;
    waiter.Event = event;
    // A few seconds for a log that cannot be written: what was answered may be waiting for it (--durability).
    DWORD error = SyncLog(&waiter, 1000);
    for (const ULONGLONG begun = GetTickCount64(); error != ERROR_SUCCESS && GetTickCount64() - begun < 5000;) {
        MendLog();
        Sleep(200);
        error = SyncLog(&waiter, 1000);
    }
    Sleep(50);
    if (error != ERROR_SUCCESS) Refuse("ended, but the log could not be written: %s", ReasonOf(error).c_str());
    std::printf("keyhost: ended\n");
    ExitProcess(0);
}

}  // namespace

}  // namespace host

int main(int argc, char **argv) {
    host::ParseOptions(argc, argv);
    std::signal(SIGTERM, host::StopHandler);
    std::signal(SIGINT, host::StopHandler);
#ifdef SIGXFSZ
    std::signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes is an error of the write, no end
#endif
    if (*ZvxIoBackendNote() != '\0') std::fprintf(stderr, "keyhost: %s\n", ZvxIoBackendNote());
    ZVXKVT_INIT_PARAMS params{};
    params.QuantumIndicator = &host::gQuantumIndicator;
    params.LookupValue = host::LookupValue;
    // A slash at its end says that the name is a folder's, whatever characters it has.
    const std::string traces = host::gOptions.TraceDir.empty() ? host::gOptions.Dir : host::gOptions.TraceDir;
    const std::string traceDir = traces + "/";
    params.TraceDirectory = traceDir.c_str();
    host::MakeFolder(traces);  // the library writes there before the server does
    InitUserThreadScheduler(host::MainRoutine, nullptr, &params);
    return 0;
}
