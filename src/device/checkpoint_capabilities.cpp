#include "device/checkpoint_capabilities.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "capabilities/capability_arguments.h"
#include "device/capability_table.h"
#include "device/checkpoint_service.h"
#include "device/workspace_registry.h"
#include "util/json.h"

namespace qm {
namespace {

using Handler = json (*)(CheckpointService& checkpoints, const Workspace& workspace, const json& arguments);

json schema(json properties, std::vector<const char*> required) {
    properties["workspace"] = parameterOfType("string", "Workspace handle from list_workspaces (never a host path).");
    return json{{"type", "object"}, {"properties", std::move(properties)}, {"required", std::move(required)}};
}

json checkpointProperty() {
    return parameterOfType("string", "Checkpoint handle returned by create_checkpoint (ck_xxx).");
}

json createParameters() {
    return schema({{"label", parameterOfType("string", "Optional human-readable label.")}}, {"workspace"});
}

json showParameters() {
    return schema({{"checkpoint", checkpointProperty()}}, {"workspace"});
}

json restoreParameters() {
    return schema({{"checkpoint", checkpointProperty()}}, {"workspace", "checkpoint"});
}

json createCheckpoint(CheckpointService& checkpoints, const Workspace& workspace, const json& arguments) {
    return checkpoints.create(workspace, textArgument(arguments, "label"));
}

json showChanges(CheckpointService& checkpoints, const Workspace& workspace, const json& arguments) {
    return checkpoints.diff(workspace, textArgument(arguments, "checkpoint"));
}

json restoreCheckpoint(CheckpointService& checkpoints, const Workspace& workspace, const json& arguments) {
    std::string refusal = WorkspaceRegistry::requirePermission(workspace, WorkspacePermission::READ_WRITE);
    if (!refusal.empty()) return json{{"error", std::move(refusal)}};
    const std::string& id = textArgument(arguments, "checkpoint");
    if (id.empty()) return json{{"error", "restore_checkpoint 必须显式指定 checkpoint id，不做隐式回滚。"}};
    return checkpoints.restore(workspace, id);
}

constexpr std::array<CapabilityEntry<Handler>, 3> kEntries{{
    {"create_checkpoint", "创建工作区快照", "WRITE",
     "Snapshot the current workspace state so later changes (including changes made by shell commands) can be diffed "
     "and "
     "restored.",
     createCheckpoint, createParameters},
    {"show_changes", "查看快照差异", "READ_ONLY",
     "Diff the current workspace state against a checkpoint (latest by default). Captures file tool and shell command "
     "changes alike.",
     showChanges, showParameters},
    {"restore_checkpoint", "恢复工作区快照", "WRITE",
     "Rewind the workspace to a checkpoint: restores modified/deleted files and removes files added since. Requires "
     "READ_WRITE. All-or-nothing.",
     restoreCheckpoint, restoreParameters},
}};

}  // namespace

void registerCheckpointCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                                    CheckpointService& checkpoints) {
    registerTable(registry, kEntries, [&workspaces, &checkpoints](Handler handler, const json& arguments) {
        const std::string& handle = textArgument(arguments, "workspace");
        const auto workspace = workspaces.find(handle);
        // The registry words the refusal of a handle that it doesn't know.
        if (!workspace) return json{{"error", workspaces.resolve(handle, "", ResolveMode::MustExist).error}};
        return handler(checkpoints, *workspace, arguments);
    });
}

}  // namespace qm
