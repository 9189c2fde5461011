#pragma once

#include <cstddef>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

namespace qm::test {

/// Runs `task` on `count` threads that start it together, each with its number from 0, and waits for all of them.
inline void runOnThreads(std::size_t count, const std::function<void(std::size_t)>& task) {
    std::latch start(static_cast<std::ptrdiff_t>(count));
    std::vector<std::jthread> threads;
    threads.reserve(count);
    for (std::size_t number = 0; number < count; ++number) {
        threads.emplace_back([&, number] {
            start.arrive_and_wait();
            task(number);
        });
    }
}

}  // namespace qm::test
