#include "util/base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace qm {
namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Both characters of each 12-bit group, so that three bytes take two look-ups.
constexpr auto kPairs = [] {
    std::array<std::array<char, 2>, 4096> pairs{};
    for (std::size_t i = 0; i < pairs.size(); ++i)
        pairs[i] = {kAlphabet[i >> 6], kAlphabet[i & 63]};
    return pairs;
}();

constexpr std::uint32_t kSkipped = 0x01000000;
constexpr std::uint32_t kForeign = 0x02000000;

/// For each place in a group of four the character's bits where they belong in the group's 24, or one of the marks
/// above, which lie outside them and survive an OR of four entries.
constexpr auto kGroupBits = [] {
    std::array<std::array<std::uint32_t, 256>, 4> table{};
    for (auto& place : table)
        place.fill(kForeign);
    for (std::size_t place = 0; place < table.size(); ++place) {
        for (std::size_t value = 0; value < kAlphabet.size(); ++value) {
            table[place][static_cast<std::uint8_t>(kAlphabet[value])] =
                static_cast<std::uint32_t>(value << 6 * (3 - place));
        }
        for (const char skipped : std::string_view(" \r\n=")) {
            table[place][static_cast<std::uint8_t>(skipped)] = kSkipped;
        }
    }
    return table;
}();

/// Results are built in pieces of this size that stay in the first-level cache, so that the memory of the result is
/// written once instead of being zeroed before.
constexpr std::size_t kPieceSize = 12288;

/// Encodes a multiple of three bytes; returns the end of what it wrote.
char* encodeGroups(const std::uint8_t* bytes, std::size_t size, char* out) {
    for (const std::uint8_t* const end = bytes + size; bytes != end; bytes += 3, out += 4) {
        const std::uint32_t group = std::uint32_t{bytes[0]} << 16 | std::uint32_t{bytes[1]} << 8 | bytes[2];
        std::memcpy(out, kPairs[group >> 12].data(), 2);
        std::memcpy(out + 2, kPairs[group & 0xFFF].data(), 2);
    }
    return out;
}

/// Appends the last one or two bytes with their padding.
void appendTail(std::string& text, std::string_view bytes) {
    const std::uint32_t first = static_cast<std::uint8_t>(bytes[0]);
    const std::uint32_t second = bytes.size() > 1 ? static_cast<std::uint8_t>(bytes[1]) : 0;
    text += kAlphabet[first >> 2];
    text += kAlphabet[(first << 4 | second >> 4) & 63];
    text += bytes.size() > 1 ? kAlphabet[second << 2 & 63] : '=';
    text += '=';
}

std::uint32_t groupBits(const std::uint8_t* characters) {
    return kGroupBits[0][characters[0]] | kGroupBits[1][characters[1]] | kGroupBits[2][characters[2]] |
           kGroupBits[3][characters[3]];
}

/// Decodes whole groups as long as each is four characters of the alphabet, moving `position` past them; returns the
/// end of what it wrote to `out`, which takes the groups that fit in a piece.
std::uint8_t* decodeCleanGroups(std::string_view text, std::size_t& position, std::uint8_t* out) {
    const auto* characters = reinterpret_cast<const std::uint8_t*>(text.data()) + position;
    std::size_t groups = std::min((text.size() - position) / 4, kPieceSize / 3);
    for (; groups > 0; --groups, characters += 4, out += 3) {
        const std::uint32_t bits = groupBits(characters);
        if (bits >= kSkipped) break;
        out[0] = static_cast<std::uint8_t>(bits >> 16);
        out[1] = static_cast<std::uint8_t>(bits >> 8);
        out[2] = static_cast<std::uint8_t>(bits);
    }
    position = static_cast<std::size_t>(characters - reinterpret_cast<const std::uint8_t*>(text.data()));
    return out;
}

/// Decodes character by character until four of the alphabet are found or the text ends, and appends the whole bytes
/// they make. False for a foreign character.
bool decodeMixedGroup(std::string_view text, std::size_t& position, std::string& bytes) {
    std::uint32_t group = 0;
    std::size_t found = 0;
    while (found < 4 && position < text.size()) {
        const auto character = static_cast<std::uint8_t>(text[position++]);
        const std::uint32_t bits = kGroupBits[found][character];
        if (bits == kForeign) return false;
        if (bits == kSkipped) continue;
        group |= bits;
        ++found;
    }
    for (std::size_t byte = 1; byte < found; ++byte)
        bytes += static_cast<char>(group >> 8 * (3 - byte) & 0xFF);
    return true;
}

}  // namespace

std::string base64Encode(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::array<char, kPieceSize / 3 * 4> piece;  // NOLINT(*-member-init): written before it is read
    while (bytes.size() >= 3) {
        const std::size_t taken = std::min(bytes.size() - bytes.size() % 3, kPieceSize);
        const char* end = encodeGroups(reinterpret_cast<const std::uint8_t*>(bytes.data()), taken, piece.data());
        text.append(piece.data(), static_cast<std::size_t>(end - piece.data()));
        bytes.remove_prefix(taken);
    }
    if (!bytes.empty()) appendTail(text, bytes);
    return text;
}

std::optional<std::string> base64Decode(std::string_view text) {
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3 + 3);
    std::array<std::uint8_t, kPieceSize> piece;  // NOLINT(*-member-init): written before it is read
    std::size_t position = 0;
    while (position < text.size()) {
        const std::uint8_t* end = decodeCleanGroups(text, position, piece.data());
        bytes.append(reinterpret_cast<const char*>(piece.data()), static_cast<std::size_t>(end - piece.data()));
        if (end == piece.data() + piece.size()) continue;
        if (!decodeMixedGroup(text, position, bytes)) return std::nullopt;
    }
    return bytes;
}

}  // namespace qm
