#include "device/terminal_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <future>
#include <mutex>
#include <new>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "device/failing_allocations.h"
#include "device/process_host.h"
#include "device/process_test_support.h"
#include "device/refused_system_calls.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/json.h"

namespace qm {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::shell;
using test::waitUntil;

constexpr std::int64_t kLongMs = 20'000;
const std::stop_token kNoStop;

ProcessResult exited(std::string output) {
    ProcessResult result;
    result.started = true;
    result.exitCode = 0;
    result.stdoutText = std::move(output);
    return result;
}

/// A runner that gives the result it is told to.
TerminalService::Runner giving(const ProcessResult& result) {
    return [result](const ProcessOptions&, const std::shared_ptr<ProcessControl>&) { return result; };
}

std::string start(TerminalService& terminal, const std::string& command, const std::string& owner = "") {
    return terminal.start(shell(command), "ws_test", command, owner);
}

json endOf(TerminalService& terminal, const std::string& id) {
    EXPECT_TRUE(terminal.waitFor(id, kLongMs, kNoStop, ""));
    return terminal.snapshot(id, 0, "").record;
}

std::size_t entriesOf(const char* directory) {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()));
}

TEST(TerminalService, ACommandRunsFromItsStartAndKeepsItsResult) {
    TerminalService terminal;

    const std::string id = start(terminal, "echo out; echo err >&2; exit 3");

    EXPECT_THAT(id, testing::MatchesRegex("cmd_[0-9a-z]{10}"));
    const json record = endOf(terminal, id);
    EXPECT_EQ(record["commandId"], id);
    EXPECT_EQ(record["command"], "echo out; echo err >&2; exit 3");
    EXPECT_EQ(record["state"], "EXITED");
    EXPECT_EQ(record["exitCode"], 3);
    EXPECT_EQ(record["stdout"], "out\n");
    EXPECT_EQ(record["stderr"], "err\n");
    EXPECT_EQ(record["truncated"], false);
    EXPECT_GE(record["durationMs"].get<int>(), 0);
    EXPECT_EQ(record["executedAs"], "/bin/sh -c");
    EXPECT_EQ(record["nextOffsetBytes"], 4);
    EXPECT_EQ(record.size(), 10U) << record;
}

TEST(TerminalService, ARunningCommandShowsNoOutput) {
    TerminalService terminal;
    const std::string id = start(terminal, "echo early; sleep 60");

    const json record = terminal.snapshot(id, 0, "").record;

    EXPECT_EQ(record["state"], "RUNNING");
    EXPECT_EQ(record["exitCode"], -1);
    EXPECT_EQ(record["stdout"], "");
    EXPECT_EQ(record["nextOffsetBytes"], 0);
    EXPECT_EQ(record["executedAs"], "");
}

TEST(TerminalService, TheEndOfARunGivesItsState) {
    struct Case {
        bool started, cancelled, timedOut;
        const char* state;
    };
    for (const Case& expected : {Case{false, true, true, "FAILED"}, Case{true, true, true, "KILLED"},
                                 Case{true, false, true, "TIMEOUT"}, Case{true, false, false, "EXITED"}}) {
        ProcessResult result;
        result.started = expected.started;
        result.cancelled = expected.cancelled;
        result.timedOut = expected.timedOut;
        TerminalService terminal(giving(result));

        EXPECT_EQ(endOf(terminal, start(terminal, "x"))["state"], expected.state);
    }
}

TEST(TerminalService, AnErrorStandsInTheRecordOnlyIfThereIsOne) {
    ProcessResult failed;
    failed.error = "fork 失败";
    TerminalService terminal(giving(failed));

    const json record = endOf(terminal, start(terminal, "x"));

    EXPECT_EQ(record["error"], "fork 失败");
    EXPECT_EQ(record["state"], "FAILED");
}

