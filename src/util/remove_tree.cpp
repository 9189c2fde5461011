#include "util/remove_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "util/random_id.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

/// Each level of recursion holds one descriptor. What lies deeper is moved up below the top and removed from there, so
/// that no depth of nesting uses up the descriptors or the stack.
constexpr int kMaxDepth = 64;

std::error_code lastError() {
    return {errno, std::generic_category()};
}

bool isOneComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

class TreeRemover {
public:
    TreeRemover(int topFd, dev_t device) : topFd_(topFd), device_(device) {}

    /// Empties the top directory. Directories that were moved up from the depth are found by the next round.
    std::error_code emptyTop() {
        do {
            movedUp_ = false;
            if (const auto error = emptyDirectory(topFd_, 0)) return error;
        } while (movedUp_);
        return {};
    }

private:
    std::error_code emptyDirectory(int fd, int depth) {
        UniqueFd copy(::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!copy) return lastError();
        const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(copy.get()), ::closedir);
        if (!stream) return lastError();
        copy.release();  // NOLINT(bugprone-unused-return-value): the stream owns it now
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(stream.get());
            if (entry == nullptr) return errno == 0 ? std::error_code{} : lastError();
            const std::string name = entry->d_name;
            if (!isOneComponent(name)) continue;
            if (const auto error = removeEntry(fd, name, depth)) return error;
        }
    }

    std::error_code removeEntry(int parentFd, const std::string& name, int depth) {
        // Not by the type that the listing gave: the entry may be another one by now.
        if (::unlinkat(parentFd, name.c_str(), 0) == 0 || errno == ENOENT) return {};
        if (errno != EISDIR) return lastError();
        if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return {};
        if (errno != ENOTEMPTY && errno != EEXIST) return lastError();
        if (depth >= kMaxDepth) return moveUp(parentFd, name);

        const UniqueFd child(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!child) return lastError();
        struct stat status {};
        if (::fstat(child.get(), &status) != 0) return lastError();
        if (status.st_dev != device_) return {EXDEV, std::generic_category()};
        if (const auto error = emptyDirectory(child.get(), depth + 1)) return error;
        if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return {};
        return lastError();
    }

    std::error_code moveUp(int parentFd, const std::string& name) {
        if (::renameat(parentFd, name.c_str(), topFd_, randomId("moved-up-", 16).c_str()) != 0) return lastError();
        movedUp_ = true;
        return {};
    }

    int topFd_;
    dev_t device_;
    bool movedUp_ = false;
};

}  // namespace

std::error_code removeTreeAt(int parentFd, const std::string& name) {
    if (!isOneComponent(name)) return {EINVAL, std::generic_category()};
    const UniqueFd top(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!top) {
        if (errno == ENOENT) return {};
        return errno == ELOOP ? std::error_code(ENOTDIR, std::generic_category()) : lastError();
    }
    struct stat status {};
    if (::fstat(top.get(), &status) != 0) return lastError();
    if (const auto error = TreeRemover(top.get(), status.st_dev).emptyTop()) return error;
    if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return {};
    return lastError();
}

}  // namespace qm
