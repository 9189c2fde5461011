#include "runtime/journal_fixture.h"

#include "runtime/agent_json.h"
#include "util/sha256.h"

namespace qm::runtime::test {

AgentEvent makeEvent(const std::string& sessionId) {
    return {.v = 1,
            .eventId = "evt_1",
            .sessionId = sessionId,
            .runId = "run_1",
            .turnId = "turn_1",
            .operationId = "c1",
            .sequence = 0,
            .timestampMs = 1700000000123,
            .type = AgentEventType::AssistantMessage,
            .payload = {{"content", "Line\n\"整理\" \x01 \xF0\x9F\x98\x80"}, {"rounds", -2}, {"share", 0.25}}};
}

std::vector<AgentEvent> makeEvents(const std::string& sessionId, int count) {
    return {static_cast<std::size_t>(count), makeEvent(sessionId)};
}

std::vector<std::uint64_t> sequencesOf(const std::vector<AgentEvent>& events) {
    std::vector<std::uint64_t> sequences;
    sequences.reserve(events.size());
    for (const AgentEvent& event : events)
        sequences.push_back(event.sequence);
    return sequences;
}

json jsonOf(const std::vector<AgentEvent>& events) {
    json values = json::array();
    for (const AgentEvent& event : events)
        values.push_back(agentEventToJson(event));
    return values;
}

json makeEnvelope(const std::string& sessionId, std::uint64_t firstSequence, int count) {
    json events = json::array();
    for (int index = 0; index < count; ++index) {
        AgentEvent event = makeEvent(sessionId);
        event.sequence = firstSequence + static_cast<std::uint64_t>(index);
        events.push_back(agentEventToJson(event));
    }
    return {{"v", 1},
            {"sessionId", sessionId},
            {"firstSequence", firstSequence},
            {"lastSequence", firstSequence + static_cast<std::uint64_t>(count) - 1},
            {"events", std::move(events)}};
}

std::string sealed(json envelope) {
    envelope["sha256"] = sha256Hex(envelope.dump());
    return envelope.dump();
}

std::vector<int> openDescriptors(const std::filesystem::path& file) {
    std::vector<int> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code vanished;
        const auto target = std::filesystem::read_symlink(entry.path(), vanished);
        if (!vanished && target == file) descriptors.push_back(std::stoi(entry.path().filename()));
    }
    return descriptors;
}

}  // namespace qm::runtime::test
