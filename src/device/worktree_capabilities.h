#pragma once

namespace qm {

class CapabilityRegistry;
class WorktreeService;

/// Adds `create_worktree`, `list_worktrees` and `remove_worktree`. The service must outlive every use of the registry.
void registerWorktreeCapabilities(CapabilityRegistry& registry, WorktreeService& worktrees);

}  // namespace qm
