#include "util/base64.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>

namespace qm {
namespace {

std::string randomBytes(std::mt19937& engine, std::size_t size) {
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(engine());
    return bytes;
}

/// The decoding rule said in the plainest way: a stream of six-bit values, whole bytes taken off its front.
std::optional<std::string> decodedPlainly(std::string_view text) {
    static constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    unsigned bits = 0;
    int count = 0;
    for (const char character : text) {
        if (std::string_view(" \r\n=").find(character) != std::string_view::npos) continue;
        const auto value = kAlphabet.find(character);
        if (value == std::string_view::npos) return std::nullopt;
        bits = (bits << 6 | static_cast<unsigned>(value)) & 0xFFFF;
        count += 6;
        if (count < 8) continue;
        count -= 8;
        bytes += static_cast<char>(bits >> count & 0xFF);
    }
    return bytes;
}

TEST(Base64, EncodesThePublishedExamples) {
    EXPECT_EQ(base64Encode(""), "");
    EXPECT_EQ(base64Encode("f"), "Zg==");
    EXPECT_EQ(base64Encode("fo"), "Zm8=");
    EXPECT_EQ(base64Encode("foo"), "Zm9v");
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    EXPECT_EQ(base64Encode("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64Encode("foobar"), "Zm9vYmFy");
}

TEST(Base64, UsesTheStandardAlphabetWithPlusAndSlash) {
    EXPECT_EQ(base64Encode("\xFB\xEF\xBE\xFF\xFF\xFF"), "++++////");
    EXPECT_EQ(base64Decode("++++////"), "\xFB\xEF\xBE\xFF\xFF\xFF");
    EXPECT_EQ(base64Decode("--__"), std::nullopt);
}

TEST(Base64, EveryByteComesBackAtEveryPlace) {
    for (int value = 0; value < 256; ++value) {
        for (std::size_t place = 0; place < 4; ++place) {
            std::string bytes(4, 'x');
            bytes[place] = static_cast<char>(value);
            ASSERT_EQ(base64Decode(base64Encode(bytes)), bytes);
        }
    }
}

TEST(Base64, RandomBytesOfEveryLengthComeBack) {
    std::mt19937 engine(2);
    for (std::size_t size = 0; size < 300; ++size) {
        const std::string bytes = randomBytes(engine, size);
        ASSERT_EQ(base64Decode(base64Encode(bytes)), bytes) << size;
    }
}

TEST(Base64, LongTextsComeBackAroundTheSizeOfAPiece) {
    std::mt19937 engine(3);
    for (const std::size_t piece : {12288U, 24576U, 36864U}) {
        for (std::size_t size = piece - 4; size <= piece + 4; ++size) {
            const std::string bytes = randomBytes(engine, size);
            const std::string text = base64Encode(bytes);
            ASSERT_EQ(text.size(), (size + 2) / 3 * 4);
            ASSERT_EQ(base64Decode(text), bytes) << size;
        }
    }
}

TEST(Base64, SkipsSpaceCarriageReturnLineFeedAndPaddingWhereverTheyStand) {
    EXPECT_EQ(base64Decode(" Z\rm\n9=v\r\n Ym=Fy=\n"), "foobar");
    EXPECT_EQ(base64Decode("===="), "");
    EXPECT_EQ(base64Decode(" \r\n"), "");
    EXPECT_EQ(base64Decode(""), "");
}

TEST(Base64, CharactersGoOnAcrossPadding) {
    // Two groups "Zg" and "Zg" without their padding are the six-bit values of one group.
    EXPECT_EQ(base64Decode("Zg==Zg=="), base64Decode("ZgZg"));
}

TEST(Base64, LinesOfAnyLengthReadLikeOneLine) {
    std::mt19937 engine(4);
    const std::string bytes = randomBytes(engine, 20000);
    const std::string text = base64Encode(bytes);
    for (const std::size_t width : {1U, 2U, 3U, 5U, 64U, 76U, 77U, 16384U}) {
        std::string lines;
        for (std::size_t i = 0; i < text.size(); i += width)
            lines += text.substr(i, width) + "\r\n";
        ASSERT_EQ(base64Decode(lines), bytes) << width;
    }
}

TEST(Base64, DropsBitsThatDoNotFillAByte) {
    EXPECT_EQ(base64Decode("Z"), "");
    EXPECT_EQ(base64Decode("Zm"), "f");
    EXPECT_EQ(base64Decode("Zm9"), "fo");
    EXPECT_EQ(base64Decode("Zm9v/"), "foo");
}

TEST(Base64, RefusesEveryOtherCharacterAtEveryPlace) {
    static constexpr std::string_view kTaken = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/ \r\n=";
    for (int value = 0; value < 256; ++value) {
        const char character = static_cast<char>(value);
        const bool taken = kTaken.find(character) != std::string_view::npos;
        for (std::size_t place = 0; place < 9; ++place) {
            std::string text = "Zm9vYmFyZg";
            text[place] = character;
            ASSERT_EQ(base64Decode(text).has_value(), taken) << value << " at " << place;
        }
    }
}

TEST(Base64, EveryCutOfAValidTextReadsAsTheRuleSays) {
    const std::string text = base64Encode("The quick brown fox jumps over the lazy dog.");
    for (std::size_t size = 0; size <= text.size(); ++size) {
        ASSERT_EQ(base64Decode(text.substr(0, size)), decodedPlainly(text.substr(0, size))) << size;
    }
}

TEST(Base64, RandomTextsReadAsTheRuleSays) {
    static constexpr std::array<std::string_view, 3> kCharacters{
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/",
        "Aa0+/Zz9QQQQQQQQ \r\n=",
        "Aa0+/Zz9QQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQQ \r\n=\t-_\x80\xFF",
    };
    std::mt19937 engine(5);
    for (int round = 0; round < 20000; ++round) {
        const std::string_view characters = kCharacters[engine() % kCharacters.size()];
        std::string text(engine() % 40, '\0');
        for (char& character : text)
            character = characters[engine() % characters.size()];
        ASSERT_EQ(base64Decode(text), decodedPlainly(text)) << text;
    }
}

}  // namespace
}  // namespace qm
