#include "runtime/command_admission.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "util/json.h"
#include "util/text.h"

namespace qm::runtime {
namespace {

[[noreturn]] void refuse(const char* words) {
    throw std::runtime_error(words);
}

std::string requiredString(const json& payload, const char* key) {
    std::string value = stringMember(payload, key);
    if (isBlank(value)) throw std::invalid_argument(std::string(key) + " must not be blank");
    return value;
}

/// The member, or the fallback if it is absent. Any other JSON type is refused in the JSON library's words.
std::string optionalString(const json& payload, const char* key, const char* fallback = "") {
    return payload.value(key, std::string(fallback));
}

void requireCurrentRun(const AgentCommand& command, const SessionSnapshot& snapshot) {
    if (isBlank(command.runId)) refuse("runId is required for an active-run command");
    if (command.runId != snapshot.runId) refuse("command targets a stale or unknown run");
}

void startRun(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts) {
    if (!command.runId.empty() && command.runId != snapshot.runId) refuse("command targets a stale or unknown run");
    if (snapshot.state != RunState::Idle && !isTerminal(snapshot.state)) {
        refuse("session already has an active run");
    }
    std::string objective = requiredString(command.payload, "objective");
    std::string runId = drafts.newId("run");
    drafts.enterRun(std::move(runId), drafts.newId("turn"));
    drafts.add(AgentEventType::RunStarted, command.payload);
    drafts.add(AgentEventType::UserInputAccepted, {{"content", std::move(objective)}, {"initial", true}});
    drafts.changeState(RunState::Running, "user_start");
}

/// An input that ends a wait: the answer to a question, or an interruption of the wait for child tasks.
void resumeWithInput(json input, std::string requestId, RunState wait, EventDrafts& drafts) {
    input["requestId"] = std::move(requestId);
    input["answersRequest"] = wait == RunState::WaitingUser;
    input["fromWaitingTasks"] = wait == RunState::WaitingTasks;
    drafts.add(AgentEventType::UserInputAccepted, std::move(input));
    drafts.changeState(RunState::Running, wait == RunState::WaitingUser ? "user_answered" : "user_interrupted_wait");
}

void appendUserInput(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts) {
    requireCurrentRun(command, snapshot);
    if (isTerminal(snapshot.state)) refuse("active run is already terminal");
    std::string content = requiredString(command.payload, "content");
    const std::string mode = optionalString(command.payload, "mode", "queue");
    if (mode != "queue" && mode != "interject") refuse("input mode must be queue or interject in protocol v1");
    json input{{"content", std::move(content)}, {"mode", mode}};
    switch (snapshot.state) {
        case RunState::WaitingApproval:
            refuse("approval must be answered with resolve_approval");
        case RunState::WaitingUser: {
            std::string requestId = optionalString(command.payload, "requestId");
            if (requestId.empty() || requestId != snapshot.pendingUserRequestId) {
                refuse("requestId is required and must match the pending question");
            }
            return resumeWithInput(std::move(input), std::move(requestId), RunState::WaitingUser, drafts);
        }
        case RunState::WaitingTasks:
            return resumeWithInput(std::move(input), optionalString(command.payload, "requestId"),
                                   RunState::WaitingTasks, drafts);
        default:
            break;
    }
    const bool forThisTurn = snapshot.state == RunState::Running && mode == "interject";
    drafts.add(forThisTurn ? AgentEventType::UserInterjectionBuffered : AgentEventType::UserInputQueued,
               std::move(input));
}

bool isWait(RunState state) {
    return state == RunState::WaitingUser || state == RunState::WaitingApproval || state == RunState::WaitingTasks;
}

void addTaskCancellations(const SessionSnapshot& snapshot, EventDrafts& drafts) {
    for (const auto& [taskId, task] : snapshot.childTasks) {
        if (isTerminal(task.state) || task.cancellationRequested) continue;
        drafts.add(AgentEventType::TaskCancellationRequested, {{"taskId", taskId}, {"reason", "run_cancelled"}});
    }
}

void cancelRun(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts) {
    requireCurrentRun(command, snapshot);
    const std::string scope = optionalString(command.payload, "scope", "turn");
    if (scope != "turn" && scope != "foreground_tools" && scope != "child_tasks" && scope != "all") {
        refuse("unknown cancellation scope");
    }
    drafts.add(AgentEventType::CancellationRequested, {{"scope", scope},
                                                       {"alreadyRequested", snapshot.cancellationRequested},
                                                       {"alreadyTerminal", isTerminal(snapshot.state)}});
    if (scope == "child_tasks" || scope == "all") addTaskCancellations(snapshot, drafts);
    if (isTerminal(snapshot.state) || snapshot.state == RunState::Cancelling) return;
    if (!isWait(snapshot.state)) return drafts.changeState(RunState::Cancelling, "user_cancelled");
    // In a wait no turn is running that could confirm the cancellation, so it is complete at once.
    drafts.changeState(RunState::Cancelling, "checkpoint_cancelled");
    drafts.add(AgentEventType::RunCancelled, {{"reason", "checkpoint_cancelled"}});
    drafts.changeState(RunState::Cancelling, RunState::Cancelled, "checkpoint_cancelled");
}

void resolveApproval(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts) {
    requireCurrentRun(command, snapshot);
    if (snapshot.state != RunState::WaitingApproval) refuse("run is not waiting for approval");
    const std::string decision = requiredString(command.payload, "decision");
    const std::string approvalId = optionalString(command.payload, "approvalId");
    if (!approvalId.empty() && approvalId != snapshot.pendingApprovalId) refuse("approvalId is stale");
    if (decision != "approve" && decision != "revise" && decision != "cancel") {
        refuse("approval decision must be approve, revise, or cancel");
    }
    json resolution{{"approvalId", snapshot.pendingApprovalId}, {"decision", decision}};
    const json* comment = findMember(command.payload, "comment");
    const bool hasComment = comment != nullptr && comment->is_string();
    if (hasComment) resolution["comment"] = *comment;
    drafts.add(AgentEventType::ApprovalResolved, std::move(resolution));
    if (decision == "approve") return drafts.changeState(RunState::Running, "approval_granted");
    if (decision == "revise") return drafts.changeState(RunState::Running, "plan_revision_requested");
    const json content = hasComment ? *comment : json("Execution was cancelled at the plan checkpoint.");
    drafts.add(AgentEventType::RunCancelled, {{"reason", "approval_cancelled"}, {"content", content}});
    drafts.changeState(RunState::Cancelled, "approval_cancelled");
}

using Handler = void (*)(const AgentCommand&, const SessionSnapshot&, EventDrafts&);

/// By the value of AgentCommandType.
constexpr std::array<Handler, 4> kHandlers{startRun, appendUserInput, cancelRun, resolveApproval};

}  // namespace

void admitCommand(const AgentCommand& command, const SessionSnapshot& snapshot, EventDrafts& drafts) {
    const auto type = static_cast<std::size_t>(command.type);
    if (type >= kHandlers.size()) throw std::invalid_argument("unknown agent command type: ");
    kHandlers[type](command, snapshot, drafts);
}

}  // namespace qm::runtime
