#include "runtime/payload_text.h"

#include <algorithm>
#include <cstring>

#include "util/json.h"
#include "util/utf8.h"

namespace qm::runtime {
namespace {

/// Number of bytes at the front of `text` that are ASCII; may stop up to seven bytes early.
std::size_t asciiPrefix(std::string_view text) {
    std::size_t length = 0;
    std::uint64_t word = 0;
    while (text.size() - length >= sizeof(word)) {
        std::memcpy(&word, text.data() + length, sizeof(word));
        if ((word & 0x8080808080808080U) != 0) break;
        length += sizeof(word);
    }
    return length;
}

bool isValidUtf8(std::string_view text) {
    while (!text.empty()) {
        text.remove_prefix(asciiPrefix(text));
        if (text.empty()) return true;
        char32_t codePoint = 0;
        const std::size_t length = decodeCodePoint(text, codePoint);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool hasOnlyValidUtf8(const json& value) {
    if (value.is_string()) return isValidUtf8(value.get_ref<const std::string&>());
    if (value.is_array()) return std::all_of(value.begin(), value.end(), hasOnlyValidUtf8);
    if (!value.is_object()) return true;
    const auto& members = value.get_ref<const json::object_t&>();
    return std::all_of(members.begin(), members.end(),
                       [](const auto& member) { return isValidUtf8(member.first) && hasOnlyValidUtf8(member.second); });
}

}  // namespace

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\n\v\f\r") == std::string_view::npos;
}

json withValidUtf8(json payload) {
    if (hasOnlyValidUtf8(payload)) return payload;
    return json::parse(dumpJson(payload));
}

}  // namespace qm::runtime
