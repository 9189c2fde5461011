#pragma once

#include <map>
#include <mutex>

#include "runtime/agent_event_store.h"

namespace qm::runtime {

/// A log that ends with the process, for tests and tools.
class InMemoryAgentEventStore : public AgentEventStore {
public:
    std::vector<AgentEvent> read(const std::string& sessionId, std::uint64_t afterSequence) override;

    /// Failures: "sessionId must not be blank", "agent event append conflict: expected N, actual M", "cannot append an
    /// event for another session", "event sequence must be assigned by the store".
    std::vector<AgentEvent> append(const std::string& sessionId, std::uint64_t expectedLastSequence,
                                   std::vector<AgentEvent> events) override;

private:
    std::mutex mutex_;
    std::map<std::string, std::vector<AgentEvent>> sessions_;
};

}  // namespace qm::runtime
