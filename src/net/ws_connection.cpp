#include "net/ws_connection.h"

#include <openssl/sha.h>

#include <chrono>
#include <mutex>
#include <new>
#include <utility>

#include "net/http_response.h"
#include "util/base64.h"

namespace qm {
namespace {

constexpr int kTimeoutMs = 15000;
constexpr std::size_t kHandshakeReadBlock = 4096;
constexpr std::size_t kMaxHandshakeBytes = 65536;
constexpr std::int32_t kSwitchingProtocols = 101;
constexpr std::size_t kKeyBytes = 16;
constexpr char kAcceptSuffix[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr std::uint16_t kNoCloseCode = 1005;

// How long close() waits for a frame under way before it gives up its own, which can't stand inside another.
constexpr std::chrono::milliseconds kCloseWait{200};

/// `url` with a WebSocket scheme written as the HTTP scheme that it is a form of.
std::string withHttpScheme(const std::string& url) {
    if (url.starts_with("ws://")) return "http://" + url.substr(5);
    if (url.starts_with("wss://")) return "https://" + url.substr(6);
    return url;
}

std::string acceptFor(const std::string& key) {
    const std::string text = key + kAcceptSuffix;
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    return base64Encode({reinterpret_cast<const char*>(digest), sizeof digest});
}

std::string randomKey(std::mt19937& random) {
    std::string bytes;
    while (bytes.size() < kKeyBytes) {
        const auto word = static_cast<std::uint32_t>(random());
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
    return base64Encode(bytes);
}

std::string handshakeRequest(const Url& url, const std::string& key, const std::string& token) {
    std::string request;
    request.append("GET ").append(url.path).append(" HTTP/1.1\r\n");
    request.append("Host: ").append(url.hostHeader()).append("\r\n");
    request.append("Upgrade: websocket\r\n");
    request.append("Connection: Upgrade\r\n");
    request.append("Sec-WebSocket-Key: ").append(key).append("\r\n");
    request.append("Sec-WebSocket-Version: 13\r\n");
    request.append("X-Executor-Token: ").append(token).append("\r\n\r\n");
    return request;
}

WsClose parseClose(std::string_view payload) {
    WsClose close;
    close.code = kNoCloseCode;
    if (payload.size() < 2) return close;
    close.code = static_cast<std::uint16_t>(static_cast<unsigned char>(payload[0]) << 8 |
                                            static_cast<unsigned char>(payload[1]));
    close.reason = payload.substr(2);
    return close;
}

}  // namespace

WsConnection::WsConnection() : random_(std::random_device("default")()), block_(kReadBlock, '\0') {}

std::shared_ptr<WsConnection> WsConnection::connect(const std::string& url, const std::string& path,
                                                    const std::string& token, std::string* error,
                                                    std::shared_ptr<CancelSignal> cancel) {
    std::shared_ptr<WsConnection> connection(new WsConnection);
    std::string failure = connection->open(url, path, token, std::move(cancel));
    if (failure.empty()) return connection;
    if (error != nullptr) *error = std::move(failure);
    return nullptr;
}

/// Connects and shakes hands; empty on success, otherwise the reason.
std::string WsConnection::open(const std::string& url, const std::string& path, const std::string& token,
                               std::shared_ptr<CancelSignal> cancel) {
    auto target = parseUrl(withHttpScheme(url));
    if (!target) return "invalid gateway url: " + url;
    // A URL without a path has "/" for one, which isn't repeated.
    target->path = target->path == "/" ? path : target->path + path;

    std::string error;
    socket_ = Socket::connect(target->host, target->port, target->tls, kTimeoutMs, &error, std::move(cancel));
    if (!socket_) return error;
    socket_->detectSilentPeer();
    error = shakeHands(*target, token);
    socket_->forgetCancelSignal();
    return error;
}

std::string WsConnection::shakeHands(const Url& url, const std::string& token) {
    const std::string key = randomKey(random_);
    const bool tokenFits = token.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos;
    if (!tokenFits || !socket_->send(handshakeRequest(url, key, token))) return "websocket handshake send failed";

    std::string headerBlock;
    if (std::string error = readAnswer(&headerBlock); !error.empty()) return error;
    if (const auto status = statusOf(headerBlock).value_or(0); status != kSwitchingProtocols) {
        return "gateway refused websocket upgrade: HTTP " + std::to_string(status);
    }
    if (findHeader(headerBlock, "Sec-WebSocket-Accept") != acceptFor(key)) return "websocket accept mismatch";
    return {};
}

/// Reads up to the end of the header block; what came with it is left as the first bytes of frames.
std::string WsConnection::readAnswer(std::string* headerBlock) {
    std::string answer;
    std::size_t end = std::string::npos;
    while (end == std::string::npos) {
        if (answer.size() > kMaxHandshakeBytes) return "handshake response too large";
        const auto count = socket_->readWithoutTimeout(block_.data(), kHandshakeReadBlock);
        if (count <= 0) return "websocket handshake: no response";
        const std::size_t searchFrom = answer.size() < 3 ? 0 : answer.size() - 3;
        answer.append(block_.data(), static_cast<std::size_t>(count));
        end = answer.find("\r\n\r\n", searchFrom);
    }
    *headerBlock = answer.substr(0, end);
    // The rest came in the last block, so it fits.
    const std::size_t rest = answer.copy(block_.data(), block_.size(), end + 4);
    unread_ = std::string_view(block_).substr(0, rest);
    return {};
}

bool WsConnection::sendText(std::string_view text) {
    return sendFrame(WsOpcode::Text, text);
}

bool WsConnection::sendFrame(WsOpcode opcode, std::string_view payload) {
    const std::lock_guard lock(sendMutex_);
    if (closed_) return false;
    if (socket_->send(encodeWsFrame(opcode, payload, static_cast<std::uint32_t>(random_())).view())) return true;
    // Half a frame may have left, so the peer can make nothing of what would follow: the session ends here.
    sendFailed_ = true;
    socket_->shutdownBoth();
    return false;
}

bool WsConnection::receive(std::string* out, int* failed) {
    if (failed != nullptr) *failed = 0;
    while (!closed_ && !ended_) {
        switch (frames_.next(&unread_)) {
            case WsFrameReader::Event::Message:
                *out = std::move(frames_.payload());
                return true;
            case WsFrameReader::Event::Ping:
                sendFrame(WsOpcode::Pong, frames_.payload());
                break;
            case WsFrameReader::Event::Close:
                peerClose_ = parseClose(frames_.payload());
                ended_ = true;
                break;
            case WsFrameReader::Event::NeedsBytes:
                ended_ = !fill();
                break;
        }
    }
    if (failed != nullptr && !receiveError_.empty()) *failed = 1;
    return false;
}

/// Waits for more bytes; false at the end of the stream, with receiveError_ set unless it ended in good order.
bool WsConnection::fill() {
    const auto count = socket_->readWithoutTimeout(block_.data(), block_.size());
    if (count > 0) {
        unread_ = std::string_view(block_).substr(0, static_cast<std::size_t>(count));
        return true;
    }
    if (closed_) return false;
    if (sendFailed_) {
        receiveError_ = "a frame could not be sent";
    } else if (count < 0) {
        receiveError_ = socket_->readError();
    }
    return false;
}

void WsConnection::close() {
    if (closed_.exchange(true)) return;
    try {
        if (const std::unique_lock lock(sendMutex_, kCloseWait); lock.owns_lock()) {
            const auto frame = encodeWsFrame(WsOpcode::Close, {}, static_cast<std::uint32_t>(random_()));
            socket_->sendWithoutWaiting(frame.view());
        }
    } catch (const std::bad_alloc&) {
        // No memory for the frame: the connection ends without one.
    }
    socket_->shutdownBoth();
}

}  // namespace qm