TEST(TerminalService, AnExceptionOfTheRunIsAFailedCommand) {
    TerminalService terminal([](const ProcessOptions& options, const auto&) -> ProcessResult {
        if (options.command == "known") throw std::runtime_error("no luck");
        throw 7;  // NOLINT: what isn't a std::exception must be caught as well.
    });

    const json known = endOf(terminal, start(terminal, "known"));
    const json unknown = endOf(terminal, start(terminal, "unknown"));

    EXPECT_EQ(known["error"], "process host failure: no luck");
    EXPECT_EQ(unknown["error"], "unknown process host failure");
    EXPECT_EQ(known["state"], "FAILED");
    EXPECT_EQ(unknown["state"], "FAILED");
}

TEST(TerminalService, WithoutAThreadNothingIsStartedAndNothingIsWaitedFor) {
    test::withRefusedCalls({{SYS_clone3, EAGAIN}, {SYS_clone, EAGAIN}}, [] {
        TerminalService terminal;

        EXPECT_THROW(start(terminal, "true"), std::system_error);

        EXPECT_EQ(terminal.list(), json::array());
        terminal.shutdown();
    });
}

TEST(TerminalService, WithoutMemoryNothingIsStartedAndNothingIsWaitedFor) {
    // What only the first start on a thread allocates mustn't shift the count.
    TerminalService first(giving(exited("")));
    start(first, "x");
    bool started = false;
    std::int64_t allocations = 0;
    // Each of the start's allocations fails once.
    for (; !started; ++allocations) {
        TerminalService terminal(giving(exited("")));
        ProcessOptions options = shell("a command that is too long to be kept without an allocation");
        test::allowAllocations(allocations);
        try {
            terminal.start(std::move(options), "ws_test", "x", "");
            started = true;
        } catch (const std::bad_alloc&) {
            started = false;
        }
        test::allowAllAllocations();

        EXPECT_EQ(terminal.list().size(), started ? 1U : 0U) << allocations;
        terminal.shutdown();
    }
    EXPECT_GT(allocations, 3) << "of the record, its entry and its thread";
}

TEST(TerminalService, ARunThatEndsForWantOfMemoryIsAFailedCommandAlsoIfThereIsNoneForWords) {
    TerminalService terminal([](const ProcessOptions&, const auto&) -> ProcessResult {
        test::allowAllocations(0);  // On the command's own thread, to its end.
        throw std::bad_alloc();
    });

    const json record = endOf(terminal, start(terminal, "x"));

    EXPECT_EQ(record["state"], "FAILED");
    EXPECT_FALSE(record.contains("error"));
}

TEST(TerminalService, OutputIsReadFromAnOffset) {
    ProcessResult result = exited("ab\xC3\xA9z");
    result.stderrText = "whole";
    TerminalService terminal(giving(result));
    const std::string id = start(terminal, "x");
    endOf(terminal, id);
    const auto outputFrom = [&](std::int64_t offset) { return terminal.snapshot(id, offset, "").record; };

    EXPECT_EQ(outputFrom(0)["stdout"], "ab\xC3\xA9z");
    EXPECT_EQ(outputFrom(2)["stdout"], "\xC3\xA9z");
    EXPECT_EQ(outputFrom(4)["stdout"], "z");
    EXPECT_EQ(outputFrom(5)["stdout"], "");
    EXPECT_EQ(outputFrom(6)["stdout"], "");
    EXPECT_EQ(outputFrom(INT64_MAX)["stdout"], "");
    EXPECT_EQ(outputFrom(-1)["stdout"], "ab\xC3\xA9z");
    EXPECT_EQ(outputFrom(INT64_MIN)["stdout"], "ab\xC3\xA9z");
    EXPECT_EQ(outputFrom(5)["stderr"], "whole");
    EXPECT_EQ(outputFrom(5)["nextOffsetBytes"], 5);
    // Cut inside a character it still makes an answer.
    EXPECT_THAT(dumpJson(outputFrom(3)), testing::HasSubstr("\"stdout\":\"\xEF\xBF\xBDz\""));
}

