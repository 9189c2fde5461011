#include "net/ws_connection.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <future>
#include <string>
#include <thread>

#include "support/promised.h"
#include "support/tcp_peer.h"
#include "support/wait_until.h"
#include "support/ws_script.h"

namespace qm {
namespace {

using test::acceptWebSocket;
using test::ClientFrame;
using test::descriptorConnectedTo;
using test::kGenerousLimit;
using test::maskedServerFrame;
using test::PeerConnection;
using test::readClientFrame;
using test::serverFrame;
using test::TcpPeer;

constexpr unsigned kContinuation = 0;
constexpr unsigned kText = 1;
constexpr unsigned kBinary = 2;
constexpr unsigned kClose = 8;
constexpr unsigned kPing = 9;

std::shared_ptr<WsConnection> connectTo(const TcpPeer& peer) {
    std::string error;
    auto connection = WsConnection::connect(peer.url("ws"), "/ws/executor", "token", &error);
    EXPECT_NE(connection, nullptr) << error;
    return connection;
}

/// A peer that accepts the handshake, sends `bytes` and then ends the stream.
TcpPeer::Script sending(std::string bytes) {
    return [bytes = std::move(bytes)](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.send(bytes);
    };
}

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 23);
    return text;
}

void expectText(WsConnection& connection, const std::string& expected) {
    std::string text;
    int failed = -1;
    ASSERT_TRUE(connection.receive(&text, &failed));
    EXPECT_EQ(text, expected);
    EXPECT_EQ(failed, 0);
}

void expectEnd(WsConnection& connection, int expectedFailed) {
    std::string text = "untouched";
    int failed = -1;
    EXPECT_FALSE(connection.receive(&text, &failed));
    EXPECT_EQ(failed, expectedFailed);
    EXPECT_EQ(text, "untouched");
}

class TextSize : public testing::TestWithParam<std::size_t> {};

TEST_P(TextSize, GoesBothWays) {
    std::promise<std::size_t> headerBytes;
    TcpPeer peer([&headerBytes](PeerConnection& connection) {
        acceptWebSocket(connection);
        const auto frame = readClientFrame(connection);
        EXPECT_EQ(frame.firstByte, 0x81);
        EXPECT_TRUE(frame.masked);
        headerBytes.set_value(frame.headerBytes);
        connection.send(serverFrame(kText, frame.payload));
        connection.hold();
    });
    const auto connection = connectTo(peer);
    const auto text = pattern(GetParam());

    ASSERT_TRUE(connection->sendText(text));

    expectText(*connection, text);
    const std::size_t lengthBytes = text.size() < 126 ? 0 : text.size() < 65536 ? 2 : 8;
    EXPECT_EQ(test::promised(headerBytes), 2 + lengthBytes + 4);
}

INSTANTIATE_TEST_SUITE_P(Limits, TextSize, testing::Values(0, 125, 126, 65535, 65536, 16 << 20));

TEST(WsConnection, FindsASilentGateway) {
    TcpPeer peer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.hold();
    });
    const auto connection = connectTo(peer);
    const int fd = descriptorConnectedTo(peer.port());
    ASSERT_GE(fd, 0);
    const auto option = [fd](int level, int name) {
        int value = 0;
        socklen_t size = sizeof value;
        EXPECT_EQ(::getsockopt(fd, level, name, &value, &size), 0);
        return value;
    };

    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_GT(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
}

TEST(WsConnection, EachFrameHasAMaskOfItsOwn) {
    std::promise<std::vector<std::string>> masks;
    TcpPeer peer([&masks](PeerConnection& connection) {
        acceptWebSocket(connection);
        std::vector<std::string> seen(3);
        for (auto& mask : seen)
            mask = readClientFrame(connection).mask;
        masks.set_value(seen);
    });
    const auto connection = connectTo(peer);

    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(connection->sendText("same"));

    const auto seen = test::promised(masks);
    EXPECT_NE(seen[0], seen[1]);
    EXPECT_NE(seen[1], seen[2]);
}

TEST(WsConnection, AMessageInThreeFragmentsIsDeliveredOnce) {
    TcpPeer peer(sending(serverFrame(kText, "one ", false) + serverFrame(kContinuation, "two ", false) +
                         serverFrame(kContinuation, "three") + serverFrame(kText, "next")));
    const auto connection = connectTo(peer);

    expectText(*connection, "one two three");
    expectText(*connection, "next");
    expectEnd(*connection, 0);
}

TEST(WsConnection, APingBetweenFragmentsIsAnsweredBeforeTheMessageEnds) {
    TcpPeer peer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.send(serverFrame(kText, "one ", false) + serverFrame(kPing, "are you there"));
        const auto pong = readClientFrame(connection);
        EXPECT_EQ(pong.firstByte, 0x8a);
        EXPECT_TRUE(pong.masked);
        EXPECT_EQ(pong.payload, "are you there");
        connection.send(serverFrame(kContinuation, "two"));
    });
    const auto connection = connectTo(peer);

    expectText(*connection, "one two");
}

TEST(WsConnection, ABinaryFrameEmptiesTheMessageUnderConstruction) {
    TcpPeer peer(
        sending(serverFrame(kText, "lost", false) + serverFrame(kBinary, "bytes") + serverFrame(kText, "kept")));
    const auto connection = connectTo(peer);

    expectText(*connection, "kept");
}

TEST(WsConnection, AMaskedFrameIsUnmasked) {
    TcpPeer peer(sending(maskedServerFrame(kText, pattern(40000), {0xde, 0xad, 0xbe, 0xef})));
    const auto connection = connectTo(peer);

    expectText(*connection, pattern(40000));
}

