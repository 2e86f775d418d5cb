// tests/host/parser_test.cpp - requests in pieces and in ruins; patterns.
#include <gtest/gtest.h>

#include <chrono>
#include <random>

#include "host/keyspace.h"
#include "host/resp.h"

namespace host {
namespace {

constexpr RespLimits kLimits{1000, 4000};

std::string Word(std::mt19937 &random, size_t most) {
    std::string word(random() % (most + 1), ' ');
    for (char &c : word) c = static_cast<char>(random());
    return word;
}

// However a stream of requests is cut, the same requests come out, and the buffer may move between two pieces.
TEST(Parser, RequestsInPieces) {
    std::mt19937 random(7);
    for (int round = 0; round < 300; round++) {
        std::string stream;
        std::vector<std::vector<std::string>> sent;
        for (uint32_t i = 0; i < 1 + random() % 5; i++) {
            std::vector<std::string> words;
            const size_t count = random() % 4 == 0 ? 1 + random() % 40 : 1 + random() % 4;
            stream += "*" + std::to_string(count) + "\r\n";
            for (size_t w = 0; w < count; w++) {
                words.push_back(Word(random, 60));
                stream += "$" + std::to_string(words.back().size()) + "\r\n" + words.back() + "\r\n";
            }
            sent.push_back(words);
            if (random() % 4 == 0) {
                stream += "PING  'a b' \"\\x41\\n\"\r\n";
                sent.push_back({"PING", "a b", "A\n"});
            }
        }
        std::vector<std::vector<std::string>> got;
        std::string buffer;
        RespRequest request;
        for (size_t at = 0; at < stream.size();) {
            const size_t piece = std::min<size_t>(1 + random() % 30, stream.size() - at);
            std::string moved = buffer + stream.substr(at, piece);
            buffer.swap(moved);
            at += piece;
            for (RespState state; (state = request.Parse(buffer.data(), buffer.size(), kLimits)) != RespState::kMore;) {
                ASSERT_EQ(state, RespState::kReady) << request.Error;
                std::vector<std::string> words;
                for (uint32_t i = 0; i < request.Count; i++) words.emplace_back(request.Argument(buffer.data(), i));
                got.push_back(words);
                buffer.erase(0, request.At);
                request.Reset();
            }
        }
        ASSERT_EQ(got, sent);
        ASSERT_TRUE(buffer.empty());
    }
}

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

// Whatever comes, the parser looks at no byte that is not there (sanitizers would tell) and answers within them.
TEST(Parser, Noise) {
    std::mt19937 random(11);
    const std::string alphabet = "*$+-:0123456789\r\n\r\n\r\nab'\"\\ ";
    int ready = 0, broken = 0;
    for (int round = 0; round < 100000; round++) {
        std::string text(random() % 60, ' ');
        for (char &c : text) c = random() % 8 == 0 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
        if (random() % 2 == 0) text.insert(0, "*2\r\n$1\r\n");
        std::vector<char> exact(text.begin(), text.end());
        RespRequest request;
        size_t shown = 0;
        RespState state = RespState::kMore;
        while (state == RespState::kMore && shown < exact.size()) {
            shown = std::min(exact.size(), shown + 1 + random() % 20);
            state = request.Parse(exact.data(), shown, kLimits);
        }
        ASSERT_LE(request.At, exact.size());
        for (uint32_t i = 0; state == RespState::kReady && i < request.Count; i++) {
            const std::string_view argument = request.Argument(exact.data(), i);
            ASSERT_LE(argument.data() + argument.size(), exact.data() + shown);
        }
        (state == RespState::kReady ? ready : broken) += state != RespState::kMore ? 1 : 0;
    }
    EXPECT_GT(ready, 1000);
    EXPECT_GT(broken, 1000);
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
