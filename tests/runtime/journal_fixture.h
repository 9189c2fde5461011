#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "runtime/agent_event_store.h"
#include "util/json.h"

namespace qm::runtime::test {

/// An event without a sequence, with a payload that holds escapes, other scripts and numbers.
AgentEvent makeEvent(const std::string& sessionId);
std::vector<AgentEvent> makeEvents(const std::string& sessionId, int count);

std::vector<std::uint64_t> sequencesOf(const std::vector<AgentEvent>& events);

/// What the events are as JSON, for comparisons.
json jsonOf(const std::vector<AgentEvent>& events);

/// The envelope, without its digest, that holds the next `count` events.
json makeEnvelope(const std::string& sessionId, std::uint64_t firstSequence, int count);

/// The line of an envelope: what the library dumps, with the digest of the dump without digest.
std::string sealed(json envelope);

/// The descriptors of this process that are open for the file.
std::vector<int> openDescriptors(const std::filesystem::path& file);

/// The words with which `action` fails; an exception of another type than `Exception` passes.
template <typename Exception, typename Action>
std::string failureOf(Action action) {
    try {
        action();
        return "no failure";
    } catch (const Exception& error) {
        return error.what();
    }
}

template <typename Exception>
std::string appendFailure(AgentEventStore& store, const std::string& sessionId, std::uint64_t expected,
                          std::vector<AgentEvent> events) {
    return failureOf<Exception>([&] { store.append(sessionId, expected, std::move(events)); });
}

}  // namespace qm::runtime::test
