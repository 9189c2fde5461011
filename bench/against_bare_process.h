#pragma once

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <vector>

namespace qm::bench {

/// Forks, executes `argv` and waits for its end: the least that running a program can cost.
inline void runBareProcess(const char* const* argv) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execv(argv[0], const_cast<char* const*>(argv));
        ::_exit(127);
    }
    int status = -1;
    if (::waitpid(child, &status, 0) != child || status != 0) throw std::runtime_error("the bare process failed");
}

/// Runs `own` and `limit` by turns, so that a busy machine slows both alike, and takes wall time, because other
/// processes do the work. The counters are the medians of both, by how much that of `own` is the greater one, all in
/// milliseconds, and how many times the fastest round of `limit` the fastest of `own` took. For benchmarks with
/// UseManualTime().
template <typename Own, typename Limit>
void runOverLimit(benchmark::State& state, Own own, Limit limit) {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    const auto timeOf = [](auto& work) {
        const auto begin = std::chrono::steady_clock::now();
        work();
        return Milliseconds(std::chrono::steady_clock::now() - begin).count();
    };
    const auto median = [](std::vector<double>& times) {
        const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
        std::nth_element(times.begin(), middle, times.end());
        return *middle;
    };
    std::vector<double> ownTimes;
    std::vector<double> limitTimes;
    for (auto iteration : state) {
        limitTimes.push_back(timeOf(limit));
        ownTimes.push_back(timeOf(own));
        state.SetIterationTime(ownTimes.back() / 1000);
    }
    state.counters["own_ms"] = median(ownTimes);
    state.counters["limit_ms"] = median(limitTimes);
    state.counters["over_ms"] = median(ownTimes) - median(limitTimes);
    state.counters["best_own_ms"] = *std::min_element(ownTimes.begin(), ownTimes.end());
    state.counters["best_ratio"] =
        state.counters["best_own_ms"] / *std::min_element(limitTimes.begin(), limitTimes.end());
}

}  // namespace qm::bench