TEST(WsConnection, BytesThatAreNoUtf8AreHandedUpAsTheyAre) {
    const std::string bytes = "\xff\xfe\x80 ok";
    TcpPeer peer(sending(serverFrame(kText, bytes)));
    const auto connection = connectTo(peer);

    expectText(*connection, bytes);
}

TEST(WsConnection, APeersCloseEndsTheStreamInGoodOrderAndIsRemembered) {
    TcpPeer peer(sending(serverFrame(kClose, "\x03\xe9going away") + serverFrame(kText, "too late")));
    const auto connection = connectTo(peer);

    expectEnd(*connection, 0);

    ASSERT_TRUE(connection->peerClose().has_value());
    EXPECT_EQ(connection->peerClose()->code, 1001);
    EXPECT_EQ(connection->peerClose()->reason, "going away");
    EXPECT_EQ(connection->receiveError(), "");
    expectEnd(*connection, 0);
}

TEST(WsConnection, ACloseWithoutACodeReadsAs1005) {
    for (const std::string payload : {"", "x"}) {
        TcpPeer peer(sending(serverFrame(kClose, payload)));
        const auto connection = connectTo(peer);

        expectEnd(*connection, 0);

        ASSERT_TRUE(connection->peerClose().has_value());
        EXPECT_EQ(connection->peerClose()->code, 1005);
        EXPECT_EQ(connection->peerClose()->reason, "");
    }
}

TEST(WsConnection, ACloseInTheMiddleOfAMessageEndsTheStreamInGoodOrder) {
    TcpPeer peer(sending(serverFrame(kText, "begun", false) + serverFrame(kClose, "\x03\xe8")));
    const auto connection = connectTo(peer);

    expectEnd(*connection, 0);

    EXPECT_EQ(connection->peerClose()->code, 1000);
}

TEST(WsConnection, APeersCloseIsAnsweredByCloseAlone) {
    std::promise<void> received;
    std::promise<std::string> answer;
    TcpPeer peer([&](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.send(serverFrame(kClose, "\x03\xe8"));
        test::promised(received);
        connection.send(serverFrame(kPing, "ignored by now"));
        answer.set_value(connection.readToEnd());
    });
    const auto connection = connectTo(peer);
    expectEnd(*connection, 0);
    received.set_value();

    connection->close();

    const auto bytes = test::promised(answer);
    ASSERT_EQ(bytes.size(), 6U);
    EXPECT_EQ(bytes.substr(0, 2), "\x88\x80");
}

TEST(WsConnection, AnEndOfStreamWithoutACloseIsOrderly) {
    TcpPeer peer(sending(""));
    const auto connection = connectTo(peer);

    expectEnd(*connection, 0);

    EXPECT_FALSE(connection->peerClose().has_value());
    EXPECT_EQ(connection->receiveError(), "");
}

TEST(WsConnection, AnEndOfStreamInsideAFrameDeliversNothing) {
    TcpPeer peer(sending(serverFrame(kText, "whole") + serverFrame(kText, pattern(300)).substr(0, 200)));
    const auto connection = connectTo(peer);

    expectText(*connection, "whole");
    expectEnd(*connection, 0);
}

TEST(WsConnection, AResetIsAFailureWithAReason) {
    TcpPeer peer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        readClientFrame(connection);
        connection.reset();
    });
    const auto connection = connectTo(peer);
    ASSERT_TRUE(connection->sendText("now"));

    expectEnd(*connection, 1);

    EXPECT_EQ(connection->receiveError(), "Connection reset by peer");
    expectEnd(*connection, 1);
}

TEST(WsConnection, TheFailureFlagMayBeLeftOut) {
    TcpPeer peer(sending(""));
    const auto connection = connectTo(peer);
    std::string text;

    EXPECT_FALSE(connection->receive(&text));
}

TEST(WsConnection, ClosingTwiceSendsOneCloseFrame) {
    std::promise<std::string> received;
    TcpPeer peer([&received](PeerConnection& connection) {
        acceptWebSocket(connection);
        received.set_value(connection.readToEnd());
    });
    const auto connection = connectTo(peer);

    connection->close();
    connection->close();

    const auto bytes = test::promised(received);
    ASSERT_EQ(bytes.size(), 6U);
    EXPECT_EQ(bytes.substr(0, 2), "\x88\x80");
}

TEST(WsConnection, AfterCloseNothingIsSent) {
    std::promise<std::string> received;
    TcpPeer peer([&received](PeerConnection& connection) {
        acceptWebSocket(connection);
        received.set_value(connection.readToEnd());
    });
    const auto connection = connectTo(peer);
    connection->close();

    EXPECT_FALSE(connection->sendText("too late"));

    EXPECT_EQ(test::promised(received).size(), 6U);
}

TEST(WsConnection, AfterCloseNothingIsReceivedThoughItHasArrived) {
    TcpPeer peer(sending(serverFrame(kText, "one") + serverFrame(kText, "two")));
    const auto connection = connectTo(peer);
    expectText(*connection, "one");

    connection->close();

    expectEnd(*connection, 0);
}

TEST(WsConnection, ManyConnectionsLeaveNoDescriptorBehind) {
    TcpPeer peer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.readToEnd();
    });
    for (int i = 0; i < 50; ++i) {
        auto connection = connectTo(peer);
        ASSERT_TRUE(connection->sendText("hello"));
        connection->close();
        connection.reset();
        ASSERT_EQ(descriptorConnectedTo(peer.port()), -1);
    }
}

}  // namespace
}  // namespace qm
