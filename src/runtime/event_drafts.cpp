#include "runtime/event_drafts.h"

#include <utility>

#include "util/json.h"

namespace qm::runtime {

EventDrafts::EventDrafts(const SessionSnapshot& snapshot, std::string operationId, const ClockMs& clock,
                         const IdGenerator& idGenerator)
    : snapshot_(snapshot),
      operationId_(std::move(operationId)),
      runId_(snapshot.runId),
      turnId_(snapshot.turnId),
      clock_(clock),
      idGenerator_(idGenerator) {}

void EventDrafts::add(AgentEventType type, json payload) {
    events_.push_back({.v = kAgentProtocolVersion,
                       .eventId = idGenerator_("evt"),
                       .sessionId = snapshot_.sessionId,
                       .runId = runId_,
                       .turnId = turnId_,
                       .operationId = operationId_,
                       .sequence = 0,
                       .timestampMs = clock_(),
                       .type = type,
                       .payload = std::move(payload)});
}

void EventDrafts::changeState(RunState to, std::string_view reason) {
    changeState(snapshot_.state, to, reason);
}

void EventDrafts::changeState(RunState from, RunState to, std::string_view reason) {
    add(AgentEventType::RunStateChanged, {{"from", toString(from)}, {"to", toString(to)}, {"reason", reason}});
}

void EventDrafts::enterRun(std::string runId, std::string turnId) {
    runId_ = std::move(runId);
    turnId_ = std::move(turnId);
}

void EventDrafts::enterTurn(std::string turnId) {
    turnId_ = std::move(turnId);
}

std::vector<AgentEvent> EventDrafts::take() {
    return std::exchange(events_, {});
}

}  // namespace qm::runtime
