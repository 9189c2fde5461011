#include "device/text_diff.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace qm {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using Lines = std::vector<std::string>;

std::string numberedLines(int count, const std::string& prefix = "line ") {
    std::string text;
    for (int index = 0; index < count; ++index)
        text += prefix + std::to_string(index) + "\n";
    return text;
}

Lines linesOf(const std::string& text) {
    Lines lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/// The same diff by the plainest means: no numbering of lines, no early end, one string at the end.
std::string referenceDiff(const std::string& path, const Lines& before, const Lines& after) {
    const int oldCount = static_cast<int>(before.size());
    const int newCount = static_cast<int>(after.size());
    const auto oldLine = [&](int index) { return before[static_cast<std::size_t>(index)]; };
    const auto newLine = [&](int index) { return after[static_cast<std::size_t>(index)]; };
    int first = 0;
    while (first < oldCount && first < newCount && oldLine(first) == newLine(first))
        ++first;
    int oldEnd = oldCount;
    int newEnd = newCount;
    while (oldEnd > first && newEnd > first && oldLine(oldEnd - 1) == newLine(newEnd - 1)) {
        --oldEnd;
        --newEnd;
    }
    if (first == oldEnd && first == newEnd) return {};

    Lines body;
    for (int index = std::max(first - 3, 0); index < first; ++index)
        body.push_back(" " + oldLine(index));
    const int oldMiddle = oldEnd - first;
    const int newMiddle = newEnd - first;
    if (oldMiddle >= 1 && oldMiddle <= 512 && newMiddle >= 1 && newMiddle <= 512) {
        std::vector<std::vector<int>> common(static_cast<std::size_t>(oldMiddle) + 1,
                                             std::vector<int>(static_cast<std::size_t>(newMiddle) + 1, 0));
        const auto at = [&](int row, int column) -> int& {
            return common[static_cast<std::size_t>(row)][static_cast<std::size_t>(column)];
        };
        for (int row = oldMiddle - 1; row >= 0; --row) {
            for (int column = newMiddle - 1; column >= 0; --column) {
                at(row, column) = oldLine(first + row) == newLine(first + column)
                                      ? at(row + 1, column + 1) + 1
                                      : std::max(at(row + 1, column), at(row, column + 1));
            }
        }
        int row = 0;
        int column = 0;
        while (row < oldMiddle || column < newMiddle) {
            if (row < oldMiddle && column < newMiddle && oldLine(first + row) == newLine(first + column)) {
                body.push_back(" " + oldLine(first + row));
                ++row;
                ++column;
            } else if (row == oldMiddle || (column < newMiddle && at(row, column + 1) > at(row + 1, column))) {
                body.push_back("+" + newLine(first + column++));
            } else {
                body.push_back("-" + oldLine(first + row++));
            }
        }
    } else {
        for (int index = first; index < oldEnd; ++index)
            body.push_back("-" + oldLine(index));
        for (int index = first; index < newEnd; ++index)
            body.push_back("+" + newLine(index));
    }
    for (int index = oldEnd; index < std::min(oldEnd + 3, oldCount); ++index)
        body.push_back(" " + oldLine(index));

    const auto countOf = [&](char mark) {
        return std::count_if(body.begin(), body.end(), [mark](const std::string& line) { return line[0] != mark; });
    };
    const auto side = [&](long count) {
        const int start = std::max(first - 3, 0) + (count == 0 ? 0 : 1);
        return std::to_string(start) + "," + std::to_string(count);
    };
    std::string text =
        "--- a/" + path + "\n+++ b/" + path + "\n@@ -" + side(countOf('+')) + " +" + side(countOf('-')) + " @@\n";
    for (const auto& line : body) {
        if (text.size() < 16384) text += line + "\n";
    }
    return text.size() < 16384 ? text : text + "[diff truncated]\n";
}

/// `before` with the one hunk of `diff` carried out.
Lines patched(const Lines& before, const std::string& diff) {
    const Lines lines = linesOf(diff);
    int start = 0;
    int count = 0;
    EXPECT_EQ(std::sscanf(lines.at(2).c_str(), "@@ -%d,%d", &start, &count), 2);
    auto next = before.begin() + (count == 0 ? start : start - 1);
    Lines after(before.begin(), next);
    for (auto line = lines.begin() + 3; line != lines.end(); ++line) {
        if (line->at(0) != '+') {
            EXPECT_EQ(*next, line->substr(1));
            ++next;
        }
        if (line->at(0) != '-') after.push_back(line->substr(1));
    }
    after.insert(after.end(), next, before.end());
    return after;
}

std::string joined(const Lines& lines) {
    std::string text;
    for (const auto& line : lines)
        text += line + "\n";
    return text;
}

class RandomEdits {
public:
    explicit RandomEdits(unsigned seed) : engine_(seed) {}

    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(engine_); }

    /// Few different lines, so that they repeat and there are ties to break.
    std::string line() { return std::string(1, static_cast<char>('a' + below(6))); }

    Lines text(int maxLines) {
        Lines lines(static_cast<std::size_t>(below(maxLines + 1)));
        for (auto& each : lines)
            each = line();
        return lines;
    }

    void edit(Lines& lines) {
        for (int edits = 1 + below(6); edits > 0; --edits) {
            const auto place = lines.begin() + below(static_cast<int>(lines.size()) + 1);
            if (below(2) == 0 || place == lines.end()) {
                lines.insert(place, line());
            } else if (below(2) == 0) {
                lines.erase(place);
            } else {
                *place = line();
            }
        }
    }

private:
    std::mt19937 engine_;
};

