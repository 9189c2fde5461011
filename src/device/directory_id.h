#pragma once

#include <sys/types.h>

#include <compare>
#include <filesystem>
#include <optional>

namespace qm {

/// Tells a directory from every other one, whatever path leads to it.
struct DirectoryId {
    dev_t device = 0;
    ino_t inode = 0;

    auto operator<=>(const DirectoryId&) const = default;
};

/// Nothing if there is no directory.
std::optional<DirectoryId> directoryId(int fd);
std::optional<DirectoryId> directoryId(const std::filesystem::path& directory);

}  // namespace qm
