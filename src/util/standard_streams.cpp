#include "util/standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

namespace qm {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kPatience{200};

/// Lets one thread at a time write, and the others wait for their turn no longer than for the reader: a terminal can
/// hold a writer in the middle of a line.
class Output {
public:
    /// Waits for the turn; false if it hasn't come before `deadline`.
    bool begin(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        if (!freed_.wait_until(lock, deadline, [this] { return !writing_; })) return false;
        writing_ = true;
        return true;
    }

    void end() {
        {
            const std::lock_guard lock(mutex_);
            writing_ = false;
        }
        freed_.notify_one();
    }

    bool stalled = false;  ///< The last text found nobody reading. Belongs to the thread whose turn it is.

private:
    std::mutex mutex_;
    std::condition_variable freed_;
    bool writing_ = false;
};

/// Never destroyed: a detached thread may log while the process ends.
Output& output() {
    static Output& instance = *std::make_unique<Output>().release();
    return instance;
}

/// Whether standard output takes bytes, or a fault, before `deadline`.
bool waitForRoom(Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd event{STDOUT_FILENO, POLLOUT, 0};
        const int ready = ::poll(&event, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

/// The file description may be shared with other processes, so it is left blocking. A pipe that polls as writable takes
/// PIPE_BUF bytes without blocking.
void write(std::string_view text, Clock::time_point deadline) {
    bool& stalled = output().stalled;
    while (!text.empty()) {
        stalled = !waitForRoom(stalled ? Clock::now() : deadline);
        if (stalled) return;
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (written < 0 && errno != EINTR && errno != EAGAIN) return;
        if (written > 0) text.remove_prefix(static_cast<std::size_t>(written));
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
    if (!output().begin(deadline)) return;
    write(text, deadline);
    output().end();
}

}  // namespace qm
