// tests/security/second_user_test.cpp - another user of the same machine who wants what is not his: names of objects
// and pipes that he takes first, locks that he never gives back, links and files that he lays in the way.
//
// Both users are ordinary ones. The superuser, whom no permission stops, only directs them.
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "../platform/support.h"
#include "platform/base/shared_names.h"
#include "platform/os_pipe.h"
#include "platform/os_process.h"

namespace {

// Of this process alone: what is a user's is one for the machine, and cases run at the same time.
const uid_t kVictim = 1000000 + 2 * static_cast<uid_t>(getpid()), kEnemy = kVictim + 1;
constexpr DWORD kBoth = GENERIC_READ | GENERIC_WRITE;

// Does something as a user: everything that it expects must be so. He holds on to what he has while the object lives.
struct As {
    template <typename Body>
    As(uid_t user, Body body) {
        int ready[2];
        EXPECT_EQ(0, pipe2(ready, O_CLOEXEC));
        Pid = fork();
        if (Pid == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) _exit(9);
            umask(0);
            body();
            const char failed = testing::Test::HasFailure() ? 1 : 0;
            if (write(ready[1], &failed, 1) != 1) _exit(9);
            for (;;) pause();
        }
        close(ready[1]);
        char failed = 1;
        EXPECT_TRUE(read(ready[0], &failed, 1) == 1 && failed == 0) << "what user " << user << " expected";
        close(ready[0]);
    }
    ~As() {
        kill(Pid, SIGKILL);
        waitpid(Pid, nullptr, 0);
    }
    As(const As &) = delete;
    pid_t Pid;
};

struct SecondUser : testing::Test {
    char Folder[32] = "/tmp/zvx-enemy-XXXXXX";  // everybody's, with the sticky bit, as /dev/shm is
    static std::string TableOf(uid_t user) { return "/dev/shm/zvxkvt-names-1-" + std::to_string(user); }
    const std::string Table = TableOf(kVictim);

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only the superuser has two other users to be";
        ASSERT_NE(nullptr, mkdtemp(Folder));
        chmod(Folder, 01777);
        setenv("ZVXKVT_PIPES", Folder, 1);
        Clean();
    }
    void TearDown() override {
        if (geteuid() == 0) Clean(), std::filesystem::remove_all(Folder);
    }
    static void Clean() {
        for (const uid_t user : {kVictim, kEnemy}) std::filesystem::remove_all(TableOf(user));
    }
    std::string In(const std::string &name) const { return std::string(Folder) + "/" + name; }
    std::string PipesOf(uid_t user) const { return In("zvxkvt-pipes-1-" + std::to_string(user)); }
};

mode_t ModeOf(const std::string &path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 ? info.st_mode : 0;
}

const char kPipe[] = "\\\\.\\pipe\\zvx-second-user";
HANDLE Serve(DWORD flags, DWORD instances, SECURITY_ATTRIBUTES *security) {
    return os::CreateNamedPipeA(kPipe, PIPE_ACCESS_DUPLEX | flags, PIPE_TYPE_MESSAGE, instances, 0, 0, 0, security);
}
HANDLE Connect() {
    return os::CreateFileA(kPipe, kBoth, 0, nullptr, OPEN_EXISTING, 0, nullptr);
}
// A null list of rights: everybody may open it.
SECURITY_ATTRIBUTES *Everybody() {
    static char descriptor[20];
    static SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor, FALSE};
    os::InitializeSecurityDescriptor(descriptor, 1);
    os::SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE);
    return &attributes;
}

}  // namespace

// A name that nobody but this process would know excludes nobody, so none is given; and nothing of the other user's, or
// of one's own behind his link, is opened.
TEST_F(SecondUser, ATableOfNamesThatSomebodyElsePutThere) {
    const std::string own = In("own");
    As(kVictim, [&] { std::ofstream(own) << "mine"; });
    chmod(own.c_str(), 0600);
    const auto lay = [&](const std::string &kind) {
        if (kind == "file") return static_cast<void>(std::ofstream(Table) << "his");
        EXPECT_EQ(0, kind == "link"     ? symlink(own.c_str(), Table.c_str())
                     : kind == "folder" ? mkdir(Table.c_str(), 0777)
                                        : mkfifo(Table.c_str(), 0666));
    };
    for (const std::string kind : {"file", "link", "folder", "fifo"}) {
        SCOPED_TRACE(kind);
        As(kEnemy, [&] { lay(kind); });
        As(kVictim, [] {
            EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(os::CreateMutexA(nullptr, TRUE, "once")));
            EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(os::OpenMutexA(0, FALSE, "once")));
            EXPECT_EQ(0u, ErrorOf(os::CreateMutexA(nullptr, TRUE, nullptr))) << "one without a name";
        });
        EXPECT_TRUE(kind != "file" || ReadWhole(Table) == "his");
        EXPECT_EQ("mine", ReadWhole(own));
        Clean();
    }
}

