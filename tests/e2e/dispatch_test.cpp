// Every frame type that the gateway may send, and what comes back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

/// An executor with one workspace and a session.
class Dispatch : public testing::Test {
protected:
    ExecutorHome home_;
    std::filesystem::path workspace_ = home_.addWorkspace("ws_test0001");
    GatewayPeer gateway_;
    ExecutorProcess executor_{home_.against(gateway_)};

    Dispatch() { gateway_.waitForRegister(); }

    /// What the gateway gets back for `message`, without the id that the request was given.
    json replyTo(json message) {
        auto reply = gateway_.request(std::move(message));
        reply.erase("requestId");
        return reply;
    }

    /// Fails if a message came that nobody asked for. A request is answered after everything before it was handled.
    void expectNothingElseSent() {
        replyTo({{"type", "validateCapabilityArgs"}});
        EXPECT_TRUE(gateway_.untakenFrames().empty());
    }
};

TEST_F(Dispatch, ExecuteAnswersWithTheCapabilitysResult) {
    writeFile(workspace_ / "hello.txt", "hello");

    const auto reply = replyTo({{"type", "execute"},
                                {"capabilityId", "read_file"},
                                {"args", {{"workspace", "ws_test0001"}, {"path", "hello.txt"}}}});

    EXPECT_EQ(reply, (json{{"type", "executeResult"},
                           {"result",
                            {{"path", "hello.txt"},
                             {"content", "hello"},
                             {"sanitized", false},
                             {"bytesRead", 5},
                             {"totalBytes", 5},
                             {"truncated", false},
                             {"nextOffsetBytes", 5}}}}));
}

TEST_F(Dispatch, ExecuteTakesCapabilityWhereTheIdIsMissingOrNoString) {
    EXPECT_TRUE(replyTo({{"type", "execute"}, {"capability", "device_time"}}).at("result").contains("utcTime"));
    EXPECT_TRUE(replyTo({{"type", "execute"}, {"capabilityId", 7}, {"capability", "device_time"}})
                    .at("result")
                    .contains("utcTime"));
    EXPECT_EQ(replyTo({{"type", "execute"}, {"capabilityId", "first"}, {"capability", "device_time"}})
                  .at("result")
                  .at("error"),
              "Unknown capability: first");
}

TEST_F(Dispatch, ExecuteOfAnUnknownCapabilityIsAResultLikeAnyOther) {
    EXPECT_EQ(replyTo({{"type", "execute"}, {"capabilityId", "fly"}}),
              (json{{"type", "executeResult"},
                    {"result", {{"error", "Unknown capability: fly"}, {"errorCode", "UNKNOWN_CAPABILITY"}}}}));
    EXPECT_EQ(replyTo({{"type", "execute"}}).at("result").at("error"), "Unknown capability: ");
}

TEST_F(Dispatch, ExecuteTakesArgumentsAndInvocationOfAnotherTypeAsMissing) {
    const auto reply =
        replyTo({{"type", "execute"}, {"capabilityId", "device_time"}, {"args", "text"}, {"invocation", 7}});

    EXPECT_TRUE(reply.at("result").contains("utcTime"));
}

TEST_F(Dispatch, AnInvocationOfTheWrongShapeGetsNoReplyAndEndsNothing) {
    const json malformed[] = {{{"idempotencyKey", 7}}, {{"round", "first"}}, {{"workspace", 7}}};
    for (const auto& invocation : malformed) {
        gateway_.send({{"type", "execute"}, {"capabilityId", "device_time"}, {"invocation", invocation}});
    }
    gateway_.send({{"type", "execute"}, {"capabilityId", "device_time"}, {"args", {{"workspace", 7}}}});

    executor_.waitForOutput("ERROR 后台任务 execute 异常已拦截: ", 4);
    EXPECT_TRUE(gateway_.execute("device_time").contains("utcTime"));
    expectNothingElseSent();
}

