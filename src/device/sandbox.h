#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qm {

/// What a command may do beyond reading and executing.
enum class SandboxMode {
    OFF = 0,
    WORKSPACE = 1,  ///< Writes in the workspace, "/tmp" and "/dev"; no network.
    READ_ONLY = 2,  ///< No writes at all; no network.
};

/// The mode's name as it stands in arguments and results.
const char* sandboxModeText(SandboxMode mode);
/// All capitals or all small letters; everything else is OFF.
SandboxMode parseSandboxMode(std::string_view text);

/// The limits that one child process applies to itself before it executes its program.
struct SandboxPolicy {
    SandboxMode mode = SandboxMode::OFF;
    std::vector<std::filesystem::path> writablePaths;  ///< Directories with full access.
    bool blockNetwork = false;
};

/// The limits of `mode` for a workspace at `workspaceRoot`; an empty root makes nothing writable.
SandboxPolicy planSandbox(SandboxMode mode, const std::filesystem::path& workspaceRoot);

/// What this kernel can enforce.
struct SandboxProbe {
    bool filesystem = false;
    bool network = false;  ///< Always true: the filter is assumed to be there, and a child that can't have it ends.
    std::string detail;    ///< For people.
};

/// Asks the kernel. Any thread.
SandboxProbe probeSandbox();

/// Writes one log line that says what can be enforced; called once at start.
void logSandboxSupport();

/// Puts the calling process under `policy`, for good and with all its descendants. Whether every limit stands; after a
/// failure some may. For a child between fork and exec: makes system calls only, allocates nothing.
bool applySandbox(const SandboxPolicy& policy);

}  // namespace qm
