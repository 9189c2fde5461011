#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "device/worktree_git.h"
#include "device/worktree_record.h"
#include "util/clock.h"

namespace qm {

struct Workspace;
class WorkspaceRegistry;

/// How long each call of git may take, in milliseconds.
struct WorktreeTimeouts {
    std::int32_t revParseMs = 15'000;
    std::int32_t addMs = 120'000;
    std::int32_t checkoutMs = 180'000;
    std::int32_t statusMs = 60'000;
    std::int32_t cleanUpMs = 60'000;
    std::int32_t removeMs = 120'000;
    std::int32_t deleteBranchMs = 60'000;
};

/// Derives isolated git worktrees from workspaces, each on a branch of its own and registered as a workspace, so that
/// parallel work doesn't collide. Trees have leases; those that ran out are reclaimed at the next start.
///
/// The table of trees is kept in `<data directory>/worktrees.json`. Any thread may call anything. What takes git long,
/// the filling of a tree and the search for changes in one, runs side by side.
class WorktreeService {
public:
    static constexpr std::size_t kMaxTrees = 8;
    static constexpr std::int64_t kDefaultLeaseMs = 3'600'000;

    struct CreateResult {
        bool ok = false;
        WorktreeRecord record;
        std::string error;
    };

    struct RemoveResult {
        bool ok = false;
        bool hadUncommittedChanges = false;
        std::string error;
    };

    /// `workspaces` must outlive the service. Reads nothing yet.
    WorktreeService(const std::filesystem::path& dataDir, WorkspaceRegistry& workspaces, WorktreeTimeouts timeouts = {},
                    ClockMs clock = wallClockMs);

    /// Reads the table, once at start. A file that isn't one is an empty table.
    void reload();

    /// Makes a tree from the workspace `sourceWorkspace`, which must be a git repository and grant READ_WRITE; the new
    /// workspace grants what the source does. A lease of 0 or less is the default one. Blocks while git runs. After a
    /// failure neither tree nor branch is left, as far as that can be done.
    CreateResult create(const std::string& sourceWorkspace, const std::string& owner, std::int64_t leaseMs);

    /// Takes a tree back: directory, branch, workspace and record. Uncommitted changes keep it, unless `force`. Blocks
    /// while git runs.
    RemoveResult remove(const std::string& id, bool force);

    std::vector<WorktreeRecord> list() const;

    /// Takes back, with whatever they hold, the trees whose lease had run out at `nowMs`. One log line each.
    void prune(std::int64_t nowMs);

private:
    ProcessResult changeRepository(const std::filesystem::path& source, const std::vector<std::string>& arguments,
                                   std::int32_t timeoutMs) const;
    std::string fillTree(const std::filesystem::path& source, const WorktreeRecord& record) const;
    std::string registerTree(WorktreeRecord& record, const Workspace& source) const;
    void cleanUp(const std::filesystem::path& source, const WorktreeRecord& record) const;
    bool hasUncommittedChanges(const WorktreeRecord& record) const;
    void removeDirectory(const WorktreeRecord& record) const;
    void forgetWorkspace(const std::string& workspaceId) const;
    std::optional<WorktreeRecord> find(const std::string& id) const;
    void save() const;

    const std::filesystem::path dataDir_;  ///< Absolute: git is run in other directories.
    WorkspaceRegistry& workspaces_;
    const WorktreeTimeouts timeouts_;
    const ClockMs clock_;
    const WorktreeGit git_;
    mutable std::mutex repositoryMutex_;  ///< Held by whoever has git change a repository's trees or branches.
    mutable std::mutex mutex_;            ///< Guards the table and its file; never held while git runs.
    std::vector<WorktreeRecord> trees_;
};

}  // namespace qm
