#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "device/directory_id.h"
#include "util/unique_fd.h"

namespace qm {

/// A directory that is held by a descriptor, for the time in which somebody who may write above it can put another one
/// in its place.
class PinnedDirectory {
public:
    /// Links are followed. Nothing if there is no such directory.
    static std::optional<PinnedDirectory> open(const std::filesystem::path& directory);
    /// The entry `name` of an open directory, if that is itself a directory. `name` must be one component.
    static std::optional<PinnedDirectory> openEntry(int parentFd, const std::string& name);

    int fd() const { return fd_.get(); }
    const DirectoryId& id() const { return id_; }

    /// Where the directory lay when it was opened: absolute and free of links.
    const std::filesystem::path& path() const { return path_; }

    /// A path that leads any process of this user to this directory and no other, as long as the object lives.
    std::filesystem::path handle() const;

private:
    PinnedDirectory(UniqueFd fd, DirectoryId id, std::filesystem::path path);
    static std::optional<PinnedDirectory> take(UniqueFd fd);

    UniqueFd fd_;
    DirectoryId id_;
    std::filesystem::path path_;
};

}  // namespace qm