TEST_F(Dispatch, ExecutePassesTheInvocationToThePipeline) {
    const json arguments{{"path", "a.txt"}, {"content", "x"}};
    EXPECT_EQ(gateway_.execute("write_file", arguments, {{"workspace", "ws_test0001"}, {"access", "read"}}).at("error"),
              "a read-only task cannot invoke a mutating capability");
    EXPECT_EQ(gateway_.execute("device_time", {}, {{"deadlineAtMs", 1}}),
              (json{{"error", "capability deadline expired before execution"}, {"errorCode", "DEADLINE_EXCEEDED"}}));
    EXPECT_EQ(gateway_.execute("write_file", arguments, {{"workspace", {{"id", "ws_test0001"}}}, {"access", "write"}})
                  .at("bytesWritten"),
              1);
}

TEST_F(Dispatch, ARetryWithTheSameKeyDoesTheWorkOnce) {
    const json arguments{{"workspace", "ws_test0001"}, {"path", "log.txt"}, {"content", "line\n"}, {"append", true}};
    const json invocation{{"idempotencyKey", "key-1"}};

    const auto first = gateway_.execute("write_file", arguments, invocation);
    auto second = gateway_.execute("write_file", arguments, invocation);

    EXPECT_EQ(second.at("deduplicated"), true);
    second.erase("deduplicated");
    EXPECT_EQ(second, first);
    EXPECT_EQ(readFile(workspace_ / "log.txt"), "line\n");
}

TEST_F(Dispatch, NothingLeavesAWorkspace) {
    writeFile(home_.home() / "outside.txt", "secret");
    std::filesystem::create_symlink(home_.home(), workspace_ / "link");
    const auto errorFor = [this](const char* path) {
        return gateway_.execute("read_file", {{"workspace", "ws_test0001"}, {"path", path}}).value("error", "");
    };

    EXPECT_EQ(errorFor("../outside.txt"), "路径不允许包含 `..`。");
    EXPECT_EQ(errorFor("/etc/passwd"), "只接受工作区内的相对路径，不允许宿主机绝对路径。");
    EXPECT_EQ(errorFor("link/outside.txt"), "路径逃逸出工作区，已拒绝。");
}

TEST_F(Dispatch, AWorkspaceIsNamedByItsHandleOnly) {
    EXPECT_EQ(
        gateway_.execute("list_workspaces"),
        (json{{"workspaces",
               {{{"workspace", "ws_test0001"}, {"label", "label of ws_test0001"}, {"permission", "READ_WRITE"}}}}}));
}

TEST_F(Dispatch, ResolutionToolsArentSupported) {
    EXPECT_EQ(replyTo({{"type", "resolutionToolExecute"}, {"capabilityId", "read_file"}}),
              (json{{"type", "resolutionToolResult"},
                    {"result", {{"error", "Capability does not support resolution: read_file"}}}}));
}

TEST_F(Dispatch, ArgumentsAreNeverValid) {
    EXPECT_EQ(replyTo({{"type", "validateCapabilityArgs"}, {"capabilityId", "read_file"}}),
              (json{{"type", "validateCapabilityArgsResult"},
                    {"validation",
                     {{"valid", false},
                      {"code", "CANONICAL_SEMANTIC_INVALID"},
                      {"message", "Capability does not support resolution: read_file"}}}}));
}

TEST_F(Dispatch, MetricsAreASnapshotOfTheDevice) {
    const auto reply = replyTo({{"type", "metricsRequest"}});

    EXPECT_EQ(reply.at("type"), "metricsResult");
    const json& data = reply.at("data");
    EXPECT_EQ(data.at("node").at("nodeId"), home_.dataFile("instance-id"));
    EXPECT_EQ(data.at("node").at("version"), "3.0.1-native");
    EXPECT_EQ(data.at("cpu").at("systemLoadPct"), 0) << "the first request has nothing to compare with";
    EXPECT_EQ(data.at("cpu").at("processLoadPct"), 0);
    EXPECT_GE(data.at("cpu").at("cores"), 1);
    EXPECT_GT(data.at("memory").at("totalBytes"), data.at("memory").at("usedBytes"));
    EXPECT_GT(data.at("memory").at("jvmHeapUsedBytes"), 1 << 20);
    EXPECT_EQ(data.at("memory").at("jvmHeapMaxBytes"), data.at("memory").at("totalBytes"));
    EXPECT_GT(data.at("disk").at("totalBytes"), 0);
    EXPECT_THAT(data.at("capabilities"), testing::Contains(json("read_file")));
    EXPECT_GE(data.at("uptimeMs"), 0);
    EXPECT_GT(data.at("timestamp"), 1600000000000);

    const auto load = replyTo({{"type", "metricsRequest"}}).at("data").at("cpu");
    EXPECT_LE(load.at("systemLoadPct"), 100.0);
    EXPECT_LE(load.at("processLoadPct"), 100.0);
}

