#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "util/json_fwd.h"

namespace qm {

/// Readers for the arguments of a capability and the context of its call: an absent one reads as the default; one of
/// another type throws the JSON library's type error, which the caller gets as the call's failure rather than an answer
/// to what it didn't ask.

/// Empty if absent. The reference lives as long as `arguments`.
const std::string& textArgument(const json& arguments, std::string_view key);

/// Any number, brought into the range of 64 bits; fractions are dropped.
std::int64_t integerArgument(const json& arguments, std::string_view key, std::int64_t fallback);

bool boolArgument(const json& arguments, std::string_view key, bool fallback);

}  // namespace qm
