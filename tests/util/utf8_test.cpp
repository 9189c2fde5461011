#include "util/utf8.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace qm {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

std::string replacements(int count) {
    std::string text;
    for (int i = 0; i < count; ++i)
        text += kReplacement;
    return text;
}

std::string randomBytes(std::mt19937& engine, std::size_t size) {
    // Mostly bytes with a meaning in UTF-8, so that sequences come about.
    static constexpr std::string_view kBytes = "az\x7F\x80\xA0\xBF\xC1\xC2\xDF\xE0\xED\xEF\xF0\xF4\xF5\xFF";
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = kBytes[engine() % kBytes.size()];
    return bytes;
}

TEST(SanitizeUtf8, WellFormedTextStaysAsItIs) {
    for (const std::string text :
         {"", "plain", "\xC3\x9Cn\xC3\xAF box", "\xE6\x96\x87\xE4\xBB\xB6", "\xF0\x9F\x98\x80!",
          "\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(sanitizeUtf8(text), text);
    }
}

TEST(SanitizeUtf8, ANulByteIsACharacterLikeAnyOther) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(sanitizeUtf8(text), text);
}

TEST(SanitizeUtf8, EachByteThatBeginsNoSequenceIsReplaced) {
    for (int value = 0x80; value < 0x100; ++value) {
        const std::string text{'a', static_cast<char>(value), 'b'};
        ASSERT_EQ(sanitizeUtf8(text), "a" + replacements(1) + "b") << value;
    }
}

TEST(SanitizeUtf8, ASequenceWithoutItsContinuationIsReplacedByteByByte) {
    EXPECT_EQ(sanitizeUtf8("\xC3("), replacements(1) + "(");
    EXPECT_EQ(sanitizeUtf8("\xE6\x96("), replacements(2) + "(");
    EXPECT_EQ(sanitizeUtf8("\xF0\x9F\x98("), replacements(3) + "(");
    EXPECT_EQ(sanitizeUtf8("\xE6\xC3\x9C"), replacements(1) + "\xC3\x9C");
}

TEST(SanitizeUtf8, ASequenceCutOffByTheEndIsReplacedByteByByte) {
    EXPECT_EQ(sanitizeUtf8("a\xC3"), "a" + replacements(1));
    EXPECT_EQ(sanitizeUtf8("a\xE6\x96"), "a" + replacements(2));
    EXPECT_EQ(sanitizeUtf8("a\xF0\x9F\x98"), "a" + replacements(3));
}

TEST(SanitizeUtf8, FirstBytesOutsideTheRangesBeginNothing) {
    EXPECT_EQ(sanitizeUtf8("\xC0\x80"), replacements(2));
    EXPECT_EQ(sanitizeUtf8("\xC1\xBF"), replacements(2));
    EXPECT_EQ(sanitizeUtf8("\xF5\x80\x80\x80"), replacements(4));
}

TEST(SanitizeUtf8, LengthAndContinuationBytesAreAllThatCounts) {
    for (const std::string text : {"\xE0\x80\x80", "\xED\xA0\x80", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80"}) {
        EXPECT_EQ(sanitizeUtf8(text), text);
    }
}

TEST(SanitizeUtf8, ABadByteIsFoundAtEveryPlaceOfALongText) {
    for (std::size_t place = 0; place < 40; ++place) {
        std::string text(40, 'x');
        text[place] = '\xFF';
        const std::string expected = std::string(place, 'x') + kReplacement + std::string(39 - place, 'x');
        ASSERT_EQ(sanitizeUtf8(text), expected) << place;
    }
}

TEST(SanitizeUtf8, WhatCameOutStaysAsItIs) {
    std::mt19937 engine(6);
    for (int round = 0; round < 20000; ++round) {
        const std::string once = sanitizeUtf8(randomBytes(engine, engine() % 24));
        ASSERT_EQ(sanitizeUtf8(once), once);
    }
}

TEST(StrictUtf8, OverlongFormsSurrogatesAndLargeValuesAreReplacedToo) {
    EXPECT_EQ(toStrictUtf8("\xE0\x80\x80"), replacements(3));
    EXPECT_EQ(toStrictUtf8("\xED\xA0\x80"), replacements(3));
    EXPECT_EQ(toStrictUtf8("\xED\xBF\xBF"), replacements(3));
    EXPECT_EQ(toStrictUtf8("\xF0\x8F\xBF\xBF"), replacements(4));
    EXPECT_EQ(toStrictUtf8("\xF4\x90\x80\x80"), replacements(4));
    EXPECT_EQ(toStrictUtf8("a\xE6\x96"), "a" + replacements(2));
}

TEST(StrictUtf8, TheEndsOfTheAllowedRangesStay) {
    for (const std::string text : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                                   "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_EQ(toStrictUtf8(text), text);
    }
}

TEST(CodePoints, ComeBackFromTheirBytes) {
    for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
        if (codePoint >= 0xD800 && codePoint <= 0xDFFF) continue;
        std::string text;
        appendCodePoint(text, codePoint);
        char32_t read = 0xFFFFFFFF;
        ASSERT_EQ(decodeCodePoint(text + "tail", read), text.size());
        ASSERT_EQ(read, codePoint);
    }
}

