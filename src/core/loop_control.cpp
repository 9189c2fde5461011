#include "core/loop_control.h"

namespace qm {

bool LoopControl::running() const {
    const std::lock_guard lock(mutex_);
    return running_;
}

void LoopControl::stop() {
    const std::lock_guard lock(mutex_);
    running_ = false;
    wake_.notify_all();
}

void LoopControl::requestReconnect() {
    const std::lock_guard lock(mutex_);
    reconnectNow_ = true;
    wake_.notify_all();
}

void LoopControl::beginRound() {
    const std::lock_guard lock(mutex_);
    reconnectNow_ = false;
}

bool LoopControl::interrupted() const {
    const std::lock_guard lock(mutex_);
    return !running_ || reconnectNow_;
}

bool LoopControl::waitFor(std::chrono::milliseconds duration) {
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, duration, [this] { return !running_ || reconnectNow_; });
    return running_;
}

}  // namespace qm
