#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::Fact;
using test::factsOf;
using test::rejection;
using test::Session;
using test::stateChange;

Fact consumption(std::string_view content, std::string_view mode, std::string_view eventId, std::uint64_t sequence,
                 bool fromInterjection, bool startsNewTurn) {
    return {"user_input_accepted",
            {{"content", content},
             {"mode", mode},
             {"sourceEventId", eventId},
             {"sourceSequence", sequence},
             {"fromQueue", !fromInterjection},
             {"fromInterjection", fromInterjection},
             {"startsNewTurn", startsNewTurn}}};
}

template <typename Exception>
std::string failureOf(Session& session, const std::string& updateId, const std::string& runId,
                      const std::string& turnId) {
    try {
        session.actor().consumeInterjection(updateId, runId, turnId);
        return "no failure";
    } catch (const Exception& error) {
        return error.what();
    }
}

void expectRejected(const TurnCompletion& completion, const std::string& words) {
    EXPECT_FALSE(completion.result.accepted);
    EXPECT_EQ(completion.result.error, words);
    EXPECT_EQ(factsOf(completion.result.events), std::vector{rejection(words)});
    EXPECT_FALSE(completion.input);
}

TEST(ConsumeInterjection, AnEmptyUpdateIdThrows) {
    Session session;
    session.start();
    for (const char* const id : {"", "ends-with/"}) {
        EXPECT_EQ(failureOf<std::invalid_argument>(session, id, "run_1", "turn_1"),
                  "safe-point updateId must not be blank");
    }
}

TEST(ConsumeInterjection, AStaleRunOrTurnThrows) {
    Session session;
    session.start();
    session.append("now", "interject");
    const char* const words = "safe point targets a stale run or turn";
    EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "run_2", "turn_1"), words);
    EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "run_1", "turn_2"), words);
    EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "run_1", ""), words);
    EXPECT_EQ(session.snapshot().bufferedInterjections, 1U);
}

TEST(ConsumeInterjection, OnlyARunningTurnConsumes) {
    for (const RunState state : {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks,
                                 RunState::Cancelling, RunState::Completed, RunState::Failed, RunState::Cancelled}) {
        Session session;
        session.enter(state);
        EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "run_1", "turn_1"),
                  "interjections can only be consumed by a running turn");
    }
}

TEST(ConsumeInterjection, ASessionWithoutARunHasNoTurnToHandInputTo) {
    Session session;
    EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "run_1", "turn_1"),
              "safe point targets a stale run or turn");
    EXPECT_EQ(failureOf<std::runtime_error>(session, "x1", "", ""),
              "interjections can only be consumed by a running turn");
    EXPECT_EQ(session.snapshot().lastSequence, 0U);
}

TEST(ConsumeInterjection, WithoutAnInterjectionNothingHappens) {
    Session session;
    session.start();
    session.append("later", "queue");
    EXPECT_FALSE(session.consume());
    EXPECT_EQ(session.snapshot().lastSequence, 4U);
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
}

TEST(ConsumeInterjection, InterjectionsComeInTheOrderOfTheirArrival) {
    Session session;
    session.start();
    session.append("first", "interject");
    session.append("queued", "queue");
    session.append("second", "interject");

    const auto first = session.consume();
    const auto second = session.consume();
    const auto third = session.consume();

    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->content, "first");
    EXPECT_EQ(first->mode, "interject");
    EXPECT_EQ(first->sourceEventId, "evt_4");
    EXPECT_EQ(first->sourceSequence, 4U);
    EXPECT_FALSE(first->startsNewTurn);
    EXPECT_TRUE(first->result.accepted);
    EXPECT_EQ(factsOf(first->result.events), std::vector{consumption("first", "interject", "evt_4", 4, true, false)});
    EXPECT_EQ(first->result.events.front().operationId, "runtime/run_1/u5");
    EXPECT_EQ(first->result.snapshot.bufferedInterjections, 1U);
    EXPECT_EQ(second->content, "second");
    EXPECT_FALSE(third);
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
    EXPECT_EQ(session.snapshot().bufferedInterjections, 0U);
}

