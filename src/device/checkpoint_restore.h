#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "device/checkpoint_blobs.h"
#include "device/checkpoint_manifest.h"
#include "device/checkpoint_tree.h"

namespace qm {

/// What separates the present state of a workspace from a checkpoint. Points into the manifest.
struct RestorePlan {
    std::vector<const CheckpointFile*> toRestore;  ///< Missing now, or of another content.
    std::vector<std::string> toDelete;             ///< Added since.
    std::vector<std::string> leftovers;            ///< Copies that an earlier restore left when it was killed.
};

struct RestoreOutcome {
    std::size_t restoredFiles = 0;
    std::size_t deletedFiles = 0;
    std::vector<std::string> failedPaths;  ///< Files that aren't as in the checkpoint now.
};

/// Compares the files that `walk` found with those of `manifest`; `buffer` is for reading. Changes nothing. Throws
/// std::system_error if descriptors or memory ran out.
RestorePlan planRestore(const CheckpointTree& tree, const CheckpointTree::Walk& walk,
                        const CheckpointManifest& manifest, std::span<char> buffer);

/// Carries out `plan`. No link is followed: one that stands where a directory or a file belongs is replaced itself.
/// Each file is written beside its place, read back, and put there in one step, so that nobody ever finds half of it
/// and a failure leaves the old one. A file that exists keeps its mode and owner. A failure concerns its file only.
RestoreOutcome carryOutRestore(const CheckpointTree& tree, const RestorePlan& plan, const CheckpointBlobs& blobs,
                               std::span<char> buffer);

}  // namespace qm
