#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "util/json_fwd.h"

namespace qm::runtime {

/// Parses `text` if it is JSON exactly as the library dumps it: compact, keys sorted and unique, raw UTF-8, the
/// shortest numbers, the fewest escapes. Then the value dumps to `text` again, byte for byte, so a checksum over the
/// dump can be taken over the text. Nothing for every other text, valid JSON or not, and for one that nests deeper than
/// `maxDepth`.
std::optional<json> parseCanonicalJson(std::string_view text, std::size_t maxDepth);

}  // namespace qm::runtime
