#include "support/gateway_peer.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/write.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>

#include "support/loopback_server.h"

namespace qm::test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using boost::system::error_code;
using nlohmann::json;

namespace {

/// One thing to write to a session; they leave one after another in the order given.
struct Write {
    enum class Kind { Text, Binary, Fragment, Ping, Raw, Close };

    Kind kind = Kind::Text;
    std::string payload;  ///< Close: the reason.
    bool last = true;     ///< Fragment only.
    std::uint16_t code = 0;
};

/// A session as the peer's methods see it, whatever stream it runs on. On the server's thread.
class Session {
public:
    virtual ~Session() = default;
    virtual void write(Write write) = 0;
    virtual void drop() = 0;
};

/// Where connections report to. On the server's thread.
class Observer {
public:
    virtual ~Observer() = default;
    /// Decides about a request.
    virtual HandshakeAnswer onRequest(const HandshakeRequest& request) = 0;
    /// A connection that came with an answer that doesn't wait for its request.
    virtual std::optional<HandshakeAnswer> answerBeforeRequest() = 0;
    virtual std::size_t onOpened(const std::shared_ptr<Session>& session, const std::string& address) = 0;
    virtual void onText(std::size_t session, std::string text) = 0;
    virtual void onPong(std::string payload) = 0;
    virtual void onEnded(std::size_t session, SessionEnd end) = 0;
};

TcpSocket& tcpOf(TcpSocket& socket) {
    return socket;
}
TcpSocket& tcpOf(TlsStream& stream) {
    return stream.next_layer();
}

void resetConnection(TcpSocket& socket) {
    error_code ignored;
    socket.set_option(asio::socket_base::linger(true, 0), ignored);
    socket.close(ignored);
}

/// One accepted connection: reads the upgrade request, answers it, and then is a session or a scripted misbehaviour.
template <class Stream>
class Connection final : public Session, public std::enable_shared_from_this<Connection<Stream>> {
public:
    Connection(Stream stream, Observer& observer) : ws_(std::move(stream)), observer_(observer) {}

    void start() {
        if (auto answer = observer_.answerBeforeRequest()) return misbehave(std::move(*answer));
        http::async_read(ws_.next_layer(), buffer_, request_,
                         [self = this->shared_from_this()](error_code error, std::size_t) {
                             if (!error) self->answer();
                         });
    }

    void write(Write write) override {
        writes_.push_back(std::move(write));
        if (writes_.size() == 1) writeNext();
    }

    void drop() override {
        dropped_ = true;
        resetConnection(tcpOf(ws_.next_layer()));
    }

private:
    void answer() {
        HandshakeRequest seen;
        seen.method = std::string(request_.method_string());
        seen.target = std::string(request_.target());
        for (const auto& field : request_) {
            seen.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        }
        seen.at = std::chrono::steady_clock::now();
        auto answer = observer_.onRequest(seen);
        if (!answer.upgrade) return misbehave(std::move(answer));

        ws_.auto_fragment(false);
        ws_.read_message_max(0);
        ws_.control_callback([this](websocket::frame_type type, beast::string_view payload) {
            if (type == websocket::frame_type::pong) observer_.onPong(std::string(payload));
            if (type == websocket::frame_type::close) closeFrameCame_ = true;
        });
        ws_.async_accept(request_, [self = this->shared_from_this()](error_code error) {
            if (!error) self->open();
        });
    }

    void misbehave(HandshakeAnswer answer) {
        answer_ = std::move(answer);
        asio::async_write(ws_.next_layer(), asio::buffer(answer_.bytes),
                          [self = this->shared_from_this()](error_code, std::size_t) {
                              if (self->answer_.thenClose) {
                                  error_code ignored;
                                  tcpOf(self->ws_.next_layer()).shutdown(TcpSocket::shutdown_send, ignored);
                              }
                              self->readToEnd();
                          });
    }

    /// Keeps a connection that will never be a session until the other side leaves it.
    void readToEnd() {
        ws_.next_layer().async_read_some(buffer_.prepare(4096),
                                         [self = this->shared_from_this()](error_code error, std::size_t) {
                                             if (!error) self->readToEnd();
                                         });
    }

    void open() {
        error_code ignored;
        const auto address = tcpOf(ws_.next_layer()).remote_endpoint(ignored);
        number_ = observer_.onOpened(this->shared_from_this(),
                                     address.address().to_string() + ":" + std::to_string(address.port()));
        buffer_.clear();
        readNext();
    }

