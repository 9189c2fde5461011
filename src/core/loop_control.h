#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace qm {

/// What the connection loop waits on: time, the stop of the process, and requests to start a new round at once.
///
/// A reconnect request counts for the round in which it is made: it ends that round's wait, whether it comes before or
/// during it, and is forgotten when the next round begins, which reads the settings anew. Any thread.
class LoopControl {
public:
    bool running() const;
    void stop();

    void requestReconnect();
    /// Starts a round: requests made so far are served by it.
    void beginRound();
    /// Whether the round should end early: stopped, or a reconnect request since beginRound().
    bool interrupted() const;

    /// Waits until `duration` has passed or interrupted() is true, and returns running().
    bool waitFor(std::chrono::milliseconds duration);

private:
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool running_ = true;
    bool reconnectNow_ = false;
};

}  // namespace qm
