#include "device/terminal_capabilities.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include "capabilities/capability_registry.h"
#include "capabilities/disabled_capabilities.h"
#include "capabilities/invocation_pipeline.h"
#include "device/process_test_support.h"
#include "device/refused_system_calls.h"
#include "device/terminal_request.h"
#include "device/terminal_service.h"
#include "device/workspace_registry.h"
#include "runtime/tool_invocation.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/clock.h"
#include "util/json.h"

namespace qm {
namespace {

using runtime::ToolInvocation;
using test::pidIn;
using test::TemporaryDirectory;
using test::withRefusedCalls;
using test::writeFile;

/// The four capabilities behind the real pipeline, on one workspace.
class TerminalCapabilities : public ::testing::Test {
protected:
    explicit TerminalCapabilities(TerminalService::Runner runner = runProcess) : terminal(std::move(runner)) {}

    void SetUp() override {
        std::filesystem::create_directory(root);
        const auto added = workspaces.add(root.native(), "Label", WorkspacePermission::EXECUTE);
        ASSERT_TRUE(added.workspace) << added.error;
        id = added.workspace->id;
        registerTerminalCapabilities(registry, workspaces, terminal);
    }

    json invoke(const std::string& name, json arguments, const json& context = json::object()) {
        return pipeline.invoke(name, std::move(arguments), context);
    }

    json invoke(ToolInvocation invocation) { return pipeline.invoke(std::move(invocation)); }

    /// run_command with `arguments` in the workspace.
    json run(json arguments, const json& context = json::object()) {
        arguments["workspace"] = id;
        return invoke("run_command", std::move(arguments), context);
    }

    ToolInvocation runInvocation(json arguments) {
        ToolInvocation invocation;
        invocation.name = "run_command";
        arguments["workspace"] = id;
        invocation.arguments = std::move(arguments);
        return invocation;
    }

    std::string startInBackground(const std::string& command, const json& context = json::object()) {
        const json started = run({{"command", command}, {"background", true}}, context);
        EXPECT_TRUE(started.contains("commandId")) << started;
        return started.value("commandId", "");
    }

    json waitFor(const std::string& commandId) { return invoke("wait_command", {{"commandId", commandId}}); }

    CapabilityDef definitionOf(const std::string& name) const {
        for (const CapabilityDef& definition : *registry.snapshot()) {
            if (definition.name == name) return definition;
        }
        ADD_FAILURE() << name;
        return {};
    }

