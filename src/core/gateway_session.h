#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
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
    /// Builds the message from what is true now; must read the version before it reads the table.
    using Announcer = std::function<Announcement()>;
    /// Carries out one frame. What it throws is logged and ends nothing.
    using FrameHandler = std::function<void(const std::string& text)>;

    GatewaySession(std::shared_ptr<WsConnection> connection, Announcer announcer);

    /// Sends `register`. Messages never overtake each other: while one is being sent, a further call only makes the
    /// sending thread send a newer one afterwards. Any thread.
    void announce();

    /// Sends a fresh `register` if there was a first one and `registryVersion` is news to the gateway. Any thread.
    void capabilitiesChanged(std::uint64_t registryVersion);

    /// Reads and handles frames, with a heartbeat every `heartbeatPeriod`, until the connection ends, and closes it.
    void serve(const FrameHandler& handleFrame, std::chrono::milliseconds heartbeatPeriod);

    /// Ends serve(). Any thread, any number of times.
    void close();

private:
    void sendAnnouncements();

    const std::shared_ptr<WsConnection> connection_;
    const Announcer announcer_;
    std::mutex announceMutex_;
    bool announced_ = false;      ///< The first `register` has been built.
    bool announcing_ = false;     ///< Some thread is sending.
    bool announceAgain_ = false;  ///< ... and shall send once more.
    std::uint64_t announcedVersion_ = 0;
};

}  // namespace qm
