// What the executor says of itself on a new session, and the heartbeat that follows.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::MatchesRegex;

std::vector<std::string> keysOf(const json& object) {
    std::vector<std::string> keys;
    for (const auto& [key, value] : object.items()) {
        keys.push_back(key);
    }
    return keys;
}

json capability(const json& message, const std::string& id) {
    for (const auto& entry : message.at("capabilities")) {
        if (entry.at("capabilityId") == id) return entry;
    }
    return nullptr;
}

TEST(Registration, DamagedElementsOfTheTableOfWorkspacesKeepNeitherTheProgramNorTheOthersOut) {
    ExecutorHome home;
    home.addWorkspace("ws_sound001");
    json table = json::parse(home.dataFile("workspaces.json"));
    table.at("workspaces").insert(table.at("workspaces").begin(), {5, {{"id", 7}}});
    home.writeDataFile("workspaces.json", table.dump());
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    const auto listed = gateway.execute("list_workspaces").at("workspaces");

    EXPECT_EQ(listed, json::parse(R"([{"workspace": "ws_sound001", "label": "label of ws_sound001",
                                       "permission": "READ_WRITE"}])"));
}

TEST(Registration, IsTheFirstMessageAndDescribesTheDevice) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway, {"--name", "Ünï box", "--description", "a test's device"}));

    const auto frame = gateway.waitForFrame([](const ReceivedFrame&) { return true; });

    const json& message = frame.message;
    EXPECT_THAT(keysOf(message), testing::UnorderedElementsAre("type", "agentId", "name", "description", "version",
                                                               "url", "mode", "modelSource", "maxTaskRounds",
                                                               "protocolFeatures", "capabilities", "extensions"));
    EXPECT_EQ(message.at("type"), "register");
    EXPECT_EQ(message.at("agentId"), home.dataFile("instance-id"));
    EXPECT_EQ(message.at("name"), "Ünï box");
    EXPECT_EQ(message.at("description"), "a test's device");
    EXPECT_EQ(message.at("version"), "3.0.1-native");
    EXPECT_EQ(message.at("url"), "");
    EXPECT_EQ(message.at("mode"), "LIGHT");
    EXPECT_EQ(message.at("modelSource"), "REMOTE_API");
    EXPECT_EQ(message.at("maxTaskRounds"), 0);
    EXPECT_EQ(message.at("extensions"), json::array());
    EXPECT_EQ(message.at("protocolFeatures"),
              json({"capability-policy-v1", "model-generate-v1", "process-plugin-v2", "device-extensions-v1",
                    "app-market-v1", "local-market-v1", "agent-runtime-v1", "agent-runtime-v2"}));
    executor.waitForOutput("connected & registered: agentId=" + message.at("agentId").get<std::string>() +
                           ", mode=LIGHT, capabilities=" + std::to_string(message.at("capabilities").size()) + "\n");
}

TEST(Registration, ModeHeavyAddsAFeatureAtTheEnd) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway, {"--mode", "heavy"}));

    const auto message = gateway.waitForRegister();

    EXPECT_EQ(message.at("mode"), "HEAVY");
    EXPECT_EQ(message.at("protocolFeatures").size(), 9U);
    EXPECT_EQ(message.at("protocolFeatures").back(), "model-input-parts-v1");
}

TEST(Registration, EveryCapabilityHasItsWholeDefinition) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));

    const auto message = gateway.waitForRegister();

    std::set<std::string> ids;
    for (const auto& entry : message.at("capabilities")) {
        EXPECT_THAT(keysOf(entry),
                    testing::UnorderedElementsAre("capabilityId", "name", "displayName", "description", "scope",
                                                  "effect", "parameters", "outputSchema", "sourceType", "sourceId",
                                                  "sourceName", "sourceCapabilityName", "definitionVersion"));
        EXPECT_EQ(entry.at("capabilityId"), entry.at("name"));
        EXPECT_TRUE(ids.insert(entry.at("name")).second) << entry.at("name") << " stands there twice";
    }
    for (const auto* name : {"system_info", "device_time", "list_workspaces", "list_directory", "read_file",
                             "write_file", "make_directory", "stat_path", "find_files"}) {
        EXPECT_TRUE(ids.contains(name)) << name;
    }
    EXPECT_EQ(capability(message, "system_info"),
              json({{"capabilityId", "system_info"},
                    {"name", "system_info"},
                    {"displayName", "系统信息"},
                    {"description",
                     "Report this device's operating system, CPU cores, memory and executor runtime information."},
                    {"scope", "DEVICE"},
                    {"effect", "READ_ONLY"},
                    {"parameters", {{"type", "object"}, {"properties", json::object()}}},
                    {"outputSchema", json::object()},
                    {"sourceType", "NATIVE"},
                    {"sourceId", "native"},
                    {"sourceName", "Native capabilities"},
                    {"sourceCapabilityName", ""},
                    {"definitionVersion", "v1-native"}}));
    const auto writeFile = capability(message, "write_file");
    EXPECT_EQ(writeFile.at("effect"), "WRITE");
    EXPECT_EQ(writeFile.at("parameters").at("required"), json({"workspace", "path", "content"}));
}

