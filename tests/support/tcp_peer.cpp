#include "support/tcp_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "support/wait_until.h"

namespace qm::test {
namespace {

constexpr int kBacklog = 64;
constexpr std::size_t kReadBlock = 65536;

[[noreturn]] void throwErrno(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

/// A socket bound to a free port of the loopback interface.
UniqueFd boundSocket(int* port) {
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) throwErrno("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0) throwErrno("bind");
    if (::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) throwErrno("getsockname");
    *port = ntohs(address.sin_port);
    return fd;
}

void beginToListen(int fd, int backlog) {
    if (::listen(fd, backlog) != 0) throwErrno("listen");
}

/// A peer that writes to a dead client must not end the test program, whose own disposition tests look at.
void blockSigpipe() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int tcpState(int fd) {
    tcp_info info{};
    socklen_t size = sizeof info;
    return ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_state : -1;
}

/// How many sockets of the machine are waiting for an answer from this loopback port.
std::ptrdiff_t attemptsUnderWay(int port) {
    char wanted[16];
    std::snprintf(wanted, sizeof wanted, "0100007F:%04X", static_cast<unsigned>(port));
    std::ifstream table("/proc/net/tcp");
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        std::string remote;
        std::string state;
        if (fields >> slot >> local >> remote >> state && remote == wanted && state == "02") ++count;
    }
    return count;
}

}  // namespace

void PeerConnection::ContextFree::operator()(SSL_CTX* context) const {
    SSL_CTX_free(context);
}

void PeerConnection::SslFree::operator()(SSL* ssl) const {
    SSL_free(ssl);
}

PeerConnection::PeerConnection(UniqueFd fd) : fd_(std::move(fd)) {}

PeerConnection::~PeerConnection() = default;

void PeerConnection::startTls(const TestIdentity& identity) {
    context_.reset(SSL_CTX_new(TLS_server_method()));
    if (SSL_CTX_use_certificate_chain_file(context_.get(), identity.certificateFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(context_.get(), identity.keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        throw std::runtime_error("unusable identity");
    }
    ssl_.reset(SSL_new(context_.get()));
    SSL_set_fd(ssl_.get(), fd_.get());
    if (SSL_accept(ssl_.get()) != 1) throw std::runtime_error("TLS handshake failed");
    const char* const name = SSL_get_servername(ssl_.get(), TLSEXT_NAMETYPE_host_name);
    if (name != nullptr) serverName_ = name;
}

bool PeerConnection::readMore() {
    std::string block(kReadBlock, '\0');
    std::ptrdiff_t count = 0;
    if (ssl_) {
        count = SSL_read(ssl_.get(), block.data(), static_cast<int>(block.size()));
    } else {
        do {
            count = ::recv(fd_.get(), block.data(), block.size(), 0);
        } while (count < 0 && errno == EINTR);
    }
    if (count <= 0) return false;
    pending_.append(block, 0, static_cast<std::size_t>(count));
    return true;
}

std::string PeerConnection::readUntil(std::string_view end) {
    std::size_t position = pending_.find(end);
    while (position == std::string::npos) {
        if (!readMore()) throw std::runtime_error("stream ended before " + std::string(end));
        position = pending_.find(end);
    }
    return readExactly(position + end.size());
}

std::string PeerConnection::readExactly(std::size_t size) {
    while (pending_.size() < size) {
        if (!readMore()) throw std::runtime_error("stream ended before " + std::to_string(size) + " bytes");
    }
    std::string bytes = pending_.substr(0, size);
    pending_.erase(0, size);
    return bytes;
}

std::string PeerConnection::readToEnd() {
    while (readMore()) {
    }
    return std::exchange(pending_, {});
}

void PeerConnection::send(std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t count = 0;
        if (ssl_) {
            if (SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count) != 1) {
                throw std::runtime_error("TLS write failed");
            }
        } else {
            const auto sent = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0 && errno != EINTR) throwErrno("send");
            count = sent < 0 ? 0 : static_cast<std::size_t>(sent);
        }
        bytes.remove_prefix(count);
    }
}