    void readNext() {
        ws_.async_read(buffer_, [self = this->shared_from_this()](error_code error, std::size_t) {
            if (error) return self->end(error);
            std::string text = beast::buffers_to_string(self->buffer_.data());
            self->buffer_.clear();
            self->observer_.onText(self->number_, std::move(text));
            self->readNext();
        });
    }

    void end(error_code error) {
        SessionEnd end;
        // Not taken from the error: an executor that is gone at once makes the answer to its close frame fail.
        end.closeFrame = closeFrameCame_;
        end.code = ws_.reason().code;
        end.reason = std::string(ws_.reason().reason.c_str());
        end.error = dropped_ ? "dropped by the gateway" : error.message();
        end.at = std::chrono::steady_clock::now();
        observer_.onEnded(number_, std::move(end));
        // After a close frame of the other side the library has answered it already.
        error_code ignored;
        tcpOf(ws_.next_layer()).shutdown(TcpSocket::shutdown_both, ignored);
    }

    void writeNext() {
        auto done = [self = this->shared_from_this()](error_code error, std::size_t = 0) {
            if (error) return self->writes_.clear();
            self->writes_.pop_front();
            if (!self->writes_.empty()) self->writeNext();
        };
        const Write& next = writes_.front();
        switch (next.kind) {
            case Write::Kind::Text:
                ws_.text(true);
                return ws_.async_write(asio::buffer(next.payload), done);
            case Write::Kind::Binary:
                ws_.binary(true);
                return ws_.async_write(asio::buffer(next.payload), done);
            case Write::Kind::Fragment:
                ws_.text(true);
                return ws_.async_write_some(next.last, asio::buffer(next.payload), done);
            case Write::Kind::Ping:
                return ws_.async_ping(websocket::ping_data(next.payload), done);
            case Write::Kind::Raw:
                return asio::async_write(ws_.next_layer(), asio::buffer(next.payload), done);
            case Write::Kind::Close:
                return ws_.async_close(
                    websocket::close_reason(static_cast<websocket::close_code>(next.code), next.payload), done);
        }
    }

    websocket::stream<Stream> ws_;
    Observer& observer_;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
    HandshakeAnswer answer_;
    std::size_t number_ = 0;
    bool closeFrameCame_ = false;
    bool dropped_ = false;
    std::deque<Write> writes_;
};

std::string statusLine(int code) {
    return "HTTP/1.1 " + std::to_string(code) + " " +
           std::string(http::obsolete_reason(http::int_to_status(static_cast<unsigned>(code)))) + "\r\n";
}

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c); });
    return lower;
}

