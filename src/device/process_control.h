#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>

namespace qm {

/// Kills a running process tree from another thread.
///
/// Shared between the thread inside runProcess() and those that may want the tree gone. kill() may come before, during
/// or after the run: a request made early takes effect when the process is attached, one made late does nothing,
/// because detach() forgets the group before its id can be reused. One control serves one run.
class ProcessControl {
public:
    /// Sends SIGKILL to the whole process group; remembered if there is none yet. Any thread, any number of times.
    void kill();

    /// True once kill() was called; never cleared.
    bool killRequested() const { return killRequested_.load(); }

    /// For the thread that runs the process: names the group that kill() shall hit and the eventfd that it raises to
    /// wake that thread. Kills the group at once if that was asked for before. `wakeFd` stays the caller's and must
    /// stay open until detach().
    void attach(pid_t processGroup, int wakeFd);

    /// For the thread that runs the process, before it reaps the group's leader: later kills do nothing. Whether a kill
    /// was asked for.
    bool detach();

private:
    void killGroup();

    std::mutex mutex_;
    std::atomic<bool> killRequested_{false};
    pid_t processGroup_ = 0;  ///< 0 when there is no live group.
    int wakeFd_ = -1;         ///< Set and cleared together with `processGroup_`.
};

}  // namespace qm
