// What the program finds when it is started, and what it says of it: descriptors, limits, the data directory.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

TEST(Start, SaysTheVersionTheDataDirectoryAndTheIdentity) {
    const ExecutorHome home;
    home.writeDataFile("instance-id", "0a1b2c3d-0000-4000-8000-0123456789ab");
    ExecutorProcess executor(home.setup({"--serve"}));
    executor.waitForOutput("0123456789ab\n");

    EXPECT_THAT(
        executor.output(),
        testing::ContainsRegex("^\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] INFO  qm-executor 3\\.0\\.1-native starting: "
                               "data directory=" +
                               home.dataDirectory().string() + ", agentId=0a1b2c3d-0000-4000-8000-0123456789ab\n"));
    expectOrderlyStop(executor);
    EXPECT_THAT(executor.output(), Not(HasSubstr("data directory is not writable")));
}

TEST(Start, WarnsOfADataDirectoryThatCantBeWrittenAndGoesOn) {
    const ExecutorHome home;
    writeFile(home.home() / "file", "");
    const auto dataDirectory = (home.home() / "file" / "data").string();
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway, {"--data-dir", dataDirectory}));
    gateway.waitForRegister();

    EXPECT_THAT(executor.output(),
                ContainsRegex("\n\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] WARN  data directory is not writable, nothing will "
                              "be kept: " +
                              dataDirectory + "\n"));
    expectOrderlyStop(executor);
}

TEST(Start, WithoutStandardDescriptorsTheProgramServesAllTheSame) {
    ExecutorHome home;
    home.addWorkspace("ws_start001", "EXECUTE");
    GatewayPeer gateway;
    ExecutorProcess executor(ExecutorHome::prepared("exec 0<&- 1>&- 2>&-", home.against(gateway)));
    gateway.waitForRegister();

    for (const auto* descriptor : {"0", "1", "2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(executor.pid()) + "/fd/" + descriptor),
                  "/dev/null");
    }
    const auto result = gateway.execute("run_command", {{"workspace", "ws_start001"}, {"command", "echo out; cat"}});
    EXPECT_EQ(result.value("exitCode", -1), 0) << result;
    EXPECT_THAT(result.dump(), HasSubstr("out"));
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime"));
    expectOrderlyStop(executor);
}

TEST(Start, AFileThatMayNotGrowIsAnErrorAndNotTheEnd) {
    ExecutorHome home;
    const auto workspace = home.addWorkspace("ws_start001", "EXECUTE");
    GatewayPeer gateway;
    // 2048 blocks of 512 bytes.
    ExecutorProcess executor(ExecutorHome::prepared("ulimit -f 2048", home.against(gateway)));
    gateway.waitForRegister();

    const auto result = gateway.execute(
        "write_file",
        {{"workspace", "ws_start001"}, {"path", "large"}, {"content", std::string(std::size_t{2} << 20, 'x')}});
    EXPECT_THAT(result.value("error", ""), HasSubstr("写入失败")) << result;

    // A child has the usual course of the signal back: the limit ends it.
    const auto child = gateway.execute(
        "run_command", {{"workspace", "ws_start001"}, {"command", "head -c 2097152 /dev/zero >of-the-child"}});
    EXPECT_EQ(child.value("exitCode", -1), 128 + SIGXFSZ) << child;
    EXPECT_TRUE(gateway.execute("device_time").contains("utcTime"));
    expectOrderlyStop(executor);
}

}  // namespace
}  // namespace qm::test