TEST(TerminalService, AnUnknownIdIsAnError) {
    TerminalService terminal;

    EXPECT_EQ(terminal.snapshot("cmd_nothing", 0, "").record, json({{"error", "未知的 commandId：cmd_nothing"}}));
    EXPECT_FALSE(terminal.kill("cmd_nothing", ""));
    EXPECT_TRUE(terminal.waitFor("cmd_nothing", kLongMs, kNoStop, ""));
}

TEST(TerminalService, ACommandExistsForItsOwnerAndForThoseWhoNameNone) {
    TerminalService terminal;
    const std::string id = start(terminal, "sleep 60", "task_a");

    EXPECT_EQ(terminal.snapshot(id, 0, "task_b").record, json({{"error", "未知的 commandId：" + id}}));
    EXPECT_FALSE(terminal.kill(id, "task_b"));
    EXPECT_TRUE(terminal.waitFor(id, kLongMs, kNoStop, "task_b"));
    EXPECT_EQ(terminal.snapshot(id, 0, "task_a").record["state"], "RUNNING");
    EXPECT_EQ(terminal.snapshot(id, 0, "").record["state"], "RUNNING");
    EXPECT_TRUE(terminal.kill(id, "task_a"));
    EXPECT_EQ(endOf(terminal, id)["state"], "KILLED");
}

TEST(TerminalService, ALookTellsWhetherThereIsSuchACommandAndWhetherItRuns) {
    ProcessResult failed;
    failed.error = "fork 失败";
    std::promise<void> go;
    TerminalService terminal([&](const ProcessOptions&, const auto&) {
        go.get_future().wait();
        return failed;
    });
    const std::string id = start(terminal, "x");

    const CommandSnapshot before = terminal.snapshot(id, 0, "");
    go.set_value();
    EXPECT_TRUE(terminal.waitFor(id, kLongMs, kNoStop, ""));
    const CommandSnapshot after = terminal.snapshot(id, 0, "");
    const CommandSnapshot unknown = terminal.snapshot("cmd_nothing", 0, "");

    EXPECT_TRUE(before.known);
    EXPECT_TRUE(before.running);
    EXPECT_TRUE(after.known);
    EXPECT_FALSE(after.running);
    EXPECT_FALSE(unknown.known);
    EXPECT_FALSE(unknown.running);
}

TEST(TerminalService, ACommandWithoutOwnerIsHiddenFromTasks) {
    TerminalService terminal(giving(exited("")));
    const std::string id = start(terminal, "x");

    EXPECT_TRUE(terminal.snapshot(id, 0, "task_a").record.contains("error"));
}

TEST(TerminalService, WaitingGivesUpAtItsLimit) {
    TerminalService terminal;
    const std::string id = start(terminal, "sleep 60");
    const auto begin = steady_clock::now();

    EXPECT_FALSE(terminal.waitFor(id, 200, kNoStop, ""));

    EXPECT_GE(steady_clock::now() - begin, milliseconds(200));
    EXPECT_FALSE(terminal.waitFor(id, 0, kNoStop, ""));
    EXPECT_FALSE(terminal.waitFor(id, -5, kNoStop, ""));
}

TEST(TerminalService, EveryWaiterWakesWhenTheCommandEnds) {
    std::promise<void> go;
    TerminalService terminal([&](const ProcessOptions&, const auto&) {
        go.get_future().wait();
        return exited("");
    });
    const std::string id = start(terminal, "x");
    std::vector<std::future<bool>> waiters(8);
    for (auto& waiter : waiters)
        waiter = std::async(std::launch::async, [&] { return terminal.waitFor(id, INT64_MAX, kNoStop, ""); });

    go.set_value();

    for (auto& waiter : waiters)
        EXPECT_TRUE(waiter.get());
}

