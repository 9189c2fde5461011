#include "device/tree_walk.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "device/walk_errors.h"

namespace qm {
namespace {

UniqueFd openDirectory(int parent, const char* name) {
    return UniqueFd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

[[noreturn]] void throwNoWayBack(int number) {
    throw std::system_error(number, std::generic_category(), "cannot go back to a directory of the workspace");
}

}  // namespace

TreeWalk::TreeWalk(UniqueFd start, std::size_t openDirectories) : openDirectories_(openDirectories) {
    levels_.push_back({DirectoryReader(std::move(start)), 0});
}

const TreeWalk::Entry* TreeWalk::next() {
    if (std::exchange(descend_, false)) enter();
    while (!levels_.empty()) {
        Level& level = levels_.back();
        std::error_code error;
        if (const auto* const found = level.reader.next(error)) {
            path_.resize(level.prefixBytes);
            path_ += found->name;
            entry_.path = path_;
            entry_.name = entry_.path.substr(level.prefixBytes);
            entry_.type = found->type;
            entry_.directory = level.reader.descriptor();
            descend_ = found->type == EntryType::Directory;
            return &entry_;
        }
        if (error) passOverOrThrow(error);
        leave();
    }
    return nullptr;
}

void TreeWalk::enter() {
    UniqueFd directory = openDirectory(entry_.directory, entry_.name.data());
    if (!directory) return passOverOrThrow({errno, std::generic_category()});
    if (levels_.size() - closedLevels_ >= openDirectories_) closeOutermost();
    path_ += '/';
    levels_.push_back({DirectoryReader(std::move(directory)), path_.size()});
}

void TreeWalk::closeOutermost() {
    Level& outermost = levels_[closedLevels_];
    struct stat status {};
    const UniqueFd closing = outermost.reader.release();
    if (::fstat(closing.get(), &status) == 0) {
        outermost.device = status.st_dev;
        outermost.inode = status.st_ino;
    }
    ++closedLevels_;
}

void TreeWalk::leave() {
    const UniqueFd child = levels_.back().reader.release();
    levels_.pop_back();
    if (levels_.empty() || closedLevels_ < levels_.size()) return;
    Level& parent = levels_.back();
    UniqueFd reopened = openDirectory(child.get(), "..");
    struct stat status {};
    if (!reopened || ::fstat(reopened.get(), &status) != 0) throwNoWayBack(errno);
    // The child may hang elsewhere by now, outside of the walk's tree too.
    if (status.st_dev != parent.device || status.st_ino != parent.inode) throwNoWayBack(ENOENT);
    --closedLevels_;
    if (!parent.reader.resume(std::move(reopened))) throwNoWayBack(errno);
}

}  // namespace qm
