#pragma once

#include <string>
#include <system_error>

namespace qm {

/// Removes the directory `name`, which must be an entry of the open directory `parentFd`, with everything below it.
///
/// Works by descriptors only: no symbolic link is followed, nothing on another file system is touched, and a directory
/// that is moved elsewhere meanwhile doesn't lead out of the tree. `name` must be one path component, otherwise nothing
/// is removed and the answer is EINVAL. An entry that isn't there counts as removed; one that is no directory stays,
/// and the answer is ENOTDIR. The first other failure ends the work, with the rest still in place.
std::error_code removeTreeAt(int parentFd, const std::string& name);

}  // namespace qm
