#include "capabilities/invocation_context.h"

#include <limits>

#include "support/pch.h"
#include "util/json.h"

namespace qm {
namespace {

runtime::ToolInvocation fromContext(const json& context) {
    return invocationFromContext("x", json::object(), context);
}

runtime::ToolInvocation fromText(const char* context) {
    return fromContext(json::parse(context));
}

TEST(InvocationContext, AnEmptyOneGivesTheDefaults) {
    const auto invocation = invocationFromContext("read_file", {{"path", "a"}}, json::object());

    EXPECT_EQ(invocation.name, "read_file");
    EXPECT_EQ(invocation.arguments, json({{"path", "a"}}));
    EXPECT_EQ(invocation.idempotencyKey, "");
    EXPECT_EQ(invocation.sessionId, "");
    EXPECT_EQ(invocation.runId, "");
    EXPECT_EQ(invocation.taskId, "");
    EXPECT_EQ(invocation.workspace, "");
    EXPECT_EQ(invocation.access, "none");
    EXPECT_EQ(invocation.round, -1);
    EXPECT_EQ(invocation.deadlineAtMs, 0);
    EXPECT_EQ(invocation.resultBytes, 49152U);
    EXPECT_EQ(invocation.stdoutBytes, 98304U);
    EXPECT_EQ(invocation.stderrBytes, 98304U);
}

TEST(InvocationContext, EveryMemberIsTaken) {
    const auto invocation = fromText(R"({"idempotencyKey": "k", "sessionId": "s", "runId": "r", "taskId": "t",
        "round": 3, "deadlineAtMs": 1700000000000, "access": "write", "workspace": "ws_1"})");

    EXPECT_EQ(invocation.idempotencyKey, "k");
    EXPECT_EQ(invocation.sessionId, "s");
    EXPECT_EQ(invocation.runId, "r");
    EXPECT_EQ(invocation.taskId, "t");
    EXPECT_EQ(invocation.round, 3);
    EXPECT_EQ(invocation.deadlineAtMs, 1'700'000'000'000);
    EXPECT_EQ(invocation.access, "write");
    EXPECT_EQ(invocation.workspace, "ws_1");
}

TEST(InvocationContext, ArgumentsThatAreNoObjectBecomeAnEmptyOne) {
    for (const json& arguments : {json(), json("text"), json(1), json::array({1})}) {
        EXPECT_EQ(invocationFromContext("x", arguments, json::object()).arguments, json::object());
    }
}

TEST(InvocationContext, AContextThatIsNoObjectCountsAsAnEmptyOne) {
    for (const json& context : {json(), json("text"), json(1), json::array({1})}) {
        EXPECT_EQ(fromContext(context).access, "none");
        EXPECT_EQ(fromContext(context).round, -1);
    }
}

TEST(InvocationContext, AMemberOfAnotherTypeIsAJsonTypeError) {
    for (const char* key : {"idempotencyKey", "sessionId", "runId", "taskId", "access", "workspace"}) {
        for (const json& value : {json(), json(1), json(true), json::array()}) {
            EXPECT_THROW(fromContext({{key, value}}), json::type_error) << key << " " << value;
        }
    }
    for (const char* key : {"round", "deadlineAtMs"}) {
        for (const json& value : {json(), json("1"), json(true), json::array(), json::object()}) {
            EXPECT_THROW(fromContext({{key, value}}), json::type_error) << key << " " << value;
        }
    }
}

TEST(InvocationContext, AFractionalRoundIsTruncated) {
    EXPECT_EQ(fromText(R"({"round": 2.9})").round, 2);
    EXPECT_EQ(fromText(R"({"round": -0.9})").round, 0);
    EXPECT_EQ(fromText(R"({"round": -2.9})").round, -2);
}

TEST(InvocationContext, ARoundBeyondItsRangeIsTheNearestValue) {
    constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
    constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
    EXPECT_EQ(fromText(R"({"round": 2147483647})").round, kMax);
    EXPECT_EQ(fromText(R"({"round": 2147483648})").round, kMax);
    EXPECT_EQ(fromText(R"({"round": 18446744073709551615})").round, kMax);
    EXPECT_EQ(fromText(R"({"round": 1e300})").round, kMax);
    EXPECT_EQ(fromText(R"({"round": -2147483648})").round, kMin);
    EXPECT_EQ(fromText(R"({"round": -2147483649})").round, kMin);
    EXPECT_EQ(fromText(R"({"round": -1e300})").round, kMin);
    EXPECT_EQ(fromContext({{"round", std::numeric_limits<double>::infinity()}}).round, kMax);
    EXPECT_EQ(fromContext({{"round", std::numeric_limits<double>::quiet_NaN()}}).round, 0);
}

TEST(InvocationContext, ADeadlineBeyondItsRangeIsTheNearestValue) {
    constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(fromText(R"({"deadlineAtMs": 1.5})").deadlineAtMs, 1);
    EXPECT_EQ(fromText(R"({"deadlineAtMs": 9223372036854775807})").deadlineAtMs, kMax);
    EXPECT_EQ(fromText(R"({"deadlineAtMs": 9223372036854775808})").deadlineAtMs, kMax);
    EXPECT_EQ(fromText(R"({"deadlineAtMs": 9223372036854775808.0})").deadlineAtMs, kMax);
    EXPECT_EQ(fromText(R"({"deadlineAtMs": -9223372036854775808.0})").deadlineAtMs, kMin);
    EXPECT_EQ(fromText(R"({"deadlineAtMs": -1e300})").deadlineAtMs, kMin);
}

TEST(InvocationContext, TheWorkspaceIsTheIdOfAnObjectOrATextOfItsOwn) {
    EXPECT_EQ(fromText(R"({"workspace": {"id": "ws_1", "label": "x"}})").workspace, "ws_1");
    EXPECT_EQ(fromText(R"({"workspace": "ws_2"})").workspace, "ws_2");
    EXPECT_EQ(fromText(R"({"workspace": {}})").workspace, "");
    EXPECT_THROW(fromText(R"({"workspace": {"id": 1}})"), json::type_error);
}

TEST(InvocationContext, ABudgetCanOnlyBeLowered) {
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 10000000}})").stdoutBytes, 98304U);
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 98305}})").stdoutBytes, 98304U);
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 98304}})").stdoutBytes, 98304U);
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 1000}})").stdoutBytes, 1000U);
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 1}})").stdoutBytes, 1U);
    EXPECT_EQ(fromText(R"({"budgets": {"stdoutBytes": 18446744073709551615}})").stdoutBytes, 98304U);
    EXPECT_EQ(fromContext({{"budgets", {{"stdoutBytes", std::int64_t{1000}}}}}).stdoutBytes, 1000U);
    EXPECT_EQ(fromContext({{"budgets", {{"stdoutBytes", std::uint64_t{1000}}}}}).stdoutBytes, 1000U);
}

