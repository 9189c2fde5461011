#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "runtime/agent_types.h"

namespace qm::runtime {

/// The only version of commands and events that exists.
inline constexpr std::uint32_t kAgentProtocolVersion = 1;

/// What a client asks of a session.
struct AgentCommand {
    std::uint32_t v = 0;    ///< Must be kAgentProtocolVersion to be carried out.
    std::string commandId;  ///< The client's key: the same one again gets the same answer and does nothing.
    std::string sessionId;
    std::string runId;  ///< Empty for a first start.
    AgentCommandType type = AgentCommandType::StartRun;
    std::int64_t timestampMs = 0;
    nlohmann::json payload = nlohmann::json::object();
};

/// One immutable fact of a session.
struct AgentEvent {
    std::uint32_t v = 0;
    std::string eventId;
    std::string sessionId;
    std::string runId;           ///< May be empty.
    std::string turnId;          ///< May be empty.
    std::string operationId;     ///< The idempotency key of the operation that caused it; may be empty.
    std::uint64_t sequence = 0;  ///< From 1 without gaps in each session; 0 until the store has set it.
    std::int64_t timestampMs = 0;
    AgentEventType type = AgentEventType::RunStarted;
    nlohmann::json payload = nlohmann::json::object();
};

/// What the running loop, the task scheduler or a turn reports to the session.
struct RuntimeUpdate {
    std::string updateId;  ///< Unique within the run: the same one again gets the same answer and does nothing.
    std::string runId;
    std::string turnId;  ///< Empty if the report isn't bound to a turn.
    AgentEventType type = AgentEventType::RunStarted;
    nlohmann::json payload = nlohmann::json::object();
};

}  // namespace qm::runtime
