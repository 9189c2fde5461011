#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "util/unique_fd.h"

namespace qm {

/// One directory and the access to what lies below it, by paths that can't lead anywhere else.
///
/// Every operation takes a path relative to the root with "/" between its components; empty means the root itself. No
/// symbolic link is followed, in no component: paths are resolved beforehand, and a link that someone puts in the way
/// after that makes the operation fail (mostly ELOOP or ENOTDIR) where an ordinary open would follow it out of the
/// root. A component ".." and a leading "/" are refused with EXDEV. If the root itself couldn't be opened, each
/// operation fails with the reason. Any thread; operations at the same time are fine.
class RootDirectory {
public:
    /// Who looks at the components of a path: the kernel, in one call, or where it can't the class itself, one by one.
    /// The two differ in speed only; the second can be asked for so that it can be tested.
    enum class LookUp { KernelFirst, ComponentWise };

    /// `root`: absolute and free of links, as in ResolvedPath::rootPath.
    explicit RootDirectory(const std::filesystem::path& root, LookUp lookUp = LookUp::KernelFirst);

    /// Opens a file or directory with `flags` as for open(2), close-on-exec. Empty on failure, with `error` set.
    UniqueFd open(std::string_view path, int flags, std::error_code& error, mode_t mode = 0666) const;

    /// Opens a regular file, or creates it if `flags` has O_CREAT; fills in its `status`. Anything else, such as a pipe
    /// or a device, is left unopened if it was there before: even opening may block or have an effect. `error` is then
    /// kNotRegularFile.
    UniqueFd openRegularFile(std::string_view path, int flags, struct stat& status, std::error_code& error) const;
    static constexpr std::errc kNotRegularFile = std::errc::operation_not_supported;

    /// What lies at `path`, or nothing and the reason in `error`.
    std::optional<struct stat> status(std::string_view path, std::error_code& error) const;

    /// Makes the directory and those above it. Whether any had to be made; on failure some may have been.
    bool makeDirectories(std::string_view path, std::error_code& error) const;

private:
    LookUp lookUp_;
    UniqueFd root_;
    std::error_code rootError_;
};

/// Opens the regular file at the absolute path `path` for reading, and fills in its `status`, if neither it nor any
/// directory above it is a symbolic link: the commonest case in the fewest system calls. Empty for whatever other
/// reason too; RootDirectory then tells which.
UniqueFd openRegularFileWithoutLinks(const std::string& path, struct stat& status);

}  // namespace qm