TEST_F(Dispatch, APolicyReplacesTheSetOfDisabledCapabilities) {
    gateway_.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"device_time", 7, "system_info"}}});
    executor_.waitForOutput("INFO  capability policy synchronized: 2 disabled\n");
    EXPECT_EQ(gateway_.execute("device_time"),
              (json{{"error", "Capability is disabled by the control plane"}, {"errorCode", "CAPABILITY_DISABLED"}}));

    gateway_.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", {"system_info"}}});
    executor_.waitForOutput("INFO  capability policy synchronized: 1 disabled\n");
    EXPECT_TRUE(gateway_.execute("device_time").contains("utcTime"));
    EXPECT_TRUE(gateway_.execute("system_info").contains("error"));

    gateway_.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", json::array()}});
    executor_.waitForOutput("INFO  capability policy synchronized: 0 disabled\n");
    EXPECT_TRUE(gateway_.execute("system_info").contains("os"));
    expectNothingElseSent();
}

TEST_F(Dispatch, APolicySyncWithoutAListChangesNothing) {
    replyTo({{"type", "capabilityPolicyUpdate"}, {"capabilityId", "device_time"}, {"enabled", false}});

    gateway_.send({{"type", "capabilityPolicySync"}});
    gateway_.send({{"type", "capabilityPolicySync"}, {"disabledCapabilityIds", "device_time"}});

    EXPECT_EQ(gateway_.execute("device_time").at("errorCode"), "CAPABILITY_DISABLED");
    expectNothingElseSent();
}

TEST_F(Dispatch, APolicyUpdateDisablesAndEnablesOneCapability) {
    const auto update = [this](json message) {
        message["type"] = "capabilityPolicyUpdate";
        message["capabilityId"] = "device_time";
        const auto reply = replyTo(message);
        EXPECT_EQ(reply.at("type"), "capabilityPolicyAck");
        return reply.at("data");
    };

    EXPECT_EQ(update({{"enabled", false}}), (json{{"ok", true}, {"capabilityId", "device_time"}, {"enabled", false}}));
    EXPECT_EQ(gateway_.execute("device_time").at("errorCode"), "CAPABILITY_DISABLED");
    EXPECT_EQ(update({{"enabled", true}}), (json{{"ok", true}, {"capabilityId", "device_time"}, {"enabled", true}}));
    EXPECT_TRUE(gateway_.execute("device_time").contains("utcTime"));
    update({{"enabled", false}});
    EXPECT_EQ(update(json::object()).at("enabled"), true) << "absent counts as true";
    update({{"enabled", false}});
    EXPECT_EQ(update({{"enabled", "no"}}).at("enabled"), true) << "another type counts as absent";
    expectNothingElseSent();
}

TEST_F(Dispatch, APolicyUpdateNeedsACapability) {
    const json refusal{{"type", "capabilityPolicyAck"},
                       {"data", {{"ok", false}, {"error", "capabilityId must not be blank"}}}};
    EXPECT_EQ(replyTo({{"type", "capabilityPolicyUpdate"}, {"capabilityId", " \t "}, {"enabled", false}}), refusal);
    EXPECT_EQ(replyTo({{"type", "capabilityPolicyUpdate"}, {"capabilityId", ""}}), refusal);
    EXPECT_EQ(replyTo({{"type", "capabilityPolicyUpdate"}}), refusal);
    EXPECT_EQ(replyTo({{"type", "capabilityPolicyUpdate"}, {"capabilityId", 7}}), refusal);
}

