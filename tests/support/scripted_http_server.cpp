#include "support/scripted_http_server.h"

#include <algorithm>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

#include "support/loopback_server.h"

namespace qm::test {

namespace beast = boost::beast;
namespace http = beast::http;
using boost::system::error_code;

namespace {

/// Decides about requests. On the server's thread.
class Script {
public:
    virtual ~Script() = default;
    virtual ScriptedAnswer onRequest(RecordedRequest request) = 0;
};

TcpSocket& tcpOf(TcpSocket& socket) {
    return socket;
}
TcpSocket& tcpOf(TlsStream& stream) {
    return stream.next_layer();
}

/// One connection: one request, one answer, then closed, as "Connection: close" asks.
template <class Stream>
class Exchange : public std::enable_shared_from_this<Exchange<Stream>> {
public:
    Exchange(Stream stream, Script& script) : stream_(std::move(stream)), script_(script) {}

    void start() {
        parser_.body_limit(std::uint64_t{1} << 32);
        http::async_read(stream_, buffer_, parser_, [self = this->shared_from_this()](error_code error, std::size_t) {
            if (!error) self->answer();
        });
    }

private:
    void answer() {
        const auto& message = parser_.get();
        RecordedRequest request;
        request.method = std::string(message.method_string());
        request.target = std::string(message.target());
        request.body = message.body();
        for (const auto& field : message) {
            request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        }
        auto answer = script_.onRequest(std::move(request));
        if (answer.neverAnswer) return waitForLeave();

        response_.result(static_cast<unsigned>(answer.status));
        response_.set(http::field::content_type, answer.contentType);
        response_.set(http::field::connection, "close");
        for (const auto& [name, value] : answer.headers) {
            response_.set(name, value);
        }
        response_.body() = std::move(answer.body);
        if (answer.chunked) {
            response_.chunked(true);
        } else {
            response_.prepare_payload();
        }
        http::async_write(stream_, response_, [self = this->shared_from_this()](error_code, std::size_t) {
            error_code ignored;
            tcpOf(self->stream_).shutdown(TcpSocket::shutdown_send, ignored);
            self->waitForLeave();
        });
    }

    /// Holds the connection until the client leaves, so that no reset overtakes the answer.
    void waitForLeave() {
        stream_.async_read_some(buffer_.prepare(4096),
                                [self = this->shared_from_this()](error_code error, std::size_t) {
                                    if (!error) self->waitForLeave();
                                });
    }

    Stream stream_;
    Script& script_;
    beast::flat_buffer buffer_;
    http::request_parser<http::string_body> parser_;
    http::response<http::string_body> response_;
};

}  // namespace

std::string RecordedRequest::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (beast::iequals(key, {name.data(), name.size()})) return value;
    }
    return {};
}

struct ScriptedHttpServer::Impl final : Script {
    explicit Impl(const ScriptedHttpServerOptions& options)
        : server(0, options.certificatePem, options.privateKeyPem) {}

    ScriptedAnswer onRequest(RecordedRequest request) override {
        const std::string path = request.target.substr(0, request.target.find('?'));
        ScriptedAnswer answer{.status = 404};
        {
            const std::lock_guard lock(mutex);
            requests.push_back(std::move(request));
            if (const auto queue = answers.find(path); queue != answers.end()) {
                answer = queue->second.front();
                if (queue->second.size() > 1) queue->second.pop_front();
            }
        }
        changed.notify_all();
        return answer;
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, std::deque<ScriptedAnswer>> answers;
    std::vector<RecordedRequest> requests;
    /// Last, so that its thread is gone before anything that it uses.
    LoopbackServer server;
};

ScriptedHttpServer::ScriptedHttpServer(const ScriptedHttpServerOptions& options)
    : impl_(std::make_unique<Impl>(options)) {
    Impl& impl = *impl_;
    impl.server.start({
        .onConnection = {},
        .onPlain =
            [&impl](TcpSocket socket) { std::make_shared<Exchange<TcpSocket>>(std::move(socket), impl)->start(); },
        .onTls =
            [&impl](std::unique_ptr<TlsStream> stream) {
                std::make_shared<Exchange<TlsStream>>(std::move(*stream), impl)->start();
            },
    });
}

ScriptedHttpServer::~ScriptedHttpServer() {
    impl_->server.stop();
}

std::uint16_t ScriptedHttpServer::port() const {
    return impl_->server.port();
}

std::string ScriptedHttpServer::url() const {
    // The certificates of the tests are made out to a name, so TLS URLs carry one.
    return (impl_->server.isTls() ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(port());
}

void ScriptedHttpServer::answer(std::string path, ScriptedAnswer answer) {
    const std::lock_guard lock(impl_->mutex);
    impl_->answers[std::move(path)].push_back(std::move(answer));
}

std::vector<RecordedRequest> ScriptedHttpServer::requests() const {
    const std::lock_guard lock(impl_->mutex);
    return impl_->requests;
}

void ScriptedHttpServer::waitForRequests(std::size_t count, std::chrono::milliseconds limit) const {
    std::unique_lock lock(impl_->mutex);
    if (impl_->changed.wait_for(lock, limit, [&] { return impl_->requests.size() >= count; })) return;
    throw std::runtime_error("waited in vain for " + std::to_string(count) + " requests; there were " +
                             std::to_string(impl_->requests.size()));
}

}  // namespace qm::test
