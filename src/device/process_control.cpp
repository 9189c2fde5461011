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

void ProcessControl::attach(pid_t processGroup, int wakeFd) {
    const std::lock_guard lock(mutex_);
    processGroup_ = processGroup;
    wakeFd_ = wakeFd;
    if (killRequested_.load()) killGroup();
}

bool ProcessControl::detach() {
    const std::lock_guard lock(mutex_);
    processGroup_ = 0;
    wakeFd_ = -1;
    return killRequested_.load();
}

void ProcessControl::killGroup() {
    if (processGroup_ <= 0) return;
    ::kill(-processGroup_, SIGKILL);
    // The leader may have ended long ago, and those that keep its output open may be out of the group's reach: then
    // nothing but this tells the running thread to stop waiting. A full counter has woken it already.
    ::eventfd_write(wakeFd_, 1);
}

}  // namespace qm
