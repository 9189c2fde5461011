#include "core/gateway_dispatch.h"

#include <gtest/gtest.h>

#include <future>

#include "core/running_core.h"
#include "support/gateway_peer.h"
#include "util/log.h"

namespace qm {
namespace {

using test::GatewayPeer;
using test::RunningCore;

/// A core with a session on a gateway, and some capabilities.
class GatewayDispatch : public ::testing::Test {
protected:
    GatewayDispatch() {
        CapabilityDef echo;
        echo.name = "echo";
        echo.effect = "READ_ONLY";
        echo.handler = [](const json& arguments) { return json{{"arguments", arguments}}; };
        running.registry.registerCapability(echo);
        CapabilityDef broken;
        broken.name = "broken";
        broken.handler = [](const json&) -> json { throw std::runtime_error("out of order"); };
        running.registry.registerCapability(broken);
        running.start();
        gateway.waitForRegister();
    }

    /// Passes when the session still answers, and nothing came before the answer.
    void expectSilenceAndALivingSession() {
        EXPECT_EQ(gateway.request({{"type", "openModelFolder"}})["type"], "folderOpenResult");
        EXPECT_TRUE(gateway.untakenFrames().empty());
    }

    static bool logged(std::string_view text) {
        for (const std::string& line : recentLogLines(300)) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }

