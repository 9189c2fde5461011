#include "capabilities/capability_arguments.h"

#include <cmath>
#include <limits>

#include "util/json.h"

namespace qm {
namespace {

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

std::int64_t clampedToInteger(double value) {
    // 2^63 is the first value beyond the range; the greatest one within has no exact double.
    constexpr double kLimit = 9223372036854775808.0;
    if (std::isnan(value)) return 0;
    if (value >= kLimit) return kMax;
    return value < -kLimit ? kMin : static_cast<std::int64_t>(value);
}

}  // namespace

const std::string& textArgument(const json& arguments, std::string_view key) {
    static const std::string absent;
    const json* member = findMember(arguments, key);
    return member == nullptr ? absent : member->get_ref<const std::string&>();
}

std::int64_t integerArgument(const json& arguments, std::string_view key, std::int64_t fallback) {
    const json* member = findMember(arguments, key);
    if (member == nullptr) return fallback;
    if (member->is_number_float()) return clampedToInteger(member->get<double>());
    if (member->is_number_unsigned() && member->get<std::uint64_t>() > std::uint64_t{kMax}) return kMax;
    return member->get<std::int64_t>();
}

bool boolArgument(const json& arguments, std::string_view key, bool fallback) {
    const json* member = findMember(arguments, key);
    return member == nullptr ? fallback : member->get<bool>();
}

}  // namespace qm