TEST(TerminalService, ARaisedStopTokenKillsTheCommandAndItsEndIsAwaited) {
    TerminalService terminal;
    const std::string id = start(terminal, "sleep 60");
    std::stop_source source;
    std::jthread stopper([&] { source.request_stop(); });

    EXPECT_TRUE(terminal.waitFor(id, kLongMs, source.get_token(), ""));

    EXPECT_EQ(terminal.snapshot(id, 0, "").record["state"], "KILLED");
}

TEST(TerminalService, AStopTokenRaisedBeforehandDoesTheSame) {
    TerminalService terminal;
    const std::string id = start(terminal, "sleep 60");
    std::stop_source source;
    source.request_stop();

    EXPECT_TRUE(terminal.waitFor(id, kLongMs, source.get_token(), ""));

    EXPECT_EQ(terminal.snapshot(id, 0, "").record["state"], "KILLED");
}

TEST(TerminalService, AStopTokenOfSomebodyWhoCannotSeeTheCommandKillsNothing) {
    TerminalService terminal;
    const std::string id = start(terminal, "sleep 60", "task_a");
    std::stop_source source;
    source.request_stop();

    EXPECT_TRUE(terminal.waitFor(id, kLongMs, source.get_token(), "task_b"));

    EXPECT_EQ(terminal.snapshot(id, 0, "").record["state"], "RUNNING");
}

TEST(TerminalService, AKilledCommandKeepsWhatItWrote) {
    const test::TemporaryDirectory directory;
    TerminalService terminal;
    ProcessOptions options = shell("echo written; echo $$ > pid; sleep 60");
    options.cwd = directory.path();
    const std::string id = terminal.start(options, "ws_test", "x", "");
    test::pidIn(directory / "pid");

    EXPECT_TRUE(terminal.kill(id, ""));

    const json record = endOf(terminal, id);
    EXPECT_EQ(record["state"], "KILLED");
    EXPECT_EQ(record["exitCode"], 137);
    EXPECT_EQ(record["stdout"], "written\n");
}

TEST(TerminalService, AKillOfAnEndedCommandChangesNothing) {
    TerminalService terminal;
    const std::string id = start(terminal, "echo out");
    const json before = endOf(terminal, id);

    EXPECT_TRUE(terminal.kill(id, ""));

    EXPECT_EQ(terminal.snapshot(id, 0, "").record, before);
}

TEST(TerminalService, AllCommandsOfATaskAreKilledAndNoOthers) {
    TerminalService terminal;
    const std::string first = start(terminal, "sleep 60", "task_a");
    const std::string second = start(terminal, "sleep 60", "task_a");
    const std::string other = start(terminal, "sleep 60", "task_b");
    const std::string nobodys = start(terminal, "sleep 60");

    terminal.killByTask("task_a");
    terminal.killByTask("");

    EXPECT_EQ(endOf(terminal, first)["state"], "KILLED");
    EXPECT_EQ(endOf(terminal, second)["state"], "KILLED");
    EXPECT_EQ(terminal.snapshot(other, 0, "").record["state"], "RUNNING");
    EXPECT_EQ(terminal.snapshot(nobodys, 0, "").record["state"], "RUNNING");
}

TEST(TerminalService, TheListHoldsRunningAndEndedCommands) {
    TerminalService terminal;
    const std::string ended = start(terminal, "true", "task_a");
    endOf(terminal, ended);
    const std::string running = start(terminal, "sleep 60");

    json list = terminal.list();

    ASSERT_EQ(list.size(), 2U);
    if (list[0]["commandId"] != ended) std::swap(list[0], list[1]);
    EXPECT_GT(list[0]["startedAtMs"].get<std::int64_t>(), 1'600'000'000'000);
    for (json& entry : list)
        entry.erase("startedAtMs");
    EXPECT_EQ(list[0],
              json({{"commandId", ended}, {"command", "true"}, {"state", "EXITED"}, {"ownerTaskId", "task_a"}}));
    EXPECT_EQ(list[1],
              json({{"commandId", running}, {"command", "sleep 60"}, {"state", "RUNNING"}, {"ownerTaskId", ""}}));
}

