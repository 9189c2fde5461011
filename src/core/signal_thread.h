#pragma once

#include <thread>

#include "util/unique_fd.h"

namespace qm {

class ExecutorCore;

/// Turns SIGINT and SIGTERM into a stop of the running ExecutorCore.
///
/// Both signals are blocked in every thread but one of this class's own, whose only work is to be interrupted. The
/// handler runs there, so it may print, lock and close sockets like any other code: it can't meet a lock that its own
/// thread holds. (ThreadSanitizer can't know that, hence report_signal_unsafe=0 in its test preset.) One object at a
/// time.
class SignalThread {
public:
    /// Blocks both signals in the calling thread, and so in all threads that it starts later. One that comes now stays
    /// pending until a SignalThread exists. Main thread, before any other thread.
    static void blockSignals();

    /// Installs the handlers and starts the thread; `core` is stopped by each signal from now on.
    explicit SignalThread(ExecutorCore& core);

    /// Signals that come after this are announced but stop nothing; returns when the handler doesn't touch the core
    /// any more.
    void forgetCore();

    /// Ends the thread; the signals stay blocked.
    ~SignalThread();
    SignalThread(const SignalThread&) = delete;
    SignalThread& operator=(const SignalThread&) = delete;

private:
    void serve() const;

    UniqueFd end_;
    std::thread thread_;
};

}  // namespace qm
