#include "device/process_child.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include "device/process_host.h"

namespace qm {
namespace {

/// Blocks every signal of the calling thread while it exists, so that no handler of this process runs in a child.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};

// Everything below up to launchChild() runs in a child that shares the parent's memory or has a copy of it in which
// other threads' locks may be held for ever: system calls only, no allocation, no exception, nothing written but
// locals.

void takeDefaultSignals() {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        ::sigaction(number, &byDefault, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The kernel forgets the request of a parent that has ended before it was made.
void dieWithParent(pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(kExitNotExecuted);
}

/// The parent can't look at the clock before the program is executed, and the file systems involved may never answer.
/// The timer goes with the execution.
void dieAfter(std::int64_t limitMs) {
    sigevent kill{};
    kill.sigev_notify = SIGEV_SIGNAL;
    kill.sigev_signo = SIGKILL;
    timer_t timer{};
    if (::timer_create(CLOCK_MONOTONIC, &kill, &timer) != 0) return;
    const std::int64_t ms = std::max<std::int64_t>(limitMs, 1);  // Zero would disarm it.
    itimerspec limit{};
    limit.it_value.tv_sec = ms / 1000;
    limit.it_value.tv_nsec = ms % 1000 * 1'000'000;
    ::timer_settime(timer, 0, &limit, nullptr);
}

/// A group leader can't leave by setsid(), but every process may give its terminal up, and one that leads no session
/// never gets one back by opening it.
void leaveTerminal() {
    const int terminal = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (terminal < 0) return;
    ::ioctl(terminal, TIOCNOTTY);
    ::close(terminal);
}

void putInPlace(int fd, int place) {
    while (::dup2(fd, place) < 0 && errno == EINTR) {
    }
}

void takeNoInput() {
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (nothing == STDIN_FILENO) {
        ::fcntl(nothing, F_SETFD, 0);
    } else if (nothing > STDIN_FILENO) {
        putInPlace(nothing, STDIN_FILENO);
    }
}

/// Descriptors of this program close on exec anyway; this also drops what it was itself started with. A kernel without
/// the call leaves it at that.
void closeOtherDescriptors() {
    ::syscall(SYS_close_range, STDERR_FILENO + 1, UINT_MAX, 0);
}

[[noreturn]] void runChild(const ChildPlan& plan, pid_t parent) {
    ::setpgid(0, 0);
    dieWithParent(parent);
    dieAfter(plan.limitMs);
    if (plan.control != nullptr && !plan.control->announce(::getpid())) ::kill(::getpid(), SIGKILL);
    putInPlace(plan.stdoutFd, STDOUT_FILENO);
    putInPlace(plan.stderrFd, STDERR_FILENO);
    closeOtherDescriptors();  // Also makes room for those opened below, should the parent have used up its limit.
    leaveTerminal();
    takeNoInput();
    if (plan.cwd != nullptr && ::chdir(plan.cwd) != 0) ::_exit(kExitNotExecuted);
    if (!applySandbox(*plan.sandbox)) ::_exit(kExitSandboxFailed);
    restoreOriginalLimits();
    takeDefaultSignals();
    plan.image->execute();
    ::_exit(kExitNotExecuted);
}

[[noreturn]] void runDetached(ProcessImage& image) {
    ::setsid();
    const pid_t grandchild = ::_Fork();
    if (grandchild != 0) ::_exit(grandchild > 0 ? 0 : 1);
    closeOtherDescriptors();
    restoreOriginalLimits();
    takeDefaultSignals();
    image.execute();
    ::_exit(kExitNotExecuted);
}

}  // namespace

pid_t launchChild(const ChildPlan& plan) {
    const SignalsBlocked signalsBlocked;
    const pid_t parent = ::getpid();
    const pid_t child = ::vfork();
    if (child == 0) runChild(plan, parent);
    // Both sides make the group, so it exists whichever runs first; the later call changes nothing.
    if (child > 0) ::setpgid(child, child);
    return child;
}

std::string startDetached(const std::vector<std::string>& args) {
    if (args.empty()) return "startDetached 需要 args";
    ProcessImage image(args, std::nullopt);
    pid_t child = -1;
    {
        const SignalsBlocked signalsBlocked;
        child = ::fork();
        if (child == 0) runDetached(image);
    }
    if (child < 0) return "fork 失败";
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0 ? "" : "fork 失败";
}

}  // namespace qm
