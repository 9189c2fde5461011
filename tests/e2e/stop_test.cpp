// SIGTERM and SIGINT in every state: the process ends soon, in good order, with status 0.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"
#include "e2e/slow_workspace.h"
#include "support/tcp_peer.h"
#include "util/unique_fd.h"

namespace qm::test {
namespace {

using testing::HasSubstr;

std::string portUrl(const std::string& scheme, int port) {
    return scheme + "://127.0.0.1:" + std::to_string(port);
}

void expectFarewell(const ExecutorProcess& executor) {
    EXPECT_THAT(executor.output(), HasSubstr("\nshutting down..."));
    EXPECT_THAT(executor.output(), testing::ContainsRegex("INFO  executor stopped\n"));
}

TEST(Stop, WhileUnconfigured) {
    const ExecutorHome home;
    ExecutorProcess executor(home.setup({"--serve"}));
    executor.waitForOutput(home.dataDirectory().string());

    expectOrderlyStop(executor);

    expectFarewell(executor);
    EXPECT_THAT(executor.output(), testing::Not(HasSubstr("connecting to gateway")));
}

TEST(Stop, WhileStandalone) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "connection=STANDALONE\n");
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    executor.waitForOutput(home.dataDirectory().string());

    expectOrderlyStop(executor);

    expectFarewell(executor);
    EXPECT_EQ(gateway.connectionCount(), 0U) << "standalone opens no socket";
}

TEST(Stop, WhileConnectingToAnAddressThatDoesntAnswer) {
    const ExecutorHome home;
    const FullListener listener;
    ExecutorProcess executor(home.setup({"--gateway", portUrl("http", listener.port()), "--token", kToken}));
    executor.waitForOutput("connecting to gateway: ");

    expectOrderlyStop(executor);
    expectFarewell(executor);
}

TEST(Stop, WhileATlsHandshakeIsPending) {
    const ExecutorHome home;
    TcpPeer silent([](PeerConnection& connection) { connection.readToEnd(); });
    ExecutorProcess executor(home.setup({"--gateway", silent.url("wss"), "--token", kToken}));
    ASSERT_TRUE(waitUntil([&] { return silent.accepted() > 0; }));

    expectOrderlyStop(executor);
    expectFarewell(executor);
}

TEST(Stop, WhileTheUpgradeIsntAnswered) {
    const ExecutorHome home;
    GatewayPeer gateway;
    gateway.answerNextHandshake(HandshakeAnswer::silence());
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForHandshakes(1);

    expectOrderlyStop(executor);
    expectFarewell(executor);
}

TEST(Stop, WithASessionWhichIsClosedInGoodOrder) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();

    expectOrderlyStop(executor);

    expectFarewell(executor);
    const auto end = gateway.waitForEnd(1);
    EXPECT_TRUE(end.closeFrame) << end.error;
    EXPECT_EQ(end.code, 0) << "the close frame carries no code";
}

TEST(Stop, WithAHandlerAtWork) {
    ExecutorHome home;
    makeSlowToSearch(home.addWorkspace("ws_slow0001"));
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    gateway.send({{"type", "execute"},
                  {"capabilityId", "find_files"},
                  {"args", {{"workspace", "ws_slow0001"}, {"pattern", "slow*"}}}});
    gateway.request({{"type", "metricsRequest"}});

    expectOrderlyStop(executor);
    expectFarewell(executor);
}

TEST(Stop, DuringTheWaitForTheNextAttempt) {
    const ExecutorHome home;
    GatewayPeer gateway;
    gateway.answerNextHandshake(HandshakeAnswer::status(401));
    ExecutorProcess executor(home.against(gateway));
    executor.waitForOutput("gateway connection failed");

    expectOrderlyStop(executor);

    expectFarewell(executor);
    EXPECT_EQ(gateway.connectionCount(), 1U);
}

TEST(Stop, DuringTheMinuteAfterARejection) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    gateway.send({{"type", "registerRejected"}});
    gateway.close();
    executor.waitForOutput("WARN  gateway connection closed\n");

    expectOrderlyStop(executor);

    expectFarewell(executor);
    EXPECT_EQ(gateway.connectionCount(), 1U);
}

