#include "core/executor_core.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <stop_token>

#include "core/running_core.h"
#include "support/gateway_peer.h"
#include "support/promised.h"
#include "util/json.h"

namespace qm {
namespace {

using std::chrono::milliseconds;
using test::capability;
using test::eagerTiming;
using test::GatewayPeer;
using test::HandshakeAnswer;
using test::logged;
using test::patientTiming;
using test::RunningCore;
using test::settingsFor;
using Strings = std::vector<std::string>;

bool isRegister(const test::ReceivedFrame& frame) {
    return frame.message.value("type", "") == "register";
}

TEST(CoreTiming, HasTheWaitsOfTheProtocol) {
    const CoreTiming timing;
    EXPECT_EQ(timing.standaloneWait, milliseconds(3000));
    EXPECT_EQ(timing.unconfiguredWait, milliseconds(2000));
    EXPECT_EQ(timing.reconnectWait, milliseconds(5000));
    EXPECT_EQ(timing.rejectedWait, milliseconds(60000));
    EXPECT_EQ(timing.heartbeatPeriod, milliseconds(10000));
    EXPECT_LE(timing.drainLimit, milliseconds(2000));
}

TEST(ExecutorCore, ConnectsRegistersAndGoesThroughTheStates) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.registry.registerCapability(capability("look"));
    running.start();

    const json message = gateway.waitForRegister();
    gateway.close(4001, "bye");
    ASSERT_TRUE(running.waitForState("DISCONNECTED"));