    GatewayPeer gateway;
    RunningCore running{test::settingsFor(gateway.url())};
};

TEST_F(GatewayDispatch, ExecuteAnswersWithTheResult) {
    const json reply = gateway.request({{"type", "execute"}, {"capabilityId", "echo"}, {"args", {{"a", 1}}}});

    EXPECT_EQ(reply["type"], "executeResult");
    EXPECT_EQ(reply["result"], (json{{"arguments", {{"a", 1}}}}));
    EXPECT_EQ(reply.size(), 3U);
}

TEST_F(GatewayDispatch, ExecuteTakesTheNameFromCapabilityToo) {
    const json result = {{"arguments", json::object()}};
    EXPECT_EQ(gateway.request({{"type", "execute"}, {"capability", "echo"}})["result"], result);
    EXPECT_EQ(gateway.request({{"type", "execute"}, {"capabilityId", 7}, {"capability", "echo"}})["result"], result);
    const json both = gateway.request({{"type", "execute"}, {"capabilityId", "nope"}, {"capability", "echo"}});
    EXPECT_EQ(both["result"]["error"], "Unknown capability: nope");
    const json none = gateway.request({{"type", "execute"}});
    EXPECT_EQ(none["result"]["error"], "Unknown capability: ");
}

TEST_F(GatewayDispatch, ExecuteReadsArgumentsOfAnotherTypeAsNone) {
    for (const json& other : {json(nullptr), json(5), json("x"), json::array({1})}) {
        const json reply =
            gateway.request({{"type", "execute"}, {"capabilityId", "echo"}, {"args", other}, {"invocation", other}});
        EXPECT_EQ(reply["result"]["arguments"], json::object()) << other;
    }
}

TEST_F(GatewayDispatch, ExecuteCarriesTheInvocation) {
    const json message = {{"type", "execute"}, {"capabilityId", "echo"}, {"invocation", {{"idempotencyKey", "k"}}}};

    EXPECT_FALSE(gateway.request(message)["result"].contains("deduplicated"));
    EXPECT_EQ(gateway.request(message)["result"]["deduplicated"], true);
}

TEST_F(GatewayDispatch, AFailedCapabilityIsAResultToo) {
    EXPECT_EQ(gateway.execute("broken"), (json{{"error", "out of order"}}));
}

TEST_F(GatewayDispatch, AnExceptionThatIsNoResultLeavesALineAndNoReply) {
    gateway.send({{"type", "execute"}, {"requestId", "r"}, {"capabilityId", "echo"}, {"args", {{"workspace", 5}}}});

    EXPECT_TRUE(test::waitUntil([] { return logged("ERROR 后台任务 execute 异常已拦截: "); }));
    expectSilenceAndALivingSession();
}

TEST_F(GatewayDispatch, CopiesTheRequestIdUnchanged) {
    gateway.send({{"type", "openModelFolder"}, {"requestId", "ä \"quoted\" id"}});
    EXPECT_EQ(gateway.waitForType("folderOpenResult").message["requestId"], "ä \"quoted\" id");
    gateway.send({{"type", "openModelFolder"}});
    EXPECT_EQ(gateway.waitForType("folderOpenResult").message["requestId"], "");
    gateway.send({{"type", "openModelFolder"}, {"requestId", 12}});
    EXPECT_EQ(gateway.waitForType("folderOpenResult").message["requestId"], "");
}

TEST_F(GatewayDispatch, RefusesResolutionAndValidation) {
    const json resolution = gateway.request({{"type", "resolutionToolExecute"}, {"capabilityId", "echo"}});
    EXPECT_EQ(resolution["type"], "resolutionToolResult");
    EXPECT_EQ(resolution["result"], (json{{"error", "Capability does not support resolution: echo"}}));

    const json validation = gateway.request({{"type", "validateCapabilityArgs"}, {"capabilityId", "echo"}});
    EXPECT_EQ(validation["type"], "validateCapabilityArgsResult");
    EXPECT_EQ(validation["validation"], (json{{"valid", false},
                                              {"code", "CANONICAL_SEMANTIC_INVALID"},
                                              {"message", "Capability does not support resolution: echo"}}));
}

TEST_F(GatewayDispatch, AnswersMetrics) {
    const json reply = gateway.request({{"type", "metricsRequest"}});

    EXPECT_EQ(reply["type"], "metricsResult");
    EXPECT_EQ(reply["data"]["node"]["nodeId"], "node");
    EXPECT_EQ(reply["data"]["cpu"]["systemLoadPct"], 0);
    EXPECT_EQ(reply["data"]["capabilities"], (json{"echo", "broken"}));
}

TEST_F(GatewayDispatch, RefusesJarPlugins) {
    for (const char* type : {"installPlugin", "installPluginStart", "installPluginChunk", "installPluginCommit"}) {
        const json reply = gateway.request({{"type", type}});
        EXPECT_EQ(reply["type"], "installPluginAck");
        EXPECT_EQ(reply["data"], (json{{"ok", false},
                                       {"error",
                                        "JAR plugins are not supported by the native executor; the new plugin system "
                                        "arrives with Plugin API v2"}}));
    }
}

TEST_F(GatewayDispatch, HasNoModelFolder) {
    const json reply = gateway.request({{"type", "openModelFolder"}});
    EXPECT_EQ(reply["type"], "folderOpenResult");
    EXPECT_EQ(reply["data"],
              (json{{"ok", false}, {"error", "private model folders arrive with the GGUF runtime (M2b)"}}));
}

TEST_F(GatewayDispatch, APolicySyncReplacesTheWholeSet) {
    gateway.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"echo", 5, nullptr, "other"}}});
    EXPECT_EQ(gateway.execute("echo")["errorCode"], "CAPABILITY_DISABLED");
    EXPECT_TRUE(logged("INFO  capability policy synchronized: 2 disabled"));

    gateway.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"broken"}}});
    EXPECT_TRUE(gateway.execute("echo").contains("arguments"));
    EXPECT_EQ(gateway.execute("broken")["errorCode"], "CAPABILITY_DISABLED");
}

TEST_F(GatewayDispatch, APolicySyncWithoutAnArrayChangesNothing) {
    gateway.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"echo"}}});
    gateway.send({{"type", "capabilityPolicySync"}});
    gateway.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", "broken"}});

    EXPECT_EQ(gateway.execute("echo")["errorCode"], "CAPABILITY_DISABLED");
    EXPECT_EQ(gateway.execute("broken")["error"], "out of order");
}

TEST_F(GatewayDispatch, APolicyUpdateSwitchesOneCapability) {
    const json off =
        gateway.request({{"type", "capabilityPolicyUpdate"}, {"capabilityId", "echo"}, {"enabled", false}});
    EXPECT_EQ(off["type"], "capabilityPolicyAck");
    EXPECT_EQ(off["data"], (json{{"ok", true}, {"capabilityId", "echo"}, {"enabled", false}}));
    EXPECT_EQ(gateway.execute("echo")["errorCode"], "CAPABILITY_DISABLED");

    const json on = gateway.request({{"type", "capabilityPolicyUpdate"}, {"capabilityId", "echo"}});
    EXPECT_EQ(on["data"]["enabled"], true);
    EXPECT_TRUE(gateway.execute("echo").contains("arguments"));
}

