#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

/// One file of a checkpoint.
struct CheckpointFile {
    std::string path;  ///< Relative to the workspace root with "/".
    std::uint64_t sizeBytes = 0;
    std::string sha256;     ///< Hexadecimal digest of the content; empty if the file could not be read.
    bool captured = false;  ///< The checkpoint holds the content.
};

/// What a checkpoint says about itself and its files; `manifest.json` on disk.
struct CheckpointManifest {
    std::string id;
    std::string workspaceId;
    std::string label;
    std::int64_t createdAtMs = 0;
    std::int64_t createdAtNs = 0;
    bool complete = false;  ///< Every file of the workspace is listed and captured.
    bool clipped = false;   ///< The walk met more files than a checkpoint takes.
    std::string gitHead;
    std::vector<CheckpointFile> files;  ///< Sorted by path.
};

/// The part of a manifest that says whose checkpoint it is and how old.
struct CheckpointSummary {
    std::string workspaceId;
    std::int64_t sortKey = 0;  ///< Wall-clock nanoseconds.
};

/// The manifest as compact JSON. Text that isn't UTF-8 comes out with U+FFFD, so paths have to be UTF-8 beforehand.
std::string manifestText(const CheckpointManifest& manifest);

/// Nothing if `text` is no JSON, has no array `files`, or lists a path that could lead out of a workspace. Members that
/// are missing or of another type read as their defaults.
std::optional<CheckpointManifest> parseManifest(std::string_view text);

/// Reads no more than the two ends of a manifest that manifestText() wrote, and all of any other. `fd` is an open
/// regular file. Nothing if it holds no manifest.
std::optional<CheckpointSummary> readManifestSummary(int fd);

}  // namespace qm
