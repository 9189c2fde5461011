#include "device/process_control.h"

#include <signal.h>
#include <sys/eventfd.h>

#include <utility>

namespace qm {

void ProcessControl::kill() {
    killRequested_.exchange(true);
    const std::lock_guard lock(mutex_);
    killGroup();
}

bool ProcessControl::announce(pid_t processGroup) {
    // A kill sets its flag and then looks for the group: one of the two always sees the other.
    processGroup_.store(processGroup);
    return !killRequested_.load();
}

void ProcessControl::attach(pid_t processGroup, int wakeFd) {
    const std::lock_guard lock(mutex_);
    processGroup_.store(processGroup);
    wakeFd_ = wakeFd;
    if (killRequested_.load()) killGroup();
}

bool ProcessControl::detach() {
    const std::lock_guard lock(mutex_);
    // A kill raises its flag before it looks for the group: between the two the flag has already told the running
    // thread to stop, and once the group is forgotten nobody would be left to signal it.
    const bool requested = killRequested_.load();
    if (requested) killGroup();
    processGroup_.store(0);
    wakeFd_ = -1;
    return requested;
}

void ProcessControl::killGroup() {
    const pid_t group = processGroup_.load();
    if (group <= 0) return;
    ::kill(-group, SIGKILL);
    // The leader may have ended long ago, and those that keep its output open may be out of the group's reach: then
    // nothing but this tells the running thread to stop waiting. A full counter has woken it already.
    if (wakeFd_ >= 0) ::eventfd_write(wakeFd_, 1);
}

}  // namespace qm
