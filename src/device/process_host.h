#pragma once

namespace qm {

/// Makes this process fit to run many children: raises its soft limit of descriptors to the hard one, and lets children
/// leave a status to be reaped even if the process was started with SIGCHLD ignored. For main, once, before any other
/// thread exists.
void prepareProcessHost();

/// Gives the calling process back the limit that prepareProcessHost() found. For a child between fork and exec.
void restoreOriginalLimits();

}  // namespace qm
