#include "device/text_diff.h"

#include <algorithm>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace qm {
namespace {

constexpr std::size_t kContextLines = 3;
/// Above this many lines on either side the table of subsequence lengths would cost more than its result is worth.
constexpr std::size_t kMaxTableLines = 512;

using Lines = std::vector<std::string_view>;
using LineRange = std::span<const std::string_view>;

bool isDiffable(std::string_view text) {
    return text.size() <= kMaxDiffInputBytes && text.find('\0') == std::string_view::npos;
}

Lines splitLines(std::string_view text) {
    Lines lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

/// The two texts cut into what they share at both ends and what differs between.
struct Split {
    std::size_t prefix = 0;
    std::size_t suffix = 0;
    LineRange oldMiddle;
    LineRange newMiddle;
};

Split splitCommonEnds(const Lines& oldLines, const Lines& newLines) {
    Split split;
    const std::size_t shorter = std::min(oldLines.size(), newLines.size());
    while (split.prefix < shorter && oldLines[split.prefix] == newLines[split.prefix])
        ++split.prefix;
    while (split.suffix < shorter - split.prefix &&
           oldLines[oldLines.size() - 1 - split.suffix] == newLines[newLines.size() - 1 - split.suffix]) {
        ++split.suffix;
    }
    const auto middle = [&split](const Lines& lines) {
        return LineRange(lines).subspan(split.prefix, lines.size() - split.prefix - split.suffix);
    };
    split.oldMiddle = middle(oldLines);
    split.newMiddle = middle(newLines);
    return split;
}

/// The text of a diff; takes no more lines once it has reached its limit.
class DiffText {
public:
    explicit DiffText(std::string header) : text_(std::move(header)) {}

    void add(char mark, std::string_view line) {
        if (text_.size() >= kMaxDiffBytes) return;
        text_ += mark;
        text_ += line;
        text_ += '\n';
    }

    void addAll(char mark, LineRange lines) {
        for (const auto line : lines)
            add(mark, line);
    }

    std::string finish() {
        if (text_.size() >= kMaxDiffBytes) text_ += "[diff truncated]\n";
        return std::move(text_);
    }

private:
    std::string text_;
};

/// Lengths of the longest common subsequences of every pair of tails of two line ranges.
class SubsequenceTable {
public:
    SubsequenceTable(LineRange oldLines, LineRange newLines)
        : columns_(newLines.size() + 1), lengths_((oldLines.size() + 1) * columns_) {
        std::unordered_map<std::string_view, std::uint32_t> numbers;
        const auto numbered = [&numbers](LineRange lines) {
            std::vector<std::uint32_t> result;
            result.reserve(lines.size());
            for (const auto line : lines) {
                result.push_back(numbers.try_emplace(line, static_cast<std::uint32_t>(numbers.size())).first->second);
            }
            return result;
        };
        // Numbers instead of texts: each line is compared as text once, not once for each cell.
        oldNumbers_ = numbered(oldLines);
        newNumbers_ = numbered(newLines);
        for (std::size_t row = oldNumbers_.size(); row-- > 0;)
            fillRow(row);
    }

    bool equal(std::size_t row, std::size_t column) const { return oldNumbers_[row] == newNumbers_[column]; }
    std::uint16_t length(std::size_t row, std::size_t column) const { return lengths_[row * columns_ + column]; }

private:
    void fillRow(std::size_t row) {
        for (std::size_t column = newNumbers_.size(); column-- > 0;) {
            const int value = equal(row, column) ? length(row + 1, column + 1) + 1
                                                 : std::max(length(row + 1, column), length(row, column + 1));
            lengths_[row * columns_ + column] = static_cast<std::uint16_t>(value);
        }
    }

    std::size_t columns_;
    std::vector<std::uint16_t> lengths_;
    std::vector<std::uint32_t> oldNumbers_;
    std::vector<std::uint32_t> newNumbers_;
};

void addByTable(DiffText& text, LineRange oldLines, LineRange newLines) {
    const SubsequenceTable table(oldLines, newLines);
    std::size_t row = 0;
    std::size_t column = 0;
    while (row < oldLines.size() && column < newLines.size()) {
        if (table.equal(row, column)) {
            text.add(' ', oldLines[row]);
            ++row;
            ++column;
        } else if (table.length(row, column + 1) > table.length(row + 1, column)) {
            text.add('+', newLines[column++]);
        } else {
            text.add('-', oldLines[row++]);
        }
    }
    text.addAll('-', oldLines.subspan(row));
    text.addAll('+', newLines.subspan(column));
}

void addMiddle(DiffText& text, LineRange oldLines, LineRange newLines) {
    const auto fitsTable = [](LineRange lines) { return !lines.empty() && lines.size() <= kMaxTableLines; };
    if (fitsTable(oldLines) && fitsTable(newLines)) {
        addByTable(text, oldLines, newLines);
    } else {
        text.addAll('-', oldLines);
        text.addAll('+', newLines);
    }
}

/// One side of the hunk's header: 1-based start and count; the start is one less when there is nothing to count.
std::string hunkSide(std::size_t linesBefore, std::size_t count) {
    return std::to_string(count == 0 ? linesBefore : linesBefore + 1) + "," + std::to_string(count);
}

}  // namespace

std::optional<std::string> textDiff(std::string_view path, std::string_view before, std::string_view after) {
    if (!isDiffable(before) || !isDiffable(after)) return std::nullopt;
    const Lines oldLines = splitLines(before);
    const Lines newLines = splitLines(after);
    if (oldLines.size() > kMaxDiffLines || newLines.size() > kMaxDiffLines) return std::nullopt;
    const Split split = splitCommonEnds(oldLines, newLines);
    if (split.oldMiddle.empty() && split.newMiddle.empty()) return std::nullopt;

    const std::size_t start = std::max(split.prefix, kContextLines) - kContextLines;
    const std::size_t leading = split.prefix - start;
    const std::size_t trailing = std::min(split.suffix, kContextLines);
    const std::size_t context = leading + trailing;
    const std::string name(path);
    DiffText text("--- a/" + name + "\n+++ b/" + name + "\n@@ -" + hunkSide(start, context + split.oldMiddle.size()) +
                  " +" + hunkSide(start, context + split.newMiddle.size()) + " @@\n");
    text.addAll(' ', LineRange(oldLines).subspan(start, leading));
    addMiddle(text, split.oldMiddle, split.newMiddle);
    text.addAll(' ', LineRange(oldLines).subspan(oldLines.size() - split.suffix, trailing));
    return text.finish();
}

}  // namespace qm
