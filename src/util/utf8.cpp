#include "util/utf8.h"

#include <cstdint>
#include <cstring>

namespace qm {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::uint8_t byteAt(std::string_view text, std::size_t position) {
    return static_cast<std::uint8_t>(text[position]);
}

/// The end of the run of ASCII bytes that begins at `position`.
std::size_t endOfAscii(std::string_view text, std::size_t position) {
    constexpr std::uint64_t kHighBits = 0x8080808080808080;
    for (; text.size() - position >= sizeof(std::uint64_t); position += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, text.data() + position, sizeof(word));
        if ((word & kHighBits) != 0) break;
    }
    while (position < text.size() && byteAt(text, position) < 0x80)
        ++position;
    return position;
}

/// Length that a sequence has by its first byte; 0 if no sequence begins with it.
std::size_t announcedLength(std::uint8_t first) {
    if (first < 0x80) return 1;
    if (first < 0xC2) return 0;
    if (first < 0xE0) return 2;
    if (first < 0xF0) return 3;
    return first < 0xF5 ? 4 : 0;
}

/// Length of the sequence at `position`, well-formed in length and continuation bytes; 0 if there is none.
std::size_t sequenceLength(std::string_view text, std::size_t position) {
    const std::size_t length = announcedLength(byteAt(text, position));
    if (length > text.size() - position) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byteAt(text, position + i) & 0xC0) != 0x80) return 0;
    }
    return length;
}

std::size_t endOfCodePoints(std::string_view text, std::size_t count) {
    std::size_t position = 0;
    for (; count > 0 && position < text.size(); --count) {
        const std::size_t length = sequenceLength(text, position);
        position += length == 0 ? 1 : length;
    }
    return position;
}

/// `bytes` with U+FFFD for each byte at which `lengthAt`, given the text and a position, finds no sequence.
template <typename LengthAt>
std::string withBadBytesReplaced(std::string_view bytes, LengthAt lengthAt) {
    std::string clean;
    clean.reserve(bytes.size());
    std::size_t copied = 0;
    std::size_t position = 0;
    while ((position = endOfAscii(bytes, position)) < bytes.size()) {
        const std::size_t length = lengthAt(bytes, position);
        if (length > 0) {
            position += length;
            continue;
        }
        clean.append(bytes, copied, position - copied);
        clean += kReplacement;
        copied = ++position;
    }
    clean.append(bytes, copied);
    return clean;
}

}  // namespace

std::string sanitizeUtf8(std::string_view bytes) {
    return withBadBytesReplaced(bytes, sequenceLength);
}

std::string toStrictUtf8(std::string_view bytes) {
    return withBadBytesReplaced(bytes, [](std::string_view text, std::size_t position) {
        char32_t ignored = 0;
        return decodeCodePoint(text.substr(position), ignored);
    });
}

bool isValidUtf8(std::string_view text) {
    std::size_t position = 0;
    while ((position = endOfAscii(text, position)) < text.size()) {
        char32_t ignored = 0;
        const std::size_t length = decodeCodePoint(text.substr(position), ignored);
        if (length == 0) return false;
        position += length;
    }
    return true;
}

std::string_view firstCodePoints(std::string_view text, std::size_t count) {
    return text.substr(0, endOfCodePoints(text, count));
}

std::string_view lastCodePoints(std::string_view text, std::size_t count) {
    const std::size_t total = countCodePoints(text);
    return count >= total ? text : text.substr(endOfCodePoints(text, total - count));
}

std::size_t countCodePoints(std::string_view text) {
    std::size_t count = 0;
    for (std::size_t position = 0; position < text.size(); ++count) {
        const std::size_t length = sequenceLength(text, position);
        position += length == 0 ? 1 : length;
    }
    return count;
}

std::size_t decodeCodePoint(std::string_view text, char32_t& codePoint) {
    const std::size_t length = text.empty() ? 0 : sequenceLength(text, 0);
    if (length <= 1) {
        if (length == 1) codePoint = byteAt(text, 0);
        return length;
    }
    char32_t value = byteAt(text, 0) & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i)
        value = value << 6 | (byteAt(text, i) & 0x3Fu);
    const bool overlong = value < (length == 2 ? 0x80u : length == 3 ? 0x800u : 0x10000u);
    const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    if (overlong || surrogate || value > 0x10FFFF) return 0;
    codePoint = value;
    return length;
}

void appendCodePoint(std::string& text, char32_t codePoint) {
    const auto add = [&](char32_t byte) { text += static_cast<char>(static_cast<std::uint8_t>(byte)); };
    const auto addContinuation = [&](int shift) { add(0x80 | (codePoint >> shift & 0x3F)); };
    if ((codePoint >= 0xD800 && codePoint <= 0xDFFF) || codePoint > 0x10FFFF) codePoint = 0xFFFD;
    if (codePoint < 0x80) {
        add(codePoint);
    } else if (codePoint < 0x800) {
        add(0xC0 | codePoint >> 6);
        addContinuation(0);
    } else if (codePoint < 0x10000) {
        add(0xE0 | codePoint >> 12);
        addContinuation(6);
        addContinuation(0);
    } else {
        add(0xF0 | codePoint >> 18);
        addContinuation(12);
        addContinuation(6);
        addContinuation(0);
    }
}

}  // namespace qm