TEST_F(GatewayDispatch, APolicyUpdateNeedsAName) {
    for (const json& id : {json(""), json("  \t"), json(5), json(nullptr)}) {
        const json reply = gateway.request({{"type", "capabilityPolicyUpdate"}, {"capabilityId", id}});
        EXPECT_EQ(reply["data"], (json{{"ok", false}, {"error", "capabilityId must not be blank"}})) << id;
    }
}

TEST_F(GatewayDispatch, AnUnknownTypeLeavesALineAndTheSession) {
    gateway.send({{"type", "makeCoffee"}, {"requestId", "1"}});
    gateway.send({{"requestId", "2"}});
    gateway.send({{"type", 5}});
    expectSilenceAndALivingSession();
    EXPECT_TRUE(logged("DEBUG unknown command type: makeCoffee"));
}

TEST_F(GatewayDispatch, AFrameThatIsNoObjectIsDroppedWithALine) {
    gateway.sendText("not json");
    gateway.sendText("");
    expectSilenceAndALivingSession();
    EXPECT_TRUE(logged("WARN  bad ws command: [json.exception.parse_error"));
    for (const char* text : {"[]", "5", "null", "\"execute\""})
        gateway.sendText(text);
    expectSilenceAndALivingSession();
    EXPECT_TRUE(logged("WARN  bad ws command: the frame is not a JSON object"));
}

TEST_F(GatewayDispatch, AFrameThatNestsTooDeeplyIsDroppedWithALine) {
    const std::string deep(200000, '[');
    gateway.sendText(R"({"type":"execute","capabilityId":"echo","args":{"x":)" + deep + std::string(200000, ']') +
                     "}}");
    expectSilenceAndALivingSession();
    EXPECT_TRUE(logged("WARN  bad ws command: JSON is nested too deeply"));
}

TEST_F(GatewayDispatch, AnswersEvenWithTextThatIsNoUtf8) {
    CapabilityDef raw;
    raw.name = "raw";
    raw.handler = [](const json&) { return json{{"text", "bad \xFF byte"}}; };
    running.registry.registerCapability(raw);

    EXPECT_EQ(gateway.execute("raw")["text"], "bad \xEF\xBF\xBD byte");
}

TEST_F(GatewayDispatch, SlowWorkDelaysNobody) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    CapabilityDef slow;
    slow.name = "slow";
    slow.handler = [released](const json&) {
        released.wait();
        return json{{"done", true}};
    };
    running.registry.registerCapability(slow);
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"requestId", "slow 1"}, {"capabilityId", "slow"}});
    gateway.send({{"type", "execute"}, {"requestId", "slow 2"}, {"capabilityId", "slow"}});

    EXPECT_EQ(gateway.request({{"type", "metricsRequest"}})["type"], "metricsResult");
    EXPECT_TRUE(gateway.execute("echo").contains("arguments"));
    EXPECT_TRUE(gateway.untakenFrames().empty());

    release.set_value();
    EXPECT_EQ(gateway.waitForType("executeResult").message["result"]["done"], true);
    EXPECT_EQ(gateway.waitForType("executeResult").message["result"]["done"], true);
}

TEST_F(GatewayDispatch, AReplyGoesToTheSessionThatAskedOrNowhere) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    CapabilityDef slow;
    slow.name = "slow";
    slow.handler = [released](const json&) {
        released.wait();
        return json{{"done", true}};
    };
    running.registry.registerCapability(slow);
    gateway.waitForRegister();
    gateway.send({{"type", "execute"}, {"requestId", "old"}, {"capabilityId", "slow"}});
    gateway.request({{"type", "metricsRequest"}});

    running.core->requestReconnect();
    gateway.waitForRegister();
    release.set_value();
    EXPECT_TRUE(running.core->detachedTasks()->waitUntilIdle(test::kGenerousLimit));

    expectSilenceAndALivingSession();
}

}  // namespace
}  // namespace qm
