#include "device/workspace_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "device/kernel_open.h"

namespace qm {
namespace {

constexpr int kDirectoryHandle = O_PATH | O_DIRECTORY;

/// Opening waits for nobody and makes no terminal the process's own.
constexpr int kHarmless = O_NONBLOCK | O_NOCTTY;

std::error_code systemError(int number) {
    return {number, std::generic_category()};
}

UniqueFd openOne(int directory, const std::string& name, int flags, mode_t mode, std::error_code& error) {
    while (true) {
        UniqueFd fd(::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode));
        if (!fd && errno == EINTR) continue;
        if (!fd) {
            error = systemError(errno);
            return {};
        }
        // With O_PATH the call hands out the link itself instead of refusing it.
        struct stat status {};
        if ((flags & O_PATH) != 0 && (::fstat(fd.get(), &status) != 0 || S_ISLNK(status.st_mode))) {
            error = systemError(ELOOP);
            return {};
        }
        return fd;
    }
}

/// Takes the first component off `path`, with the slashes around it; empty once there is none left.
std::string takeComponent(std::string_view& path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    return std::string(component);
}

UniqueFd openComponentWise(int root, std::string_view path, int flags, mode_t mode, std::error_code& error) {
    UniqueFd directory;
    int current = root;
    std::string component = takeComponent(path);
    while (true) {
        if (component == "..") {
            error = systemError(EXDEV);
            return {};
        }
        const bool trailingSlash = !path.empty();
        std::string next = takeComponent(path);
        if (next.empty()) {
            if (trailingSlash && (flags & O_CREAT) != 0) {
                error = systemError(EISDIR);
                return {};
            }
            return openOne(current, component.empty() ? "." : component, trailingSlash ? flags | O_DIRECTORY : flags,
                           mode, error);
        }
        directory = openOne(current, component, kDirectoryHandle, 0, error);
        if (!directory) return {};
        current = directory.get();
        component = std::move(next);
    }
}

UniqueFd openBelow(RootDirectory::LookUp lookUp, int root, std::string_view path, int flags, mode_t mode,
                   std::error_code& error) {
    error.clear();
    // A NUL would cut the path short on its way to the kernel.
    if (path.find('\0') != std::string_view::npos) {
        error = systemError(EINVAL);
        return {};
    }
    if (path.starts_with('/')) {
        error = systemError(EXDEV);
        return {};
    }
    if (lookUp == RootDirectory::LookUp::KernelFirst) {
        const std::string terminated(path.empty() ? "." : path);
        UniqueFd fd = openat2(root, terminated.c_str(), flags, mode, RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS);
        if (fd) return fd;
        // An old kernel, or a filter of system calls. EPERM may as well be the file's own answer, which then comes
        // again.
        if (errno != ENOSYS && errno != EPERM) {
            error = systemError(errno);
            return {};
        }
    }
    return openComponentWise(root, path, flags, mode, error);
}

/// A cheap first look that may be led astray by a link on the way: nothing but the choice of the next step hangs on it.
bool looksRegularOrMissing(int root, const std::string& path) {
    struct stat status {};
    return ::fstatat(root, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 || S_ISREG(status.st_mode);
}

}  // namespace

RootDirectory::RootDirectory(const std::filesystem::path& root, LookUp lookUp) : lookUp_(lookUp) {
    // The root's own path is free of links too, and it is held to that in the same way, from "/".
    if (lookUp_ == LookUp::KernelFirst) {
        root_ = openat2(AT_FDCWD, root.c_str(), kDirectoryHandle, 0, RESOLVE_NO_SYMLINKS);
        if (root_) return;
    }
    const UniqueFd top(::open("/", kDirectoryHandle | O_CLOEXEC));
    if (!top) {
        rootError_ = systemError(errno);
        return;
    }
    std::string_view path = root.native();
    if (path.starts_with('/')) path.remove_prefix(1);
    root_ = openBelow(lookUp_, top.get(), path, kDirectoryHandle, 0, rootError_);
}

UniqueFd RootDirectory::open(std::string_view path, int flags, std::error_code& error, mode_t mode) const {
    if (!root_) {
        error = rootError_;
        return {};
    }
    return openBelow(lookUp_, root_.get(), path, flags, mode, error);
}

UniqueFd RootDirectory::openRegularFile(std::string_view path, int flags, struct stat& status,
                                        std::error_code& error) const {
    if (root_ && !looksRegularOrMissing(root_.get(), std::string(path.empty() ? "." : path))) {
        const auto before = this->status(path, error);
        if (before && !S_ISREG(before->st_mode)) error = std::make_error_code(kNotRegularFile);
        if (error) return {};
    }
    // Between the two looks anything may have been put in its place: opening it must not wait, and it is tested again.
    UniqueFd fd = open(path, flags | kHarmless, error);
    if (!fd) return {};
    if (::fstat(fd.get(), &status) != 0) {
        error = systemError(errno);
        return {};
    }
    if (!S_ISREG(status.st_mode)) {
        error = std::make_error_code(kNotRegularFile);
        return {};
    }
    return fd;
}

std::optional<struct stat> RootDirectory::status(std::string_view path, std::error_code& error) const {
    const UniqueFd handle = open(path, O_PATH, error);
    if (!handle) return std::nullopt;
    struct stat found {};
    if (::fstat(handle.get(), &found) != 0) {
        error = systemError(errno);
        return std::nullopt;
    }
    return found;
}

bool RootDirectory::makeDirectories(std::string_view path, std::error_code& error) const {
    if (open(path, kDirectoryHandle, error)) return false;
    if (error != std::errc::no_such_file_or_directory) return false;
    UniqueFd directory = open("", kDirectoryHandle, error);
    bool created = false;
    while (directory) {
        const std::string component = takeComponent(path);
        if (component.empty()) break;
        if (component == "..") {
            error = systemError(EXDEV);
            break;
        }
        if (::mkdirat(directory.get(), component.c_str(), 0777) == 0) {
            created = true;
        } else if (errno != EEXIST) {
            error = systemError(errno);
            break;
        }
        directory = openOne(directory.get(), component, kDirectoryHandle, 0, error);
    }
    return created;
}

UniqueFd openRegularFileWithoutLinks(const std::string& path, struct stat& status) {
    if (!looksRegularOrMissing(AT_FDCWD, path)) return {};
    UniqueFd fd = openat2(AT_FDCWD, path.c_str(), O_RDONLY | kHarmless, 0, RESOLVE_NO_SYMLINKS);
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
    return fd;
}

}  // namespace qm