// A full table, a lock that is held and a file cut short would reach every process of the user: none can be had by
// others.
TEST_F(SecondUser, AUsersTableIsOutOfReach) {
    const As victim(kVictim, [] {
        const HANDLE event = os::CreateEventA(nullptr, TRUE, FALSE, "Global\\signal");
        ASSERT_EQ(0u, ErrorOf(event));
        ASSERT_TRUE(os::SharedNamesReady());
    });
    EXPECT_EQ(S_IFREG | 0600u, ModeOf(Table)) << "whatever the umask";
    As(kEnemy, [&] {
        for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR | O_CREAT}) {
            EXPECT_EQ(-1, open(Table.c_str(), flags | O_CLOEXEC, 0600));
            EXPECT_EQ(EACCES, errno);
        }
        EXPECT_EQ(-1, truncate(Table.c_str(), 0));
        EXPECT_EQ(-1, unlink(Table.c_str()));
        EXPECT_EQ(-1, rename(Table.c_str(), "/dev/shm/zvx-moved"));
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, ErrorOf(os::OpenEventA(0, FALSE, "Global\\signal")));
        const HANDLE own = os::CreateEventA(nullptr, TRUE, FALSE, "signal");
        EXPECT_EQ(ERROR_SUCCESS, os::GetLastError()) << "a name of his own";
        EXPECT_TRUE(os::SetEvent(own));
    });
    As(kVictim, [] {
        const HANDLE event = os::OpenEventA(0, FALSE, "signal");
        ASSERT_EQ(0u, ErrorOf(event));
        EXPECT_EQ(WAIT_TIMEOUT, os::WaitForSingleObject(event, 0));
    });
}

TEST_F(SecondUser, AFolderOfPipesThatSomebodyElseMade) {
    const std::string own = In("own");
    As(kVictim, [&] { ASSERT_EQ(0, mkdir(own.c_str(), 0700)); });
    for (const bool link : {false, true}) {
        As(kEnemy, [&] {
            const std::string path = PipesOf(kVictim);
            ASSERT_EQ(0, link ? symlink(own.c_str(), path.c_str()) : mkdir(path.c_str(), 0777));
        });
        As(kVictim, [] {
            EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Serve(0, 1, nullptr)));
            EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Connect()));
        });
        const std::string path = PipesOf(kVictim);
        EXPECT_EQ(0, link ? unlink(path.c_str()) : rmdir(path.c_str())) << "nothing was put into it";
    }
    EXPECT_EQ(0, rmdir(own.c_str())) << "nothing was put into the user's own behind the link";
}