    EXPECT_EQ(message["agentId"], "node");
    EXPECT_EQ(message["capabilities"][0]["name"], "look");
    const auto handshake = gateway.handshakes().at(0);
    EXPECT_EQ(handshake.target, "/ws/executor");
    EXPECT_EQ(handshake.header("X-Executor-Token"), "token");
    const Strings states = running.states();
    // The first event came with the capability, before the first round.
    EXPECT_EQ(states, (Strings{"NOT_CONFIGURED", "CONNECTING", "CONNECTED", "DISCONNECTED"}));
    EXPECT_TRUE(logged("INFO  connecting to gateway: " + gateway.url() + "/ws/executor"));
    EXPECT_TRUE(logged("INFO  connected & registered: agentId=node, mode=LIGHT, capabilities=1"));
    EXPECT_TRUE(logged("WARN  gateway connection closed"));
    EXPECT_TRUE(logged("INFO  gateway close code 4001, reason: bye"));
}

TEST(ExecutorCore, IsNotConfiguredWithoutAToken) {
    Settings settings = settingsFor("http://127.0.0.1:1");
    settings.executorToken.clear();
    settings.connection = "STANDALONE";
    RunningCore running(settings);
    running.start();
    ASSERT_TRUE(running.waitForState("STANDALONE"));

    // The state before the first round is NOT_CONFIGURED already: only a change to it shows that a round came to it.
    running.core->changeSettings([](Settings& changed) { changed.connection = "GATEWAY"; });

    ASSERT_TRUE(running.waitForState("NOT_CONFIGURED"));
    EXPECT_EQ(running.core->status()["online"], false);
    EXPECT_EQ(running.core->status()["configured"], false);
    running.stop();
    EXPECT_EQ(running.states(), (Strings{"STANDALONE", "NOT_CONFIGURED"}));
    EXPECT_TRUE(logged("INFO  executor stopped"));
}

TEST(ExecutorCore, ASavedTokenLeadsToAnAttemptAtOnce) {
    GatewayPeer gateway;
    Settings settings = settingsFor(gateway.url());
    settings.executorToken.clear();
    RunningCore running(settings);
    running.start();

    std::string error;
    EXPECT_TRUE(running.core->changeSettings([](Settings& changed) { changed.executorToken = "new"; }, &error))
        << error;

    gateway.waitForRegister();
    EXPECT_EQ(gateway.handshakes().at(0).header("X-Executor-Token"), "new");
    EXPECT_EQ(SettingsStore(running.directory.path()).load().executorToken, "new");
}

TEST(ExecutorCore, SettingsThatCantBeSavedCountAllTheSame) {
    GatewayPeer gateway;
    Settings settings = settingsFor(gateway.url());
    settings.executorToken.clear();
    RunningCore running(settings);
    std::filesystem::create_directories(running.directory / "executor-credential");  // Can't be written as a file.
    running.start();

    std::string error;
    EXPECT_FALSE(running.core->changeSettings([](Settings& changed) { changed.executorToken = "new"; }, &error));

    EXPECT_EQ(error, "unable to write " + (running.directory / "executor-credential").string());
    gateway.waitForRegister();
}

TEST(ExecutorCore, OpensNoSocketWhenStandalone) {
    GatewayPeer gateway;
    Settings settings = settingsFor(gateway.url());
    settings.connection = "standalone";
    RunningCore running(settings);
    running.start();

    ASSERT_TRUE(running.waitForState("STANDALONE"));
    EXPECT_EQ(running.core->status()["online"], true);
    EXPECT_EQ(gateway.connectionCount(), 0U);

    running.core->changeSettings([](Settings& changed) { changed.connection = "GATEWAY"; });
    gateway.waitForRegister();
}

TEST(ExecutorCore, SeesAChangeOfSettingsWhenAStandaloneWaitIsOver) {
    GatewayPeer gateway;
    Settings settings = settingsFor(gateway.url());
    settings.connection = "STANDALONE";
    CoreTiming timing = patientTiming();
    timing.standaloneWait = milliseconds(1);
    RunningCore running(settings, timing);
    running.start();
    ASSERT_TRUE(running.waitForState("STANDALONE"));

    running.core->changeSettings([](Settings& changed) { changed.connection = "GATEWAY"; });

    gateway.waitForRegister();
    const Strings states = running.states();
    EXPECT_EQ(std::count(states.begin(), states.end(), "STANDALONE"), 1) << "one event for many rounds";
}

TEST(ExecutorCore, WaitsLongAfterARejectionAndForgetsItAtTheNextSuccess) {
    GatewayPeer gateway;
    CoreTiming timing = eagerTiming();
    RunningCore running(settingsFor(gateway.url()), timing);
    running.start();
    gateway.waitForRegister();

    gateway.send({{"type", "registerRejected"}, {"reason", "no seat"}});
    gateway.close();
    ASSERT_TRUE(running.waitForState("REJECTED"));
    EXPECT_TRUE(logged("ERROR 网关拒绝注册（60s 后重试）: no seat"));
    EXPECT_EQ(gateway.sessionCount(), 1U);

    running.core->requestReconnect();
    gateway.waitForRegister();
    gateway.close();
    ASSERT_TRUE(running.waitForState("DISCONNECTED"));
}

TEST(ExecutorCore, WaitsLongAfterEachAttemptThatFailsUntilOneSucceeds) {
    GatewayPeer gateway;
    // Only the long wait ends within the test, so the attempts show that it was chosen each time.
    CoreTiming timing = patientTiming();
    timing.rejectedWait = milliseconds(1);
    RunningCore running(settingsFor(gateway.url()), timing);
    running.start();
    gateway.waitForRegister();
    gateway.answerNextHandshake(HandshakeAnswer::status(401));
    gateway.answerNextHandshake(HandshakeAnswer::status(503));

    gateway.send({{"type", "registerRejected"}});
    gateway.close();
    gateway.waitForRegister();
    gateway.close();

    ASSERT_TRUE(running.waitForState("DISCONNECTED"));
    EXPECT_EQ(running.states(), (Strings{"CONNECTING", "CONNECTED", "REJECTED", "CONNECTING", "REJECTED", "CONNECTING",
                                         "REJECTED", "CONNECTING", "CONNECTED", "DISCONNECTED"}));
}

TEST(ExecutorCore, NamesTheDefaultReasonOfARejection) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForRegister();

    gateway.send({{"type", "registerRejected"}, {"reason", 5}});
    gateway.close();

    ASSERT_TRUE(running.waitForState("REJECTED"));
    EXPECT_TRUE(logged("网关拒绝注册（60s 后重试）: 设备位配额已满"));
}

