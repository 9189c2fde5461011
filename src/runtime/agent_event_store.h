#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/agent_records.h"

namespace qm::runtime {

/// The append-only log of the events of many sessions. Any thread; a caller may hold a lock of its own, a store calls
/// nobody.
class AgentEventStore {
public:
    virtual ~AgentEventStore() = default;

    /// The events of `sessionId` with a sequence above `afterSequence`, in order; none for an unknown session. Throws
    /// a std::exception if the log can't be read or is damaged.
    virtual std::vector<AgentEvent> read(const std::string& sessionId, std::uint64_t afterSequence) = 0;

    /// Appends `events` as one group, all or nothing, and returns them with their sequences. Throws a std::exception,
    /// and nothing has been appended, if the last sequence isn't `expectedLastSequence`, if an event belongs to another
    /// session or has a sequence already, or if the log can't be written. No events: nothing happens.
    virtual std::vector<AgentEvent> append(const std::string& sessionId, std::uint64_t expectedLastSequence,
                                           std::vector<AgentEvent> events) = 0;

protected:
    AgentEventStore() = default;
    AgentEventStore(const AgentEventStore&) = default;
    AgentEventStore& operator=(const AgentEventStore&) = default;
};

}  // namespace qm::runtime
