#include "util/clock.h"

#include <chrono>

namespace qm {
namespace {

template <typename Clock>
std::int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch()).count();
}

}  // namespace

std::int64_t wallClockMs() {
    return nowMs<std::chrono::system_clock>();
}

std::int64_t steadyClockMs() {
    return nowMs<std::chrono::steady_clock>();
}

}  // namespace qm
