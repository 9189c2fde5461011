// What the real program does for many commands at once, and what it gives them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;

constexpr char kWorkspace[] = "ws_test0001";

/// Number of processes on this machine whose environment holds `variable`; those that wait to be reaped have none.
std::size_t processesWith(const std::string& variable) {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (!std::all_of(name.begin(), name.end(), [](unsigned char letter) { return std::isdigit(letter) != 0; }))
            continue;
        std::ifstream stream(entry.path() / "environ", std::ios::binary);  // Gone in the meantime, it reads as empty.
        const std::string environment{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        if (environment.find(variable) != std::string::npos) ++count;
    }
    return count;
}

/// Soft and hard limit of descriptors of a process.
std::pair<std::string, std::string> descriptorLimits(pid_t process) {
    std::istringstream lines(readFile("/proc/" + std::to_string(process) + "/limits"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string max, open, files, soft, hard;
        words >> max >> open >> files >> soft >> hard;
        if (open == "open" && files == "files") return {soft, hard};
    }
    return {};
}

class CommandHost : public testing::Test {
protected:
    void start(const ProcessSetup& setup) {
        executor_ = std::make_unique<ExecutorProcess>(setup);
        gateway_.waitForRegister();
    }

    json call(std::string_view capability, json arguments) {
        arguments["workspace"] = kWorkspace;
        return gateway_.execute(capability, std::move(arguments));
    }

    ExecutorHome home_;
    std::filesystem::path workspace_ = home_.addWorkspace(kWorkspace, "FULL");
    GatewayPeer gateway_;
    std::unique_ptr<ExecutorProcess> executor_;
};

TEST_F(CommandHost, AStopWithHundredsOfCommandsWaitersAndStartsInFlightLeavesNoProcessBehind) {
    constexpr std::size_t kCommands = 200;
    constexpr std::size_t kWaiters = 20;
    start(home_.against(gateway_));
    const std::string mark = "QM_COMMAND_OF=" + home_.home().filename().string();
    const json sleepers{{"workspace", kWorkspace},
                        {"command", "sleep 600 & sleep 600"},
                        {"background", true},
                        {"timeoutMs", 600000},
                        {"env", {{"QM_COMMAND_OF", home_.home().filename().string()}}}};
    std::vector<std::string> ids;
    while (ids.size() < kCommands)
        ids.push_back(gateway_.execute("run_command", sleepers).at("commandId"));
    for (std::size_t index = 0; index < kWaiters; ++index) {
        gateway_.send({{"type", "execute"},
                       {"capabilityId", "wait_command"},
                       {"args", {{"commandId", ids[index]}, {"timeoutMs", 600000}}}});
    }
    ASSERT_TRUE(waitUntil([&] { return processesWith(mark) >= 2 * kCommands; })) << processesWith(mark);
    std::atomic<int> started{0};
    std::jthread starter([&](const std::stop_token& stop) {
        try {
            while (!stop.stop_requested()) {
                gateway_.request({{"type", "execute"}, {"capabilityId", "run_command"}, {"args", sleepers}},
                                 std::chrono::seconds(1));
                ++started;
            }
        } catch (const std::runtime_error&) {
            // The program has gone.
        }
    });
    ASSERT_TRUE(waitUntil([&] { return started > 0; }));

    expectOrderlyStop(*executor_);

    EXPECT_TRUE(waitUntil([&] { return processesWith(mark) == 0; })) << processesWith(mark);
}

TEST_F(CommandHost, ItsDescriptorLimitIsRaisedAndItsCommandsGetTheirsBack) {
    start(ExecutorHome::prepared("ulimit -Sn 256", home_.against(gateway_)));

    const auto [soft, hard] = descriptorLimits(executor_->pid());

    EXPECT_EQ(soft, hard);
    EXPECT_NE(soft, "256");
    EXPECT_EQ(call("run_command", {{"command", "ulimit -Sn; ulimit -Hn"}}).at("stdout"), "256\n" + hard + "\n");
}

TEST_F(CommandHost, WhatASandboxCanEnforceIsLoggedOnce) {
    start(home_.against(gateway_));
    call("run_command", {{"command", "true"}, {"sandbox", "WORKSPACE"}});
    expectOrderlyStop(*executor_);

    const std::string output = executor_->output();
    const auto first = output.find(" sandbox support: {\"detail\":\"");
    ASSERT_NE(first, std::string::npos) << output;
    EXPECT_EQ(output.find("sandbox support: ", first + 2), std::string::npos) << output;
}

TEST_F(CommandHost, OutputThatOnlyHasTheShapeOfUtf8IsSentWithReplacementCharacters) {
    start(home_.against(gateway_));

    // A surrogate, an overlong form, and a number beyond the last plane.
    const auto result = call("run_command", {{"command", R"(printf '\355\240\200\340\200\200\364\220\200\200.')"}});

    EXPECT_THAT(result.at("stdout").get<std::string>(), testing::MatchesRegex("(\xEF\xBF\xBD)+\\."));
    EXPECT_EQ(result.at("nextOffsetBytes"), 11);
}

}  // namespace
}  // namespace qm::test
