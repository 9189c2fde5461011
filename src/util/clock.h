#pragma once

#include <cstdint>
#include <functional>

namespace qm {

/// Wall-clock milliseconds since the epoch.
std::int64_t wallClockMs();

/// Milliseconds of a clock that never steps, for durations and time limits.
std::int64_t steadyClockMs();

/// A source of time in milliseconds; classes take one so that tests set the time themselves.
using ClockMs = std::function<std::int64_t()>;

}  // namespace qm
