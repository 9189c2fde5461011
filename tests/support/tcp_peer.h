#pragma once

#include <openssl/types.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "support/test_authority.h"
#include "util/unique_fd.h"

namespace qm::test {

/// The server's end of one connection, for scripts that care about every byte. Used by the script's thread alone.
/// Whatever goes wrong throws, an end of stream included where bytes were asked for.
class PeerConnection {
public:
    explicit PeerConnection(UniqueFd fd);
    ~PeerConnection();
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;

    /// From here on everything goes through TLS.
    void startTls(const TestIdentity& identity);

    /// Reads up to and including `end`; bytes behind it are kept for the next read.
    std::string readUntil(std::string_view end);
    std::string readExactly(std::size_t size);
    /// Everything up to the end of the stream, be it orderly or not.
    std::string readToEnd();

    void send(std::string_view bytes);
    /// Ends the stream in this direction in good order; under TLS with the notice that belongs to it.
    void finish();
    /// Ends the TCP stream in this direction, under TLS without any notice.
    void cutOff();
    /// Throws the connection away, so that the other end sees a reset.
    void reset();

    /// Does nothing, reads nothing, until the test's end.
    void hold();

    /// The server name that the client asked for; empty without TLS.
    const std::string& serverName() const { return serverName_; }

    /// Ends the connection in both directions, which wakes the script. Any thread.
    void interrupt();

private:
    struct ContextFree {
        void operator()(SSL_CTX* context) const;
    };
    struct SslFree {
        void operator()(SSL* ssl) const;
    };

    /// Adds what comes next to `pending_`; false at the end of the stream.
    bool readMore();

    // Guards the closing of fd_, which interrupt() must not meet.
    std::mutex mutex_;
    std::condition_variable wake_;
    bool interrupted_ = false;
    UniqueFd fd_;
    std::unique_ptr<SSL_CTX, ContextFree> context_;
    std::unique_ptr<SSL, SslFree> ssl_;
    std::string serverName_;
    std::string pending_;
};

/// A server on a free port of the loopback interface that runs a script for each connection, on a thread of its own.
/// The destructor ends connections that are left, so no script outlives it. A script that throws fails the test.
class TcpPeer {
public:
    using Script = std::function<void(PeerConnection&)>;

    explicit TcpPeer(Script script);
    /// With TLS; a handshake that fails is no failure of the test: the script just doesn't run.
    TcpPeer(const TestIdentity& identity, Script script);
    ~TcpPeer();
    TcpPeer(const TcpPeer&) = delete;
    TcpPeer& operator=(const TcpPeer&) = delete;

    int port() const { return port_; }
    /// "<scheme>://<host>:<port><path>"; the host is "localhost" with TLS, else "127.0.0.1".
    std::string url(std::string_view scheme, std::string_view path = {}) const;

    /// Connections accepted so far.
    std::size_t accepted() const { return accepted_.load(); }

private:
    struct Session {
        std::unique_ptr<PeerConnection> connection;
        std::jthread thread;
    };

    void acceptLoop();
    void serve(PeerConnection& connection);

    const std::unique_ptr<const TestIdentity> identity_;
    const Script script_;
    int port_ = 0;  ///< Before the listener, whose making sets it.
    UniqueFd listener_;
    std::atomic<std::size_t> accepted_ = 0;
    std::atomic<bool> stopping_ = false;
    std::list<Session> sessions_;
    std::jthread acceptor_;
};

/// Descriptor of this process's TCP connection to a loopback port; -1 if there is none.
int descriptorConnectedTo(int port);

/// A loopback port that takes no connection and refuses none: its queue is full, so whoever connects waits.
class FullListener {
public:
    FullListener();

    int port() const { return port_; }

    /// Whether somebody is trying to connect right now.
    bool attemptPending() const;

private:
    int port_ = 0;  ///< Before the listener, whose making sets it.
    UniqueFd listener_;
    std::list<UniqueFd> waiting_;
};

/// A loopback port on which nobody listens.
class RefusingPort {
public:
    RefusingPort();

    int port() const { return port_; }

private:
    int port_ = 0;  ///< Before the socket, whose making sets it.
    UniqueFd bound_;
};

}  // namespace qm::test
