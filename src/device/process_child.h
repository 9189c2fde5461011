#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "device/process_image.h"
#include "device/sandbox.h"

namespace qm {

/// How a child reports that it couldn't become its program.
inline constexpr int kExitSandboxFailed = 126;
inline constexpr int kExitNotExecuted = 127;

/// Everything that a child needs between fork and exec. The pointers stay the caller's.
struct ChildPlan {
    ProcessImage* image = nullptr;
    const char* cwd = nullptr;  ///< Null keeps the working directory.
    const SandboxPolicy* sandbox = nullptr;
    int stdoutFd = -1;  ///< Both above 2, so that putting one in place can't overwrite the other.
    int stderrFd = -1;
};

/// Forks a child that leads a process group of its own and executes the plan's program, killed by the kernel when the
/// calling thread ends. Returns its pid, whose group exists by then, or -1 if there was no fork. Any thread.
pid_t launchChild(const ChildPlan& plan);

/// Starts a process that outlives this one and isn't its child, in a session of its own; standard streams as inherited.
/// Empty on success, otherwise why not; a program that can't be executed isn't noticed. Any thread.
std::string startDetached(const std::vector<std::string>& args);

}  // namespace qm
