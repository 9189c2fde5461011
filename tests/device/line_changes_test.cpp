#include "device/line_changes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace qm {
namespace {

void expectChanges(LineChanges changes, std::size_t added, std::size_t removed) {
    EXPECT_EQ(changes.added, added);
    EXPECT_EQ(changes.removed, removed);
}

std::vector<std::string> split(std::string_view text) {
    std::vector<std::string> lines;
    std::string line;
    for (const char character : text) {
        if (character != '\n') {
            line += character;
            continue;
        }
        if (line.ends_with('\r')) line.pop_back();
        lines.push_back(line);
        line.clear();
    }
    if (!line.empty()) lines.push_back(line);
    return lines;
}

LineChanges plainly(std::string_view before, std::string_view after) {
    const auto left = split(before);
    const auto right = split(after);
    const std::size_t shorter = std::min(left.size(), right.size());
    std::size_t prefix = 0;
    while (prefix < shorter && left[prefix] == right[prefix])
        ++prefix;
    std::size_t suffix = 0;
    while (suffix < shorter - prefix && left[left.size() - 1 - suffix] == right[right.size() - 1 - suffix])
        ++suffix;
    return {right.size() - prefix - suffix, left.size() - prefix - suffix};
}

TEST(LineChanges, AnEqualTextChangesNothing) {
    expectChanges(linesReplaced("", ""), 0, 0);
    expectChanges(linesReplaced("a\nb\nc", "a\nb\nc"), 0, 0);
}

TEST(LineChanges, ANewTextAddsAllItsLinesAndAnEmptyOneRemovesAll) {
    expectChanges(linesReplaced("", "a\nb\n"), 2, 0);
    expectChanges(linesReplaced("", "a\nb"), 2, 0);
    expectChanges(linesReplaced("a\n\nb", ""), 0, 3);
    expectChanges(linesReplaced("", "\n"), 1, 0);
}

TEST(LineChanges, WhatLiesBetweenEqualEndsCounts) {
    expectChanges(linesReplaced("a\nb\nc\nd\n", "a\nX\nY\nd\n"), 2, 2);
    expectChanges(linesReplaced("a\nd\n", "a\nb\nc\nd\n"), 2, 0);
    expectChanges(linesReplaced("a\na\n", "a\na\na\n"), 1, 0);
    expectChanges(linesReplaced("a\nb\na\n", "a\n"), 0, 2);
}

TEST(LineChanges, ACarriageReturnBeforeALineFeedBelongsToTheEnd) {
    expectChanges(linesReplaced("a\r\nb\r\n", "a\nb\n"), 0, 0);
    expectChanges(linesReplaced("a\r\r\n", "a\r\n"), 1, 1);
    expectChanges(linesReplaced("a\r", "a"), 1, 1);
    expectChanges(linesReplaced("a\r", "a\n"), 1, 1);
}

TEST(LineChanges, AMissingLastLineFeedIsNoChange) {
    expectChanges(linesReplaced("a\nb", "a\nb\n"), 0, 0);
}

TEST(LineChanges, AgreeWithSplittingBothTexts) {
    std::mt19937 random(7);
    const std::string_view bytes = "ab\n\n\r";
    const auto text = [&] {
        std::string made;
        for (auto left = random() % 10; left > 0; --left)
            made += bytes[random() % bytes.size()];
        return made;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::string before = text();
        const std::string after = text();
        const auto expected = plainly(before, after);
        const auto found = linesReplaced(before, after);
        ASSERT_EQ(found.added, expected.added) << before << "->" << after;
        ASSERT_EQ(found.removed, expected.removed) << before << "->" << after;
        ASSERT_EQ(linesAppended(before, after).added, split(before + after).size() - split(before).size());
        ASSERT_EQ(linesAppended(before, after).removed, 0U);
    }
}

TEST(LineChanges, AnAdditionToAnUnfinishedLineCountsOnlyTheLinesThatItBegins) {
    expectChanges(linesAppended("a", "b"), 0, 0);
    expectChanges(linesAppended("a", "b\nc"), 1, 0);
    expectChanges(linesAppended("a\n", "b"), 1, 0);
    expectChanges(linesAppended("", "a\nb\n"), 2, 0);
    expectChanges(linesAppended("a", ""), 0, 0);
}

}  // namespace
}  // namespace qm
