#include "runtime/agent_types.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

namespace qm::runtime {
namespace {

constexpr std::array<std::string_view, 9> kRunStates{
    "IDLE",       "RUNNING",   "WAITING_USER", "WAITING_APPROVAL", "WAITING_TASKS",
    "CANCELLING", "COMPLETED", "FAILED",       "CANCELLED",
};

constexpr std::array<std::string_view, 6> kChildTaskStates{"QUEUED", "RUNNING",   "SUCCEEDED",
                                                           "FAILED", "CANCELLED", "LOST"};

constexpr std::array<std::string_view, 4> kCommandTypes{"start_run", "append_user_input", "cancel_run",
                                                        "resolve_approval"};

constexpr std::array<std::string_view, kAgentEventTypes> kEventTypes{
    "run_started",
    "turn_started",
    "user_input_accepted",
    "user_input_queued",
    "user_interjection_buffered",
    "cancellation_requested",
    "user_input_requested",
    "approval_requested",
    "approval_resolved",
    "wake_scheduled",
    "wake_fired",
    "model_started",
    "model_delta",
    "model_completed",
    "model_failed",
    "tool_proposed",
    "tool_started",
    "tool_progress",
    "tool_completed",
    "tool_failed",
    "task_queued",
    "task_started",
    "task_cancellation_requested",
    "task_waiting",
    "task_completed",
    "assistant_message",
    "run_state_changed",
    "run_completed",
    "run_failed",
    "run_cancelled",
    "command_rejected",
};

/// An enumerator's value is the place of its spelling in the table.
template <typename Enum, std::size_t Count>
std::string_view spelling(const std::array<std::string_view, Count>& table, Enum value, std::string_view fallback) {
    const auto index = static_cast<std::size_t>(value);
    return index < Count ? table[index] : fallback;
}

template <typename Enum, std::size_t Count>
Enum valueOf(const std::array<std::string_view, Count>& table, std::string_view text, std::string_view what) {
    const auto found = std::find(table.begin(), table.end(), text);
    if (found == table.end()) {
        throw std::invalid_argument("unknown " + std::string(what) + ": " + std::string(text));
    }
    return static_cast<Enum>(found - table.begin());
}

}  // namespace

std::string_view toString(RunState state) {
    return spelling(kRunStates, state, "IDLE");
}

std::string_view toString(ChildTaskState state) {
    return spelling(kChildTaskStates, state, "FAILED");
}

std::string_view toString(AgentCommandType type) {
    return spelling(kCommandTypes, type, "unknown");
}

std::string_view toString(AgentEventType type) {
    return spelling(kEventTypes, type, "unknown");
}

RunState parseRunState(std::string_view text) {
    return valueOf<RunState>(kRunStates, text, "run state");
}

ChildTaskState parseChildTaskState(std::string_view text) {
    return valueOf<ChildTaskState>(kChildTaskStates, text, "child task state");
}

AgentCommandType parseAgentCommandType(std::string_view text) {
    return valueOf<AgentCommandType>(kCommandTypes, text, "agent command type");
}

AgentEventType parseAgentEventType(std::string_view text) {
    return valueOf<AgentEventType>(kEventTypes, text, "agent event type");
}

bool isTerminal(RunState state) {
    return state == RunState::Completed || state == RunState::Failed || state == RunState::Cancelled;
}

bool isTerminal(ChildTaskState state) {
    return state == ChildTaskState::Succeeded || state == ChildTaskState::Failed ||
           state == ChildTaskState::Cancelled || state == ChildTaskState::Lost;
}

}  // namespace qm::runtime