TEST(ConsumeInterjection, TheSameCallHandsOutTheSameInputAgain) {
    Session session;
    session.start();
    session.append("first", "interject");
    session.append("second", "interject");
    const auto fresh = session.actor().consumeInterjection("x1", "run_1", "turn_1");

    const auto again = session.actor().consumeInterjection("x1", "run_1", "turn_1");

    ASSERT_TRUE(fresh && again);
    EXPECT_EQ(again->content, "first");
    EXPECT_EQ(again->sourceEventId, fresh->sourceEventId);
    EXPECT_EQ(again->sourceSequence, fresh->sourceSequence);
    EXPECT_TRUE(again->result.duplicate);
    EXPECT_EQ(session.snapshot().bufferedInterjections, 1U);
}

TEST(ConsumeInterjection, ADuplicateIsAnsweredBeforeTheTurnIsTested) {
    Session session;
    session.start();
    session.append("first", "interject");
    session.actor().consumeInterjection("x1", "run_1", "turn_1");
    session.cancel();
    EXPECT_TRUE(session.actor().consumeInterjection("x1", "run_1", "another turn"));
}

TEST(ConsumeInterjection, AKeyThatAnotherUpdateUsedHandsOutNothing) {
    Session session;
    session.start();
    session.append("first", "interject");
    RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, json::object());
    update.updateId = "x1";
    session.actor().applyRuntimeUpdate(update);
    EXPECT_FALSE(session.actor().consumeInterjection("x1", "run_1", "turn_1"));
    EXPECT_EQ(session.snapshot().bufferedInterjections, 1U);
}

TEST(CompleteTurn, ABlankUpdateIdOrAnEmptyRunWritesNothing) {
    Session session;
    session.start();
    RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelDelta, json::array());
    update.updateId = " ";
    EXPECT_EQ(session.actor().completeTurn(update).result.error, "runtime updateId must not be blank");
    update.updateId = "x1";
    update.runId = "";
    EXPECT_EQ(session.actor().completeTurn(update).result.error, "runtime update runId must not be blank");
    EXPECT_EQ(session.snapshot().lastSequence, 3U);
}

TEST(CompleteTurn, ItsFaultsAreFoundInOrder) {
    Session session;
    session.start();
    session.queueTask("t1");
    session.cancel();
    RuntimeUpdate update = session.makeUpdate(AgentEventType::RunFailed, json::array());
    const auto attempt = [&](const char* id) {
        update.updateId = id;
        return session.actor().completeTurn(update);
    };
    update.turnId = "turn_9";
    expectRejected(attempt("x1"), "completeTurn requires a run_completed update");
    update.type = AgentEventType::RunCompleted;
    expectRejected(attempt("x2"), "runtime update payload must be an object");
    update.payload = json::object();
    expectRejected(attempt("x3"), "runtime update targets a stale run or turn");
    update.turnId = "";
    update.runId = "run_9";
    expectRejected(attempt("x4"), "runtime update targets a stale run or turn");
    update.runId = "run_1";
    expectRejected(attempt("x5"), "run cannot complete from the current control state");
}

TEST(CompleteTurn, OnlyARunningRunCompletes) {
    for (const RunState state : {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks,
                                 RunState::Cancelling, RunState::Completed, RunState::Failed, RunState::Cancelled}) {
        Session session;
        session.enter(state);
        expectRejected(session.complete(), "run cannot complete from the current control state");
        EXPECT_EQ(session.snapshot().state, state);
    }
}

TEST(CompleteTurn, ASessionWithoutARunHasNoTurnToComplete) {
    Session session;
    EXPECT_EQ(session.complete().result.error, "runtime update runId must not be blank");
    RuntimeUpdate update = session.makeUpdate(AgentEventType::RunCompleted, json::object());
    update.runId = "run_1";
    expectRejected(session.actor().completeTurn(update), "runtime update targets a stale run or turn");
}

TEST(CompleteTurn, ActiveChildTasksMustBeJoinedBeforeAnyPromotion) {
    Session session;
    session.start();
    session.append("later");
    session.queueTask("t1");
    expectRejected(session.complete(), "active child tasks require an explicit task join");
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
}

