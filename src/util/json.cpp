#include "util/json.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace qm {
namespace {

/// Deepest nesting of brackets outside strings; right for every text that is JSON.
int nestingDepth(std::string_view text) {
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char character = text[i];
        if (inString) {
            if (character == '\\') ++i;
            if (character == '"') inString = false;
        } else if (character == '"') {
            inString = true;
        } else if (character == '[' || character == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (character == ']' || character == '}') {
            --depth;
        }
    }
    return deepest;
}

}  // namespace

json parseJson(std::string_view text) {
    if (nestingDepth(text) > kMaxJsonDepth) throw std::invalid_argument("JSON is nested too deeply");
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
