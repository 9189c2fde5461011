#pragma once

#include <cstdint>
#include <string_view>

namespace qm::runtime {

/// Where a run stands. Only the spelling leaves the process.
enum class RunState : std::int32_t {
    Idle,
    Running,
    WaitingUser,
    WaitingApproval,
    WaitingTasks,
    Cancelling,
    Completed,
    Failed,
    Cancelled,
};

/// Where one child task of a run stands.
enum class ChildTaskState : std::int32_t { Queued, Running, Succeeded, Failed, Cancelled, Lost };

/// What a client may ask of a session.
enum class AgentCommandType : std::int32_t { StartRun, AppendUserInput, CancelRun, ResolveApproval };

/// What can be a fact of a session.
enum class AgentEventType : std::int32_t {
    RunStarted,
    TurnStarted,
    UserInputAccepted,
    UserInputQueued,
    UserInterjectionBuffered,
    CancellationRequested,
    UserInputRequested,
    ApprovalRequested,
    ApprovalResolved,
    WakeScheduled,
    WakeFired,
    ModelStarted,
    ModelDelta,
    ModelCompleted,
    ModelFailed,
    ToolProposed,
    ToolStarted,
    ToolProgress,
    ToolCompleted,
    ToolFailed,
    TaskQueued,
    TaskStarted,
    TaskCancellationRequested,
    TaskWaiting,
    TaskCompleted,
    AssistantMessage,
    RunStateChanged,
    RunCompleted,
    RunFailed,
    RunCancelled,
    CommandRejected,
};

/// Number of event types; their values run from 0 without gaps.
inline constexpr int kAgentEventTypes = static_cast<int>(AgentEventType::CommandRejected) + 1;

/// The spelling on the wire and in the journal. A value outside the enumeration prints as "IDLE", "FAILED", "unknown"
/// and "unknown", in this order of functions.
std::string_view toString(RunState state);
std::string_view toString(ChildTaskState state);
std::string_view toString(AgentCommandType type);
std::string_view toString(AgentEventType type);

/// The value of a spelling. Throws std::invalid_argument "unknown run state: " (or "unknown child task state: ",
/// "unknown agent command type: ", "unknown agent event type: ") and the text, if there is none.
RunState parseRunState(std::string_view text);
ChildTaskState parseChildTaskState(std::string_view text);
AgentCommandType parseAgentCommandType(std::string_view text);
AgentEventType parseAgentEventType(std::string_view text);

/// True for COMPLETED, FAILED and CANCELLED: only a new run leads out of them.
bool isTerminal(RunState state);

/// True for SUCCEEDED, FAILED, CANCELLED and LOST: nothing leads out of them.
bool isTerminal(ChildTaskState state);

}  // namespace qm::runtime
