#include "device/run_process.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>

#include "device/process_child.h"
#include "device/process_output.h"
#include "util/clock.h"
#include "util/unique_fd.h"
#include "util/utf8.h"

namespace qm {
namespace {

/// How often the child is looked at where nothing announces its end.
constexpr std::chrono::milliseconds kStep{20};

/// As much as a pipe holds.
constexpr std::size_t kReadBytes = 65'536;

/// One child from its launch to its reaping.
class ProcessRun {
public:
    ProcessRun(const ProcessOptions& options, ProcessControl* control)
        : options_(options),
          control_(control),
          startedAtMs_(steadyClockMs()),
          stdout_(options.maxOutputBytes),
          stderr_(options.maxOutputBytes) {}
    /// After an exception the child is still there: it goes, and nobody keeps its number.
    ~ProcessRun();
    ProcessRun(const ProcessRun&) = delete;
    ProcessRun& operator=(const ProcessRun&) = delete;

    ProcessResult run();

private:
    bool openPipes();
    bool launch();
    void follow();
    bool killed() const { return result_.timedOut || (control_ != nullptr && control_->killRequested()); }
    bool pastLimit() const { return elapsedMs() > options_.timeoutMs; }
    std::int64_t elapsedMs() const { return steadyClockMs() - startedAtMs_; }
    int waitLimitMs() const;
    void waitForEvent();
    void waitStep();
    void lookAtLeader();
    void reap();

    const ProcessOptions& options_;
    ProcessControl* control_;
    std::int64_t startedAtMs_;
    ProcessOutput stdout_;
    ProcessOutput stderr_;
    UniqueFd wake_;       ///< Raised by the control after a kill; empty without control.
    UniqueFd leaderEnd_;  ///< Readable once the child has ended; empty where the kernel has no such descriptors.
    pid_t leader_ = -1;
    bool leaderEnded_ = false;
    ProcessResult result_;
    std::array<char, kReadBytes> buffer_;  ///< Not initialised: most runs touch little of it.
};

ProcessRun::~ProcessRun() {
    if (leader_ <= 0) return;
    ::kill(-leader_, SIGKILL);
    reap();
}

ProcessResult ProcessRun::run() {
    result_.executedAs = options_.args.empty() ? "/bin/sh -c" : "direct exec (no shell)";
    if (!openPipes()) {
        result_.error = "无法创建管道";
    } else if (!launch()) {
        result_.error = "fork 失败";
    } else {
        follow();
        reap();
        result_.truncated = stdout_.truncated() || stderr_.truncated();
        result_.stdoutText = sanitizeUtf8(stdout_.bytes());
        result_.stderrText = sanitizeUtf8(stderr_.bytes());
    }
    result_.durationMs = elapsedMs();
    return std::move(result_);
}

bool ProcessRun::openPipes() {
    if (!stdout_.open() || !stderr_.open()) return false;
    if (control_ == nullptr) return true;
    wake_.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return static_cast<bool>(wake_);
}

bool ProcessRun::launch() {
    const auto args =
        options_.args.empty() ? std::vector<std::string>{"/bin/sh", "-c", options_.command} : options_.args;
    ProcessImage image(args, options_.env);
    leader_ = launchChild({.image = &image,
                           .cwd = options_.cwd.empty() ? nullptr : options_.cwd.c_str(),
                           .sandbox = &options_.sandbox,
                           .stdoutFd = stdout_.writeEnd(),
                           .stderrFd = stderr_.writeEnd(),
                           .control = control_,
                           .limitMs = options_.timeoutMs - elapsedMs() + 1});
    if (leader_ < 0) return false;
    result_.started = true;
    stdout_.closeWriteEnd();
    stderr_.closeWriteEnd();
    if (control_ != nullptr) control_->attach(leader_, wake_.get());
    leaderEnd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, leader_, 0)));
    return true;
}

/// Until the child has ended and its outputs are closed or given up. It isn't reaped meanwhile: as long as it is at
/// least a zombie, its group's number belongs to nobody else.
void ProcessRun::follow() {
    for (;;) {
        if (leaderEnded_ && (killed() || (stdout_.ended() && stderr_.ended()))) break;
        if (!result_.timedOut && pastLimit()) {
            result_.timedOut = true;
            ::kill(-leader_, SIGKILL);
            continue;  // With its leader gone already, a group without members gives no event to wait for.
        }
        waitForEvent();
    }
    stdout_.drain(buffer_);
    stderr_.drain(buffer_);
}

/// Milliseconds to poll for, -1 for ever.
int ProcessRun::waitLimitMs() const {
    std::int64_t limit = result_.timedOut ? -1 : std::max<std::int64_t>(options_.timeoutMs - elapsedMs() + 1, 0);
    if (!leaderEnd_ && !leaderEnded_) limit = limit < 0 ? kStep.count() : std::min<std::int64_t>(limit, kStep.count());
    return static_cast<int>(std::min<std::int64_t>(limit, INT_MAX));
}

void ProcessRun::waitForEvent() {
    std::array<pollfd, 4> events{{
        {stdout_.readEnd(), POLLIN, 0},
        {stderr_.readEnd(), POLLIN, 0},
        {leaderEnded_ ? -1 : leaderEnd_.get(), POLLIN, 0},
        {killed() ? -1 : wake_.get(), POLLIN, 0},
    }};
    if (::poll(events.data(), events.size(), waitLimitMs()) < 0) {
        if (errno != EINTR) waitStep();
        return;
    }
    if (events[0].revents != 0) stdout_.read(buffer_);
    if (events[1].revents != 0) stderr_.read(buffer_);
    if (events[2].revents != 0 || !leaderEnd_) lookAtLeader();
}

/// The kernel had no memory to wait with. The outputs are given up and the child is looked at in steps.
void ProcessRun::waitStep() {
    stdout_.drain(buffer_);
    stderr_.drain(buffer_);
    std::this_thread::sleep_for(kStep);
    lookAtLeader();
}

void ProcessRun::lookAtLeader() {
    siginfo_t info{};
    // A child that nobody may wait for (ECHILD) counts as ended: there is nothing to learn about it any more.
    leaderEnded_ =
        ::waitid(P_PID, static_cast<id_t>(leader_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid == leader_;
}

void ProcessRun::reap() {
    // First of all the group gets the kill that was asked for and is forgotten: once the child is reaped, its number
    // may become somebody else's.
    if (control_ != nullptr) result_.cancelled = control_->detach();
    int status = 0;
    pid_t reaped = -1;
    do {
        reaped = ::waitpid(leader_, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    leader_ = -1;
    if (reaped < 0) return;
    result_.exitCode = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

ProcessResult runProcess(const ProcessOptions& options, const std::shared_ptr<ProcessControl>& control) {
    return ProcessRun(options, control.get()).run();
}

}  // namespace qm
