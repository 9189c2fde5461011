#include "net/tls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/tcp_peer.h"
#include "support/test_authority.h"

namespace qm {
namespace {

using test::PeerConnection;
using test::TestIdentity;
using test::trustedAuthority;

struct SocketPair {
    SocketPair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) throw std::runtime_error("socketpair");
        client.reset(fds[0]);
        server.reset(fds[1]);
    }

    UniqueFd client;
    UniqueFd server;
};

/// Whether a client that expects `host` accepts a server with certificate names `names`.
IoStep handshakeOutcome(const std::string& host, const std::vector<std::string>& names) {
    const auto identity = trustedAuthority().issue(names);
    std::string error;
    const auto context = sharedTlsContext(&error);
    EXPECT_EQ(error, "");
    SocketPair pair;
    // Blocking here, which is as good: no step of this handshake needs two sides at once.
    const auto stream = TlsStream::create(context, pair.client.get(), host);
    PeerConnection server(std::move(pair.server));
    const std::jthread serving([&server, &identity] {
        try {
            server.startTls(identity);
        } catch (const std::runtime_error&) {
            server.cutOff();
        }
    });
    return stream->handshake();
}

TEST(TlsContext, AFailureToMakeOneHasItsText) {
    auto library = TlsLibrary::system();
    library.newContext = [] { return static_cast<SSL_CTX*>(nullptr); };
    std::string error;

    EXPECT_EQ(makeTlsContext(library, &error), nullptr);
    EXPECT_EQ(error, "SSL_CTX_new 失败");
}

TEST(TlsContext, AFailureToLoadTheTrustStoreHasItsText) {
    auto library = TlsLibrary::system();
    library.loadTrustStore = [](SSL_CTX*) { return false; };
    std::string error;

    EXPECT_EQ(makeTlsContext(library, &error), nullptr);
    EXPECT_EQ(error, "无法加载系统 CA");
}

TEST(TlsContext, AsksForTls12AtLeastAndVerifiesPeers) {
    std::string error;
    const auto context = sharedTlsContext(&error);
    ASSERT_NE(context, nullptr) << error;

    EXPECT_EQ(SSL_CTX_get_min_proto_version(context.get()), TLS1_2_VERSION);
    EXPECT_EQ(SSL_CTX_get_verify_mode(context.get()), SSL_VERIFY_PEER);
}

TEST(TlsContext, OneServesTheWholeProcess) {
    std::string error;
    const auto context = sharedTlsContext(&error);

    EXPECT_NE(context, nullptr);
    EXPECT_EQ(sharedTlsContext(&error), context);
}

TEST(TlsStream, TakesACertificateWithItsHostAmongTheNames) {
    EXPECT_EQ(handshakeOutcome("b.host.example", {"a.host.example", "b.host.example"}).kind, IoStep::Kind::Done);
    EXPECT_EQ(handshakeOutcome("B.Host.Example", {"b.host.example"}).kind, IoStep::Kind::Done);
}

TEST(TlsStream, TakesAWildcardForOneWholeLabelOnly) {
    EXPECT_EQ(handshakeOutcome("foo.host.example", {"*.host.example"}).kind, IoStep::Kind::Done);
    EXPECT_EQ(handshakeOutcome("foo.bar.host.example", {"*.host.example"}).kind, IoStep::Kind::Failed);
    EXPECT_EQ(handshakeOutcome("foo.host.example", {"f*.host.example"}).kind, IoStep::Kind::Failed);
}

TEST(TlsStream, AHostThatTheCertificateDoesNotNameIsRejectedInWords) {
    const auto step = handshakeOutcome("c.host.example", {"a.host.example", "b.host.example"});

    EXPECT_EQ(step.kind, IoStep::Kind::Failed);
    EXPECT_EQ(step.reason, "error:0A000086:SSL routines::certificate verify failed");
}

TEST(TlsStream, AnErrorThatAnotherLibraryCallLeftBehindIsNoneOfItsOwn) {
    const auto identity = trustedAuthority().issue({"localhost"});
    std::string error;
    const auto context = sharedTlsContext(&error);
    SocketPair pair;
    const int fd = pair.client.get();
    const auto stream = TlsStream::create(context, fd, "localhost");
    PeerConnection server(std::move(pair.server));
    std::string received;
    std::jthread serving([&] {
        try {
            server.startTls(identity);
            received = server.readToEnd();
        } catch (const std::runtime_error&) {
            server.cutOff();
        }
    });
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(stream->handshake().kind, IoStep::Kind::Done);
    EXPECT_EQ(::fcntl(fd, F_SETFL, O_NONBLOCK), 0);
    char buffer[16];
    // Takes in what the server sent along with the handshake.
    while (stream->read(buffer, sizeof buffer).kind == IoStep::Kind::Done) {
    }

    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(stream->read(buffer, sizeof buffer).kind, IoStep::Kind::WaitRead);
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(stream->write("x").kind, IoStep::Kind::Done);

    ::shutdown(fd, SHUT_WR);
    serving.join();
    EXPECT_EQ(received, "x");
}

}  // namespace
}  // namespace qm
