#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

/// One isolated git worktree; also an element of `worktrees.json`.
struct WorktreeRecord {
    std::string id;               ///< "wt_" and 8 random characters; also the name of the tree's directory.
    std::string workspaceId;      ///< Handle of the workspace registered for the tree.
    std::string sourceWorkspace;  ///< Handle of the workspace that it was derived from.
    std::string branch;           ///< "quillmarsh/" and the id.
    std::string owner;            ///< Who it is for; may be empty.
    std::string path;             ///< The tree's directory, absolute.
    std::int64_t createdAtMs = 0;
    std::int64_t expiresAtMs = 0;
};

/// The records in the file, in its order and as they stand. Empty if there is no file, or it holds no JSON array; an
/// element without an id is left out. Never throws for what the file holds.
std::vector<WorktreeRecord> readWorktreeFile(const std::filesystem::path& file);

/// Replaces the file as a whole, creating its directory if needed. Throws std::system_error, with the old file intact.
void writeWorktreeFile(const std::filesystem::path& file, const std::vector<WorktreeRecord>& records);

/// Whether `id` can be the name of a tree's directory; ids in the file may be anything.
bool isWorktreeDirectoryName(std::string_view id);

}  // namespace qm
