// tests/host/server_test.cpp - the server as clients see it: commands, pipelines, bad input, limits, its end.
#include "server.h"

namespace keyhost_test {
namespace {

struct Serving : OnEachBackEnd {};
ON_EACH_BACK_END(Serving);

// Commands, each with the beginning of its answer; an answer that ends in | is meant whole.
const char kDialogue[] =
    "PING > +PONG|; ping hello > $hello|; ECHO x > $x|; ECHO > -ERR wrong number of arguments for 'echo' command; "
    "nosuch > -ERR unknown command 'nosuch'; GET k > nil|; SET k v > +OK|; GET k > $v|; SET k w NX > nil|; "
    "SET k w XX GET > $v|; SET absent w XX > nil|; SET fresh w NX GET > nil|; GET fresh > $w|; "
    "SET k w NX XX > -ERR syntax error; SET k w EX 10 PX 10 > -ERR syntax error; "
    "SET k w EX 0 > -ERR invalid expire time in 'set' command; "
    "SET k w EX -3 > -ERR invalid expire time in 'set' command; "
    "SET k w EX 9223372036854775807 > -ERR invalid expire time; SET k w EX x > -ERR value is not an integer; "
    "SET k w EX > -ERR syntax error; SET k t EX 100 > +OK|; TTL k > :100|; "
    "INFO keyspace > $# Keyspace\r\ndb0:keys=2,expires=1; SET k u KEEPTTL > +OK|; TTL k > :100|; "
    "APPEND k xy > :3|; TTL k > :100|; SET k v > +OK|; TTL k > :-1|; TTL none > :-2|; PEXPIRE k 100000 > :1|; "
    "EXPIRE k 50 GT > :0|; EXPIRE k 50 LT > :1|; EXPIRE k 50 NX > :0|; EXPIRE k 60 XX > :1|; "
    "EXPIRE k 60 XX NX > -ERR NX and XX; TTL k > :60|; PERSIST k > :1|; PERSIST k > :0|; PTTL k > :-1|; "
    "EXPIRE k -1 > :1|; EXISTS k > :0|; EXPIRE k 5 > :0|; SETNX n 10 > :1|; SETNX n 11 > :0|; INCR n > :11|; "
    "INCRBY n 9 > :20|; DECR n > :19|; DECRBY n -1 > :20|; GETSET n 9223372036854775807 > $20|; "
    "INCR n > -ERR increment or decrement would overflow; "
    "DECRBY n -9223372036854775808 > -ERR decrement would overflow; SET n 007 > +OK|; "
    "INCR n > -ERR value is not an integer; SET n 1x > +OK|; INCR n > -ERR value is not an integer; "
    "INCR newcounter > :1|; STRLEN n > :2|; STRLEN none > :0|; APPEND a b > :1|; TYPE a > +string|; "
    "TYPE none > +none|; MSET x 1 y 2 x 3 > +OK|; MSET x > -ERR wrong number; MSET x 1 y > -ERR wrong number; "
    "MGET x y none > [3 2 nil]|; DEL x x y none > :2|; EXISTS a a none > :2|; KEYS f*h > [fresh]|; DBSIZE > :4|; "
    "SCAN 0 COUNT x > -ERR value is not an integer; SCAN x > -ERR invalid cursor; "
    "SCAN 0 MATCH new* COUNT 1000 > [0 [newcounter]]|; SELECT 0 > +OK|; SELECT 1 > -ERR DB index is out of range; "
    "CONFIG GET appendfsync > [appendfsync always]|; CONFIG GET nothing > []|; CLIENT SETNAME me > +OK|; "
    "CLIENT GETNAME > $me|; CLIENT SETINFO lib-name x > +OK|; CLIENT NOSUCH > -ERR unknown subcommand; "
    "COMMAND COUNT > :; COMMAND DOCS > []|; COMMAND INFO get none > [[get :2 [+readonly] :1 :1 :1] nil]|; "
    "HELLO 3 > -NOPROTO; HELLO 2 SETNAME you > [server keyhost; CLIENT GETNAME > $you|; "
    "FLUSHALL x > -ERR syntax error; FLUSHALL > +OK|; DBSIZE > :0|; QUIT > +OK|;";

TEST_P(Serving, Commands) {
    ASSERT_TRUE(Host.Start({"--idle-timeout", "5"})) << Host.Text();
    Client client(Host);
    std::istringstream dialogue(kDialogue);
    for (std::string entry; std::getline(dialogue >> std::ws, entry, ';');) {
        const size_t arrow = entry.find(" > ");
        const std::string command = entry.substr(0, arrow), answer = client.Ask(command);
        std::string expected = entry.substr(arrow + 3);
        const bool whole = expected.back() == '|';
        if (whole) expected.pop_back();
        EXPECT_EQ(whole ? answer : answer.substr(0, expected.size()), expected) << command;
    }
    EXPECT_TRUE(client.AwaitClose());
    // Bytes of every kind pass, and large values take the same road as small ones.
    Client other(Host);
    std::string large(1 << 20, '\0');
    for (size_t i = 0; i < large.size(); i++) large[i] = static_cast<char>(i * 7 + i / 256);
    for (const auto &[key, value] : {std::pair{std::string("large"), large}, {std::string("\0\r\n", 3), ""}}) {
        EXPECT_EQ(other.Ask({"SET", key, value}), "+OK");
        EXPECT_EQ(other.Ask({"GET", key}), "$" + value);
    }
    EXPECT_EQ(other.Ask("SET s v PX 60"), "+OK");
    EXPECT_TRUE(Await([&] { return other.Ask("GET s") == "nil"; }));
    EXPECT_EQ(other.Answer(), "-ERR closed after a long time without a request");
}

// Answers come in order and are gathered: many requests in one piece make few sends, and writes share log writes.
TEST_P(Serving, PipelinesAndInline) {
    ASSERT_TRUE(Host.Start()) << Host.Text();
    Client client(Host);
    std::string all;
    for (int i = 0; i < 3000; i++) all += Request({"SET", "p" + std::to_string(i), std::to_string(i)});
    for (int i = 0; i < 3000; i++) all += Request({"GET", "p" + std::to_string(i)});
    std::thread sender([&] { client.Send(all); });
    for (int i = 0; i < 3000; i++) EXPECT_EQ(client.Answer(), "+OK");
    for (int i = 0; i < 3000; i++) EXPECT_EQ(client.Answer(), "$" + std::to_string(i));
    sender.join();
    EXPECT_LT(Figure(client, "log_writes"), 1500);
    EXPECT_EQ(Figure(client, "commits"), 3000);
    client.Send("PING\r\nSET in 'a b'\r\nGET in\n\r\n\r\nping\r\n");
    for (const char *answer : {"+PONG", "+OK", "$a b", "+PONG"}) EXPECT_EQ(client.Answer(), answer);
    // A client that has sent its last request still gets every answer.
    client.Send(Request({"INCR", "in2"}) + Request({"GET", "in2"}));
    shutdown(client.Fd, SHUT_WR);
    EXPECT_EQ(client.Answer(), ":1");
    EXPECT_EQ(client.Answer(), "$1");
    EXPECT_TRUE(client.AwaitClose());
    // What comes before nonsense is answered.
    Client bad(Host);
    bad.Send("PING\r\n*1\r\n*1\r\n*1\r\n$4\r\nPING\r\n");
    for (const char *answer : {"+PONG", "-ERR Protocol error: expected '$', got '*'"}) EXPECT_EQ(bad.Answer(), answer);
    EXPECT_TRUE(bad.AwaitClose());
}

// Asked to end, by signal and by command, the server ends with everything in its place, what it answers meanwhile too.
TEST_P(Serving, EndsCleanly) {
    long acknowledged = 0;
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(Host.Start({"--durability", round == 0 ? "everysec" : "always"})) << Host.Text();
        Client client(Host);
        EXPECT_EQ(client.Ask("INCR rounds"), ":" + std::to_string(round + 1));
        std::thread busy([&] {
            Client other(Host);
            for (std::string answer; (answer = other.Ask("INCR busy"))[0] == ':';) {
                EXPECT_GT(std::atol(answer.c_str() + 1), acknowledged);
                acknowledged = std::atol(answer.c_str() + 1);
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_TRUE(round == 0 ? kill(Host.Child, SIGTERM) == 0 : client.Send(Request({"SHUTDOWN"})));
        EXPECT_TRUE(client.AwaitClose());
        EXPECT_EQ(Host.AwaitEnd(), 0) << Host.Text();
        busy.join();
    }
    ASSERT_TRUE(Host.Start()) << Host.Text();
    EXPECT_EQ(Client(Host).Ask("GET rounds"), "$2");
    EXPECT_GE(std::atol(Client(Host).Ask("GET busy").c_str() + 1), acknowledged);
    // The folder belongs to one server at a time.
    const pid_t first = Host.Child;
    EXPECT_FALSE(Host.Start());
    EXPECT_NE(Host.Text().find("in use by another process"), std::string::npos) << Host.Text();
    Host.Child = first;
}

}  // namespace
}  // namespace keyhost_test
