#include "runtime/canonical_json.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>
#include <vector>

#include "runtime/random_json.h"

namespace qm::runtime {
namespace {

using test::randomJson;

constexpr std::size_t kDepth = 64;
constexpr char kByteOrderMarkAndNumber[] = {'\xEF', '\xBB', '\xBF', '1', '\0'};

/// A text is taken exactly if the library parses it and dumps it to the same bytes.
void expectLikeTheLibrary(const std::string& text) {
    const json value = json::parse(text, nullptr, false);
    const bool isCanonical = !value.is_discarded() && value.dump() == text;
    const auto parsed = parseCanonicalJson(text, kDepth);
    ASSERT_EQ(parsed.has_value(), isCanonical) << text;
    if (parsed) {
        EXPECT_EQ(*parsed, value);
        EXPECT_EQ(parsed->dump(), text);
    }
}

TEST(CanonicalJson, WhatTheLibraryDumpsIsTaken) {
    std::mt19937_64 random(1);
    for (int round = 0; round < 20'000; ++round) {
        const json value = randomJson(random, 4);
        const auto parsed = parseCanonicalJson(value.dump(), kDepth);
        ASSERT_TRUE(parsed) << value;
        EXPECT_EQ(*parsed, value);
    }
}

TEST(CanonicalJson, EveryCutOfAValueIsJudgedAsTheLibraryWould) {
    const json value = {{"a", {1, -2.5, "x\n整\x01"}}, {"b", {{"c", nullptr}, {"d", true}}}, {"e", false}};
    const std::string text = value.dump();
    for (std::size_t length = 0; length <= text.size(); ++length)
        expectLikeTheLibrary(text.substr(0, length));
}

TEST(CanonicalJson, EveryChangedByteIsJudgedAsTheLibraryWould) {
    const json value = {{"a", {1, -2.5, "x\n整\x1b"}}, {"b", {{"c", nullptr}, {"d", true}}}, {"e", 1e-7}};
    const std::string text = value.dump();
    for (std::size_t at = 0; at < text.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string changed = text;
            changed[at] = static_cast<char>(byte);
            expectLikeTheLibrary(changed);
        }
    }
}

TEST(CanonicalJson, RandomEditsAreJudgedAsTheLibraryWould) {
    std::mt19937_64 random(2);
    static const std::string kSplices[] = {" ",   "0",  "-", "1e5", "\\u", "\\/", "\\u000a", "\\u001F",      "\"",
                                           "{",   "}",  "[", "]",   ",",   ":",   "\xFF",    "\xED\xA0\x80", "null",
                                           "1.0", "E+1"};
    for (int round = 0; round < 30'000; ++round) {
        std::string text = randomJson(random, 3).dump();
        for (auto edits = 1 + random() % 2; edits > 0; --edits) {
            text.replace(random() % (text.size() + 1), random() % 3, kSplices[random() % std::size(kSplices)]);
        }
        expectLikeTheLibrary(text);
    }
}

TEST(CanonicalJson, OtherSpellingsOfAValueAreNotTaken) {
    for (const char* const text : {" 1",
                                   "1 ",
                                   "01",
                                   "-0",
                                   "+1",
                                   "1.50",
                                   "1E5",
                                   "1e5",
                                   "0.10",
                                   "1.0e2",
                                   "\"\\u0041\"",
                                   "\"\\/\"",
                                   "\"\\u000a\"",
                                   "\"\\u001F\"",
                                   "\"\\u007f\"",
                                   "[1, 2]",
                                   "[1,]",
                                   "{\"b\":1,\"a\":2}",
                                   "{\"a\":1,\"a\":2}",
                                   "{\"a\": 1}",
                                   "{\"a\":1,}",
                                   "18446744073709551616",
                                   "-9223372036854775809",
                                   "1e400",
                                   "nul",
                                   "tru",
                                   "",
                                   "\"",
                                   "\"\\",
                                   "[",
                                   "{",
                                   "{\"a\"",
                                   "{\"a\":",
                                   "\"\x80\"",
                                   "\"\xC0\xAF\"",
                                   "\"\xED\xA0\x80\"",
                                   "\"\xF4\x90\x80\x80\"",
                                   "\"\n\"",
                                   kByteOrderMarkAndNumber}) {
        EXPECT_FALSE(parseCanonicalJson(text, kDepth)) << text;
    }
}

TEST(CanonicalJson, TheLargestNumbersAreTaken) {
    for (const char* const text : {"18446744073709551615", "9223372036854775808", "-9223372036854775808", "0", "-1",
                                   "-0.0", "0.1", "1e+20", "1.7976931348623157e+308", "5e-324"}) {
        const auto value = parseCanonicalJson(text, kDepth);
        ASSERT_TRUE(value) << text;
        EXPECT_EQ(value->dump(), text);
    }
    EXPECT_TRUE(parseCanonicalJson("5", kDepth)->is_number_unsigned());
    EXPECT_TRUE(parseCanonicalJson("-5", kDepth)->is_number_integer());
}

TEST(CanonicalJson, TheDepthIsLimited) {
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    EXPECT_TRUE(parseCanonicalJson(nested(kDepth), kDepth));
    EXPECT_FALSE(parseCanonicalJson(nested(kDepth + 1), kDepth));
    EXPECT_FALSE(parseCanonicalJson(std::string(1'000'000, '['), kDepth));
    EXPECT_TRUE(parseCanonicalJson(R"({"a":[]})", 2));
    EXPECT_FALSE(parseCanonicalJson(R"({"a":[]})", 1));
    EXPECT_TRUE(parseCanonicalJson("1", 0));
}

TEST(CanonicalJson, RandomBytesNeverHarmIt) {
    std::mt19937_64 random(3);
    for (int round = 0; round < 20'000; ++round) {
        std::string text(random() % 40, '\0');
        for (char& byte : text)
            byte = static_cast<char>(random());
        expectLikeTheLibrary(text);
    }
}

}  // namespace
}  // namespace qm::runtime
