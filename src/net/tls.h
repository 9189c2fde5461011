#pragma once

#include <openssl/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "net/io_step.h"

namespace qm {

/// A TLS client context: TLS 1.2 at least, peers verified against the system's trust store. Shared by all connections,
/// so the store is read once a process, at the first TLS connection and not before.
using TlsContext = std::shared_ptr<SSL_CTX>;

/// The two library calls that can fail while a context is made; tests replace them.
struct TlsLibrary {
    SSL_CTX* (*newContext)();
    bool (*loadTrustStore)(SSL_CTX* context);

    static TlsLibrary system();
};

/// A new context; null with "SSL_CTX_new 失败" or "无法加载系统 CA" in `error`.
TlsContext makeTlsContext(const TlsLibrary& library, std::string* error);

/// The process-wide context. Made by the first call that succeeds; a failure is reported as by makeTlsContext() and
/// tried again by the next call. Any thread.
TlsContext sharedTlsContext(std::string* error);

/// The socket below a TLS connection, and what became of the last operation on it.
struct TlsTransport {
    int fd = -1;
    bool ended = false;
    int error = 0;
};

/// The TLS layer of one connection over a non-blocking socket.
///
/// No operation ever waits. They may come from several threads at once, at most one of them reading and one writing:
/// each takes an inner lock for as long as the library computes, and whoever has to wait for the socket does so
/// outside. Writing to a dead peer is an error value, never a signal.
class TlsStream {
public:
    /// `fd` must be open and non-blocking, and stay so as long as this object lives. `host` is sent as server name and
    /// is the name that the peer's certificate must carry. Null if the library has no memory.
    static std::unique_ptr<TlsStream> create(const TlsContext& context, int fd, const std::string& host);

    /// Says goodbye to the peer if the connection is still sound; waits for nothing.
    ~TlsStream();
    TlsStream(const TlsStream&) = delete;
    TlsStream& operator=(const TlsStream&) = delete;

    IoStep handshake();
    IoStep read(char* buffer, std::size_t size);
    /// After WaitRead or WaitWrite the next call must bring the same bytes from the same address.
    IoStep write(std::string_view bytes);

private:
    struct SslFree {
        void operator()(SSL* ssl) const;
    };

    TlsStream(TlsContext context, int fd);

    bool prepare(const std::string& host);
    template <typename Operation>
    IoStep step(Operation operation);
    IoStep failure(int kind);
    std::string failureText() const;

    const TlsContext context_;
    // What the library's transport object works on, so it outlives ssl_.
    TlsTransport transport_;
    std::mutex mutex_;
    std::unique_ptr<SSL, SslFree> ssl_;
    bool established_ = false;
    bool broken_ = false;
};

}  // namespace qm
