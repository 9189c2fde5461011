#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "device/pinned_directory.h"
#include "device/worktree_git.h"
#include "device/worktree_record.h"
#include "device/worktree_repository.h"
#include "util/clock.h"
#include "util/unique_fd.h"

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
/// The table of trees is kept in `<data directory>/worktrees.json`. Any thread may call anything. Calls of git run side
/// by side, but for those that change one repository's list of trees or branches.
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

    /// Ends every git that runs and lets operations that need one fail, those in progress included, so that they return
    /// soon. What a tree holds stays unless its removal had begun.
    void shutdown() { git_.shutdown(); }

private:
    /// Where a tree is derived from.
    struct Source {
        std::filesystem::path path;
        WorktreeRepository repository;
    };

    std::optional<Source> findSource(const std::filesystem::path& path) const;
    std::shared_ptr<std::mutex> mutexOf(const DirectoryId& repository) const;
    ProcessResult changeRepository(const Source& source, const WorktreeRecord& record,
                                   std::vector<std::string> arguments, std::int32_t timeoutMs) const;
    ProcessResult runInTree(const Source* source, const WorktreeRecord& record, std::vector<std::string> arguments,
                            std::int32_t timeoutMs, bool changesTree) const;
    std::string fillTree(const Source& source, const WorktreeRecord& record) const;
    std::string registerTree(WorktreeRecord& record, const Workspace& source) const;
    void discard(const Source* source, const WorktreeRecord& record, std::int32_t timeoutMs) const;
    bool hasUncommittedChanges(const Source* source, const WorktreeRecord& record) const;
    UniqueFd openTrees(const WorktreeRecord& record) const;
    std::optional<PinnedDirectory> openTree(const WorktreeRecord& record) const;
    void removeDirectory(const WorktreeRecord& record) const;
    void forgetWorkspace(const std::string& workspaceId) const;
    std::optional<WorktreeRecord> find(const std::string& id) const;
    void save() const;

    const std::filesystem::path dataDir_;  ///< Absolute, because git is run in other directories, and free of links.
    WorkspaceRegistry& workspaces_;
    const WorktreeTimeouts timeouts_;
    const ClockMs clock_;
    WorktreeGit git_;
    mutable std::mutex mutex_;  ///< Guards the table and its file; never held while git runs.
    std::vector<WorktreeRecord> trees_;
    mutable std::mutex repositoriesMutex_;                                   ///< Guards the next; held for a look only.
    mutable std::map<DirectoryId, std::weak_ptr<std::mutex>> repositories_;  ///< Those that git changes now.
};

}  // namespace qm
