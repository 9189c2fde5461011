#pragma once

#include "runtime/agent_records.h"
#include "runtime/session_results.h"
#include "util/json_fwd.h"

namespace qm::runtime {

/// Reads a command. Throws std::invalid_argument "agent command must be an object", "unknown agent command type: ..."
/// (also for an absent type), "agent command payload must be an object" or, for another field of the wrong JSON type or
/// an integer out of its range, "agent command <key> must be a string" or "... must be an integer". A `v` that is an
/// integer but doesn't fit 32 bits reads as the largest one, which no version has.
AgentCommand agentCommandFromJson(const json& value);
json agentCommandToJson(const AgentCommand& command);

/// Reads an event; its payload is moved out of `value`. Throws std::invalid_argument "agent event must be an object",
/// "unknown agent event type: ...", "agent event payload must be an object" or, as above, "agent event <key> must be
/// a string" or "... must be an integer".
AgentEvent agentEventFromJson(json value);
json agentEventToJson(const AgentEvent& event);

json childTaskToJson(const ChildTaskRecord& task);
/// All six keys, or an empty object if there is no join.
json taskJoinToJson(const PendingTaskJoin& join);
json snapshotToJson(const SessionSnapshot& snapshot);
/// Without the events.
json commandResultToJson(const CommandResult& result);

}  // namespace qm::runtime
