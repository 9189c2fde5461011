#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device/process_control.h"
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
    ProcessControl* control = nullptr;  ///< May be null. Reaches the child from its first moment.
    std::int64_t limitMs = 1;           ///< The child is killed if it hasn't executed its program by then.
};

/// Starts a child that leads a process group of its own and executes the plan's program, killed by the kernel when the
/// calling thread ends. Returns once the program is executed or that has failed: its pid, whose group exists by then,
/// or -1 if there is no new process. Any thread.
///
/// Until then the child borrows the caller's memory instead of copying it, which takes longer than all the rest once
/// hundreds of threads have their stacks there.
pid_t launchChild(const ChildPlan& plan);

/// Starts a process that outlives this one and isn't its child, in a session of its own; standard streams as inherited.
/// Empty on success, otherwise why not; a program that can't be executed isn't noticed. Any thread.
std::string startDetached(const std::vector<std::string>& args);

}  // namespace qm
