#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/agent_records.h"

namespace qm::runtime {

/// The longest line that a journal may hold, without its line feed.
inline constexpr std::size_t kMaxJournalBatchBytes = 16'777'216;

/// The line, without its line feed, that holds `events` as one checksummed batch; they must be numbered and not empty.
/// Throws std::length_error "agent journal append batch exceeds 16 MiB" or "agent journal append batch is nested too
/// deeply", and a JSON exception if a text isn't UTF-8.
std::string encodeJournalBatch(const std::string& sessionId, const std::vector<AgentEvent>& events);

/// Validates one non-empty line of the journal of `sessionId` and returns its events, the first of which must have the
/// sequence `expectedFirst`. Throws std::runtime_error, in this order of checks: "agent journal batch exceeds 16 MiB",
/// "agent journal contains an invalid batch envelope", "agent journal checksum mismatch", "agent journal batch sequence
/// diverged", "agent journal event sequence diverged"; an event that is no event throws what agentEventFromJson throws.
std::vector<AgentEvent> decodeJournalBatch(std::string_view line, const std::string& sessionId,
                                           std::uint64_t expectedFirst);

}  // namespace qm::runtime
