#include "device/line_changes.h"

#include <algorithm>

namespace qm {
namespace {

std::string_view withoutCarriageReturn(std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    return line;
}

std::string_view takeFirstLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    if (end == std::string_view::npos) {
        text = {};
        return line;
    }
    text.remove_prefix(end + 1);
    return withoutCarriageReturn(line);
}

std::string_view takeLastLine(std::string_view& text) {
    const bool terminated = text.ends_with('\n');
    if (terminated) text.remove_suffix(1);
    const std::size_t before = text.rfind('\n');
    const std::size_t start = before == std::string_view::npos ? 0 : before + 1;
    const std::string_view line = text.substr(start);
    text = text.substr(0, start);
    return terminated ? withoutCarriageReturn(line) : line;
}

std::size_t lineFeeds(std::string_view text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::size_t countLines(std::string_view text) {
    return lineFeeds(text) + (text.empty() || text.ends_with('\n') ? 0 : 1);
}

/// Calls `take` on both texts as long as the lines that it takes are equal; how many there were.
template <typename Take>
std::size_t dropCommonLines(std::string_view& left, std::string_view& right, Take take) {
    std::size_t count = 0;
    while (!left.empty() && !right.empty()) {
        std::string_view leftRest = left;
        std::string_view rightRest = right;
        if (take(leftRest) != take(rightRest)) break;
        left = leftRest;
        right = rightRest;
        ++count;
    }
    return count;
}

}  // namespace

LineChanges linesReplaced(std::string_view before, std::string_view after) {
    dropCommonLines(before, after, takeFirstLine);
    dropCommonLines(before, after, takeLastLine);
    return {countLines(after), countLines(before)};
}

LineChanges linesAppended(std::string_view before, std::string_view addition) {
    if (addition.empty()) return {};
    const bool extendsLastLine = !before.empty() && !before.ends_with('\n');
    return {countLines(addition) - (extendsLastLine ? 1 : 0), 0};
}

}  // namespace qm
