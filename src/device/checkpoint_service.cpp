#include "device/checkpoint_service.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <span>
#include <system_error>
#include <utility>

#include "device/canonical_path.h"
#include "device/checkpoint_diff.h"
#include "device/checkpoint_restore.h"
#include "device/workspace_registry.h"
#include "util/json.h"
#include "util/log.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr std::size_t kMaxGitHeadBytes = 200;
constexpr std::size_t kMaxUnrestorablePaths = 5;
constexpr char kNoRoot[] = "工作区根目录不可用";

json errorResult(std::string text) {
    return {{"error", std::move(text)}};
}

/// Space for reading; every content passes through it, so it bounds the memory that an operation takes.
class ReadBuffer {
public:
    std::span<char> span() { return {bytes_.get(), kBytes}; }

private:
    static constexpr std::size_t kBytes = 262144;
    std::unique_ptr<char[]> bytes_ = std::make_unique_for_overwrite<char[]>(kBytes);
};

/// Records that were written by hand may lead through links, or be relative. Throws std::system_error if the path can't
/// be followed; one that leads nowhere is left for the walk to tell.
std::filesystem::path canonicalRoot(const std::filesystem::path& hostPath) {
    std::error_code error;
    const auto absolute = std::filesystem::absolute(hostPath, error);
    if (error || absolute.empty()) throw std::system_error(ENOENT, std::generic_category(), kNoRoot);
    auto root = followLinks("/", withoutTrailingSlashes(absolute.native()));
    if (root.error) throw std::system_error(root.error, kNoRoot);
    return std::move(root.path);
}

std::string readGitHead(const CheckpointTree& tree) {
    const auto file = tree.openUncertain(".git/HEAD");
    // More than this is white space, or cut off anyway.
    const auto text = file.fd ? readAt(file.fd.get(), 0, std::min<std::uint64_t>(file.sizeBytes, 4096)) : std::nullopt;
    return text ? std::string(trimmed(*text, " \t\r\n").substr(0, kMaxGitHeadBytes)) : std::string();
}

/// Puts files into a checkpoint one after the other, within its limits.
class Capture {
public:
    Capture(const CheckpointTree& tree, const CheckpointBlobs& blobs, const CheckpointLimits& limits)
        : tree_(tree), blobs_(blobs), limits_(limits) {}

    /// Throws std::system_error if the content can't be stored.
    CheckpointFile take(const std::string& path) {
        CheckpointFile result;
        result.path = path;
        const auto file = tree_.openFile(path);
        result.sizeBytes = file.sizeBytes;
        if (!file.fd) return result;
        const bool fits = file.sizeBytes <= limits_.maxFileBytes && file.sizeBytes + total_ <= limits_.maxTotalBytes;
        const auto content = fits ? blobs_.store(file.fd.get(), file.sizeBytes, buffer_.span())
                                  : fingerprintFile(file.fd.get(), file.sizeBytes, buffer_.span());
        if (!content) return result;
        result.sizeBytes = content->sizeBytes;
        result.sha256 = content->sha256;
        result.captured = fits;
        if (fits) total_ += content->sizeBytes;
        return result;
    }

private:
    const CheckpointTree& tree_;
    const CheckpointBlobs& blobs_;
    const CheckpointLimits& limits_;
    std::uint64_t total_ = 0;
    ReadBuffer buffer_;
};

/// Files whose content the checkpoint doesn't hold, the first few.
json unrestorablePaths(const RestorePlan& plan, const CheckpointBlobs& blobs) {
    json paths = json::array();
    for (const CheckpointFile* file : plan.toRestore) {
        if (paths.size() == kMaxUnrestorablePaths) break;
        if (!file->captured || !blobs.open(file->sha256)) paths.push_back(file->path);
    }
    return paths;
}

