#include <gtest/gtest.h>

#include <future>
#include <string>

#include "net/http_client.h"
#include "support/promised.h"
#include "support/tcp_peer.h"
#include "support/test_authority.h"
#include "support/wait_until.h"

namespace qm {
namespace {

using test::kGenerousLimit;
using test::PeerConnection;
using test::TcpPeer;
using test::TestAuthority;
using test::TestIdentity;
using test::trustedAuthority;
using test::waitUntil;

constexpr int kLongMs = 60000;
constexpr int kShortMs = 50;
constexpr char kRejected[] = "TLS 握手失败: error:0A000086:SSL routines::certificate verify failed";

TestIdentity localIdentity() {
    static const TestIdentity identity = trustedAuthority().issue({"localhost"});
    return identity;
}

void expectFailure(const HttpResponse& response, const std::string& error) {
    EXPECT_EQ(response.error, error);
    EXPECT_EQ(response.status, 0);
}

void answer(PeerConnection& connection, std::string_view bytes) {
    connection.readUntil("\r\n\r\n");
    connection.send(bytes);
}

TEST(HttpsClient, SpeaksToAServerOfATrustedAuthority) {
    std::promise<std::string> request;
    std::promise<std::string> serverName;
    TcpPeer peer(localIdentity(), [&](PeerConnection& connection) {
        serverName.set_value(connection.serverName());
        request.set_value(connection.readUntil("\r\n\r\n"));
        connection.send("HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, 'x'));
    });

    const auto response = HttpClient(kLongMs).get(peer.url("https", "/p"));

    EXPECT_EQ(response.error, "");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, std::string(100000, 'x'));
    EXPECT_EQ(test::promised(serverName), "localhost");
    EXPECT_TRUE(test::promised(request).starts_with(
        "GET /p HTTP/1.1\r\nHost: localhost:" + std::to_string(peer.port()) + "\r\n"));
}

TEST(HttpsClient, ALargeBodyGoesBothWays) {
    constexpr std::size_t kSize = 4 << 20;
    TcpPeer peer(localIdentity(), [](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\n" + connection.readExactly(kSize));
    });
    const std::string body(kSize, 'b');

    EXPECT_EQ(HttpClient(kLongMs).post(peer.url("https"), body).body, body);
}

TEST(HttpsClient, ACertificateForAnotherHostIsRejected) {
    TcpPeer peer(trustedAuthority().issue({"other.example"}), [](PeerConnection&) {});

    expectFailure(HttpClient(kLongMs).get(peer.url("https")), kRejected);
}

TEST(HttpsClient, AnAddressIsNoNameOfTheCertificate) {
    TcpPeer peer(localIdentity(), [](PeerConnection&) {});

    expectFailure(HttpClient(kLongMs).get("https://127.0.0.1:" + std::to_string(peer.port())), kRejected);
}

TEST(HttpsClient, AnUnknownAuthorityIsRejected) {
    trustedAuthority();
    const TestAuthority stranger;
    TcpPeer peer(stranger.issue({"localhost"}), [](PeerConnection&) {});

    expectFailure(HttpClient(kLongMs).get(peer.url("https")), kRejected);
}

TEST(HttpsClient, AServerThatSpeaksNoTlsFailsTheHandshake) {
    trustedAuthority();
    TcpPeer peer([](PeerConnection& connection) {
        connection.send("HTTP/1.1 400 Bad Request\r\n\r\n");
        connection.readToEnd();
    });

    expectFailure(HttpClient(kLongMs).get("https://localhost:" + std::to_string(peer.port())),
                  "TLS 握手失败: error:0A00010B:SSL routines::wrong version number");
}

TEST(HttpsClient, AServerThatHangsUpFailsTheHandshake) {
    trustedAuthority();
    TcpPeer peer([](PeerConnection& connection) {
        connection.readExactly(1);
        connection.cutOff();
        connection.readToEnd();
    });

    expectFailure(HttpClient(kLongMs).get("https://localhost:" + std::to_string(peer.port())),
                  "TLS 握手失败: error:0A000126:SSL routines::unexpected eof while reading");
}

TEST(HttpsClient, AResetDuringTheHandshakeHasNoTextOfTheLibrary) {
    trustedAuthority();
    TcpPeer peer([](PeerConnection& connection) {
        connection.readExactly(1);
        connection.reset();
    });

    expectFailure(HttpClient(kLongMs).get("https://localhost:" + std::to_string(peer.port())), "TLS 握手失败: unknown");
}

TEST(HttpsClient, AServerThatNeverAnswersTheHandshakeTimesOut) {
    trustedAuthority();
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });

    expectFailure(HttpClient(kShortMs).get("https://localhost:" + std::to_string(peer.port())), "TLS 握手超时");
}

TEST(HttpsClient, RaisingTheSignalEndsAHandshakeUnderWay) {
    trustedAuthority();
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([cancel](PeerConnection& connection) {
        connection.readExactly(1);
        cancel->cancel();
        connection.hold();
    });

    expectFailure(HttpClient(kLongMs, cancel).get("https://localhost:" + std::to_string(peer.port())), "TLS 握手超时");
}

TEST(HttpsClient, AStreamCutOffWithoutNoticeEndsTheBodyThatCame) {
    TcpPeer peer(localIdentity(), [](PeerConnection& connection) {
        answer(connection, "HTTP/1.1 200 OK\r\n\r\npart");
        connection.cutOff();
        connection.hold();
    });

    const auto response = HttpClient(kLongMs).get(peer.url("https"));

    EXPECT_EQ(response.error, "");
    EXPECT_EQ(response.body, "part");
}

TEST(HttpsClient, AStreamCutOffBeforeTheFirstByteIsAFailedRead) {
    TcpPeer peer(localIdentity(), [](PeerConnection& connection) {
        answer(connection, "");
        connection.cutOff();
        connection.hold();
    });

    expectFailure(HttpClient(kLongMs).get(peer.url("https")), "响应读取失败");
}

TEST(HttpsClient, AnOrderlyEndBeforeTheFirstByteIsAMalformedResponse) {
    TcpPeer peer(localIdentity(), [](PeerConnection& connection) { answer(connection, ""); });

    expectFailure(HttpClient(kLongMs).get(peer.url("https")), "响应格式非法");
}

TEST(HttpsClient, ABodyInOneRecordLargerThanAReadIsNotWaitedFor) {
    // A record holds up to 16384 bytes and a read takes 8192: the rest of it waits decrypted, not in the socket.
    const std::string body(12000, 'r');
    TcpPeer peer(localIdentity(), [&body](PeerConnection& connection) {
        answer(connection, "HTTP/1.1 200 OK\r\n\r\n" + body);
        connection.hold();
    });

    const auto response =
        HttpClient(kLongMs).request("GET", peer.url("https"), {}, {}, {.bodyLimit = body.size() - 1, .sink = {}});

    EXPECT_EQ(response.body, body);
}

}  // namespace
}  // namespace qm
