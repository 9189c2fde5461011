#include "device/worktree_service.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <limits>
#include <system_error>
#include <utility>

#include "device/workspace_registry.h"
#include "util/log.h"
#include "util/random_id.h"
#include "util/remove_tree.h"

namespace qm {
namespace {

constexpr std::string_view kIdPrefix = "wt_";
constexpr std::size_t kIdLength = 8;
constexpr std::string_view kBranchPrefix = "quillmarsh/";
constexpr char kStopping[] = "执行器正在停止";

WorktreeService::CreateResult notCreated(std::string error) {
    return {false, {}, std::move(error)};
}

WorktreeService::RemoveResult notRemoved(bool hadUncommittedChanges, std::string error) {
    return {false, hadUncommittedChanges, std::move(error)};
}

/// Makes an empty directory for a tree; empty on success, otherwise the reason. The directory of all trees is private,
/// because they hold what may be private to the user in the workspace.
std::string makeTreeDirectory(const std::filesystem::path& tree) {
    const std::filesystem::path trees = tree.parent_path();
    std::error_code error;
    std::filesystem::create_directories(trees.parent_path(), error);
    if (!error && ::mkdir(trees.c_str(), 0700) != 0 && errno != EEXIST) error = {errno, std::generic_category()};
    if (!error && ::mkdir(tree.c_str(), 0777) != 0) error = {errno, std::generic_category()};
    return error ? error.message() : std::string();
}

/// Trees are told by where they lie, so the same data directory always has the same path.
std::filesystem::path canonicalPath(const std::filesystem::path& directory) {
    const std::filesystem::path absolute = std::filesystem::absolute(directory);
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(absolute, error);
    return error ? absolute.lexically_normal() : canonical;
}

std::int64_t leaseEnd(std::int64_t nowMs, std::int64_t leaseMs) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    return nowMs + std::min(leaseMs, kMax - std::max<std::int64_t>(nowMs, 0));
}

}  // namespace

WorktreeService::WorktreeService(const std::filesystem::path& dataDir, WorkspaceRegistry& workspaces,
                                 WorktreeTimeouts timeouts, ClockMs clock)
    : dataDir_(canonicalPath(dataDir)),
      workspaces_(workspaces),
      timeouts_(timeouts),
      clock_(std::move(clock)),
      git_(dataDir_ / "worktrees") {}

void WorktreeService::reload() {
    const std::lock_guard lock(mutex_);
    trees_ = readWorktreeFile(dataDir_ / "worktrees.json");
}

WorktreeService::CreateResult WorktreeService::create(const std::string& sourceWorkspace, const std::string& owner,
                                                      std::int64_t leaseMs) {
    const auto workspace = workspaces_.find(sourceWorkspace);
    if (!workspace) return notCreated("未知的 workspace：" + sourceWorkspace);
    std::string refusal = WorkspaceRegistry::requirePermission(*workspace, WorkspacePermission::READ_WRITE);
    if (!refusal.empty()) return notCreated(std::move(refusal));
    const auto source = findSource(workspace->hostPath);
    if (!source) return notCreated(git_.isShutDown() ? kStopping : "该工作区不是 git 仓库，无法派生独立工作树");
    if (list().size() >= kMaxTrees) {
        return notCreated("同时存在的工作树已达上限（" + std::to_string(kMaxTrees) + "），请先归还其中一个");
    }

    WorktreeRecord record;
    record.id = randomId(kIdPrefix, kIdLength);
    record.sourceWorkspace = workspace->id;
    record.branch = std::string(kBranchPrefix) + record.id;
    record.owner = owner;
    record.path = (dataDir_ / "worktrees" / record.id).string();
    std::string error = makeTreeDirectory(record.path);
    if (!error.empty()) return notCreated("创建工作树失败：" + error);
    error = fillTree(*source, record);
    if (error.empty()) error = registerTree(record, *workspace);
    if (!error.empty()) {
        discard(&*source, record, timeouts_.cleanUpMs);
        return notCreated(git_.isShutDown() ? kStopping : std::move(error));
    }

    record.createdAtMs = clock_();
    record.expiresAtMs = leaseEnd(record.createdAtMs, leaseMs > 0 ? leaseMs : kDefaultLeaseMs);
    const std::lock_guard lock(mutex_);
    trees_.push_back(record);
    save();
    return {true, std::move(record), {}};
}

/// A directory that git takes for a repository's, and whose parts belong together.
std::optional<WorktreeService::Source> WorktreeService::findSource(const std::filesystem::path& path) const {
    GitCall call{.directory = path, .arguments = {"rev-parse", "--git-dir"}, .timeoutMs = timeouts_.revParseMs};
    if (!WorktreeGit::succeeded(git_.run(call))) return std::nullopt;
    auto repository = WorktreeRepository::find(path, dataDir_ / "worktrees");
    if (!repository) return std::nullopt;
    return Source{path, std::move(*repository)};
}

