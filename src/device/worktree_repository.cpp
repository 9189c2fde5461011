#include "device/worktree_repository.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "device/checkpoint_file_io.h"
#include "device/worktree_record.h"
#include "util/remove_tree.h"
#include "util/text.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

namespace fs = std::filesystem;

constexpr char kTreesDirectory[] = "worktrees";
constexpr std::string_view kLinkPrefix = "gitdir: ";

/// A file that holds one path, without the line feed at its end. Nothing if there is no such regular file.
std::optional<std::string> readPathFile(int directoryFd, const char* name) {
    constexpr std::uint64_t kMaxBytes = 16'384;
    const UniqueFd fd(::openat(directoryFd, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    const auto text = readAt(fd.get(), 0, std::min(static_cast<std::uint64_t>(status.st_size), kMaxBytes));
    if (!text) return std::nullopt;
    // Only the end is trimmed: a path may begin with a blank.
    return text->substr(0, text->find_last_not_of("\r\n") + 1);
}

bool hasDirectory(const PinnedDirectory& parent, const char* name) {
    struct stat status {};
    return ::fstatat(parent.fd(), name, &status, 0) == 0 && S_ISDIR(status.st_mode);
}

bool hasEntry(const PinnedDirectory& parent, const char* name) {
    struct stat status {};
    return ::fstatat(parent.fd(), name, &status, AT_SYMLINK_NOFOLLOW) == 0;
}

/// `path` with as many of its links followed as exist.
fs::path settled(const fs::path& path) {
    std::error_code error;
    auto canonical = fs::weakly_canonical(path, error);
    return error ? path.lexically_normal() : canonical;
}

/// What a repository knows of one linked tree.
struct TreeEntry {
    UniqueFd trees;           ///< The directory of all of them.
    PinnedDirectory entry;    ///< Its git directory.
    std::string treeGitFile;  ///< Where the tree's file `.git` lies, as noted there; empty if that isn't noted yet.
};

std::optional<TreeEntry> openTreeEntry(const PinnedDirectory& common, const std::string& id) {
    if (!isWorktreeDirectoryName(id)) return std::nullopt;
    UniqueFd trees(::openat(common.fd(), kTreesDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!trees) return std::nullopt;
    auto entry = PinnedDirectory::openEntry(trees.get(), id);
    if (!entry) return std::nullopt;
    std::string treeGitFile = readPathFile(entry->fd(), "gitdir").value_or("");
    return TreeEntry{std::move(trees), std::move(*entry), std::move(treeGitFile)};
}

bool belongsTo(const TreeEntry& entry, const WorktreeRecord& tree) {
    // Relative in repositories that are set up so.
    return settled(entry.entry.path() / entry.treeGitFile) == settled(fs::path(tree.path) / ".git");
}

}  // namespace

WorktreeRepository::WorktreeRepository(fs::path gitDirectory, PinnedDirectory common)
    : gitDirectory_(std::move(gitDirectory)), common_(std::move(common)) {}

std::optional<WorktreeRepository> WorktreeRepository::find(const fs::path& directory, const fs::path& ceiling) {
    auto current = PinnedDirectory::open(directory);
    while (current) {
        if (const auto link = readPathFile(current->fd(), ".git")) {
            // Whatever it says, nobody looks farther up.
            if (!link->starts_with(kLinkPrefix)) return std::nullopt;
            return at(current->path() / link->substr(kLinkPrefix.size()));
        }
        if (auto found = at(current->path() / ".git")) return found;
        if (auto found = at(current->path())) return found;
        const fs::path parent = current->path().parent_path();
        if (parent == current->path() || parent == ceiling) break;
        auto above = PinnedDirectory::open(parent);
        if (above && above->id().device != current->id().device) break;
        current = std::move(above);
    }
    return std::nullopt;
}

std::optional<WorktreeRepository> WorktreeRepository::at(const fs::path& gitDirectory) {
    const auto own = PinnedDirectory::open(gitDirectory);
    if (!own || !hasEntry(*own, "HEAD")) return std::nullopt;
    const auto commonPath = readPathFile(own->fd(), "commondir");
    auto common = PinnedDirectory::open(commonPath ? own->path() / *commonPath : own->path());
    if (!common || !hasDirectory(*common, "objects") || !hasDirectory(*common, "refs")) return std::nullopt;
    const bool linked = own->id() != common->id();
    if (linked && own->path().parent_path() != common->path() / kTreesDirectory) return std::nullopt;
    return WorktreeRepository(own->path(), std::move(*common));
}

std::optional<fs::path> WorktreeRepository::gitDirectoryOf(const WorktreeRecord& tree) const {
    const auto entry = openTreeEntry(common_, tree.id);
    if (!entry || !belongsTo(*entry, tree)) return std::nullopt;
    return entry->entry.path();
}

std::error_code WorktreeRepository::forget(const WorktreeRecord& tree) const {
    const auto entry = openTreeEntry(common_, tree.id);
    if (!entry || (!entry->treeGitFile.empty() && !belongsTo(*entry, tree))) return {};
    return removeTreeAt(entry->trees.get(), tree.id);
}

}  // namespace qm
