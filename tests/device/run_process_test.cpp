#include "device/run_process.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device/process_test_support.h"
#include "device/refused_system_calls.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"

namespace qm {
namespace {

using test::pidIn;
using test::program;
using test::shell;
using test::TemporaryDirectory;
using test::withRefusedCalls;

const std::string kReplacement = "\xEF\xBF\xBD";

/// A line that leaves a process behind which has left the group and holds the output, and writes its pid to `file`.
std::string escape(const std::string& file, const std::string& command) {
    return "setsid sh -c 'echo $$ > " + file + "; exec " + command + "' & while ! [ -s " + file + " ]; do :; done; ";
}

class EscapedProcess {
public:
    explicit EscapedProcess(std::filesystem::path pidFile) : pidFile_(std::move(pidFile)) {}
    ~EscapedProcess() { ::kill(pidIn(pidFile_), SIGKILL); }
    EscapedProcess(const EscapedProcess&) = delete;
    EscapedProcess& operator=(const EscapedProcess&) = delete;

private:
    std::filesystem::path pidFile_;
};

TEST(RunProcess, AShellLineGivesBothStreamsAndItsStatus) {
    const ProcessResult result = runProcess(shell("echo out; echo err >&2; exit 3"));

    EXPECT_TRUE(result.started);
    EXPECT_FALSE(result.timedOut);
    EXPECT_FALSE(result.cancelled);
    EXPECT_FALSE(result.truncated);
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.stdoutText, "out\n");
    EXPECT_EQ(result.stderrText, "err\n");
    EXPECT_EQ(result.executedAs, "/bin/sh -c");
    EXPECT_EQ(result.error, "");
}

TEST(RunProcess, ArgumentsAreExecutedWithoutAShellAndTheCommandOnlyNamesThem) {
    ProcessOptions options = program({"printf", "%s|", "$HOME", "a b", ""});
    options.command = "exit 9";

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, "$HOME|a b||");
    EXPECT_EQ(result.executedAs, "direct exec (no shell)");
}

TEST(RunProcess, ASignalEndsWith128AndItsNumber) {
    EXPECT_EQ(runProcess(shell("kill -TERM $$")).exitCode, 128 + SIGTERM);
    EXPECT_EQ(runProcess(shell("kill -KILL $$")).exitCode, 128 + SIGKILL);
}

TEST(RunProcess, AProgramThatIsNotThereHasStartedAndExitsWith127) {
    const ProcessResult result = runProcess(program({"no-such-program-anywhere"}));

    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(runProcess(program({""})).exitCode, 127);
    EXPECT_EQ(runProcess(program({"/"})).exitCode, 127);
}

TEST(RunProcess, AWorkingDirectoryIsEntered) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell("pwd");
    options.cwd = directory.path();

    EXPECT_EQ(runProcess(options).stdoutText, directory.path().string() + "\n");
}

TEST(RunProcess, AWorkingDirectoryThatVanishedGives127AndNoOutput) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell("echo here");
    options.cwd = directory / "gone";

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText, "");
}

TEST(RunProcess, OutputOfExactlyTheCapIsWhole) {
    ProcessOptions options = shell("head -c 70000 /dev/zero");
    options.maxOutputBytes = 70'000;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText.size(), 70'000U);
    EXPECT_FALSE(result.truncated);
}

TEST(RunProcess, OneByteMoreThanTheCapIsDroppedAndSaidSo) {
    ProcessOptions options = shell("head -c 70001 /dev/zero");
    options.maxOutputBytes = 70'000;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText.size(), 70'000U);
    EXPECT_TRUE(result.truncated);
}

TEST(RunProcess, TheCapCountsForEachStreamAlone) {
    ProcessOptions options = shell("printf 12345; printf abcdefgh >&2");
    options.maxOutputBytes = 5;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText, "12345");
    EXPECT_EQ(result.stderrText, "abcde");
    EXPECT_TRUE(result.truncated);
}

TEST(RunProcess, AChildThatWritesBeyondTheCapRunsToItsEnd) {
    ProcessOptions options = shell("head -c 3000000 /dev/zero; echo done >&2; exit 4");
    options.maxOutputBytes = 10;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText.size(), 10U);
    EXPECT_EQ(result.stderrText, "done\n");
    EXPECT_EQ(result.exitCode, 4);
}

TEST(RunProcess, ACapOfZeroKeepsNothing) {
    ProcessOptions options = shell("echo x");
    options.maxOutputBytes = 0;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText, "");
    EXPECT_TRUE(result.truncated);
    EXPECT_EQ(result.exitCode, 0);
}

TEST(RunProcess, OutputThatIsNoUtf8GetsReplacementCharactersAlsoWhereTheCapCutsACharacter) {
    ProcessOptions options = shell(R"(printf 'a\377b\303\251'; printf '\303' >&2)");
    options.maxOutputBytes = 4;

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText, "a" + kReplacement + "b" + kReplacement);
    EXPECT_EQ(result.stderrText, kReplacement);
}

