#pragma once

#include <concepts>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>

#include "util/json.h"

namespace qm::runtime {

/// Member `key` of `object` if it is a JSON integer: itself, or the nearest value that `Integer` has. The fallback for
/// every other member, a number with a fraction or an exponent included, and for none.
template <std::integral Integer>
Integer nearestInteger(const json& object, std::string_view key, Integer fallback = 0) {
    const json* member = findMember(object, key);
    if (member == nullptr || !member->is_number_integer()) return fallback;
    const auto nearest = [](auto value) {
        if (std::in_range<Integer>(value)) return static_cast<Integer>(value);
        return std::cmp_less(value, 0) ? std::numeric_limits<Integer>::min() : std::numeric_limits<Integer>::max();
    };
    return member->is_number_unsigned() ? nearest(member->get<std::uint64_t>()) : nearest(member->get<std::int64_t>());
}

}  // namespace qm::runtime
