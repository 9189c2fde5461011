#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "device/directory_id.h"
#include "device/workspace_files.h"
#include "util/unique_fd.h"

namespace qm {

/// The regular files of a workspace that belong to checkpoints: neither links nor anything below `.git` in its root,
/// nor the executor's own data. Everything is reached below one descriptor of the root, and no link is followed, so
/// nothing outside the workspace is ever read, whoever moves things about meanwhile.
class CheckpointTree {
public:
    struct Walk {
        std::vector<std::string> files;  ///< Relative paths with "/", sorted by bytes.
        bool clipped = false;            ///< There are more files than `files` takes.
        bool namesLeftOut = false;       ///< Some names aren't UTF-8 and therefore not in `files`.
        /// Copies that a killed restore left behind, at most as many as files; no part of the workspace's content.
        std::vector<std::string> leftovers;
    };

    struct OpenFile {
        UniqueFd fd;                  ///< Empty if there is no regular file at the path or it can't be opened.
        std::uint64_t sizeBytes = 0;  ///< At the time of opening, or of trying to.
        bool missing = false;         ///< There is no regular file at the path.
    };

    /// `root` as for RootDirectory. `leftOut`: a directory that counts as not there, wherever it lies in the tree.
    CheckpointTree(const std::filesystem::path& root, std::optional<DirectoryId> leftOut);

    /// Lists at most `maxFiles` files. Directories that may not be read or vanish meanwhile are skipped. Throws
    /// std::system_error if the root can't be read, or a directory can't for another reason than its own.
    Walk walk(std::size_t maxFiles) const;

    /// Opens one of the files that walk() listed. Throws std::system_error if descriptors or memory ran out, which
    /// tells nothing about the file.
    OpenFile openFile(const std::string& path) const;
    /// The same for a path at which anything may be: a pipe or a device is looked at first, and not even opened.
    OpenFile openUncertain(const std::string& path) const;

    /// A new name for a copy that is still being written beside its place.
    static std::string newCopyName();

    const RootDirectory& root() const { return root_; }
    bool isLeftOut(int directoryFd) const;

private:
    OpenFile unopened(const std::string& path, std::error_code error) const;

    RootDirectory root_;
    std::optional<DirectoryId> leftOut_;
};

}  // namespace qm
