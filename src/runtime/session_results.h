#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "runtime/agent_records.h"
#include "runtime/session_snapshot.h"

namespace qm::runtime {

/// The answer of every operation on a session.
struct CommandResult {
    bool accepted = false;
    bool duplicate = false;  ///< The operation was carried out before; nothing was written now.
    std::string error;
    std::uint64_t firstSequence = 0;  ///< Of the events that the operation wrote; 0 if it wrote none.
    std::uint64_t lastSequence = 0;
    SessionSnapshot snapshot;        ///< As it was after the operation.
    std::vector<AgentEvent> events;  ///< Those the operation wrote.
};

/// A user's input that left its buffer for the model.
struct ConsumedInput {
    std::string content;
    std::string mode;
    std::string sourceEventId;  ///< The event with which the input was buffered.
    std::uint64_t sourceSequence = 0;
    bool startsNewTurn = false;
    CommandResult result;
};

/// How the end of a turn came out.
struct TurnCompletion {
    CommandResult result;
    std::optional<ConsumedInput> input;  ///< Present if the run goes on with a new turn instead of ending.
};

/// A session and the events after some point, read at one moment.
struct EventPage {
    SessionSnapshot snapshot;
    std::vector<AgentEvent> events;
};

}  // namespace qm::runtime
