#include "device/worktree_capabilities.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "capabilities/capability_arguments.h"
#include "device/capability_table.h"
#include "device/worktree_service.h"
#include "util/json.h"

namespace qm {
namespace {

using Handler = json (*)(WorktreeService& worktrees, const json& arguments);

json createParameters() {
    return json{{"type", "object"},
                {"properties",
                 {{"workspace", parameterOfType("string", "Source workspace handle (must be a git repo).")},
                  {"owner", parameterOfType("string", "Who this tree is for; recorded for audit.")},
                  {"leaseMinutes", parameterOfType("integer", "Lease length; expired trees are reclaimed.")}}},
                {"required", {"workspace"}}};
}

json listParameters() {
    return json{{"type", "object"}, {"properties", json::object()}};
}

json removeParameters() {
    return json{{"type", "object"},
                {"properties",
                 {{"worktree", parameterOfType("string", "Worktree handle from create_worktree.")},
                  {"force", parameterOfType("boolean", "Discard uncommitted changes.")}}},
                {"required", {"worktree"}}};
}

json treeResult(const WorktreeRecord& record) {
    return {{"worktree", record.id},
            {"workspace", record.workspaceId},
            {"sourceWorkspace", record.sourceWorkspace},
            {"branch", record.branch},
            {"owner", record.owner},
            {"createdAtMs", record.createdAtMs},
            {"expiresAtMs", record.expiresAtMs}};
}

/// Milliseconds, at most what 64 bits hold; 0 or less stands for the default.
std::int64_t leaseOf(const json& arguments) {
    constexpr std::int64_t kMsPerMinute = 60'000;
    const std::int64_t minutes = integerArgument(arguments, "leaseMinutes", 0);
    return std::clamp<std::int64_t>(minutes, 0, std::numeric_limits<std::int64_t>::max() / kMsPerMinute) * kMsPerMinute;
}

json createWorktree(WorktreeService& worktrees, const json& arguments) {
    auto created =
        worktrees.create(textArgument(arguments, "workspace"), textArgument(arguments, "owner"), leaseOf(arguments));
    if (!created.ok) return json{{"error", std::move(created.error)}};
    json result = treeResult(created.record);
    result["note"] =
        "在返回的 workspace 句柄里操作文件与命令；完成后请调用 "
        "remove_worktree。注意：这是工作树隔离，不是权限沙箱。";
    return result;
}

json listWorktrees(WorktreeService& worktrees, const json&) {
    const auto trees = worktrees.list();
    json results = json::array();
    std::transform(trees.begin(), trees.end(), std::back_inserter(results), treeResult);
    return json{{"worktrees", std::move(results)}};
}

json removeWorktree(WorktreeService& worktrees, const json& arguments) {
    const bool force = boolArgument(arguments, "force", false);
    auto removed = worktrees.remove(textArgument(arguments, "worktree"), force);
    if (!removed.ok) {
        return json{{"error", std::move(removed.error)}, {"hadUncommittedChanges", removed.hadUncommittedChanges}};
    }
    return json{{"removed", true},
                {"hadUncommittedChanges", removed.hadUncommittedChanges},
                {"discardedUncommittedChanges", removed.hadUncommittedChanges && force}};
}

constexpr std::array<CapabilityEntry<Handler>, 3> kEntries{{
    {"create_worktree", "创建隔离工作树", "WRITE",
     "Derive an isolated git worktree from a workspace so parallel work does not collide. Returns a workspace handle "
     "scoped to the new tree.",
     createWorktree, createParameters},
    {"list_worktrees", "列出隔离工作树", "READ_ONLY", "List the isolated worktrees currently derived on this device.",
     listWorktrees, listParameters},
    {"remove_worktree", "归还隔离工作树", "WRITE",
     "Remove an isolated worktree and its workspace handle. Refuses when the tree still has uncommitted changes unless "
     "force is set.",
     removeWorktree, removeParameters},
}};

}  // namespace

void registerWorktreeCapabilities(CapabilityRegistry& registry, WorktreeService& worktrees) {
    registerTable(registry, kEntries,
                  [&worktrees](Handler handler, const json& arguments) { return handler(worktrees, arguments); });
}

}  // namespace qm
