#include "runtime/canonical_json.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "util/json.h"
#include "util/utf8.h"

namespace qm::runtime {
namespace {

/// Which of the eight bytes in `word` end a run of plain string characters (quote, backslash, control character or the
/// begin of a multi-byte character): the top bit of each such byte, reliable for the lowest one set.
std::uint64_t specialBytes(std::uint64_t word) {
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kTops = 0x8080808080808080U;
    const auto zeroBytes = [](std::uint64_t bytes) { return (bytes - kOnes) & ~bytes & kTops; };
    const std::uint64_t control = (word - kOnes * 0x20) & ~word & kTops;
    return zeroBytes(word ^ (kOnes * '"')) | zeroBytes(word ^ (kOnes * '\\')) | control | (word & kTops);
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/// The value of a lower-case hexadecimal digit, or nothing.
std::optional<unsigned> hexDigit(char character) {
    if (isDigit(character)) return static_cast<unsigned>(character - '0');
    if (character >= 'a' && character <= 'f') return static_cast<unsigned>(character - 'a' + 10);
    return std::nullopt;
}

class Parser {
public:
    Parser(std::string_view text, std::size_t maxDepth) : text_(text), maxDepth_(maxDepth) {}

    bool parse(json& value) { return parseValue(value, maxDepth_) && text_.empty(); }

private:
    bool parseValue(json& value, std::size_t depth) {
        if (text_.empty()) return false;
        switch (text_.front()) {
            case '{':
                return depth > 0 && parseObject(value, depth - 1);
            case '[':
                return depth > 0 && parseArray(value, depth - 1);
            case '"':
                value = json(json::value_t::string);
                return parseString(value.get_ref<std::string&>());
            case 't':
                value = true;
                return take("true");
            case 'f':
                value = false;
                return take("false");
            case 'n':
                value = nullptr;
                return take("null");
            default:
                return parseNumber(value);
        }
    }

    bool parseObject(json& value, std::size_t depth) {
        value = json::object();
        auto& members = value.get_ref<json::object_t&>();
        take("{");
        if (take("}")) return true;
        do {
            std::string key;
            if (!parseString(key) || !take(":")) return false;
            if (!members.empty() && key <= members.rbegin()->first) return false;
            const auto member = members.emplace_hint(members.end(), std::move(key), nullptr);
            if (!parseValue(member->second, depth)) return false;
        } while (take(","));
        return take("}");
    }

    bool parseArray(json& value, std::size_t depth) {
        value = json::array();
        auto& elements = value.get_ref<json::array_t&>();
        take("[");
        if (take("]")) return true;
        do {
            if (!parseValue(elements.emplace_back(), depth)) return false;
        } while (take(","));
        return take("]");
    }

    bool parseString(std::string& string) {
        if (!take("\"")) return false;
        while (true) {
            const std::size_t plain = plainLength();
            string.append(text_.substr(0, plain));
            text_.remove_prefix(plain);
            if (text_.empty()) return false;
            if (take("\"")) return true;
            if (!(text_.front() == '\\' ? parseEscape(string) : parseMultiByte(string))) return false;
        }
    }

    /// Number of bytes before the next one that isn't a plain ASCII character of a string.
    std::size_t plainLength() const {
        std::size_t length = 0;
        std::uint64_t word = 0;
        for (; text_.size() - length >= sizeof(word); length += sizeof(word)) {
            std::memcpy(&word, text_.data() + length, sizeof(word));
            if (specialBytes(word) != 0) break;
        }
        while (length < text_.size()) {
            const auto byte = static_cast<unsigned char>(text_[length]);
            if (byte < 0x20 || byte >= 0x80 || byte == '"' || byte == '\\') break;
            ++length;
        }
        return length;
    }

    bool parseMultiByte(std::string& string) {
        char32_t codePoint = 0;
        const std::size_t length = decodeCodePoint(text_, codePoint);
        if (length < 2) return false;
        string.append(text_.substr(0, length));
        text_.remove_prefix(length);
        return true;
    }

    bool parseEscape(std::string& string) {
        static constexpr std::array<std::pair<char, char>, 7> kShort{
            {{'"', '"'}, {'\\', '\\'}, {'b', '\b'}, {'f', '\f'}, {'n', '\n'}, {'r', '\r'}, {'t', '\t'}}};
        if (text_.size() < 2) return false;
        for (const auto& [letter, character] : kShort) {
            if (text_[1] != letter) continue;
            string += character;
            text_.remove_prefix(2);
            return true;
        }
        return parseControlEscape(string);
    }

    /// The other control characters are dumped as "\u00xx"; no other character is.
    bool parseControlEscape(std::string& string) {
        if (text_.size() < 6 || !text_.starts_with("\\u00")) return false;
        const auto high = hexDigit(text_[4]);
        const auto low = hexDigit(text_[5]);
        if (!high || !low) return false;
        const unsigned code = *high << 4U | *low;
        const bool hasShortForm = code == '\b' || code == '\f' || code == '\n' || code == '\r' || code == '\t';
        if (code >= 0x20 || hasShortForm) return false;
        string += static_cast<char>(code);
        text_.remove_prefix(6);
        return true;
    }

    bool parseNumber(json& value) {
        std::size_t length = 0;
        bool isInteger = true;
        for (; length < text_.size(); ++length) {
            const char character = text_[length];
            if (isDigit(character) || character == '-') continue;
            if (character != '.' && character != 'e' && character != '+') break;
            isInteger = false;
        }
        const std::string_view number = text_.substr(0, length);
        if (!(isInteger ? parseInteger(number, value) : parseFloat(number, value))) return false;
        text_.remove_prefix(length);
        return true;
    }

    static bool parseInteger(std::string_view number, json& value) {
        const bool negative = number.starts_with('-');
        const std::string_view digits = number.substr(negative ? 1 : 0);
        if (digits.empty() || (digits.front() == '0' && (negative || digits.size() > 1))) return false;
        const auto parseAs = [&](auto integer) {
            const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), integer);
            if (error != std::errc() || end != number.data() + number.size()) return false;
            value = integer;
            return true;
        };
        return negative ? parseAs(std::int64_t{}) : parseAs(std::uint64_t{});
    }

    /// Fractions are rare, so the library itself tells how it writes one.
    static bool parseFloat(std::string_view number, json& value) {
        double real = 0;
        const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), real);
        if (error != std::errc() || end != number.data() + number.size()) return false;
        value = real;
        return value.dump() == number;
    }

    bool take(std::string_view token) {
        if (!text_.starts_with(token)) return false;
        text_.remove_prefix(token.size());
        return true;
    }

    std::string_view text_;
    const std::size_t maxDepth_;
};

}  // namespace

std::optional<json> parseCanonicalJson(std::string_view text, std::size_t maxDepth) {
    json value;
    if (!Parser(text, maxDepth).parse(value)) return std::nullopt;
    return value;
}

}  // namespace qm::runtime
