#pragma once

#include <functional>
#include <mutex>
#include <queue>

#include "core/connection_state.h"

namespace qm {

/// The state of the connection, and the events that tell of it and of what else the status record shows.
///
/// Events are pushed one at a time in the order of their causes, by whichever thread finds none being pushed; a thread
/// that finds one leaves its own to the pusher. So the last event always shows what is true last. Any thread may call
/// anything.
class StatusEvents {
public:
    /// Builds the record from what is true now, with `state` for the state, and pushes it. Called with no lock held.
    using Push = std::function<void(ConnectionState state)>;

    explicit StatusEvents(Push push);

    ConnectionState state() const;

    /// One event if this is another state than before, none otherwise.
    void setState(ConnectionState state);

    /// Something else in the record has changed: one event with the state as it is. An event that waits to be pushed
    /// counts for it.
    void recordChanged();

private:
    void pushWaiting();

    const Push push_;
    mutable std::mutex mutex_;
    ConnectionState state_ = ConnectionState::NotConfigured;
    std::queue<ConnectionState> waiting_;  ///< The states to show; the last one is `state_`.
    bool pushing_ = false;                 ///< Some thread is pushing, and will look for more.
};

}  // namespace qm