std::string preview(const std::string& text) {
    constexpr std::size_t kMost = 300;
    return text.size() <= kMost ? text : text.substr(0, kMost) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace

HandshakeAnswer HandshakeAnswer::status(int code) {
    return {.upgrade = false, .bytes = statusLine(code) + "Content-Length: 0\r\nConnection: close\r\n\r\n"};
}

HandshakeAnswer HandshakeAnswer::wrongAcceptValue() {
    return {.upgrade = false,
            .bytes = statusLine(101) +
                     "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                     "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n"};
}

HandshakeAnswer HandshakeAnswer::headerWithoutEnd(std::size_t size) {
    std::string bytes = statusLine(101) + "X-Filler: ";
    bytes.resize(size, 'x');
    return {.upgrade = false, .bytes = std::move(bytes), .thenClose = false};
}

HandshakeAnswer HandshakeAnswer::closeAtOnce() {
    return {.upgrade = false, .beforeRead = true};
}

HandshakeAnswer HandshakeAnswer::silence() {
    return {.upgrade = false, .thenClose = false};
}

std::string HandshakeRequest::header(std::string_view name) const {
    const auto wanted = lowerCase(name);
    for (const auto& [key, value] : headers) {
        if (lowerCase(key) == wanted) return value;
    }
    return {};
}

struct GatewayPeer::Impl final : Observer {
    explicit Impl(GatewayPeerOptions given)
        : options(std::move(given)), server(options.port, options.certificatePem, options.privateKeyPem) {}

    // Observer: on the server's thread.

    std::optional<HandshakeAnswer> answerBeforeRequest() override {
        const std::lock_guard lock(mutex);
        if (answers.empty() || !answers.front().beforeRead) return std::nullopt;
        return takeAnswer();
    }

    HandshakeAnswer onRequest(const HandshakeRequest& request) override {
        HandshakeAnswer answer;
        std::string refusal;
        {
            const std::lock_guard lock(mutex);
            requests.push_back(request);
            if (!answers.empty()) {
                answer = takeAnswer();
                if (!answer.upgrade) refusal = "as scripted";
            } else if (request.target != options.basePath + "/ws/executor") {
                answer = HandshakeAnswer::status(404);
                refusal = "404, there is nothing at " + request.target;
            } else if (!options.token.empty() && request.header("X-Executor-Token") != options.token) {
                answer = HandshakeAnswer::status(401);
                refusal = "401, the token isn't the expected one";
            }
        }
        changed.notify_all();
        if (!answer.upgrade) announce({GatewayEvent::Kind::Refused, 0, refusal, nullptr});
        return answer;
    }

    std::size_t onOpened(const std::shared_ptr<Session>& session, const std::string& address) override {
        std::size_t number = 0;
        {
            const std::lock_guard lock(mutex);
            current = session;
            number = ++sessions;
        }
        changed.notify_all();
        announce({GatewayEvent::Kind::Opened, number, address, nullptr});
        return number;
    }

    void onText(std::size_t session, std::string text) override {
        ReceivedFrame frame;
        frame.session = session;
        frame.text = std::move(text);
        frame.message = json::parse(frame.text, nullptr, false);
        frame.at = std::chrono::steady_clock::now();
        announce({GatewayEvent::Kind::Frame, session, {}, &frame.message});
        {
            const std::lock_guard lock(mutex);
            frames.push_back(std::move(frame));
        }
        changed.notify_all();
    }

    void onPong(std::string payload) override {
        {
            const std::lock_guard lock(mutex);
            pongs.insert(std::move(payload));
        }
        changed.notify_all();
    }

    void onEnded(std::size_t session, SessionEnd end) override {
        const std::string text = end.closeFrame ? "close frame" : end.error;
        {
            const std::lock_guard lock(mutex);
            ends[session] = std::move(end);
            if (session == sessions) current.reset();
        }
        changed.notify_all();
        announce({GatewayEvent::Kind::Ended, session, text, nullptr});
    }

    void announce(const GatewayEvent& event) {
        if (options.onEvent) options.onEvent(event);
    }

    HandshakeAnswer takeAnswer() {
        auto answer = std::move(answers.front());
        answers.pop_front();
        return answer;
    }

    // For the methods: on any other thread.

    template <class Condition>
    void waitFor(const std::string& what, std::chrono::milliseconds limit, const Condition& condition) {
        std::unique_lock lock(mutex);
        if (changed.wait_for(lock, limit, condition)) return;
        std::string text = "the gateway waited in vain for " + what +
                           "; handshakes: " + std::to_string(requests.size()) +
                           ", sessions: " + std::to_string(sessions) + ", messages not taken:";
        for (const auto& frame : frames) {
            text += "\n  " + preview(frame.text);
        }
        throw std::runtime_error(text);
    }

    void write(Write write) {
        std::shared_ptr<Session> session;
        {
            const std::lock_guard lock(mutex);
            session = current;
        }
        if (!session) throw std::runtime_error("the gateway has no session to send to");
        server.post([session, write = std::move(write)]() mutable { session->write(std::move(write)); });
    }

    const GatewayPeerOptions options;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<HandshakeAnswer> answers;
    std::vector<HandshakeRequest> requests;
    std::size_t connections = 0;
    std::size_t sessions = 0;
    std::map<std::size_t, SessionEnd> ends;
    std::deque<ReceivedFrame> frames;
    std::set<std::string> pongs;
    std::shared_ptr<Session> current;
    std::atomic<std::uint64_t> nextRequest{1};
    /// Last, so that its thread is gone before anything that it uses.
    LoopbackServer server;
};

GatewayPeer::GatewayPeer(GatewayPeerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {
    Impl& impl = *impl_;
    impl.server.start({
        .onConnection =
            [&impl] {
                {
                    const std::lock_guard lock(impl.mutex);
                    ++impl.connections;
                }
                impl.changed.notify_all();
            },
        .onPlain =
            [&impl](TcpSocket socket) { std::make_shared<Connection<TcpSocket>>(std::move(socket), impl)->start(); },
        .onTls =
            [&impl](std::unique_ptr<TlsStream> stream) {
                std::make_shared<Connection<TlsStream>>(std::move(*stream), impl)->start();
            },
    });
}

GatewayPeer::~GatewayPeer() {
    impl_->server.stop();
    impl_->current.reset();
}

std::uint16_t GatewayPeer::port() const {
    return impl_->server.port();
}

std::string GatewayPeer::url() const {
    // The certificates of the tests are made out to a name, so TLS URLs carry one.
    const std::string host = impl_->server.isTls() ? "https://localhost:" : "http://127.0.0.1:";
    return host + std::to_string(port()) + impl_->options.basePath;
}

void GatewayPeer::answerNextHandshake(HandshakeAnswer answer) {
    const std::lock_guard lock(impl_->mutex);
    impl_->answers.push_back(std::move(answer));
}

std::vector<HandshakeRequest> GatewayPeer::handshakes() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

void GatewayPeer::waitForHandshakes(std::size_t count, std::chrono::milliseconds limit) const {
    impl_->waitFor(std::to_string(count) + " handshakes", limit, [&] { return impl_->requests.size() >= count; });
}

std::size_t GatewayPeer::connectionCount() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->connections;
}

void GatewayPeer::waitForConnections(std::size_t count, std::chrono::milliseconds limit) const {
    impl_->waitFor(std::to_string(count) + " connections", limit, [&] { return impl_->connections >= count; });
}

std::size_t GatewayPeer::sessionCount() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->sessions;
}

void GatewayPeer::waitForSessions(std::size_t count, std::chrono::milliseconds limit) const {
    impl_->waitFor(std::to_string(count) + " sessions", limit, [&] { return impl_->sessions >= count; });
}

SessionEnd GatewayPeer::waitForEnd(std::size_t session, std::chrono::milliseconds limit) const {
    impl_->waitFor("the end of session " + std::to_string(session), limit,
                   [&] { return impl_->ends.contains(session); });
    const std::lock_guard lock(impl_->mutex);
    return impl_->ends.at(session);
}

ReceivedFrame GatewayPeer::waitForFrame(const FramePredicate& predicate, std::chrono::milliseconds limit) {
    ReceivedFrame found;
    impl_->waitFor("a message", limit, [&] {
        const auto match = std::find_if(impl_->frames.begin(), impl_->frames.end(), predicate);
        if (match == impl_->frames.end()) return false;
        found = std::move(*match);
        impl_->frames.erase(match);
        return true;
    });
    return found;
}

ReceivedFrame GatewayPeer::waitForType(std::string_view type, std::chrono::milliseconds limit) {
    return waitForFrame(
        [type](const ReceivedFrame& frame) {
            return frame.message.is_object() && frame.message.value("type", json()) == type;
        },
        limit);
}

json GatewayPeer::waitForRegister(std::chrono::milliseconds limit) {
    return waitForType("register", limit).message;
}

std::vector<ReceivedFrame> GatewayPeer::untakenFrames() const {
    const std::lock_guard lock(impl_->mutex);
    return {impl_->frames.begin(), impl_->frames.end()};
}

void GatewayPeer::waitForPong(std::string_view payload, std::chrono::milliseconds limit) const {
    const std::string wanted(payload);
    impl_->waitFor("a pong with \"" + wanted + "\"", limit, [&] { return impl_->pongs.contains(wanted); });
}

void GatewayPeer::send(const json& message) {
    sendText(message.dump());
}

void GatewayPeer::sendText(std::string text) {
    impl_->write({Write::Kind::Text, std::move(text)});
}

void GatewayPeer::sendBinary(std::string bytes) {
    impl_->write({Write::Kind::Binary, std::move(bytes)});
}

void GatewayPeer::sendFragment(std::string text, bool last) {
    impl_->write({Write::Kind::Fragment, std::move(text), last});
}

void GatewayPeer::sendPing(std::string payload) {
    impl_->write({Write::Kind::Ping, std::move(payload)});
}

void GatewayPeer::sendRaw(std::string bytes) {
    impl_->write({Write::Kind::Raw, std::move(bytes)});
}

json GatewayPeer::request(json message, std::chrono::milliseconds limit) {
    const std::string id = "request-" + std::to_string(impl_->nextRequest++);
    message["requestId"] = id;
    send(message);
    return waitForFrame(
               [&id](const ReceivedFrame& frame) {
                   return frame.message.is_object() && frame.message.value("requestId", json()) == id;
               },
               limit)
        .message;
}

json GatewayPeer::execute(std::string_view capability, json arguments, json invocation) {
    auto reply = request({{"type", "execute"},
                          {"capabilityId", capability},
                          {"args", std::move(arguments)},
                          {"invocation", std::move(invocation)}});
    return reply.at("result");
}

void GatewayPeer::close(std::uint16_t code, std::string reason) {
    impl_->write({Write::Kind::Close, std::move(reason), true, code});
}

void GatewayPeer::drop() {
    std::shared_ptr<Session> session;
    {
        const std::lock_guard lock(impl_->mutex);
        session = impl_->current;
    }
    if (!session) throw std::runtime_error("the gateway has no session to drop");
    impl_->server.post([session] { session->drop(); });
}

void GatewayPeer::stopListening() {
    impl_->server.post([&server = impl_->server] { server.stopListening(); });
}

}  // namespace qm::test
