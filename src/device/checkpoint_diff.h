#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <span>

#include "device/checkpoint_blobs.h"
#include "device/checkpoint_manifest.h"
#include "device/checkpoint_tree.h"

namespace qm {

/// The differences between a checkpoint and the present state of its workspace, as they go into a result.
struct CheckpointDiff {
    nlohmann::json changes = nlohmann::json::array();  ///< The first 500.
    std::size_t changeCount = 0;                       ///< All of them.
    bool listTruncated = false;
    bool diffTruncated = false;  ///< Some text diff was left out because together they would be too long.
};

/// Compares the files that `walk` found in `tree` with those of `manifest`; `buffer` is for reading. Throws
/// std::system_error if descriptors or memory ran out.
CheckpointDiff diffCheckpoint(const CheckpointTree& tree, const CheckpointTree::Walk& walk,
                              const CheckpointManifest& manifest, const CheckpointBlobs& blobs, std::span<char> buffer);

}  // namespace qm
