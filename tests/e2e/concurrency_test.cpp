// Work that takes long: it delays nothing else, and what comes of it after its session is lost.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"
#include "e2e/slow_workspace.h"

namespace qm::test {
namespace {

using nlohmann::json;

/// An executor with a session and a workspace whose search takes seconds.
class SlowWork : public testing::Test {
protected:
    ExecutorHome home_;
    std::filesystem::path workspace_ = home_.addWorkspace("ws_slow0001");
    GatewayPeer gateway_;
    ExecutorProcess executor_{home_.against(gateway_)};

    SlowWork() {
        makeSlowToSearch(workspace_);
        gateway_.waitForRegister();
    }

    void startSearch(const std::string& requestId, const std::string& idempotencyKey = {}) {
        gateway_.send({{"type", "execute"},
                       {"requestId", requestId},
                       {"capabilityId", "find_files"},
                       {"args", {{"workspace", "ws_slow0001"}, {"pattern", "slow*"}}},
                       {"invocation", {{"idempotencyKey", idempotencyKey}}}});
    }

    ReceivedFrame waitForReply(const std::string& requestId) {
        return gateway_.waitForFrame(
            [&](const ReceivedFrame& frame) { return frame.message.value("requestId", json()) == requestId; },
            std::chrono::seconds(120));
    }
};

TEST_F(SlowWork, TwoSlowRequestsDelayNeitherAThirdNorTheMetrics) {
    startSearch("slow-1");
    startSearch("slow-2");
    const auto time = gateway_.execute("device_time");
    const auto metrics = gateway_.request({{"type", "metricsRequest"}});
    const auto before = gateway_.untakenFrames();

    EXPECT_TRUE(time.contains("utcTime"));
    EXPECT_EQ(metrics.at("type"), "metricsResult");
    EXPECT_TRUE(before.empty()) << "the slow ones were to take longer than the others";
    EXPECT_EQ(waitForReply("slow-1").message.at("result").at("matches").size(), 500U);
    EXPECT_EQ(waitForReply("slow-2").message.at("result").at("truncated"), true);
}

TEST_F(SlowWork, AReplyAfterItsSessionIsLostAndHarmsNothing) {
    startSearch("lost", "key-of-the-lost");
    gateway_.request({{"type", "metricsRequest"}});
    gateway_.drop();
    gateway_.waitForSessions(2);
    gateway_.waitForRegister();

    // The ledger says when the first search has ended: from then on a retry gets its result.
    json result;
    ASSERT_TRUE(waitUntil(
        [&] {
            result = gateway_.execute("find_files", {{"workspace", "ws_slow0001"}, {"pattern", "slow*"}},
                                      {{"idempotencyKey", "key-of-the-lost"}});
            return result.contains("deduplicated");
        },
        std::chrono::seconds(120)));

    EXPECT_EQ(result.at("matches").size(), 500U);
    for (const auto& frame : gateway_.untakenFrames()) {
        EXPECT_NE(frame.message.value("requestId", json()), "lost") << "it must not go out on a newer session";
    }
    EXPECT_TRUE(gateway_.execute("device_time").contains("utcTime"));
}

TEST_F(SlowWork, OfTwoRequestsWithOneKeyOneIsRefusedAtOnceAndTheOtherIsCarriedOut) {
    startSearch("one", "same-key");
    startSearch("other", "same-key");
    const auto ofThePair = [](const ReceivedFrame& frame) {
        return frame.message.value("type", "") == "executeResult";
    };

    const auto early = gateway_.waitForFrame(ofThePair);
    const auto late = gateway_.waitForFrame(ofThePair, std::chrono::seconds(120));

    EXPECT_EQ(
        early.message.at("result"),
        (json{{"error", "This invocation is already executing on this device (duplicate idempotency key same-key)."}}));
    EXPECT_EQ(late.message.at("result").at("matches").size(), 500U);
}

}  // namespace
}  // namespace qm::test
