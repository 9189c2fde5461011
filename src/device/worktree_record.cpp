#include "device/worktree_record.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "util/file_io.h"
#include "util/json.h"

namespace qm {
namespace {

json toJson(const WorktreeRecord& record) {
    return {{"id", record.id},
            {"workspaceId", record.workspaceId},
            {"sourceWorkspace", record.sourceWorkspace},
            {"branch", record.branch},
            {"owner", record.owner},
            {"path", record.path},
            {"createdAtMs", record.createdAtMs},
            {"expiresAtMs", record.expiresAtMs}};
}

WorktreeRecord fromJson(const json& element) {
    WorktreeRecord record;
    record.id = stringMember(element, "id");
    record.workspaceId = stringMember(element, "workspaceId");
    record.sourceWorkspace = stringMember(element, "sourceWorkspace");
    record.branch = stringMember(element, "branch");
    record.owner = stringMember(element, "owner");
    record.path = stringMember(element, "path");
    record.createdAtMs = integerMember(element, "createdAtMs", 0);
    record.expiresAtMs = integerMember(element, "expiresAtMs", 0);
    return record;
}

}  // namespace

bool isWorktreeDirectoryName(std::string_view id) {
    return !id.empty() && id != "." && id != ".." && id.find('/') == std::string_view::npos &&
           id.find('\0') == std::string_view::npos;
}

std::vector<WorktreeRecord> readWorktreeFile(const std::filesystem::path& file) {
    const auto text = readRegularFile(file);
    const json table = text ? json::parse(*text, nullptr, false) : json();
    std::vector<WorktreeRecord> records;
    if (!table.is_array()) return records;
    for (const json& element : table) {
        auto record = fromJson(element);
        if (!record.id.empty()) records.push_back(std::move(record));
    }
    return records;
}

void writeWorktreeFile(const std::filesystem::path& file, const std::vector<WorktreeRecord>& records) {
    json table = json::array();
    std::transform(records.begin(), records.end(), std::back_inserter(table), toJson);
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::path unfinished = file;
    unfinished += ".part";
    if (!writeRegularFile(unfinished, dumpJson(table))) {
        throw std::system_error(errno, std::generic_category(), "cannot write " + unfinished.string());
    }
    std::filesystem::rename(unfinished, file);
}

}  // namespace qm
