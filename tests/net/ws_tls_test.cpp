#include <gtest/gtest.h>

#include <string>

#include "net/ws_connection.h"
#include "support/tcp_peer.h"
#include "support/test_authority.h"
#include "support/ws_script.h"

namespace qm {
namespace {

using test::acceptWebSocket;
using test::PeerConnection;
using test::readClientFrame;
using test::serverFrame;
using test::TcpPeer;
using test::TestAuthority;
using test::trustedAuthority;

constexpr unsigned kText = 1;
constexpr char kRejected[] = "TLS 握手失败: error:0A000086:SSL routines::certificate verify failed";

std::shared_ptr<WsConnection> connectTo(const TcpPeer& peer, std::string* error, std::string_view scheme = "wss") {
    return WsConnection::connect(peer.url(scheme), "/ws/executor", "token", error);
}

class WssSize : public testing::TestWithParam<std::size_t> {};

TEST_P(WssSize, GoesBothWays) {
    TcpPeer peer(trustedAuthority().issue({"localhost"}), [](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.send(serverFrame(kText, readClientFrame(connection).payload));
        connection.hold();
    });
    std::string error;
    const auto connection = connectTo(peer, &error);
    ASSERT_NE(connection, nullptr) << error;
    const std::string sent(GetParam(), 's');
    std::string received;

    ASSERT_TRUE(connection->sendText(sent));
    ASSERT_TRUE(connection->receive(&received));

    EXPECT_EQ(received, sent);
}

INSTANTIATE_TEST_SUITE_P(Limits, WssSize, testing::Values(0, 125, 126, 65535, 65536, 16 << 20));

TEST(Wss, AnHttpsUrlMeansTlsToo) {
    TcpPeer peer(trustedAuthority().issue({"localhost"}),
                 [](PeerConnection& connection) { acceptWebSocket(connection); });
    std::string error;

    EXPECT_NE(connectTo(peer, &error, "https"), nullptr) << error;
}

TEST(Wss, ACertificateForAnotherHostEndsTheAttempt) {
    TcpPeer peer(trustedAuthority().issue({"other.example"}), [](PeerConnection&) {});
    std::string error;

    EXPECT_EQ(connectTo(peer, &error), nullptr);
    EXPECT_EQ(error, kRejected);
}

TEST(Wss, AnUnknownAuthorityEndsTheAttempt) {
    trustedAuthority();
    const TestAuthority stranger;
    TcpPeer peer(stranger.issue({"localhost"}), [](PeerConnection&) {});
    std::string error;

    EXPECT_EQ(connectTo(peer, &error), nullptr);
    EXPECT_EQ(error, kRejected);
}

TEST(Wss, FramesThatShareARecordAreAllDelivered) {
    // Small enough for one record, too much for one read of the handshake: the rest waits decrypted.
    const std::string large(9000, 'l');
    TcpPeer peer(trustedAuthority().issue({"localhost"}), [&large](PeerConnection& connection) {
        const auto request = connection.readUntil("\r\n\r\n");
        connection.send(test::wsSwitchingAnswer(request) + serverFrame(kText, "one") + serverFrame(kText, large) +
                        serverFrame(kText, "three"));
        connection.hold();
    });
    std::string error;
    const auto connection = connectTo(peer, &error);
    ASSERT_NE(connection, nullptr) << error;

    for (const std::string& expected : {std::string("one"), large, std::string("three")}) {
        std::string text;
        ASSERT_TRUE(connection->receive(&text));
        EXPECT_EQ(text, expected);
    }
}

TEST(Wss, AnOrderlyEndOfTheTlsStreamIsNoFailure) {
    TcpPeer peer(trustedAuthority().issue({"localhost"}),
                 [](PeerConnection& connection) { acceptWebSocket(connection); });
    std::string error;
    const auto connection = connectTo(peer, &error);
    ASSERT_NE(connection, nullptr) << error;
    std::string text;
    int failed = -1;

    EXPECT_FALSE(connection->receive(&text, &failed));

    EXPECT_EQ(failed, 0);
}

TEST(Wss, AStreamCutOffWithoutNoticeIsAFailureWithAReason) {
    TcpPeer peer(trustedAuthority().issue({"localhost"}), [](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.cutOff();
        connection.hold();
    });
    std::string error;
    const auto connection = connectTo(peer, &error);
    ASSERT_NE(connection, nullptr) << error;
    std::string text;
    int failed = -1;

    EXPECT_FALSE(connection->receive(&text, &failed));

    EXPECT_EQ(failed, 1);
    EXPECT_EQ(connection->receiveError(), "error:0A000126:SSL routines::unexpected eof while reading");
}

TEST(Wss, AResetIsAFailureWithAReason) {
    TcpPeer peer(trustedAuthority().issue({"localhost"}), [](PeerConnection& connection) {
        acceptWebSocket(connection);
        readClientFrame(connection);
        connection.reset();
    });
    std::string error;
    const auto connection = connectTo(peer, &error);
    ASSERT_NE(connection, nullptr) << error;
    ASSERT_TRUE(connection->sendText("now"));
    std::string text;
    int failed = -1;

    EXPECT_FALSE(connection->receive(&text, &failed));

    EXPECT_EQ(failed, 1);
    EXPECT_EQ(connection->receiveError(), "Connection reset by peer");
}

}  // namespace
}  // namespace qm
