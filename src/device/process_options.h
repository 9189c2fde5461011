#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device/sandbox.h"

namespace qm {

/// What runProcess() shall run, and within which limits.
struct ProcessOptions {
    std::string command;            ///< Line for "/bin/sh -c", used when `args` is empty.
    std::vector<std::string> args;  ///< If not empty: program and arguments, executed without a shell.
    std::filesystem::path cwd;      ///< Empty keeps the executor's working directory.
    /// Without a value the child inherits the whole environment; with one it gets exactly these variables, also when
    /// there are none. Names that are empty or hold "=" or a zero byte are left out.
    std::optional<std::map<std::string, std::string>> env;
    SandboxPolicy sandbox;
    std::int32_t timeoutMs = 120'000;
    std::uint64_t maxOutputBytes = 98'304;  ///< For standard output and for standard error separately.
};

}  // namespace qm
