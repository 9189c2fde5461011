#pragma once

#include <memory>

#include "device/process_control.h"
#include "device/process_options.h"
#include "device/process_result.h"

namespace qm {

/// Runs a child process to its end and captures what it writes. Blocks; any thread, any number at a time.
///
/// The child leads a process group of its own and has no terminal, no standard input, an empty signal mask and default
/// dispositions, and no descriptor of this process. The run is over when the child has ended and both its outputs are
/// closed, which a background job that inherited them delays. At the time limit, or once `control` (may be null) asks
/// for it, the group is killed; then what stands in the pipes is still taken, and nobody who holds them is waited for.
/// If this process dies abruptly, the kernel kills the child.
///
/// Failures are values: `error` with `started` false if there are no pipes or no process, exit status 127 if `cwd`
/// can't be entered or the program can't be executed, 126 if the sandbox can't be applied. Throws only
/// std::bad_alloc.
ProcessResult runProcess(const ProcessOptions& options, const std::shared_ptr<ProcessControl>& control = nullptr);

}  // namespace qm
