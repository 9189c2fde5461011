#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <limits>

namespace qm::bench {

/// Processor time of the calling thread in seconds.
inline double threadSeconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

/// Runs `own` and `limit`, the same work done by what it is measured against, by turns on this thread. Times are
/// processor times, which a busy machine disturbs least. The benchmark's time is that of `own`, which takes `bytes` in;
/// counter "ratio" says how many times the time of `limit` the fastest round of `own` took, "bestMB/s" how fast that
/// round was. For benchmarks with UseManualTime().
template <typename Own, typename Limit>
void runAgainstLimit(benchmark::State& state, std::size_t bytes, Own own, Limit limit) {
    const auto secondsOf = [](auto& work) {
        const double begin = threadSeconds();
        work();
        return threadSeconds() - begin;
    };
    double bestOwn = std::numeric_limits<double>::infinity();
    double bestLimit = bestOwn;
    for (auto iteration : state) {
        bestLimit = std::min(bestLimit, secondsOf(limit));
        const double ownSeconds = secondsOf(own);
        bestOwn = std::min(bestOwn, ownSeconds);
        state.SetIterationTime(ownSeconds);
    }
    state.counters["ratio"] = bestOwn / bestLimit;
    state.counters["bestMB/s"] = static_cast<double>(bytes) / bestOwn / 1e6;
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

}  // namespace qm::bench
