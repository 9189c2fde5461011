#include "util/properties.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <string>

#include "support/temporary_directory.h"
#include "util/utf8.h"

namespace qm {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// What a text reads as after it was written: a byte that is no UTF-8 becomes the code point of its value.
std::string afterRoundTrip(std::string_view text) {
    std::string expected;
    while (!text.empty()) {
        char32_t codePoint = static_cast<unsigned char>(text.front());
        text.remove_prefix(std::max<std::size_t>(decodeCodePoint(text, codePoint), 1));
        appendCodePoint(expected, codePoint);
    }
    return expected;
}

std::string randomText(std::mt19937& engine) {
    static const std::vector<std::string> kPieces{" ",
                                                  "  ",
                                                  "\t",
                                                  "\n",
                                                  "\r",
                                                  "\f",
                                                  "\v",
                                                  std::string(1, '\0'),
                                                  "=",
                                                  ":",
                                                  "#",
                                                  "!",
                                                  "\\",
                                                  "\\u",
                                                  "\\u00e9",
                                                  "a",
                                                  "key",
                                                  "\x7F",
                                                  "\x80",
                                                  "\xFF",
                                                  "\xC3",
                                                  "\xC3\x9C",
                                                  "\xE6\x96",
                                                  "\xE6\x96\x87",
                                                  "\xF0",
                                                  "\xF0\x9F\x98\x80",
                                                  "\xED\xA0\x80",
                                                  "\xEF\xBB\xBF",
                                                  "\xEF\xBF\xBF",
                                                  "\x1F",
                                                  "~",
                                                  "\xF4\x90\x80\x80"};
    std::string text;
    for (auto count = engine() % 12; count > 0; --count)
        text += kPieces[engine() % kPieces.size()];
    return text;
}

TEST(PropertiesLine, WritesPlainTextAsItIs) {
    EXPECT_EQ(propertiesLine("gatewayUrl", "http"), "gatewayUrl=http\n");
    EXPECT_EQ(propertiesLine("name", ""), "name=\n");
    EXPECT_EQ(propertiesLine("name", "~}|a Z0"), "name=~}|a Z0\n");
}

TEST(PropertiesLine, WritesOtherCharactersAsUnitsOfFourUpperCaseDigits) {
    EXPECT_EQ(propertiesLine("name", "\xC3\x9Cn\xC3\xAF box"), "name=\\u00DCn\\u00EF box\n");
    EXPECT_EQ(propertiesLine("name", "\xE6\x96\x87"), "name=\\u6587\n");
    EXPECT_EQ(propertiesLine("\xC3\x9C", "x"), "\\u00DC=x\n");
}

TEST(PropertiesLine, WritesACodePointAboveFourDigitsAsASurrogatePair) {
    EXPECT_EQ(propertiesLine("k", "\xEF\xBF\xBF"), "k=\\uFFFF\n");
    EXPECT_EQ(propertiesLine("k", "\xF0\x90\x80\x80"), "k=\\uD800\\uDC00\n");
    EXPECT_EQ(propertiesLine("k", "\xF0\x9F\x98\x80"), "k=\\uD83D\\uDE00\n");
    EXPECT_EQ(propertiesLine("k", "\xF4\x8F\xBF\xBF"), "k=\\uDBFF\\uDFFF\n");
}

TEST(PropertiesLine, TakesBytesThatAreNoUtf8OneByOne) {
    EXPECT_EQ(propertiesLine("k", "\xFF"), "k=\\u00FF\n");
    EXPECT_EQ(propertiesLine("k", "\xC3"), "k=\\u00C3\n");
    EXPECT_EQ(propertiesLine("k", "\xE6\x96x"), "k=\\u00E6\\u0096x\n");
    EXPECT_EQ(propertiesLine("k", "\xED\xA0\x80"), "k=\\u00ED\\u00A0\\u0080\n");
}

TEST(PropertiesLine, EscapesControlCharacters) {
    EXPECT_EQ(propertiesLine("k", "a\tb\nc\rd\fe"), "k=a\\tb\\nc\\rd\\fe\n");
    EXPECT_EQ(propertiesLine("k", std::string("\0\x0B\x1F\x20\x7E\x7F", 6)), "k=\\u0000\\u000B\\u001F ~\\u007F\n");
    EXPECT_EQ(propertiesLine("a\tb", ""), "a\\tb=\n");
}

TEST(PropertiesLine, EscapesTheCharactersThatHaveAMeaning) {
    EXPECT_EQ(propertiesLine("a!b#c:d=e\\f", "a!b#c:d=e\\f"), "a\\!b\\#c\\:d\\=e\\\\f=a\\!b\\#c\\:d\\=e\\\\f\n");
}

TEST(PropertiesLine, EscapesEverySpaceOfAKeyButOnlyLeadingOnesOfAValue) {
    EXPECT_EQ(propertiesLine(" a  b ", "  a  b "), "\\ a\\ \\ b\\ =\\ \\ a  b \n");
    EXPECT_EQ(propertiesLine("k", "   "), "k=\\ \\ \\ \n");
    EXPECT_EQ(propertiesLine("k", "\t a"), "k=\\t a\n");
}

TEST(Properties, ReadOneKeyALine) {
    EXPECT_THAT(parseProperties("a=1\nb=2\n"), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(Properties, LinesEndAtLineFeedCarriageReturnOrBoth) {
    EXPECT_THAT(parseProperties("a=1\rb=2\r\nc=3\n\rd=4"),
                ElementsAre(Pair("a", "1"), Pair("b", "2"), Pair("c", "3"), Pair("d", "4")));
}

TEST(Properties, EmptyLinesAndCommentsAreSkipped) {
    EXPECT_THAT(parseProperties("# a=1\n! b=2\n\n \t\f\n \t# c=3\nd=4\n"), ElementsAre(Pair("d", "4")));
}

TEST(Properties, ACommentIsNeverContinued) {
    EXPECT_THAT(parseProperties("# a \\\nb=2\n"), ElementsAre(Pair("b", "2")));
}

TEST(Properties, LeadingBlanksOfALineAreDropped) {
    EXPECT_THAT(parseProperties(" \t\fa=1\n"), ElementsAre(Pair("a", "1")));
}

TEST(Properties, AnOddNumberOfBackslashesContinuesTheLine) {
    EXPECT_THAT(parseProperties("a=one,\\\n  \t two\nb=3"), ElementsAre(Pair("a", "one,two"), Pair("b", "3")));
    EXPECT_THAT(parseProperties("a=x\\\\\\\r\ny"), ElementsAre(Pair("a", "x\\y")));
    EXPECT_THAT(parseProperties("ke\\\n  y=1"), ElementsAre(Pair("key", "1")));
}

TEST(Properties, AnEvenNumberOfBackslashesDoesNot) {
    EXPECT_THAT(parseProperties("a=x\\\\\nb=2"), ElementsAre(Pair("a", "x\\"), Pair("b", "2")));
}

TEST(Properties, AContinuedLineIsNoComment) {
    EXPECT_THAT(parseProperties("a=1\\\n#2\\\n!3"), ElementsAre(Pair("a", "1#2!3")));
}

TEST(Properties, AContinuationEndsAtAnEmptyLine) {
    EXPECT_THAT(parseProperties("a=1\\\n\nb=2"), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(Properties, ALastLineHasNothingToContinueOn) {
    EXPECT_THAT(parseProperties("a=1\\"), ElementsAre(Pair("a", "1")));
    EXPECT_THAT(parseProperties("a=1\\\\\\"), ElementsAre(Pair("a", "1\\")));
    EXPECT_THAT(parseProperties("\\"), IsEmpty());
}

TEST(Properties, TheKeyEndsAtTheFirstUnescapedBlankColonOrEqualsSign) {
    for (const std::string line : {"k v", "k\tv", "k\fv", "k:v", "k=v", "k = v", "k \t: \fv"}) {
        EXPECT_THAT(parseProperties(line), ElementsAre(Pair("k", "v"))) << line;
    }
    EXPECT_THAT(parseProperties("a\\ b\\:c\\=d=v"), ElementsAre(Pair("a b:c=d", "v")));
    EXPECT_THAT(parseProperties("a\\\\=v"), ElementsAre(Pair("a\\", "v")));
}

TEST(Properties, OnlyOneSeparatorIsSkipped) {
    EXPECT_THAT(parseProperties("a==b"), ElementsAre(Pair("a", "=b")));
    EXPECT_THAT(parseProperties("a = : b"), ElementsAre(Pair("a", ": b")));
    EXPECT_THAT(parseProperties("a : = b"), ElementsAre(Pair("a", "= b")));
}

TEST(Properties, AKeyMayStandAloneOrBeEmpty) {
    EXPECT_THAT(parseProperties("alone"), ElementsAre(Pair("alone", "")));
    EXPECT_THAT(parseProperties("=v"), ElementsAre(Pair("", "v")));
    EXPECT_THAT(parseProperties("k="), ElementsAre(Pair("k", "")));
}

TEST(Properties, AValueKeepsItsTrailingBlanks) {
    EXPECT_THAT(parseProperties("k=v \t\n"), ElementsAre(Pair("k", "v \t")));
}

TEST(Properties, AValueKeepsItsEscapedLeadingSpaces) {
    EXPECT_THAT(parseProperties("k= \\ \\ v"), ElementsAre(Pair("k", "  v")));
}

TEST(Properties, EscapesGiveControlCharactersAndUnits) {
    EXPECT_THAT(parseProperties("k=\\t\\n\\r\\f|\\u00DC\\u00fc\\u6587"),
                ElementsAre(Pair("k", "\t\n\r\f|\xC3\x9C\xC3\xBC\xE6\x96\x87")));
}

TEST(Properties, AdjoiningSurrogateHalvesAreJoined) {
    EXPECT_THAT(parseProperties("k=\\uD83D\\uDE00"), ElementsAre(Pair("k", "\xF0\x9F\x98\x80")));
    EXPECT_THAT(parseProperties("k=\\udbff\\udfff"), ElementsAre(Pair("k", "\xF4\x8F\xBF\xBF")));
}

TEST(Properties, ALoneSurrogateHalfBecomesTheReplacementCharacter) {
    EXPECT_THAT(parseProperties("k=\\uD83D"), ElementsAre(Pair("k", "\xEF\xBF\xBD")));
    EXPECT_THAT(parseProperties("k=\\uDE00x"), ElementsAre(Pair("k", "\xEF\xBF\xBDx")));
    EXPECT_THAT(parseProperties("k=\\uD83Dx\\uDE00"), ElementsAre(Pair("k", "\xEF\xBF\xBDx\xEF\xBF\xBD")));
    EXPECT_THAT(parseProperties("k=\\uD83D\\uD83D\\uDE00"), ElementsAre(Pair("k", "\xEF\xBF\xBD\xF0\x9F\x98\x80")));
    EXPECT_THAT(parseProperties("k=\\uD83D\\u0041"), ElementsAre(Pair("k",
                                                                      "\xEF\xBF\xBD"
                                                                      "A")));
    EXPECT_THAT(parseProperties("k=\\uD83D\\uDE"), ElementsAre(Pair("k", "\xEF\xBF\xBDuDE")));
}

TEST(Properties, AUnitWithFewerThanFourCharactersIsThePlainRest) {
    EXPECT_THAT(parseProperties("k=a\\u"), ElementsAre(Pair("k", "au")));
    EXPECT_THAT(parseProperties("k=a\\u00D"), ElementsAre(Pair("k", "au00D")));
}

TEST(Properties, AUnitWithOtherThanHexadecimalDigitsIsThePlainRest) {
    EXPECT_THAT(parseProperties("k=\\u00G0!"), ElementsAre(Pair("k", "u00G0!")));
    EXPECT_THAT(parseProperties("k=\\u-001"), ElementsAre(Pair("k", "u-001")));
    EXPECT_THAT(parseProperties("k=\\u 0x1"), ElementsAre(Pair("k", "u 0x1")));
}

TEST(Properties, BeforeAnyOtherCharacterTheBackslashIsDropped) {
    EXPECT_THAT(parseProperties("k=\\a\\:\\=\\#\\!\\\\\\ \\U"), ElementsAre(Pair("k", "a:=#!\\ U")));
}

TEST(Properties, OfTwoEqualKeysTheLastWins) {
    EXPECT_THAT(parseProperties("a=1\na=2\n"), ElementsAre(Pair("a", "2")));
    EXPECT_THAT(parseProperties("a=1\na=\n"), ElementsAre(Pair("a", "")));
}

TEST(Properties, AByteOrderMarkHidesNothing) {
    EXPECT_THAT(parseProperties("\xEF\xBB\xBF"
                                "a=1\nb=2"),
                ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(Properties, UnescapedUtf8StaysAsItIs) {
    EXPECT_THAT(parseProperties("k=\xE6\x96\x87"), ElementsAre(Pair("k", "\xE6\x96\x87")));
}

TEST(Properties, EveryRandomPairComesBackFromItsLine) {
    std::mt19937 engine(8);
    for (int round = 0; round < 20000; ++round) {
        const std::string key = randomText(engine);
        const std::string value = randomText(engine);
        const std::string line = propertiesLine(key, value);
        ASSERT_THAT(line, testing::Each(testing::AnyOf('\n', testing::AllOf(testing::Ge(' '), testing::Le('~')))));
        // Another pair behind it shows that the line ends where it should.
        ASSERT_THAT(
            parseProperties("#comment\n" + line + "next\\ key\\==1\n"),
            testing::UnorderedElementsAre(Pair(afterRoundTrip(key), afterRoundTrip(value)), Pair("next key=", "1")))
            << line;
    }
}

TEST(Properties, EveryCutOfAFileHasAReading) {
    const std::string text = "# x\r\n\xEF\xBB\xBFk\\ y = \\uD83D\\uDE00 \\\n  more\\t\\u00DC\nlast : \\\\ end\\";
    for (std::size_t size = 0; size <= text.size(); ++size) {
        ASSERT_LE(parseProperties(text.substr(0, size)).size(), 2U);
    }
}

TEST(Properties, RandomBytesHaveAReading) {
    static constexpr std::string_view kBytes = "\\\\\\\\uuDD8800 =:#!\t\f\r\nabtnrf\x80\xFF\xED\xA0";
    std::mt19937 engine(9);
    for (int round = 0; round < 20000; ++round) {
        std::string text(engine() % 64, '\0');
        for (char& byte : text)
            byte = kBytes[engine() % kBytes.size()];
        const auto lines = 1 + std::count_if(text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; });
        ASSERT_LE(parseProperties(text).size(), static_cast<std::size_t>(lines));
    }
}

TEST(PropertiesFile, IsReadWhole) {
    const test::TemporaryDirectory directory;
    test::writeFile(directory / "p", "a=1\n" + std::string(100000, '#') + "\nb=2");

    EXPECT_THAT(readPropertiesFile(directory / "p"), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST(PropertiesFile, WhatCannotBeReadIsEmpty) {
    const test::TemporaryDirectory directory;
    ASSERT_EQ(mkfifo((directory / "pipe").c_str(), 0600), 0);

    EXPECT_THAT(readPropertiesFile(directory / "missing"), IsEmpty());
    EXPECT_THAT(readPropertiesFile(directory.path()), IsEmpty());
    EXPECT_THAT(readPropertiesFile(directory / "pipe"), IsEmpty());
    EXPECT_THAT(readPropertiesFile("/dev/zero"), IsEmpty());
}

}  // namespace
}  // namespace qm
