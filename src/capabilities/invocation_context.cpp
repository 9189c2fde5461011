#include "capabilities/invocation_context.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

#include "capabilities/capability_arguments.h"
#include "util/json.h"

namespace qm {
namespace {

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

const std::string& workspaceHandle(const json& context) {
    const json* workspace = findMember(context, "workspace");
    if (workspace != nullptr && workspace->is_object()) return textArgument(*workspace, "id");
    return textArgument(context, "workspace");
}

}  // namespace

runtime::ToolInvocation invocationFromContext(std::string_view name, json arguments, const json& context) {
    runtime::ToolInvocation invocation;
    invocation.name = name;
    invocation.arguments = arguments.is_object() ? std::move(arguments) : json::object();
    invocation.idempotencyKey = textArgument(context, "idempotencyKey");
    invocation.sessionId = textArgument(context, "sessionId");
    invocation.runId = textArgument(context, "runId");
    invocation.taskId = textArgument(context, "taskId");
    invocation.round = clampedTo32Bits(integerArgument(context, "round", invocation.round));
    invocation.deadlineAtMs = integerArgument(context, "deadlineAtMs", invocation.deadlineAtMs);
    if (context.contains("access")) invocation.access = textArgument(context, "access");
    readBudgets(context, invocation);
    invocation.workspace = workspaceHandle(context);
    return invocation;
}

}  // namespace qm