std::shared_ptr<std::mutex> WorktreeService::mutexOf(const DirectoryId& repository) const {
    const std::lock_guard lock(repositoriesMutex_);
    std::erase_if(repositories_, [](const auto& each) { return each.second.expired(); });
    auto& known = repositories_[repository];
    auto mutex = known.lock();
    if (!mutex) known = mutex = std::make_shared<std::mutex>();
    return mutex;
}

/// Runs git in the source, where it may change the repository and the tree. Git reads a repository's list of trees
/// whenever it adds or removes a tree or a branch, and fails over an entry that another process has only half written,
/// so these calls are made one at a time in each repository. They are the short ones.
ProcessResult WorktreeService::changeRepository(const Source& source, const WorktreeRecord& record,
                                                std::vector<std::string> arguments, std::int32_t timeoutMs) const {
    const PinnedDirectory& common = source.repository.common();
    const auto mutex = mutexOf(common.id());
    const std::lock_guard lock(*mutex);
    const auto tree = openTree(record);
    GitCall call{.directory = source.path, .arguments = std::move(arguments), .timeoutMs = timeoutMs};
    call.gitDirectory = source.repository.gitDirectory();
    if (call.gitDirectory != common.path()) call.commonDirectory = common.path();
    call.writable.push_back(common.handle());
    if (tree) call.writable.push_back(tree->handle());
    return git_.run(call);
}

/// Runs git in the tree. What its file `.git` says is not asked if that can be helped: whoever works in the tree can
/// write it, and what it leads to would then decide what git does to the repository. Without a known repository git may
/// change nothing at all.
ProcessResult WorktreeService::runInTree(const Source* source, const WorktreeRecord& record,
                                         std::vector<std::string> arguments, std::int32_t timeoutMs,
                                         bool changesTree) const {
    const auto gitDirectory = source != nullptr ? source->repository.gitDirectoryOf(record) : std::nullopt;
    const auto tree = changesTree ? openTree(record) : std::nullopt;
    GitCall call{.directory = record.path, .arguments = std::move(arguments), .timeoutMs = timeoutMs};
    call.gitDirectory = gitDirectory.value_or(std::filesystem::path(record.path) / ".git");
    if (gitDirectory) {
        call.commonDirectory = source->repository.common().path();
        call.writable.push_back(source->repository.common().handle());
        if (tree) call.writable.push_back(tree->handle());
    }
    return git_.run(call);
}

/// Puts the tree on disk. Empty on success, otherwise the error's text. The tree is made empty and filled apart, so
/// that the long step has a time limit of its own.
std::string WorktreeService::fillTree(const Source& source, const WorktreeRecord& record) const {
    const auto added = changeRepository(
        source, record, {"worktree", "add", "--no-checkout", "-b", record.branch, record.path}, timeouts_.addMs);
    if (!WorktreeGit::succeeded(added)) return WorktreeGit::failureText("创建工作树失败", added);
    const auto filled = runInTree(&source, record, {"checkout"}, timeouts_.checkoutMs, true);
    if (!WorktreeGit::succeeded(filled)) return WorktreeGit::failureText("填充工作树失败", filled);
    return {};
}

/// Makes the tree a workspace. Empty on success, otherwise the error's text.
std::string WorktreeService::registerTree(WorktreeRecord& record, const Workspace& source) const {
    static constexpr char kFailure[] = "无法注册工作树为工作区：";
    const std::string label = "worktree " + record.id;
    try {
        auto added = workspaces_.add(record.path, label, source.permission);
        if (!added.workspace) return kFailure + added.error;
        record.workspaceId = added.workspace->id;
        return {};
    } catch (const std::exception& failure) {
        // The registry could not save, but has the workspace in its table by now.
        for (const auto& workspace : workspaces_.list()) {
            if (workspace.label == label) forgetWorkspace(workspace.id);
        }
        return std::string(kFailure) + failure.what();
    }
}

/// Removes directory, entry in the repository and branch, each as far as it is there. Git may not write the directory
/// of all trees, so that of the tree is always left for removeDirectory(), as it is by an attempt that was cut short.
/// It also refuses what it finds locked, which an addition is that was killed, and its branch with it.
void WorktreeService::discard(const Source* source, const WorktreeRecord& record, std::int32_t timeoutMs) const {
    if (source != nullptr) {
        changeRepository(*source, record, {"worktree", "remove", "--force", record.path}, timeoutMs);
    }
    removeDirectory(record);
    if (source == nullptr) return;
    if (const auto error = source->repository.forget(record)) {
        log(LogLevel::Warn, "worktree " + record.id + " stays in its repository's list: " + error.message());
    }
    changeRepository(*source, record, {"branch", "-D", record.branch}, timeouts_.deleteBranchMs);
}