TEST(ExecutorCore, AlternatesBetweenConnectingAndDisconnectedWhileTheGatewayIsAway) {
    GatewayPeer gateway;
    const std::string url = gateway.url();
    gateway.stopListening();
    RunningCore running(settingsFor(url), eagerTiming());
    running.start();

    ASSERT_TRUE(running.waitForState("DISCONNECTED", 3));
    running.stop();

    const Strings states = running.states();
    for (std::size_t i = 0; i < states.size(); ++i) {
        EXPECT_EQ(states[i], i % 2 == 0 ? "CONNECTING" : "DISCONNECTED") << i;
    }
    EXPECT_TRUE(logged("WARN  gateway connection failed: TCP 连接失败: Connection refused"));
}

TEST(ExecutorCore, AnnouncesAChangedTableOnTheLiveSession) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    EXPECT_EQ(gateway.waitForRegister()["capabilities"].size(), 0U);

    running.registry.registerCapability(capability("late"));

    EXPECT_EQ(gateway.waitForRegister()["capabilities"][0]["name"], "late");
    EXPECT_EQ(gateway.sessionCount(), 1U);
    EXPECT_TRUE(logged("INFO  capabilities changed (version 1), re-registering"));
}

TEST(ExecutorCore, AChangeBeforeTheFirstRegisterCausesNoSecondOne) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.registry.registerCapability(capability("early"));
    running.start();

    EXPECT_EQ(gateway.waitForRegister()["capabilities"].size(), 1U);
    // The reply to a later request would come behind a second register.
    gateway.request({{"type", "openModelFolder"}});
    for (const auto& frame : gateway.untakenFrames())
        EXPECT_FALSE(isRegister(frame));
}

TEST(ExecutorCore, ManyChangesAtOnceEndInARegisterThatShowsThemAll) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForRegister();

    constexpr std::size_t kChanges = 16;
    std::vector<std::future<void>> changes;
    changes.reserve(kChanges);
    for (std::size_t i = 0; i < kChanges; ++i) {
        changes.push_back(std::async(std::launch::async, [&running, i] {
            running.registry.registerCapability(capability("c" + std::to_string(i)));
        }));
    }
    for (auto& change : changes)
        change.get();
    gateway.request({{"type", "openModelFolder"}});

    std::size_t shown = 0;
    for (const auto& frame : gateway.untakenFrames()) {
        if (isRegister(frame)) shown = frame.message["capabilities"].size();
    }
    if (shown != 16)
        shown = gateway
                    .waitForFrame([](const auto& frame) {
                        return isRegister(frame) && frame.message["capabilities"].size() == 16;
                    })
                    .message["capabilities"]
                    .size();
    EXPECT_EQ(shown, 16U);
}

TEST(ExecutorCore, APolicyChangeCausesNoRegister) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.registry.registerCapability(capability("look"));
    running.start();
    gateway.waitForRegister();

    gateway.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"look"}}});
    EXPECT_EQ(gateway.execute("look")["errorCode"], "CAPABILITY_DISABLED");

    for (const auto& frame : gateway.untakenFrames())
        EXPECT_FALSE(isRegister(frame));
}

TEST(ExecutorCore, SendsHeartbeatsWhileTheSessionLasts) {
    GatewayPeer gateway;
    CoreTiming timing = patientTiming();
    timing.heartbeatPeriod = milliseconds(1);
    RunningCore running(settingsFor(gateway.url()), timing);
    running.start();

    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(gateway.waitForType("heartbeat").text, R"({"type":"heartbeat"})");
}

TEST(ExecutorCore, AStopEndsASession) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForRegister();

    running.stop();

    EXPECT_TRUE(gateway.waitForEnd(1).closeFrame);
    EXPECT_TRUE(logged("INFO  executor stopped"));
}

TEST(ExecutorCore, AStopCutsAnAttemptShort) {
    GatewayPeer gateway;
    gateway.answerNextHandshake(HandshakeAnswer::silence());
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForHandshakes(1);

    running.stop();

    EXPECT_EQ(running.states(), (Strings{"CONNECTING"}));
}

