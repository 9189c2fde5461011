// Commands, checkpoints and worktrees, as the gateway drives them in the real program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr char kWorkspace[] = "ws_test0001";

/// Whether a process with this id runs; one that only waits to be reaped doesn't.
bool isAlive(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/stat");
    std::string line;
    if (!std::getline(status, line)) return false;
    const auto nameEnd = line.rfind(')');
    return nameEnd != std::string::npos && line.substr(nameEnd, 3) != ") Z";
}

/// An executor with one workspace in which commands may run, and a session.
class Commands : public testing::Test {
protected:
    explicit Commands(const std::map<std::string, std::string>& environment = {}) {
        auto setup = home_.against(gateway_);
        setup.environment.insert(environment.begin(), environment.end());
        executor_ = std::make_unique<ExecutorProcess>(setup);
        gateway_.waitForRegister();
    }

    json call(std::string_view capability, json arguments, json invocation = json::object()) {
        arguments["workspace"] = kWorkspace;
        return gateway_.execute(capability, std::move(arguments), std::move(invocation));
    }

    json run(const std::string& command, json more = json::object(), json invocation = json::object()) {
        more["command"] = command;
        return call("run_command", std::move(more), std::move(invocation));
    }

    /// Starts a command in the background that writes its process id to `file`, and returns both ids.
    std::pair<std::string, pid_t> startSleeper(const std::string& file) {
        const auto started = run("echo $$ > " + file + ".part && mv " + file + ".part " + file + " && exec sleep 600",
                                 {{"background", true}, {"timeoutMs", 600000}});
        EXPECT_TRUE(waitUntil([&] { return std::filesystem::exists(workspace_ / file); })) << started;
        return {started.at("commandId"), static_cast<pid_t>(std::stol(readFile(workspace_ / file)))};
    }

    ExecutorHome home_;
    std::filesystem::path workspace_ = home_.addWorkspace(kWorkspace, "FULL");
    GatewayPeer gateway_;
    std::unique_ptr<ExecutorProcess> executor_;
};

TEST_F(Commands, TheGatewayRunsAShellInAWorkspace) {
    writeFile(workspace_ / "sub/in.txt", "b\na\n");

    const auto result = run("sort in.txt; echo oops >&2; exit 3", {{"cwd", "sub"}});

    EXPECT_EQ(result.at("state"), "EXITED");
    EXPECT_EQ(result.at("exitCode"), 3);
    EXPECT_EQ(result.at("stdout"), "a\nb\n");
    EXPECT_EQ(result.at("stderr"), "oops\n");
    EXPECT_EQ(result.at("sandbox"), "OFF");
    EXPECT_FALSE(result.contains("note"));
}

TEST_F(Commands, NoCredentialAndNoDescriptorOfTheExecutorReachesACommand) {
    const auto environment = run("env", {{"env", {{"FOO", "1"}, {"MY_API_KEY", "x"}}}}).at("stdout").get<std::string>();

    EXPECT_THAT(environment, HasSubstr("FOO=1\n"));
    EXPECT_THAT(environment, Not(HasSubstr("MY_API_KEY")));
    EXPECT_THAT(environment, Not(HasSubstr(kToken)));
    EXPECT_EQ(run("ls /proc/self/fd | tr '\\n' ' '").at("stdout"), "0 1 2 3 ") << "3 is the listing's own";
}

TEST_F(Commands, ASandboxedCommandWritesInItsWorkspaceOnly) {
    // Not below "/tmp", which stays writable.
    const std::filesystem::path outside = "/var/tmp/qm-outside-" + home_.home().filename().string();

    const auto result = run("echo in > inside.txt && echo out > " + outside.string(), {{"sandbox", "WORKSPACE"}});

    EXPECT_EQ(result.at("sandbox"), "WORKSPACE");
    EXPECT_NE(result.at("exitCode"), 0);
    EXPECT_EQ(readFile(workspace_ / "inside.txt"), "in\n");
    EXPECT_FALSE(std::filesystem::remove(outside));
}

TEST_F(Commands, AReadOnlyCommandWritesNowhere) {
    const auto result = run("cat in.txt; echo x > inside.txt", {{"sandbox", "READ_ONLY"}});

    EXPECT_EQ(result.at("sandbox"), "READ_ONLY");
    EXPECT_NE(result.at("exitCode"), 0);
    EXPECT_FALSE(std::filesystem::exists(workspace_ / "inside.txt"));
}

TEST_F(Commands, ACommandIsKilledWithItsWholeTree) {
    const auto [id, process] = startSleeper("pid");

    EXPECT_EQ(call("kill_command", {{"commandId", id}}), (json{{"commandId", id}, {"ok", true}}));
    const auto ended = call("wait_command", {{"commandId", id}});

    EXPECT_EQ(ended.at("state"), "KILLED");
    EXPECT_EQ(ended.at("finished"), true);
    EXPECT_TRUE(waitUntil([process = process] { return !isAlive(process); }));
}

TEST_F(Commands, ATaskSeesNoOtherTasksCommands) {
    const auto started = run("sleep 600", {{"background", true}}, {{"taskId", "task_a"}});
    const std::string id = started.at("commandId");

    EXPECT_EQ(call("command_output", {{"commandId", id}}, {{"taskId", "task_b"}}).at("error"),
              "未知的 commandId：" + id);
    EXPECT_EQ(call("command_output", {{"commandId", id}}, {{"taskId", "task_a"}}).at("state"), "RUNNING");
}

TEST_F(Commands, AStopLeavesNoProcessBehind) {
    std::vector<pid_t> processes(20);
    for (std::size_t i = 0; i < processes.size(); ++i)
        processes[i] = startSleeper("pid" + std::to_string(i)).second;

    expectOrderlyStop(*executor_);

    for (const pid_t process : processes)
        EXPECT_TRUE(waitUntil([process] { return !isAlive(process); })) << process;
}