TEST(RunProcess, TheTimeLimitKillsTheGroup) {
    ProcessOptions options = shell("sleep 100");
    options.timeoutMs = 1000;

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.exitCode, 137);
    EXPECT_GT(result.durationMs, 1000);
    EXPECT_LT(result.durationMs, 20'000);
}

TEST(RunProcess, ATimeLimitOfZeroOrLessEndsAnythingThatLasts) {
    for (const std::int32_t limit : {0, -1, INT32_MIN}) {
        ProcessOptions options = shell("sleep 100");
        options.timeoutMs = limit;

        EXPECT_TRUE(runProcess(options).timedOut) << limit;
    }
}

TEST(RunProcess, TheGreatestTimeLimitDoesNotWrap) {
    ProcessOptions options = shell("echo fine");
    options.timeoutMs = INT32_MAX;

    EXPECT_EQ(runProcess(options).stdoutText, "fine\n");
}

TEST(RunProcess, WhatWasWrittenBeforeTheTimeLimitIsKept) {
    ProcessOptions options = shell("echo early; sleep 100");
    options.timeoutMs = 3000;

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.stdoutText, "early\n");
}

TEST(RunProcess, ABackgroundJobThatHoldsTheOutputIsWaitedFor) {
    const ProcessResult result = runProcess(shell("(sleep 0.3; echo late) & echo first"));

    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, "first\nlate\n");
}

TEST(RunProcess, ABackgroundJobIsKilledAtTheTimeLimitAndTheShellsOwnStatusStays) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell("sh -c 'echo $$ > pid; exec sleep 100' & exit 0");
    options.cwd = directory.path();
    options.timeoutMs = 4000;

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, 0);
    const pid_t job = pidIn(directory / "pid");
    EXPECT_TRUE(test::waitUntil([job] {
        // Nobody may have reaped it yet, but dead it must be.
        std::ifstream status("/proc/" + std::to_string(job) + "/stat");
        std::string text;
        return !std::getline(status, text) || text.find(") Z ") != std::string::npos;
    }));
}

TEST(RunProcess, ABackgroundJobWithoutTheOutputIsNotWaitedFor) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell("sh -c 'echo $$ > pid; exec sleep 100' >/dev/null 2>&1 & echo out");
    options.cwd = directory.path();
    const EscapedProcess cleanUp(directory / "pid");

    const ProcessResult result = runProcess(options);

    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.stdoutText, "out\n");
}

TEST(RunProcess, ADescendantThatLeftTheGroupDoesNotDelayTheEndOfATimeout) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell(escape("pid", "sleep 100") + "echo kept; exit 5");
    options.cwd = directory.path();
    options.timeoutMs = 4000;
    const EscapedProcess cleanUp(directory / "pid");

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, 5);
    EXPECT_EQ(result.stdoutText, "kept\n");
    EXPECT_LT(result.durationMs, 20'000);
}

TEST(RunProcess, ADescendantThatGoesOnWritingForEverDoesNotDelayTheEndOfATimeout) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell(escape("pid", "yes") + "exit 0");
    options.cwd = directory.path();
    options.timeoutMs = 4000;
    const EscapedProcess cleanUp(directory / "pid");

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_TRUE(result.truncated);
    EXPECT_EQ(result.stdoutText.size(), options.maxOutputBytes);
    EXPECT_LT(result.durationMs, 20'000);
}

TEST(RunProcess, AKillEndsARunWhoseLeaderHasGoneAndWhoseOutputIsHeldFromOutsideTheGroup) {
    const TemporaryDirectory directory;
    ProcessOptions options = shell(escape("pid", "sleep 100") + "exit 6");
    options.cwd = directory.path();
    const EscapedProcess cleanUp(directory / "pid");
    const auto control = std::make_shared<ProcessControl>();
    std::jthread killer([&] {
        pidIn(directory / "pid");
        control->kill();
    });

    const ProcessResult result = runProcess(options, control);

    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.timedOut);
    EXPECT_LT(result.durationMs, 20'000);
}

TEST(RunProcess, WithoutPipesNothingStarts) {
    withRefusedCalls({{SYS_pipe2, EMFILE}}, [] {
        const ProcessResult result = runProcess(shell("true"));

        EXPECT_FALSE(result.started);
        EXPECT_EQ(result.error, "无法创建管道");
        EXPECT_EQ(result.exitCode, -1);
        EXPECT_EQ(result.executedAs, "/bin/sh -c");
    });
}

TEST(RunProcess, WithoutADescriptorToWakeByNothingStarts) {
    withRefusedCalls({{SYS_eventfd2, EMFILE}}, [] {
        EXPECT_EQ(runProcess(shell("true"), std::make_shared<ProcessControl>()).error, "无法创建管道");
        EXPECT_EQ(runProcess(shell("true")).exitCode, 0);
    });
}

TEST(RunProcess, WithoutANewProcessNothingStarts) {
    withRefusedCalls({{SYS_clone, EAGAIN}, {SYS_clone3, EAGAIN}, {SYS_fork, EAGAIN}, {SYS_vfork, EAGAIN}}, [] {
        const ProcessResult result = runProcess(shell("true"));

        EXPECT_FALSE(result.started);
        EXPECT_EQ(result.error, "fork 失败");
        EXPECT_EQ(result.exitCode, -1);
    });
}

