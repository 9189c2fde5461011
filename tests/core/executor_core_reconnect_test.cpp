// Changes of settings while the connection loop is at work.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "core/running_core.h"
#include "support/gateway_peer.h"

namespace qm {
namespace {

using std::chrono::milliseconds;
using test::GatewayPeer;
using test::patientTiming;
using test::RunningCore;
using test::settingsFor;
using Strings = std::vector<std::string>;

void rename(ExecutorCore& core, int number) {
    core.changeSettings([number](Settings& changed) { changed.name = std::to_string(number); });
}

/// Lets some time pass, on most machines less than an attempt to connect takes.
void dawdle(std::mt19937& random) {
    for (auto turns = random() % 256; turns > 0; --turns)
        std::this_thread::yield();
}

TEST(ExecutorCoreReconnect, ARequestIsNeverLostWheneverItComes) {
    constexpr int kNobody = -1;
    std::atomic<int> renameOnceOpened = kNobody;
    std::atomic<ExecutorCore*> core = nullptr;
    test::GatewayPeerOptions options;
    options.onEvent = [&](const test::GatewayEvent& event) {
        if (event.kind != test::GatewayEvent::Kind::Opened) return;
        // The executor has got its 101, or is about to.
        if (const int number = renameOnceOpened.exchange(kNobody); number != kNobody) rename(*core, number);
    };
    GatewayPeer gateway(options);
    RunningCore running(settingsFor(gateway.url()));
    core = running.core.get();
    running.start();
    gateway.waitForRegister();
    std::mt19937 random(7);

    for (int number = 0; number < 200; ++number) {
        if (number % 2 == 0) {
            renameOnceOpened = number;
            running.core->requestReconnect();
        } else {
            running.core->requestReconnect();
            dawdle(random);
            rename(*running.core, number);
        }
        // No wait of the loop ends by itself: a request that was lost would be the last.
        gateway.waitForFrame([number](const test::ReceivedFrame& frame) {
            return frame.message.value("type", "") == "register" && frame.message["name"] == std::to_string(number);
        });
    }
}

TEST(ExecutorCoreReconnect, ASessionEndsWhenTheTokenIsTakenAway) {
    GatewayPeer gateway;
    CoreTiming timing = patientTiming();
    timing.unconfiguredWait = milliseconds(1);
    RunningCore running(settingsFor(gateway.url()), timing);
    running.start();
    gateway.waitForRegister();

    running.core->changeSettings([](Settings& changed) { changed.executorToken.clear(); });

    ASSERT_TRUE(running.waitForState("NOT_CONFIGURED"));
    EXPECT_TRUE(gateway.waitForEnd(1).closeFrame);
    EXPECT_TRUE(running.waitForRounds());
    EXPECT_EQ(gateway.connectionCount(), 1U);
    EXPECT_EQ(running.states(), (Strings{"CONNECTING", "CONNECTED", "DISCONNECTED", "NOT_CONFIGURED"}));
}

TEST(ExecutorCoreReconnect, ASessionEndsWhenTheConnectionIsSwitchedOff) {
    GatewayPeer gateway;
    CoreTiming timing = patientTiming();
    timing.standaloneWait = milliseconds(1);
    RunningCore running(settingsFor(gateway.url()), timing);
    running.start();
    gateway.waitForRegister();

    running.core->changeSettings([](Settings& changed) { changed.connection = "STANDALONE"; });

    ASSERT_TRUE(running.waitForState("STANDALONE"));
    EXPECT_TRUE(gateway.waitForEnd(1).closeFrame);
    EXPECT_TRUE(running.waitForRounds());
    EXPECT_EQ(gateway.connectionCount(), 1U);
    EXPECT_EQ(running.states(), (Strings{"CONNECTING", "CONNECTED", "DISCONNECTED", "STANDALONE"}));
}

}  // namespace
}  // namespace qm