TEST_F(Commands, TheDeathOfTheExecutorTakesItsCommandsAlong) {
    const auto [id, process] = startSleeper("pid");

    executor_->sendSignal(SIGKILL);

    EXPECT_EQ(executor_->waitForExit().signal, SIGKILL);
    EXPECT_TRUE(waitUntil([process = process] { return !isAlive(process); }));
}

TEST_F(Commands, TheFirstChangeOfATurnIsPrecededByACheckpoint) {
    writeFile(workspace_ / "a.txt", "old\n");
    const json turn{{"runId", "run_123456789"}, {"round", 0}};

    call("write_file", {{"path", "a.txt"}, {"content", "new\n"}}, turn);
    run("rm a.txt; echo b > b.txt", {}, turn);

    const auto changes = call("show_changes", {});
    EXPECT_EQ(changes.at("changeCount"), 2) << changes;
    EXPECT_EQ(changes.at("changes").at(0), (json{{"path", "b.txt"}, {"status", "added"}, {"afterSizeBytes", 2}}));
    EXPECT_EQ(changes.at("changes").at(1), (json{{"path", "a.txt"}, {"status", "deleted"}, {"beforeSizeBytes", 4}}));

    const auto restored = call("restore_checkpoint", {{"checkpoint", changes.at("checkpoint")}});
    EXPECT_EQ(restored.at("verified"), true) << restored;
    EXPECT_EQ(readFile(workspace_ / "a.txt"), "old\n");
    EXPECT_FALSE(std::filesystem::exists(workspace_ / "b.txt"));
    const auto checkpoints = home_.dataDirectory() / "checkpoints";
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(checkpoints), {}), 1);
    const auto manifest = checkpoints / changes.at("checkpoint").get<std::string>() / "manifest.json";
    EXPECT_EQ(json::parse(readFile(manifest)).at("label"), "turn 0 · run run_1234");
}

TEST_F(Commands, AChangeWithoutAWayBackIsRefusedAndMayBeTriedAgain) {
    std::filesystem::remove_all(home_.dataDirectory() / "checkpoints");
    home_.writeDataFile("checkpoints", "in the way");
    const json turn{{"runId", "run_1"}, {"round", 0}, {"idempotencyKey", "key-1"}};

    const auto refused = call("write_file", {{"path", "a.txt"}, {"content", "new"}}, turn);

    EXPECT_THAT(refused.at("error").get<std::string>(),
                testing::StartsWith("无法建立 turn checkpoint，为保证可恢复性拒绝执行该写操作："));
    EXPECT_EQ(refused.size(), 1U) << refused;
    EXPECT_FALSE(std::filesystem::exists(workspace_ / "a.txt"));

    std::filesystem::remove(home_.dataDirectory() / "checkpoints");
    const auto written = call("write_file", {{"path", "a.txt"}, {"content", "new"}}, turn);

    EXPECT_EQ(written.at("bytesWritten"), 3) << written;
    EXPECT_FALSE(written.contains("deduplicated"));
    EXPECT_EQ(readFile(workspace_ / "a.txt"), "new");
    EXPECT_EQ(call("show_changes", {}).at("changeCount"), 1);
}

TEST_F(Commands, AWorktreeIsAWorkspaceOfItsOwnUntilItsLeaseHasRunOut) {
    run("git init -q . && git -c user.name=t -c user.email=t@t commit -q --allow-empty -m first");
    const auto tree = call("create_worktree", {{"owner", "me"}, {"leaseMinutes", 1}});
    const std::string handle = tree.at("workspace");
    EXPECT_EQ(gateway_.execute("write_file", {{"workspace", handle}, {"path", "x.txt"}, {"content", "x"}}).at("path"),
              "x.txt");
    EXPECT_EQ(gateway_.execute("remove_worktree", {{"worktree", tree.at("worktree")}}).at("hadUncommittedChanges"),
              true);
    expectOrderlyStop(*executor_);

    // The lease runs out while the program is down.
    json table = json::parse(home_.dataFile("worktrees.json"));
    table.at(0)["expiresAtMs"] = 1;
    home_.writeDataFile("worktrees.json", table.dump());
    ExecutorProcess next(home_.against(gateway_));
    gateway_.waitForRegister();

    EXPECT_EQ(gateway_.execute("list_worktrees").at("worktrees"), json::array());
    EXPECT_FALSE(std::filesystem::exists(home_.dataDirectory() / "worktrees" / tree.at("worktree").get<std::string>()));
}

class CommandsWithAShortHandOff : public Commands {
protected:
    CommandsWithAShortHandOff() : Commands({{"QM_SYNC_HANDOFF_MS", "1"}}) {}
};

TEST_F(CommandsWithAShortHandOff, ALongCommandIsHandedBackAndCanBeWaitedFor) {
    ASSERT_EQ(::mkfifo((workspace_ / "gate").c_str(), 0600), 0);

    const auto handed = run("read line < gate; echo $line");

    EXPECT_EQ(handed.at("state"), "RUNNING") << handed;
    EXPECT_EQ(handed.at("stdout"), "");
    EXPECT_EQ(handed.at("note"),
              "Still running and handed back as a background command. It has already started - do NOT run it again. "
              "Read its output with command_output, or wait_command, or stop it with kill_command.");
    writeFile(workspace_ / "gate", "done\n");
    const auto ended = call("wait_command", {{"commandId", handed.at("commandId")}});
    EXPECT_EQ(ended.at("finished"), true);
    EXPECT_EQ(ended.at("stdout"), "done\n");
}

}  // namespace
}  // namespace qm::test