    test::EnvironmentKept environment;
    TemporaryDirectory directory;
    std::filesystem::path root = directory / "root";
    WorkspaceRegistry workspaces{directory / "data"};
    std::string id;
    CapabilityRegistry registry;
    DisabledCapabilities disabled;
    TerminalService terminal;
    InvocationPipeline pipeline{registry, workspaces, disabled, {}};
};

TEST_F(TerminalCapabilities, AreDefinedAsTheGatewayKnowsThem) {
    struct Expected {
        const char *name, *displayName, *effect, *description;
    };
    const auto table = registry.snapshot();
    ASSERT_EQ(table->size(), 4U);
    const Expected expected[] = {
        {"run_command", "执行命令", "EXTERNAL_SIDE_EFFECT",
         "Run a shell command inside a workspace. Set background=true to keep it running and poll with command_output. "
         "No interactive TTY: commands that need input will fail instead of hanging."},
        {"command_output", "读取命令输出", "READ_ONLY", "Read the current state and output of a background command."},
        {"wait_command", "等待命令结束", "READ_ONLY",
         "Wait until a background command finishes or the timeout elapses."},
        {"kill_command", "终止命令", "EXTERNAL_SIDE_EFFECT",
         "Terminate a background command and its whole process tree. Idempotent."},
    };
    for (std::size_t index = 0; index < 4; ++index) {
        const CapabilityDef& definition = (*table)[index];
        EXPECT_EQ(definition.name, expected[index].name);
        EXPECT_EQ(definition.displayName, expected[index].displayName);
        EXPECT_EQ(definition.effect, expected[index].effect);
        EXPECT_EQ(definition.description, expected[index].description);
        EXPECT_EQ(definition.scope, "DEVICE");
        EXPECT_EQ(definition.provider, "builtin");
        EXPECT_TRUE(definition.handler);
        EXPECT_TRUE(definition.invocationHandler);
    }
}

TEST_F(TerminalCapabilities, HaveTheSchemasOfTheirArguments) {
    EXPECT_EQ(definitionOf("run_command").parameters, json::parse(R"json({
        "type": "object",
        "required": ["workspace"],
        "properties": {
            "workspace": {"type": "string", "description": "Workspace handle from list_workspaces."},
            "command": {"type": "string", "description": "Command line run through the system shell."},
            "args": {"type": "array", "items": {"type": "string"},
                     "description": "Alternative to command: exec argv directly, no shell."},
            "cwd": {"type": "string", "description": "Working directory relative to the workspace root."},
            "timeoutMs": {"type": "integer"},
            "background": {"type": "boolean"},
            "env": {"type": "object",
                    "description": "Extra environment variables (credential-looking names are dropped)."},
            "sandbox": {"type": "string", "enum": ["OFF", "WORKSPACE", "READ_ONLY"],
                        "description": "Kernel-enforced restriction for this command. OFF (default) keeps current behaviour. WORKSPACE allows writes only inside the workspace and blocks network access; READ_ONLY also forbids writing. Linux only - other platforms refuse rather than pretend. Note /tmp stays writable so ordinary commands work."}
        }})json"));
    EXPECT_EQ(definitionOf("command_output").parameters, json::parse(R"json({
        "type": "object", "required": ["commandId"],
        "properties": {"commandId": {"type": "string"}, "offsetBytes": {"type": "integer"}}})json"));
    EXPECT_EQ(definitionOf("wait_command").parameters, json::parse(R"json({
        "type": "object", "required": ["commandId"],
        "properties": {"commandId": {"type": "string"}, "timeoutMs": {"type": "integer"}}})json"));
    EXPECT_EQ(definitionOf("kill_command").parameters, json::parse(R"json({
        "type": "object", "required": ["commandId"], "properties": {"commandId": {"type": "string"}}})json"));
}

TEST_F(TerminalCapabilities, ACommandThatEndsInTimeComesBackWhole) {
    const json result = run({{"command", "  echo out; echo err >&2; exit 3\n"}});

    EXPECT_EQ(result["state"], "EXITED");
    EXPECT_EQ(result["command"], "echo out; echo err >&2; exit 3");
    EXPECT_EQ(result["exitCode"], 3);
    EXPECT_EQ(result["stdout"], "out\n");
    EXPECT_EQ(result["stderr"], "err\n");
    EXPECT_EQ(result["sandbox"], "OFF");
    EXPECT_FALSE(result.contains("note"));
    EXPECT_FALSE(result.contains("error"));
}

TEST_F(TerminalCapabilities, ThePlainFormDoesTheSame) {
    const json result = definitionOf("run_command").handler({{"workspace", id}, {"command", "echo plain"}});

    EXPECT_EQ(result["stdout"], "plain\n");
    EXPECT_EQ(definitionOf("command_output").handler({{"commandId", result["commandId"]}})["stdout"], "plain\n");
    EXPECT_EQ(definitionOf("wait_command").handler({{"commandId", result["commandId"]}})["finished"], true);
    EXPECT_EQ(definitionOf("kill_command").handler({{"commandId", result["commandId"]}})["ok"], true);
}

TEST_F(TerminalCapabilities, ArgumentsRunWithoutAShellAndElementsThatAreNoTextDoNotCount) {
    const json result = run({{"args", {"printf", 7, "%s|", "$HOME", nullptr, "b"}}});

    EXPECT_EQ(result["stdout"], "$HOME|b|");
    EXPECT_EQ(result["command"], "printf");
    EXPECT_EQ(result["executedAs"], "direct exec (no shell)");
    EXPECT_EQ(run({{"args", {"echo", "args"}}, {"command", "shown"}})["command"], "shown");
    EXPECT_EQ(run({{"args", "no array"}, {"command", "echo shell"}})["stdout"], "shell\n");
}

TEST_F(TerminalCapabilities, ACommandThatTakesLongIsHandedBackWithTheWordsNotToRunItAgain) {
    ::setenv("QM_SYNC_HANDOFF_MS", "50", 1);

    const json result = run({{"command", "sleep 60"}});

    EXPECT_EQ(result["state"], "RUNNING");
    EXPECT_EQ(result["stdout"], "");
    EXPECT_EQ(result["sandbox"], "OFF");
    EXPECT_EQ(result["note"],
              "Still running and handed back as a background command. It has already started - do NOT run it again. "
              "Read its output with command_output, or wait_command, or stop it with kill_command.");
    EXPECT_FALSE(result.contains("error"));
    const json later = invoke("command_output", {{"commandId", result["commandId"]}});
    EXPECT_EQ(later["state"], "RUNNING");
    EXPECT_EQ(later["stdout"], "");
    EXPECT_EQ(later["nextOffsetBytes"], 0);
}

TEST(HandOff, ComesAfterTheTimeThatIsSetOrElseAfterTheDefault) {
    EXPECT_EQ(handOffMs(nullptr), 20'000);
    for (const char* value : {"", "abc", "-1", "0", "-99999999999999999999999"})
        EXPECT_EQ(handOffMs(value), 20'000) << value;
    EXPECT_EQ(handOffMs("1"), 1);
    EXPECT_EQ(handOffMs("20001"), 20'001);
    EXPECT_EQ(handOffMs("99999999999999999999999"), INT64_MAX);
}

TEST_F(TerminalCapabilities, AHandOffTimeWithoutEndIsTakenAsItIs) {
    ::setenv("QM_SYNC_HANDOFF_MS", "99999999999999999999999", 1);

    EXPECT_EQ(run({{"command", "sleep 0.3; echo done"}})["stdout"], "done\n");
}

TEST(WaitLimit, IsClampedAndAMinuteIfNoneIsGiven) {
    const auto limitOf = [](const json& value) { return waitLimitMs({{"timeoutMs", value}}); };

    EXPECT_EQ(waitLimitMs(json::object()), 60'000);
    EXPECT_EQ(limitOf(99), 100);
    EXPECT_EQ(limitOf(100), 100);
    EXPECT_EQ(limitOf(101), 101);
    EXPECT_EQ(limitOf(600'000), 600'000);
    EXPECT_EQ(limitOf(600'001), 600'000);
    EXPECT_EQ(limitOf(UINT64_MAX), 600'000);
    EXPECT_EQ(limitOf(INT64_MIN), 100);
}

TEST_F(TerminalCapabilities, ABackgroundCommandIsAnsweredAtOnce) {
    const json result = run({{"command", "sleep 60"}, {"background", true}});

    EXPECT_EQ(result, json({{"commandId", result["commandId"]},
                            {"state", "RUNNING"},
                            {"note", "Poll with command_output or wait_command."}}));
}

TEST_F(TerminalCapabilities, WaitingTellsWhetherTheCommandFinished) {
    const std::string quick = startInBackground("echo done");
    const std::string slow = startInBackground("sleep 60");

    const json finished = waitFor(quick);
    const json unfinished = invoke("wait_command", {{"commandId", slow}, {"timeoutMs", 5}});

    EXPECT_EQ(finished["finished"], true);
    EXPECT_EQ(finished["stdout"], "done\n");
    EXPECT_EQ(unfinished["finished"], false);
    EXPECT_EQ(unfinished["state"], "RUNNING");
}

TEST_F(TerminalCapabilities, WaitingTellsThatACommandFinishedWhichCouldNotBeStarted) {
    // UndefinedBehaviorSanitizer needs pipes too, when it meets a type for the first time.
    waitFor(startInBackground("true"));
    withRefusedCalls({{SYS_pipe2, EMFILE}}, [this] {
        const json result = waitFor(startInBackground("true"));

        EXPECT_EQ(result["state"], "FAILED");
        EXPECT_EQ(result["error"], "无法创建管道");
        EXPECT_EQ(result["finished"], true);
    });
}

TEST_F(TerminalCapabilities, WaitingTakesAtLeastATenthOfASecondForACommandThatRuns) {
    const std::string slow = startInBackground("sleep 60");
    const std::int64_t begin = steadyClockMs();

    invoke("wait_command", {{"commandId", slow}, {"timeoutMs", INT64_MIN}});

    EXPECT_GE(steadyClockMs() - begin, 100);
}

TEST_F(TerminalCapabilities, OutputIsReadOnFromAnOffset) {
    const std::string commandId = startInBackground("printf abcdef");
    waitFor(commandId);
    const auto from = [&](const json& offset) {
        return invoke("command_output", {{"commandId", commandId}, {"offsetBytes", offset}});
    };

    EXPECT_EQ(from(2)["stdout"], "cdef");
    EXPECT_EQ(from(6)["stdout"], "");
    EXPECT_EQ(from(-3)["stdout"], "abcdef");
    EXPECT_EQ(from(UINT64_MAX)["stdout"], "");
    EXPECT_EQ(from(2)["nextOffsetBytes"], 6);
}

TEST_F(TerminalCapabilities, KillingIsAnsweredTheSameForRunningAndEndedCommands) {
    const std::string commandId = startInBackground("sleep 60");

    const json first = invoke("kill_command", {{"commandId", commandId}});
    const json ended = waitFor(commandId);
    const json second = invoke("kill_command", {{"commandId", commandId}});

    EXPECT_EQ(first, json({{"commandId", commandId}, {"ok", true}}));
    EXPECT_EQ(ended["state"], "KILLED");
    EXPECT_EQ(ended["exitCode"], 137);
    EXPECT_EQ(second, first);
    EXPECT_EQ(waitFor(commandId), ended);
}

TEST_F(TerminalCapabilities, AnUnknownCommandIsAnErrorEverywhere) {
    const json expected = {{"error", "未知的 commandId：cmd_x"}};

    EXPECT_EQ(invoke("command_output", {{"commandId", "cmd_x"}}), expected);
    EXPECT_EQ(invoke("wait_command", {{"commandId", "cmd_x"}}), expected);
    EXPECT_EQ(invoke("kill_command", {{"commandId", "cmd_x"}}), expected);
}

TEST_F(TerminalCapabilities, ATaskCannotSeeAnotherTasksCommand) {
    const std::string commandId = startInBackground("sleep 60", {{"taskId", "task_a"}});
    const json expected = {{"error", "未知的 commandId：" + commandId}};

    for (const char* capability : {"command_output", "wait_command", "kill_command"}) {
        EXPECT_EQ(invoke(capability, {{"commandId", commandId}}, {{"taskId", "task_b"}}), expected) << capability;
    }
    EXPECT_EQ(invoke("command_output", {{"commandId", commandId}}, {{"taskId", "task_a"}})["state"], "RUNNING");
    EXPECT_EQ(invoke("command_output", {{"commandId", commandId}})["state"], "RUNNING");
}

TEST_F(TerminalCapabilities, EachArgumentOfAWrongTypeIsAnErrorResult) {
    const json wrong = {
        {"command", 7}, {"cwd", json::array()}, {"timeoutMs", "5000"}, {"sandbox", true}, {"background", "yes"}};
    for (const auto& [key, value] : wrong.items()) {
        json arguments = {{"command", "true"}};
        arguments[key] = value;

        EXPECT_THAT(run(arguments).value("error", ""), testing::StartsWith("[json.exception.type_error")) << key;
    }
    for (const char* capability : {"command_output", "wait_command", "kill_command"}) {
        EXPECT_THAT(invoke(capability, {{"commandId", 5}}).value("error", ""),
                    testing::StartsWith("[json.exception.type_error"));
    }
    EXPECT_THAT(invoke("command_output", {{"commandId", "x"}, {"offsetBytes", "1"}}).value("error", ""),
                testing::StartsWith("[json.exception.type_error"));
    EXPECT_THAT(invoke("wait_command", {{"commandId", "x"}, {"timeoutMs", false}}).value("error", ""),
                testing::StartsWith("[json.exception.type_error"));
    EXPECT_EQ(terminal.list(), json::array()) << "nothing was started";
}

TEST_F(TerminalCapabilities, AStartDuringTheShutdownIsAnErrorResult) {
    terminal.shutdown();

    EXPECT_EQ(run({{"command", "true"}}), json({{"error", "process host is shutting down"}}));
}

TEST_F(TerminalCapabilities, APassedDeadlineStartsNothing) {
    ToolInvocation invocation = runInvocation({{"command", "true"}});
    invocation.deadlineAtMs = 1;

    // The handler itself, because the pipeline would refuse before.
    const json result = definitionOf("run_command").invocationHandler(invocation);

    EXPECT_EQ(result, json({{"error", "capability deadline expired"}, {"errorCode", "DEADLINE_EXCEEDED"}}));
    EXPECT_EQ(terminal.list(), json::array());
}

TEST_F(TerminalCapabilities, ACommandDoesNotOutliveItsDeadline) {
    ToolInvocation invocation = runInvocation({{"command", "sleep 60"}});
    invocation.deadlineAtMs = wallClockMs() + 3000;

    const json result = invoke(invocation);

    EXPECT_EQ(result["state"], "TIMEOUT");
    EXPECT_EQ(result["exitCode"], 137);
    EXPECT_LT(result["durationMs"].get<int>(), 20'000);
}

TEST_F(TerminalCapabilities, ADistantDeadlineLeavesTheTimeLimit) {
    ToolInvocation invocation = runInvocation({{"command", "sleep 60"}, {"timeoutMs", 5}});
    invocation.deadlineAtMs = INT64_MAX;

    const json result = invoke(invocation);

    EXPECT_EQ(result["state"], "TIMEOUT");
    EXPECT_GT(result["durationMs"].get<int>(), 1000) << "the limit is raised to a second";
}

TEST_F(TerminalCapabilities, ATaskCancelledBeforehandStartsNothing) {
    std::stop_source source;
    source.request_stop();
    ToolInvocation invocation = runInvocation({{"command", "true"}});
    invocation.stopToken = source.get_token();

    const json result = definitionOf("run_command").invocationHandler(invocation);

    EXPECT_EQ(result, json({{"error", "task was cancelled before process start"}, {"errorCode", "TASK_CANCELLED"}}));
    EXPECT_EQ(terminal.list(), json::array());
}

TEST_F(TerminalCapabilities, ATaskCancelledMeanwhileTakesItsCommandDown) {
    std::stop_source source;
    ToolInvocation invocation = runInvocation({{"command", "echo $$ > pid; sleep 60"}});
    invocation.stopToken = source.get_token();
    std::jthread canceller([&] {
        pidIn(root / "pid");
        source.request_stop();
    });

    const json result = invoke(invocation);

    EXPECT_EQ(result["state"], "KILLED");
    EXPECT_EQ(result["error"], "task cancellation terminated the process tree");
    EXPECT_EQ(result["errorCode"], "TASK_CANCELLED");
    EXPECT_FALSE(result.contains("note"));
}

TEST_F(TerminalCapabilities, ATaskCancelledWhileItWaitsTakesTheCommandDown) {
    const std::string commandId = startInBackground("sleep 60", {{"taskId", "task_a"}});
    std::stop_source source;
    ToolInvocation invocation;
    invocation.name = "wait_command";
    invocation.arguments = {{"commandId", commandId}};
    invocation.taskId = "task_a";
    invocation.stopToken = source.get_token();
    std::jthread canceller([&] { source.request_stop(); });

    const json result = definitionOf("wait_command").invocationHandler(invocation);

    EXPECT_EQ(result["state"], "KILLED");
    EXPECT_EQ(result["finished"], true);
    EXPECT_EQ(result["error"], "task cancellation terminated the process tree");
    EXPECT_EQ(result["errorCode"], "TASK_CANCELLED");
}

struct EndOfCommands {
    std::promise<void> promise;
};

/// Commands that go on after their kill, like programs that hang in the kernel.
class CommandsThatOutliveTheirKill : private EndOfCommands, public TerminalCapabilities {
protected:
    CommandsThatOutliveTheirKill()
        : TerminalCapabilities([end = promise.get_future().share()](const ProcessOptions&, const auto&) {
              end.wait();
              return ProcessResult();
          }) {}
    ~CommandsThatOutliveTheirKill() override { promise.set_value(); }

    /// run_command, cancelled as soon as its command has been started.
    json runCancelled() {
        const std::size_t before = terminal.list().size();
        ToolInvocation invocation = runInvocation({{"command", "x"}});
        std::stop_source source;
        invocation.stopToken = source.get_token();
        std::jthread canceller([&] {
            test::waitUntil([&] { return terminal.list().size() > before; });
            source.request_stop();
        });
        return definitionOf("run_command").invocationHandler(invocation);
    }
};

TEST_F(CommandsThatOutliveTheirKill, AreToldAsCancelledAndNotHandedBack) {
    ::setenv("QM_SYNC_HANDOFF_MS", "50", 1);
    json result;

    // On a busy machine the hand-off may come before the cancellation: that isn't the case in question.
    EXPECT_TRUE(test::waitUntil([&] {
        result = runCancelled();
        return result.contains("errorCode");
    }));

    EXPECT_EQ(result["state"], "RUNNING");
    EXPECT_EQ(result["error"], "task cancellation terminated the process tree");
    EXPECT_EQ(result["errorCode"], "TASK_CANCELLED");
    EXPECT_FALSE(result.contains("note"));
}

TEST_F(CommandsThatOutliveTheirKill, AreToldAsCancelledToThoseWhoWait) {
    std::stop_source source;
    source.request_stop();
    ToolInvocation invocation;
    invocation.name = "wait_command";
    invocation.arguments = {{"commandId", startInBackground("x")}, {"timeoutMs", 100}};
    invocation.stopToken = source.get_token();

    const json result = definitionOf("wait_command").invocationHandler(invocation);

    EXPECT_EQ(result["state"], "RUNNING");
    EXPECT_EQ(result["finished"], false);
    EXPECT_EQ(result["error"], "task cancellation terminated the process tree");
    EXPECT_EQ(result["errorCode"], "TASK_CANCELLED");
    EXPECT_FALSE(result.contains("note"));
}

TEST_F(TerminalCapabilities, TheGreaterOutputBudgetIsTheCapOfBothStreams) {
    ToolInvocation invocation =
        runInvocation({{"command", "head -c 500 /dev/zero | tr '\\0' a; head -c 500 /dev/zero | tr '\\0' b >&2"}});
    invocation.stdoutBytes = 100;
    invocation.stderrBytes = 300;

    const json result = invoke(invocation);

    EXPECT_EQ(result["stdout"], std::string(300, 'a'));
    EXPECT_EQ(result["stderr"], std::string(300, 'b'));
    EXPECT_EQ(result["truncated"], true);
}

TEST_F(TerminalCapabilities, WithoutBudgetsTheCapIs96KiB) {
    ToolInvocation invocation = runInvocation({{"command", "head -c 98305 /dev/zero"}});
    invocation.stdoutBytes = 0;
    invocation.stderrBytes = 0;

    const json limited = invoke(invocation);
    const json whole = run({{"command", "head -c 98304 /dev/zero"}});

    EXPECT_EQ(limited["nextOffsetBytes"], 98304);
    EXPECT_EQ(limited["truncated"], true);
    EXPECT_EQ(whole["nextOffsetBytes"], 98304);
    EXPECT_EQ(whole["truncated"], false);
}

TEST_F(TerminalCapabilities, TheEnvironmentHoldsWhatAShellNeedsAndWhatWasGivenAndNothingElse) {
    ::clearenv();
    for (const char* name : {"PATH", "HOME", "SHELL", "LANG", "LC_ALL", "TERM", "TMPDIR", "USER", "LOGNAME"}) {
        ::setenv(name, name[0] == 'P' ? "/usr/bin:/bin" : name, 1);
    }
    ::setenv("EXECUTOR_SECRET", "leaked", 1);
    ::setenv("OTHER", "leaked", 1);

    const json result = run({{"args", {"env"}},
                             {"env",
                              {{"MY_API_KEY", "x"},
                               {"my_token2", "y"},
                               {"Secretary", "z"},
                               {"PASSWORD", "p"},
                               {"xApiKeyx", "k"},
                               {"FOO", "1"},
                               {"HOME", "/elsewhere"},
                               {"NUMBER", 5},
                               {"VALUE", "my token"},
                               {"", "n"},
                               {"A=B", "n"}}}});

    EXPECT_EQ(result["stdout"],
              "FOO=1\nHOME=/elsewhere\nLANG=LANG\nLC_ALL=LC_ALL\nLOGNAME=LOGNAME\nPATH=/usr/bin:/bin\nSHELL=SHELL\n"
              "TERM=TERM\nTMPDIR=TMPDIR\nUSER=USER\nVALUE=my token\n");
}

TEST_F(TerminalCapabilities, AnExecutorWithoutEnvironmentLeaksNothingEither) {
    ::clearenv();
    ::setenv("EXECUTOR_SECRET", "leaked", 1);

    EXPECT_EQ(run({{"args", {"env"}}})["stdout"], "");
    EXPECT_EQ(run({{"args", {"env"}}, {"env", "no object"}})["stdout"], "");
}

TEST_F(TerminalCapabilities, TheSandboxHoldsAndIsNamedInTheResult) {
    const json inside = run({{"command", "echo x > file && cat file"}, {"sandbox", "WORKSPACE"}});
    const json readOnly = run({{"command", "echo x > other"}, {"sandbox", "read_only"}});
    const json misspelt = run({{"command", "echo x > other"}, {"sandbox", "readonly"}});

    EXPECT_EQ(inside["stdout"], "x\n");
    EXPECT_EQ(inside["sandbox"], "WORKSPACE");
    EXPECT_THAT(readOnly["stderr"].get<std::string>(), testing::HasSubstr("Permission denied"));
    EXPECT_EQ(readOnly["sandbox"], "READ_ONLY");
    EXPECT_FALSE(readOnly.contains("error"));
    EXPECT_EQ(misspelt["sandbox"], "OFF");
    EXPECT_EQ(misspelt["exitCode"], 0);
}

TEST_F(TerminalCapabilities, OnAKernelWithoutLandlockASandboxedCommandDoesNotRun) {
    withRefusedCalls({{SYS_landlock_create_ruleset, ENOSYS}}, [this] {
        const json result = run({{"command", "echo ran"}, {"sandbox", "WORKSPACE"}});

        EXPECT_EQ(result["exitCode"], 126);
        EXPECT_EQ(result["stdout"], "");
        EXPECT_EQ(result["error"], "沙箱未能施加，命令没有执行（不是命令本身失败）");
        EXPECT_EQ(result["errorCode"], "SANDBOX_UNAVAILABLE");
        EXPECT_EQ(run({{"command", "echo ran"}})["stdout"], "ran\n");
    });
}

TEST_F(TerminalCapabilities, AnExitWith126WithoutSandboxIsAnOrdinaryExit) {
    const json plain = run({{"command", "exit 126"}});
    const json sandboxed = run({{"command", "exit 126"}, {"sandbox", "WORKSPACE"}});

    EXPECT_EQ(plain["state"], "EXITED");
    EXPECT_EQ(plain["exitCode"], 126);
    EXPECT_FALSE(plain.contains("error"));
    EXPECT_EQ(sandboxed["errorCode"], "SANDBOX_UNAVAILABLE");
}

TEST_F(TerminalCapabilities, AFileWithoutTheRightToBeExecutedExitsWith127IfTheShellHasNoPart) {
    writeFile(root / "tool", "#!/bin/sh\n");

    const json result = run({{"args", {"./tool"}}, {"sandbox", "WORKSPACE"}});

    EXPECT_EQ(result["exitCode"], 127);
    EXPECT_FALSE(result.contains("error"));
    EXPECT_EQ(run({{"command", "./tool"}})["exitCode"], 126);
}

class TerminalRequests : public TerminalCapabilities {
protected:
    TerminalRequest prepare(json arguments) const {
        arguments.emplace("workspace", id);
        return prepareTerminalRequest(arguments, workspaces);
    }
};

TEST_F(TerminalRequests, NeedAKnownWorkspace) {
    EXPECT_EQ(prepare({{"workspace", "ws_nothing"}, {"command", "true"}}).error,
              "未知的 workspace：ws_nothing。可用：" + id + "(Label)");
    EXPECT_EQ(prepare({{"workspace", ""}}).error, "未知的 workspace：(未提供)。可用：" + id + "(Label)");
    ASSERT_TRUE(workspaces.remove(id));
    EXPECT_EQ(prepare({{"command", "true"}}).error,
              "本设备尚未配置任何工作区，文件与终端能力已拒绝执行。请在 Executor 界面里添加一个工作目录。");
}

TEST_F(TerminalRequests, NeedTheRightToExecute) {
    ASSERT_TRUE(workspaces.setPermission(id, WorkspacePermission::READ_WRITE));

    EXPECT_EQ(prepare({{"cwd", "gone"}}).error,
              "工作区 Label 的权限档位是 READ_WRITE，此操作需要 EXECUTE。请在 Executor 界面调整。");
}

TEST_F(TerminalRequests, NeedADirectoryInsideTheWorkspace) {
    std::filesystem::create_directory(root / "sub");

    EXPECT_EQ(prepare({{"cwd", "gone"}}).error, "路径不存在：gone");
    EXPECT_EQ(prepare({{"cwd", "../x"}, {"command", "true"}}).error, "路径不允许包含 `..`。");
    EXPECT_EQ(prepare({{"cwd", "sub"}, {"command", "true"}}).options.cwd, root / "sub");
    EXPECT_EQ(prepare({{"command", "true"}}).options.cwd, root);
}

TEST_F(TerminalRequests, NeedSomethingToRun) {
    EXPECT_EQ(prepare({}).error, "必须提供 command 或 args");
    EXPECT_EQ(prepare({{"command", " \t\r\n"}, {"args", {1, 2}}}).error, "必须提供 command 或 args");
    EXPECT_EQ(prepare({{"args", {""}}}).error, "");
}

TEST_F(TerminalRequests, ClampTheTimeLimit) {
    const auto limitOf = [this](const json& value) {
        return prepare({{"command", "true"}, {"timeoutMs", value}}).options.timeoutMs;
    };

    EXPECT_EQ(prepare({{"command", "true"}}).options.timeoutMs, 120'000);
    EXPECT_EQ(limitOf(5), 1000);
    EXPECT_EQ(limitOf(999), 1000);
    EXPECT_EQ(limitOf(1000), 1000);
    EXPECT_EQ(limitOf(1001), 1001);
    EXPECT_EQ(limitOf(600'000), 600'000);
    EXPECT_EQ(limitOf(600'001), 600'000);
    EXPECT_EQ(limitOf(900'000), 600'000);
    EXPECT_EQ(limitOf(4'294'967'297), 600'000);
    EXPECT_EQ(limitOf(UINT64_MAX), 600'000);
    EXPECT_EQ(limitOf(INT64_MIN), 1000);
    EXPECT_EQ(limitOf(1500.9), 1500);
    EXPECT_EQ(limitOf(1e300), 600'000);
}

TEST_F(TerminalRequests, CapTheOutputAt96KiBAndNameTheCommand) {
    const TerminalRequest request = prepare({{"command", " ls "}, {"args", {"x"}}});

    EXPECT_EQ(request.options.maxOutputBytes, 98304U);
    EXPECT_EQ(request.options.command, "ls");
    EXPECT_EQ(request.command, "ls");
    EXPECT_EQ(request.workspace, id);
    EXPECT_EQ(prepare({{"args", {"first", "second"}}}).command, "first");
}

TEST_F(TerminalRequests, PlanTheSandboxForTheWorkspacesRoot) {
    const SandboxPolicy policy = prepare({{"command", "true"}, {"sandbox", "workspace"}}).options.sandbox;

    EXPECT_EQ(policy.mode, SandboxMode::WORKSPACE);
    EXPECT_THAT(policy.writablePaths, testing::ElementsAre(root));
    EXPECT_TRUE(policy.blockNetwork);
}

TEST_F(TerminalRequests, AreRefusedASandboxOfWhichNothingCanBeEnforced) {
    const auto nothing = [] { return SandboxProbe{false, false, "old kernel"}; };
    const json arguments = {{"workspace", id}, {"command", "true"}, {"sandbox", "READ_ONLY"}};

    EXPECT_EQ(prepareTerminalRequest(arguments, workspaces, nothing).error, "本设备无法强制沙箱：old kernel");
    EXPECT_EQ(prepareTerminalRequest({{"workspace", id}, {"command", "true"}}, workspaces, nothing).error, "");
    for (const SandboxProbe& half : {SandboxProbe{true, false, ""}, SandboxProbe{false, true, ""}}) {
        EXPECT_EQ(prepareTerminalRequest(arguments, workspaces, [&] { return half; }).error, "");
    }
}

}  // namespace
}  // namespace qm
