// tests/host/parser_test.cpp - requests that are refused; patterns. For pieces and noise there is a fuzzer.
#include <gtest/gtest.h>

#include <chrono>

#include "host/keyspace.h"
#include "host/resp.h"

namespace host {
namespace {

constexpr RespLimits kLimits{1000, 4000};

TEST(Parser, WhatIsRefused) {
    const std::pair<std::string, const char *> cases[] = {
        {"*1\r\n*1\r\n", "expected '$'"},
        {"*1\r\n+OK\r\n", "expected '$'"},
        {"*1\r\n$-1\r\n", "invalid bulk length"},
        {"*1\r\n$1001\r\n", "invalid bulk length"},
        {"*1\r\n$x\r\n", "invalid bulk length"},
        {"*1\r\n$\r\n", "invalid bulk length"},
        {"*1\r\n$3\r\nabcde\r\n", "without its end"},
        {"*1\r\n$99999999999999999999\r\n", "too big bulk count"},
        {"*200000\r\n", "invalid multibulk length"},
        {"*9999999999999999999999\r\n", "too big mbulk count"},
        {"*1x\r\n", "invalid multibulk length"},
        {"*1\rx", "invalid multibulk length"},
        {"*-\r\n", "invalid multibulk length"},
        {"GET 'a\r\n", "unbalanced quotes"},
        {"GET 'a'b\r\n", "unbalanced quotes"},
        {std::string(70000, 'x'), "too big inline"},
    };
    for (const auto &[text, error] : cases) {
        std::string buffer = text;
        RespRequest request;
        ASSERT_EQ(request.Parse(buffer.data(), buffer.size(), kLimits), RespState::kBroken) << text.substr(0, 40);
        EXPECT_NE(std::string(request.Error).find(error), std::string::npos) << text.substr(0, 40) << request.Error;
    }
    // The sum of the arguments has a limit of its own.
    std::string many = "*5\r\n";
    for (int i = 0; i < 5; i++) many += "$900\r\n" + std::string(900, 'x') + "\r\n";
    RespRequest request;
    EXPECT_EQ(request.Parse(many.data(), many.size(), kLimits), RespState::kBroken);
    for (const char *empty : {"\r\n", "*0\r\n", "*-1\r\n", "   \n"}) {
        std::string buffer = empty;
        RespRequest none;
        ASSERT_EQ(none.Parse(buffer.data(), buffer.size(), kLimits), RespState::kReady) << empty;
        EXPECT_EQ(none.Count, 0u);
        EXPECT_EQ(none.At, buffer.size());
    }
}

TEST(Glob, Patterns) {
    const struct {
        const char *Pattern, *Text;
        bool Matches;
    } cases[] = {
        {"*", "", true},
        {"", "", true},
        {"", "a", false},
        {"a*c", "abbc", true},
        {"a*c", "abb", false},
        {"h?llo", "hallo", true},
        {"h?llo", "hllo", false},
        {"h[ae]llo", "hello", true},
        {"h[ae]llo", "hillo", false},
        {"h[^e]llo", "hallo", true},
        {"h[^e]llo", "hello", false},
        {"[a-c]x", "bx", true},
        {"[c-a]x", "bx", true},
        {"[a-c]x", "dx", false},
        {"\\*", "*", true},
        {"\\*", "a", false},
        {"[\\]]", "]", true},
        {"**a**b", "xaxb", true},
        {"*.", "a.b", false},
        {"[", "[", false},
        {"[a", "a", true},
        {"a\\", "a\\", true},
        {"user:*:x", "user:1:2:x", true},
    };
    for (const auto &c : cases) EXPECT_EQ(GlobMatch(c.Pattern, c.Text), c.Matches) << c.Pattern << " " << c.Text;
    // Stars do not multiply the work.
    std::string stars;
    for (int i = 0; i < 50; i++) stars += "*a";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(GlobMatch(stars + "b", std::string(20000, 'a')));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace host