TEST_F(SecondUser, APipeOfTheUsersOwn) {
    // The other one has the name already, for everybody; that is another pipe.
    const As enemy(kEnemy, [] { EXPECT_EQ(0u, ErrorOf(Serve(0, 1, Everybody()))); });
    const As victim(kVictim, [] {
        EXPECT_EQ(0u, ErrorOf(Serve(FILE_FLAG_FIRST_PIPE_INSTANCE, 2, nullptr)));
        EXPECT_EQ(0u, ErrorOf(Serve(0, 2, nullptr)));
    });
    EXPECT_EQ(S_IFDIR | 0700u, ModeOf(PipesOf(kVictim))) << "whatever the umask";
    As(kEnemy, [&] {
        EXPECT_EQ(-1, open(PipesOf(kVictim).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        EXPECT_EQ(-1, rename(PipesOf(kVictim).c_str(), In("away").c_str()));
        EXPECT_EQ(0u, ErrorOf(Connect())) << "to his own";
        EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(Connect())) << "and to no other";
    });
    As(kVictim, [] {
        for (int i = 0; i < 2; i++) EXPECT_EQ(0u, ErrorOf(Connect())) << "both instances are still free";
    });
}

// Who may read a record may lock it, too: that once kept its maker from making, listening and ending for ever.
TEST_F(SecondUser, LocksOnAPipeThatIsEverybodys) {
    const std::string all = In("zvxkvt-pipes-1-all");
    const As first(kVictim, [] { EXPECT_EQ(0u, ErrorOf(Serve(0, 3, Everybody()))); });
    std::string record;
    for (const auto &entry : std::filesystem::directory_iterator(all))
        if (!entry.path().has_extension()) record = entry.path();
    const As enemy(kEnemy, [&] {
        EXPECT_EQ(-1, open(record.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(-1, unlink(record.c_str()));
        EXPECT_EQ(-1, unlink((record + ".0").c_str()));
        const int fd = open(record.c_str(), O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(0, flock(fd, LOCK_EX | LOCK_NB));
        struct flock every {};
        every.l_type = F_RDLCK;
        every.l_whence = SEEK_SET;
        EXPECT_EQ(0, fcntl(fd, F_OFD_SETLK, &every));
    });
    As(kEnemy, [] { EXPECT_EQ(0u, ErrorOf(Connect())) << "it is for everybody"; });
    As(kVictim, [] {
        const HANDLE another = Serve(0, 3, Everybody());
        ASSERT_EQ(0u, ErrorOf(another));
        for (int i = 0; i < 3; i++) {
            HANDLE client = INVALID_HANDLE_VALUE;
            std::thread comer([&] {
                for (int tries = 0; tries < 1000 && client == INVALID_HANDLE_VALUE; tries++, Pause(5))
                    client = Connect();
                if (client == INVALID_HANDLE_VALUE) _exit(8);
            });
            const DWORD error = ErrorOf(os::ConnectNamedPipe(another, nullptr));
            EXPECT_TRUE(error == 0 || error == ERROR_PIPE_CONNECTED) << error;
            comer.join();
            EXPECT_TRUE(os::DisconnectNamedPipe(another));
            os::CloseHandle(client);
        }
        EXPECT_EQ(0u, ErrorOf(Serve(0, 3, Everybody()))) << "no instance was used up";
        EXPECT_EQ(ERROR_PIPE_BUSY, ErrorOf(Serve(0, 3, Everybody())));
    });
}

// Whose folder it is may put another socket in the place of an instance: a client looks whose it is, and, as that may
// have been another one yet at the look, asks the kernel who serves it.
TEST_F(SecondUser, APipeThatSomebodyElseServes) {
    const std::string all = In("zvxkvt-pipes-1-all");
    As(kEnemy, [&] { EXPECT_EQ(0, mkdir(all.c_str(), 0777) + chmod(all.c_str(), 01777)); });
    const As victim(kVictim, [] { EXPECT_EQ(0u, ErrorOf(Serve(0, 2, Everybody()))); });
    std::string instance;
    for (const auto &entry : std::filesystem::directory_iterator(all))
        if (entry.is_socket()) instance = entry.path();
    const As enemy(kEnemy, [&] {
        sockaddr_un address{AF_UNIX, {}};
        instance.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(0, unlink(instance.c_str()));
        EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) + listen(fd, 8));
    });
    As(kVictim, [] { EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Connect())); });
    EXPECT_EQ(0, chown(instance.c_str(), kVictim, kVictim)) << "by the superuser, for the look to be too early";
    As(kVictim, [] { EXPECT_EQ(ERROR_ACCESS_DENIED, ErrorOf(Connect())); });
}

// Dumps and logs tell what is in memory, and their names can be foreseen.
TEST_F(SecondUser, DumpsAndLogsInAFolderThatOthersWriteTo) {
    const std::string own = In("own"), laid = In("laid"), mine = In("mine");
    const auto dump = [](const std::string &path) {
        const DWORD flags = os::kFileFlagPrivate;
        const HANDLE file = os::CreateFileA(path.c_str(), kBoth, 0, nullptr, CREATE_ALWAYS, flags, nullptr);
        return file != INVALID_HANDLE_VALUE && os::CloseHandle(file) != FALSE;
    };
    const auto log = [](const std::string &path) {
        FILE *stream = os::OpenPrivateLog(path.c_str());
        return stream != nullptr && fputs("line", stream) >= 0 && fclose(stream) == 0;
    };
    As(kVictim, [&] {
        std::ofstream(own) << "mine";
        EXPECT_TRUE(dump(mine + ".dmp"));
        for (int i = 0; i < 2; i++) EXPECT_TRUE(log(mine + ".log")) << "a second process adds to it";
        EXPECT_EQ(0, symlink(own.c_str(), (mine + ".old").c_str()));
        EXPECT_TRUE(dump(mine + ".old")) << "a link that may be removed is";
    });
    for (const char *name : {".dmp", ".log", ".old"}) EXPECT_EQ(S_IFREG | 0600u, ModeOf(mine + name)) << name;
    EXPECT_EQ("lineline", ReadWhole(mine + ".log"));
    As(kEnemy, [&] {
        EXPECT_EQ(0, symlink(own.c_str(), (laid + ".link").c_str()));
        EXPECT_EQ(0, mkfifo((laid + ".fifo").c_str(), 0666));
        std::ofstream(laid + ".file") << "";
        chmod((laid + ".file").c_str(), 0666);
    });
    ASSERT_EQ(0, ::link(own.c_str(), (laid + ".hard").c_str())) << "by the superuser, as kernels allow it anybody";
    As(kVictim, [&] {
        for (const char *what : {".link", ".fifo", ".file"})
            EXPECT_FALSE(dump(laid + what) || log(laid + what)) << what;
        EXPECT_FALSE(log(laid + ".hard"));
        EXPECT_TRUE(dump(laid + ".hard")) << "another name of one's own file goes, the file does not";
    });
    EXPECT_EQ("mine", ReadWhole(own));
    EXPECT_EQ("", ReadWhole(laid + ".file"));
}