TEST(ExecutorCore, AReconnectRequestCutsAnAttemptShort) {
    GatewayPeer gateway;
    gateway.answerNextHandshake(HandshakeAnswer::silence());
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForHandshakes(1);

    running.core->requestReconnect();

    gateway.waitForRegister();
}

TEST(ExecutorCore, AReconnectRequestReplacesTheSession) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForRegister();

    running.core->changeSettings([](Settings& changed) { changed.name = "renamed"; });

    EXPECT_EQ(gateway.waitForRegister()["name"], "renamed");
    EXPECT_TRUE(gateway.waitForEnd(1).closeFrame);
    EXPECT_EQ(gateway.sessionCount(), 2U);
}

TEST(ExecutorCore, RequestsAtAnyMomentNeverHangTheLoop) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();

    for (int i = 0; i < 100; ++i)
        running.core->requestReconnect();

    // Whatever those met, the last one was served by a round that began after it.
    EXPECT_TRUE(test::waitUntil([&] { return running.core->status()["state"] == "CONNECTED"; }));
    running.core->requestReconnect();
    EXPECT_TRUE(test::waitUntil([&] { return running.core->status()["state"] == "CONNECTED"; }));
}

TEST(ExecutorCore, DestructionWaitsForWorkInFlight) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    std::promise<void> started;
    std::promise<void> release;
    std::atomic<bool> ended = false;
    CapabilityDef slow = capability("slow");
    slow.handler = [&](const json&) {
        started.set_value();
        release.get_future().wait();
        ended = true;
        return json::object();
    };
    running.registry.registerCapability(slow);
    running.start();
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"requestId", "1"}, {"capabilityId", "slow"}});
    started.get_future().wait();
    running.stop();

    auto destruction = std::async(std::launch::async, [&] { running.core.reset(); });
    EXPECT_EQ(destruction.wait_for(milliseconds(20)), std::future_status::timeout);
    release.set_value();
    destruction.wait();

    EXPECT_TRUE(ended);
}

TEST(ExecutorCore, DestructionGivesUpOnWorkThatDoesNotEnd) {
    GatewayPeer gateway;
    CoreTiming timing = patientTiming();
    timing.drainLimit = milliseconds(1);
    RunningCore running(settingsFor(gateway.url()), timing);
    std::promise<void> started;
    std::promise<void> release;
    CapabilityDef slow = capability("slow");
    slow.handler = [&](const json&) {
        started.set_value();
        release.get_future().wait();
        return json::object();
    };
    running.registry.registerCapability(slow);
    running.start();
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"requestId", "1"}, {"capabilityId", "slow"}});
    started.get_future().wait();
    const auto inFlight = running.core->detachedTasks();
    running.stop();

    running.core.reset();

    EXPECT_EQ(inFlight->count(), 1U);
    release.set_value();
    EXPECT_TRUE(inFlight->waitUntilIdle(test::kGenerousLimit));
}

TEST(ExecutorCore, AStopAsksInvocationsInFlightToEnd) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    std::promise<void> started;
    std::promise<void> asked;
    std::atomic<bool> ended = false;
    CapabilityDef obedient = capability("obedient");
    obedient.invocationHandler = [&](const runtime::ToolInvocation& invocation) {
        const std::stop_callback onStop(invocation.stopToken, [&] { asked.set_value(); });
        started.set_value();
        test::promised(asked);
        ended = true;
        return json::object();
    };
    running.registry.registerCapability(obedient);
    running.start();
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"requestId", "1"}, {"capabilityId", "obedient"}});
    test::promised(started);

    running.stop();

    EXPECT_TRUE(running.core->detachedTasks()->waitUntilIdle(test::kGenerousLimit));
    EXPECT_TRUE(ended);
}

TEST(ExecutorCore, AfterItsEndTheTableMayChange) {
    RunningCore running(settingsFor("http://127.0.0.1:1"));
    running.core.reset();
    const auto lines = recentLogLines(300);

    running.registry.registerCapability(capability("late"));

    EXPECT_EQ(recentLogLines(300), lines);
}

}  // namespace
}  // namespace qm
