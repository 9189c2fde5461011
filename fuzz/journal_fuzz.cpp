// Any bytes are a journal that is read or refused in the journal's words, alike by a store that knows an earlier state
// of the file; what is taken as canonical JSON is just that; and a line whose digest is put right reads back as what
// the writer would have made of its events.

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/agent_json.h"
#include "runtime/canonical_json.h"
#include "runtime/journal_batch.h"
#include "runtime/jsonl_agent_event_store.h"
#include "util/json.h"
#include "util/sha256.h"

namespace {

namespace fs = std::filesystem;
using qm::runtime::AgentEvent;

const std::string kSession = "s1";

/// A directory of this process that goes with it.
class Workplace {
public:
    Workplace() {
        std::string pattern = (fs::temp_directory_path() / "journal-fuzz-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~Workplace() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

void checkCanonicalForm(const std::string& line) {
    const auto value = qm::runtime::parseCanonicalJson(line, 1000);
    if (value && (value->dump() != line || *value != qm::json::parse(line))) std::abort();
}

/// The line with the digest that belongs to it, if it is an object at all.
std::optional<std::string> sealed(const std::string& line) {
    qm::json value = qm::json::parse(line, nullptr, false);
    if (!value.is_object()) return std::nullopt;
    value.erase("sha256");
    value["sha256"] = qm::sha256Hex(value.dump());
    return value.dump();
}

std::optional<std::vector<AgentEvent>> decoded(const std::string& line) {
    try {
        return qm::runtime::decodeJournalBatch(line, kSession, 1);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

void checkLine(const std::string& line) {
    checkCanonicalForm(line);
    decoded(line);
    const auto seal = sealed(line);
    if (!seal) return;
    const auto events = decoded(*seal);
    if (!events) return;
    const auto again = decoded(qm::runtime::encodeJournalBatch(kSession, *events));
    if (!again || again->size() != events->size()) std::abort();
    for (std::size_t index = 0; index < events->size(); ++index) {
        if (agentEventToJson((*again)[index]) != agentEventToJson((*events)[index])) std::abort();
    }
}

/// What a store says of the file: the number of events, or nothing if it is refused.
std::optional<std::size_t> countOf(qm::JsonlAgentEventStore& store) {
    try {
        return store.read(kSession, 0).size();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// A new file each time: some file systems force one to the disk that is cut to nothing and rewritten.
void write(const fs::path& file, std::string_view bytes) {
    fs::remove(file);
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Workplace workplace;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    checkLine(bytes.substr(0, bytes.find('\n')));

    qm::JsonlAgentEventStore known(workplace.path());
    const fs::path file = known.fileOf(kSession);
    fs::create_directories(file.parent_path());
    write(file, bytes.substr(0, size / 2));
    countOf(known);
    write(file, bytes);
    qm::JsonlAgentEventStore fresh(workplace.path());
    if (countOf(known) != countOf(fresh)) std::abort();
    return 0;
}
