#include "device/process_host.h"

#include <signal.h>
#include <sys/resource.h>

#include <optional>

namespace qm {
namespace {

/// A limit belongs to the process, and so does the memory of what it was. Written before there are threads.
std::optional<rlimit> originalDescriptorLimit;

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    rlimit raised = limit;
    raised.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) originalDescriptorLimit = limit;
}

}  // namespace

void prepareProcessHost() {
    raiseDescriptorLimit();
    ::signal(SIGCHLD, SIG_DFL);
}

void restoreOriginalLimits() {
    if (originalDescriptorLimit) ::setrlimit(RLIMIT_NOFILE, &*originalDescriptorLimit);
}

}  // namespace qm
