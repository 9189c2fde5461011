#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "util/json_fwd.h"

namespace qm {

/// `value` as compact JSON text. Never throws for text that isn't UTF-8: each bad byte becomes U+FFFD, so that a
/// frame, an answer or a file can always be written.
std::string dumpJson(const json& value);

/// The same with an indentation of two spaces, for files that people read.
std::string dumpJsonPretty(const json& value);

/// Parses JSON from outside. Throws json::parse_error for a text that is no JSON, and std::invalid_argument for one
/// that nests deeper than kMaxJsonDepth: values are copied, dumped and destroyed by recursion, so depth costs stack.
json parseJson(std::string_view text);
inline constexpr int kMaxJsonDepth = 1000;

/// True if brackets outside strings nest deeper than `limit` somewhere in `text`; right for every text that is JSON.
bool nestsDeeperThan(std::string_view text, std::size_t limit);

/// Member `key` of `object`, or null if `object` is no object or has no such member. Valid as long as `object` is.
const json* findMember(const json& object, std::string_view key);

/// Readers for JSON that comes from outside: a member that is absent or of another type reads as the fallback.
std::string stringMember(const json& object, std::string_view key, std::string_view fallback = {});
bool boolMember(const json& object, std::string_view key, bool fallback);
/// Integers only; an unsigned value above the 64-bit signed range reads as the fallback, and so does a float.
std::int64_t integerMember(const json& object, std::string_view key, std::int64_t fallback);
/// The member if it is an object, otherwise an empty object. The reference lives as long as `object`.
const json& objectMember(const json& object, std::string_view key);
/// The member if it is an array, otherwise an empty array. The reference lives as long as `object`.
const json& arrayMember(const json& object, std::string_view key);

}  // namespace qm
