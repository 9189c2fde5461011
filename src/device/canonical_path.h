#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

namespace qm {

/// Where a path leads once its symbolic links are followed.
struct CanonicalPath {
    std::string path;         ///< Absolute; its existing part has no links, ".", ".." or doubled slashes.
    std::size_t missing = 0;  ///< How many of its last components don't exist.
    bool namesLink = false;   ///< The path as given names a symbolic link.
    std::error_code error;    ///< Set if the path can't be followed: a loop, no permission, too long.
};

/// Follows `path` from `base`, an absolute path that is canonical itself; a leading "/" of `path` means nothing
/// special. What doesn't exist is kept as it stands. A dangling link is followed to where its target would be, because
/// that is where whoever creates the path would create it. A "/" at the end that can't hold, because what stands before
/// it is missing or no directory, stays and counts as a missing component. Any thread.
CanonicalPath followLinks(std::string_view base, std::string_view path);

/// Whether `path` is absolute and could be canonical by its form: no ".", "..", doubled or trailing slash, no NUL.
bool isPlainAbsolute(std::string_view path);

/// Whether the absolute path `path` exists and is canonical already. One system call at most; false also where the
/// kernel can't tell.
bool existsAsCanonical(std::string_view path);

/// Whether `path` is `root` or lies below it, component by component; both canonical.
bool isWithin(std::string_view root, std::string_view path);

/// `path` without `root` and the "/" after it; requires isWithin(root, path).
std::string_view relativeTo(std::string_view root, std::string_view path);

/// `root` and the relative path `path` joined by one "/"; `root` itself if `path` is empty.
std::string joinBelow(std::string_view root, std::string_view path);

}  // namespace qm
