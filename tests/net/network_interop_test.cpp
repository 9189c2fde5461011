// The HTTP client and the WebSocket connection against servers that are built on another implementation.

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>

#include "net/http_client.h"
#include "net/ws_connection.h"
#include "support/gateway_peer.h"
#include "support/scripted_http_server.h"
#include "support/test_authority.h"

namespace qm {
namespace {

using test::GatewayPeer;
using test::GatewayPeerOptions;
using test::ScriptedAnswer;
using test::ScriptedHttpServer;
using test::trustedAuthority;

constexpr int kLongMs = 60000;

std::string pattern(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>('a' + i % 23);
    return text;
}

GatewayPeerOptions gatewayOptions(bool tls) {
    GatewayPeerOptions options;
    options.token = "the-token";
    options.basePath = "/gateway";
    if (tls) {
        const auto identity = trustedAuthority().issue({"localhost"});
        options.certificatePem = test::readFile(identity.certificateFile);
        options.privateKeyPem = test::readFile(identity.keyFile);
    }
    return options;
}

class GatewayInterop : public testing::TestWithParam<bool> {
protected:
    GatewayInterop() : gateway_(gatewayOptions(GetParam())) {}

    std::shared_ptr<WsConnection> connect(const std::string& token = "the-token") {
        return WsConnection::connect(gateway_.url(), "/ws/executor", token, &error_);
    }

    /// A session that the gateway knows of, too, so that it can send on it.
    std::shared_ptr<WsConnection> openSession() {
        auto connection = connect();
        if (connection) gateway_.waitForSessions(1);
        return connection;
    }

    GatewayPeer gateway_;
    std::string error_;
};

INSTANTIATE_TEST_SUITE_P(PlainAndTls, GatewayInterop, testing::Bool());

TEST_P(GatewayInterop, ASessionCarriesTextsOfEverySizeBothWays) {
    const auto connection = openSession();
    ASSERT_NE(connection, nullptr) << error_;

    for (const std::size_t size : {0U, 125U, 126U, 65535U, 65536U, 16U << 20}) {
        const auto text = pattern(size);
        ASSERT_TRUE(connection->sendText(text));
        EXPECT_EQ(gateway_.waitForFrame([](const auto&) { return true; }).text, text);
        gateway_.sendText(text);
        std::string received;
        ASSERT_TRUE(connection->receive(&received));
        EXPECT_EQ(received, text);
    }
}

TEST_P(GatewayInterop, PingsFragmentsAndBinaryFramesAreHandled) {
    const auto connection = openSession();
    ASSERT_NE(connection, nullptr) << error_;
    gateway_.sendFragment("one ", false);
    gateway_.sendPing("between");
    gateway_.sendFragment("two", true);
    gateway_.sendBinary("ignored");
    gateway_.sendText("last");
    std::string text;

    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, "one two");
    ASSERT_TRUE(connection->receive(&text));
    EXPECT_EQ(text, "last");
    gateway_.waitForPong("between");
}

TEST_P(GatewayInterop, TheGatewaysCloseComesWithItsCodeAndReason) {
    const auto connection = openSession();
    ASSERT_NE(connection, nullptr) << error_;
    gateway_.close(4001, "registration rejected");
    std::string text;
    int failed = -1;

    EXPECT_FALSE(connection->receive(&text, &failed));

    EXPECT_EQ(failed, 0);
    ASSERT_TRUE(connection->peerClose().has_value());
    EXPECT_EQ(connection->peerClose()->code, 4001);
    EXPECT_EQ(connection->peerClose()->reason, "registration rejected");
}

TEST_P(GatewayInterop, ACloseFromThisSideIsUnderstood) {
    const auto connection = openSession();
    ASSERT_NE(connection, nullptr) << error_;

    connection->close();

    const auto end = gateway_.waitForEnd(1);
    EXPECT_TRUE(end.closeFrame) << end.error;
    EXPECT_EQ(end.code, 0);
}

TEST_P(GatewayInterop, ARefusedTokenIsNamedByItsStatus) {
    EXPECT_EQ(connect("another-token"), nullptr);
    EXPECT_EQ(error_, "gateway refused websocket upgrade: HTTP 401");
}

class HttpInterop : public testing::TestWithParam<bool> {
protected:
    static test::ScriptedHttpServerOptions options() {
        test::ScriptedHttpServerOptions options;
        if (GetParam()) {
            const auto identity = trustedAuthority().issue({"localhost"});
            options.certificatePem = test::readFile(identity.certificateFile);
            options.privateKeyPem = test::readFile(identity.keyFile);
        }
        return options;
    }

    ScriptedHttpServer server_{options()};
};

INSTANTIATE_TEST_SUITE_P(PlainAndTls, HttpInterop, testing::Bool());

TEST_P(HttpInterop, AGetIsUnderstoodAndItsChunkedAnswerDecoded) {
    const auto body = pattern(300000);
    server_.answer("/chunked", ScriptedAnswer{.status = 200, .body = body, .chunked = true});

    const auto response = HttpClient(kLongMs).get(server_.url() + "/chunked?x=y", {{"X-Test", "value"}});

    EXPECT_EQ(response.error, "");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, body);
    const auto request = server_.requests().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/chunked?x=y");
    EXPECT_EQ(request.header("X-Test"), "value");
    EXPECT_EQ(request.header("User-Agent"), "Quillmarsh-Executor");
}

TEST_P(HttpInterop, APostIsUnderstoodAndItsAnswerComesWithStatusAndBody) {
    server_.answer("/login", ScriptedAnswer{.status = 403, .body = R"({"error":"no"})"});
    const auto body = pattern(200000);

    const auto response = HttpClient(kLongMs).post(server_.url() + "/login", body);

    EXPECT_EQ(response.status, 403);
    EXPECT_EQ(response.body, R"({"error":"no"})");
    const auto request = server_.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.body, body);
    EXPECT_EQ(request.header("Content-Type"), "application/json");
}

}  // namespace
}  // namespace qm
