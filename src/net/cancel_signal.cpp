#include "net/cancel_signal.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace qm {

CancelSignal::CancelSignal() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void CancelSignal::cancel() {
    if (cancelled_.exchange(true)) return;
    const std::uint64_t one = 1;
    while (::write(event_.get(), &one, sizeof one) < 0 && errno == EINTR) {
    }
}

}  // namespace qm
