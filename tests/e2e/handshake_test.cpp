// Gateways that can't be reached, don't take the executor, or aren't who they say.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/executor_home.h"
#include "support/tcp_peer.h"
#include "support/test_authority.h"

namespace qm::test {
namespace {

using testing::HasSubstr;

/// The executor meets `answer` once, logs `failure`, comes back after its wait and is served then.
void expectFailureAndRecovery(HandshakeAnswer answer, const std::string& failure) {
    const ExecutorHome home;
    GatewayPeer gateway;
    gateway.answerNextHandshake(std::move(answer));
    const auto start = std::chrono::steady_clock::now();
    ExecutorProcess executor(home.against(gateway));

    executor.waitForOutput("WARN  gateway connection failed: " + failure + "\n");
    gateway.waitForRegister();

    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(gateway.connectionCount(), 2U);
    expectOrderlyStop(executor);
}

GatewayPeerOptions tlsOptions(const TestIdentity& identity) {
    GatewayPeerOptions options;
    options.certificatePem = readFile(identity.certificateFile);
    options.privateKeyPem = readFile(identity.keyFile);
    return options;
}

TEST(Handshake, ARefusedTokenIsTriedAgainAfter5Seconds) {
    expectFailureAndRecovery(HandshakeAnswer::status(401), "gateway refused websocket upgrade: HTTP 401");
}

TEST(Handshake, AGatewayThatDoesntKnowThePath) {
    expectFailureAndRecovery(HandshakeAnswer::status(404), "gateway refused websocket upgrade: HTTP 404");
}

TEST(Handshake, AGatewayInTrouble) {
    expectFailureAndRecovery(HandshakeAnswer::status(500), "gateway refused websocket upgrade: HTTP 500");
}

TEST(Handshake, ASuccessThatIsNoUpgrade) {
    expectFailureAndRecovery(HandshakeAnswer::status(200), "gateway refused websocket upgrade: HTTP 200");
}

TEST(Handshake, AnAcceptValueOfAnotherKey) {
    expectFailureAndRecovery(HandshakeAnswer::wrongAcceptValue(), "websocket accept mismatch");
}

TEST(Handshake, AHeaderOf65537BytesWithoutAnEnd) {
    expectFailureAndRecovery(HandshakeAnswer::headerWithoutEnd(65537), "handshake response too large");
}

TEST(Handshake, AGatewayThatClosesInsteadOfAnAnswer) {
    expectFailureAndRecovery({.upgrade = false, .bytes = ""}, "websocket handshake: no response");
}

TEST(Handshake, AGatewayThatClosesBeforeTheRequest) {
    expectFailureAndRecovery(HandshakeAnswer::closeAtOnce(), "websocket handshake: no response");
}

TEST(Handshake, AHeaderOf65536BytesWithoutAnEndIsWaitedFor) {
    const ExecutorHome home;
    GatewayPeer gateway;
    gateway.answerNextHandshake(HandshakeAnswer::headerWithoutEnd(65536));
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForHandshakes(1);

    // Nothing announces that the executor has read it all; what can be seen is that it still waits when it is stopped.
    expectOrderlyStop(executor);

    EXPECT_THAT(executor.output(), testing::Not(HasSubstr("too large")));
    EXPECT_EQ(gateway.connectionCount(), 1U);
}

TEST(Handshake, AGatewayUrlThatIsNone) {
    const ExecutorHome home;
    ExecutorProcess executor(home.setup({"--gateway", "nonsense", "--token", kToken}));

    executor.waitForOutput("INFO  connecting to gateway: nonsense/ws/executor\n");
    executor.waitForOutput("WARN  gateway connection failed: invalid gateway url: nonsense\n");
    expectOrderlyStop(executor);
}

TEST(Handshake, AGatewayThatIsntThere) {
    const ExecutorHome home;
    const RefusingPort port;
    ExecutorProcess executor(
        home.setup({"--gateway", "ws://127.0.0.1:" + std::to_string(port.port()), "--token", kToken}));

    executor.waitForOutput("WARN  gateway connection failed: TCP 连接失败: Connection refused\n");
    expectOrderlyStop(executor);
}

TEST(Handshake, WsAndHttpAreOne) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(
        home.setup({"--gateway", "ws://127.0.0.1:" + std::to_string(gateway.port()), "--token", kToken}));

    gateway.waitForRegister();

