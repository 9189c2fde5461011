#include "util/properties.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include "util/file_io.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::string_view kBlanks = " \t\f";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view withoutLeadingBlanks(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(kBlanks), text.size()));
}

/// Takes the next line off `text`, without its end: LF, CR or CRLF.
std::string_view takeLine(std::string_view& text) {
    const std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end);
    if (text.starts_with("\r\n")) {
        text.remove_prefix(2);
    } else if (!text.empty()) {
        text.remove_prefix(1);
    }
    return line;
}

bool continues(std::string_view line) {
    const std::size_t last = line.find_last_not_of('\\');
    const std::size_t backslashes = last == std::string_view::npos ? line.size() : line.size() - last - 1;
    return backslashes % 2 == 1;
}

/// Takes the next logical line off `text`: leading blanks dropped, continued lines joined, comments as empty.
std::string takeLogicalLine(std::string_view& text) {
    std::string_view line = withoutLeadingBlanks(takeLine(text));
    if (line.starts_with('#') || line.starts_with('!')) return {};
    std::string logical;
    while (continues(line)) {
        logical += line.substr(0, line.size() - 1);
        line = withoutLeadingBlanks(takeLine(text));
    }
    logical += line;
    return logical;
}

/// The four hexadecimal digits at the front of `text` as a number; -1 if they aren't there.
std::int32_t hexUnit(std::string_view text) {
    if (text.size() < 4) return -1;
    std::int32_t unit = 0;
    for (const char character : text.substr(0, 4)) {
        std::int32_t digit = 0;
        if (character >= '0' && character <= '9') {
            digit = character - '0';
        } else if (character >= 'a' && character <= 'f') {
            digit = character - 'a' + 10;
        } else if (character >= 'A' && character <= 'F') {
            digit = character - 'A' + 10;
        } else {
            return -1;
        }
        unit = unit << 4 | digit;
    }
    return unit;
}

/// Takes the digits of one "\u" escape off `text` and appends what it means, together with a second escape if the two
/// are the halves of a surrogate pair. Without four digits the escape means the letter itself.
void takeUnicodeEscape(std::string_view& text, std::string& plain) {
    const std::int32_t unit = hexUnit(text);
    if (unit < 0) {
        plain += 'u';
        return;
    }
    text.remove_prefix(4);
    if (unit >= 0xD800 && unit <= 0xDBFF && text.starts_with("\\u")) {
        const std::int32_t second = hexUnit(text.substr(2));
        if (second >= 0xDC00 && second <= 0xDFFF) {
            text.remove_prefix(6);
            appendCodePoint(plain, static_cast<char32_t>(0x10000 + ((unit - 0xD800) << 10) + (second - 0xDC00)));
            return;
        }
    }
    appendCodePoint(plain, static_cast<char32_t>(unit));
}

std::string unescaped(std::string_view text) {
    std::string plain;
    plain.reserve(text.size());
    while (!text.empty()) {
        const std::size_t run = std::min(text.find('\\'), text.size());
        plain += text.substr(0, run);
        text.remove_prefix(run);
        if (text.empty()) break;
        text.remove_prefix(1);
        if (text.empty()) {
            plain += '\\';
            break;
        }
        const char escape = text.front();
        text.remove_prefix(1);
        switch (escape) {
            case 't':
                plain += '\t';
                break;
            case 'n':
                plain += '\n';
                break;
            case 'r':
                plain += '\r';
                break;
            case 'f':
                plain += '\f';
                break;
            case 'u':
                takeUnicodeEscape(text, plain);
                break;
            default:
                plain += escape;
        }
    }
    return plain;
}

/// Where the key of a logical line ends: at its first unescaped blank, ":" or "=".
std::size_t endOfKey(std::string_view line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\') {
            ++i;
        } else if (line[i] == ':' || line[i] == '=' || kBlanks.find(line[i]) != std::string_view::npos) {
            return i;
        }
    }
    return line.size();
}

void appendEscapedUnit(std::string& escaped, char32_t unit) {
    static constexpr std::string_view kDigits = "0123456789ABCDEF";
    escaped += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4)
        escaped += kDigits[unit >> shift & 0xF];
}

/// Appends one code point as the file has it; spaces are the caller's concern.
void appendEscapedCodePoint(std::string& escaped, char32_t codePoint) {
    switch (codePoint) {
        case '\t':
            escaped += "\\t";
            return;
        case '\n':
            escaped += "\\n";
            return;
        case '\r':
            escaped += "\\r";
            return;
        case '\f':
            escaped += "\\f";
            return;
        case '!':
        case '#':
        case ':':
        case '=':
        case '\\':
            escaped += '\\';
            break;
        default:
            break;
    }
    if (codePoint >= 0x20 && codePoint <= 0x7E) {
        escaped += static_cast<char>(codePoint);
    } else if (codePoint <= 0xFFFF) {
        appendEscapedUnit(escaped, codePoint);
    } else {
        appendEscapedUnit(escaped, 0xD800 + ((codePoint - 0x10000) >> 10));
        appendEscapedUnit(escaped, 0xDC00 + (codePoint & 0x3FF));
    }
}

enum class EscapedSpaces { All, Leading };

void appendEscaped(std::string& escaped, std::string_view text, EscapedSpaces escapedSpaces) {
    bool escapesSpace = true;
    while (!text.empty()) {
        // A byte that is no UTF-8 counts as the code point of its value.
        char32_t codePoint = static_cast<unsigned char>(text.front());
        text.remove_prefix(std::max<std::size_t>(decodeCodePoint(text, codePoint), 1));
        if (codePoint != ' ' && escapedSpaces == EscapedSpaces::Leading) escapesSpace = false;
        if (codePoint == ' ' && escapesSpace) escaped += '\\';
        appendEscapedCodePoint(escaped, codePoint);
    }
}

}  // namespace

std::map<std::string, std::string> parseProperties(std::string_view text) {
    std::map<std::string, std::string> properties;
    if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
    while (!text.empty()) {
        const std::string logicalLine = takeLogicalLine(text);
        if (logicalLine.empty()) continue;
        const std::string_view line = logicalLine;
        const std::size_t keyEnd = endOfKey(line);
        std::string_view value = withoutLeadingBlanks(line.substr(keyEnd));
        if (value.starts_with('=') || value.starts_with(':')) value = withoutLeadingBlanks(value.substr(1));
        properties.insert_or_assign(unescaped(line.substr(0, keyEnd)), unescaped(value));
    }
    return properties;
}

std::map<std::string, std::string> readPropertiesFile(const std::filesystem::path& file) {
    return parseProperties(readRegularFile(file).value_or(""));
}

std::string propertiesLine(std::string_view key, std::string_view value) {
    std::string line;
    line.reserve(key.size() + value.size() + 2);
    appendEscaped(line, key, EscapedSpaces::All);
    line += '=';
    appendEscaped(line, value, EscapedSpaces::Leading);
    line += '\n';
    return line;
}

}  // namespace qm
