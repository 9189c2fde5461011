#include "runtime/input_buffers.h"

#include <stdexcept>

#include "util/json.h"

namespace qm::runtime {
namespace {

void push(std::deque<BufferedInput>& buffer, const AgentEvent& event) {
    buffer.push_back({.sourceEventId = event.eventId,
                      .sourceSequence = event.sequence,
                      .content = stringMember(event.payload, "content"),
                      .mode = stringMember(event.payload, "mode")});
}

void pop(std::deque<BufferedInput>& buffer, const AgentEvent& event, const char* name) {
    if (buffer.empty()) throw std::runtime_error(std::string("agent input replay underflow: ") + name);
    const std::string source = stringMember(event.payload, "sourceEventId");
    if (!source.empty() && source != buffer.front().sourceEventId) {
        throw std::runtime_error(std::string("agent input replay diverged: ") + name);
    }
    buffer.pop_front();
}

}  // namespace

void InputBuffers::apply(const AgentEvent& event) {
    switch (event.type) {
        case AgentEventType::RunStarted:
            queued_.clear();
            interjections_.clear();
            break;
        case AgentEventType::UserInputQueued:
            push(queued_, event);
            break;
        case AgentEventType::UserInterjectionBuffered:
            push(interjections_, event);
            break;
        case AgentEventType::UserInputAccepted:
            if (boolMember(event.payload, "fromQueue", false)) pop(queued_, event, "queue");
            if (boolMember(event.payload, "fromInterjection", false)) pop(interjections_, event, "interjection");
            break;
        default:
            break;
    }
}

}  // namespace qm::runtime
