#include "core/status_events.h"

#include <utility>

namespace qm {

StatusEvents::StatusEvents(Push push) : push_(std::move(push)) {}

ConnectionState StatusEvents::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

void StatusEvents::setState(ConnectionState state) {
    {
        const std::lock_guard lock(mutex_);
        if (state == state_) return;
        waiting_.push(state);
        state_ = state;
    }
    pushWaiting();
}

void StatusEvents::recordChanged() {
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.empty()) waiting_.push(state_);
    }
    pushWaiting();
}

void StatusEvents::pushWaiting() {
    std::unique_lock lock(mutex_);
    if (pushing_) return;
    pushing_ = true;
    while (!waiting_.empty()) {
        const ConnectionState shown = waiting_.front();
        waiting_.pop();
        lock.unlock();
        try {
            push_(shown);
        } catch (...) {
            lock.lock();
            pushing_ = false;
            throw;
        }
        lock.lock();
    }
    pushing_ = false;
}

}  // namespace qm
