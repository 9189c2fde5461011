#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "device/checkpoint_blobs.h"
#include "device/checkpoint_manifest.h"
#include "util/unique_fd.h"

namespace qm {

/// A checkpoint while it is being made: a directory of the store, which goes away again unless keep() is reached.
class CheckpointDraft {
public:
    /// Takes the open directory of the store and `id`, an empty directory in it, which is the draft's from now on.
    CheckpointDraft(UniqueFd store, std::string id);
    ~CheckpointDraft();
    CheckpointDraft(const CheckpointDraft&) = delete;
    CheckpointDraft& operator=(const CheckpointDraft&) = delete;

    /// Makes the directory of the blobs; once, before anything else. Throws std::system_error.
    void makeBlobs();

    const std::string& id() const { return id_; }
    const CheckpointBlobs& blobs() const { return blobs_; }

    /// Writes the manifest, which makes the directory a checkpoint in one step: a process that dies before leaves a
    /// directory that no reader takes for one. Throws std::system_error, and the draft is still a draft.
    void keep(const CheckpointManifest& manifest);

private:
    UniqueFd store_;
    std::string id_;
    UniqueFd directory_;
    CheckpointBlobs blobs_{UniqueFd()};
    bool kept_ = false;
};

/// The directory of all checkpoints, `<root>/<id>/manifest.json` and `<root>/<id>/blobs/<sha256>`. Keeps nothing in
/// memory. Not for several threads at once. What reads throws std::system_error if descriptors or memory ran out,
/// rather than to say that there is nothing.
class CheckpointStore {
public:
    explicit CheckpointStore(std::filesystem::path root) : root_(std::move(root)) {}

    /// Begins a checkpoint under a new id. Throws std::system_error.
    std::unique_ptr<CheckpointDraft> begin() const;

    /// A manifest, or the text that says why there is none.
    struct ReadResult {
        std::string id;
        std::optional<CheckpointManifest> manifest;
        std::string error;
    };
    ReadResult read(const std::string& id) const;

    CheckpointBlobs blobs(const std::string& id) const;

    /// The checkpoints of a workspace whose manifests can be read, oldest first.
    std::vector<std::string> idsOfWorkspace(std::string_view workspaceId) const;

    /// Removes a checkpoint; a failure is logged, and what is left of it stays.
    void remove(const std::string& id) const;

private:
    std::filesystem::path root_;
};

}  // namespace qm
