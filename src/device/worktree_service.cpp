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
#include "util/unique_fd.h"

namespace qm {
namespace {

constexpr std::string_view kIdPrefix = "wt_";
constexpr std::size_t kIdLength = 8;
constexpr std::string_view kBranchPrefix = "quillmarsh/";

WorktreeService::CreateResult notCreated(std::string error) {
    return {false, {}, std::move(error)};
}

WorktreeService::RemoveResult notRemoved(bool hadUncommittedChanges, std::string error) {
    return {false, hadUncommittedChanges, std::move(error)};
}

/// Empty on success, otherwise the reason. Trees hold what may be private to the user in the workspace.
std::string makePrivateDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory.parent_path(), error);
    if (!error && ::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) error = {errno, std::generic_category()};
    return error ? error.message() : std::string();
}

std::int64_t leaseEnd(std::int64_t nowMs, std::int64_t leaseMs) {
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    return nowMs + std::min(leaseMs, kMax - std::max<std::int64_t>(nowMs, 0));
}

}  // namespace

WorktreeService::WorktreeService(const std::filesystem::path& dataDir, WorkspaceRegistry& workspaces,
                                 WorktreeTimeouts timeouts, ClockMs clock)
    : dataDir_(std::filesystem::absolute(dataDir)),
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
    const auto source = workspaces_.find(sourceWorkspace);
    if (!source) return notCreated("未知的 workspace：" + sourceWorkspace);
    std::string refusal = WorkspaceRegistry::requirePermission(*source, WorkspacePermission::READ_WRITE);
    if (!refusal.empty()) return notCreated(std::move(refusal));
    if (!WorktreeGit::succeeded(git_.run(source->hostPath, {"rev-parse", "--git-dir"}, timeouts_.revParseMs))) {
        return notCreated("该工作区不是 git 仓库，无法派生独立工作树");
    }
    if (list().size() >= kMaxTrees) {
        return notCreated("同时存在的工作树已达上限（" + std::to_string(kMaxTrees) + "），请先归还其中一个");
    }

    WorktreeRecord record;
    record.id = randomId(kIdPrefix, kIdLength);
    record.sourceWorkspace = source->id;
    record.branch = std::string(kBranchPrefix) + record.id;
    record.owner = owner;
    record.path = (dataDir_ / "worktrees" / record.id).string();
    std::string error = makePrivateDirectory(dataDir_ / "worktrees");
    if (!error.empty()) return notCreated("创建工作树失败：" + error);
    error = fillTree(source->hostPath, record);
    if (error.empty()) error = registerTree(record, *source);
    if (!error.empty()) {
        cleanUp(source->hostPath, record);
        return notCreated(std::move(error));
    }

    record.createdAtMs = clock_();
    record.expiresAtMs = leaseEnd(record.createdAtMs, leaseMs > 0 ? leaseMs : kDefaultLeaseMs);
    const std::lock_guard lock(mutex_);
    trees_.push_back(record);
    save();
    return {true, std::move(record), {}};
}

/// Git reads a repository's list of trees whenever it adds or removes a tree or a branch, and fails over an entry that
/// another process has only half written, so these calls are made one at a time. They are the short ones.
ProcessResult WorktreeService::changeRepository(const std::filesystem::path& source,
                                                const std::vector<std::string>& arguments,
                                                std::int32_t timeoutMs) const {
    const std::lock_guard lock(repositoryMutex_);
    return git_.run(source, arguments, timeoutMs);
}

/// Puts the tree on disk. Empty on success, otherwise the error's text. The tree is made empty and filled apart, so
/// that the long step has a time limit of its own.
std::string WorktreeService::fillTree(const std::filesystem::path& source, const WorktreeRecord& record) const {
    const auto added = changeRepository(source, {"worktree", "add", "--no-checkout", "-b", record.branch, record.path},
                                        timeouts_.addMs);
    if (!WorktreeGit::succeeded(added)) return WorktreeGit::failureText("创建工作树失败", added);
    const auto filled = git_.run(record.path, {"checkout"}, timeouts_.checkoutMs);
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

void WorktreeService::cleanUp(const std::filesystem::path& source, const WorktreeRecord& record) const {
    const auto removed = changeRepository(source, {"worktree", "remove", "--force", record.path}, timeouts_.cleanUpMs);
    // An attempt that was cut short may have left a directory that git doesn't take for a tree.
    if (!WorktreeGit::succeeded(removed)) removeDirectory(record);
    changeRepository(source, {"branch", "-D", record.branch}, timeouts_.deleteBranchMs);
}

WorktreeService::RemoveResult WorktreeService::remove(const std::string& id, bool force) {
    const auto record = find(id);
    if (!record) return notRemoved(false, "未知的 worktree：" + id);
    const auto source = workspaces_.find(record->sourceWorkspace);
    const bool changed = hasUncommittedChanges(*record);
    if (changed && !force) {
        return notRemoved(true, "工作树内还有未提交的改动；确认要丢弃请用 force=true");
    }
    const bool removedByGit =
        source && WorktreeGit::succeeded(changeRepository(
                      source->hostPath, {"worktree", "remove", "--force", record->path}, timeouts_.removeMs));
    if (!removedByGit) removeDirectory(*record);
    if (source) changeRepository(source->hostPath, {"branch", "-D", record->branch}, timeouts_.deleteBranchMs);
    forgetWorkspace(record->workspaceId);

    const std::lock_guard lock(mutex_);
    std::erase_if(trees_, [&id](const WorktreeRecord& tree) { return tree.id == id; });
    save();
    return {true, changed, {}};
}

/// A tree whose state can't be told, because it was deleted by hand or its repository is gone, has none: otherwise it
/// could never be given back.
bool WorktreeService::hasUncommittedChanges(const WorktreeRecord& record) const {
    const auto status = git_.run(record.path, {"status", "--porcelain"}, timeouts_.statusMs);
    if (WorktreeGit::succeeded(status)) return !status.stdoutText.empty();
    log(LogLevel::Warn, WorktreeGit::failureText("state of worktree " + record.id + " unknown", status));
    return false;
}

/// Removes the tree's directory without git. The only directory that can be meant is the one named by the id among all
/// trees; a record that says otherwise removes nothing.
void WorktreeService::removeDirectory(const WorktreeRecord& record) const {
    const std::filesystem::path trees = dataDir_ / "worktrees";
    const UniqueFd parent(::open(trees.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::error_code error;
    if (!isWorktreeId(record.id) || record.path != (trees / record.id).string()) {
        error = std::make_error_code(std::errc::invalid_argument);
    } else if (parent) {
        error = removeTreeAt(parent.get(), record.id);
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
