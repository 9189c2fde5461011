#include "core/gateway_session.h"

#include <condition_variable>
#include <exception>
#include <stop_token>
#include <thread>
#include <utility>

#include "net/ws_connection.h"
#include "util/log.h"

namespace qm {
namespace {

constexpr char kHeartbeat[] = R"({"type":"heartbeat"})";

/// Sends a heartbeat each `period` until asked to stop. The result of a send doesn't matter: a dead connection ends the
/// reader, and the reader ends this.
void beat(const std::stop_token& stop, WsConnection& connection, std::chrono::milliseconds period) {
    std::mutex mutex;
    std::condition_variable_any wake;
    for (;;) {
        {
            std::unique_lock lock(mutex);
            wake.wait_for(lock, stop, period, [] { return false; });
        }
        if (stop.stop_requested()) return;
        connection.sendText(kHeartbeat);
    }
}

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
        if (announcing_) {
            announceAgain_ = true;
            return;
        }
        announcing_ = true;
    }
    try {
        sendAnnouncements();
    } catch (...) {
        const std::lock_guard lock(announceMutex_);
        announcing_ = false;
        throw;
    }
}

void GatewaySession::sendAnnouncements() {
    for (;;) {
        const Announcement announcement = announcer_();
        {
            const std::lock_guard lock(announceMutex_);
            announced_ = true;
            announcedVersion_ = announcement.registryVersion;
        }
        connection_->sendText(announcement.text);
        const std::lock_guard lock(announceMutex_);
        if (!announceAgain_) {
            announcing_ = false;
            return;
        }
        announceAgain_ = false;
    }
}

void GatewaySession::capabilitiesChanged(std::uint64_t registryVersion) {
    {
        const std::lock_guard lock(announceMutex_);
        // Before the first message is built there is nothing to correct: it will show the change.
        if (!announced_ && !announcing_) return;
        if (announced_ && registryVersion <= announcedVersion_) return;
    }
    announce();
}

void GatewaySession::serve(const FrameHandler& handleFrame, std::chrono::milliseconds heartbeatPeriod) {
    std::jthread heartbeat(
        [this, heartbeatPeriod](const std::stop_token& stop) { beat(stop, *connection_, heartbeatPeriod); });
    std::string text;
    int failed = 0;
    while (connection_->receive(&text, &failed))
        handleGuarded(handleFrame, text);
    if (failed != 0) log(LogLevel::Warn, "websocket receive error: " + connection_->receiveError());
    // Closed before the heartbeat is joined: one that is stuck in a send to a peer that reads no more comes free.
    connection_->close();
}

void GatewaySession::close() {
    connection_->close();
}

}  // namespace qm
