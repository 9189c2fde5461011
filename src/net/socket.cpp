#include "net/socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "net/poll_wait.h"
#include "net/tcp_connect.h"
#include "net/tls.h"

namespace qm {
namespace {

// Together these end a connection whose peer is gone within about 50 s: the probes when nothing is under way, the user
// timeout when something is.
constexpr int kSilenceBeforeProbesSeconds = 20;
constexpr int kProbeIntervalSeconds = 10;
constexpr int kProbes = 3;
constexpr unsigned kUnacknowledgedLimitMs = 45000;

std::string systemText(int error) {
    return std::generic_category().message(error);
}

IoStep failedStep(int error) {
    return {IoStep::Kind::Failed, 0, systemText(error)};
}

template <typename Value>
void setOption(int fd, int level, int option, Value value) {
    // A kernel that refuses one of these makes the connection slower to react, no less correct.
    (void)::setsockopt(fd, level, option, &value, sizeof value);
}

}  // namespace

std::unique_ptr<Socket> Socket::connect(const std::string& host, int port, bool tls, int timeoutMs, std::string* error,
                                        std::shared_ptr<CancelSignal> cancel) {
    std::string ignored;
    if (error == nullptr) error = &ignored;
    UniqueFd fd = connectTcp(host, port, timeoutMs, cancel.get(), error);
    if (!fd) return nullptr;
    setOption(fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    std::unique_ptr<Socket> socket(new Socket(std::move(fd), timeoutMs, std::move(cancel)));
    if (tls && !socket->startTls(host, error)) return nullptr;
    return socket;
}

Socket::Socket(UniqueFd fd, int timeoutMs, std::shared_ptr<CancelSignal> cancel)
    : fd_(std::move(fd)), timeoutMs_(timeoutMs), cancel_(std::move(cancel)) {}

Socket::~Socket() = default;

bool Socket::startTls(const std::string& host, std::string* error) {
    const auto context = sharedTlsContext(error);
    if (!context) return false;
    tls_ = TlsStream::create(context, fd_.get(), host);
    if (!tls_) {
        *error = "TLS 握手失败: unknown";
        return false;
    }
    while (true) {
        const auto step = tls_->handshake();
        if (step.kind == IoStep::Kind::Done) return true;
        if (step.kind == IoStep::Kind::Failed) {
            *error = "TLS 握手失败: " + step.reason;
            return false;
        }
        if (waitAfter(step, timeoutMs_) != 0) {
            *error = "TLS 握手超时";
            return false;
        }
    }
}

IoStep Socket::readStep(char* buffer, std::size_t size) {
    if (tls_) return tls_->read(buffer, size);
    const auto count = ::recv(fd_.get(), buffer, size, 0);
    if (count > 0) return {IoStep::Kind::Done, static_cast<std::size_t>(count), {}};
    if (count == 0) return {IoStep::Kind::Ended, 0, {}};
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return {IoStep::Kind::WaitRead, 0, {}};
    return failedStep(errno);
}

IoStep Socket::writeStep(std::string_view bytes) {
    if (tls_) return tls_->write(bytes);
    const auto count = ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count >= 0) return {IoStep::Kind::Done, static_cast<std::size_t>(count), {}};
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return {IoStep::Kind::WaitWrite, 0, {}};
    return failedStep(errno);
}

/// Waits for what `step` asks for; 0 or an error number, as waitForEvents().
int Socket::waitAfter(const IoStep& step, int timeoutMs) const {
    const short events = step.kind == IoStep::Kind::WaitRead ? POLLIN : POLLOUT;
    return waitForEvents(fd_.get(), events, timeoutMs, cancel_.get());
}

bool Socket::failedToSend() {
    writeFailed_ = true;
    return false;
}

bool Socket::send(std::string_view bytes) {
    while (!bytes.empty()) {
        if (writeFailed_ || cancelled()) return failedToSend();
        const auto step = writeStep(bytes);
        if (step.kind == IoStep::Kind::Done) {
            bytes.remove_prefix(step.bytes);
            continue;
        }
        const bool over = step.kind == IoStep::Kind::Failed || step.kind == IoStep::Kind::Ended;
        if (over || waitAfter(step, timeoutMs_) != 0) return failedToSend();
    }
    return true;
}

bool Socket::sendWithoutWaiting(std::string_view bytes) {
    if (writeFailed_) return false;
    const auto step = writeStep(bytes);
    if (step.kind == IoStep::Kind::Done && step.bytes == bytes.size()) return true;
    return failedToSend();
}

std::ptrdiff_t Socket::read(char* buffer, std::size_t size) {
    return readWithin(buffer, size, timeoutMs_);
}

std::ptrdiff_t Socket::readWithoutTimeout(char* buffer, std::size_t size) {
    return readWithin(buffer, size, kWaitForEver);
}

std::ptrdiff_t Socket::readWithin(char* buffer, std::size_t size, int timeoutMs) {
    // Tries before it waits: bytes that are decrypted already don't make the socket readable.
    int failure = cancelled() ? ECANCELED : 0;
    while (failure == 0) {
        auto step = readStep(buffer, size);
        if (step.kind == IoStep::Kind::Done) return static_cast<std::ptrdiff_t>(step.bytes);
        if (step.kind == IoStep::Kind::Ended) return 0;
        if (step.kind == IoStep::Kind::Failed) {
            readError_ = std::move(step.reason);
            return -1;
        }
        failure = waitAfter(step, timeoutMs);
    }
    readError_ = systemText(failure);
    return -1;
}

void Socket::shutdownBoth() {
    ::shutdown(fd_.get(), SHUT_RDWR);
}

void Socket::detectSilentPeer() {
    setOption(fd_.get(), SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(fd_.get(), IPPROTO_TCP, TCP_KEEPIDLE, kSilenceBeforeProbesSeconds);
    setOption(fd_.get(), IPPROTO_TCP, TCP_KEEPINTVL, kProbeIntervalSeconds);
    setOption(fd_.get(), IPPROTO_TCP, TCP_KEEPCNT, kProbes);
    setOption(fd_.get(), IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedLimitMs);
}

}  // namespace qm
