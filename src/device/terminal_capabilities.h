#pragma once

namespace qm {

class CapabilityRegistry;
class TerminalService;
class WorkspaceRegistry;

/// Adds `run_command`, `command_output`, `wait_command` and `kill_command`. Their handlers run on any thread and keep
/// both services by reference: these must outlive the registered definitions' last call.
void registerTerminalCapabilities(CapabilityRegistry& registry, WorkspaceRegistry& workspaces,
                                  TerminalService& terminal);

}  // namespace qm
