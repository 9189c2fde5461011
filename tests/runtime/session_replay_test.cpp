#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "runtime/agent_json.h"
#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::factsOf;
using test::Session;

AgentCommand startCommand(const char* id) {
    return {.v = 1,
            .commandId = id,
            .sessionId = "s1",
            .runId = "",
            .type = AgentCommandType::StartRun,
            .timestampMs = 0,
            .payload = {{"objective", "Tidy"}}};
}

AgentEvent event(AgentEventType type, json payload, const char* operationId = "op") {
    return {.v = 1,
            .eventId = "e",
            .sessionId = "s1",
            .runId = "run_1",
            .turnId = "turn_1",
            .operationId = operationId,
            .sequence = 0,
            .timestampMs = 1,
            .type = type,
            .payload = std::move(payload)};
}

/// A store whose log of "s1" holds these events.
std::shared_ptr<InMemoryAgentEventStore> storeWith(std::vector<AgentEvent> events) {
    auto store = std::make_shared<InMemoryAgentEventStore>();
    store->append("s1", 0, std::move(events));
    return store;
}

std::string replayFailure(std::vector<AgentEvent> events) {
    try {
        const SessionActor actor("s1", storeWith(std::move(events)));
        return "no failure";
    } catch (const std::exception& error) {
        return error.what();
    }
}

TEST(SessionReplay, ABlankSessionIdIsRefused) {
    for (const char* const id : {"", " \t\v"}) {
        try {
            const SessionActor actor(id, std::make_shared<InMemoryAgentEventStore>());
            ADD_FAILURE() << "taken";
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "sessionId must not be blank");
        }
    }
}

TEST(SessionReplay, AnEmptyLogIsAnIdleSession) {
    const SessionActor actor("s1", std::make_shared<InMemoryAgentEventStore>());
    EXPECT_EQ(snapshotToJson(actor.snapshot()).dump(),
              R"({"bufferedInterjections":0,"cancellationRequested":false,"childTasks":[],"lastSequence":0,)"
              R"("queuedInputs":0,"sessionId":"s1","state":"IDLE"})");
}

TEST(SessionReplay, TheSameStartAgainWritesNothing) {
    Session session;
    const auto first = session.actor().handleCommand(startCommand("c1"));

    const auto second = session.actor().handleCommand(startCommand("c1"));

    EXPECT_TRUE(second.duplicate);
    EXPECT_TRUE(second.accepted);
    EXPECT_EQ(second.firstSequence, 1U);
    EXPECT_EQ(second.lastSequence, 3U);
    EXPECT_EQ(factsOf(second.events), factsOf(first.events));
    EXPECT_EQ(session.journal().size(), 3U);
}

TEST(SessionReplay, ADuplicateCarriesTheSnapshotOfNowAndTheEventsOfThen) {
    Session session;
    session.actor().handleCommand(startCommand("c1"));
    session.update(AgentEventType::RunCompleted);

    const auto again = session.actor().handleCommand(startCommand("c1"));

    EXPECT_EQ(again.snapshot.state, RunState::Completed);
    EXPECT_EQ(again.events.size(), 3U);
    EXPECT_EQ(again.lastSequence, 3U);
}

TEST(SessionReplay, ARejectedCommandIsRejectedAgainInTheSameWords) {
    Session session;
    AgentCommand command = startCommand("c1");
    command.payload = json::object();
    session.actor().handleCommand(command);
    command.payload = {{"objective", "now it has one"}};

    for (const bool afterRestart : {false, true}) {
        if (afterRestart) session.restart();
        const auto again = session.actor().handleCommand(command);
        EXPECT_FALSE(again.accepted);
        EXPECT_TRUE(again.duplicate);
        EXPECT_EQ(again.error, "objective must not be blank");
        EXPECT_EQ(again.firstSequence, 1U);
        EXPECT_EQ(again.lastSequence, 1U);
        EXPECT_EQ(session.journal().size(), 1U);
    }
}

TEST(SessionReplay, AfterARestartAnAcceptedCommandIsStillADuplicate) {
    Session session;
    session.actor().handleCommand(startCommand("c1"));
    session.append("more");
    session.restart();

    const auto again = session.actor().handleCommand(startCommand("c1"));

    EXPECT_TRUE(again.duplicate);
    EXPECT_TRUE(again.accepted);
    EXPECT_EQ(again.error, "");
    EXPECT_EQ(again.firstSequence, 1U);
    EXPECT_EQ(again.lastSequence, 3U);
    EXPECT_EQ(again.events.size(), 3U);
}

TEST(SessionReplay, ARestartKeepsSnapshotAndBuffers) {
    Session session;
    session.start();
    session.startTask("t1");
    session.append("later");
    session.append("now", "interject");
    const json before = snapshotToJson(session.snapshot());

    session.restart();

    EXPECT_EQ(snapshotToJson(session.snapshot()), before);
    EXPECT_EQ(session.consume()->content, "now");
    session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "SUCCEEDED"}});
    EXPECT_EQ(session.complete().input->content, "later");
}

TEST(SessionReplay, ARejectionWithoutWordsGetsSome) {
    auto store = storeWith({event(AgentEventType::CommandRejected, json::object(), "c1")});
    SessionActor actor("s1", store);
    const auto again = actor.handleCommand(startCommand("c1"));
    EXPECT_TRUE(again.duplicate);
    EXPECT_FALSE(again.accepted);
    EXPECT_EQ(again.error, "operation rejected");
}