TEST(IsValidUtf8, HoldsIfTheStrictReplacementChangesNothing) {
    std::mt19937 engine(11);
    int valid = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text(engine() % 20, 'a');
        appendCodePoint(text, engine() % 0x1000);
        if (engine() % 2 == 0) text += randomBytes(engine, engine() % 4);
        text += "behind";
        ASSERT_EQ(isValidUtf8(text), toStrictUtf8(text) == text);
        if (isValidUtf8(text)) ++valid;
    }
    EXPECT_GT(valid, 5000);
    EXPECT_LT(valid, 15000);
    EXPECT_TRUE(isValidUtf8(""));
    EXPECT_FALSE(isValidUtf8("12345678\xED\xA0\x80"));
}

TEST(CodePoints, ASurrogateOrAValueAboveTheRangeIsWrittenAsTheReplacement) {
    for (const char32_t codePoint : {0xD800U, 0xDBFFU, 0xDC00U, 0xDFFFU, 0x110000U, 0xFFFFFFFFU}) {
        std::string text = "a";
        appendCodePoint(text, codePoint);
        EXPECT_EQ(text, "a" + replacements(1));
    }
}

TEST(CodePoints, BytesThatAreNoneLeaveTheValueAsItWas) {
    for (const std::string text : {"", "\x80", "\xC3", "\xC3(", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
        char32_t read = 42;
        EXPECT_EQ(decodeCodePoint(text, read), 0U);
        EXPECT_EQ(read, 42U);
    }
}

TEST(CodePoints, CountWithBadBytesAsOneEach) {
    EXPECT_EQ(countCodePoints(""), 0U);
    EXPECT_EQ(countCodePoints("a\xC3\x9C\xE6\x96\x87\xF0\x9F\x98\x80"), 4U);
    EXPECT_EQ(countCodePoints("\x80\x80"), 2U);
    EXPECT_EQ(countCodePoints("a\xE6\x96"), 3U);
}

TEST(CodePoints, TheFirstAndTheLastAreTakenWhole) {
    const std::string text = "\xC3\x9C\x62\xE6\x96\x87\xF0\x9F\x98\x80";

    EXPECT_EQ(firstCodePoints(text, 0), "");
    EXPECT_EQ(firstCodePoints(text, 2), "\xC3\x9C\x62");
    EXPECT_EQ(firstCodePoints(text, 4), text);
    EXPECT_EQ(firstCodePoints(text, 5), text);
    EXPECT_EQ(lastCodePoints(text, 0), "");
    EXPECT_EQ(lastCodePoints(text, 2), "\xE6\x96\x87\xF0\x9F\x98\x80");
    EXPECT_EQ(lastCodePoints(text, 4), text);
    EXPECT_EQ(lastCodePoints(text, 5), text);
}

TEST(CodePoints, FirstAndLastTogetherAreTheWholeText) {
    std::mt19937 engine(7);
    for (int round = 0; round < 5000; ++round) {
        const std::string text = randomBytes(engine, engine() % 16);
        const std::size_t total = countCodePoints(text);
        for (std::size_t count = 0; count <= total; ++count) {
            const std::string joined =
                std::string(firstCodePoints(text, count)) + std::string(lastCodePoints(text, total - count));
            ASSERT_EQ(joined, text);
        }
    }
}

}  // namespace
}  // namespace qm
