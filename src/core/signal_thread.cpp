#include "core/signal_thread.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <csignal>
#include <mutex>
#include <system_error>

#include "core/executor_core.h"
#include "util/standard_streams.h"

namespace qm {
namespace {

/// The core that a signal stops. A handler gets no argument of ours, hence the globals.
ExecutorCore* runningCore = nullptr;
/// Held while the handler uses the core, so that it can't be destroyed meanwhile.
std::mutex runningCoreMutex;

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void setRunningCore(ExecutorCore* core) {
    const std::lock_guard lock(runningCoreMutex);
    runningCore = core;
}

/// Runs on the signal thread only, interrupting its poll.
void announceAndStop(int) {
    const int savedErrno = errno;
    // signal() leaves the other of the two unblocked: it must not interrupt this handler once it holds a lock. What
    // comes meanwhile is taken when the handler returns, which puts the mask back.
    SignalThread::blockSignals();
    printText("\nshutting down...");
    {
        const std::lock_guard lock(runningCoreMutex);
        if (runningCore != nullptr) runningCore->stop();
    }
    errno = savedErrno;
}

}  // namespace

void SignalThread::blockSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalThread::SignalThread(ExecutorCore& core) : end_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!end_) throw std::system_error(errno, std::generic_category(), "eventfd");
    setRunningCore(&core);
    std::signal(SIGINT, announceAndStop);
    std::signal(SIGTERM, announceAndStop);
    try {
        thread_ = std::thread([this] { serve(); });
    } catch (...) {
        forgetCore();
        throw;
    }
}

void SignalThread::forgetCore() {
    setRunningCore(nullptr);
}

SignalThread::~SignalThread() {
    forgetCore();
    eventfd_write(end_.get(), 1);
    thread_.join();
}

void SignalThread::serve() const {
    // Only inside ppoll are the signals let in, so the handler interrupts nothing else.
    sigset_t unblocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &unblocked);
    sigdelset(&unblocked, SIGINT);
    sigdelset(&unblocked, SIGTERM);
    pollfd end{end_.get(), POLLIN, 0};
    while (ppoll(&end, 1, nullptr, &unblocked) < 0 && errno == EINTR) {
    }
}

}  // namespace qm
