#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace qm {

/// The turn to write to a connection: like a std::timed_mutex, for std::lock_guard and std::unique_lock, but built from
/// parts that ThreadSanitizer of every supported compiler understands.
class SendTurn {
public:
    void lock() {
        std::unique_lock lock(mutex_);
        free_.wait(lock, [this] { return !taken_; });
        taken_ = true;
    }

    bool try_lock_for(std::chrono::milliseconds limit) {
        std::unique_lock lock(mutex_);
        if (!free_.wait_for(lock, limit, [this] { return !taken_; })) return false;
        taken_ = true;
        return true;
    }

    void unlock() {
        {
            const std::lock_guard lock(mutex_);
            taken_ = false;
        }
        free_.notify_one();
    }

private:
    std::mutex mutex_;
    std::condition_variable free_;
    bool taken_ = false;
};

}  // namespace qm
