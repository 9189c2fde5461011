#include "net/tls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace qm {
namespace {

constexpr char kUnknownReason[] = "unknown";

// The library's own socket transport writes without MSG_NOSIGNAL, so a dead peer would raise SIGPIPE. This one doesn't,
// and keeps the system's error number where nothing overwrites it.

TlsTransport& transportOf(BIO* bio) {
    return *static_cast<TlsTransport*>(BIO_get_data(bio));
}

bool mayBeRetried(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

int transportWrite(BIO* bio, const char* bytes, std::size_t size, std::size_t* written) {
    auto& transport = transportOf(bio);
    BIO_clear_retry_flags(bio);
    const auto count = ::send(transport.fd, bytes, size, MSG_NOSIGNAL);
    if (count >= 0) {
        *written = static_cast<std::size_t>(count);
        return 1;
    }
    transport.error = errno;
    if (mayBeRetried(transport.error)) BIO_set_retry_write(bio);
    return -1;
}

int transportRead(BIO* bio, char* buffer, std::size_t size, std::size_t* count) {
    auto& transport = transportOf(bio);
    BIO_clear_retry_flags(bio);
    const auto received = ::recv(transport.fd, buffer, size, 0);
    if (received > 0) {
        *count = static_cast<std::size_t>(received);
        return 1;
    }
    if (received == 0) {
        transport.ended = true;
        return 0;
    }
    transport.error = errno;
    if (mayBeRetried(transport.error)) BIO_set_retry_read(bio);
    return -1;
}

long transportControl(BIO* bio, int command, long, void*) {
    if (command == BIO_CTRL_EOF) return transportOf(bio).ended ? 1 : 0;
    return command == BIO_CTRL_FLUSH ? 1 : 0;
}

struct BioMethodFree {
    void operator()(BIO_METHOD* method) const { BIO_meth_free(method); }
};

using BioMethod = std::unique_ptr<BIO_METHOD, BioMethodFree>;

BioMethod makeTransportMethod() {
    BioMethod method(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket without signals"));
    if (!method) return nullptr;
    BIO_meth_set_write_ex(method.get(), transportWrite);
    BIO_meth_set_read_ex(method.get(), transportRead);
    BIO_meth_set_ctrl(method.get(), transportControl);
    return method;
}

BIO* newTransport(TlsTransport* transport) {
    // Never destroyed, see sharedTlsContext().
    static const BioMethod& method = *new BioMethod(makeTransportMethod());
    BIO* bio = method ? BIO_new(method.get()) : nullptr;
    if (bio == nullptr) return nullptr;
    BIO_set_data(bio, transport);
    BIO_set_init(bio, 1);
    return bio;
}

/// The oldest entry of the library's error queue as text, empty if there is none.
std::string libraryErrorText() {
    const unsigned long code = ERR_get_error();
    if (code == 0) return {};
    char text[256];
    ERR_error_string_n(code, text, sizeof text);
    return text;
}

}  // namespace

TlsLibrary TlsLibrary::system() {
    return {[] { return SSL_CTX_new(TLS_client_method()); },
            [](SSL_CTX* context) { return SSL_CTX_set_default_verify_paths(context) == 1; }};
}

TlsContext makeTlsContext(const TlsLibrary& library, std::string* error) {
    TlsContext context(library.newContext(), SSL_CTX_free);
    if (!context) {
        *error = "SSL_CTX_new 失败";
        return nullptr;
    }
    SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
    if (!library.loadTrustStore(context.get())) {
        *error = "无法加载系统 CA";
        return nullptr;
    }
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    // A writer that wants to read, or a reader that wants to write, would wait on the wrong side of the socket.
    SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_RELEASE_BUFFERS);
    return context;
}

TlsContext sharedTlsContext(std::string* error) {
    static std::mutex mutex;
    // Never destroyed: the library takes itself down at the end of the process, before it would be this one's turn.
    static TlsContext& context = *new TlsContext;
    const std::lock_guard lock(mutex);
    if (!context) context = makeTlsContext(TlsLibrary::system(), error);
    return context;
}

void TlsStream::SslFree::operator()(SSL* ssl) const {
    SSL_free(ssl);
}

TlsStream::TlsStream(TlsContext context, int fd) : context_(std::move(context)), ssl_(SSL_new(context_.get())) {
    transport_.fd = fd;
}

std::unique_ptr<TlsStream> TlsStream::create(const TlsContext& context, int fd, const std::string& host) {
    std::unique_ptr<TlsStream> stream(new TlsStream(context, fd));
    return stream->prepare(host) ? std::move(stream) : nullptr;
}

bool TlsStream::prepare(const std::string& host) {
    if (!ssl_) return false;
    BIO* const bio = newTransport(&transport_);
    if (bio == nullptr) return false;
    SSL_set_bio(ssl_.get(), bio, bio);
    X509_VERIFY_PARAM* const verification = SSL_get0_param(ssl_.get());
    X509_VERIFY_PARAM_set_hostflags(verification, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(verification, host.c_str(), host.size()) == 1 &&
           SSL_set_tlsext_host_name(ssl_.get(), host.c_str()) == 1;
}

TlsStream::~TlsStream() {
    if (established_ && !broken_) SSL_shutdown(ssl_.get());
    ERR_clear_error();
}

/// Runs one library call that returns 1 on success. The library judges a failure by the thread's error queue, so that
/// must be empty before.
template <typename Operation>
IoStep TlsStream::step(Operation operation) {
    const std::lock_guard lock(mutex_);
    ERR_clear_error();
    transport_.error = 0;
    IoStep result;
    const int outcome = operation(&result.bytes);
    if (outcome == 1) {
        result.kind = IoStep::Kind::Done;
        return result;
    }
    return failure(SSL_get_error(ssl_.get(), outcome));
}

IoStep TlsStream::failure(int kind) {
    switch (kind) {
        case SSL_ERROR_WANT_READ:
            return {IoStep::Kind::WaitRead, 0, {}};
        case SSL_ERROR_WANT_WRITE:
            return {IoStep::Kind::WaitWrite, 0, {}};
        case SSL_ERROR_ZERO_RETURN:
            return {IoStep::Kind::Ended, 0, {}};
        default:
            broken_ = true;
            return {IoStep::Kind::Failed, 0, failureText()};
    }
}

std::string TlsStream::failureText() const {
    auto text = libraryErrorText();
    if (!text.empty()) return text;
    return established_ && transport_.error != 0 ? std::generic_category().message(transport_.error) : kUnknownReason;
}

IoStep TlsStream::handshake() {
    auto result = step([this](std::size_t*) { return SSL_connect(ssl_.get()); });
    if (result.kind == IoStep::Kind::Done) established_ = true;
    if (result.kind == IoStep::Kind::Ended) result = {IoStep::Kind::Failed, 0, kUnknownReason};
    return result;
}

IoStep TlsStream::read(char* buffer, std::size_t size) {
    return step([&](std::size_t* count) { return SSL_read_ex(ssl_.get(), buffer, size, count); });
}

IoStep TlsStream::write(std::string_view bytes) {
    return step([&](std::size_t* count) { return SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), count); });
}

}  // namespace qm