TEST(SessionReplay, AnEventWithoutAnOperationIsNoIdempotencyKey) {
    auto store = storeWith({event(AgentEventType::ModelStarted, json::object(), "")});
    SessionActor actor("s1", store);
    EXPECT_EQ(actor.snapshot().lastSequence, 1U);
    EXPECT_TRUE(actor.handleCommand(startCommand("c1")).accepted);
}

TEST(SessionReplay, ALogThatCannotBeFoldedLeavesNoActor) {
    EXPECT_EQ(replayFailure({event(AgentEventType::TaskStarted, {{"taskId", "t1"}})}),
              "child task start replay diverged");
    EXPECT_EQ(replayFailure({event(AgentEventType::RunStateChanged, {{"from", "RUNNING"}, {"to", "FAILED"}})}),
              "run state replay diverged");
}

TEST(SessionReplay, AnInputThatWasNeverBufferedCannotBeConsumed) {
    EXPECT_EQ(replayFailure({event(AgentEventType::UserInputAccepted, {{"fromQueue", true}})}),
              "agent input replay underflow: queue");
    EXPECT_EQ(replayFailure({event(AgentEventType::UserInputAccepted, {{"fromInterjection", true}})}),
              "agent input replay underflow: interjection");
}

TEST(SessionReplay, AnInputIsConsumedOnlyFromTheHead) {
    const json foreign = {{"sourceEventId", "other"}};
    json fromQueue = foreign;
    fromQueue["fromQueue"] = true;
    json fromInterjection = foreign;
    fromInterjection["fromInterjection"] = true;
    EXPECT_EQ(replayFailure({event(AgentEventType::UserInputQueued, {{"content", "x"}}),
                             event(AgentEventType::UserInputAccepted, fromQueue)}),
              "agent input replay diverged: queue");
    EXPECT_EQ(replayFailure({event(AgentEventType::UserInterjectionBuffered, {{"content", "x"}}),
                             event(AgentEventType::UserInputAccepted, fromInterjection)}),
              "agent input replay diverged: interjection");
}

TEST(SessionReplay, AConsumptionThatNamesNoSourceTakesTheHead) {
    EXPECT_EQ(replayFailure({event(AgentEventType::UserInputQueued, {{"content", "x"}}),
                             event(AgentEventType::UserInputAccepted, {{"fromQueue", true}})}),
              "no failure");
}

TEST(SessionReplay, AJoinThatIsPendingWhileTheRunGoesOnBlocksAnother) {
    auto store = storeWith({event(AgentEventType::RunStarted, {{"objective", "x"}}),
                            event(AgentEventType::RunStateChanged, {{"from", "IDLE"}, {"to", "RUNNING"}}),
                            event(AgentEventType::TaskWaiting, {{"joinId", "j1"}})});
    SessionActor actor("s1", store);
    const auto result = actor.applyRuntimeUpdate({.updateId = "u1",
                                                  .runId = "run_1",
                                                  .turnId = "",
                                                  .type = AgentEventType::TaskWaiting,
                                                  .payload = json::object()});
    EXPECT_EQ(result.error, "a task join is already pending");
}

TEST(SessionReplay, ACancellationRequestedWhileRunningBlocksCompletion) {
    auto store = storeWith({event(AgentEventType::RunStarted, {{"objective", "x"}}),
                            event(AgentEventType::RunStateChanged, {{"from", "IDLE"}, {"to", "RUNNING"}}),
                            event(AgentEventType::CancellationRequested, json::object())});
    SessionActor actor("s1", store);
    const RuntimeUpdate update{.updateId = "u1",
                               .runId = "run_1",
                               .turnId = "",
                               .type = AgentEventType::RunCompleted,
                               .payload = json::object()};
    EXPECT_EQ(actor.applyRuntimeUpdate(update).error, "run cannot complete from the current control state");
    EXPECT_THROW(actor.consumeInterjection("u2", "run_1", "turn_1"), std::runtime_error);
}

TEST(SessionEvents, APageHoldsTheFirstEventsBehindAPoint) {
    Session session;
    session.start();
    session.append("a");
    session.append("b");

    EXPECT_EQ(session.actor().readEvents(0, 0).events.size(), 5U);
    EXPECT_EQ(session.actor().readEvents(5, 0).events.size(), 0U);
    EXPECT_EQ(session.actor().readEvents(UINT64_MAX, 0).events.size(), 0U);
    EXPECT_EQ(session.actor().readEvents(0, 5).events.size(), 5U);
    EXPECT_EQ(session.actor().readEvents(0, 6).events.size(), 5U);
    const auto page = session.actor().readEvents(2, 2);
    ASSERT_EQ(page.events.size(), 2U);
    EXPECT_EQ(page.events[0].sequence, 3U);
    EXPECT_EQ(page.events[1].sequence, 4U);
    EXPECT_EQ(page.snapshot.lastSequence, 5U);
}

TEST(AgentIds, AnIdIsThePrefixAndTwentyRandomCharacters) {
    std::set<std::string> ids;
    for (int round = 0; round < 1000; ++round) {
        const std::string id = randomAgentId("run");
        ASSERT_TRUE(id.starts_with("run_")) << id;
        ASSERT_EQ(id.size(), 24U);
        ASSERT_EQ(id.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyz", 4), std::string::npos) << id;
        ids.insert(id);
    }
    EXPECT_EQ(ids.size(), 1000U);
}

}  // namespace
}  // namespace qm::runtime
