#pragma once

#include <atomic>

#include "util/unique_fd.h"

namespace qm {

/// Cuts short what waits on the network: a connect, a TLS handshake, a read. Raised once, it stays raised; whoever
/// waits polls fd() beside its socket, so the kernel wakes it at once.
class CancelSignal {
public:
    /// Throws std::system_error if the system has no descriptor left.
    CancelSignal();

    /// Any thread, any number of times.
    void cancel();

    bool cancelled() const { return cancelled_.load(); }

    /// Becomes readable with cancel() and stays so; for poll() only.
    int fd() const { return event_.get(); }

private:
    std::atomic<bool> cancelled_ = false;
    UniqueFd event_;
};

}  // namespace qm