TEST_F(Dispatch, JarPluginsAreRefused) {
    for (const auto* type : {"installPlugin", "installPluginStart", "installPluginChunk", "installPluginCommit"}) {
        EXPECT_EQ(replyTo({{"type", type}}),
                  (json{{"type", "installPluginAck"},
                        {"data",
                         {{"ok", false},
                          {"error",
                           "JAR plugins are not supported by the native executor; the new plugin system arrives with "
                           "Plugin API v2"}}}}))
            << type;
    }
}

TEST_F(Dispatch, TheModelFolderCantBeOpened) {
    EXPECT_EQ(replyTo({{"type", "openModelFolder"}}),
              (json{{"type", "folderOpenResult"},
                    {"data", {{"ok", false}, {"error", "private model folders arrive with the GGUF runtime (M2b)"}}}}));
}

TEST_F(Dispatch, AnUnknownTypeIsLoggedAndNothingIsSent) {
    gateway_.send({{"type", "makeCoffee"}, {"requestId", "coffee"}});
    gateway_.send({{"type", "Execute"}, {"requestId", "case matters"}});
    gateway_.send({{"requestId", "no type"}});
    gateway_.send({{"type", 7}, {"requestId", "no string"}});

    executor_.waitForOutput("DEBUG unknown command type: makeCoffee\n");
    executor_.waitForOutput("DEBUG unknown command type: Execute\n");
    executor_.waitForOutput("DEBUG unknown command type: \n", 2);
    expectNothingElseSent();
    EXPECT_EQ(gateway_.sessionCount(), 1U);
}

TEST_F(Dispatch, TypesWhoseServiceThisBuildLacksAreUnknown) {
    const std::vector<std::string> types{
        "configUpdate", "installAppStart", "installAppChunk", "installAppCommit",    "agentCommand",      "agentEvents",
        "taskRun",      "delegatedTask",   "modelGenerate",   "modelCatalogRequest", "gatewayModelResult"};
    for (const auto& type : types) {
        gateway_.send({{"type", type}, {"requestId", type}});
        executor_.waitForOutput("DEBUG unknown command type: " + type + "\n");
    }
    expectNothingElseSent();
}

TEST_F(Dispatch, ARequestIdComesBackUnchangedAndAMissingOneCountsAsEmpty) {
    const auto replyWithId = [this](const json& message, const json& id) {
        gateway_.send(message);
        return gateway_.waitForFrame(
            [&](const ReceivedFrame& frame) { return frame.message.value("requestId", json()) == id; });
    };

    const std::string odd = "  \xC3\xBC\xE4\xBD\xA0 \"\\\n\t{}";
    replyWithId({{"type", "resolutionToolExecute"}, {"requestId", odd}}, odd);
    replyWithId({{"type", "resolutionToolExecute"}}, "");
    replyWithId({{"type", "resolutionToolExecute"}, {"requestId", 7}}, "");
    replyWithId({{"type", "metricsRequest"}, {"requestId", json::object()}}, "");
    replyWithId({{"type", "execute"}, {"requestId", nullptr}, {"capabilityId", "device_time"}}, "");
}

TEST_F(Dispatch, AReplyComesEvenForCharactersThatUnicodeDoesNotHave) {
    // A surrogate half, and a number beyond the last plane: both have the shape of UTF-8.
    writeFile(workspace_ / "odd.txt", "a\xED\xA0\x80z \xF4\x90\x80\x80.");

    const auto result = gateway_.execute("read_file", {{"workspace", "ws_test0001"}, {"path", "odd.txt"}});

    const std::string content = result.at("content");
    EXPECT_THAT(content, testing::MatchesRegex("a(\xEF\xBF\xBD)+z (\xEF\xBF\xBD)+\\."));
    EXPECT_EQ(result.at("totalBytes"), 11);
    EXPECT_EQ(result.at("sanitized"), false) << "the reply, not the file, is what has no place for them";
}

TEST_F(Dispatch, AReplyComesEvenIfItsTextIsNoUtf8) {
    writeFile(workspace_ / "name-\xFF.txt", "");

    const auto result = gateway_.execute("list_directory", {{"workspace", "ws_test0001"}});

    EXPECT_EQ(result.at("entries").at(0).at("name"), "name-\xEF\xBF\xBD.txt");
}

}  // namespace
}  // namespace qm::test
