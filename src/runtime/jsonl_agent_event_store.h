#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>

#include "runtime/agent_event_store.h"
#include "runtime/journal_file.h"
#include "runtime/journal_scan.h"

namespace qm {

/// The durable log: one file of checksummed JSON lines a session, one line a group of events.
///
/// Every call reads the whole file and validates it, so that damage is found whenever it happens; lines that this store
/// validated before are compared by their digest. A last line without a line feed is what a crash left of an append: it
/// is ignored, and cut off by the next append. No file stays open between calls. Stores on the same directory, also of
/// other processes, exclude each other by a lock on the file, where the file system has locks.
class JsonlAgentEventStore : public runtime::AgentEventStore {
public:
    /// The journals stand in "agent-events" below `dataDirectory`; it is created with the first of them. A call fails
    /// if another program keeps a journal locked for longer than `lockPatience`.
    explicit JsonlAgentEventStore(const std::filesystem::path& dataDirectory,
                                  std::chrono::milliseconds lockPatience = runtime::kJournalLockPatience);

    /// Throws "cannot inspect agent journal: ...", "cannot open agent journal for reading", or what
    /// runtime::decodeJournalBatch throws of a damaged line.
    std::vector<runtime::AgentEvent> read(const std::string& sessionId, std::uint64_t afterSequence) override;

    /// Throws, in this order of checks: "sessionId must not be blank"; what read() throws; "agent journal append
    /// conflict: expected N, actual M"; "cannot append an event for another session"; "event sequence must be assigned
    /// by the journal"; what runtime::encodeJournalBatch throws; "cannot create agent journal directory: ...", "cannot
    /// repair agent journal crash tail: ...", "cannot open agent journal for append", "cannot flush agent journal
    /// append". The batch is handed to the system before the call returns, but not forced to the disk.
    std::vector<runtime::AgentEvent> append(const std::string& sessionId, std::uint64_t expectedLastSequence,
                                            std::vector<runtime::AgentEvent> events) override;

    /// Deletes the session's journal, if there is one. Throws std::runtime_error "cannot remove agent journal: ...".
    void remove(const std::string& sessionId);

    /// Where the session's journal stands: the lower-case hexadecimal SHA-256 of the id and ".jsonl", so that any id
    /// makes a safe name.
    std::filesystem::path fileOf(const std::string& sessionId) const;

private:
    void createDirectory() const;

    const std::filesystem::path directory_;
    const std::chrono::milliseconds lockPatience_;
    std::mutex mutex_;
    std::map<std::string, runtime::ValidatedPrefix> prefixes_;
};

}  // namespace qm
