// tests/host/parser_test.cpp - requests that are refused; patterns. For pieces and noise there is a fuzzer.
#include <gtest/gtest.h>

#include <sstream>

#include "host/glob.h"
#include "host/resp.h"

namespace host {
namespace {

constexpr RespLimits kLimits{1000, 4000};

TEST(Parser, WhatIsRefused) {
    std::string many = "*5\r\n";  // the sum of the arguments has a limit of its own
    for (int i = 0; i < 5; i++) many += "$900\r\n" + std::string(900, 'x') + "\r\n";
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"expected '$'", {"*1\r\n*1\r\n", "*1\r\n+OK\r\n"}},
        {"invalid bulk length", {"*1\r\n$-1\r\n", "*1\r\n$1001\r\n", "*1\r\n$x\r\n", "*1\r\n$\r\n"}},
        {"without its end", {"*1\r\n$3\r\nabcde\r\n"}},
        {"too big bulk count", {"*1\r\n$99999999999999999999\r\n"}},
        {"invalid multibulk length", {"*200000\r\n", "*1x\r\n", "*1\rx", "*-\r\n"}},
        {"too big mbulk count", {"*9999999999999999999999\r\n"}},
        {"unbalanced quotes", {"GET 'a\r\n", "GET 'a'b\r\n"}},
        {"too big inline", {std::string(70000, 'x')}},
        {"", {many}},
    };
    for (const auto &[error, texts] : cases) {
        for (std::string text : texts) {
            RespRequest request;
            ASSERT_EQ(request.Parse(text.data(), text.size(), kLimits), RespState::kBroken) << text.substr(0, 40);
            EXPECT_NE(std::string(request.Error).find(error), std::string::npos) << text.substr(0, 40) << request.Error;
        }
    }
    for (const char *empty : {"\r\n", "*0\r\n", "*-1\r\n", "   \n"}) {
        std::string buffer = empty;
        RespRequest none;
        ASSERT_EQ(none.Parse(buffer.data(), buffer.size(), kLimits), RespState::kReady) << empty;
        EXPECT_EQ(none.Count, 0u);
        EXPECT_EQ(none.At, buffer.size());
    }
}

TEST(Glob, Patterns) {
    // A pattern, texts that match it, and after a | texts that do not.
    std::istringstream cases(
        "a*c abbc | abb\n h?llo hallo | hllo\n h[ae]llo hello hallo | hillo\n h[^e]llo hallo | hello\n "
        "[a-c]x ax bx cx | dx\n [c-a]x bx | dx\n \\* * | a\n [\\]] ] | a\n **a**b xaxb | xa\n *. a. | a.b\n "
        "[a a | b\n a\\ a\\ | a\n user:*:x user:1:2:x | user:1\n");
    for (std::string line; std::getline(cases, line);) {
        std::istringstream words(line);
        std::string pattern, text;
        bool matches = true;
        for (words >> pattern; words >> text;) {
            if (text == "|")
                matches = false;
            else
                EXPECT_EQ(Glob(pattern).Matches(text), matches) << pattern << " " << text;
        }
    }
    EXPECT_TRUE(Glob("*").Matches("") && Glob("").Matches(""));
    EXPECT_FALSE(Glob("").Matches("a") || Glob("[").Matches("["));
    // States beyond the first word of them, and the last one that there can be.
    for (const size_t length : {63u, 64u, 65u, 1024u}) {
        const std::string text(length - 1, 'a');
        for (const char *head : {"*", "?", "a"}) {
            const Glob glob(head + text);
            EXPECT_TRUE(glob.Matches("a" + text)) << head << length;
            EXPECT_EQ(glob.Matches("ab" + text), *head == '*') << head << length;
            EXPECT_FALSE(glob.Matches("a" + text + "b") || glob.Matches(text.substr(1))) << head << length;
        }
    }
}

}  // namespace
}  // namespace host
