#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace qm {

/// Does something again and again on a thread of its own, for as long as the object lives.
class Heartbeat {
public:
    /// `beat` is called after each `period`. What it throws is logged and ends nothing. Throws std::system_error if the
    /// system gives no thread.
    Heartbeat(std::function<void()> beat, std::chrono::milliseconds period);

    /// Waits for a call under way.
    ~Heartbeat() = default;
    Heartbeat(const Heartbeat&) = delete;
    Heartbeat& operator=(const Heartbeat&) = delete;

private:
    void run(const std::stop_token& stop);

    const std::function<void()> beat_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::jthread thread_;  ///< Last, so that what it uses is there as long as it runs.
};

}  // namespace qm