    EXPECT_EQ(gateway.handshakes().at(0).target, "/ws/executor");
}

TEST(TlsHandshake, AGatewayOfATrustedAuthorityIsServedUnderEitherScheme) {
    const TestAuthority authority;
    GatewayPeer gateway(tlsOptions(authority.issue({"localhost"})));
    for (const auto* scheme : {"wss", "https"}) {
        const ExecutorHome home;
        auto setup = home.setup(
            {"--gateway", std::string(scheme) + "://localhost:" + std::to_string(gateway.port()), "--token", kToken});
        setup.environment["SSL_CERT_FILE"] = authority.certificateFile().string();
        ExecutorProcess executor(setup);

        gateway.waitForRegister();

        EXPECT_EQ(gateway.handshakes().back().header("X-Executor-Token"), kToken);
        EXPECT_TRUE(gateway.execute("device_time").contains("epochMillis"));
        expectOrderlyStop(executor);
    }
}

TEST(TlsSession, CarriesMessagesOf16MiBBothWaysWhileOthersAreUnderWay) {
    const TestAuthority authority;
    GatewayPeer gateway(tlsOptions(authority.issue({"localhost"})));
    const ExecutorHome home;
    auto setup = home.against(gateway);
    setup.environment["SSL_CERT_FILE"] = authority.certificateFile().string();
    ExecutorProcess executor(setup);
    gateway.waitForRegister();
    const std::string id(std::size_t{16} << 20, 'i');

    gateway.send({{"type", "resolutionToolExecute"}, {"requestId", id}});
    for (int i = 0; i < 20; ++i) {
        gateway.send({{"type", "execute"}, {"requestId", "small"}, {"capabilityId", "device_time"}});
    }

    const auto limit = std::chrono::seconds(200);  // Under the sanitizers so much takes half a minute to parse.
    EXPECT_EQ(gateway.waitForType("resolutionToolResult", limit).message.at("requestId"), id);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(gateway.waitForType("executeResult", limit).message.at("result").contains("utcTime"));
    }
    EXPECT_EQ(gateway.sessionCount(), 1U);
}

TEST(TlsSession, ABrokenOneIsNoSignalAndIsTakenUpAgain) {
    const TestAuthority authority;
    GatewayPeer gateway(tlsOptions(authority.issue({"localhost"})));
    const ExecutorHome home;
    auto setup = home.against(gateway);
    setup.environment["SSL_CERT_FILE"] = authority.certificateFile().string();
    ExecutorProcess executor(setup);
    gateway.waitForRegister();

    // A reply to the broken connection would raise SIGPIPE in a careless program.
    gateway.send({{"type", "metricsRequest"}});
    gateway.drop();
    gateway.waitForRegister();

    EXPECT_EQ(gateway.sessionCount(), 2U);
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime"));
    expectOrderlyStop(executor);
}

TEST(TlsHandshake, ACertificateForAnotherHostIsRefused) {
    const TestAuthority authority;
    GatewayPeer gateway(tlsOptions(authority.issue({"other.example"})));
    const ExecutorHome home;
    auto setup = home.against(gateway);
    setup.environment["SSL_CERT_FILE"] = authority.certificateFile().string();
    ExecutorProcess executor(setup);

    executor.waitForOutput("WARN  gateway connection failed: TLS 握手失败: ");

    EXPECT_TRUE(gateway.handshakes().empty()) << "the token must not leave before the gateway is known";
    expectOrderlyStop(executor);
}

TEST(TlsHandshake, AnUnknownAuthorityIsRefused) {
    const TestAuthority authority;
    const TestAuthority other;
    GatewayPeer gateway(tlsOptions(authority.issue({"localhost"})));
    const ExecutorHome home;
    auto setup = home.against(gateway);
    setup.environment["SSL_CERT_FILE"] = other.certificateFile().string();
    ExecutorProcess executor(setup);

    executor.waitForOutput("WARN  gateway connection failed: TLS 握手失败: ");

    EXPECT_TRUE(gateway.handshakes().empty());
}

TEST(TlsHandshake, AGatewayWithoutTlsIsRefused) {
    GatewayPeer gateway;
    const ExecutorHome home;
    ExecutorProcess executor(
        home.setup({"--gateway", "wss://localhost:" + std::to_string(gateway.port()), "--token", kToken}));

    executor.waitForOutput("WARN  gateway connection failed: TLS 握手失败: ");

    EXPECT_TRUE(gateway.handshakes().empty());
}

}  // namespace
}  // namespace qm::test
