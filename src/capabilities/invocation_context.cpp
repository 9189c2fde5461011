#include "capabilities/invocation_context.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "util/json.h"

namespace qm {
namespace {

/// The nearest integer towards zero that 64 bits hold; a conversion of anything else would be undefined.
std::int64_t truncated(double value) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63, the first value beyond the range
    if (value >= kLimit) return std::numeric_limits<std::int64_t>::max();
    if (value < -kLimit) return std::numeric_limits<std::int64_t>::min();
    return value == value ? static_cast<std::int64_t>(value) : 0;
}

/// Throws json::type_error for a member that is no number.
std::int64_t numberMember(const json& object, std::string_view key, std::int64_t fallback) {
    const json* member = findMember(object, key);
    if (member == nullptr) return fallback;
    if (member->is_number_float()) return truncated(member->get<double>());
    if (member->is_number_unsigned()) {
        constexpr std::uint64_t kLimit = std::numeric_limits<std::int64_t>::max();
        return static_cast<std::int64_t>(std::min(member->get<std::uint64_t>(), kLimit));
    }
    return member->get<std::int64_t>();
}

/// Throws json::type_error for a member that is no string.
std::string textMember(const json& object, std::string_view key, std::string_view fallback = {}) {
    const json* member = findMember(object, key);
    return member == nullptr ? std::string(fallback) : member->get<std::string>();
}

/// The member, or `limit` if it is no positive integer or lies above it.
std::uint64_t budgetMember(const json& object, std::string_view key, std::uint64_t limit) {
    const json* member = findMember(object, key);
    if (member == nullptr || !member->is_number_integer()) return limit;
    if (!member->is_number_unsigned() && member->get<std::int64_t>() <= 0) return limit;
    const auto value = member->get<std::uint64_t>();
    return value == 0 ? limit : std::min(value, limit);
}

void readBudgets(const json& context, runtime::ToolInvocation& invocation) {
    const json* nested = findMember(context, "budgets");
    const json& budgets = nested != nullptr && nested->is_object() ? *nested : context;
    invocation.resultBytes = budgetMember(budgets, "resultBytes", runtime::kDefaultResultBytes);
    invocation.stdoutBytes = budgetMember(budgets, "stdoutBytes", runtime::kDefaultStreamBytes);
    invocation.stderrBytes = budgetMember(budgets, "stderrBytes", runtime::kDefaultStreamBytes);
}

std::int32_t clampedTo32Bits(std::int64_t value) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(value, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

std::string workspaceHandle(const json& context) {
    const json* workspace = findMember(context, "workspace");
    if (workspace != nullptr && workspace->is_object()) return textMember(*workspace, "id");
    return textMember(context, "workspace");
}

}  // namespace

runtime::ToolInvocation invocationFromContext(std::string_view name, json arguments, const json& context) {
    const runtime::ToolInvocation defaults;
    runtime::ToolInvocation invocation;
    invocation.name = name;
    invocation.arguments = arguments.is_object() ? std::move(arguments) : json::object();
    invocation.idempotencyKey = textMember(context, "idempotencyKey");
    invocation.sessionId = textMember(context, "sessionId");
    invocation.runId = textMember(context, "runId");
    invocation.taskId = textMember(context, "taskId");
    invocation.round = clampedTo32Bits(numberMember(context, "round", defaults.round));
    invocation.deadlineAtMs = numberMember(context, "deadlineAtMs", defaults.deadlineAtMs);
    invocation.access = textMember(context, "access", defaults.access);
    readBudgets(context, invocation);
    invocation.workspace = workspaceHandle(context);
    return invocation;
}

}  // namespace qm
