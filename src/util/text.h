#pragma once

#include <string>
#include <string_view>

namespace qm {

/// Space, tab, CR, LF and FF: what surrounds values in files and on terminals.
inline constexpr std::string_view kFileWhitespace = " \t\r\n\f";

/// `text` without the leading and trailing characters that are in `characters`.
std::string_view trimmed(std::string_view text, std::string_view characters = kFileWhitespace);

/// True if `text` is empty or holds nothing but whitespace, vertical tabs included.
bool isBlank(std::string_view text);

/// `text` without any trailing "/".
std::string_view withoutTrailingSlashes(std::string_view text);

/// `character` in lower case if it is an ASCII letter, whatever the locale.
constexpr char lowerAscii(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

/// Equality that ignores the case of ASCII letters only, whatever the locale.
bool equalsIgnoreCase(std::string_view left, std::string_view right);

/// `text` with its ASCII letters in lower case, whatever the locale.
std::string toLowerAscii(std::string_view text);

}  // namespace qm
