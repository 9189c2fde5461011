#include "runtime/session_fixture.h"

#include <gtest/gtest.h>

#include <ostream>
#include <utility>

namespace qm::runtime::test {

void PrintTo(const Fact& fact, std::ostream* stream) {
    *stream << fact.type << ' ' << fact.payload;
}

std::vector<Fact> factsOf(const std::vector<AgentEvent>& events) {
    std::vector<Fact> facts;
    facts.reserve(events.size());
    for (const AgentEvent& event : events)
        facts.push_back({std::string(toString(event.type)), event.payload});
    return facts;
}

Fact stateChange(std::string_view from, std::string_view to, std::string_view reason) {
    return {"run_state_changed", {{"from", from}, {"to", to}, {"reason", reason}}};
}

Fact rejection(std::string_view words) {
    return {"command_rejected", {{"error", words}}};
}

Session::Session() {
    restart();
}

void Session::restart() {
    actor_ = std::make_unique<SessionActor>(
        "s1", store_, [this] { return nowMs; }, [ids = ids_](const std::string& prefix) { return (*ids)(prefix); });
}

AgentCommand Session::makeCommand(AgentCommandType type, json payload) {
    return {.v = 1,
            .commandId = "c" + std::to_string(++operations_),
            .sessionId = "s1",
            .runId = snapshot().runId,
            .type = type,
            .timestampMs = nowMs,
            .payload = std::move(payload)};
}

RuntimeUpdate Session::makeUpdate(AgentEventType type, json payload) {
    const SessionSnapshot now = snapshot();
    return {.updateId = "u" + std::to_string(++operations_),
            .runId = now.runId,
            .turnId = now.turnId,
            .type = type,
            .payload = std::move(payload)};
}

CommandResult Session::command(AgentCommandType type, json payload) {
    return actor_->handleCommand(makeCommand(type, std::move(payload)));
}

CommandResult Session::start(std::string_view objective) {
    return command(AgentCommandType::StartRun, {{"objective", objective}});
}

CommandResult Session::append(std::string_view content, std::string_view mode) {
    return command(AgentCommandType::AppendUserInput, {{"content", content}, {"mode", mode}});
}

CommandResult Session::cancel(json payload) {
    return command(AgentCommandType::CancelRun, std::move(payload));
}

CommandResult Session::resolve(json payload) {
    return command(AgentCommandType::ResolveApproval, std::move(payload));
}

CommandResult Session::update(AgentEventType type, json payload) {
    return actor_->applyRuntimeUpdate(makeUpdate(type, std::move(payload)));
}

TurnCompletion Session::complete(json payload) {
    return actor_->completeTurn(makeUpdate(AgentEventType::RunCompleted, std::move(payload)));
}

std::optional<ConsumedInput> Session::consume() {
    const SessionSnapshot now = snapshot();
    return actor_->consumeInterjection("u" + std::to_string(++operations_), now.runId, now.turnId);
}

void Session::queueTask(const std::string& taskId) {
    const auto result = update(AgentEventType::TaskQueued,
                               {{"taskId", taskId}, {"parentTaskId", "root"}, {"task", "Count"}, {"depth", 2}});
    ASSERT_TRUE(result.accepted) << result.error;
}

void Session::startTask(const std::string& taskId) {
    queueTask(taskId);
    const auto result = update(AgentEventType::TaskStarted, {{"taskId", taskId}});
    ASSERT_TRUE(result.accepted) << result.error;
}

void Session::enter(RunState state) {
    if (state == RunState::Idle) return;
    start();
    switch (state) {
        case RunState::WaitingUser:
            update(AgentEventType::UserInputRequested, {{"requestId", "q1"}});
            break;
        case RunState::WaitingApproval:
            update(AgentEventType::ApprovalRequested, {{"approvalId", "a1"}});
            break;
        case RunState::WaitingTasks:
            startTask("t1");
            update(AgentEventType::TaskWaiting, {{"joinId", "j1"}, {"callId", "call1"}, {"taskIds", {"t1"}}});
            break;
        case RunState::Cancelling:
            cancel();
            break;
        case RunState::Completed:
            update(AgentEventType::RunCompleted);
            break;
        case RunState::Failed:
            update(AgentEventType::RunFailed);
            break;
        case RunState::Cancelled:
            update(AgentEventType::RunCancelled);
            break;
        default:
            break;
    }
    ASSERT_EQ(snapshot().state, state);
}

}  // namespace qm::runtime::test
