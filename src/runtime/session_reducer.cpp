#include "runtime/session_reducer.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include "runtime/payload_integer.h"
#include "util/json.h"

namespace qm::runtime {
namespace {

void clearPendingIds(SessionSnapshot& snapshot) {
    snapshot.pendingUserRequestId.clear();
    snapshot.pendingApprovalId.clear();
}

void clearPendingJoin(SessionSnapshot& snapshot) {
    snapshot.pendingTaskJoin = {};
}

void runStarted(SessionSnapshot& snapshot, const AgentEvent& event) {
    snapshot.runId = event.runId;
    snapshot.turnId = event.turnId;
    snapshot.objective = stringMember(event.payload, "objective");
    snapshot.queuedInputs = 0;
    snapshot.bufferedInterjections = 0;
    snapshot.cancellationRequested = false;
    clearPendingIds(snapshot);
    snapshot.childTasks.clear();
    clearPendingJoin(snapshot);
}

void turnStarted(SessionSnapshot& snapshot, const AgentEvent& event) {
    snapshot.turnId = event.turnId;
    clearPendingIds(snapshot);
}

void userInputAccepted(SessionSnapshot& snapshot, const AgentEvent& event) {
    if (boolMember(event.payload, "fromQueue", false) && snapshot.queuedInputs > 0) --snapshot.queuedInputs;
    if (boolMember(event.payload, "fromInterjection", false) && snapshot.bufferedInterjections > 0) {
        --snapshot.bufferedInterjections;
    }
    snapshot.pendingUserRequestId.clear();
    if (boolMember(event.payload, "fromWaitingTasks", false)) clearPendingJoin(snapshot);
}

void userInputQueued(SessionSnapshot& snapshot, const AgentEvent&) {
    ++snapshot.queuedInputs;
}

void userInterjectionBuffered(SessionSnapshot& snapshot, const AgentEvent&) {
    ++snapshot.bufferedInterjections;
}

void cancellationRequested(SessionSnapshot& snapshot, const AgentEvent& event) {
    if (!boolMember(event.payload, "alreadyTerminal", false)) snapshot.cancellationRequested = true;
}

void userInputRequested(SessionSnapshot& snapshot, const AgentEvent& event) {
    snapshot.pendingUserRequestId = stringMember(event.payload, "requestId");
}

void approvalRequested(SessionSnapshot& snapshot, const AgentEvent& event) {
    snapshot.pendingApprovalId = stringMember(event.payload, "approvalId");
}

void approvalResolved(SessionSnapshot& snapshot, const AgentEvent&) {
    snapshot.pendingApprovalId.clear();
}

void wakeFired(SessionSnapshot& snapshot, const AgentEvent&) {
    clearPendingJoin(snapshot);
}

void taskQueued(SessionSnapshot& snapshot, const AgentEvent& event) {
    ChildTaskRecord task;
    task.taskId = stringMember(event.payload, "taskId");
    if (task.taskId.empty() || snapshot.childTasks.contains(task.taskId)) {
        throw std::runtime_error("queued child task identity is invalid or duplicated");
    }
    task.parentTaskId = stringMember(event.payload, "parentTaskId");
    task.objective = stringMember(event.payload, "task");
    task.origin = stringMember(event.payload, "origin");
    task.workspace = stringMember(event.payload, "workspace");
    task.access = stringMember(event.payload, "access", "none");
    task.depth = nearestInteger<std::int32_t>(event.payload, "depth");
    task.maxRounds = nearestInteger<std::int32_t>(event.payload, "maxRounds");
    task.timeoutMs = nearestInteger<std::int64_t>(event.payload, "timeoutMs");
    task.createdAtMs = nearestInteger<std::int64_t>(event.payload, "createdAtMs", event.timestampMs);
    std::string taskId = task.taskId;
    snapshot.childTasks.emplace(std::move(taskId), std::move(task));
}

/// The task that the event is about, or null if the run doesn't know it.
ChildTaskRecord* findTask(SessionSnapshot& snapshot, const AgentEvent& event) {
    const auto found = snapshot.childTasks.find(stringMember(event.payload, "taskId"));
    return found == snapshot.childTasks.end() ? nullptr : &found->second;
}

void taskStarted(SessionSnapshot& snapshot, const AgentEvent& event) {
    ChildTaskRecord* task = findTask(snapshot, event);
    if (task == nullptr || task->state != ChildTaskState::Queued) {
        throw std::runtime_error("child task start replay diverged");
    }
    task->state = ChildTaskState::Running;
    task->startedAtMs = nearestInteger<std::int64_t>(event.payload, "startedAtMs", event.timestampMs);
}

void taskCancellationRequested(SessionSnapshot& snapshot, const AgentEvent& event) {
    ChildTaskRecord* task = findTask(snapshot, event);
    if (task == nullptr || isTerminal(task->state)) {
        throw std::runtime_error("child task cancellation replay diverged");
    }
    task->cancellationRequested = true;
}

void taskWaiting(SessionSnapshot& snapshot, const AgentEvent& event) {
    if (!event.payload.is_object()) throw std::runtime_error("agent event payload must be an object");
    PendingTaskJoin join;
    join.joinId = stringMember(event.payload, "joinId");
    join.callId = stringMember(event.payload, "callId");
    join.policy = stringMember(event.payload, "policy", "all");
    for (const json& taskId : arrayMember(event.payload, "taskIds")) {
        if (taskId.is_string()) join.taskIds.push_back(taskId.get<std::string>());
    }
    join.minSucceeded = nearestInteger<std::int32_t>(event.payload, "minSucceeded");
    join.timeoutMs = nearestInteger<std::int64_t>(event.payload, "timeoutMs");
    snapshot.pendingTaskJoin = std::move(join);
}

void taskCompleted(SessionSnapshot& snapshot, const AgentEvent& event) {
    ChildTaskRecord* task = findTask(snapshot, event);
    if (task == nullptr || isTerminal(task->state)) {
        throw std::runtime_error("child task completion replay diverged");
    }
    const ChildTaskState state = parseChildTaskState(stringMember(event.payload, "state"));
    if (!isTerminal(state)) throw std::runtime_error("child task completed with a non-terminal state");
    task->state = state;
    task->rounds = nearestInteger<std::int32_t>(event.payload, "rounds");
    task->finishedAtMs = nearestInteger<std::int64_t>(event.payload, "finishedAtMs", event.timestampMs);
    task->completionSequence = event.sequence;
    task->result = stringMember(event.payload, "result");
    task->error = stringMember(event.payload, "error");
}

void runStateChanged(SessionSnapshot& snapshot, const AgentEvent& event) {
    if (stringMember(event.payload, "from") != toString(snapshot.state)) {
        throw std::runtime_error("run state replay diverged");
    }
    snapshot.state = parseRunState(stringMember(event.payload, "to"));
    if (!isTerminal(snapshot.state)) return;
    clearPendingIds(snapshot);
    clearPendingJoin(snapshot);
}

using Effect = void (*)(SessionSnapshot&, const AgentEvent&);

/// The effect of each event type; null for the types that only advance the sequence.
constexpr std::array<Effect, kAgentEventTypes> kEffects = [] {
    std::array<Effect, kAgentEventTypes> effects{};
    const auto on = [&effects](AgentEventType type, Effect effect) {
        effects[static_cast<std::size_t>(type)] = effect;
    };
    on(AgentEventType::RunStarted, runStarted);
    on(AgentEventType::TurnStarted, turnStarted);
    on(AgentEventType::UserInputAccepted, userInputAccepted);
    on(AgentEventType::UserInputQueued, userInputQueued);
    on(AgentEventType::UserInterjectionBuffered, userInterjectionBuffered);
    on(AgentEventType::CancellationRequested, cancellationRequested);
    on(AgentEventType::UserInputRequested, userInputRequested);
    on(AgentEventType::ApprovalRequested, approvalRequested);
    on(AgentEventType::ApprovalResolved, approvalResolved);
    on(AgentEventType::WakeFired, wakeFired);
    on(AgentEventType::TaskQueued, taskQueued);
    on(AgentEventType::TaskStarted, taskStarted);
    on(AgentEventType::TaskCancellationRequested, taskCancellationRequested);
    on(AgentEventType::TaskWaiting, taskWaiting);
    on(AgentEventType::TaskCompleted, taskCompleted);
    on(AgentEventType::RunStateChanged, runStateChanged);
    return effects;
}();

}  // namespace

void applyEvent(SessionSnapshot& snapshot, const AgentEvent& event) {
    if (event.v != kAgentProtocolVersion) throw std::runtime_error("unsupported agent event protocol version");
    if (!snapshot.sessionId.empty() && snapshot.sessionId != event.sessionId) {
        throw std::runtime_error("event belongs to another session");
    }
    if (event.sequence != snapshot.lastSequence + 1) {
        throw std::runtime_error("agent event sequence is not contiguous");
    }
    const auto type = static_cast<std::size_t>(event.type);
    if (type < kEffects.size() && kEffects[type] != nullptr) kEffects[type](snapshot, event);
    if (snapshot.sessionId.empty()) snapshot.sessionId = event.sessionId;
    snapshot.lastSequence = event.sequence;
}

}  // namespace qm::runtime
