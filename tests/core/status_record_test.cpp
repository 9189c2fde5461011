#include "core/status_record.h"

#include <gtest/gtest.h>

#include "util/json.h"

namespace qm {
namespace {

TEST(ConnectionState, HasTheNamesAndNumbersOfTheProtocol) {
    const std::vector<std::string> names{"NOT_CONFIGURED", "CONNECTING", "CONNECTED",
                                         "DISCONNECTED",   "REJECTED",   "STANDALONE"};
    for (int code = 0; code < 6; ++code) {
        EXPECT_EQ(connectionStateName(static_cast<ConnectionState>(code)), names[static_cast<std::size_t>(code)]);
    }
    EXPECT_STREQ(connectionStateName(static_cast<ConnectionState>(6)), "UNKNOWN");
    EXPECT_STREQ(connectionStateName(static_cast<ConnectionState>(-1)), "UNKNOWN");
}

TEST(StatusRecord, HoldsEveryFact) {
    ExecutorStatus status;
    status.state = ConnectionState::Connected;
    status.settings.nodeId = "node";
    status.settings.name = "box";
    status.settings.mode = "heavy";
    status.settings.executorToken = "secret";
    status.settings.connection = "gateway";
    status.settings.authMode = "account";
    status.settings.accountEmail = "a@b";
    status.capabilityCount = 9;
    status.workspaceCount = 2;

    EXPECT_EQ(statusRecord(status), (json{{"state", "CONNECTED"},
                                          {"agentId", "node"},
                                          {"name", "box"},
                                          {"description", "Quillmarsh native executor"},
                                          {"mode", "HEAVY"},
                                          {"gatewayUrl", "http://127.0.0.1:9090"},
                                          {"version", "3.0.1-native"},
                                          {"connection", "GATEWAY"},
                                          {"authMode", "ACCOUNT"},
                                          {"accountEmail", "a@b"},
                                          {"imageSupported", false},
                                          {"modelCapabilities", json::object()},
                                          {"online", true},
                                          {"configured", true},
                                          {"capabilityCount", 9},
                                          {"workspaceCount", 2},
                                          {"modelSource", "REMOTE_API"},
                                          {"modelConfigured", false},
                                          {"modelName", ""},
                                          {"modelFollowsGateway", false},
                                          {"maxTaskRounds", 0}}));
}

TEST(StatusRecord, IsOnlineWhenConnectedOrStandalone) {
    for (int code = 0; code < 6; ++code) {
        ExecutorStatus status;
        status.state = static_cast<ConnectionState>(code);
        EXPECT_EQ(statusRecord(status)["online"], code == 2 || code == 5) << code;
    }
}

TEST(StatusRecord, IsConfiguredWithATokenOrStandalone) {
    ExecutorStatus status;
    EXPECT_EQ(statusRecord(status)["configured"], false);
    status.settings.executorToken = "t";
    EXPECT_EQ(statusRecord(status)["configured"], true);
    status.settings.executorToken.clear();
    status.settings.connection = "standalone";
    EXPECT_EQ(statusRecord(status)["configured"], true);
}

TEST(StatusRecord, FollowsTheGatewayWithItsTwoModelSources) {
    for (const auto& [source, follows] : std::map<std::string, bool>{
             {"REMOTE_API", false}, {"LOCAL_GGUF", false}, {"GATEWAY_SHARED", true}, {"GATEWAY_ACCOUNT", true}}) {
        ExecutorStatus status;
        status.model.source = source;
        EXPECT_EQ(statusRecord(status)["modelFollowsGateway"], follows) << source;
    }
}

}  // namespace
}  // namespace qm
