#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qm {

/// `bytes` with U+FFFD in place of each byte that doesn't begin a sequence well-formed in length and continuation
/// bytes: one byte below 0x80; 0xC2-0xDF and one continuation; 0xE0-0xEF and two; 0xF0-0xF4 and three. A sequence cut
/// off by the end counts as bad bytes. Overlong three-byte forms, surrogates and values above U+10FFFF pass: this is
/// the rule that readers of files were promised, and JSON output replaces what it doesn't take itself.
std::string sanitizeUtf8(std::string_view bytes);

/// The same by the strict rule of decodeCodePoint(): what comes out is UTF-8 to the letter.
std::string toStrictUtf8(std::string_view bytes);

/// True if toStrictUtf8() would change nothing.
bool isValidUtf8(std::string_view text);

/// The first `count` code points of `text`, or the last; a byte that is no UTF-8 counts as one.
std::string_view firstCodePoints(std::string_view text, std::size_t count);
std::string_view lastCodePoints(std::string_view text, std::size_t count);

/// Number of code points, a byte that is no UTF-8 counting as one.
std::size_t countCodePoints(std::string_view text);

/// Reads the code point at the front of `text` by the strict rule: no overlong form, no surrogate, nothing above
/// U+10FFFF. Returns its length in bytes; 0 if there is none, and then `codePoint` stays as it was.
std::size_t decodeCodePoint(std::string_view text, char32_t& codePoint);

/// Appends `codePoint` as UTF-8; a surrogate half or a value above U+10FFFF becomes U+FFFD.
void appendCodePoint(std::string& text, char32_t codePoint);

}  // namespace qm