TEST(Stop, ByTheInterruptKey) {
    const ExecutorHome home;
    GatewayPeer gateway;
    auto setup = home.against(gateway);
    setup.input = ProcessSetup::Input::Terminal;
    ExecutorProcess executor(setup);
    gateway.waitForRegister();

    executor.type("\x03");

    EXPECT_EQ(executor.waitForExit(kStopLimit), ExitStatus{});
    EXPECT_THAT(executor.output(), HasSubstr("shutting down..."));
}

TEST(Stop, ASecondSignalIsHarmless) {
    ExecutorHome home;
    makeSlowToSearch(home.addWorkspace("ws_slow0001"));
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    // Work in flight keeps the process long enough for the second signal to come in time.
    gateway.send({{"type", "execute"},
                  {"capabilityId", "find_files"},
                  {"args", {{"workspace", "ws_slow0001"}, {"pattern", "slow*"}}}});
    gateway.request({{"type", "metricsRequest"}});

    executor.sendSignal(SIGTERM);
    executor.waitForOutput("shutting down...");
    executor.sendSignal(SIGTERM);

    EXPECT_EQ(executor.waitForExit(kStopLimit), ExitStatus{});
    executor.waitForOutput("shutting down...", 2);
}

TEST(Stop, WithAnOutputThatNobodyReads) {
    const ExecutorHome home;
    const auto pipe = home.home() / "output";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const UniqueFd reader(open(pipe.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(reader);
    ASSERT_GT(fcntl(reader.get(), F_SETPIPE_SZ, 4096), 0);
    GatewayPeer gateway;
    ExecutorProcess executor(ExecutorHome::prepared("exec >'" + pipe.string() + "'", home.against(gateway)));
    gateway.waitForRegister();

    // Each of them is worth a line in the log.
    for (int i = 0; i < 500; ++i)
        gateway.send({{"type", "unheardOf" + std::to_string(i)}});
    gateway.request({{"type", "metricsRequest"}});
    pollfd room{reader.get(), POLLOUT, 0};
    EXPECT_EQ(poll(&room, 1, 0), 0) << "the pipe isn't full";

    expectOrderlyStop(executor);
}

TEST(Stop, ASignalBeforeTheRunPhaseIsTakenWhenItBegins) {
    const ExecutorHome home;
    // The first thing that takes time after the signals are held back: an expired worktree, removed with a git that
    // sends the signal to the one who started it.
    writeFile(home.home() / "bin" / "git",
              "#!/bin/sh\nkill -TERM $PPID\ntouch '" + (home.home() / "sent").string() + "'\nexit 1\n");
    std::filesystem::permissions(home.home() / "bin" / "git", std::filesystem::perms::owner_all);
    const auto tree = home.dataDirectory() / "worktrees" / "wt_stop0001";
    std::filesystem::create_directories(tree);
    home.writeDataFile("worktrees.json", nlohmann::json::array({{{"id", "wt_stop0001"},
                                                                 {"workspaceId", "ws_stop0002"},
                                                                 {"sourceWorkspace", "ws_stop0001"},
                                                                 {"branch", "quillmarsh/wt_stop0001"},
                                                                 {"owner", "test"},
                                                                 {"path", tree.string()},
                                                                 {"createdAtMs", 1},
                                                                 {"expiresAtMs", 2}}})
                                             .dump());
    GatewayPeer gateway;
    auto setup = home.against(gateway);
    setup.environment["PATH"] = (home.home() / "bin").string() + ":/usr/bin:/bin";
    ExecutorProcess executor(setup);

    EXPECT_EQ(executor.waitForExit(), ExitStatus{}) << executor.output();

    EXPECT_TRUE(std::filesystem::exists(home.home() / "sent"));
    expectFarewell(executor);
}

TEST(Stop, AGatewayThatVanishesIsNoSignal) {
    const ExecutorHome home;
    auto gateway = std::make_unique<GatewayPeer>();
    ExecutorProcess executor(home.against(*gateway));
    gateway->waitForRegister();

    // A write to the broken connection would raise SIGPIPE in a careless program.
    gateway->send({{"type", "metricsRequest"}});
    gateway->drop();
    gateway.reset();

    executor.waitForOutput("gateway connection failed: TCP 连接失败: Connection refused");
    expectOrderlyStop(executor);
}

}  // namespace
}  // namespace qm::test
