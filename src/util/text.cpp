#include "util/text.h"

#include <algorithm>

namespace qm {

std::string_view trimmed(std::string_view text, std::string_view characters) {
    const auto first = text.find_first_not_of(characters);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(characters) - first + 1);
}

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
}

std::string_view withoutTrailingSlashes(std::string_view text) {
    while (text.ends_with('/'))
        text.remove_suffix(1);
    return text;
}

bool equalsIgnoreCase(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return lowerAscii(a) == lowerAscii(b); });
}

std::string toLowerAscii(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), lowerAscii);
    return lower;
}

}  // namespace qm
