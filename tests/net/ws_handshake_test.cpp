#include <gtest/gtest.h>

#include <future>
#include <set>
#include <string>

#include "net/ws_connection.h"
#include "support/promised.h"
#include "support/tcp_peer.h"
#include "support/wait_until.h"
#include "support/ws_script.h"
#include "util/base64.h"

namespace qm {
namespace {

using test::acceptWebSocket;
using test::FullListener;
using test::kGenerousLimit;
using test::PeerConnection;
using test::RefusingPort;
using test::serverFrame;
using test::TcpPeer;
using test::trustedAuthority;
using test::waitUntil;
using test::wsAccept;
using test::wsKeyOf;
using test::wsSwitchingAnswer;

constexpr char kPath[] = "/ws/executor";

/// The error of an attempt that must fail.
std::string failureOf(const std::string& url, const std::string& token = "token",
                      std::shared_ptr<CancelSignal> cancel = nullptr) {
    std::string error;
    EXPECT_EQ(WsConnection::connect(url, kPath, token, &error, std::move(cancel)), nullptr);
    return error;
}

/// The error when the peer answers a handshake with these bytes and then ends the stream.
std::string failureAfterAnswer(const std::string& answer) {
    TcpPeer peer([&answer](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send(answer);
    });
    return failureOf(peer.url("ws"));
}

/// The request that arrives when an executor connects to `scheme`://peer`base`.
std::string requestFor(std::string_view scheme, std::string_view base, int* port = nullptr) {
    std::promise<std::string> request;
    TcpPeer peer([&request](PeerConnection& connection) { request.set_value(acceptWebSocket(connection)); });
    if (port != nullptr) *port = peer.port();
    std::string error;
    EXPECT_NE(WsConnection::connect(peer.url(scheme, base), kPath, "the-token", &error), nullptr) << error;
    return test::promised(request);
}

TEST(WsHandshake, TheRequestHasItsExactBytes) {
    int port = 0;
    const auto request = requestFor("ws", "/gateway", &port);

    EXPECT_EQ(request, "GET /gateway/ws/executor HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                           "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: " + wsKeyOf(request) +
                           "\r\nSec-WebSocket-Version: 13\r\nX-Executor-Token: the-token\r\n\r\n");
}

TEST(WsHandshake, TheKeyIsSixteenBytesAndNewForEachConnection) {
    std::set<std::string> keys;
    for (int i = 0; i < 8; ++i) {
        const auto key = wsKeyOf(requestFor("ws", ""));
        EXPECT_EQ(key.size(), 24U);
        EXPECT_EQ(base64Decode(key)->size(), 16U);
        keys.insert(key);
    }
    EXPECT_EQ(keys.size(), 8U);
}

TEST(WsHandshake, ThePathIsAppendedToTheUrlsOwn) {
    EXPECT_TRUE(requestFor("ws", "").starts_with("GET /ws/executor HTTP/1.1\r\n"));
    EXPECT_TRUE(requestFor("ws", "/").starts_with("GET /ws/executor HTTP/1.1\r\n"));
    EXPECT_TRUE(requestFor("http", "/").starts_with("GET /ws/executor HTTP/1.1\r\n"));
    EXPECT_TRUE(requestFor("http", "/a/b").starts_with("GET /a/b/ws/executor HTTP/1.1\r\n"));
}

TEST(WsHandshake, AnUrlThatCannotBeParsedIsNamedAsItWasGiven) {
    for (const std::string url :
         {"", "host", "ftp://host", "ws://", "WS://host", "wss://:1", "ws://host:0", "wsss://host"}) {
        EXPECT_EQ(failureOf(url), "invalid gateway url: " + url);
    }
}

TEST(WsHandshake, TheErrorMayBeLeftOut) {
    EXPECT_EQ(WsConnection::connect("nonsense", kPath, "token"), nullptr);
}

TEST(WsHandshake, AConnectionThatFailsKeepsTheSocketsText) {
    const RefusingPort port;

    EXPECT_EQ(failureOf("ws://127.0.0.1:" + std::to_string(port.port())), "TCP 连接失败: Connection refused");
}

TEST(WsHandshake, ATokenThatWouldBreakOutOfItsLineIsNeverSent) {
    std::promise<std::string> received;
    TcpPeer peer([&received](PeerConnection& connection) { received.set_value(connection.readToEnd()); });

    EXPECT_EQ(failureOf(peer.url("ws"), "token\r\nX-Other: value"), "websocket handshake send failed");

    EXPECT_EQ(test::promised(received), "");
}

TEST(WsHandshake, ARefusalNamesItsStatus) {
    EXPECT_EQ(failureAfterAnswer("HTTP/1.1 401 Unauthorized\r\n\r\n"), "gateway refused websocket upgrade: HTTP 401");
    EXPECT_EQ(failureAfterAnswer("HTTP/1.1 404 Not Found\r\n\r\n"), "gateway refused websocket upgrade: HTTP 404");
    EXPECT_EQ(failureAfterAnswer("HTTP/1.1 500 Oops\r\nA: b\r\n\r\nbody"),
              "gateway refused websocket upgrade: HTTP 500");
    EXPECT_EQ(failureAfterAnswer("HTTP/1.1 200 OK\r\n\r\n"), "gateway refused websocket upgrade: HTTP 200");
    EXPECT_EQ(failureAfterAnswer("nonsense\r\n\r\n"), "gateway refused websocket upgrade: HTTP 0");
}

TEST(WsHandshake, APeerThatClosesGaveNoResponse) {
    EXPECT_EQ(failureAfterAnswer(""), "websocket handshake: no response");
    EXPECT_EQ(failureAfterAnswer("HTTP/1.1 101 Switching Protocols\r\n"), "websocket handshake: no response");
}

TEST(WsHandshake, APeerThatResetsGaveNoResponse) {
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.reset();
    });

