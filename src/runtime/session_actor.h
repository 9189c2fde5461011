#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/agent_event_store.h"
#include "runtime/event_drafts.h"
#include "runtime/input_buffers.h"
#include "runtime/session_results.h"
#include "util/clock.h"

namespace qm::runtime {

/// The prefix, "_" and 20 random characters of "0123456789abcdefghijklmnopqrstuvwxyz".
std::string randomAgentId(const std::string& prefix);

/// The single writer of one agent session: decides on every command and every report of the runtime by the state of
/// the session, appends the facts to the store, and only then folds them into its memory. It holds nothing that a
/// replay of the store doesn't give back.
///
/// Any thread may call; calls are serialised whole, the store's work included. What the store throws passes to the
/// caller, and then nothing has changed: the same operation is fresh when it comes again.
class SessionActor {
public:
    /// Replays the session's log. Throws std::invalid_argument "sessionId must not be blank", or a std::exception if
    /// the log can't be read or folded. `clock` gives wall-clock milliseconds.
    SessionActor(std::string sessionId, std::shared_ptr<AgentEventStore> store, ClockMs clock = wallClockMs,
                 IdGenerator idGenerator = randomAgentId);

    /// Carries out a client's command. A refusal is a fact too: it is written to the log, and the same command gets it
    /// again. Only a blank command id and a foreign session are refused without a trace. Bytes of payload texts that
    /// aren't UTF-8 are replaced by U+FFFD, here and in the reports of the runtime.
    CommandResult handleCommand(AgentCommand command);

    /// Takes a report of the runtime; refusals as above, traceless for a blank update id and an empty run id.
    CommandResult applyRuntimeUpdate(RuntimeUpdate update);

    /// Hands the oldest interjection to the running turn, or nothing if none is waiting. To be repeated with new update
    /// ids until nothing comes. The same id again hands out the same input. Throws std::invalid_argument "safe-point
    /// updateId must not be blank", std::runtime_error "safe point targets a stale run or turn" or "interjections can
    /// only be consumed by a running turn".
    std::optional<ConsumedInput> consumeInterjection(const std::string& updateId, const std::string& runId,
                                                     const std::string& turnId);

    /// Ends a turn with an update of type "run_completed": if input is waiting, its head (an interjection before a
    /// queued one) opens a new turn of the run, otherwise the run is complete. Decided and written as one, so that no
    /// input that arrives meanwhile is lost.
    TurnCompletion completeTurn(RuntimeUpdate update);

    SessionSnapshot snapshot() const;

    /// The snapshot and the events above `afterSequence`, the first `limit` of them, all if `limit` is 0.
    EventPage readEvents(std::uint64_t afterSequence, std::size_t limit) const;

private:
    /// The memory of an operation that was carried out.
    struct ProcessedOperation {
        std::uint64_t firstSequence = 0;
        std::uint64_t lastSequence = 0;
        bool accepted = false;
        std::string error;
    };

    void replay();
    void fold(const AgentEvent& event);
    EventDrafts draftsFor(const std::string& operationId) const;
    CommandResult commit(const std::string& operationId, EventDrafts& drafts, ProcessedOperation outcome);
    CommandResult accept(const std::string& operationId, EventDrafts& drafts);
    CommandResult reject(const std::string& operationId, std::string_view words);
    CommandResult refuseWithoutTrace(std::string_view words) const;
    std::optional<CommandResult> duplicateOf(const std::string& operationId) const;
    bool isStale(const RuntimeUpdate& update) const;
    CommandResult completeOrPromote(const RuntimeUpdate& update, const std::string& operationId);
    void promote(const RuntimeUpdate& update, EventDrafts& drafts) const;

    const std::string sessionId_;
    const std::shared_ptr<AgentEventStore> store_;
    const ClockMs clock_;
    const IdGenerator idGenerator_;

    mutable std::mutex mutex_;
    SessionSnapshot snapshot_;
    std::map<std::string, ProcessedOperation> processed_;
    InputBuffers buffers_;
};

}  // namespace qm::runtime
