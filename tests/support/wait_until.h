#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace qm::test {

/// Far longer than anything takes on a loaded machine; only a failing test ever waits this long.
inline constexpr std::chrono::seconds kGenerousLimit{20};

/// Looks at `condition` until it is true or `limit` has passed, and returns what it was last. For conditions that
/// nothing announces (a file, a process); where there is something to wait on, wait on that.
inline bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kGenerousLimit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::yield();
    }
    return true;
}

}  // namespace qm::test
