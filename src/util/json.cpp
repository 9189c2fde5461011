#include "util/json.h"

#include <memory>
#include <stdexcept>

namespace qm {

bool nestsDeeperThan(std::string_view text, std::size_t limit) {
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char character = text[at];
        if (inString) {
            if (character == '\\') ++at;
            inString = character != '"';
        } else if (character == '"') {
            inString = true;
        } else if (character == '{' || character == '[') {
            if (++depth > limit) return true;
        } else if ((character == '}' || character == ']') && depth > 0) {
            --depth;
        }
    }
    return false;
}

json parseJson(std::string_view text) {
    if (nestsDeeperThan(text, kMaxJsonDepth)) throw std::invalid_argument("JSON is nested too deeply");
    // The library takes a NUL for the end of the text, so whatever stood behind it would pass unseen.
    if (const auto at = text.find('\0'); at != std::string_view::npos) {
        throw json::parse_error::create(101, at + 1, "syntax error: a NUL byte is no part of a JSON text", nullptr);
    }
    return json::parse(text);
}

std::string dumpJson(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string dumpJsonPretty(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

const json* findMember(const json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    const auto member = object.find(key);
    return member == object.end() ? nullptr : &*member;
}

std::string stringMember(const json& object, std::string_view key, std::string_view fallback) {
    const json* member = findMember(object, key);
    return member != nullptr && member->is_string() ? member->get<std::string>() : std::string(fallback);
}

bool boolMember(const json& object, std::string_view key, bool fallback) {
    const json* member = findMember(object, key);
    return member != nullptr && member->is_boolean() ? member->get<bool>() : fallback;
}

std::int64_t integerMember(const json& object, std::string_view key, std::int64_t fallback) {
    const json* member = findMember(object, key);
    if (member == nullptr || !member->is_number_integer()) return fallback;
    if (member->is_number_unsigned() && member->get<std::uint64_t>() > std::uint64_t{INT64_MAX}) return fallback;
    return member->get<std::int64_t>();
}

const json& objectMember(const json& object, std::string_view key) {
    // Never destroyed: a detached thread may still read while the process ends.
    static const json& empty = *std::make_unique<json>(json::object()).release();
    const json* member = findMember(object, key);
    return member != nullptr && member->is_object() ? *member : empty;
}

const json& arrayMember(const json& object, std::string_view key) {
    static const json& empty = *std::make_unique<json>(json::array()).release();
    const json* member = findMember(object, key);
    return member != nullptr && member->is_array() ? *member : empty;
}

}  // namespace qm
