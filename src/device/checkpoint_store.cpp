#include "device/checkpoint_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include "util/log.h"
#include "util/random_id.h"
#include "util/remove_tree.h"

namespace qm {
namespace {

constexpr char kManifestFile[] = "manifest.json";
constexpr char kUnfinishedManifestFile[] = "manifest.json.part";
constexpr char kBlobsDirectory[] = "blobs";
constexpr std::string_view kIdPrefix = "ck_";
constexpr std::size_t kIdLength = 10;
/// Copies of a workspace are for nobody's eyes but the user's.
constexpr mode_t kDirectoryMode = 0700;
constexpr mode_t kManifestMode = 0600;

[[noreturn]] void throwLastError(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

UniqueFd openDirectory(int parentFd, const char* name) {
    return UniqueFd(::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// What a store doesn't hold is an answer; what can't be opened for another reason than its own is none.
UniqueFd unlessShort(UniqueFd fd) {
    if (!fd) throwIfShortage(errno, "cannot open a checkpoint");
    return fd;
}

/// The root itself may be reached through links: where the data directory lies is its owner's choice.
UniqueFd openRoot(const std::filesystem::path& root) {
    return UniqueFd(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool isValidId(std::string_view id) {
    return id.starts_with(kIdPrefix) && id.find("..") == std::string_view::npos &&
           id.find_first_of("/\\") == std::string_view::npos;
}

/// A name that the kernel would read differently than this program names nothing.
bool isFileName(std::string_view id) {
    return isValidId(id) && id.find('\0') == std::string_view::npos;
}

UniqueFd openManifest(int storeFd, const std::string& id) {
    if (!isFileName(id)) return {};
    const UniqueFd directory = unlessShort(openDirectory(storeFd, id.c_str()));
    if (!directory) return {};
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    return unlessShort(UniqueFd(::openat(directory.get(), kManifestFile, kFlags)));
}

/// Makes a directory under a new id, which it returns.
std::string makeCheckpointDirectory(int storeFd) {
    for (;;) {
        std::string id = randomId(kIdPrefix, kIdLength);
        if (::mkdirat(storeFd, id.c_str(), kDirectoryMode) == 0) return id;
        if (errno != EEXIST) throwLastError("cannot create a checkpoint");
    }
}

std::optional<std::string> readWhole(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return readAt(fd, 0, static_cast<std::uint64_t>(status.st_size));
}

std::vector<std::string> listIds(int storeFd) {
    UniqueFd copy = openDirectory(storeFd, ".");
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(copy ? ::fdopendir(copy.get()) : nullptr, ::closedir);
    if (!stream) throwLastError("cannot list the checkpoints");
    (void)copy.release();  // The stream closes it.
    std::vector<std::string> ids;
    while (const dirent* entry = ::readdir(stream.get())) {
        if (isValidId(entry->d_name)) ids.emplace_back(entry->d_name);
    }
    return ids;
}

}  // namespace

CheckpointDraft::CheckpointDraft(UniqueFd store, std::string id) : store_(std::move(store)), id_(std::move(id)) {}

void CheckpointDraft::makeBlobs() {
    directory_ = openDirectory(store_.get(), id_.c_str());
    if (!directory_ || ::mkdirat(directory_.get(), kBlobsDirectory, kDirectoryMode) != 0) {
        throwLastError("cannot create a checkpoint");
    }
    UniqueFd blobs = openDirectory(directory_.get(), kBlobsDirectory);
    if (!blobs) throwLastError("cannot create a checkpoint");
    blobs_ = CheckpointBlobs(std::move(blobs));
}

CheckpointDraft::~CheckpointDraft() {
    if (kept_) return;
    if (const auto error = removeTreeAt(store_.get(), id_)) {
        log(LogLevel::Warn, "unfinished checkpoint " + id_ + " is left behind: " + error.message());
    }
}

void CheckpointDraft::keep(const CheckpointManifest& manifest) {
    const std::string text = manifestText(manifest);
    UniqueFd file(
        ::openat(directory_.get(), kUnfinishedManifestFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kManifestMode));
    if (!file || !writeFully(file.get(), text) || !closeWritten(std::move(file)) ||
        ::renameat(directory_.get(), kUnfinishedManifestFile, directory_.get(), kManifestFile) != 0) {
        throwLastError("cannot write a checkpoint's manifest");
    }
    kept_ = true;
}

std::unique_ptr<CheckpointDraft> CheckpointStore::begin() const {
    std::filesystem::create_directories(root_.parent_path());
    if (::mkdir(root_.c_str(), kDirectoryMode) != 0 && errno != EEXIST) throwLastError("cannot create the store");
    UniqueFd store = openRoot(root_);
    if (!store) throwLastError("cannot open the store");
    std::string id = makeCheckpointDirectory(store.get());
    auto draft = std::make_unique<CheckpointDraft>(std::move(store), std::move(id));
    draft->makeBlobs();
    return draft;
}

CheckpointStore::ReadResult CheckpointStore::read(const std::string& id) const {
    if (!isValidId(id)) return {id, std::nullopt, "无效的 checkpoint id"};
    const UniqueFd store = unlessShort(openRoot(root_));
    const UniqueFd file = store ? openManifest(store.get(), id) : UniqueFd();
    const auto text = file ? readWhole(file.get()) : std::nullopt;
    if (!text) return {id, std::nullopt, "checkpoint 不存在或已被清理：" + id};
    auto manifest = parseManifest(*text);
    if (!manifest) return {id, std::nullopt, "checkpoint 清单损坏：" + id};
    return {id, std::move(manifest), {}};
}

CheckpointBlobs CheckpointStore::blobs(const std::string& id) const {
    const UniqueFd store = unlessShort(openRoot(root_));
    if (!store || !isFileName(id)) return CheckpointBlobs({});
    const UniqueFd directory = unlessShort(openDirectory(store.get(), id.c_str()));
    return CheckpointBlobs(directory ? unlessShort(openDirectory(directory.get(), kBlobsDirectory)) : UniqueFd());
}

std::vector<std::string> CheckpointStore::idsOfWorkspace(std::string_view workspaceId) const {
    const UniqueFd store = unlessShort(openRoot(root_));
    if (!store) return {};
    std::vector<std::pair<std::int64_t, std::string>> found;
    for (auto& id : listIds(store.get())) {
        const UniqueFd file = openManifest(store.get(), id);
        const auto summary = file ? readManifestSummary(file.get()) : std::nullopt;
        if (summary && summary->workspaceId == workspaceId) found.emplace_back(summary->sortKey, std::move(id));
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> ids;
    ids.reserve(found.size());
    for (auto& [sortKey, id] : found)
        ids.push_back(std::move(id));
    return ids;
}

void CheckpointStore::remove(const std::string& id) const {
    const UniqueFd store = openRoot(root_);
    if (!store || !isFileName(id)) return;
    const UniqueFd directory = openDirectory(store.get(), id.c_str());
    std::error_code error;
    // Without its manifest a directory is no checkpoint: one that is removed half, by a process that dies, is never
    // taken for whole.
    if (directory && ::unlinkat(directory.get(), kManifestFile, 0) != 0 && errno != ENOENT) {
        error = {errno, std::generic_category()};
    } else {
        error = removeTreeAt(store.get(), id);
    }
    if (error) log(LogLevel::Warn, "checkpoint " + id + " can't be removed whole: " + error.message());
}

}  // namespace qm