    EXPECT_EQ(failureOf(peer.url("ws")), "websocket handshake: no response");
}

/// Connects to a peer whose answer `answerTo` makes of the request; the error, empty if a connection was handed out.
std::string errorWith(const std::function<std::string(const std::string& request)>& answerTo) {
    TcpPeer peer([&answerTo](PeerConnection& connection) {
        connection.send(answerTo(connection.readUntil("\r\n\r\n")));
        connection.hold();
    });
    std::string error;
    const auto connection = WsConnection::connect(peer.url("ws"), kPath, "token", &error);
    EXPECT_EQ(connection == nullptr, !error.empty());
    return error;
}

std::string switchingAnswerWith(const std::string& acceptLine) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n" + acceptLine + "\r\n\r\n";
}

TEST(WsHandshake, TheAcceptHeadersNameMayBeInAnyCase) {
    for (const std::string name : {"Sec-WebSocket-Accept: ", "sec-websocket-accept: ", "SEC-WEBSOCKET-ACCEPT: "}) {
        EXPECT_EQ(errorWith([&name](const std::string& request) {
                      return switchingAnswerWith(name + wsAccept(wsKeyOf(request)));
                  }),
                  "");
    }
}

TEST(WsHandshake, AWrongAcceptValueIsAMismatch) {
    const std::string mismatch = "websocket accept mismatch";
    EXPECT_EQ(errorWith([](const std::string&) { return switchingAnswerWith("X: y"); }), mismatch);
    EXPECT_EQ(errorWith([](const std::string&) { return switchingAnswerWith("Sec-WebSocket-Accept: "); }), mismatch);
    EXPECT_EQ(errorWith([](const std::string&) {
                  return switchingAnswerWith("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=");
              }),
              mismatch);
}

TEST(WsHandshake, TheAcceptValueCountsToTheByte) {
    EXPECT_EQ(errorWith([](const std::string& request) {
                  auto accept = wsAccept(wsKeyOf(request));
                  for (char& character : accept) {
                      character = static_cast<char>(std::isupper(static_cast<unsigned char>(character)) != 0
                                                        ? std::tolower(static_cast<unsigned char>(character))
                                                        : std::toupper(static_cast<unsigned char>(character)));
                  }
                  return switchingAnswerWith("Sec-WebSocket-Accept: " + accept);
              }),
              "websocket accept mismatch");
    EXPECT_EQ(errorWith([](const std::string& request) {
                  return switchingAnswerWith("Sec-WebSocket-Accept: " + wsAccept(wsKeyOf(request)) + "x");
              }),
              "websocket accept mismatch");
}

/// A valid answer whose header block is `size` bytes long up to and including its end.
std::string answerOfSize(const std::string& request, std::size_t size) {
    std::string answer = wsSwitchingAnswer(request);
    answer.resize(answer.size() - 2);
    const std::string filler = "X-Filler: ";
    answer += filler + std::string(size - answer.size() - filler.size() - 4, 'f') + "\r\n\r\n";
    return answer;
}