TEST(RunProcess, AKernelWithoutProcessDescriptorsRunsEverythingTheSame) {
    withRefusedCalls({{SYS_pidfd_open, ENOSYS}}, [] {
        EXPECT_EQ(runProcess(shell("echo out; exit 7")).exitCode, 7);
        EXPECT_EQ(runProcess(shell("exec >&- 2>&-; sleep 0.2; exit 8")).exitCode, 8);
        EXPECT_EQ(runProcess(shell("sleep 0.2 & echo first")).stdoutText, "first\n");
        ProcessOptions endless = shell("exec >&- 2>&-; sleep 100");
        endless.timeoutMs = 300;
        const ProcessResult result = runProcess(endless);
        EXPECT_TRUE(result.timedOut);
        EXPECT_EQ(result.exitCode, 137);
    });
}

TEST(RunProcess, AChildThatClosedItsOutputsIsStillWaitedFor) {
    EXPECT_EQ(runProcess(shell("exec >&- 2>&-; sleep 0.2; exit 8")).exitCode, 8);
}

TEST(RunProcess, AChildThatClosedItsOutputsIsKilledAtTheTimeLimit) {
    ProcessOptions options = shell("exec >&- 2>&-; sleep 100");
    options.timeoutMs = 300;

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.timedOut);
    EXPECT_EQ(result.exitCode, 137);
}

TEST(RunProcess, AKernelWithoutMemoryToWaitWithGivesUpTheOutputButNotTheStatus) {
    withRefusedCalls({{SYS_poll, ENOMEM}, {SYS_ppoll, ENOMEM}}, [] {
        EXPECT_EQ(runProcess(shell("sleep 0.1; exit 3")).exitCode, 3);
        ProcessOptions endless = shell("sleep 100");
        endless.timeoutMs = 300;
        EXPECT_TRUE(runProcess(endless).timedOut);
    });
}

TEST(RunProcess, TheTimeLimitHoldsForAProgramThatCannotBeReached) {
    test::withHangingCall(SYS_execve, [] {
        ProcessOptions options = shell("true");
        options.timeoutMs = 300;

        const ProcessResult result = runProcess(options, std::make_shared<ProcessControl>());

        EXPECT_TRUE(result.timedOut);
        EXPECT_FALSE(result.cancelled);
        EXPECT_EQ(result.exitCode, 137);
        EXPECT_LT(result.durationMs, 20'000);
    });
}

TEST(RunProcess, AKillReachesAChildThatCannotReachItsProgram) {
    for (const int call : {SYS_execve, SYS_chdir}) {
        test::withHangingCall(call, [] {
            ProcessOptions options = shell("true");
            options.cwd = "/";
            const auto control = std::make_shared<ProcessControl>();
            std::jthread killer([&] { control->kill(); });

            const ProcessResult result = runProcess(options, control);

            EXPECT_TRUE(result.cancelled);
            EXPECT_EQ(result.exitCode, 137);
            EXPECT_LT(result.durationMs, 20'000);
        });
    }
}

std::atomic<int> signalsTaken{0};

/// A handler of SIGUSR1 that lets system calls fail with EINTR, while the object exists.
class InterruptingHandler {
public:
    InterruptingHandler() {
        struct sigaction handler {};
        handler.sa_handler = [](int) { ++signalsTaken; };
        EXPECT_EQ(::sigaction(SIGUSR1, &handler, &before_), 0);
    }
    ~InterruptingHandler() { EXPECT_EQ(::sigaction(SIGUSR1, &before_, nullptr), 0); }
    InterruptingHandler(const InterruptingHandler&) = delete;
    InterruptingHandler& operator=(const InterruptingHandler&) = delete;

private:
    struct sigaction before_ {};
};

TEST(RunProcess, SignalsDoNotCutItShort) {
    const InterruptingHandler handler;
    std::jthread interrupter([runner = ::pthread_self()](const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            ::pthread_kill(runner, SIGUSR1);
            std::this_thread::yield();
        }
    });

    const ProcessResult result = runProcess(shell("echo early; sleep 0.3; echo late; exit 3"));

    interrupter.request_stop();
    interrupter.join();
    EXPECT_GT(signalsTaken, 0);
    EXPECT_EQ(result.stdoutText, "early\nlate\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_FALSE(result.timedOut);
}

TEST(RunProcess, ManyRunsAtOnceKeepTheirOutputsApart) {
    std::vector<std::jthread> threads;
    threads.reserve(16);
    for (int index = 0; index < 16; ++index) {
        threads.emplace_back([index] {
            for (int round = 0; round < 5; ++round) {
                const std::string text = std::to_string(index * 100 + round);
                EXPECT_EQ(runProcess(shell("echo " + text)).stdoutText, text + "\n");
            }
        });
    }
}

}  // namespace
}  // namespace qm
