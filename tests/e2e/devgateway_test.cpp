// The development gateway together with the program: the guided tour, and scripts that hold or fail.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using testing::HasSubstr;

constexpr std::chrono::seconds kTourLimit{120};

/// The development gateway with `arguments`, and an executor that connects to it.
class DevGateway : public testing::Test {
protected:
    ExecutorHome home_;
    std::filesystem::path workspace_ = home_.addWorkspace("ws_demo0001", "EXECUTE");
    const std::filesystem::path portFile_ = home_.home() / "port";
    std::unique_ptr<ExecutorProcess> gateway_;
    std::unique_ptr<ExecutorProcess> executor_;

    void startGateway(std::vector<std::string> arguments) {
        arguments.insert(arguments.end(), {"--port-file", portFile_.string(), "--token", kToken});
        ProcessSetup setup;
        setup.program = QM_DEVGATEWAY_BINARY;
        setup.arguments = std::move(arguments);
        setup.input = ProcessSetup::Input::Pipe;
        gateway_ = std::make_unique<ExecutorProcess>(setup);
        gateway_->waitForOutput("gateway at http://127.0.0.1:");
        ASSERT_TRUE(waitUntil([this] { return std::filesystem::exists(portFile_) && !readFile(portFile_).empty(); }));
    }

    void startExecutor(const std::string& token) {
        auto port = readFile(portFile_);
        port.pop_back();
        auto executor = home_.setup({"--gateway", "http://127.0.0.1:" + port, "--token", token});
        executor.environment["QM_SYNC_HANDOFF_MS"] = "500";
        executor_ = std::make_unique<ExecutorProcess>(executor);
    }

    void start(std::vector<std::string> arguments, const std::string& input = {}) {
        startGateway(std::move(arguments));
        startExecutor(kToken);
        gateway_->type(input);
        gateway_->closeInput();
    }

    ExitStatus runScript(const std::string& script) {
        writeFile(home_.home() / "script", script);
        start({"--script", (home_.home() / "script").string()});
        return gateway_->waitForExit(kTourLimit);
    }
};

TEST_F(DevGateway, TheTourHoldsFromBeginningToEnd) {
    start({"--tour"});

    EXPECT_EQ(gateway_->waitForExit(kTourLimit), ExitStatus{}) << gateway_->output() << gateway_->errorOutput();

    EXPECT_THAT(gateway_->output(), HasSubstr("[15/15]"));
    EXPECT_THAT(gateway_->output(), HasSubstr("The tour is over, and everything was as it should be."));
    EXPECT_EQ(readFile(workspace_ / "hello-from-the-gateway.txt"), "first line\nsecond line\nappended\n");
}

TEST_F(DevGateway, TheTourLeavesThePromptIfItIsToStay) {
    start({"--tour", "--stay"}, "execute device_time\nquit\n");

    EXPECT_EQ(gateway_->waitForExit(kTourLimit), ExitStatus{}) << gateway_->output() << gateway_->errorOutput();

    const auto output = gateway_->output();
    const auto afterTheTour = output.find("The tour is over, and everything was as it should be.");
    ASSERT_NE(afterTheTour, std::string::npos);
    EXPECT_THAT(output.substr(afterTheTour), HasSubstr("Type a command; help shows them all, quit ends."));
    EXPECT_THAT(output.substr(afterTheTour), HasSubstr("  -> execute device_time \n"));
    EXPECT_THAT(output.substr(afterTheTour), HasSubstr("\"utcTime\""));
    EXPECT_EQ(gateway_->errorOutput(), "");
}

TEST_F(DevGateway, AnotherTokenIsRefused) {
    startGateway({});

    startExecutor("another-token");

    gateway_->waitForOutput("  -- refused an executor: 401, the token isn't the expected one\n");
    executor_->waitForOutput("WARN  gateway connection failed: ");
    gateway_->type("quit\n");
    EXPECT_EQ(gateway_->waitForExit(), ExitStatus{});
}

TEST_F(DevGateway, AHeartbeatIsShownAndARejectionEndsTheSession) {
    EXPECT_EQ(runScript("wait register\n"
                        "wait heartbeat\n"
                        "reject no room\n"
                        "wait end\n"),
              ExitStatus{})
        << gateway_->output() << gateway_->errorOutput();

    EXPECT_THAT(gateway_->output(), HasSubstr("  <- heartbeat\n"));
    executor_->waitForOutput("ERROR 网关拒绝注册（60s 后重试）: no room\n");
}

TEST_F(DevGateway, TheTourFailsWithoutAWorkspaceToWriteTo) {
    home_.writeDataFile("workspaces.json", "{}");

    start({"--tour"});

    EXPECT_EQ(gateway_->waitForExit(kTourLimit), ExitStatus{.code = 1});
    EXPECT_THAT(gateway_->errorOutput(), HasSubstr("the tour ends here; this isn't so: there is a workspace"));
}

