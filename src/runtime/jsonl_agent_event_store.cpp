#include "runtime/jsonl_agent_event_store.h"

#include <sys/stat.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include "runtime/event_numbering.h"
#include "runtime/journal_batch.h"
#include "util/sha256.h"

namespace qm {

using runtime::AgentEvent;
using runtime::JournalFile;
using runtime::JournalScan;

namespace {

constexpr ::mode_t kDirectoryMode = 0700;
constexpr std::uint64_t kNoEvents = std::numeric_limits<std::uint64_t>::max();

void requireLastSequence(std::uint64_t expected, std::uint64_t actual) {
    if (actual == expected) return;
    throw std::runtime_error("agent journal append conflict: expected " + std::to_string(expected) + ", actual " +
                             std::to_string(actual));
}

}  // namespace

JsonlAgentEventStore::JsonlAgentEventStore(const std::filesystem::path& dataDirectory,
                                           std::chrono::milliseconds lockPatience)
    : directory_(dataDirectory / "agent-events"), lockPatience_(lockPatience) {}

std::filesystem::path JsonlAgentEventStore::fileOf(const std::string& sessionId) const {
    return directory_ / (sha256Hex(sessionId) + ".jsonl");
}

std::vector<AgentEvent> JsonlAgentEventStore::read(const std::string& sessionId, std::uint64_t afterSequence) {
    const std::lock_guard lock(mutex_);
    auto file = JournalFile::open(fileOf(sessionId), JournalFile::Access::Read, lockPatience_);
    if (!file) return {};
    return scanJournal(*file, sessionId, prefixes_[sessionId], afterSequence).events;
}

std::vector<AgentEvent> JsonlAgentEventStore::append(const std::string& sessionId, std::uint64_t expectedLastSequence,
                                                     std::vector<AgentEvent> events) {
    if (sessionId.empty()) throw std::invalid_argument("sessionId must not be blank");
    if (events.empty()) return events;
    const std::lock_guard lock(mutex_);
    const auto path = fileOf(sessionId);
    auto& prefix = prefixes_[sessionId];
    JournalScan scan;
    auto file = JournalFile::open(path, JournalFile::Access::Append, lockPatience_);
    if (file) {
        scan = scanJournal(*file, sessionId, prefix, kNoEvents);
    } else {
        prefix = {};
    }
    requireLastSequence(expectedLastSequence, prefix.lastSequence());
    runtime::numberEvents(events, sessionId, prefix.lastSequence(), "journal");
    std::string line = runtime::encodeJournalBatch(sessionId, events);
    line += '\n';
    createDirectory();
    if (!file) {
        file = JournalFile::create(path, lockPatience_);
        // Another store may have created the file in between, and have written to it.
        scan = scanJournal(*file, sessionId, prefix, kNoEvents);
        requireLastSequence(expectedLastSequence, prefix.lastSequence());
    }
    if (scan.hasTail) file->cutTail(prefix.size());
    file->append(line);
    prefix.extend(line, events.back().sequence);
    return events;
}

void JsonlAgentEventStore::remove(const std::string& sessionId) {
    const std::lock_guard lock(mutex_);
    prefixes_.erase(sessionId);
    std::error_code error;
    std::filesystem::remove(fileOf(sessionId), error);
    if (error) throw std::runtime_error("cannot remove agent journal: " + error.message());
}

void JsonlAgentEventStore::createDirectory() const {
    std::error_code error;
    std::filesystem::create_directories(directory_.parent_path(), error);
    // Made by its own call, so that it is never open to others, not even for a moment.
    if (!error && ::mkdir(directory_.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        error = {errno, std::generic_category()};
    }
    if (!error && !std::filesystem::is_directory(directory_, error) && !error) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (error) throw std::runtime_error("cannot create agent journal directory: " + error.message());
}

}  // namespace qm
