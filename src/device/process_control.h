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

    /// For the child itself, which shares this memory until it executes its program: names its group, so that kill()
    /// reaches it even if the program's file never answers. Whether it may go on; false if a kill was asked for before.
    /// Takes no lock.
    bool announce(pid_t processGroup);

    /// For the thread that runs the process: names the group that kill() shall hit and the eventfd that it raises to
    /// wake that thread. Kills the group at once if that was asked for before. `wakeFd` stays the caller's and must
    /// stay open until detach().
    void attach(pid_t processGroup, int wakeFd);

    /// For the thread that runs the process, before it reaps the group's leader: later kills do nothing. Whether a kill
    /// was asked for; if so, the group has got it.
    bool detach();

private:
    void killGroup();

    std::mutex mutex_;  ///< Keeps detach() from coming between a kill's look at the group and its signal.
    std::atomic<bool> killRequested_{false};
    std::atomic<pid_t> processGroup_{0};  ///< 0 when there is no live group.
    int wakeFd_ = -1;                     ///< -1 unless attached.
};

}  // namespace qm
