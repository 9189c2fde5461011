#include "device/checkpoint_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string_view>
#include <system_error>

#include "device/workspace_files.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::string_view kRepositoryDirectory = ".git";

using DirectoryStream = std::unique_ptr<DIR, int (*)(DIR*)>;

[[noreturn]] void throwLastError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// Failures that concern one directory only: it may not be read, vanished, became something else, or lies too deep.
bool isSkippable(int error) {
    constexpr std::array kErrors{EACCES, EPERM, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG};
    return std::find(kErrors.begin(), kErrors.end(), error) != kErrors.end();
}

bool isUtf8(std::string_view text) {
    char32_t ignored = 0;
    while (!text.empty()) {
        const std::size_t length = decodeCodePoint(text, ignored);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

/// The entry's type without following a link; the file system may leave it out of the listing.
unsigned char entryType(int directoryFd, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type;
    struct stat status {};
    if (::fstatat(directoryFd, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) return DT_UNKNOWN;
    return static_cast<unsigned char>(IFTODT(status.st_mode));
}

/// Lists a tree directory by directory. Those still to be listed are kept as paths, not as descriptors, so that the
/// depth of the tree costs none.
class Walker {
public:
    Walker(const CheckpointTree& tree, std::size_t maxFiles) : tree_(tree), maxFiles_(maxFiles) {}

    CheckpointTree::Walk run() {
        UniqueFd top(::openat(tree_.rootFd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!top) throwLastError("cannot read the workspace");
        list(std::move(top), "");
        while (!pending_.empty() && !walk_.clipped) {
            const std::string directory = std::move(pending_.back());
            pending_.pop_back();
            UniqueFd fd = openBelow(tree_.rootFd(), directory, O_RDONLY | O_DIRECTORY);
            if (fd) {
                list(std::move(fd), directory + "/");
            } else if (!isSkippable(errno)) {
                throwLastError("cannot read a directory of the workspace");
            }
        }
        std::sort(walk_.files.begin(), walk_.files.end());
        return std::move(walk_);
    }

private:
    void list(UniqueFd fd, const std::string& prefix) {
        if (tree_.isLeftOut(fd.get())) return;
        const int directoryFd = fd.get();
        const DirectoryStream stream(::fdopendir(directoryFd), ::closedir);
        if (!stream) throwLastError("cannot list a directory of the workspace");
        (void)fd.release();  // The stream closes it.
        while (!walk_.clipped) {
            errno = 0;
            const dirent* entry = ::readdir(stream.get());
            if (entry == nullptr) {
                if (errno != 0 && !isSkippable(errno)) throwLastError("cannot list a directory of the workspace");
                return;
            }
            take(directoryFd, *entry, prefix);
        }
    }

    void take(int directoryFd, const dirent& entry, const std::string& prefix) {
        const std::string_view name = entry.d_name;
        if (name == "." || name == ".." || (prefix.empty() && name == kRepositoryDirectory)) return;
        const unsigned char type = entryType(directoryFd, entry);
        if (type != DT_REG && type != DT_DIR) return;
        if (!isUtf8(name)) {
            // Everything below such a directory has a path that a manifest can't hold.
            walk_.namesLeftOut = true;
        } else if (type == DT_DIR) {
            pending_.push_back(prefix + entry.d_name);
        } else if (walk_.files.size() < maxFiles_) {
            walk_.files.push_back(prefix + entry.d_name);
        } else {
            walk_.clipped = true;
        }
    }

    const CheckpointTree& tree_;
    std::size_t maxFiles_;
    std::vector<std::string> pending_;
    CheckpointTree::Walk walk_;
};

}  // namespace

std::optional<DirectoryId> directoryId(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return DirectoryId{status.st_dev, status.st_ino};
}

std::optional<DirectoryId> directoryId(const std::filesystem::path& directory) {
    const UniqueFd fd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return fd ? directoryId(fd.get()) : std::nullopt;
}

CheckpointTree::CheckpointTree(const std::filesystem::path& root, std::optional<DirectoryId> leftOut)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), leftOut_(leftOut) {
    if (!root_) throwLastError("cannot open the workspace");
}

CheckpointTree::Walk CheckpointTree::walk(std::size_t maxFiles) const {
    return Walker(*this, maxFiles).run();
}

CheckpointTree::OpenFile CheckpointTree::openFile(const std::string& path) const {
    OpenFile file;
    // Not blocking: a pipe may have taken the place of the file, and opening one waits for a writer.
    file.fd = openBelow(rootFd(), path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat status {};
    if (file.fd && ::fstat(file.fd.get(), &status) == 0) {
        file.sizeBytes = static_cast<std::uint64_t>(status.st_size);
        if (!S_ISREG(status.st_mode)) file.fd.reset();
        return file;
    }
    file.missing = errno == ENOENT;
    const UniqueFd unread = openBelow(rootFd(), path, O_PATH);
    if (unread && ::fstat(unread.get(), &status) == 0) file.sizeBytes = static_cast<std::uint64_t>(status.st_size);
    return file;
}

bool CheckpointTree::isLeftOut(int directoryFd) const {
    return leftOut_ && directoryId(directoryFd) == leftOut_;
}

}  // namespace qm
