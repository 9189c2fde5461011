#include "net/poll_wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "net/cancel_signal.h"
#include "util/clock.h"

namespace qm {

int waitForEvents(int fd, short events, int timeoutMs, const CancelSignal* cancel) {
    const auto end = steadyClockMs() + timeoutMs;
    int left = timeoutMs;
    while (true) {
        pollfd entries[2] = {{fd, events, 0}, {cancel == nullptr ? -1 : cancel->fd(), POLLIN, 0}};
        const int ready = ::poll(entries, 2, left);
        if (ready < 0 && errno != EINTR) return errno;
        if (ready > 0) return entries[1].revents != 0 ? ECANCELED : 0;
        if (ready == 0) return ETIMEDOUT;
        if (timeoutMs != kWaitForEver) left = static_cast<int>(std::max<std::int64_t>(0, end - steadyClockMs()));
    }
}

}  // namespace qm
