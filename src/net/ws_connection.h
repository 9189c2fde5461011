#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "net/cancel_signal.h"
#include "net/send_turn.h"
#include "net/socket.h"
#include "net/url.h"
#include "net/ws_frame.h"

namespace qm {

/// What the gateway said when it closed the session.
struct WsClose {
    /// 1005 if the gateway gave no code.
    std::uint16_t code = 0;
    std::string reason;
};

/// One client-side WebSocket connection to the gateway, carrying text messages.
///
/// Any thread may send and close; one thread reads. The connection itself is freed with the last reference.
class WsConnection {
public:
    /// Connects to `url` ("ws", "wss", "http" or "https") with `path` appended to its own path, and shows `token` in
    /// the handshake. The gateway's answer is waited for without limit. Raising `cancel` ends an attempt under way;
    /// once a connection is handed out the signal has no more bearing on it. Null on failure, with the reason in
    /// `error` if given.
    static std::shared_ptr<WsConnection> connect(const std::string& url, const std::string& path,
                                                 const std::string& token, std::string* error = nullptr,
                                                 std::shared_ptr<CancelSignal> cancel = nullptr);

    WsConnection(const WsConnection&) = delete;
    WsConnection& operator=(const WsConnection&) = delete;

    /// Sends one text message; blocks as long as the socket takes, up to 15 s for each wait. False if the connection is
    /// closed or the message couldn't be written; the session is over then and receive() ends too. Any thread.
    bool sendText(std::string_view text);

    /// Waits for the next text message and answers pings meanwhile. False when the stream has ended: `*failed`, if
    /// given, is then 0 after an orderly end or a close() on this side, 1 if reading failed. Only one thread.
    bool receive(std::string* out, int* failed = nullptr);

    /// Sends a close frame and ends the connection, which wakes the reader and a writer that is stuck. Takes a fraction
    /// of a second at most. Any thread, any number of times; only the first call does anything.
    void close();

    /// The gateway's close frame, if that is what ended receive(). For the reading thread.
    const std::optional<WsClose>& peerClose() const { return peerClose_; }

    /// Why reading failed, when receive() set `*failed` to 1. For the reading thread.
    const std::string& receiveError() const { return receiveError_; }

private:
    WsConnection();

    std::string open(const std::string& url, const std::string& path, const std::string& token,
                     std::shared_ptr<CancelSignal> cancel);
    std::string shakeHands(const Url& url, const std::string& token);
    std::string readAnswer(std::string* headerBlock);
    bool sendFrame(WsOpcode opcode, std::string_view payload);
    bool fill();

    static constexpr std::size_t kReadBlock = 16384;

    // Orders all writers, and with them the use of random_.
    SendTurn sendMutex_;
    std::atomic<bool> closed_ = false;
    std::atomic<bool> sendFailed_ = false;
    std::mt19937 random_;
    std::unique_ptr<Socket> socket_;

    // The rest belongs to the reading thread. `unread_` are the bytes of `block_` that no frame has taken yet.
    std::string block_;
    std::string_view unread_;
    WsFrameReader frames_;
    bool ended_ = false;
    std::optional<WsClose> peerClose_;
    std::string receiveError_;
};

}  // namespace qm