void PeerConnection::finish() {
    if (ssl_) SSL_shutdown(ssl_.get());
    cutOff();
}

void PeerConnection::cutOff() {
    ::shutdown(fd_.get(), SHUT_WR);
}

void PeerConnection::reset() {
    // Leaving out the lingering makes the kernel answer with a reset instead of an end of stream.
    const linger abort{1, 0};
    ::setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ssl_.reset();
    const std::lock_guard lock(mutex_);
    fd_.reset();
}

void PeerConnection::interrupt() {
    const std::lock_guard lock(mutex_);
    interrupted_ = true;
    wake_.notify_all();
    if (fd_) ::shutdown(fd_.get(), SHUT_RDWR);
}

void PeerConnection::hold() {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return interrupted_; });
}

TcpPeer::TcpPeer(Script script) : script_(std::move(script)), listener_(boundSocket(&port_)) {
    beginToListen(listener_.get(), kBacklog);
    acceptor_ = std::jthread([this] { acceptLoop(); });
}

TcpPeer::TcpPeer(const TestIdentity& identity, Script script)
    : identity_(std::make_unique<TestIdentity>(identity)), script_(std::move(script)), listener_(boundSocket(&port_)) {
    beginToListen(listener_.get(), kBacklog);
    acceptor_ = std::jthread([this] { acceptLoop(); });
}

TcpPeer::~TcpPeer() {
    stopping_ = true;
    // Wakes accept().
    ::shutdown(listener_.get(), SHUT_RDWR);
    acceptor_.join();
    for (auto& session : sessions_)
        session.connection->interrupt();
    for (auto& session : sessions_)
        session.thread.join();
}

std::string TcpPeer::url(std::string_view scheme, std::string_view path) const {
    const char* const host = identity_ ? "localhost" : "127.0.0.1";
    return std::string(scheme) + "://" + host + ":" + std::to_string(port_) + std::string(path);
}

void TcpPeer::acceptLoop() {
    blockSigpipe();
    while (!stopping_) {
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) continue;
        ++accepted_;
        auto& session = sessions_.emplace_back();
        session.connection = std::make_unique<PeerConnection>(std::move(fd));
        session.thread = std::jthread([this, connection = session.connection.get()] { serve(*connection); });
    }
}

void TcpPeer::serve(PeerConnection& connection) {
    if (identity_) {
        try {
            connection.startTls(*identity_);
        } catch (const std::runtime_error&) {
            connection.cutOff();
            return;
        }
    }
    try {
        script_(connection);
        connection.finish();
    } catch (const std::exception& exception) {
        if (!stopping_) ADD_FAILURE() << "peer: " << exception.what();
        connection.cutOff();
    }
}

int descriptorConnectedTo(int port) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        sockaddr_in address{};
        socklen_t size = sizeof address;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 && address.sin_family == AF_INET &&
            ntohs(address.sin_port) == port) {
            return fd;
        }
    }
    return -1;
}

FullListener::FullListener() : listener_(boundSocket(&port_)) {
    beginToListen(listener_.get(), 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) throwErrno("getsockname");
    for (int i = 0; i < 4; ++i) {
        auto& fd = waiting_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 && errno != EINPROGRESS) {
            throwErrno("connect");
        }
    }
    // The queue holds a single connection, so it is full with the first.
    const bool full = waitUntil([this] {
        return std::any_of(waiting_.begin(), waiting_.end(),
                           [](const UniqueFd& fd) { return tcpState(fd.get()) == TCP_ESTABLISHED; });
    });
    if (!full) throw std::runtime_error("no connection was queued");
}

bool FullListener::attemptPending() const {
    const auto own = std::count_if(waiting_.begin(), waiting_.end(),
                                   [](const UniqueFd& fd) { return tcpState(fd.get()) == TCP_SYN_SENT; });
    return attemptsUnderWay(port_) > own;
}

RefusingPort::RefusingPort() : bound_(boundSocket(&port_)) {}

}  // namespace qm::test
