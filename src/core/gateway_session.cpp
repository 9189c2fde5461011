#include "core/gateway_session.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "core/heartbeat.h"
#include "net/ws_connection.h"
#include "util/log.h"

namespace qm {
namespace {

constexpr char kHeartbeat[] = R"({"type":"heartbeat"})";

/// Closes a connection, however the reading of it ends.
class ClosingScope {
public:
    explicit ClosingScope(WsConnection& connection) : connection_(connection) {}
    ~ClosingScope() { connection_.close(); }
    ClosingScope(const ClosingScope&) = delete;
    ClosingScope& operator=(const ClosingScope&) = delete;

private:
    WsConnection& connection_;
};

void handleGuarded(const GatewaySession::FrameHandler& handleFrame, const std::string& text) {
    try {
        handleFrame(text);
    } catch (const std::exception& failure) {
        log(LogLevel::Warn, std::string("bad ws command: ") + failure.what());
    } catch (...) {
        log(LogLevel::Warn, "bad ws command: unknown exception");
    }
}

}  // namespace

GatewaySession::GatewaySession(std::shared_ptr<WsConnection> connection, Announcer announcer)
    : connection_(std::move(connection)), announcer_(std::move(announcer)) {}

void GatewaySession::announce() {
    {
        const std::lock_guard lock(announceMutex_);
        sending_ = true;
    }
    sendAnnouncements();
}

void GatewaySession::capabilitiesChanged(std::uint64_t registryVersion) {
    {
        const std::lock_guard lock(announceMutex_);
        wantedVersion_ = std::max(wantedVersion_, registryVersion);
        // Before the first message is built there is nothing to correct: it will show the change.
        if (sending_ || !announcedVersion_ || *announcedVersion_ >= wantedVersion_) return;
        sending_ = true;
    }
    sendAnnouncements();
}

/// For the thread that has set sending_.
void GatewaySession::sendAnnouncements() {
    try {
        bool again = true;
        while (again) {
            const Announcement announcement = announcer_();
            connection_->sendText(announcement.text);
            again = !endSending(announcement.registryVersion);
        }
    } catch (...) {
        const std::lock_guard lock(announceMutex_);
        sending_ = false;
        throw;
    }
}

/// Notes what was sent. False if that is outdated already, and the calling thread must send once more.
bool GatewaySession::endSending(std::uint64_t sentVersion) {
    const std::lock_guard lock(announceMutex_);
    announcedVersion_ = sentVersion;
    sending_ = sentVersion < wantedVersion_;
    return !sending_;
}

void GatewaySession::serve(const FrameHandler& handleFrame, std::chrono::milliseconds heartbeatPeriod) {
    // The result of a send doesn't matter: a dead connection ends the reader, and the reader ends the heartbeat.
    const Heartbeat heartbeat([this] { connection_->sendText(kHeartbeat); }, heartbeatPeriod);
    // Closes before the heartbeat's thread is joined: one that is stuck in a send to a peer that reads no more comes
    // free.
    const ClosingScope closing(*connection_);
    std::string text;
    int failed = 0;
    while (connection_->receive(&text, &failed))
        handleGuarded(handleFrame, text);
    if (failed != 0) log(LogLevel::Warn, "websocket receive error: " + connection_->receiveError());
}

}  // namespace qm