TEST(Registration, TheTokenGoesInTheHeaderAndNowhereElse) {
    const ExecutorHome home;
    GatewayPeer gateway({.token = kToken});
    ExecutorProcess executor(home.against(gateway));

    const auto frame = gateway.waitForType("register");

    EXPECT_THAT(frame.text, testing::Not(HasSubstr(kToken)));
    const auto request = gateway.handshakes().at(0);
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/ws/executor");
    EXPECT_EQ(request.header("X-Executor-Token"), kToken);
    EXPECT_EQ(request.header("Host"), "127.0.0.1:" + std::to_string(gateway.port()));
    EXPECT_EQ(request.header("Upgrade"), "websocket");
    EXPECT_EQ(request.header("Connection"), "Upgrade");
    EXPECT_EQ(request.header("Sec-WebSocket-Version"), "13");
    EXPECT_EQ(request.headers.size(), 6U);
    EXPECT_THAT(executor.output(), testing::Not(HasSubstr(kToken))) << "the log must not hold the token";
}

TEST(Registration, AGatewayBelowAPathIsServedThere) {
    const ExecutorHome home;
    GatewayPeer gateway({.basePath = "/some/gateway"});
    ExecutorProcess executor(home.against(gateway));

    gateway.waitForRegister();

    EXPECT_EQ(gateway.handshakes().at(0).target, "/some/gateway/ws/executor");
    executor.waitForOutput("connecting to gateway: " + gateway.url() + "/ws/executor\n");
}

TEST(Registration, TheIdentitySurvivesARestart) {
    const ExecutorHome home;
    GatewayPeer gateway;
    json first;
    {
        ExecutorProcess executor(home.against(gateway));
        first = gateway.waitForRegister().at("agentId");
        expectOrderlyStop(executor);
    }
    ExecutorProcess executor(home.against(gateway));
    EXPECT_EQ(gateway.waitForRegister().at("agentId"), first);
}

TEST(Heartbeat, ComesEvery10SecondsWithNothingButItsType) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    const auto registered = gateway.waitForType("register");

    const auto first = gateway.waitForType("heartbeat", std::chrono::seconds(30));
    const auto second = gateway.waitForType("heartbeat", std::chrono::seconds(30));

    EXPECT_EQ(first.text, R"({"type":"heartbeat"})");
    EXPECT_GE(first.at - registered.at, std::chrono::milliseconds(9500));
    EXPECT_LE(first.at - registered.at, std::chrono::seconds(15));
    EXPECT_GE(second.at - first.at, std::chrono::milliseconds(9000));
    EXPECT_LE(second.at - first.at, std::chrono::seconds(15));
}

TEST(Log, EveryLineHasItsTimeAndLevel) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    executor.waitForOutput("connected & registered");

    std::istringstream lines(executor.output());
    std::string line;
    std::getline(lines, line);

    EXPECT_THAT(line, MatchesRegex("\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] INFO  .*"));
    EXPECT_THAT(line, HasSubstr("3.0.1-native"));
    EXPECT_THAT(line, HasSubstr(home.dataDirectory().string()));
    EXPECT_THAT(line, HasSubstr(home.dataFile("instance-id")));
    while (std::getline(lines, line)) {
        EXPECT_THAT(line, MatchesRegex("\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] (DEBUG|INFO |WARN |ERROR) .*"));
    }
    EXPECT_EQ(executor.errorOutput(), "");
}

TEST(Log, ADataDirectoryThatCantBeWrittenToIsSaidAndTheSessionComesUp) {
    const ExecutorHome home;
    writeFile(home.home() / "file", "");
    GatewayPeer gateway;
    const auto dataDirectory = (home.home() / "file" / "data").string();

    ExecutorProcess executor(home.against(gateway, {"--data-dir", dataDirectory}));

    EXPECT_FALSE(gateway.waitForRegister().at("agentId").get<std::string>().empty());
    EXPECT_THAT(executor.output(), testing::ContainsRegex("WARN  [^\n]*" + dataDirectory));
    expectOrderlyStop(executor);
}

}  // namespace
}  // namespace qm::test
