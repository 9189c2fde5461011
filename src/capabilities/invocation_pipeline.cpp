#include "capabilities/invocation_pipeline.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "capabilities/admission.h"
#include "capabilities/invocation_context.h"
#include "util/json.h"
#include "util/utf8.h"

namespace qm {
namespace {

/// Releases a claimed idempotency key unless the invocation got as far as its handler.
class KeyScope {
public:
    /// Both must outlive the scope.
    KeyScope(InvocationLedger& ledger, const std::string& key) : ledger_(ledger), key_(key) {}
    ~KeyScope() {
        if (!kept_) ledger_.releaseKey(key_);
    }
    KeyScope(const KeyScope&) = delete;
    KeyScope& operator=(const KeyScope&) = delete;

    void keep() { kept_ = true; }

private:
    InvocationLedger& ledger_;
    const std::string& key_;
    bool kept_ = false;
};

/// Withdraws a granted turn claim unless its checkpoint was made.
class TurnScope {
public:
    TurnScope(InvocationLedger& ledger, InvocationLedger::Checkpoint& checkpoint)
        : ledger_(ledger), checkpoint_(checkpoint) {}
    ~TurnScope() {
        if (!confirmed_) ledger_.withdrawTurn(checkpoint_);
    }
    TurnScope(const TurnScope&) = delete;
    TurnScope& operator=(const TurnScope&) = delete;

    void confirm() {
        ledger_.confirmTurn(checkpoint_);
        confirmed_ = true;
    }

private:
    InvocationLedger& ledger_;
    InvocationLedger::Checkpoint& checkpoint_;
    bool confirmed_ = false;
};

json cancelled() {
    return refusal("TASK_CANCELLED", "task was cancelled before capability execution");
}

json duplicate(const std::string& key) {
    return {{"error", "This invocation is already executing on this device (duplicate idempotency key " + key + ")."}};
}

json deduplicated(const json& stored) {
    json result = stored;
    if (result.is_object()) result["deduplicated"] = true;
    return result;
}

json withoutWayBack(const json& cause) {
    const std::string text = cause.is_string() ? cause.get<std::string>() : dumpJson(cause);
    return {{"error", "无法建立 turn checkpoint，为保证可恢复性拒绝执行该写操作：" + text}};
}

/// What `call` returns, or its exception as a result.
template <typename Call>
json resultOf(const Call& call) {
    try {
        return call();
    } catch (const std::exception& exception) {
        const char* text = exception.what();
        return {{"error", text != nullptr ? text : "execution failed"}};
    }
}

}  // namespace

InvocationPipeline::InvocationPipeline(const CapabilityRegistry& registry, const WorkspaceRegistry& workspaces,
                                       const DisabledCapabilities& disabled, TurnCheckpointer checkpointer,
                                       InvocationLimits limits, ClockMs clock)
    : registry_(registry),
      workspaces_(workspaces),
      disabled_(disabled),
      checkpointer_(std::move(checkpointer)),
      clock_(std::move(clock)),
      ledger_(limits) {}

json InvocationPipeline::invoke(std::string_view name, json arguments, const json& context, std::stop_token stop) {
    runtime::ToolInvocation invocation = invocationFromContext(name, std::move(arguments), context);
    invocation.stopToken = std::move(stop);
    return invoke(std::move(invocation));
}

json InvocationPipeline::invoke(runtime::ToolInvocation invocation) {
    if (invocation.stopToken.stop_requested()) return cancelled();
    if (invocation.deadlineAtMs > 0 && invocation.deadlineAtMs <= clock_()) {
        return refusal("DEADLINE_EXCEEDED", "capability deadline expired before execution");
    }
    if (disabled_.contains(invocation.name)) {
        return refusal("CAPABILITY_DISABLED", "Capability is disabled by the control plane");
    }
    const auto definition = findDefinition(invocation.name);
    if (!definition) return refusal("UNKNOWN_CAPABILITY", "Unknown capability: " + invocation.name);
    if (auto refused = admissionRefusal(*definition, workspaces_, invocation)) return *std::move(refused);
    return runOnce(*definition, invocation);
}

std::optional<CapabilityDef> InvocationPipeline::findDefinition(const std::string& name) const {
    const auto table = registry_.snapshot();
    const auto match = std::find_if(table->begin(), table->end(),
                                    [&](const CapabilityDef& definition) { return definition.name == name; });
    if (match == table->end()) return {};
    return *match;
}

json InvocationPipeline::runOnce(const CapabilityDef& definition, const runtime::ToolInvocation& invocation) {
    const std::string& key = invocation.idempotencyKey;
    if (key.empty()) {
        if (auto refused = checkpointRefusal(definition, invocation)) return *std::move(refused);
        return execute(definition, invocation);
    }
    const auto claim = ledger_.claimKey(key, clock_());
    if (claim.state == InvocationLedger::KeyState::InFlight) return duplicate(key);
    if (claim.state == InvocationLedger::KeyState::Done) return deduplicated(*claim.result);
    KeyScope scope(ledger_, key);
    if (auto refused = checkpointRefusal(definition, invocation)) return *std::move(refused);
    // Once the handler may have acted, the key must not become free: a retry would act twice.
    scope.keep();
    json result = execute(definition, invocation);
    ledger_.storeResult(key, result, clock_());
    return result;
}

std::optional<json> InvocationPipeline::checkpointRefusal(const CapabilityDef& definition,
                                                          const runtime::ToolInvocation& invocation) {
    if (!checkpointer_ || invocation.runId.empty() || invocation.round < 0 || invocation.workspace.empty()) return {};
    if (definition.effect == "READ_ONLY" || definition.name == "create_checkpoint") return {};
    const auto workspace = workspaces_.find(invocation.workspace);
    if (!workspace) return {};

    const auto claim =
        ledger_.claimTurn({invocation.runId, invocation.round, invocation.workspace}, invocation.stopToken);
    if (claim.answer == InvocationLedger::TurnAnswer::AlreadyMade) return {};
    if (claim.answer == InvocationLedger::TurnAnswer::Cancelled) return cancelled();
    TurnScope scope(ledger_, *claim.checkpoint);
    const std::string label =
        "turn " + std::to_string(invocation.round) + " · run " + std::string(firstCodePoints(invocation.runId, 8));
    const json made = resultOf([&] { return checkpointer_(*workspace, label); });
    if (const json* error = findMember(made, "error")) return withoutWayBack(*error);
    scope.confirm();
    return {};
}

json InvocationPipeline::execute(const CapabilityDef& definition, const runtime::ToolInvocation& invocation) {
    return resultOf([&] {
        if (definition.invocationHandler) return definition.invocationHandler(invocation);
        return definition.handler(invocation.arguments);
    });
}

}  // namespace qm