TEST(CompleteTurn, WithoutPendingInputTheRunIsComplete) {
    Session session;
    session.start();
    const auto completion = session.complete({{"content", "Done."}, {"rounds", 2}});
    EXPECT_FALSE(completion.input);
    EXPECT_EQ(factsOf(completion.result.events),
              (std::vector<Fact>{{"run_completed", {{"content", "Done."}, {"rounds", 2}}},
                                 stateChange("RUNNING", "COMPLETED", "runtime_completed")}));
    EXPECT_EQ(session.snapshot().state, RunState::Completed);
}

TEST(CompleteTurn, AQueuedInputOpensANewTurn) {
    Session session;
    session.start();
    session.append("later");

    const auto completion = session.complete({{"content", "Done."}, {"rounds", 2}});

    EXPECT_EQ(factsOf(completion.result.events),
              (std::vector<Fact>{{"assistant_message", {{"content", "Done."}, {"rounds", 2}, {"intermediate", true}}},
                                 {"turn_started", {{"previousTurnId", "turn_1"}, {"reason", "queued_user_input"}}},
                                 consumption("later", "queue", "evt_4", 4, false, true)}));
    EXPECT_EQ(completion.result.events[0].turnId, "turn_1");
    EXPECT_EQ(completion.result.events[1].turnId, "turn_2");
    EXPECT_EQ(completion.result.events[2].turnId, "turn_2");
    ASSERT_TRUE(completion.input);
    EXPECT_EQ(completion.input->content, "later");
    EXPECT_EQ(completion.input->mode, "queue");
    EXPECT_EQ(completion.input->sourceEventId, "evt_4");
    EXPECT_EQ(completion.input->sourceSequence, 4U);
    EXPECT_TRUE(completion.input->startsNewTurn);
    EXPECT_EQ(completion.input->result.lastSequence, completion.result.lastSequence);
    EXPECT_EQ(session.snapshot().state, RunState::Running);
    EXPECT_EQ(session.snapshot().turnId, "turn_2");
    EXPECT_EQ(session.snapshot().queuedInputs, 0U);
}

TEST(CompleteTurn, AnInterjectionComesBeforeAQueuedInput) {
    Session session;
    session.start();
    session.append("later");
    session.append("now", "interject");

    const auto completion = session.complete();

    ASSERT_TRUE(completion.input);
    EXPECT_EQ(completion.input->content, "now");
    EXPECT_EQ(factsOf(completion.result.events)[1].payload["reason"], "pending_interjection");
    EXPECT_EQ(factsOf(completion.result.events)[2], consumption("now", "interject", "evt_5", 5, true, true));
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
    EXPECT_EQ(session.snapshot().bufferedInterjections, 0U);
}

TEST(CompleteTurn, OneInputMovesAtATime) {
    Session session;
    session.start();
    session.append("one");
    session.append("two");
    EXPECT_EQ(session.complete().input->content, "one");
    EXPECT_EQ(session.complete().input->content, "two");
    EXPECT_FALSE(session.complete().input);
    EXPECT_EQ(session.snapshot().state, RunState::Completed);
}

TEST(CompleteTurn, TheSameCallHandsOutTheSameInputAgain) {
    Session session;
    session.start();
    session.append("one");
    session.append("two");
    const RuntimeUpdate update = session.makeUpdate(AgentEventType::RunCompleted, {{"content", "Done."}});
    const auto fresh = session.actor().completeTurn(update);

    const auto again = session.actor().completeTurn(update);

    ASSERT_TRUE(fresh.input && again.input);
    EXPECT_TRUE(again.result.duplicate);
    EXPECT_TRUE(again.result.accepted);
    EXPECT_EQ(again.input->content, "one");
    EXPECT_EQ(factsOf(again.result.events), factsOf(fresh.result.events));
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
}

TEST(CompleteTurn, ACancelledRunReportsItsCancellationInstead) {
    Session session;
    session.start();
    session.append("later");
    session.cancel();
    expectRejected(session.complete(), "run cannot complete from the current control state");
    EXPECT_TRUE(session.update(AgentEventType::RunCancelled).accepted);
}

TEST(CompleteTurn, AnInterjectionKeptInCancellingIsNeverOneOfTheTurn) {
    Session session;
    session.enter(RunState::Cancelling);
    session.append("too late", "interject");
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);
    EXPECT_THROW(session.consume(), std::runtime_error);
}

}  // namespace
}  // namespace qm::runtime
