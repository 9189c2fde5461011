#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/agent_records.h"
#include "runtime/journal_file.h"
#include "util/sha256.h"

namespace qm::runtime {

/// What is remembered of a journal's bytes that were validated: how many they are, their digest, and where some of
/// their lines begin. Bytes that have the same digest again need no second validation.
class ValidatedPrefix {
public:
    /// A place between two lines: every event before it has at most this sequence, every event behind it a higher one.
    struct Mark {
        std::uint64_t offset = 0;
        std::uint64_t sequence = 0;
    };

    std::uint64_t size() const { return end_.offset; }
    std::uint64_t lastSequence() const { return end_.sequence; }
    Sha256::Digest digest() const { return Sha256(hash_).finish(); }

    /// The last known place before the first event above `sequence`.
    Mark before(std::uint64_t sequence) const;

    /// The prefix grows by these bytes, which end with a line feed.
    void extend(std::string_view bytes, std::uint64_t lastSequence);

private:
    Sha256 hash_;
    Mark end_;
    std::vector<Mark> marks_{{}};
};

/// What a scan found behind the validated prefix.
struct JournalScan {
    std::vector<AgentEvent> events;
    bool hasTail = false;  ///< The file ends with a line that has no line feed.
};

/// Reads the whole of a journal and validates it. Bytes that `prefix` vouches for are compared by their digest, all
/// others are validated line by line, and `prefix` then covers them; if a line is damaged, those before it. Events
/// above `afterSequence` are returned. Throws what decodeJournalBatch and JournalFile::read throw.
JournalScan scanJournal(JournalFile& file, const std::string& sessionId, ValidatedPrefix& prefix,
                        std::uint64_t afterSequence);

}  // namespace qm::runtime
