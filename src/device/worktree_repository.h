#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "device/pinned_directory.h"

namespace qm {

struct WorktreeRecord;

/// The git repository of a directory, found as git finds it, but without git: whoever may write in the directory, or in
/// a tree, can name any directory of the machine as its repository. What git shall read and what it may write are
/// therefore settled here, before it runs, and both are the same directory.
class WorktreeRepository {
public:
    /// Looks in `directory` and above it, but neither in nor above `ceiling` (absolute, free of links). Nothing if
    /// there is no repository, and if its parts don't belong together: the git directory of a linked tree must lie in
    /// the repository that it claims to be part of.
    static std::optional<WorktreeRepository> find(const std::filesystem::path& directory,
                                                  const std::filesystem::path& ceiling);

    /// Holds the HEAD that `directory` is on; the repository itself, or an entry of its `worktrees`. Absolute.
    const std::filesystem::path& gitDirectory() const { return gitDirectory_; }

    /// The repository: objects, branches, configuration.
    const PinnedDirectory& common() const { return common_; }

    /// The git directory of a linked tree; nothing if the repository doesn't know the tree.
    std::optional<std::filesystem::path> gitDirectoryOf(const WorktreeRecord& tree) const;

    /// Removes what the repository knows of a linked tree, also of one that was never finished, so that its branch is
    /// free. What belongs to another tree, or isn't there, is left as it is.
    std::error_code forget(const WorktreeRecord& tree) const;

private:
    WorktreeRepository(std::filesystem::path gitDirectory, PinnedDirectory common);
    static std::optional<WorktreeRepository> at(const std::filesystem::path& gitDirectory);

    std::filesystem::path gitDirectory_;
    PinnedDirectory common_;
};

}  // namespace qm
