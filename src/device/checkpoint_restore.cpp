#include "device/checkpoint_restore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "device/directory_reader.h"
#include "util/log.h"
#include "util/text.h"

namespace qm {
namespace {

/// For calls relative to a directory, which need no right to read it.
constexpr int kDirectoryHandle = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// A relative path cut at its last "/"; the directory of a file in the root is empty.
std::pair<std::string, std::string> splitPath(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash), path.substr(slash + 1)};
}

/// A file beside its final place, under a name of its own; removed again unless it was put there.
class FileBeside {
public:
    /// `replaced` is the regular file that stands at the place, if any: its mode and owner go on. Until it has them,
    /// the new file is readable for nobody else.
    FileBeside(int directoryFd, const struct stat* replaced) : directoryFd_(directoryFd) {
        const mode_t mode = replaced == nullptr ? 0666 : 0600;
        do {
            name_ = CheckpointTree::newCopyName();
            fd_ = UniqueFd(::openat(directoryFd_, name_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        } while (!fd_ && errno == EEXIST);
        isHere_ = static_cast<bool>(fd_);
        if (fd_ && replaced != nullptr) takeOver(*replaced);
    }
    ~FileBeside() {
        if (isHere_) ::unlinkat(directoryFd_, name_.c_str(), 0);
    }
    FileBeside(const FileBeside&) = delete;
    FileBeside& operator=(const FileBeside&) = delete;

    /// -1 if the file couldn't be created.
    int fd() const { return fd_.get(); }

    /// Once everything is written; the descriptor is closed by this. Whether all of it is in place.
    bool putInPlace(const std::string& name) {
        if (!closeWritten(std::move(fd_))) return false;
        isHere_ = ::renameat(directoryFd_, name_.c_str(), directoryFd_, name.c_str()) != 0;
        return !isHere_;
    }

private:
    void takeOver(const struct stat& replaced) {
        // Only the superuser can give a file away. A file that stays somebody else's must not run with their rights.
        const bool sameOwner = ::fchown(fd_.get(), replaced.st_uid, replaced.st_gid) == 0;
        // After the owner, because a change of owner takes the special bits away.
        ::fchmod(fd_.get(), replaced.st_mode & (sameOwner ? 07777U : 0777U));
    }

    int directoryFd_;
    std::string name_;
    UniqueFd fd_;
    bool isHere_ = false;  ///< There is a file under `name_`.
};

class Restorer {
public:
    Restorer(const CheckpointTree& tree, const CheckpointBlobs& blobs, std::span<char> buffer)
        : tree_(tree), blobs_(blobs), buffer_(buffer) {}

    RestoreOutcome run(const RestorePlan& plan) {
        // What was added where a file or one of its directories belongs has to make room before.
        std::vector<std::string> failedDeletions;
        std::vector<const std::string*> remaining;
        const Obstacles obstacles(plan.toRestore);
        for (const auto& path : plan.toDelete) {
            if (obstacles.contain(path)) {
                remove(path, failedDeletions);
            } else {
                remaining.push_back(&path);
            }
        }
        for (const CheckpointFile* file : plan.toRestore) {
            if (tryRestoreFile(*file)) {
                ++outcome_.restoredFiles;
            } else {
                outcome_.failedPaths.push_back(file->path);
            }
        }
        for (const std::string* path : remaining)
            remove(*path, failedDeletions);
        std::move(failedDeletions.begin(), failedDeletions.end(), std::back_inserter(outcome_.failedPaths));
        for (const auto& path : plan.leftovers)
            unlink(path);
        return std::move(outcome_);
    }

private:
    /// Tells which files stand in the way of others.
    class Obstacles {
    public:
        explicit Obstacles(const std::vector<const CheckpointFile*>& toRestore) {
            for (const CheckpointFile* file : toRestore) {
                files_.insert(file->path);
                forEachParent(file->path, [this](std::string_view parent) { directories_.insert(parent); });
            }
        }

        bool contain(const std::string& path) const {
            bool belowFile = false;
            forEachParent(path, [&](std::string_view parent) { belowFile = belowFile || files_.contains(parent); });
            return belowFile || directories_.contains(path);
        }

    private:
        template <typename Action>
        static void forEachParent(std::string_view path, Action action) {
            for (auto slash = path.rfind('/'); slash != std::string_view::npos; slash = path.rfind('/')) {
                path = path.substr(0, slash);
                action(path);
            }
        }

        std::unordered_set<std::string_view> files_;
        std::unordered_set<std::string_view> directories_;
    };

    /// By now other files may have been changed, so a failure of any kind concerns this one only.
    bool tryRestoreFile(const CheckpointFile& file) {
        try {
            return restoreFile(file);
        } catch (const std::system_error& failure) {
            log(LogLevel::Warn, std::string("a file can't be restored: ") + failure.what());
            return false;
        }
    }

    bool restoreFile(const CheckpointFile& file) {
        const UniqueFd blob = blobs_.open(file.sha256);
        if (!blob) return false;
        const auto [directory, name] = splitPath(file.path);
        const UniqueFd parent = makeDirectory(directory);
        if (!parent) return false;

        struct stat status {};
        const bool exists = ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        if (exists && S_ISDIR(status.st_mode) && !removeEmptyTree(file.path)) return false;
        FileBeside copy(parent.get(), exists && S_ISREG(status.st_mode) ? &status : nullptr);
        return copy.fd() >= 0 && copyContent(blob.get(), copy.fd()) && holds(copy.fd(), file.sha256) &&
               copy.putInPlace(name);
    }

    bool copyContent(int from, int to) {
        struct stat status {};
        if (::fstat(from, &status) != 0) return false;
        bool written = true;
        const bool readable = readPieces(from, static_cast<std::uint64_t>(status.st_size), buffer_,
                                         [&](std::string_view piece) { written = written && writeFully(to, piece); });
        return readable && written;
    }

    bool holds(int fd, const std::string& sha256) {
        struct stat status {};
        if (::fstat(fd, &status) != 0) return false;
        const auto content = fingerprintFile(fd, static_cast<std::uint64_t>(status.st_size), buffer_);
        return content && equalsIgnoreCase(content->sha256, sha256);
    }

    /// Opens a directory of the tree, making those that are missing. Whatever else stands in the place of one is
    /// removed; if that were a file with a content to lose, it would be in the checkpoint or have been deleted by now.
    UniqueFd makeDirectory(const std::string& path) {
        UniqueFd directory = openDirectory("");
        for (std::size_t start = 0; directory && start < path.size();) {
            const auto slash = std::min(path.find('/', start), path.size());
            const std::string name = path.substr(start, slash - start);
            directory = enterDirectory(directory.get(), name);
            if (directory && tree_.isLeftOut(directory.get())) directory.reset();
            start = slash + 1;
        }
        return directory;
    }

    static UniqueFd enterDirectory(int parentFd, const std::string& name) {
        UniqueFd directory(::openat(parentFd, name.c_str(), kDirectoryHandle));
        if (directory) return directory;
        if (errno == ENOTDIR || errno == ELOOP) ::unlinkat(parentFd, name.c_str(), 0);
        if (::mkdirat(parentFd, name.c_str(), 0777) != 0) return {};
        return UniqueFd(::openat(parentFd, name.c_str(), kDirectoryHandle));
    }

    /// Removes a directory that holds nothing but directories of its kind; any other stays as it is.
    bool removeEmptyTree(const std::string& path) const {
        std::vector<std::string> directories{path};
        for (std::size_t index = 0; index < directories.size(); ++index) {
            if (!appendDirectoriesIn(directories[index], directories)) return false;
        }
        // Those farther down stand farther back.
        return std::all_of(directories.rbegin(), directories.rend(),
                           [this](const std::string& directory) { return removeDirectory(directory); });
    }

    /// Appends what the directory `path` holds to `directories`; false if that isn't only directories.
    bool appendDirectoriesIn(const std::string& path, std::vector<std::string>& directories) const {
        std::error_code error;
        UniqueFd fd = tree_.root().open(path, O_RDONLY | O_DIRECTORY, error);
        if (!fd) return false;
        DirectoryReader reader(std::move(fd));
        while (const DirectoryEntry* entry = reader.next(error)) {
            if (entry->type != EntryType::Directory) return false;
            directories.push_back(path + "/" + std::string(entry->name));
        }
        return !error;
    }

    /// Fails for a directory that holds anything, and for what is none.
    bool removeDirectory(const std::string& path) const {
        const auto [above, name] = splitPath(path);
        const UniqueFd parent = openDirectory(above);
        return parent && ::unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) == 0;
    }

    void remove(const std::string& path, std::vector<std::string>& failed) {
        const std::error_code error = unlink(path);
        if (!error) {
            ++outcome_.deletedFiles;
        } else if (error != std::errc::no_such_file_or_directory) {
            // One that somebody else removed meanwhile is as it should be.
            failed.push_back(path);
        }
    }

    /// Removes a file, and the directories above it that this empties.
    std::error_code unlink(const std::string& path) const {
        auto [directory, name] = splitPath(path);
        std::error_code error;
        const UniqueFd parent = tree_.root().open(directory, kDirectoryHandle, error);
        if (!parent) return error;
        if (::unlinkat(parent.get(), name.c_str(), 0) != 0) return {errno, std::generic_category()};
        while (!directory.empty() && removeDirectory(directory))
            directory = splitPath(directory).first;
        return {};
    }

    UniqueFd openDirectory(const std::string& path) const {
        std::error_code error;
        return tree_.root().open(path, kDirectoryHandle, error);
    }

    const CheckpointTree& tree_;
    const CheckpointBlobs& blobs_;
    std::span<char> buffer_;
    RestoreOutcome outcome_;
};

/// Whether the file at `path` has the content that the checkpoint remembers. One that could be read neither then nor
/// now is as it was, as far as anybody knows.
bool isUnchanged(const CheckpointTree& tree, const CheckpointTree::Walk& walk, const CheckpointFile& remembered,
                 std::span<char> buffer) {
    const bool isListed = std::binary_search(walk.files.begin(), walk.files.end(), remembered.path);
    const auto file = isListed ? tree.openFile(remembered.path) : tree.openUncertain(remembered.path);
    const auto content =
        file.fd ? fingerprintFile(file.fd.get(), file.sizeBytes, buffer) : std::optional<Fingerprint>();
    if (!content) return !file.missing && remembered.sha256.empty();
    return equalsIgnoreCase(content->sha256, remembered.sha256);
}

}  // namespace

RestorePlan planRestore(const CheckpointTree& tree, const CheckpointTree::Walk& walk,
                        const CheckpointManifest& manifest, std::span<char> buffer) {
    RestorePlan plan;
    std::unordered_set<std::string_view> remembered;
    for (const CheckpointFile& file : manifest.files) {
        remembered.insert(file.path);
        if (!isUnchanged(tree, walk, file, buffer)) plan.toRestore.push_back(&file);
    }
    const auto isAdded = [&remembered](const std::string& path) { return !remembered.contains(path); };
    std::copy_if(walk.files.begin(), walk.files.end(), std::back_inserter(plan.toDelete), isAdded);
    std::copy_if(walk.leftovers.begin(), walk.leftovers.end(), std::back_inserter(plan.leftovers), isAdded);
    return plan;
}

RestoreOutcome carryOutRestore(const CheckpointTree& tree, const RestorePlan& plan, const CheckpointBlobs& blobs,
                               std::span<char> buffer) {
    return Restorer(tree, blobs, buffer).run(plan);
}

}  // namespace qm
