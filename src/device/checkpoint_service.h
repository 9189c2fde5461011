#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

#include "device/checkpoint_store.h"
#include "device/checkpoint_tree.h"
#include "util/json_fwd.h"

namespace qm {

struct Workspace;

/// How much a checkpoint takes, and how many are kept.
struct CheckpointLimits {
    std::size_t maxFiles = 5000;
    std::uint64_t maxFileBytes = 4'194'304;     ///< Of longer files only the digest is kept.
    std::uint64_t maxTotalBytes = 268'435'456;  ///< Contents of one checkpoint together.
    std::size_t retained = 8;                   ///< Newest checkpoints kept of each workspace.
};

/// Snapshots the regular files of a workspace into the data directory, so that later changes, whoever makes them, can
/// be shown and taken back.
///
/// All state is on disk, in `<data directory>/checkpoints`. Operations run one at a time, whatever their workspace; any
/// thread may ask for one. Nothing is thrown but std::bad_alloc: a failure is a result with the member `error`.
class CheckpointService {
public:
    using ClockNs = std::function<std::int64_t()>;

    explicit CheckpointService(const std::filesystem::path& dataDir, CheckpointLimits limits = {},
                               ClockNs wallClockNs = systemClockNs);

    /// Takes a checkpoint and removes the workspace's oldest ones beyond those that are kept. Members `checkpoint`,
    /// `fileCount`, `complete` and, if that is false, `warning`. After a failure nothing of the checkpoint is left.
    json create(const Workspace& workspace, const std::string& label);

    /// What changed since a checkpoint, since the newest if `checkpointId` is empty.
    json diff(const Workspace& workspace, const std::string& checkpointId);

    /// Takes the workspace back to a checkpoint. What can be known to fail beforehand leaves it untouched; otherwise
    /// `failedPaths` lists the files that aren't as in the checkpoint.
    json restore(const Workspace& workspace, const std::string& checkpointId);

    /// Wall-clock nanoseconds since the epoch.
    static std::int64_t systemClockNs();

private:
    template <typename Operation>
    json guarded(Operation operation);
    json createLocked(const Workspace& workspace, const std::string& label);
    json diffLocked(const Workspace& workspace, const std::string& checkpointId);
    json restoreLocked(const Workspace& workspace, const std::string& checkpointId);
    CheckpointManifest describe(const CheckpointTree& tree, const Workspace& workspace, const std::string& label) const;
    CheckpointStore::ReadResult readOwn(const Workspace& workspace, const std::string& checkpointId) const;
    CheckpointStore::ReadResult readLatest(const Workspace& workspace) const;
    void prune(const std::string& workspaceId, const std::string& spared) const;
    CheckpointTree openTree(const Workspace& workspace) const;

    const std::filesystem::path dataDir_;
    const CheckpointStore store_;
    const CheckpointLimits limits_;
    const ClockNs wallClockNs_;
    std::mutex mutex_;  ///< Held for the whole of each operation.
};

}  // namespace qm