WorktreeService::RemoveResult WorktreeService::remove(const std::string& id, bool force) {
    const auto record = find(id);
    if (!record) return notRemoved(false, "未知的 worktree：" + id);
    std::optional<Source> source;
    if (const auto workspace = workspaces_.find(record->sourceWorkspace)) {
        auto repository = WorktreeRepository::find(workspace->hostPath, dataDir_ / "worktrees");
        if (repository) source = Source{workspace->hostPath, std::move(*repository)};
    }
    const Source* from = source ? &*source : nullptr;
    const bool changed = hasUncommittedChanges(from, *record);
    if (git_.isShutDown()) return notRemoved(changed, kStopping);
    if (changed && !force) {
        return notRemoved(true, "工作树内还有未提交的改动；确认要丢弃请用 force=true");
    }
    discard(from, *record, timeouts_.removeMs);
    // The record stays, so that what is left can be taken back after the next start.
    if (git_.isShutDown()) return notRemoved(changed, kStopping);
    forgetWorkspace(record->workspaceId);

    const std::lock_guard lock(mutex_);
    std::erase_if(trees_, [&id](const WorktreeRecord& tree) { return tree.id == id; });
    save();
    return {true, changed, {}};
}

/// A tree whose state can't be told, because it was deleted by hand or its repository is gone, has none: otherwise it
/// could never be given back.
bool WorktreeService::hasUncommittedChanges(const Source* source, const WorktreeRecord& record) const {
    const auto status = runInTree(source, record, {"status", "--porcelain"}, timeouts_.statusMs, false);
    if (WorktreeGit::succeeded(status)) return !status.stdoutText.empty();
    log(LogLevel::Warn, WorktreeGit::failureText("state of worktree " + record.id + " unknown", status));
    return false;
}

/// Opens the directory of all trees. Empty unless the record's path is the one that its id names there: a record that
/// says otherwise stands for no directory. What leads there is compared by its inode, for a path can be written in many
/// ways.
UniqueFd WorktreeService::openTrees(const WorktreeRecord& record) const {
    const std::filesystem::path path = record.path;
    UniqueFd trees(::open((dataDir_ / "worktrees").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!trees) return {};
    if (!isWorktreeDirectoryName(record.id) || path.filename() != record.id ||
        directoryId(path.parent_path()) != directoryId(trees.get())) {
        errno = EINVAL;
        return {};
    }
    return trees;
}

/// The tree's own directory; nothing if that is gone, or something else stands in its place.
std::optional<PinnedDirectory> WorktreeService::openTree(const WorktreeRecord& record) const {
    const UniqueFd trees = openTrees(record);
    return trees ? PinnedDirectory::openEntry(trees.get(), record.id) : std::nullopt;
}

void WorktreeService::removeDirectory(const WorktreeRecord& record) const {
    const UniqueFd trees = openTrees(record);
    std::error_code error;
    if (trees) {
        error = removeTreeAt(trees.get(), record.id);
    } else if (errno != ENOENT) {
        error = {errno, std::generic_category()};
    }
    if (error) log(LogLevel::Warn, "worktree " + record.id + " is left on disk: " + error.message());
}

void WorktreeService::forgetWorkspace(const std::string& workspaceId) const {
    try {
        workspaces_.remove(workspaceId);
    } catch (const std::exception& failure) {
        // Gone from the table all the same; it is back after a restart, with a directory that isn't there.
        log(LogLevel::Warn, "workspace " + workspaceId + " of a worktree stays in the file: " + failure.what());
    }
}

std::vector<WorktreeRecord> WorktreeService::list() const {
    const std::lock_guard lock(mutex_);
    return trees_;
}

std::optional<WorktreeRecord> WorktreeService::find(const std::string& id) const {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(trees_.begin(), trees_.end(), [&id](const WorktreeRecord& tree) { return tree.id == id; });
    return found == trees_.end() ? std::nullopt : std::optional(*found);
}

void WorktreeService::prune(std::int64_t nowMs) {
    for (const auto& tree : list()) {
        if (tree.expiresAtMs <= 0 || tree.expiresAtMs >= nowMs) continue;
        const auto result = remove(tree.id, true);
        if (!result.ok) {
            log(LogLevel::Warn, "expired worktree " + tree.id + " not reclaimed: " + result.error);
        } else {
            log(LogLevel::Info, "reclaimed expired worktree " + tree.id +
                                    (result.hadUncommittedChanges ? ", uncommitted changes discarded" : ""));
        }
    }
}

/// The table in memory counts while the process lives, so a file that can't be written is no reason to fail.
void WorktreeService::save() const {
    try {
        writeWorktreeFile(dataDir_ / "worktrees.json", trees_);
    } catch (const std::exception& failure) {
        log(LogLevel::Warn, std::string("table of worktrees not saved: ") + failure.what());
    }
}

}  // namespace qm
