#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/agent_records.h"

namespace qm::runtime {

/// Gives the events the sequences after `lastSequence`. Throws std::invalid_argument "cannot append an event for
/// another session" or "event sequence must be assigned by the " and `assigner` for the first event that is of another
/// session or has a sequence.
void numberEvents(std::vector<AgentEvent>& events, const std::string& sessionId, std::uint64_t lastSequence,
                  const char* assigner);

}  // namespace qm::runtime
