#pragma once

namespace qm {

class CancelSignal;

inline constexpr int kWaitForEver = -1;

/// Waits for the poll() events `events` on `fd`, at most `timeoutMs` (kWaitForEver for no limit). 0 when something
/// happened, the one thing a caller can do then being to try again; otherwise ETIMEDOUT, ECANCELED once `cancel` (null
/// for none) is raised, or what poll() failed with. Any thread.
int waitForEvents(int fd, short events, int timeoutMs, const CancelSignal* cancel);

}  // namespace qm
