#include "runtime/in_memory_agent_event_store.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "runtime/event_numbering.h"

namespace qm::runtime {

std::vector<AgentEvent> InMemoryAgentEventStore::read(const std::string& sessionId, std::uint64_t afterSequence) {
    const std::lock_guard lock(mutex_);
    const auto session = sessions_.find(sessionId);
    if (session == sessions_.end()) return {};
    const auto& events = session->second;
    // The event with sequence n stands at index n - 1.
    const auto first = std::min<std::uint64_t>(afterSequence, events.size());
    return {events.begin() + static_cast<std::ptrdiff_t>(first), events.end()};
}

std::vector<AgentEvent> InMemoryAgentEventStore::append(const std::string& sessionId,
                                                        std::uint64_t expectedLastSequence,
                                                        std::vector<AgentEvent> events) {
    if (sessionId.empty()) throw std::invalid_argument("sessionId must not be blank");
    if (events.empty()) return events;
    const std::lock_guard lock(mutex_);
    const auto session = sessions_.find(sessionId);
    const std::uint64_t actual = session == sessions_.end() ? 0 : session->second.size();
    if (actual != expectedLastSequence) {
        throw std::runtime_error("agent event append conflict: expected " + std::to_string(expectedLastSequence) +
                                 ", actual " + std::to_string(actual));
    }
    numberEvents(events, sessionId, actual, "store");
    auto& log = sessions_[sessionId];
    log.insert(log.end(), events.begin(), events.end());
    return events;
}

}  // namespace qm::runtime
