#include "util/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "util/utf8.h"

namespace qm {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;
using testing::SizeIs;

constexpr std::size_t kLongestLine = 1023;
/// Of "[HH:MM:SS] LEVEL ".
constexpr std::size_t kPrefixLength = 17;

/// What standard output gets from `write`.
template <typename Write>
std::string printedBy(Write write) {
    testing::internal::CaptureStdout();
    write();
    return testing::internal::GetCapturedStdout();
}

TEST(Log, ALineHasTheTimeTheLevelInFiveColumnsAndTheMessage) {
    const auto lineOf = [](LogLevel level) { return printedBy([&] { log(level, "a message"); }); };
    const auto isLine = [](const std::string& level) {
        return MatchesRegex(R"(\[[0-2][0-9]:[0-5][0-9]:[0-6][0-9]\] )" + level + " a message\n");
    };

    EXPECT_THAT(lineOf(LogLevel::Debug), isLine("DEBUG"));
    EXPECT_THAT(lineOf(LogLevel::Info), isLine("INFO "));
    EXPECT_THAT(lineOf(LogLevel::Warn), isLine("WARN "));
    EXPECT_THAT(lineOf(LogLevel::Error), isLine("ERROR"));
}

TEST(Log, TheRingHoldsWhatWasPrinted) {
    const std::string printed = printedBy([] { log(LogLevel::Info, "kept \xE6\x96\x87"); });

    ASSERT_THAT(recentLogLines(1), SizeIs(1));
    EXPECT_EQ(recentLogLines(1)[0] + "\n", printed);
}

TEST(Log, ALineOfTheLongestLengthStaysWhole) {
    const std::string message(kLongestLine - kPrefixLength, 'x');

    const std::string printed = printedBy([&] { log(LogLevel::Info, message); });

    EXPECT_THAT(printed, SizeIs(kLongestLine + 1));
    EXPECT_THAT(printed, EndsWith("] INFO  " + message + "\n"));
}

TEST(Log, ALongerLineIsCut) {
    for (const std::size_t extra : {1U, 2U, 100000U}) {
        const std::string printed =
            printedBy([&] { log(LogLevel::Info, std::string(kLongestLine - kPrefixLength + extra, 'x')); });

        EXPECT_THAT(printed, SizeIs(kLongestLine + 1));
        EXPECT_EQ(recentLogLines(1)[0] + "\n", printed);
    }
}

TEST(Log, ACharacterCutInHalfIsReplacedInTheRingOnly) {
    const std::string head(kLongestLine - kPrefixLength - 2, 'x');

    const std::string printed = printedBy([&] { log(LogLevel::Info, head + "\xE6\x96\x87"); });

    EXPECT_THAT(printed, EndsWith("x\xE6\x96\n"));
    EXPECT_THAT(recentLogLines(1)[0], EndsWith("x\xEF\xBF\xBD\xEF\xBF\xBD"));
}

TEST(Log, TheRingHoldsValidUtf8WhateverWasLogged) {
    printedBy([] { log(LogLevel::Info, "\xFF|\xED\xA0\x80|\xC0\x80|\xF4\x90\x80\x80|"); });

    const std::string line = recentLogLines(1)[0];

    EXPECT_EQ(toStrictUtf8(line), line);
    EXPECT_EQ(countCodePoints(line), kPrefixLength + 1 + 3 + 2 + 4 + 4);
}

TEST(Log, AnEmptyMessageIsALine) {
    EXPECT_THAT(printedBy([] { log(LogLevel::Warn, {}); }), EndsWith("] WARN  \n"));
}

TEST(Log, TheRingHoldsTheNewestThreeHundredLinesOldestFirst) {
    printedBy([] {
        for (int i = 0; i < 301; ++i)
            log(LogLevel::Debug, "line " + std::to_string(i));
    });

    const auto lines = recentLogLines(1000);

    ASSERT_THAT(lines, SizeIs(300));
    EXPECT_THAT(lines.front(), EndsWith(" line 1"));
    EXPECT_THAT(lines.back(), EndsWith(" line 300"));
    EXPECT_THAT(recentLogLines(300), SizeIs(300));
    EXPECT_THAT(recentLogLines(0), SizeIs(0));
    ASSERT_THAT(recentLogLines(2), SizeIs(2));
    EXPECT_THAT(recentLogLines(2)[0], EndsWith(" line 299"));
}

TEST(Log, EachLineMakesTheRingLongerUntilItIsFull) {
    const std::size_t before = recentLogLines(1000).size();

    printedBy([] {
        log(LogLevel::Debug, "one");
        log(LogLevel::Debug, "two");
    });

    const auto lines = recentLogLines(1000);
    ASSERT_THAT(lines, SizeIs(std::min<std::size_t>(before + 2, 300)));
    EXPECT_THAT(lines.rbegin()[1], EndsWith(" one"));
    EXPECT_THAT(lines.rbegin()[0], EndsWith(" two"));
}

TEST(Log, LinesOfSeveralThreadsNeverMix) {
    const std::string printed = printedBy([] {
        std::vector<std::jthread> threads;
        for (const char letter : {'a', 'b', 'c', 'd'}) {
            threads.emplace_back([letter] {
                for (int i = 0; i < 100; ++i)
                    log(LogLevel::Info, std::string(900, letter));
            });
        }
    });

    EXPECT_THAT(printed.substr(0, 918), MatchesRegex("\\[..:..:..\\] INFO  (a+|b+|c+|d+)\n"));
    ASSERT_THAT(printed, SizeIs(std::size_t{400} * 918));
    for (std::size_t line = 0; line < 400; ++line) {
        const std::string_view text = std::string_view(printed).substr(line * 918, 918);
        ASSERT_EQ(text.find_first_not_of(text[kPrefixLength], kPrefixLength), 917U) << text;
    }
    EXPECT_THAT(recentLogLines(1000), SizeIs(300));
}

TEST(Log, AControlCharacterBecomesASpaceSoThatAMessageIsOneLine) {
    std::string message = "a\n[00:00:00] ERROR forged";
    std::string shown = "a [00:00:00] ERROR forged";
    for (int value = 0; value <= 0x80; ++value) {
        message += static_cast<char>(value);
        shown += value < 0x20 || value == 0x7F ? ' ' : static_cast<char>(value);
    }

    const std::string printed = printedBy([&] { log(LogLevel::Info, message + "end"); });

    EXPECT_THAT(printed, EndsWith("] INFO  " + shown + "end\n"));
    EXPECT_EQ(recentLogLines(1)[0] + "\n", toStrictUtf8(printed));
}

TEST(Log, ANulAtTheCutIsNoEnd) {
    const std::string message(2000, '\0');

    const std::string printed = printedBy([&] { log(LogLevel::Info, message); });

    EXPECT_THAT(printed, EndsWith("] INFO  " + std::string(kLongestLine - kPrefixLength, ' ') + "\n"));
}

}  // namespace
}  // namespace qm
