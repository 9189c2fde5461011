// How the executor comes back: after 5 s as a rule, after 60 s when it was rejected.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// From the end of the last session until the handshake that follows, at least `wait` and not much more.
void expectReconnectAfter(GatewayPeer& gateway, steady_clock::time_point end, seconds wait) {
    const auto before = gateway.handshakes().size();
    gateway.waitForHandshakes(before + 1, wait + kGenerousLimit);
    const auto waited = gateway.handshakes().back().at - end;
    // The executor starts to wait a moment after the gateway saw the end, or before it.
    EXPECT_GE(waited, wait - milliseconds(200));
    EXPECT_LE(waited, wait + seconds(5));
}

TEST(Reconnect, ComesAfter5SecondsWhenTheGatewayCloses) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    gateway.close(1001, "going away");
    expectReconnectAfter(gateway, gateway.waitForEnd(1).at, seconds(5));

    gateway.waitForRegister();
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime"));
}

TEST(Reconnect, ComesAfter5SecondsWhenTheConnectionBreaks) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    gateway.drop();
    expectReconnectAfter(gateway, gateway.waitForEnd(1).at, seconds(5));

    gateway.waitForRegister();
    executor.waitForOutput("WARN  websocket receive error: ");
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime"));
}

TEST(Reconnect, TheWaitDoesntGrow) {
    const ExecutorHome home;
    GatewayPeer gateway;
    for (int i = 0; i < 3; ++i) {
        gateway.answerNextHandshake(HandshakeAnswer::status(503));
    }
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForSessions(1, seconds(60));

    const auto handshakes = gateway.handshakes();
    ASSERT_EQ(handshakes.size(), 4U);
    for (std::size_t i = 1; i < handshakes.size(); ++i) {
        const auto waited = handshakes[i].at - handshakes[i - 1].at;
        EXPECT_GE(waited, milliseconds(4900));
        EXPECT_LE(waited, seconds(9));
    }
}

TEST(Reconnect, ComesAfter60SecondsWhenTheRegistrationWasRejectedAndAfter5TheNextTime) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    gateway.send({{"type", "registerRejected"}});
    gateway.close();
    executor.waitForOutput("ERROR 网关拒绝注册（60s 后重试）: 设备位配额已满\n");
    expectReconnectAfter(gateway, gateway.waitForEnd(1).at, seconds(60));

    gateway.waitForRegister();
    gateway.drop();
    expectReconnectAfter(gateway, gateway.waitForEnd(2).at, seconds(5));
}

TEST(Reconnect, ASessionLeavesNeitherThreadsNorDescriptorsBehind) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    const auto settled = [&] {
        gateway.waitForRegister();
        executor.waitForOutput("connected & registered", gateway.sessionCount());
    };
    settled();
    // The heartbeat's thread starts a moment after the log line.
    ASSERT_TRUE(waitUntil([&] { return executor.threadCount() >= 3; }));
    const auto threads = executor.threadCount();
    const auto descriptors = executor.descriptorCount();

    for (int i = 0; i < 2; ++i) {
        gateway.drop();
        settled();
    }

    EXPECT_TRUE(waitUntil([&] { return executor.threadCount() == threads; })) << executor.threadCount();
    EXPECT_EQ(executor.descriptorCount(), descriptors);
}

TEST(Reconnect, ARejectionsReasonIsLogged) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    gateway.send({{"type", "registerRejected"}, {"reason", "too many devices"}});
    gateway.send({{"type", "registerRejected"}, {"reason", 7}});

    executor.waitForOutput("ERROR 网关拒绝注册（60s 后重试）: too many devices\n");
    executor.waitForOutput("ERROR 网关拒绝注册（60s 后重试）: 设备位配额已满\n");
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime")) << "the gateway decides when the session ends";
}

}  // namespace
}  // namespace qm::test