TEST(WsHandshake, AnAnswerOf65536BytesIsTaken) {
    EXPECT_EQ(errorWith([](const std::string& request) { return answerOfSize(request, 65536); }), "");
}

TEST(WsHandshake, MoreThan65536BytesWithoutAnEndAreTooMany) {
    EXPECT_EQ(errorWith([](const std::string&) { return std::string(65537, 'x'); }), "handshake response too large");
}

TEST(WsHandshake, Exactly65536BytesWithoutAnEndAreStillWaitedOn) {
    EXPECT_EQ(failureAfterAnswer(std::string(65536, 'x')), "websocket handshake: no response");
}

TEST(WsHandshake, TheEndIsFoundWhereverItFallsBetweenReads) {
    for (std::size_t size = 4094; size <= 4102; ++size) {
        EXPECT_EQ(errorWith([size](const std::string& request) { return answerOfSize(request, size); }), "") << size;
    }
}

TEST(WsHandshake, AnAnswerThatComesByteByByteIsTaken) {
    TcpPeer peer([](PeerConnection& connection) {
        for (const char byte : wsSwitchingAnswer(connection.readUntil("\r\n\r\n")))
            connection.send({&byte, 1});
        connection.hold();
    });
    std::string error;

    EXPECT_NE(WsConnection::connect(peer.url("ws"), kPath, "token", &error), nullptr) << error;
}

TEST(WsHandshake, WhatComesRightBehindTheAnswerIsTheFirstFrame) {
    const std::string large(10000, 'l');
    TcpPeer peer([&large](PeerConnection& connection) {
        const auto request = connection.readUntil("\r\n\r\n");
        connection.send(wsSwitchingAnswer(request) + serverFrame(1, "first") + serverFrame(1, large));
        connection.hold();
    });
    const auto connection = WsConnection::connect(peer.url("ws"), kPath, "token");
    ASSERT_NE(connection, nullptr);
    std::string text;

    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, "first");
    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, large);
}

TEST(WsHandshake, ARaisedSignalEndsTheAttemptBeforeAnythingIsSent) {
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });
    const auto cancel = std::make_shared<CancelSignal>();
    cancel->cancel();

    EXPECT_EQ(failureOf(peer.url("ws"), "token", cancel), "TCP 连接失败: Operation canceled");
}

TEST(WsHandshake, RaisingTheSignalEndsAConnectUnderWay) {
    const FullListener listener;
    const auto cancel = std::make_shared<CancelSignal>();
    auto attempt = std::async(std::launch::async, [&] {
        return failureOf("ws://127.0.0.1:" + std::to_string(listener.port()), "token", cancel);
    });
    ASSERT_TRUE(waitUntil([&listener] { return listener.attemptPending(); }));

    cancel->cancel();

    EXPECT_EQ(attempt.get(), "TCP 连接失败: Operation canceled");
}

TEST(WsHandshake, RaisingTheSignalEndsATlsHandshakeUnderWay) {
    trustedAuthority();
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([cancel](PeerConnection& connection) {
        connection.readExactly(1);
        cancel->cancel();
        connection.hold();
    });
    const auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(failureOf("wss://localhost:" + std::to_string(peer.port()), "token", cancel), "TLS 握手超时");

    // The text is the same as for a handshake that runs out of its 15 s.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(14));
}

TEST(WsHandshake, RaisingTheSignalEndsTheWaitForTheAnswer) {
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([cancel](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        cancel->cancel();
        connection.hold();
    });

    EXPECT_EQ(failureOf(peer.url("ws"), "token", cancel), "websocket handshake: no response");
}

TEST(WsHandshake, TheSignalHasNoBearingOnAConnectionThatWasHandedOut) {
    TcpPeer peer([](PeerConnection& connection) {
        acceptWebSocket(connection);
        connection.send(serverFrame(1, test::readClientFrame(connection).payload));
        connection.hold();
    });
    const auto cancel = std::make_shared<CancelSignal>();
    const auto connection = WsConnection::connect(peer.url("ws"), kPath, "token", nullptr, cancel);
    ASSERT_NE(connection, nullptr);

    cancel->cancel();

    std::string text;
    EXPECT_TRUE(connection->sendText("echo"));
    EXPECT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, "echo");
}

}  // namespace
}  // namespace qm
