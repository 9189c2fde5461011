#include "device/glob.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <string_view>

namespace qm {
namespace {

bool matches(std::string_view pattern, std::string_view name) {
    return Glob(pattern).matches(name);
}

/// The regular expression whose answers a pattern gives.
std::regex equivalent(std::string_view pattern) {
    std::string expression = "^";
    for (const char character : pattern) {
        if (character == '*') {
            expression += "[^/]*";
        } else if (character == '?') {
            expression += "[^/]";
        } else {
            if (std::string_view("$()+.[\\]^{|}").find(character) != std::string_view::npos) expression += '\\';
            expression += character;
        }
    }
    return std::regex(expression + "$", std::regex::ECMAScript | std::regex::icase);
}

TEST(Glob, AStarTakesAnyNumberOfBytes) {
    EXPECT_TRUE(matches("*", ""));
    EXPECT_TRUE(matches("*", "anything.at all"));
    EXPECT_TRUE(matches("*.cpp", "main.cpp"));
    EXPECT_TRUE(matches("*.cpp", ".cpp"));
    EXPECT_FALSE(matches("*.cpp", "main.cpp.orig"));
    EXPECT_TRUE(matches("a*b*c", "aXbYbZc"));
    EXPECT_FALSE(matches("a*b*c", "aXcYb"));
    EXPECT_TRUE(matches("**x**", "x"));
}

TEST(Glob, AQuestionMarkTakesOneByte) {
    EXPECT_TRUE(matches("?", "a"));
    EXPECT_FALSE(matches("?", ""));
    EXPECT_FALSE(matches("?", "ab"));
    EXPECT_FALSE(matches("?", "é"));
    EXPECT_TRUE(matches("??", "é"));
    EXPECT_TRUE(matches("a?*c", "abc"));
    EXPECT_FALSE(matches("a?*bc", "abc"));
}

TEST(Glob, NeitherWildcardTakesASlash) {
    EXPECT_FALSE(matches("*", "a/b"));
    EXPECT_FALSE(matches("a?b", "a/b"));
    EXPECT_TRUE(matches("*/*", "a/b"));
    EXPECT_FALSE(matches("*b", "a/b"));
    EXPECT_FALSE(matches("*a*b", "a/ab"));
    EXPECT_FALSE(matches("*/x", "a/b/x"));
}

TEST(Glob, LettersMatchInEitherCase) {
    EXPECT_TRUE(matches("*.CPP", "main.cpp"));
    EXPECT_TRUE(matches("Read?e.*", "README.md"));
    EXPECT_FALSE(matches("É", "é"));
    EXPECT_FALSE(matches("[", "{"));
    EXPECT_FALSE(matches("@", "`"));
}

TEST(Glob, EverythingElseIsLiteral) {
    EXPECT_TRUE(matches("a[b]", "a[b]"));
    EXPECT_FALSE(matches("a[b]", "ab"));
    for (const std::string character :
         {"$", "(", ")", "+", ".", "[", "\\", "]", "^", "{", "|", "}", "-", "!", ",", "#"}) {
        EXPECT_TRUE(matches("x" + character + "y", "X" + character + "Y")) << character;
        EXPECT_FALSE(matches("x" + character + "y", "xzy")) << character;
        EXPECT_FALSE(matches("x" + character + "y", "xy")) << character;
    }
}

TEST(Glob, AnEmptyPatternMatchesTheEmptyNameOnly) {
    EXPECT_TRUE(matches("", ""));
    EXPECT_FALSE(matches("", "a"));
}

TEST(Glob, GivesTheAnswersOfTheRegularExpression) {
    std::mt19937 random(1);
    const std::string_view patternBytes = "aAbB**?/?.[]-\n\xc3";
    const std::string_view nameBytes = "aabbAB/.[]-\n\xc3\xa9";
    const auto text = [&random](std::string_view bytes, std::size_t maxLength) {
        std::string made;
        for (auto left = random() % (maxLength + 1); left > 0; --left)
            made += bytes[random() % bytes.size()];
        return made;
    };
    std::size_t matched = 0;
    for (int round = 0; round < 3000; ++round) {
        const std::string pattern = text(patternBytes, 7);
        const Glob glob(pattern);
        const std::regex expression = equivalent(pattern);
        for (int i = 0; i < 10; ++i) {
            const std::string name = text(nameBytes, 6);
            const bool expected = std::regex_match(name, expression);
            ASSERT_EQ(glob.matches(name), expected) << "pattern " << pattern << " name " << name;
            matched += expected ? 1 : 0;
        }
    }
    EXPECT_GT(matched, 500U);
}

TEST(Glob, ManyStarsAgainstALongNameTakeNoTime) {
    std::string pattern;
    for (int i = 0; i < 50000; ++i)
        pattern += "*a";
    pattern += 'b';
    EXPECT_FALSE(matches(pattern, std::string(255, 'a')));
    EXPECT_FALSE(matches("*a*a*a*a*a*a*a*a*a*a*a*b", std::string(255, 'a')));
}

}  // namespace
}  // namespace qm