json restoreResult(const std::string& checkpointId, const RestoreOutcome& outcome) {
    const bool verified = outcome.failedPaths.empty();
    json result{{"checkpoint", checkpointId},
                {"restoredFiles", outcome.restoredFiles},
                {"deletedFiles", outcome.deletedFiles},
                {"verified", verified},
                {"partial", !verified}};
    if (!verified) {
        result["failedPaths"] = outcome.failedPaths;
        result["error"] = "部分文件恢复失败，工作区可能处于中间状态；请检查 failedPaths。";
    }
    return result;
}

}  // namespace

CheckpointService::CheckpointService(const std::filesystem::path& dataDir, CheckpointLimits limits, ClockNs wallClockNs)
    : dataDir_(dataDir), store_(dataDir / "checkpoints"), limits_(limits), wallClockNs_(std::move(wallClockNs)) {}

std::int64_t CheckpointService::systemClockNs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

/// Runs one operation at a time and turns what it throws into its result.
template <typename Operation>
json CheckpointService::guarded(Operation operation) {
    const std::lock_guard lock(mutex_);
    try {
        return operation();
    } catch (const std::exception& failure) {
        log(LogLevel::Warn, std::string("checkpoint operation failed: ") + failure.what());
        return errorResult(failure.what());
    }
}

json CheckpointService::create(const Workspace& workspace, const std::string& label) {
    return guarded([&] { return createLocked(workspace, label); });
}

json CheckpointService::diff(const Workspace& workspace, const std::string& checkpointId) {
    return guarded([&] { return diffLocked(workspace, checkpointId); });
}

json CheckpointService::restore(const Workspace& workspace, const std::string& checkpointId) {
    return guarded([&] { return restoreLocked(workspace, checkpointId); });
}

json CheckpointService::createLocked(const Workspace& workspace, const std::string& label) {
    std::unique_ptr<CheckpointDraft> draft;
    const auto failed = [](const char* text, const std::system_error& cause) {
        log(LogLevel::Warn, std::string("checkpoint not created: ") + cause.what());
        return errorResult(text);
    };
    try {
        draft = store_.begin();
    } catch (const std::system_error& cause) {
        return failed("无法创建 checkpoint 存储目录", cause);
    }

    const CheckpointTree tree = openTree(workspace);
    auto walk = tree.walk(limits_.maxFiles);
    CheckpointManifest manifest = describe(tree, workspace, label);
    manifest.id = draft->id();
    manifest.clipped = walk.clipped;
    manifest.complete = !walk.clipped && !walk.namesLeftOut;
    manifest.files.reserve(walk.files.size());
    try {
        Capture capture(tree, draft->blobs(), limits_);
        for (const auto& path : walk.files) {
            manifest.files.push_back(capture.take(path));
            if (!manifest.files.back().captured) manifest.complete = false;
        }
    } catch (const std::system_error& cause) {
        return failed("无法写入 checkpoint 内容", cause);
    }
    try {
        draft->keep(manifest);
    } catch (const std::system_error& cause) {
        return failed("无法写入 checkpoint 清单", cause);
    }
    prune(workspace.id, manifest.id);

    json result{{"checkpoint", manifest.id}, {"fileCount", manifest.files.size()}, {"complete", manifest.complete}};
    if (manifest.clipped) {
        result["warning"] = "工作区文件数超过快照上限，快照不完整；未纳入的文件无法 diff/恢复。";
    } else if (!manifest.complete) {
        result["warning"] = "部分文件超过内容预算，只记录了指纹；这些文件改动后无法恢复。";
    }
    return result;
}

CheckpointManifest CheckpointService::describe(const CheckpointTree& tree, const Workspace& workspace,
                                               const std::string& label) const {
    constexpr std::int64_t kNsPerMs = 1'000'000;
    CheckpointManifest manifest;
    manifest.workspaceId = workspace.id;
    manifest.label = label;
    manifest.createdAtNs = wallClockNs_();
    manifest.createdAtMs = manifest.createdAtNs / kNsPerMs;
    manifest.gitHead = readGitHead(tree);
    return manifest;
}

