#include "runtime/update_admission.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "runtime/payload_integer.h"
#include "util/json.h"
#include "util/text.h"

namespace qm::runtime {
namespace {

/// What a rule sees: the report and the session as it is before it.
struct Case {
    const RuntimeUpdate& update;
    const SessionSnapshot& snapshot;
    const InputBuffers& buffers;

    std::string text(std::string_view key, std::string_view fallback = {}) const {
        return stringMember(update.payload, key, fallback);
    }

    /// The child task that the report is about, or null if the run doesn't know it.
    const ChildTaskRecord* task() const {
        const auto found = snapshot.childTasks.find(text("taskId"));
        return found == snapshot.childTasks.end() ? nullptr : &found->second;
    }
};

constexpr std::string_view kAccepted;

std::string_view single(const Case& report, EventDrafts& drafts) {
    drafts.add(report.update.type, report.update.payload);
    return kAccepted;
}

/// The report itself, followed by the change of state that it causes.
std::string_view withState(const Case& report, EventDrafts& drafts, RunState to, std::string_view reason) {
    single(report, drafts);
    drafts.changeState(to, reason);
    return kAccepted;
}

/// A request that waits for the user; it gets an identifier if the runtime gave none.
std::string_view request(const Case& report, EventDrafts& drafts, const char* idKey, const char* idPrefix,
                         RunState wait, std::string_view reason) {
    json payload = report.update.payload;
    if (isBlank(report.text(idKey))) payload[idKey] = drafts.newId(idPrefix);
    drafts.add(report.update.type, std::move(payload));
    drafts.changeState(wait, reason);
    return kAccepted;
}

std::string_view consumedInput(const Case&, EventDrafts&) {
    return "buffered input must be selected by SessionActor at a safe point";
}

std::string_view userInputRequested(const Case& report, EventDrafts& drafts) {
    if (report.snapshot.state != RunState::Running) return "user input can only be requested while running";
    return request(report, drafts, "requestId", "question", RunState::WaitingUser, "user_input_required");
}

std::string_view approvalRequested(const Case& report, EventDrafts& drafts) {
    if (report.snapshot.state != RunState::Running) return "approval can only be requested while running";
    return request(report, drafts, "approvalId", "approval", RunState::WaitingApproval, "approval_required");
}

std::string_view wakeFired(const Case& report, EventDrafts& drafts) {
    if (report.snapshot.state != RunState::WaitingTasks) return "task wake requires WAITING_TASKS";
    if (report.text("joinId") != report.snapshot.pendingTaskJoin.joinId) return "task wake targets a stale join";
    return withState(report, drafts, RunState::Running, "task_wake");
}

bool admitsChildTasks(RunState state) {
    return state == RunState::Running || state == RunState::WaitingUser || state == RunState::WaitingApproval ||
           state == RunState::WaitingTasks;
}

std::string_view taskQueued(const Case& report, EventDrafts& drafts) {
    const json& payload = report.update.payload;
    const std::string taskId = report.text("taskId");
    if (!admitsChildTasks(report.snapshot.state) || taskId.empty() || report.snapshot.childTasks.contains(taskId) ||
        isBlank(report.text("task")) || report.text("parentTaskId").empty() ||
        nearestInteger<std::int64_t>(payload, "depth") < 2) {
        return "invalid child task admission fact";
    }
    const json* member = findMember(payload, "access");
    const std::string access = report.text("access", member == nullptr ? "none" : "");
    if (access != "none" && access != "read" && access != "write") return "unknown child task workspace access";
    return single(report, drafts);
}

std::string_view taskStarted(const Case& report, EventDrafts& drafts) {
    const ChildTaskRecord* task = report.task();
    if (task == nullptr || task->state != ChildTaskState::Queued) return "child task is not queued";
    return single(report, drafts);
}

std::string_view taskCancellationRequested(const Case& report, EventDrafts& drafts) {
    const ChildTaskRecord* task = report.task();
    if (task == nullptr || isTerminal(task->state) || task->cancellationRequested) {
        return "child task cannot be cancelled";
    }
    return single(report, drafts);
}

std::string_view whyJoinIsInvalid(const Case& report) {
    const json& payload = report.update.payload;
    if (report.text("joinId").empty() || report.text("callId").empty()) {
        return "task wait requires joinId and callId";
    }
    const json* member = findMember(payload, "policy");
    const std::string policy = report.text("policy", member == nullptr ? "all" : "");
    if (policy != "all" && policy != "any" && policy != "idle" && policy != "condition") {
        return "unknown task join policy";
    }
    const json& taskIds = arrayMember(payload, "taskIds");
    if (taskIds.empty()) return "task wait requires at least one task";
    const auto isKnown = [&report](const json& taskId) {
        return taskId.is_string() && report.snapshot.childTasks.contains(taskId.get_ref<const std::string&>());
    };
    if (!std::all_of(taskIds.begin(), taskIds.end(), isKnown)) return "task wait references an unknown child task";
    if (policy == "condition" && nearestInteger<std::int64_t>(payload, "minSucceeded") < 1) {
        return "condition join requires minSucceeded greater than zero";
    }
    return kAccepted;
}

std::string_view taskWaiting(const Case& report, EventDrafts& drafts) {
    if (report.snapshot.state != RunState::Running) return "task wait can only begin while running";
    if (!report.snapshot.pendingTaskJoin.joinId.empty()) return "a task join is already pending";
    if (const auto words = whyJoinIsInvalid(report); !words.empty()) return words;
    single(report, drafts);
    drafts.add(AgentEventType::WakeScheduled, report.update.payload);
    drafts.changeState(RunState::WaitingTasks, "waiting_for_tasks");
    return kAccepted;
}

bool isTerminalSpelling(std::string_view state) {
    try {
        return isTerminal(parseChildTaskState(state));
    } catch (const std::invalid_argument&) {
        return false;
    }
}

std::string_view taskCompleted(const Case& report, EventDrafts& drafts) {
    const ChildTaskRecord* task = report.task();
    if (task == nullptr || isTerminal(task->state) || !isTerminalSpelling(report.text("state"))) {
        return "invalid child task completion fact";
    }
    return single(report, drafts);
}

std::string_view runCompleted(const Case& report, EventDrafts& drafts) {
    if (const auto words = whyRunCannotComplete(report.snapshot); !words.empty()) return words;
    if (!report.buffers.empty()) return "pending input requires atomic completeTurn promotion";
    if (hasActiveChildTask(report.snapshot)) return kActiveChildTasks;
    return withState(report, drafts, RunState::Completed, "runtime_completed");
}

/// Nobody will settle the child tasks of a run that failed, so their end is written with it.
std::string_view runFailed(const Case& report, EventDrafts& drafts) {
    for (const auto& [taskId, task] : report.snapshot.childTasks) {
        if (isTerminal(task.state)) continue;
        drafts.add(AgentEventType::TaskCompleted, {{"taskId", taskId},
                                                   {"state", toString(ChildTaskState::Lost)},
                                                   {"error", "parent run failed before the child task settled"},
                                                   {"finishedAtMs", drafts.nowMs()}});
    }
    return withState(report, drafts, RunState::Failed, "runtime_failed");
}

std::string_view runCancelled(const Case& report, EventDrafts& drafts) {
    return withState(report, drafts, RunState::Cancelled, "cancellation_confirmed");
}

using Rule = std::string_view (*)(const Case&, EventDrafts&);

/// The rule of each event type; null for those that only the actor itself may write.
constexpr std::array<Rule, kAgentEventTypes> kRules = [] {
    std::array<Rule, kAgentEventTypes> rules{};
    const auto on = [&rules](AgentEventType type, Rule rule) { rules[static_cast<std::size_t>(type)] = rule; };
    on(AgentEventType::UserInputAccepted, consumedInput);
    on(AgentEventType::UserInputRequested, userInputRequested);
    on(AgentEventType::ApprovalRequested, approvalRequested);
    on(AgentEventType::WakeScheduled, single);
    on(AgentEventType::AssistantMessage, single);
    on(AgentEventType::WakeFired, wakeFired);
    on(AgentEventType::ModelStarted, single);
    on(AgentEventType::ModelDelta, single);
    on(AgentEventType::ModelCompleted, single);
    on(AgentEventType::ModelFailed, single);
    on(AgentEventType::ToolProposed, single);
    on(AgentEventType::ToolStarted, single);
    on(AgentEventType::ToolProgress, single);
    on(AgentEventType::ToolCompleted, single);
    on(AgentEventType::ToolFailed, single);
    on(AgentEventType::TaskQueued, taskQueued);
    on(AgentEventType::TaskStarted, taskStarted);
    on(AgentEventType::TaskCancellationRequested, taskCancellationRequested);
    on(AgentEventType::TaskWaiting, taskWaiting);
    on(AgentEventType::TaskCompleted, taskCompleted);
    on(AgentEventType::RunCompleted, runCompleted);
    on(AgentEventType::RunFailed, runFailed);
    on(AgentEventType::RunCancelled, runCancelled);
    return rules;
}();

}  // namespace

std::string_view whyRunCannotComplete(const SessionSnapshot& snapshot) {
    return snapshot.state == RunState::Running && !snapshot.cancellationRequested
               ? kAccepted
               : "run cannot complete from the current control state";
}

std::string_view admitUpdate(const RuntimeUpdate& update, const SessionSnapshot& snapshot, const InputBuffers& buffers,
                             EventDrafts& drafts) {
    const auto type = static_cast<std::size_t>(update.type);
    if (type >= kRules.size() || kRules[type] == nullptr) {
        return "runtime cannot directly emit this control event type";
    }
    return kRules[type]({update, snapshot, buffers}, drafts);
}

}  // namespace qm::runtime
