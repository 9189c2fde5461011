#include "capabilities/invocation_pipeline.h"

#include <future>
#include <stdexcept>

#include "capabilities/pipeline_fixture.h"
#include "support/run_on_threads.h"

namespace qm {
namespace {

using Pipeline = test::PipelineTest;

const json kDuplicate = {
    {"error", "This invocation is already executing on this device (duplicate idempotency key key-1)."}};

struct Silent : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

TEST_F(Pipeline, TheHandlerGetsTheArgumentsAndItsResultIsTheAnswer) {
    define("x");

    EXPECT_EQ(pipeline_.invoke(call("x", {{"a", 1}})), json::parse(R"({"ran": true, "arguments": {"a": 1}})"));
}

TEST_F(Pipeline, ArgumentsThatAreNoObjectReachTheHandlerAsAnEmptyOne) {
    define("x");

    for (const json& arguments : {json(), json("text"), json::array({1})}) {
        EXPECT_EQ(pipeline_.invoke(call("x", arguments)).at("arguments"), json::object());
    }
}

TEST_F(Pipeline, TheHandlerThatTakesTheInvocationComesFirst) {
    CapabilityDef definition;
    definition.name = "x";
    definition.handler = [](const json&) { return json("plain"); };
    definition.invocationHandler = [](const runtime::ToolInvocation&) { return json("contextual"); };
    registry_.registerCapability(definition);

    EXPECT_EQ(pipeline_.invoke(call("x")), "contextual");
}

TEST_F(Pipeline, TheFirstEntryOfTheNameInTableOrderRuns) {
    define("x");
    CapabilityDef later;
    later.name = "x";
    later.provider = "pack";
    later.handler = [](const json&) { return json("later"); };
    registry_.replaceProvider("pack", {later});

    EXPECT_EQ(pipeline_.invoke(call("x")).at("ran"), true);
}

TEST_F(Pipeline, TheHandlerSeesTheWholeContextOfItsInvocation) {
    runtime::ToolInvocation seen;
    CapabilityDef definition;
    definition.name = "x";
    definition.invocationHandler = [&](const runtime::ToolInvocation& invocation) {
        seen = invocation;
        return json();
    };
    registry_.registerCapability(definition);
    std::stop_source stop;
    auto invocation = call("x", {{"a", 1}});
    invocation.idempotencyKey = "k";
    invocation.sessionId = "s";
    invocation.runId = "r";
    invocation.taskId = "t";
    invocation.round = 4;
    invocation.deadlineAtMs = kNow + 1;
    invocation.resultBytes = 1;
    invocation.stdoutBytes = 2;
    invocation.stderrBytes = 3;
    invocation.stopToken = stop.get_token();

    pipeline_.invoke(invocation);

    EXPECT_EQ(seen.name, "x");
    EXPECT_EQ(seen.arguments, json({{"a", 1}}));
    EXPECT_EQ(seen.idempotencyKey, "k");
    EXPECT_EQ(seen.sessionId, "s");
    EXPECT_EQ(seen.runId, "r");
    EXPECT_EQ(seen.taskId, "t");
    EXPECT_EQ(seen.access, "none");
    EXPECT_EQ(seen.round, 4);
    EXPECT_EQ(seen.deadlineAtMs, kNow + 1);
    EXPECT_EQ(seen.resultBytes, 1U);
    EXPECT_EQ(seen.stdoutBytes, 2U);
    EXPECT_EQ(seen.stderrBytes, 3U);
    EXPECT_EQ(seen.stopToken, stop.get_token());
}

class EffectiveWorkspace : public test::PipelineTest {
protected:
    EffectiveWorkspace() {
        CapabilityDef definition;
        definition.name = "x";
        definition.effect = "READ_ONLY";
        definition.invocationHandler = [](const runtime::ToolInvocation& invocation) {
            return json{{"field", invocation.workspace}, {"arguments", invocation.arguments}};
        };
        registry_.registerCapability(definition);
    }
};

TEST_F(EffectiveWorkspace, AnAdmittedOneIsWrittenIntoTheArguments) {
    auto invocation = call("x");
    invocation.workspace = openWorkspace();
    invocation.access = "read";
    const json expected = {{"field", invocation.workspace}, {"arguments", {{"workspace", invocation.workspace}}}};

    EXPECT_EQ(pipeline_.invoke(invocation), expected);
    invocation.arguments["workspace"] = "";
    EXPECT_EQ(pipeline_.invoke(invocation), expected);
    invocation.arguments["workspace"] = invocation.workspace;
    EXPECT_EQ(pipeline_.invoke(invocation), expected);
    invocation.arguments = "no object";
    EXPECT_EQ(pipeline_.invoke(invocation), expected);
}

TEST_F(EffectiveWorkspace, OneThatOnlyTheArgumentsNameStandsInTheInvocationToo) {
    const auto handle = openWorkspace();

    EXPECT_EQ(pipeline_.invoke(call("x", {{"workspace", handle}})).at("field"), handle);
}

TEST_F(EffectiveWorkspace, WithoutAnyTheArgumentsStayAsTheyAre) {
    EXPECT_EQ(pipeline_.invoke(call("x")), json::parse(R"({"field": "", "arguments": {}})"));
}

TEST_F(EffectiveWorkspace, WithoutAnAdmittedOneTheAccessIsNotExamined) {
    auto invocation = call("x", {{"workspace", openWorkspace()}});
    invocation.access = "nonsense";

    EXPECT_EQ(pipeline_.invoke(invocation).contains("error"), false);
}

TEST_F(Pipeline, TheJsonEntryPassesNameArgumentsAndContextOn) {
    define("x", {"workspace"});
    const auto handle = openWorkspace();

    EXPECT_EQ(pipeline_.invoke("x", {{"a", 1}}, {{"workspace", {{"id", handle}}}, {"access", "write"}}).at("arguments"),
              json({{"a", 1}, {"workspace", handle}}));
    EXPECT_EQ(pipeline_.invoke("x", json(), json()).at("errorCode"), "WORKSPACE_REQUIRED");
    EXPECT_EQ(pipeline_.invoke("x", json(), {{"deadlineAtMs", 1}}).at("errorCode"), "DEADLINE_EXCEEDED");
    EXPECT_THROW(pipeline_.invoke("x", json(), {{"round", "1"}}), json::type_error);
}

TEST_F(Pipeline, AnExceptionOfTheHandlerIsAResultWithItsText) {
    define("x", [](const json&) -> json { throw std::runtime_error("disk on fire"); });

    EXPECT_EQ(pipeline_.invoke(call("x")), json({{"error", "disk on fire"}}));
}

TEST_F(Pipeline, AnExceptionWithoutATextIsAFailedExecution) {
    define("x", [](const json&) -> json { throw Silent(); });

    EXPECT_EQ(pipeline_.invoke(call("x")), json({{"error", "execution failed"}}));
}

TEST_F(Pipeline, ACapabilityWithoutAHandlerFailsLikeAHandlerThatThrows) {
    CapabilityDef definition;
    definition.name = "x";
    registry_.registerCapability(definition);

    EXPECT_EQ(pipeline_.invoke(call("x")), json({{"error", std::bad_function_call().what()}}));
}

TEST_F(Pipeline, ADisabledCapabilityRunsAgainOnceItIsEnabled) {
    define("x");
    disabled_.set("x", false);
    EXPECT_EQ(pipeline_.invoke(call("x")).at("errorCode"), "CAPABILITY_DISABLED");

    disabled_.replaceAll({});

    EXPECT_EQ(pipeline_.invoke(call("x")).at("ran"), true);
}

class Idempotency : public test::PipelineTest {
protected:
    static runtime::ToolInvocation keyed(const std::string& name) {
        auto invocation = call(name);
        invocation.idempotencyKey = "key-1";
        return invocation;
    }
};

TEST_F(Idempotency, ARetryGetsTheFirstResultMarkedAndTheHandlerDoesNotRun) {
    define("x");
    const json first = pipeline_.invoke(keyed("x"));
    EXPECT_FALSE(first.contains("deduplicated"));

    json expected = first;
    expected["deduplicated"] = true;
    EXPECT_EQ(pipeline_.invoke(keyed("x")), expected);
    EXPECT_EQ(pipeline_.invoke(keyed("x")), expected);
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(Idempotency, AResultThatIsNoObjectIsRepeatedUnmarked) {
    define("x", [](const json&) { return json::array({1, 2}); });
    pipeline_.invoke(keyed("x"));

    EXPECT_EQ(pipeline_.invoke(keyed("x")), json::array({1, 2}));
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(Idempotency, AFailureIsRepeatedToo) {
    define("x", [](const json&) -> json { throw std::runtime_error("once is enough"); });
    pipeline_.invoke(keyed("x"));

    EXPECT_EQ(pipeline_.invoke(keyed("x")), json({{"error", "once is enough"}, {"deduplicated", true}}));
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(Idempotency, TheKeyAloneCountsNotTheCapability) {
    define("x");
    define("y");
    pipeline_.invoke(keyed("x"));

    EXPECT_EQ(pipeline_.invoke(keyed("y")).at("deduplicated"), true);
}

TEST_F(Idempotency, WithoutAKeyEveryCallRuns) {
    define("x");

    pipeline_.invoke(call("x"));
    pipeline_.invoke(call("x"));

    EXPECT_EQ(handlerRuns_, 2);
}

TEST_F(Idempotency, ARefusalLeavesTheKeyFree) {
    EXPECT_EQ(pipeline_.invoke(keyed("x")).at("errorCode"), "UNKNOWN_CAPABILITY");
    define("x");

    EXPECT_EQ(pipeline_.invoke(keyed("x")).at("ran"), true);
}

TEST_F(Idempotency, AnHourAfterItsLastUseTheKeyIsForgotten) {
    define("x");
    pipeline_.invoke(keyed("x"));

    now_ = kNow + 3'600'000;
    EXPECT_EQ(pipeline_.invoke(keyed("x")).contains("deduplicated"), true);
    now_ = kNow + std::int64_t{2} * 3'600'000 + 1;
    EXPECT_EQ(pipeline_.invoke(keyed("x")).contains("deduplicated"), false);
}

TEST_F(Idempotency, TheHourBeginsWhenTheHandlerEnds) {
    define("x", [this](const json&) {
        now_ = kNow + 1000;
        return json::object();
    });
    pipeline_.invoke(keyed("x"));

    now_ = kNow + 1000 + 3'600'000;
    EXPECT_EQ(pipeline_.invoke(keyed("x")).contains("deduplicated"), true);
}

TEST_F(Idempotency, WhileTheFirstCallRunsASecondIsADuplicateAndAfterwardsARetry) {
    std::promise<void> started;
    std::promise<void> finish;
    define("x", [&](const json&) {
        started.set_value();
        finish.get_future().wait();
        return json{{"first", true}};
    });
    auto first = std::async(std::launch::async, [&] { return pipeline_.invoke(keyed("x")); });
    started.get_future().wait();

    EXPECT_EQ(pipeline_.invoke(keyed("x")), kDuplicate);
    finish.set_value();

    EXPECT_EQ(first.get(), json({{"first", true}}));
    EXPECT_EQ(pipeline_.invoke(keyed("x")), json({{"first", true}, {"deduplicated", true}}));
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(Idempotency, AnExceptionThatIsNoStandardOneReachesTheCallerAndTheKeyStaysInFlight) {
    define("x", [](const json&) -> json { throw 42; });

    EXPECT_THROW(pipeline_.invoke(keyed("x")), int);

    EXPECT_EQ(pipeline_.invoke(keyed("x")), kDuplicate);
    EXPECT_EQ(handlerRuns_, 1);
}

TEST_F(Idempotency, OfSixtyFourThreadsWithOneKeyOneRunsTheHandler) {
    constexpr std::size_t kThreads = 64;
    define("x", [](const json&) { return json{{"ran", true}}; });
    std::vector<json> results(kThreads);

    test::runOnThreads(kThreads, [&](std::size_t number) { results[number] = pipeline_.invoke(keyed("x")); });

    const json ran = {{"ran", true}};
    const json retried = {{"ran", true}, {"deduplicated", true}};
    EXPECT_EQ(handlerRuns_, 1);
    EXPECT_EQ(std::count(results.begin(), results.end(), ran), 1);
    EXPECT_EQ(
        std::count(results.begin(), results.end(), retried) + std::count(results.begin(), results.end(), kDuplicate),
        std::ptrdiff_t{kThreads} - 1);
}

TEST_F(Pipeline, AReplacedDefinitionFinishesTheCallThatIsRunningOnIt) {
    std::promise<void> started;
    std::promise<void> finish;
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owned;
    CapabilityDef old;
    old.name = "x";
    old.provider = "pack";
    old.handler = [&, owned = std::move(owned)](const json&) {
        started.set_value();
        finish.get_future().wait();
        return json{{"old", *owned}};
    };
    registry_.replaceProvider("pack", {old});
    old = {};
    auto running = std::async(std::launch::async, [&] { return pipeline_.invoke(call("x")); });
    started.get_future().wait();

    CapabilityDef replacement;
    replacement.name = "x";
    replacement.provider = "pack";
    replacement.handler = [](const json&) { return json("new"); };
    registry_.replaceProvider("pack", {replacement});

    EXPECT_EQ(pipeline_.invoke(call("x")), "new");
    EXPECT_FALSE(watch.expired());
    finish.set_value();
    EXPECT_EQ(running.get(), json({{"old", 1}}));
    EXPECT_TRUE(watch.expired());
}

TEST_F(Pipeline, ARunningCallKeepsNothingOfTheTableButItsOwnDefinition) {
    auto owned = std::make_shared<int>(1);
    const std::weak_ptr<int> watch = owned;
    CapabilityDef other;
    other.name = "other";
    other.provider = "pack";
    other.handler = [owned = std::move(owned)](const json&) { return json(*owned); };
    registry_.replaceProvider("pack", {other});
    other = {};
    bool freed = false;
    define("x", [&](const json&) {
        registry_.replaceProvider("pack", {});
        freed = watch.expired();
        return json();
    });

    pipeline_.invoke(call("x"));

    EXPECT_TRUE(freed);
}

TEST_F(Pipeline, AHandlerMayUseThePipelineAndTheRegistry) {
    define("inner");
    define("outer", [this](const json&) {
        registry_.replaceProvider("pack", {});
        disabled_.set("nothing", false);
        return pipeline_.invoke(call("inner"));
    });

    EXPECT_EQ(pipeline_.invoke(call("outer")).at("ran"), true);
}

TEST_F(Pipeline, CallsOnManyThreadsRunWhileTheTableChanges) {
    define("x");
    constexpr std::size_t kChanger = 4;
    constexpr int kCalls = 100;
    std::atomic<int> answered = 0;

    test::runOnThreads(kChanger + 1, [&](std::size_t thread) {
        for (int number = 0; number < kCalls; ++number) {
            if (thread == kChanger) {
                registry_.replaceProvider("pack", {});
                disabled_.set("y", number % 2 == 0);
            } else if (pipeline_.invoke(call("x")).at("ran") == true) {
                ++answered;
            }
        }
    });

    EXPECT_EQ(answered, static_cast<int>(kChanger) * kCalls);
}

}  // namespace
}  // namespace qm
