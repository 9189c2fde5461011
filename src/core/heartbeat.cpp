#include "core/heartbeat.h"

#include <utility>

#include "util/detached_tasks.h"

namespace qm {

Heartbeat::Heartbeat(std::function<void()> beat, std::chrono::milliseconds period)
    : beat_(std::move(beat)), period_(period), thread_([this](const std::stop_token& stop) { run(stop); }) {}

void Heartbeat::run(const std::stop_token& stop) {
    for (;;) {
        {
            std::unique_lock lock(mutex_);
            wake_.wait_for(lock, stop, period_, [] { return false; });
        }
        if (stop.stop_requested()) return;
        runGuarded("heartbeat", beat_);
    }
}

}  // namespace qm
