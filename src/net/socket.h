#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "net/cancel_signal.h"
#include "net/io_step.h"
#include "util/unique_fd.h"

namespace qm {

class TlsStream;

/// One outgoing TCP connection, plain or under TLS.
///
/// At most one thread reads and at most one writes at a time, both at once if need be; shutdownBoth() may come from any
/// thread. No operation raises SIGPIPE. The descriptor is close-on-exec and closed by the destructor.
class Socket {
public:
    /// Resolves `host`, connects to the first of its addresses that answers, and under TLS verifies the peer.
    /// `timeoutMs` (above 0) limits every single wait here and in send() and read(). Once `cancel` is raised all waits
    /// of this object fail at once, those under way too; name resolution alone isn't cut short. Null on failure, with
    /// one of these in `error` if given: "DNS 解析失败: " or "TCP 连接失败: " and the system's text, "SSL_CTX_new
    /// 失败", "无法加载系统 CA", "TLS 握手超时", "TLS 握手失败: " and the library's text.
    static std::unique_ptr<Socket> connect(const std::string& host, int port, bool tls, int timeoutMs,
                                           std::string* error = nullptr,
                                           std::shared_ptr<CancelSignal> cancel = nullptr);

    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    /// Sends all of `bytes`. False on failure; part of them may have left then, so every later call fails as well.
    bool send(std::string_view bytes);

    /// Hands `bytes` to the kernel if it takes them at this moment; never waits. To be called like send().
    bool sendWithoutWaiting(std::string_view bytes);

    /// Reads at most `size` bytes (above 0): their number, 0 when the peer ended its stream, -1 on failure, a wait of
    /// timeoutMs included.
    std::ptrdiff_t read(char* buffer, std::size_t size);

    /// The same, waiting for ever.
    std::ptrdiff_t readWithoutTimeout(char* buffer, std::size_t size);

    /// Why the last read failed. For the reading thread.
    const std::string& readError() const { return readError_; }

    /// Ends the connection in both directions, which wakes whoever waits on it. Any thread, any number of times.
    void shutdownBoth();

    /// Lets the kernel end the connection within a minute of the peer's falling silent, whether data is under way or
    /// not.
    void detectSilentPeer();

    /// Separates the connection from its CancelSignal. Before it is shared between threads.
    void forgetCancelSignal() { cancel_.reset(); }

private:
    Socket(UniqueFd fd, int timeoutMs, std::shared_ptr<CancelSignal> cancel);

    bool startTls(const std::string& host, std::string* error);
    std::ptrdiff_t readWithin(char* buffer, std::size_t size, int timeoutMs);
    IoStep readStep(char* buffer, std::size_t size);
    IoStep writeStep(std::string_view bytes);
    bool cancelled() const { return cancel_ != nullptr && cancel_->cancelled(); }
    int waitAfter(const IoStep& step, int timeoutMs) const;
    bool failedToSend();

    UniqueFd fd_;
    // Below the descriptor it uses, hence destroyed before that is closed: it says goodbye to the peer.
    std::unique_ptr<TlsStream> tls_;
    const int timeoutMs_;
    std::shared_ptr<CancelSignal> cancel_;
    std::string readError_;
    // A frame or request that left in part leaves the peer waiting for its rest: nothing else may follow it.
    bool writeFailed_ = false;
};

}  // namespace qm
