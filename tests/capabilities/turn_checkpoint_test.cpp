// The automatic checkpoint that a turn gets before its first change to a workspace.
#include <future>
#include <stdexcept>
#include <stop_token>

#include "capabilities/blocked_thread.h"
#include "capabilities/pipeline_fixture.h"
#include "support/run_on_threads.h"
#include "support/wait_until.h"

namespace qm {
namespace {

constexpr const char* kRefusal = "无法建立 turn checkpoint，为保证可恢复性拒绝执行该写操作：";

class TurnCheckpoint : public test::PipelineTest {
protected:
    TurnCheckpoint() : handle_(openWorkspace()) { define("write", {"workspace"}); }

    runtime::ToolInvocation turn(std::int32_t round, const std::string& name = "write") const {
        auto invocation = call(name, {{"workspace", handle_}});
        invocation.runId = "run_1";
        invocation.round = round;
        return invocation;
    }

    bool runs(const runtime::ToolInvocation& invocation) { return pipeline_.invoke(invocation).contains("ran"); }

    const std::string handle_;
};

TEST_F(TurnCheckpoint, IsMadeOnceForEachRound) {
    EXPECT_TRUE(runs(turn(1)));
    EXPECT_TRUE(runs(turn(1)));
    EXPECT_TRUE(runs(turn(2)));

    EXPECT_THAT(checkpoints_, testing::ElementsAre(handle_ + ": turn 1 · run run_1", handle_ + ": turn 2 · run run_1"));
}

TEST_F(TurnCheckpoint, IsMadeForEachWorkspaceOfTheRound) {
    const auto other = openWorkspace();
    auto invocation = turn(1);
    runs(invocation);
    invocation.arguments["workspace"] = other;
    runs(invocation);
    runs(invocation);

    EXPECT_THAT(checkpoints_, testing::ElementsAre(handle_ + ": turn 1 · run run_1", other + ": turn 1 · run run_1"));
}

TEST_F(TurnCheckpoint, IsMadeForAnAdmittedWorkspaceToo) {
    auto invocation = turn(0);
    invocation.arguments = json::object();
    invocation.workspace = handle_;
    invocation.access = "write";

    EXPECT_TRUE(runs(invocation));

    EXPECT_THAT(checkpoints_, testing::ElementsAre(handle_ + ": turn 0 · run run_1"));
}

TEST_F(TurnCheckpoint, ItsLabelHasTheFirstEightCharactersOfTheRun) {
    for (const char* run : {"12345678", "123456789", "运行一二三四五六七"}) {
        auto invocation = turn(1);
        invocation.runId = run;
        runs(invocation);
    }

    EXPECT_THAT(checkpoints_,
                testing::ElementsAre(handle_ + ": turn 1 · run 12345678", handle_ + ": turn 1 · run 12345678",
                                     handle_ + ": turn 1 · run 运行一二三四五六"));
}

TEST_F(TurnCheckpoint, IsMadeForEveryEffectButReadOnly) {
    int round = 0;
    for (const char* effect : {"WRITE", "EXTERNAL_SIDE_EFFECT", "UNKNOWN", ""}) {
        define("x", json::array(), effect);
        EXPECT_TRUE(runs(turn(++round, "x")));
        EXPECT_EQ(checkpoints_.size(), static_cast<std::size_t>(round)) << effect;
    }
    define("x", json::array(), "READ_ONLY");
    EXPECT_TRUE(runs(turn(++round, "x")));
    EXPECT_EQ(checkpoints_.size(), 4U);
}

TEST_F(TurnCheckpoint, IsNotMadeByTheCapabilityThatMakesCheckpoints) {
    define("create_checkpoint");

    EXPECT_TRUE(runs(turn(1, "create_checkpoint")));

    EXPECT_THAT(checkpoints_, testing::IsEmpty());
}

TEST_F(TurnCheckpoint, NeedsARunARoundAndAWorkspace) {
    define("anywhere");
    auto withoutRun = turn(1);
    withoutRun.runId = "";
    auto withoutRound = turn(-1);
    auto withoutWorkspace = turn(1, "anywhere");
    withoutWorkspace.arguments = json::object();

    for (const auto& invocation : {withoutRun, withoutRound, withoutWorkspace})
        EXPECT_TRUE(runs(invocation));

    EXPECT_THAT(checkpoints_, testing::IsEmpty());
}

TEST_F(TurnCheckpoint, IsLeftOutWhereNothingMakesCheckpoints) {
    InvocationPipeline pipeline(registry_, workspaces_, disabled_, {});

    EXPECT_EQ(pipeline.invoke(turn(1)).at("ran"), true);
}

TEST_F(TurnCheckpoint, IsLeftOutForAWorkspaceThatIsClosedAfterTheCallWasAdmitted) {
    // The first question for the time is the key's, behind admission and before the checkpoint.
    InvocationPipeline pipeline(
        registry_, workspaces_, disabled_,
        [this](const Workspace& workspace, const std::string& label) { return checkpoint(workspace, label); },
        InvocationLimits{},
        [this] {
            workspaces_.remove(handle_);
            return now_.load();
        });
    auto invocation = turn(1);
    invocation.idempotencyKey = "key-1";

    EXPECT_EQ(pipeline.invoke(invocation).at("ran"), true);

    EXPECT_FALSE(workspaces_.find(handle_));
    EXPECT_THAT(checkpoints_, testing::IsEmpty());
}

TEST_F(TurnCheckpoint, ItsFailureRefusesTheCallAndFreesKeyAndTurn) {
    auto invocation = turn(1);
    invocation.idempotencyKey = "key-1";
    checkpointResult_ = {{"error", "磁盘已满"}, {"errorCode", "FULL"}};
    EXPECT_EQ(pipeline_.invoke(invocation), json({{"error", std::string(kRefusal) + "磁盘已满"}}));
    EXPECT_EQ(handlerRuns_, 0);

    checkpointResult_ = {{"checkpoint", "ck_1"}};
    EXPECT_TRUE(runs(invocation));

    EXPECT_EQ(checkpoints_.size(), 2U);
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(TurnCheckpoint, AnErrorThatIsNoTextIsShownAsJson) {
    checkpointResult_ = {{"error", {{"code", 7}}}};

    EXPECT_EQ(pipeline_.invoke(turn(1)), json({{"error", std::string(kRefusal) + R"({"code":7})"}}));
}

TEST_F(TurnCheckpoint, AResultThatIsNoObjectIsNoFailure) {
    checkpointResult_ = "error";

    EXPECT_TRUE(runs(turn(1)));
}

/// A pipeline whose checkpoints the test makes itself.
class ScriptedCheckpoint : public TurnCheckpoint {
protected:
    InvocationPipeline withCheckpointer(std::function<json()> make) {
        return InvocationPipeline(
            registry_, workspaces_, disabled_,
            [make = std::move(make)](const Workspace&, const std::string&) { return make(); }, InvocationLimits{},
            [this] { return now_.load(); });
    }
};

TEST_F(ScriptedCheckpoint, AnExceptionCountsAsItsFailure) {
    auto pipeline = withCheckpointer([]() -> json { throw std::runtime_error("no disk"); });

    EXPECT_EQ(pipeline.invoke(turn(1)), json({{"error", std::string(kRefusal) + "no disk"}}));
    EXPECT_EQ(handlerRuns_, 0);
}

TEST_F(ScriptedCheckpoint, WhateverItThrowsKeyAndTurnAreFreeAgain) {
    int calls = 0;
    auto pipeline = withCheckpointer([&]() -> json {
        if (++calls == 1) throw 42;
        return json::object();
    });
    auto invocation = turn(1);
    invocation.idempotencyKey = "key-1";
    EXPECT_THROW(pipeline.invoke(invocation), int);

    EXPECT_EQ(pipeline.invoke(invocation).at("ran"), true);
    EXPECT_EQ(calls, 2);
}

TEST_F(ScriptedCheckpoint, IsMadeWithNoLockHeld) {
    InvocationPipeline* self = nullptr;
    json inner;
    auto pipeline = withCheckpointer([&] {
        registry_.replaceProvider("pack", {});
        disabled_.set("nothing", false);
        auto other = turn(1);
        other.runId = "another run";
        other.round = -1;
        other.idempotencyKey = "other key";
        inner = self->invoke(other);
        return json::object();
    });
    self = &pipeline;

    EXPECT_EQ(pipeline.invoke(turn(1)).at("ran"), true);
    EXPECT_EQ(inner.at("ran"), true);
}

/// A call of the same turn that comes while the checkpoint of the first one is being made.
class ContendedCheckpoint : public ScriptedCheckpoint {
protected:
    /// Starts a call that makes the checkpoint and a second one that has to wait for it.
    void startBoth(const std::stop_token& secondsStop = {}) {
        first_ = std::async(std::launch::async, [this] { return contended_.invoke(turn(1)); });
        started_.get_future().wait();
        second_ = std::async(std::launch::async, [this, secondsStop] {
            secondThread_ = test::currentThreadId();
            auto invocation = turn(1);
            invocation.idempotencyKey = "key-2";
            invocation.stopToken = secondsStop;
            return contended_.invoke(invocation);
        });
        EXPECT_TRUE(test::waitUntil([&] { return secondThread_ != 0 && test::isBlocked(secondThread_); }));
    }

    std::atomic<int> made_ = 0;
    std::promise<void> started_;
    std::promise<json> outcome_;  ///< What becomes of the first checkpoint.
    InvocationPipeline contended_ = withCheckpointer([this] {
        if (++made_ > 1) return json::object();
        started_.set_value();
        return outcome_.get_future().get();
    });
    std::atomic<pid_t> secondThread_ = 0;
    std::future<json> first_;
    std::future<json> second_;
};

TEST_F(ContendedCheckpoint, TheSecondCallWaitsForItAndThenRuns) {
    startBoth();
    EXPECT_EQ(handlerRuns_, 0);

    outcome_.set_value(json::object());

    EXPECT_EQ(first_.get().at("ran"), true);
    EXPECT_EQ(second_.get().at("ran"), true);
    EXPECT_EQ(made_, 1);
}

TEST_F(ContendedCheckpoint, IfItFailsTheSecondCallMakesOneOfItsOwn) {
    startBoth();

    outcome_.set_value({{"error", "no space"}});

    EXPECT_EQ(first_.get(), json({{"error", std::string(kRefusal) + "no space"}}));
    EXPECT_EQ(second_.get().at("ran"), true);
    EXPECT_EQ(made_, 2);
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(ContendedCheckpoint, ASecondCallThatIsCancelledWhileItWaitsDoesNotRunAndFreesItsKey) {
    std::stop_source stop;
    startBoth(stop.get_token());

    stop.request_stop();

    EXPECT_EQ(second_.get(),
              json({{"error", "task was cancelled before capability execution"}, {"errorCode", "TASK_CANCELLED"}}));
    EXPECT_EQ(handlerRuns_, 0);
    outcome_.set_value(json::object());
    EXPECT_EQ(first_.get().at("ran"), true);
    auto retry = turn(1);
    retry.idempotencyKey = "key-2";
    EXPECT_EQ(contended_.invoke(retry).contains("deduplicated"), false);
    EXPECT_EQ(handlerRuns_, 2);
}

TEST_F(ContendedCheckpoint, AReadOnlyCallOfTheTurnDoesNotWait) {
    define("read", json::array(), "READ_ONLY");
    startBoth();

    EXPECT_EQ(contended_.invoke(turn(1, "read")).at("ran"), true);

    outcome_.set_value(json::object());
    EXPECT_EQ(first_.get().at("ran"), true);
    EXPECT_EQ(second_.get().at("ran"), true);
}

TEST_F(TurnCheckpoint, OfManyThreadsInOneTurnOneMakesItBeforeAnyHandlerRuns) {
    std::atomic<bool> early = false;
    define("x", [&](const json&) {
        const std::lock_guard lock(checkpointMutex_);
        if (checkpoints_.empty()) early = true;
        return json{{"ran", true}};
    });
    std::atomic<int> ran = 0;

    test::runOnThreads(16, [&](std::size_t) {
        if (runs(turn(1, "x"))) ++ran;
    });

    EXPECT_EQ(ran, 16);
    EXPECT_FALSE(early);
    EXPECT_EQ(checkpoints_.size(), 1U);
}

}  // namespace
}  // namespace qm