/// Removes the oldest checkpoints of a workspace. The one just made stays even if the clock says that it is the oldest.
void CheckpointService::prune(const std::string& workspaceId, const std::string& spared) const {
    try {
        auto ids = store_.idsOfWorkspace(workspaceId);
        std::erase(ids, spared);
        const std::size_t others = limits_.retained - 1;
        for (std::size_t index = 0; index + others < ids.size(); ++index)
            store_.remove(ids[index]);
    } catch (const std::exception& failure) {
        // The checkpoint stands; only old ones stay longer.
        log(LogLevel::Warn, std::string("old checkpoints can't be removed: ") + failure.what());
    }
}

json CheckpointService::diffLocked(const Workspace& workspace, const std::string& checkpointId) {
    const auto found = checkpointId.empty() ? readLatest(workspace) : readOwn(workspace, checkpointId);
    if (!found.manifest) return errorResult(found.error);
    const CheckpointManifest& manifest = *found.manifest;
    const CheckpointTree tree = openTree(workspace);
    const auto walk = tree.walk(limits_.maxFiles);
    ReadBuffer buffer;
    auto difference = diffCheckpoint(tree, walk, manifest, store_.blobs(found.id), buffer.span());
    return {{"checkpoint", found.id},
            {"createdAtMs", manifest.createdAtMs},
            {"complete", manifest.complete},
            {"changes", std::move(difference.changes)},
            {"changeCount", difference.changeCount},
            {"listTruncated", difference.listTruncated},
            {"diffTruncated", difference.diffTruncated}};
}

json CheckpointService::restoreLocked(const Workspace& workspace, const std::string& checkpointId) {
    const auto found = readOwn(workspace, checkpointId);
    if (!found.manifest) return errorResult(found.error);
    if (found.manifest->clipped) return errorResult("该 checkpoint 建立时文件数超上限，快照不完整，拒绝恢复。");
    const CheckpointTree tree = openTree(workspace);
    const auto walk = tree.walk(limits_.maxFiles);
    if (walk.clipped) return errorResult("当前工作区文件数超过上限，拒绝恢复以避免遗漏新增文件。");

    ReadBuffer buffer;
    const CheckpointBlobs blobs = store_.blobs(found.id);
    const RestorePlan plan = planRestore(tree, walk, *found.manifest, buffer.span());
    json unrestorable = unrestorablePaths(plan, blobs);
    if (!unrestorable.empty()) {
        json result = errorResult("以下文件的快照内容未被捕获（超预算），无法恢复；整体拒绝以避免部分恢复。");
        result["unrestorable"] = std::move(unrestorable);
        return result;
    }
    return restoreResult(found.id, carryOutRestore(tree, plan, blobs, buffer.span()));
}

CheckpointStore::ReadResult CheckpointService::readOwn(const Workspace& workspace,
                                                       const std::string& checkpointId) const {
    auto found = store_.read(checkpointId);
    if (found.manifest && found.manifest->workspaceId != workspace.id) {
        found.manifest.reset();
        found.error = "checkpoint 不属于该 workspace";
    }
    return found;
}

/// The newest checkpoint that can be read whole.
CheckpointStore::ReadResult CheckpointService::readLatest(const Workspace& workspace) const {
    auto ids = store_.idsOfWorkspace(workspace.id);
    for (auto id = ids.rbegin(); id != ids.rend(); ++id) {
        auto found = readOwn(workspace, *id);
        if (found.manifest) return found;
    }
    return {{}, std::nullopt, "该工作区还没有 checkpoint，请先调用 create_checkpoint。"};
}

CheckpointTree CheckpointService::openTree(const Workspace& workspace) const {
    return {canonicalRoot(workspace.hostPath), directoryId(dataDir_)};
}

}  // namespace qm
