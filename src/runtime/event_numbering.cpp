#include "runtime/event_numbering.h"

#include <stdexcept>

namespace qm::runtime {

void numberEvents(std::vector<AgentEvent>& events, const std::string& sessionId, std::uint64_t lastSequence,
                  const char* assigner) {
    for (AgentEvent& event : events) {
        if (event.sessionId != sessionId) throw std::invalid_argument("cannot append an event for another session");
        if (event.sequence != 0) {
            throw std::invalid_argument(std::string("event sequence must be assigned by the ") + assigner);
        }
        event.sequence = ++lastSequence;
    }
}

}  // namespace qm::runtime
