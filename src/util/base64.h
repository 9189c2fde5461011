#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// Standard alphabet with "=" padding, no line breaks.
std::string base64Encode(std::string_view bytes);

/// Decodes leniently: space, CR, LF and "=" are skipped wherever they stand, and bits that don't fill a byte at the end
/// are dropped. Any other character outside the alphabet: nothing.
std::optional<std::string> base64Decode(std::string_view text);

}  // namespace qm
