#pragma once

namespace qm {

class CapabilityRegistry;
class CheckpointService;
class WorkspaceRegistry;

/// Adds `create_checkpoint`, `show_changes` and `restore_checkpoint`. The workspaces and the service must outlive every
/// use of the registry.
void registerCheckpointCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                                    CheckpointService& checkpoints);

}  // namespace qm