TEST(InvocationContext, ABudgetThatIsNoPositiveIntegerLeavesTheDefault) {
    for (const char* value : {"0", "-5", "-9223372036854775808", "1000.0", "\"1000\"", "null", "true", "{}"}) {
        const auto invocation = fromContext({{"budgets", {{"stdoutBytes", json::parse(value)}}}});
        EXPECT_EQ(invocation.stdoutBytes, 98304U) << value;
    }
    EXPECT_EQ(fromContext({{"stdoutBytes", std::int64_t{0}}}).stdoutBytes, 98304U);
    EXPECT_EQ(fromContext({{"stdoutBytes", std::uint64_t{0}}}).stdoutBytes, 98304U);
}

TEST(InvocationContext, EachBudgetHasItsOwnKeyAndDefault) {
    const auto invocation = fromText(R"({"budgets": {"resultBytes": 1, "stdoutBytes": 2, "stderrBytes": 3}})");
    EXPECT_EQ(invocation.resultBytes, 1U);
    EXPECT_EQ(invocation.stdoutBytes, 2U);
    EXPECT_EQ(invocation.stderrBytes, 3U);

    const auto greedy = fromText(R"({"resultBytes": 49153, "stdoutBytes": 98305, "stderrBytes": 98305})");
    EXPECT_EQ(greedy.resultBytes, 49152U);
    EXPECT_EQ(greedy.stdoutBytes, 98304U);
    EXPECT_EQ(greedy.stderrBytes, 98304U);
}

TEST(InvocationContext, BudgetsStandInTheContextItselfUnlessTheirObjectIsThere) {
    EXPECT_EQ(fromText(R"({"stderrBytes": 7})").stderrBytes, 7U);
    EXPECT_EQ(fromText(R"({"budgets": [], "stderrBytes": 7})").stderrBytes, 7U);
    EXPECT_EQ(fromText(R"({"budgets": {}, "stderrBytes": 7})").stderrBytes, 98304U);
}

}  // namespace
}  // namespace qm
