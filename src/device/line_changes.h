#pragma once

#include <cstddef>
#include <string_view>

namespace qm {

/// How many lines a change of a text adds and removes. Lines end at "\n", with one "\r" before it belonging to the end;
/// a last piece without "\n" is a line, and the empty text has none.
struct LineChanges {
    std::size_t added = 0;
    std::size_t removed = 0;
};

/// For `before` replaced by `after`: everything between the common first and the common last lines counts as changed.
LineChanges linesReplaced(std::string_view before, std::string_view after);

/// For `addition` put behind `before`: by how much the number of lines grows.
LineChanges linesAppended(std::string_view before, std::string_view addition);

}  // namespace qm
