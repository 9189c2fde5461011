#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "runtime/agent_records.h"

namespace qm::runtime {

/// A user's input that waits for the model.
struct BufferedInput {
    std::string sourceEventId;  ///< The event with which it was buffered.
    std::uint64_t sourceSequence = 0;
    std::string content;
    std::string mode;
};

/// The inputs of a session that the model hasn't seen yet, in the order of their arrival: a mirror of the journal.
class InputBuffers {
public:
    /// Follows one event of the journal. Throws std::runtime_error "agent input replay underflow: " or "agent input
    /// replay diverged: " and "queue" or "interjection" if the event consumes an input that isn't at the head.
    void apply(const AgentEvent& event);

    bool empty() const { return queued_.empty() && interjections_.empty(); }

    /// The inputs for later turns.
    const std::deque<BufferedInput>& queued() const { return queued_; }
    /// The inputs for the current turn.
    const std::deque<BufferedInput>& interjections() const { return interjections_; }

private:
    std::deque<BufferedInput> queued_;
    std::deque<BufferedInput> interjections_;
};

}  // namespace qm::runtime
