#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "support/wait_until.h"

namespace qm::test {

/// What a gateway does with one upgrade request.
struct HandshakeAnswer {
    bool upgrade = true;      ///< Answer as a gateway should; the other members don't count then.
    std::string bytes{};      ///< Sent instead of the upgrade.
    bool thenClose = true;    ///< Close after the bytes; otherwise the connection is held open in silence.
    bool beforeRead = false;  ///< Don't wait for the request.

    static HandshakeAnswer accept() { return {}; }
    static HandshakeAnswer status(int code);
    /// 101 with an accept value that belongs to another key.
    static HandshakeAnswer wrongAcceptValue();
    /// The beginning of a 101 answer, `size` bytes long, without the end of its header.
    static HandshakeAnswer headerWithoutEnd(std::size_t size);
    static HandshakeAnswer closeAtOnce();
    static HandshakeAnswer silence();
};

/// An upgrade request as it came.
struct HandshakeRequest {
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;  ///< In their order, names as sent.
    std::chrono::steady_clock::time_point at;

    /// Value of the header `name`, ignoring case; empty if there is none.
    std::string header(std::string_view name) const;
};

/// A text message that came in on a session.
struct ReceivedFrame {
    std::size_t session = 0;  ///< 1 for the first session that was accepted.
    std::string text;
    nlohmann::json message;  ///< `text` parsed; a discarded value if it is no JSON.
    std::chrono::steady_clock::time_point at;
};

/// How a session ended, as the gateway saw it.
struct SessionEnd {
    bool closeFrame = false;  ///< The executor sent a close frame; otherwise the stream broke.
    std::uint16_t code = 0;   ///< Of that frame; 0 if it carried none.
    std::string reason;
    std::string error;  ///< What the stream said.
    std::chrono::steady_clock::time_point at;
};

/// Something that a watching user would like to see; handed to GatewayPeerOptions::onEvent.
struct GatewayEvent {
    enum class Kind { Refused, Opened, Frame, Ended };

    Kind kind = Kind::Opened;
    std::size_t session = 0;                  ///< 0 for Refused.
    std::string text;                         ///< Refused, Ended: why. Opened: the address of the executor.
    const nlohmann::json* message = nullptr;  ///< Frame: valid during the call.
};

struct GatewayPeerOptions {
    std::string token{};           ///< Other tokens are refused with 401; empty takes every one.
    std::string basePath{};        ///< Executors are served at basePath + "/ws/executor", other paths refused with 404.
    std::uint16_t port = 0;        ///< 0 takes a free one.
    std::string certificatePem{};  ///< Set together with privateKeyPem: serve TLS.
    std::string privateKeyPem{};
    std::function<void(const GatewayEvent&)> onEvent{};  ///< Called on the peer's own thread; must not call the peer.
};

/// A gateway on loopback, built on a WebSocket implementation that isn't the program's own.
///
/// Serves any number of sessions; what is sent goes to the newest one. All I/O runs on one thread of the object; every
/// method may be called from any other thread. Methods that wait throw std::runtime_error when their limit passes,
/// with a text that says what was waited for and what came instead.
class GatewayPeer {
public:
    explicit GatewayPeer(GatewayPeerOptions options = {});
    ~GatewayPeer();
    GatewayPeer(const GatewayPeer&) = delete;
    GatewayPeer& operator=(const GatewayPeer&) = delete;

    std::uint16_t port() const;
    /// Base URL for the executor: "http://127.0.0.1:<port>", or "https://localhost:<port>" with TLS, and the base path.
    std::string url() const;

    /// The answer for the next upgrade request that has none yet; without one, requests are treated as they deserve.
    void answerNextHandshake(HandshakeAnswer answer);
    /// All upgrade requests so far, refused ones included.
    std::vector<HandshakeRequest> handshakes() const;
    void waitForHandshakes(std::size_t count, std::chrono::milliseconds limit = kGenerousLimit) const;
    /// Connections accepted so far, whether or not a request ever came on them.
    std::size_t connectionCount() const;
    void waitForConnections(std::size_t count, std::chrono::milliseconds limit = kGenerousLimit) const;

    /// Sessions accepted so far.
    std::size_t sessionCount() const;
    void waitForSessions(std::size_t count, std::chrono::milliseconds limit = kGenerousLimit) const;
    /// Waits for the end of session number `session`.
    SessionEnd waitForEnd(std::size_t session, std::chrono::milliseconds limit = kGenerousLimit) const;

    using FramePredicate = std::function<bool(const ReceivedFrame&)>;
    /// Waits for a message that fulfils `predicate` and takes it: each message is handed out once, in its order.
    ReceivedFrame waitForFrame(const FramePredicate& predicate, std::chrono::milliseconds limit = kGenerousLimit);
    /// The next message with this `type`.
    ReceivedFrame waitForType(std::string_view type, std::chrono::milliseconds limit = kGenerousLimit);
    nlohmann::json waitForRegister(std::chrono::milliseconds limit = kGenerousLimit);
    /// The messages that nobody has taken yet.
    std::vector<ReceivedFrame> untakenFrames() const;
    /// Waits until a pong with this payload has come in on any session.
    void waitForPong(std::string_view payload, std::chrono::milliseconds limit = kGenerousLimit) const;

    /// Sends one text message in one frame. Like all that follow: throws if there is no session.
    void send(const nlohmann::json& message);
    void sendText(std::string text);
    void sendBinary(std::string bytes);
    /// Sends one frame of a fragmented message; the first is a text frame, the next are continuations up to the last.
    void sendFragment(std::string text, bool last);
    void sendPing(std::string payload);
    /// Writes bytes to the stream beside all WebSocket framing, for what a sound implementation refuses to send.
    void sendRaw(std::string bytes);

    /// Sends `message` with a fresh "requestId" and waits for the message that carries it back.
    nlohmann::json request(nlohmann::json message, std::chrono::milliseconds limit = kGenerousLimit);
    /// request() for the frame type "execute"; returns the value of "result".
    nlohmann::json execute(std::string_view capability, nlohmann::json arguments = nlohmann::json::object(),
                           nlohmann::json invocation = nlohmann::json::object());

    /// Ends the session with a close frame.
    void close(std::uint16_t code = 1000, std::string reason = {});
    /// Ends the session with a TCP reset.
    void drop();
    /// Stops listening: later attempts to connect are refused.
    void stopListening();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qm::test
