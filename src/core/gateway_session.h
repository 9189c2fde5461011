#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace qm {

class WsConnection;

/// One session with the gateway, from the first `register` to the end of the connection.
class GatewaySession {
public:
    /// A `register` message and the version of the capability table that it shows.
    struct Announcement {
        std::string text;
        std::uint64_t registryVersion = 0;
    };
    /// Builds the message from what is true now. The versions that it shows never go back.
    using Announcer = std::function<Announcement()>;
    /// Carries out one frame. What it throws is logged and ends nothing.
    using FrameHandler = std::function<void(const std::string& text)>;

    GatewaySession(std::shared_ptr<WsConnection> connection, Announcer announcer);

    /// Sends the first `register`. Once.
    void announce();

    /// Sends a fresh `register` if there was a first one and `registryVersion` is news to the gateway. Messages never
    /// overtake each other: while one is being sent, the sending thread is left to send a newer one afterwards, if the
    /// one under way doesn't show that version anyway. Any thread.
    void capabilitiesChanged(std::uint64_t registryVersion);

    /// Reads and handles frames, with a heartbeat every `heartbeatPeriod`, until the connection ends, and closes it.
    void serve(const FrameHandler& handleFrame, std::chrono::milliseconds heartbeatPeriod);

private:
    void sendAnnouncements();
    bool endSending(std::uint64_t sentVersion);

    const std::shared_ptr<WsConnection> connection_;
    const Announcer announcer_;
    std::mutex announceMutex_;
    bool sending_ = false;                           ///< Some thread is sending, and will look at wantedVersion_.
    std::optional<std::uint64_t> announcedVersion_;  ///< What was sent last, if anything.
    std::uint64_t wantedVersion_ = 0;                ///< The newest version that the gateway must come to know.
};

}  // namespace qm