TEST(TextDiff, ShowsAChangedLineWithThreeLinesOfContext) {
    const auto diff = textDiff("src/a.txt", "1\n2\n3\n4\n5\n6\n7\n8\n9\n", "1\n2\n3\n4\nfive\n6\n7\n8\n9\n");

    EXPECT_EQ(diff, "--- a/src/a.txt\n+++ b/src/a.txt\n@@ -2,7 +2,7 @@\n 2\n 3\n 4\n-5\n+five\n 6\n 7\n 8\n");
}

TEST(TextDiff, EqualTextsHaveNone) {
    EXPECT_EQ(textDiff("a", "1\n2\n", "1\n2\n"), std::nullopt);
    EXPECT_EQ(textDiff("a", "", ""), std::nullopt);
}

TEST(TextDiff, ALineFeedAtTheEndMakesNoLineOfItsOwn) {
    EXPECT_EQ(textDiff("a", "1\n2", "1\n2\n"), std::nullopt);
    EXPECT_EQ(textDiff("a", "1\n", "1\n2\n"), "--- a/a\n+++ b/a\n@@ -1,1 +1,2 @@\n 1\n+2\n");
    EXPECT_EQ(textDiff("a", "1\n", "1\n\n"), "--- a/a\n+++ b/a\n@@ -1,1 +1,2 @@\n 1\n+\n");
}

TEST(TextDiff, ASideWithoutLinesStartsOneLineEarlier) {
    EXPECT_EQ(textDiff("a", "", "x\ny\n"), "--- a/a\n+++ b/a\n@@ -0,0 +1,2 @@\n+x\n+y\n");
    EXPECT_EQ(textDiff("a", "x\ny\n", ""), "--- a/a\n+++ b/a\n@@ -1,2 +0,0 @@\n-x\n-y\n");
}

TEST(TextDiff, KeepsCarriageReturnsAsPartOfTheLine) {
    EXPECT_EQ(textDiff("a", "x\r\n", "x\n"), "--- a/a\n+++ b/a\n@@ -1,1 +1,1 @@\n-x\r\n+x\n");
}

TEST(TextDiff, TakesTheOldLineFirstWhenBothWaysAreEquallyGood) {
    EXPECT_EQ(textDiff("a", "a\nb\n", "b\na\n"), "--- a/a\n+++ b/a\n@@ -1,2 +1,2 @@\n-a\n b\n+a\n");
}

TEST(TextDiff, FarChangesShareOneHunk) {
    const auto diff = textDiff("a", "x\n1\n2\n3\n4\n5\n6\n7\n8\n9\ny\n", "X\n1\n2\n3\n4\n5\n6\n7\n8\n9\nY\n");

    EXPECT_EQ(diff, "--- a/a\n+++ b/a\n@@ -1,11 +1,11 @@\n-x\n+X\n 1\n 2\n 3\n 4\n 5\n 6\n 7\n 8\n 9\n-y\n+Y\n");
}

TEST(TextDiff, ATextWithANulByteHasNone) {
    const std::string binary("a\0b\n", 4);

    EXPECT_EQ(textDiff("a", binary, "ab\n"), std::nullopt);
    EXPECT_EQ(textDiff("a", "ab\n", binary), std::nullopt);
}

