#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "device/checkpoint_file_io.h"
#include "util/unique_fd.h"

namespace qm {

/// The contents of one checkpoint's files: the directory `blobs`, one file for each content, named by its digest.
class CheckpointBlobs {
public:
    /// Takes the open directory. An empty descriptor is a store without any blob.
    explicit CheckpointBlobs(UniqueFd directory) : directory_(std::move(directory)) {}

    /// Stores what the open file `source` holds, at most `size` bytes, and tells what was stored: each byte is read
    /// once, and digest, size and blob are of the same bytes even if the file changes meanwhile. Nothing if the source
    /// can't be read. Throws std::system_error if the blob can't be written; parts of it may then lie in the directory.
    std::optional<Fingerprint> store(int source, std::uint64_t size, std::span<char> buffer) const;

    /// The blob of a digest, for reading; empty if there is none or `sha256` is no digest. Throws std::system_error if
    /// it can't be opened for lack of descriptors or memory.
    UniqueFd open(const std::string& sha256) const;

private:
    std::optional<Fingerprint> storeSmall(int source, std::uint64_t size, std::span<char> buffer) const;
    std::optional<Fingerprint> storeLarge(int source, std::uint64_t size, std::span<char> buffer) const;

    UniqueFd directory_;
};

}  // namespace qm