TEST(TerminalService, NothingStartsAfterTheShutdown) {
    TerminalService terminal;
    terminal.shutdown();

    try {
        start(terminal, "true");
        FAIL() << "it started";
    } catch (const std::runtime_error& refusal) {
        EXPECT_STREQ(refusal.what(), "process host is shutting down");
    }
    EXPECT_EQ(terminal.list(), json::array());
}

TEST(TerminalService, AShutdownMayBeAskedForManyTimes) {
    TerminalService terminal;
    start(terminal, "sleep 60");

    terminal.shutdown();
    terminal.shutdown();

    EXPECT_EQ(terminal.list()[0]["state"], "KILLED");
}

TEST(TerminalService, ADescendantThatLeftTheGroupDoesNotDelayTheShutdown) {
    const test::TemporaryDirectory directory;
    ProcessOptions options = shell("setsid sh -c 'echo $$ > pid; exec sleep 100' & wait");
    options.cwd = directory.path();
    pid_t escaped = 0;
    const auto begin = [&] {
        TerminalService terminal;
        terminal.start(options, "ws_test", "x", "");
        escaped = test::pidIn(directory / "pid");
        return steady_clock::now();
    }();

    EXPECT_LT(steady_clock::now() - begin, seconds(20));
    EXPECT_EQ(::kill(escaped, SIGKILL), 0);
}

TEST(TerminalService, AShutdownEndsHundredsOfCommandsWithTheirWaitersAndStarters) {
    constexpr int kCommands = 200;
    prepareProcessHost();
    std::atomic<int> waitersDone{0};
    std::atomic<int> refused{0};
    steady_clock::time_point begin;
    {
        TerminalService terminal;
        std::vector<std::string> ids(kCommands);
        for (auto& id : ids)
            id = start(terminal, "sleep 100 & sleep 100");
        std::vector<std::jthread> threads;
        threads.reserve(24);
        for (int index = 0; index < 20; ++index) {
            threads.emplace_back([&, id = ids[static_cast<std::size_t>(index)]] {
                if (terminal.waitFor(id, INT64_MAX, kNoStop, "")) ++waitersDone;
            });
        }
        for (int index = 0; index < 4; ++index) {
            threads.emplace_back([&] {
                try {
                    for (;;)
                        start(terminal, "sleep 100");
                } catch (const std::runtime_error&) {
                    ++refused;
                }
            });
        }
        EXPECT_TRUE(waitUntil([&] { return terminal.list().size() > kCommands + 10; }));

        begin = steady_clock::now();
        terminal.shutdown();
        for (const json& entry : terminal.list())
            EXPECT_EQ(entry["state"], "KILLED");
    }
    EXPECT_LT(steady_clock::now() - begin, seconds(20));
    EXPECT_EQ(waitersDone, 20);
    EXPECT_EQ(refused, 4);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD) << "no child is left";
}

TEST(TerminalService, HundredsOfCommandsLeaveNoThreadAndNoDescriptor) {
    prepareProcessHost();
    std::thread([] {}).join();  // A sanitizer starts a thread of its own with the first one.
    const std::size_t threads = entriesOf("/proc/self/task");
    const std::size_t descriptors = entriesOf("/proc/self/fd");
    TerminalService terminal;
    std::vector<std::string> ids(500);

    for (auto& id : ids)
        id = start(terminal, "sleep 0.05; echo done");
    for (const std::string& id : ids)
        EXPECT_EQ(endOf(terminal, id)["stdout"], "done\n");

    EXPECT_TRUE(waitUntil([&] { return entriesOf("/proc/self/task") <= threads; }));
    EXPECT_EQ(entriesOf("/proc/self/fd"), descriptors);
}

}  // namespace
}  // namespace qm
