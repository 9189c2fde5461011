#include "device/checkpoint_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>

#include "device/checkpoint_file_io.h"
#include "device/directory_reader.h"
#include "device/walk_errors.h"
#include "util/random_id.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::string_view kRepositoryDirectory = ".git";
constexpr std::string_view kCopyPrefix = ".restoring-";
constexpr std::size_t kCopyIdLength = 12;

bool isUtf8(std::string_view text) {
    char32_t ignored = 0;
    while (!text.empty()) {
        const std::size_t length = decodeCodePoint(text, ignored);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

bool saysThatNoFileIsThere(const std::error_code& error) {
    constexpr std::array kErrors{RootDirectory::kNotRegularFile, std::errc::no_such_file_or_directory,
                                 std::errc::not_a_directory, std::errc::too_many_symbolic_link_levels,
                                 std::errc::cross_device_link};
    return std::any_of(kErrors.begin(), kErrors.end(), [&error](std::errc known) { return error == known; });
}

bool isCopyName(std::string_view name) {
    return name.size() == kCopyPrefix.size() + kCopyIdLength && name.starts_with(kCopyPrefix) &&
           name.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz", kCopyPrefix.size()) == std::string_view::npos;
}

/// Lists a tree directory by directory. Those still to be listed are kept as paths, not as descriptors, so that the
/// depth of the tree costs none.
class Walker {
public:
    Walker(const CheckpointTree& tree, std::size_t maxFiles) : tree_(tree), maxFiles_(maxFiles) {}

    CheckpointTree::Walk run() {
        std::error_code error;
        UniqueFd top = tree_.root().open("", O_RDONLY | O_DIRECTORY, error);
        if (!top) throw std::system_error(error, "工作区根目录不可用");
        list(std::move(top), "");
        while (!pending_.empty() && !walk_.clipped) {
            const std::string directory = std::move(pending_.back());
            pending_.pop_back();
            UniqueFd fd = tree_.root().open(directory, O_RDONLY | O_DIRECTORY, error);
            if (fd) {
                list(std::move(fd), directory + "/");
            } else {
                passOverOrThrow(error);
            }
        }
        std::sort(walk_.files.begin(), walk_.files.end());
        return std::move(walk_);
    }

private:
    void list(UniqueFd fd, const std::string& prefix) {
        if (tree_.isLeftOut(fd.get())) return;
        DirectoryReader reader(std::move(fd));
        std::error_code error;
        while (!walk_.clipped) {
            const DirectoryEntry* entry = reader.next(error);
            if (entry == nullptr) break;
            if (prefix.empty() && entry->name == kRepositoryDirectory) continue;
            take(*entry, prefix);
        }
        if (error) passOverOrThrow(error);
    }

    void take(const DirectoryEntry& entry, const std::string& prefix) {
        if (entry.type != EntryType::File && entry.type != EntryType::Directory) return;
        std::string path = prefix + std::string(entry.name);
        if (entry.type == EntryType::Directory) {
            pending_.push_back(std::move(path));
        } else if (!isUtf8(path)) {
            walk_.namesLeftOut = true;
        } else if (isCopyName(entry.name)) {
            if (walk_.leftovers.size() < maxFiles_) walk_.leftovers.push_back(std::move(path));
        } else if (walk_.files.size() < maxFiles_) {
            walk_.files.push_back(std::move(path));
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

CheckpointTree::CheckpointTree(const std::filesystem::path& root, std::optional<DirectoryId> leftOut)
    : root_(root), leftOut_(leftOut) {}

CheckpointTree::Walk CheckpointTree::walk(std::size_t maxFiles) const {
    return Walker(*this, maxFiles).run();
}

CheckpointTree::OpenFile CheckpointTree::openFile(const std::string& path) const {
    OpenFile file;
    std::error_code error;
    // Not blocking: a pipe may have taken the place of the file, and opening one waits for a writer.
    file.fd = root_.open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY, error);
    if (!file.fd) return unopened(path, error);
    struct stat status {};
    if (::fstat(file.fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return unopened(path, std::make_error_code(RootDirectory::kNotRegularFile));
    }
    file.sizeBytes = static_cast<std::uint64_t>(status.st_size);
    return file;
}

CheckpointTree::OpenFile CheckpointTree::openUncertain(const std::string& path) const {
    OpenFile file;
    std::error_code error;
    struct stat status {};
    file.fd = root_.openRegularFile(path, O_RDONLY, status, error);
    if (!file.fd) return unopened(path, error);
    file.sizeBytes = static_cast<std::uint64_t>(status.st_size);
    return file;
}

CheckpointTree::OpenFile CheckpointTree::unopened(const std::string& path, std::error_code error) const {
    OpenFile file;
    throwIfShortage(error.value(), "cannot open a file of the workspace");
    file.missing = saysThatNoFileIsThere(error);
    if (file.missing) return file;
    if (const auto found = root_.status(path, error)) {
        file.missing = !S_ISREG(found->st_mode);
        file.sizeBytes = static_cast<std::uint64_t>(found->st_size);
    }
    return file;
}

std::string CheckpointTree::newCopyName() {
    return randomId(kCopyPrefix, kCopyIdLength);
}

bool CheckpointTree::isLeftOut(int directoryFd) const {
    return leftOut_ && directoryId(directoryFd) == leftOut_;
}

}  // namespace qm
