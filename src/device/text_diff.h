#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// A text longer than this, in bytes or in lines, has no diff; and of a diff no more lines follow once it is this long.
inline constexpr std::size_t kMaxDiffInputBytes = 262144;
inline constexpr std::size_t kMaxDiffLines = 4000;
inline constexpr std::size_t kMaxDiffBytes = 16384;

/// The change from `before` to `after` of the file `path` as a unified diff with exactly one hunk and 3 lines of
/// context. Lines end at line feeds; whether the last one has its line feed makes no difference. Nothing if the lines
/// are equal, a text is beyond the limits above or holds a NUL byte. A diff that reached kMaxDiffBytes ends with
/// "[diff truncated]"; its last line before that is whole, so the text may be longer. Bytes that aren't UTF-8 pass
/// through as they are. Any thread.
std::optional<std::string> textDiff(std::string_view path, std::string_view before, std::string_view after);

}  // namespace qm