TEST_F(DevGateway, AScriptWhoseExpectationsHoldEndsWithStatus0) {
    EXPECT_EQ(
        runScript("# what a script can do\n"
                  "wait register\n"
                  "expect /name\n"
                  "execute write_file {\"workspace\": \"ws_demo0001\", \"path\": \"a b.txt\", \"content\": \"x y\"}\n"
                  "expect /result/bytesWritten 3\n"
                  "execute read_file {\"workspace\": \"ws_demo0001\", \"path\": \"a b.txt\"} {\"access\": \"read\"}\n"
                  "expect /result/content \"x y\"\n"
                  "metrics\n"
                  "expect /data/cpu/systemLoadPct 0.0\n"
                  "policy disable device_time\n"
                  "expect /data {\"ok\": true, \"capabilityId\": \"device_time\", \"enabled\": false}\n"
                  "execute device_time\n"
                  "expect /result/errorCode \"CAPABILITY_DISABLED\"\n"
                  "policy sync system_info find_files\n"
                  "execute device_time\n"
                  "expect /result/utcTime\n"
                  "policy enable system_info\n"
                  "validate read_file\n"
                  "expect /validation/valid false\n"
                  "resolve read_file\n"
                  "expect /result/error\n"
                  "request {\"type\": \"installPlugin\"}\n"
                  "expect /data/ok false\n"
                  "raw no json at all\n"
                  "ping hello\n"
                  "close 4000 so long\n"
                  "wait end\n"
                  "wait session\n"
                  "wait register\n"
                  "drop\n"
                  "wait end\n"
                  "quit\n"
                  "this line is never read\n"),
        ExitStatus{})
        << gateway_->output() << gateway_->errorOutput();
    EXPECT_EQ(readFile(workspace_ / "a b.txt"), "x y");
}

TEST_F(DevGateway, AScriptEndsAtTheFirstFailureWithItsLine) {
    EXPECT_EQ(runScript("wait register\nexecute device_time\nexpect /result/nothing\nexecute system_info\n"),
              ExitStatus{.code = 1});
    EXPECT_THAT(gateway_->errorOutput(), HasSubstr("script:3: expected /result/nothing in\n"));
    EXPECT_THAT(gateway_->output(), testing::Not(HasSubstr("system_info {")));
}

TEST_F(DevGateway, AValueThatDiffersFailsTheScript) {
    EXPECT_EQ(runScript("wait register\nexecute fly\nexpect /result/error \"Unknown capability: swim\"\n"),
              ExitStatus{.code = 1});
    EXPECT_THAT(gateway_->errorOutput(), HasSubstr("expected /result/error to be \"Unknown capability: swim\""));
}

TEST_F(DevGateway, ThePromptGoesOnAfterAMistake) {
    start({}, "wait register\nfly\nexecute device_time [\nexecute device_time\nexpect /result/utcTime\nquit\n");

    EXPECT_EQ(gateway_->waitForExit(kTourLimit), ExitStatus{});
    EXPECT_THAT(gateway_->errorOutput(), HasSubstr("unknown command: fly, try: help"));
    EXPECT_THAT(gateway_->errorOutput(), HasSubstr("this is no JSON: ["));
    EXPECT_THAT(gateway_->output(), HasSubstr("/result/utcTime is there"));
}

TEST_F(DevGateway, TheEndOfTheInputEndsThePrompt) {
    start({});

    EXPECT_EQ(gateway_->waitForExit(), ExitStatus{});
}

FinishedRun runGateway(std::vector<std::string> arguments) {
    ProcessSetup setup;
    setup.program = QM_DEVGATEWAY_BINARY;
    setup.arguments = std::move(arguments);
    return ExecutorHome::runToEnd(setup);
}

TEST(DevGatewayOptions, HelpShowsOptionsAndCommands) {
    const auto run = runGateway({"--help"});

    EXPECT_EQ(run.status, ExitStatus{});
    EXPECT_THAT(run.output, testing::StartsWith("usage: qm-devgateway [options]\n"));
    EXPECT_THAT(run.output, HasSubstr("\n  expect <pointer> [<value>]\n"));
}

TEST(DevGatewayOptions, AMistakeIsNamed) {
    const auto expectMistake = [](std::vector<std::string> arguments, const std::string& text) {
        const auto run = runGateway(std::move(arguments));
        EXPECT_EQ(run.status, ExitStatus{.code = 2});
        EXPECT_THAT(run.errorOutput, testing::StartsWith(text + "\n"));
    };
    expectMistake({"--fly"}, "unknown option: --fly");
    expectMistake({"--port"}, "missing value for --port");
    expectMistake({"--port", "65536"}, "no port: 65536");
    expectMistake({"--port", "-1"}, "no port: -1");
}

TEST(DevGatewayOptions, AScriptThatIsntThereIsAFailure) {
    const auto run = runGateway({"--script", "/no/such/script"});

    EXPECT_EQ(run.status, ExitStatus{.code = 1});
    EXPECT_EQ(run.errorOutput, "cannot read /no/such/script\n");
}

}  // namespace
}  // namespace qm::test
