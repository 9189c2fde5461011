#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::Fact;
using test::factsOf;
using test::rejection;
using test::Session;
using test::stateChange;

const std::string kReplacement = "\xEF\xBF\xBD";

void expectRejected(const CommandResult& result, const std::string& words) {
    EXPECT_FALSE(result.accepted);
    EXPECT_EQ(result.error, words);
    EXPECT_EQ(factsOf(result.events), std::vector{rejection(words)});
}

/// What the JSON library says of a value where a string must stand, by the name that it has for the value's type.
std::string noString(const std::string& typeName) {
    return "[json.exception.type_error.302] type must be string, but is " + typeName;
}

const std::vector<std::pair<json, std::string>> kNoStrings{
    {5, "number"}, {true, "boolean"}, {nullptr, "null"}, {json::array(), "array"}, {json::object(), "object"}};

TEST(PayloadTypes, AScopeThatIsNoStringIsRejectedInTheJsonLibrarysWords) {
    for (const auto& [value, name] : kNoStrings) {
        Session session;
        session.start();
        expectRejected(session.cancel({{"scope", value}}), noString(name));
        EXPECT_EQ(session.snapshot().state, RunState::Running);
    }
}

TEST(PayloadTypes, AnApprovalIdThatIsNoStringIsRejectedInTheJsonLibrarysWords) {
    for (const auto& [value, name] : kNoStrings) {
        Session session;
        session.enter(RunState::WaitingApproval);
        expectRejected(session.resolve({{"decision", "approve"}, {"approvalId", value}}), noString(name));
        EXPECT_EQ(session.snapshot().state, RunState::WaitingApproval);
    }
}

TEST(PayloadTypes, ARequestIdThatIsNoStringIsRejectedInTheJsonLibrarysWordsInBothWaitsThatReadIt) {
    for (const RunState state : {RunState::WaitingUser, RunState::WaitingTasks}) {
        for (const auto& [value, name] : kNoStrings) {
            Session session;
            session.enter(state);
            expectRejected(
                session.command(AgentCommandType::AppendUserInput, {{"content", "red"}, {"requestId", value}}),
                noString(name));
            EXPECT_EQ(session.snapshot().state, state);
        }
    }
}

TEST(PayloadTypes, ARequestIdThatNobodyReadsMayBeAnything) {
    Session session;
    session.start();
    EXPECT_TRUE(session.command(AgentCommandType::AppendUserInput, {{"content", "red"}, {"requestId", 5}}).accepted);
}

TEST(PayloadTypes, ACommentThatIsNoStringIsIgnoredAndAnEmptyOneIsOne) {
    for (const auto& [value, name] : kNoStrings) {
        Session session;
        session.enter(RunState::WaitingApproval);
        const auto result = session.resolve({{"decision", "approve"}, {"comment", value}});
        EXPECT_TRUE(result.accepted) << name;
        EXPECT_FALSE(result.events.front().payload.contains("comment"));
    }
    Session session;
    session.enter(RunState::WaitingApproval);
    EXPECT_EQ(factsOf(session.resolve({{"decision", "cancel"}, {"comment", ""}}).events),
              (std::vector<Fact>{{"approval_resolved", {{"approvalId", "a1"}, {"decision", "cancel"}, {"comment", ""}}},
                                 {"run_cancelled", {{"reason", "approval_cancelled"}, {"content", ""}}},
                                 stateChange("WAITING_APPROVAL", "CANCELLED", "approval_cancelled")}));
}

TEST(PayloadTypes, IntegersBeyondTheSignedRangeAreLargeOnes) {
    Session session;
    session.start();
    const json task{{"taskId", "t1"}, {"parentTaskId", "root"}, {"task", "Count"}, {"depth", UINT64_MAX}};
    EXPECT_TRUE(session.update(AgentEventType::TaskQueued, task).accepted);
    EXPECT_EQ(session.snapshot().childTasks.at("t1").depth, INT32_MAX);
    const json join{{"joinId", "j1"},
                    {"callId", "call1"},
                    {"policy", "condition"},
                    {"taskIds", {"t1"}},
                    {"minSucceeded", UINT64_MAX}};
    EXPECT_TRUE(session.update(AgentEventType::TaskWaiting, join).accepted);
    EXPECT_EQ(session.snapshot().pendingTaskJoin.minSucceeded, INT32_MAX);
}

TEST(PayloadTexts, ACommandsTextsAndKeysBecomeUtf8) {
    Session session;
    const auto result = session.command(
        AgentCommandType::StartRun, {{"objective", "cut \xE6\x96"}, {"key\xFF", 1}, {"deep", {{{"k\xC3", "v\xFE"}}}}});
    ASSERT_TRUE(result.accepted) << result.error;
    EXPECT_EQ(result.events[0].payload, json({{"objective", "cut " + kReplacement},
                                              {"key" + kReplacement, 1},
                                              {"deep", {{{"k" + kReplacement, "v" + kReplacement}}}}}));
    EXPECT_EQ(result.events[1].payload["content"], "cut " + kReplacement);
    EXPECT_EQ(session.snapshot().objective, "cut " + kReplacement);
}

TEST(PayloadTexts, AnUpdatesKeysBecomeUtf8) {
    Session session;
    session.start();
    const auto result = session.update(AgentEventType::ToolFailed, {{"e\xFF", {{"f\xFF", 1}}}});
    ASSERT_TRUE(result.accepted) << result.error;
    EXPECT_EQ(result.events[0].payload, json({{"e" + kReplacement, {{"f" + kReplacement, 1}}}}));
}

TEST(PayloadTexts, TheTextsOfATurnsEndBecomeUtf8WhetherItIsTheRunsOrNot) {
    for (const bool isPromoted : {false, true}) {
        Session session;
        session.start();
        if (isPromoted) session.append("later");
        const auto completion = session.complete({{"content", "Done \xF0\x9F"}, {"k\x80", "v"}});
        ASSERT_TRUE(completion.result.accepted) << completion.result.error;
        json expected{{"content", "Done " + kReplacement}, {"k" + kReplacement, "v"}};
        if (isPromoted) expected["intermediate"] = true;
        EXPECT_EQ(completion.result.events[0].payload, expected);
    }
}

TEST(PayloadTexts, ValidTextStaysAsItIs) {
    Session session;
    const json payload{{"objective", "整理 \xF0\x9F\x98\x80 \xEF\xBF\xBD"}, {"键", {1, "é", nullptr}}};
    EXPECT_EQ(session.command(AgentCommandType::StartRun, payload).events[0].payload, payload);
}

}  // namespace
}  // namespace qm::runtime
