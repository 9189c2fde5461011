#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace qm::test {

using TcpSocket = boost::asio::ip::tcp::socket;
using TlsStream = boost::beast::ssl_stream<TcpSocket>;

/// Listens on 127.0.0.1, completes TLS handshakes where TLS is served, and hands on each stream that is ready.
/// Everything runs on one thread, which the handlers share. For inclusion by the peers' source files only.
class LoopbackServer {
public:
    struct Handlers {
        std::function<void()> onConnection;  ///< A connection was accepted, before any TLS.
        std::function<void(TcpSocket)> onPlain;
        std::function<void(std::unique_ptr<TlsStream>)> onTls;
    };

    /// Binds; a port of 0 takes a free one. TLS is served if a certificate is given. Nothing is accepted yet.
    LoopbackServer(std::uint16_t port, const std::string& certificatePem, const std::string& privateKeyPem)
        : acceptor_(io_, {boost::asio::ip::address_v4::loopback(), port}) {
        namespace ssl = boost::asio::ssl;
        port_ = acceptor_.local_endpoint().port();
        if (certificatePem.empty()) return;
        tls_.emplace(ssl::context::tls_server);
        tls_->use_certificate_chain(boost::asio::buffer(certificatePem));
        tls_->use_private_key(boost::asio::buffer(privateKeyPem), ssl::context::pem);
    }
    ~LoopbackServer() { stop(); }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    void start(Handlers handlers) {
        handlers_ = std::move(handlers);
        acceptNext();
        thread_ = std::thread([this] { io_.run(); });
    }

    /// Ends all I/O; no handler runs afterwards.
    void stop() {
        io_.stop();
        if (thread_.joinable()) thread_.join();
    }

    /// Runs `task` on the server's thread.
    void post(std::function<void()> task) { boost::asio::post(io_, std::move(task)); }

    /// Refuses connections from now on. On the server's thread.
    void stopListening() {
        boost::system::error_code ignored;
        acceptor_.close(ignored);
    }

    std::uint16_t port() const { return port_; }
    bool isTls() const { return tls_.has_value(); }

private:
    void acceptNext() {
        acceptor_.async_accept([this](boost::system::error_code error, TcpSocket socket) {
            if (error == boost::asio::error::operation_aborted || !acceptor_.is_open()) return;
            if (!error) take(std::move(socket));
            acceptNext();
        });
    }

    void take(TcpSocket socket) {
        boost::system::error_code ignored;
        socket.set_option(boost::asio::ip::tcp::no_delay(true), ignored);
        if (handlers_.onConnection) handlers_.onConnection();
        if (!tls_) return handlers_.onPlain(std::move(socket));
        auto stream =
            std::make_shared<std::unique_ptr<TlsStream>>(std::make_unique<TlsStream>(std::move(socket), *tls_));
        (*stream)->async_handshake(boost::asio::ssl::stream_base::server,
                                   [this, stream](boost::system::error_code error) {
                                       if (!error) handlers_.onTls(std::move(*stream));
                                   });
    }

    boost::asio::io_context io_;
    std::optional<boost::asio::ssl::context> tls_;
    boost::asio::ip::tcp::acceptor acceptor_;
    std::uint16_t port_ = 0;
    Handlers handlers_;
    std::thread thread_;
};

}  // namespace qm::test
