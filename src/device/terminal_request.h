#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "device/process_options.h"
#include "device/sandbox.h"
#include "util/json_fwd.h"

namespace qm {

class WorkspaceRegistry;

/// What the arguments of `run_command` ask for, checked and ready to be started.
struct TerminalRequest {
    std::string error;  ///< If not empty, the refusal; the rest doesn't count then.
    ProcessOptions options;
    std::string workspace;  ///< Handle.
    std::string command;    ///< As people are shown it.
};

/// How long `run_command` waits before it hands the command back as a background command, in milliseconds. `setting` is
/// the decimal number that the environment gives; null, and one below 1, stand for the default.
std::int64_t handOffMs(const char* setting);

/// How long `wait_command` waits at most, in milliseconds. Throws the JSON library's type error for an argument of a
/// wrong type.
std::int64_t waitLimitMs(const json& arguments);

/// Checks `arguments` against the workspaces and builds the process from them. The environment is built fresh: a few
/// harmless variables of the executor's own, then the caller's, none of which may be named like a credential. Throws
/// the JSON library's type error for arguments of a wrong type. `probe` says what the kernel can enforce.
TerminalRequest prepareTerminalRequest(const json& arguments, const WorkspaceRegistry& workspaces,
                                       const std::function<SandboxProbe()>& probe = probeSandbox);

}  // namespace qm
