#include "runtime/journal_batch.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "runtime/agent_json.h"
#include "runtime/canonical_json.h"
#include "runtime/payload_integer.h"
#include "util/json.h"
#include "util/sha256.h"

namespace qm::runtime {
namespace {

constexpr std::size_t kDigestDigits = 64;

/// What stands around the digest in a line of the library's form. Keys are sorted, and "v" is the only one behind it.
constexpr std::string_view kBeforeDigest = R"(,"sha256":")";
constexpr std::string_view kAfterDigest = R"(","v":1})";
/// The end of the line without the digest: what is hashed.
constexpr std::string_view kHashedEnd = R"(,"v":1})";

/// The deepest payload from outside, and room for the envelope and for what wraps such a payload on its way.
constexpr std::size_t kMaxDepth = kMaxJsonDepth + 16;

[[noreturn]] void fail(const char* words) {
    throw std::runtime_error(words);
}

/// A batch line taken apart.
struct Envelope {
    json value;
    bool isCanonical = false;  ///< The line is what the library prints for the value.
};

/// What the library's parser would pass over without a word: it takes a NUL as the end of its input, whatever follows,
/// and skips a byte order mark at the beginning.
bool hidesFromParser(std::string_view line) {
    return line.find('\0') != std::string_view::npos || line.starts_with("\xEF\xBB\xBF");
}

Envelope parseEnvelope(std::string_view line) {
    if (auto value = parseCanonicalJson(line, kMaxDepth)) return {*std::move(value), true};
    if (hidesFromParser(line) || nestsDeeperThan(line, kMaxDepth)) return {};
    return {json::parse(line, nullptr, false), false};
}

bool isEnvelope(const json& value, const std::string& sessionId) {
    if (!value.is_object()) return false;
    const json* version = findMember(value, "v");
    const json* session = findMember(value, "sessionId");
    const json* events = findMember(value, "events");
    return version != nullptr && version->is_number() && *version == 1 &&  //
           session != nullptr && session->is_string() && session->get_ref<const std::string&>() == sessionId &&
           events != nullptr && events->is_array() && !events->empty();
}

bool isLowerHex(std::string_view text) {
    return text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// If the digest stands where the library prints it: the SHA-256 of the line without it.
std::optional<std::string> digestAsItStands(std::string_view line) {
    constexpr std::size_t kEndSize = kBeforeDigest.size() + kDigestDigits + kAfterDigest.size();
    if (line.size() < kEndSize) return std::nullopt;
    const std::string_view start = line.substr(0, line.size() - kEndSize);
    const std::string_view end = line.substr(start.size());
    if (!end.starts_with(kBeforeDigest) || !end.ends_with(kAfterDigest)) return std::nullopt;
    if (!isLowerHex(end.substr(kBeforeDigest.size(), kDigestDigits))) return std::nullopt;
    Sha256 hash;
    hash.update(start);
    hash.update(kHashedEnd);
    return toHex(hash.finish());
}

/// The SHA-256 of what the library prints for the envelope without its digest, which it may lose here.
std::string digestOf(Envelope& envelope, std::string_view line) {
    if (envelope.isCanonical) {
        if (auto digest = digestAsItStands(line)) return *std::move(digest);
    }
    envelope.value.erase("sha256");
    return sha256Hex(envelope.value.dump());
}

}  // namespace

std::string encodeJournalBatch(const std::string& sessionId, const std::vector<AgentEvent>& events) {
    // The parts are printed by the library and joined as it would join them, so that no event is copied into one big
    // value and nothing is printed twice.
    std::string line = R"({"events":[)";
    for (const AgentEvent& event : events) {
        if (&event != &events.front()) line += ',';
        line += agentEventToJson(event).dump();
        if (line.size() > kMaxJournalBatchBytes) break;
    }
    line += R"(],"firstSequence":)" + std::to_string(events.front().sequence);
    line += R"(,"lastSequence":)" + std::to_string(events.back().sequence);
    line += R"(,"sessionId":)" + json(sessionId).dump();
    Sha256 hash;
    hash.update(line);
    hash.update(kHashedEnd);
    line.append(kBeforeDigest).append(toHex(hash.finish())).append(kAfterDigest);
    if (line.size() > kMaxJournalBatchBytes) throw std::length_error("agent journal append batch exceeds 16 MiB");
    if (nestsDeeperThan(line, kMaxDepth)) throw std::length_error("agent journal append batch is nested too deeply");
    return line;
}

std::vector<AgentEvent> decodeJournalBatch(std::string_view line, const std::string& sessionId,
                                           std::uint64_t expectedFirst) {
    if (line.size() > kMaxJournalBatchBytes) fail("agent journal batch exceeds 16 MiB");
    Envelope envelope = parseEnvelope(line);
    if (!isEnvelope(envelope.value, sessionId)) fail("agent journal contains an invalid batch envelope");
    const std::string expectedDigest = stringMember(envelope.value, "sha256");
    if (expectedDigest != digestOf(envelope, line)) fail("agent journal checksum mismatch");
    const std::uint64_t first = nearestInteger<std::uint64_t>(envelope.value, "firstSequence");
    const std::uint64_t last = nearestInteger<std::uint64_t>(envelope.value, "lastSequence");
    json& values = envelope.value["events"];
    if (first != expectedFirst || last < first || values.size() - 1 != last - first) {
        fail("agent journal batch sequence diverged");
    }
    // With as many events as sequences and no gap between them, the last one has the last sequence.
    std::vector<AgentEvent> events;
    events.reserve(values.size());
    for (json& value : values) {
        AgentEvent event = agentEventFromJson(std::move(value));
        if (event.sessionId != sessionId || event.sequence != first + events.size()) {
            fail("agent journal event sequence diverged");
        }
        events.push_back(std::move(event));
    }
    return events;
}

}  // namespace qm::runtime
