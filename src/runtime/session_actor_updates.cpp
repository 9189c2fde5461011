#include <stdexcept>
#include <utility>

#include "runtime/payload_integer.h"
#include "runtime/payload_text.h"
#include "runtime/session_actor.h"
#include "runtime/update_admission.h"
#include "util/json.h"
#include "util/text.h"

namespace qm::runtime {
namespace {

/// The idempotency key of a report; commands use their own id.
std::string operationKey(const std::string& runId, const std::string& updateId) {
    return "runtime/" + runId + "/" + updateId;
}

json consumptionPayload(const BufferedInput& input, bool fromInterjection, bool startsNewTurn) {
    return {{"content", input.content},
            {"mode", input.mode},
            {"sourceEventId", input.sourceEventId},
            {"sourceSequence", input.sourceSequence},
            {"fromQueue", !fromInterjection},
            {"fromInterjection", fromInterjection},
            {"startsNewTurn", startsNewTurn}};
}

bool isConsumption(const AgentEvent& event) {
    return event.type == AgentEventType::UserInputAccepted &&
           (boolMember(event.payload, "fromQueue", false) || boolMember(event.payload, "fromInterjection", false));
}

/// Reads back what an operation consumed, fresh or repeated alike.
std::optional<ConsumedInput> consumedInput(const CommandResult& result) {
    for (const AgentEvent& event : result.events) {
        if (!isConsumption(event)) continue;
        return ConsumedInput{.content = stringMember(event.payload, "content"),
                             .mode = stringMember(event.payload, "mode", "queue"),
                             .sourceEventId = stringMember(event.payload, "sourceEventId"),
                             .sourceSequence = nearestInteger<std::uint64_t>(event.payload, "sourceSequence"),
                             .startsNewTurn = boolMember(event.payload, "startsNewTurn", false),
                             .result = result};
    }
    return std::nullopt;
}

}  // namespace

bool SessionActor::isStale(const RuntimeUpdate& update) const {
    return update.runId != snapshot_.runId || (!update.turnId.empty() && update.turnId != snapshot_.turnId);
}

CommandResult SessionActor::applyRuntimeUpdate(RuntimeUpdate update) {
    update.payload = withValidUtf8(std::move(update.payload));
    const std::lock_guard lock(mutex_);
    if (isBlank(update.updateId)) return refuseWithoutTrace("runtime updateId must not be blank");
    if (update.runId.empty()) return refuseWithoutTrace("runtime update runId must not be blank");
    const std::string key = operationKey(update.runId, update.updateId);
    if (auto duplicate = duplicateOf(key)) return *std::move(duplicate);
    if (!update.payload.is_object()) return reject(key, "runtime update payload must be an object");
    if (isStale(update)) return reject(key, "runtime update targets a stale run or turn");
    // A child task may outlive its run; nothing else may report after the end.
    if (isTerminal(snapshot_.state) && update.type != AgentEventType::TaskCompleted) {
        return reject(key, "session has no active run");
    }
    EventDrafts drafts = draftsFor(key);
    const std::string_view words = admitUpdate(update, snapshot_, buffers_, drafts);
    return words.empty() ? accept(key, drafts) : reject(key, words);
}

std::optional<ConsumedInput> SessionActor::consumeInterjection(const std::string& updateId, const std::string& runId,
                                                               const std::string& turnId) {
    const std::lock_guard lock(mutex_);
    const std::string key = operationKey(runId, updateId);
    if (key.ends_with('/')) throw std::invalid_argument("safe-point updateId must not be blank");
    if (const auto duplicate = duplicateOf(key)) return consumedInput(*duplicate);
    if (runId != snapshot_.runId || turnId != snapshot_.turnId) {
        throw std::runtime_error("safe point targets a stale run or turn");
    }
    if (snapshot_.state != RunState::Running || snapshot_.cancellationRequested) {
        throw std::runtime_error("interjections can only be consumed by a running turn");
    }
    if (buffers_.interjections().empty()) return std::nullopt;
    EventDrafts drafts = draftsFor(key);
    drafts.add(AgentEventType::UserInputAccepted, consumptionPayload(buffers_.interjections().front(), true, false));
    return consumedInput(accept(key, drafts));
}

TurnCompletion SessionActor::completeTurn(RuntimeUpdate update) {
    update.payload = withValidUtf8(std::move(update.payload));
    const std::lock_guard lock(mutex_);
    if (isBlank(update.updateId)) return {refuseWithoutTrace("runtime updateId must not be blank"), std::nullopt};
    if (update.runId.empty()) return {refuseWithoutTrace("runtime update runId must not be blank"), std::nullopt};
    const std::string key = operationKey(update.runId, update.updateId);
    auto result = duplicateOf(key);
    if (!result) result = completeOrPromote(update, key);
    auto input = consumedInput(*result);
    return {*std::move(result), std::move(input)};
}

CommandResult SessionActor::completeOrPromote(const RuntimeUpdate& update, const std::string& operationId) {
    if (update.type != AgentEventType::RunCompleted) {
        return reject(operationId, "completeTurn requires a run_completed update");
    }
    if (!update.payload.is_object()) return reject(operationId, "runtime update payload must be an object");
    if (isStale(update)) return reject(operationId, "runtime update targets a stale run or turn");
    if (const auto words = whyRunCannotComplete(snapshot_); !words.empty()) return reject(operationId, words);
    if (hasActiveChildTask(snapshot_)) return reject(operationId, kActiveChildTasks);
    EventDrafts drafts = draftsFor(operationId);
    if (buffers_.empty()) {
        drafts.add(AgentEventType::RunCompleted, update.payload);
        drafts.changeState(RunState::Completed, "runtime_completed");
    } else {
        promote(update, drafts);
    }
    return accept(operationId, drafts);
}

/// The final answer becomes an intermediate one, and the head of the waiting input opens the next turn.
void SessionActor::promote(const RuntimeUpdate& update, EventDrafts& drafts) const {
    const bool fromInterjection = !buffers_.interjections().empty();
    const BufferedInput& input = fromInterjection ? buffers_.interjections().front() : buffers_.queued().front();
    json answer = update.payload;
    answer["intermediate"] = true;
    drafts.add(AgentEventType::AssistantMessage, std::move(answer));
    drafts.enterTurn(drafts.newId("turn"));
    drafts.add(AgentEventType::TurnStarted,
               {{"previousTurnId", snapshot_.turnId},
                {"reason", fromInterjection ? "pending_interjection" : "queued_user_input"}});
    drafts.add(AgentEventType::UserInputAccepted, consumptionPayload(input, fromInterjection, true));
}

}  // namespace qm::runtime
