#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "capabilities/capability_registry.h"
#include "capabilities/disabled_capabilities.h"
#include "capabilities/invocation_ledger.h"
#include "device/workspace_registry.h"
#include "runtime/tool_invocation.h"
#include "util/clock.h"
#include "util/json_fwd.h"

namespace qm {

/// Makes a checkpoint of `workspace` under `label`. A result with the key `error` means that there is none. Called with
/// no lock held, from any thread and at the same time from several; for one run, round and workspace once at a time, as
/// long as the ledger remembers the run in that round (see InvocationLedger::claimTurn()).
using TurnCheckpointer = std::function<json(const Workspace& workspace, const std::string& label)>;

/// The one way to run a capability. Every call, whoever makes it, passes the same admission steps in the same order:
/// cancellation, deadline, control-plane policy, look-up, workspace, access, required arguments, idempotency, turn
/// checkpoint; then the handler runs, with no lock held.
///
/// A refusal is a result like any other: an object with `error` and, with few exceptions, `errorCode`. What is given to
/// the constructor must outlive the pipeline and every call. Any thread may call anything; a call runs on its caller's.
class InvocationPipeline {
public:
    /// An empty `checkpointer` means that turns get no checkpoint.
    InvocationPipeline(const CapabilityRegistry& registry, const WorkspaceRegistry& workspaces,
                       const DisabledCapabilities& disabled, TurnCheckpointer checkpointer,
                       InvocationLimits limits = {}, ClockMs clock = wallClockMs);

    /// Throws json::type_error if the argument `workspace` is no string, and what a handler throws that is no
    /// std::exception; the idempotency key then stays in flight.
    json invoke(runtime::ToolInvocation invocation);

    /// The same for a context in JSON, see invocationFromContext(), whose exceptions come out as well. `stop` cancels
    /// the invocation.
    json invoke(std::string_view name, json arguments, const json& context, std::stop_token stop = {});

private:
    std::optional<CapabilityDef> findDefinition(const std::string& name) const;
    json runOnce(const CapabilityDef& definition, const runtime::ToolInvocation& invocation);
    std::optional<json> checkpointRefusal(const CapabilityDef& definition, const runtime::ToolInvocation& invocation);
    static json execute(const CapabilityDef& definition, const runtime::ToolInvocation& invocation);

    const CapabilityRegistry& registry_;
    const WorkspaceRegistry& workspaces_;
    const DisabledCapabilities& disabled_;
    const TurnCheckpointer checkpointer_;
    const ClockMs clock_;
    InvocationLedger ledger_;
};

}  // namespace qm
