#include "util/standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <mutex>
#include <type_traits>

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience{200};

/// Neither is ever destroyed: a detached thread may log while the process ends.
constinit std::timed_mutex outputMutex;
bool outputStalled = false;  ///< The last text found nobody reading.
static_assert(std::is_trivially_destructible_v<std::timed_mutex>);

/// Whether standard output takes bytes, or a fault, before `deadline`.
bool waitForRoom(Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd event{STDOUT_FILENO, POLLOUT, 0};
        const int ready = ::poll(&event, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

}  // namespace

void openMissingStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest free number is the one that is missing. Programs that are started later inherit it like any
        // standard stream.
        if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF) ::open("/dev/null", O_RDWR);  // NOLINT(*-cloexec-open)
    }
}

void printText(std::string_view text) noexcept {
    const auto deadline = Clock::now() + kPatience;
    const std::unique_lock lock(outputMutex, deadline);
    if (!lock) return;
    // The file description may be shared with other processes, so it is left blocking. A pipe that polls as writable
    // takes PIPE_BUF bytes without blocking.
    while (!text.empty()) {
        outputStalled = !waitForRoom(outputStalled ? Clock::now() : deadline);
        if (outputStalled) return;
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (written < 0 && errno != EINTR && errno != EAGAIN) return;
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace qm