TEST(TextDiff, ATextOfTheGreatestLengthHasOneAndALongerOneNone) {
    const std::string longest(kMaxDiffInputBytes, 'x');

    EXPECT_NE(textDiff("a", longest, "x"), std::nullopt);
    EXPECT_NE(textDiff("a", "x", longest), std::nullopt);
    EXPECT_EQ(textDiff("a", longest + "x", "x"), std::nullopt);
    EXPECT_EQ(textDiff("a", "x", longest + "x"), std::nullopt);
}

TEST(TextDiff, ATextOf4000LinesHasOneAndALongerOneNone) {
    EXPECT_NE(textDiff("a", numberedLines(4000), "x"), std::nullopt);
    EXPECT_NE(textDiff("a", "x", numberedLines(4000)), std::nullopt);
    EXPECT_EQ(textDiff("a", numberedLines(4001), "x"), std::nullopt);
    EXPECT_EQ(textDiff("a", "x", numberedLines(4001)), std::nullopt);
}

TEST(TextDiff, Finds512ChangedLinesThatStayAndOneMoreNoLonger) {
    // The changed middle begins and ends with other lines, and its inner ones are equal.
    const auto changed = [](int lines, const std::string& end) {
        return end + "\n" + numberedLines(lines - 2, "") + end + "\n";
    };

    EXPECT_EQ(*textDiff("a", changed(512, "x"), changed(512, "y")),
              referenceDiff("a", linesOf(changed(512, "x")), linesOf(changed(512, "y"))));
    EXPECT_THAT(*textDiff("a", changed(512, "x"), changed(512, "y")), HasSubstr("\n 255\n"));
    EXPECT_THAT(*textDiff("a", changed(513, "x"), changed(513, "y")), Not(HasSubstr("\n 255\n")));
    EXPECT_THAT(*textDiff("a", changed(513, "x"), changed(513, "y")), HasSubstr("\n-255\n"));
}

TEST(TextDiff, TakesNoMoreLinesOnceItIs16384BytesLong) {
    // Header and lines of 100 bytes each: the line that passes the limit is the last.
    std::string after;
    for (int index = 0; index < 300; ++index)
        after += std::string(98, 'x') + "\n";

    const auto diff = textDiff("a", "", after);

    ASSERT_TRUE(diff);
    const std::string header = "--- a/a\n+++ b/a\n@@ -0,0 +1,300 @@\n";
    const std::size_t lines = (kMaxDiffBytes - header.size() + 99) / 100;
    EXPECT_EQ(diff->size(), header.size() + lines * 100 + std::string("[diff truncated]\n").size());
    EXPECT_THAT(*diff, EndsWith("x\n[diff truncated]\n"));
}

TEST(TextDiff, IsMarkedAsTruncatedOnlyFrom16384BytesOn) {
    const std::string header = "--- a/a\n+++ b/a\n@@ -0,0 +1,1 @@\n";
    const std::size_t room = kMaxDiffBytes - header.size() - std::string("+\n").size();

    EXPECT_THAT(*textDiff("a", "", std::string(room - 1, 'x')), EndsWith("x\n"));
    EXPECT_THAT(*textDiff("a", "", std::string(room, 'x')), EndsWith("x\n[diff truncated]\n"));
}

TEST(TextDiff, EqualsTheReferenceOverThousandsOfRandomEdits) {
    RandomEdits random(20240517);
    for (int round = 0; round < 6000; ++round) {
        const Lines before = random.text(40);
        Lines after = before;
        random.edit(after);

        const auto diff = textDiff("f", joined(before), joined(after));

        ASSERT_EQ(diff.value_or(""), referenceDiff("f", before, after)) << "round " << round;
        if (diff) {
            ASSERT_EQ(patched(before, *diff), after) << "round " << round;
        }
    }
}

TEST(TextDiff, EqualsTheReferenceForTextsWithNothingInCommonByDesign) {
    RandomEdits random(7);
    for (int round = 0; round < 300; ++round) {
        const Lines before = random.text(round < 290 ? 60 : 700);
        const Lines after = random.text(round < 290 ? 60 : 700);

        ASSERT_EQ(textDiff("f", joined(before), joined(after)).value_or(""), referenceDiff("f", before, after))
            << "round " << round;
    }
}

}  // namespace
}  // namespace qm
