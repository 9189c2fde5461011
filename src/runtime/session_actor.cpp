#include "runtime/session_actor.h"

#include <stdexcept>
#include <utility>

#include "runtime/command_admission.h"
#include "runtime/payload_text.h"
#include "runtime/session_reducer.h"
#include "util/json.h"
#include "util/random_id.h"
#include "util/text.h"

namespace qm::runtime {

std::string randomAgentId(const std::string& prefix) {
    return randomId(prefix + "_", 20);
}

SessionActor::SessionActor(std::string sessionId, std::shared_ptr<AgentEventStore> store, ClockMs clock,
                           IdGenerator idGenerator)
    : sessionId_(std::move(sessionId)),
      store_(std::move(store)),
      clock_(std::move(clock)),
      idGenerator_(std::move(idGenerator)) {
    if (isBlank(sessionId_)) throw std::invalid_argument("sessionId must not be blank");
    snapshot_.sessionId = sessionId_;
    replay();
}

void SessionActor::replay() {
    for (const AgentEvent& event : store_->read(sessionId_, 0)) {
        fold(event);
        if (event.operationId.empty()) continue;
        ProcessedOperation& operation = processed_[event.operationId];
        if (operation.firstSequence == 0) operation.firstSequence = event.sequence;
        operation.lastSequence = event.sequence;
        operation.accepted = event.type != AgentEventType::CommandRejected;
        if (!operation.accepted) operation.error = stringMember(event.payload, "error", "operation rejected");
    }
}

void SessionActor::fold(const AgentEvent& event) {
    applyEvent(snapshot_, event);
    buffers_.apply(event);
}

CommandResult SessionActor::handleCommand(AgentCommand command) {
    command.payload = withValidUtf8(std::move(command.payload));
    const std::lock_guard lock(mutex_);
    if (isBlank(command.commandId)) return refuseWithoutTrace("commandId must not be blank");
    if (command.sessionId != sessionId_) return refuseWithoutTrace("command belongs to another session");
    if (auto duplicate = duplicateOf(command.commandId)) return *std::move(duplicate);
    if (command.v != kAgentProtocolVersion) {
        return reject(command.commandId, "unsupported agent command protocol version");
    }
    if (!command.payload.is_object()) return reject(command.commandId, "command payload must be an object");
    EventDrafts drafts = draftsFor(command.commandId);
    try {
        admitCommand(command, snapshot_, drafts);
    } catch (const std::exception& refusal) {
        const char* words = refusal.what();
        return reject(command.commandId, words != nullptr ? words : "invalid command");
    }
    return accept(command.commandId, drafts);
}

SessionSnapshot SessionActor::snapshot() const {
    const std::lock_guard lock(mutex_);
    return snapshot_;
}

EventPage SessionActor::readEvents(std::uint64_t afterSequence, std::size_t limit) const {
    const std::lock_guard lock(mutex_);
    EventPage page{.snapshot = snapshot_, .events = store_->read(sessionId_, afterSequence)};
    if (limit != 0 && page.events.size() > limit) page.events.resize(limit);
    return page;
}

EventDrafts SessionActor::draftsFor(const std::string& operationId) const {
    return {snapshot_, operationId, clock_, idGenerator_};
}

CommandResult SessionActor::commit(const std::string& operationId, EventDrafts& drafts, ProcessedOperation outcome) {
    CommandResult result;
    result.events = store_->append(sessionId_, snapshot_.lastSequence, drafts.take());
    for (const AgentEvent& event : result.events)
        fold(event);
    outcome.firstSequence = result.events.front().sequence;
    outcome.lastSequence = result.events.back().sequence;
    result.accepted = outcome.accepted;
    result.error = outcome.error;
    result.firstSequence = outcome.firstSequence;
    result.lastSequence = outcome.lastSequence;
    result.snapshot = snapshot_;
    processed_[operationId] = std::move(outcome);
    return result;
}

CommandResult SessionActor::accept(const std::string& operationId, EventDrafts& drafts) {
    return commit(operationId, drafts, {.accepted = true, .error = {}});
}

CommandResult SessionActor::reject(const std::string& operationId, std::string_view words) {
    EventDrafts drafts = draftsFor(operationId);
    drafts.add(AgentEventType::CommandRejected, {{"error", words}});
    return commit(operationId, drafts, {.accepted = false, .error = std::string(words)});
}

CommandResult SessionActor::refuseWithoutTrace(std::string_view words) const {
    CommandResult result;
    result.error = words;
    result.snapshot = snapshot_;
    return result;
}

std::optional<CommandResult> SessionActor::duplicateOf(const std::string& operationId) const {
    const auto found = processed_.find(operationId);
    if (found == processed_.end()) return std::nullopt;
    const ProcessedOperation& operation = found->second;
    CommandResult result;
    result.accepted = operation.accepted;
    result.duplicate = true;
    result.error = operation.error;
    result.firstSequence = operation.firstSequence;
    result.lastSequence = operation.lastSequence;
    result.snapshot = snapshot_;
    result.events = store_->read(sessionId_, operation.firstSequence - 1);
    std::erase_if(result.events, [&](const AgentEvent& event) { return event.sequence > operation.lastSequence; });
    return result;
}

}  // namespace qm::runtime
