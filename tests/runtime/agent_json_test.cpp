#include "runtime/agent_json.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

#include "util/json.h"

namespace qm::runtime {
namespace {

const json kCommand = {{"v", 1},
                       {"commandId", "c1"},
                       {"sessionId", "s1"},
                       {"runId", "run_1"},
                       {"type", "start_run"},
                       {"timestampMs", 12},
                       {"payload", {{"objective", "Tidy"}}}};

const json kEvent = {{"v", 1},
                     {"eventId", "evt_1"},
                     {"sessionId", "s1"},
                     {"runId", "run_1"},
                     {"turnId", "turn_1"},
                     {"operationId", "c1"},
                     {"sequence", 7},
                     {"timestampMs", 12},
                     {"type", "run_started"},
                     {"payload", {{"objective", "整理"}}}};

json with(json object, const char* key, json value) {
    object[key] = std::move(value);
    return object;
}

json without(json object, const char* key) {
    object.erase(key);
    return object;
}

template <typename Parse>
std::string failureOf(Parse parse) {
    try {
        parse();
        return "no failure";
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

std::string commandFailure(const json& value) {
    return failureOf([&] { agentCommandFromJson(value); });
}

std::string eventFailure(const json& value) {
    return failureOf([&] { agentEventFromJson(value); });
}

TEST(AgentCommandJson, ACommandKeepsAllItsFields) {
    const AgentCommand command = agentCommandFromJson(kCommand);

    EXPECT_EQ(command.v, 1U);
    EXPECT_EQ(command.commandId, "c1");
    EXPECT_EQ(command.sessionId, "s1");
    EXPECT_EQ(command.runId, "run_1");
    EXPECT_EQ(command.type, AgentCommandType::StartRun);
    EXPECT_EQ(command.timestampMs, 12);
    EXPECT_EQ(command.payload, json({{"objective", "Tidy"}}));
    EXPECT_EQ(agentCommandToJson(command), kCommand);
}

TEST(AgentCommandJson, OnlyTheTypeIsRequired) {
    const AgentCommand command = agentCommandFromJson({{"type", "cancel_run"}});

    EXPECT_EQ(command.v, 0U);
    EXPECT_EQ(command.commandId, "");
    EXPECT_EQ(command.sessionId, "");
    EXPECT_EQ(command.runId, "");
    EXPECT_EQ(command.type, AgentCommandType::CancelRun);
    EXPECT_EQ(command.timestampMs, 0);
    EXPECT_EQ(command.payload, json::object());
}

TEST(AgentCommandJson, AnEmptyRunIdIsNotWritten) {
    EXPECT_EQ(agentCommandToJson(agentCommandFromJson(with(kCommand, "runId", ""))), without(kCommand, "runId"));
}

TEST(AgentCommandJson, WhatIsNoObjectIsRefused) {
    for (const json& value : {json(), json(5), json("text"), json::array({1})}) {
        EXPECT_EQ(commandFailure(value), "agent command must be an object");
    }
}

TEST(AgentCommandJson, AnAbsentOrUnknownTypeIsRefused) {
    EXPECT_EQ(commandFailure(without(kCommand, "type")), "unknown agent command type: ");
    EXPECT_EQ(commandFailure(with(kCommand, "type", 5)), "unknown agent command type: ");
    EXPECT_EQ(commandFailure(with(kCommand, "type", "stop")), "unknown agent command type: stop");
}

TEST(AgentCommandJson, APayloadThatIsNoObjectIsRefused) {
    for (const json& value : {json(), json(5), json("text"), json::array({1})}) {
        EXPECT_EQ(commandFailure(with(kCommand, "payload", value)), "agent command payload must be an object");
    }
}

TEST(AgentCommandJson, AFieldOfAnotherJsonTypeIsRefused) {
    EXPECT_EQ(commandFailure(with(kCommand, "v", "1")), "agent command v must be an integer");
    EXPECT_EQ(commandFailure(with(kCommand, "v", 1.0)), "agent command v must be an integer");
    EXPECT_EQ(commandFailure(with(kCommand, "commandId", 5)), "agent command commandId must be a string");
    EXPECT_EQ(commandFailure(with(kCommand, "sessionId", nullptr)), "agent command sessionId must be a string");
    EXPECT_EQ(commandFailure(with(kCommand, "runId", json::array())), "agent command runId must be a string");
    EXPECT_EQ(commandFailure(with(kCommand, "timestampMs", "12")), "agent command timestampMs must be an integer");
    EXPECT_EQ(commandFailure(with(kCommand, "timestampMs", UINT64_C(9223372036854775808))),
              "agent command timestampMs must be an integer");
}

TEST(AgentCommandJson, ATimestampTakesTheWholeSignedRange) {
    for (const std::int64_t timestamp : {INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(agentCommandFromJson(with(kCommand, "timestampMs", timestamp)).timestampMs, timestamp);
    }
}

TEST(AgentCommandJson, AVersionBeyondThirtyTwoBitsDoesNotWrapToAnother) {
    for (const json& version : {json(4294967297), json(4294967296), json(-1), json(INT64_MIN), json(UINT64_MAX)}) {
        EXPECT_EQ(agentCommandFromJson(with(kCommand, "v", version)).v, UINT32_MAX) << version;
    }
    EXPECT_EQ(agentCommandFromJson(with(kCommand, "v", 4294967295)).v, 4294967295U);
}

TEST(AgentEventJson, AnEventKeepsAllItsFieldsInSortedOrder) {
    const AgentEvent event = agentEventFromJson(kEvent);

    EXPECT_EQ(event.v, 1U);
    EXPECT_EQ(event.eventId, "evt_1");
    EXPECT_EQ(event.sessionId, "s1");
    EXPECT_EQ(event.runId, "run_1");
    EXPECT_EQ(event.turnId, "turn_1");
    EXPECT_EQ(event.operationId, "c1");
    EXPECT_EQ(event.sequence, 7U);
    EXPECT_EQ(event.timestampMs, 12);
    EXPECT_EQ(event.type, AgentEventType::RunStarted);
    EXPECT_EQ(agentEventToJson(event).dump(),
              R"({"eventId":"evt_1","operationId":"c1","payload":{"objective":"整理"},"runId":"run_1","sequence":7,)"
              R"("sessionId":"s1","timestampMs":12,"turnId":"turn_1","type":"run_started","v":1})");
}

TEST(AgentEventJson, EmptyIdentifiersAreNotWritten) {
    AgentEvent event;
    event.type = AgentEventType::WakeFired;

    EXPECT_EQ(agentEventToJson(event), json({{"v", 1},
                                             {"eventId", ""},
                                             {"sessionId", ""},
                                             {"sequence", 0},
                                             {"timestampMs", 0},
                                             {"type", "wake_fired"},
                                             {"payload", json::object()}}));
}

TEST(AgentEventJson, OnlyTypeAndPayloadAreRequired) {
    const AgentEvent event = agentEventFromJson({{"type", "model_delta"}, {"payload", json::object()}});

    EXPECT_EQ(event.v, 0U);
    EXPECT_EQ(event.eventId + event.sessionId + event.runId + event.turnId + event.operationId, "");
    EXPECT_EQ(event.sequence, 0U);
    EXPECT_EQ(event.timestampMs, 0);
}

TEST(AgentEventJson, TheLargestSequenceIsKept) {
    const AgentEvent event = agentEventFromJson(with(kEvent, "sequence", UINT64_MAX));

    EXPECT_EQ(event.sequence, UINT64_MAX);
    EXPECT_EQ(agentEventToJson(event)["sequence"], UINT64_MAX);
}

TEST(AgentEventJson, WhatIsNoEventIsRefused) {
    EXPECT_EQ(eventFailure(json::array()), "agent event must be an object");
    EXPECT_EQ(eventFailure(without(kEvent, "type")), "unknown agent event type: ");
    EXPECT_EQ(eventFailure(with(kEvent, "type", "run_begun")), "unknown agent event type: run_begun");
    EXPECT_EQ(eventFailure(without(kEvent, "payload")), "agent event payload must be an object");
    EXPECT_EQ(eventFailure(with(kEvent, "payload", "text")), "agent event payload must be an object");
    EXPECT_EQ(eventFailure(with(kEvent, "sequence", -1)), "agent event sequence must be an integer");
    EXPECT_EQ(eventFailure(with(kEvent, "sequence", 7.0)), "agent event sequence must be an integer");
    EXPECT_EQ(eventFailure(with(kEvent, "turnId", 1)), "agent event turnId must be a string");
}

TEST(SessionSnapshotJson, ASessionWithoutARunPrintsOnlyWhatIsAlwaysThere) {
    SessionSnapshot snapshot;
    snapshot.sessionId = "s1";

    EXPECT_EQ(snapshotToJson(snapshot).dump(),
              R"({"bufferedInterjections":0,"cancellationRequested":false,"childTasks":[],"lastSequence":0,)"
              R"("queuedInputs":0,"sessionId":"s1","state":"IDLE"})");
}

TEST(SessionSnapshotJson, AFullSnapshotPrintsEverything) {
    SessionSnapshot snapshot{.sessionId = "s1",
                             .runId = "run_1",
                             .turnId = "turn_1",
                             .objective = "Tidy",
                             .state = RunState::WaitingTasks,
                             .lastSequence = 9,
                             .queuedInputs = 2,
                             .bufferedInterjections = 3,
                             .cancellationRequested = true,
                             .pendingUserRequestId = "q1",
                             .pendingApprovalId = "a1",
                             .childTasks = {},
                             .pendingTaskJoin = {.joinId = "j1",
                                                 .callId = "call1",
                                                 .policy = "condition",
                                                 .taskIds = {"t2", "t1"},
                                                 .minSucceeded = 1,
                                                 .timeoutMs = 5000}};
    snapshot.childTasks["t2"].taskId = "t2";
    snapshot.childTasks["t1"].taskId = "t1";

    const json value = snapshotToJson(snapshot);

    EXPECT_EQ(value["runId"], "run_1");
    EXPECT_EQ(value["turnId"], "turn_1");
    EXPECT_EQ(value["objective"], "Tidy");
    EXPECT_EQ(value["state"], "WAITING_TASKS");
    EXPECT_EQ(value["lastSequence"], 9);
    EXPECT_EQ(value["queuedInputs"], 2);
    EXPECT_EQ(value["bufferedInterjections"], 3);
    EXPECT_EQ(value["cancellationRequested"], true);
    EXPECT_EQ(value["pendingUserRequestId"], "q1");
    EXPECT_EQ(value["pendingApprovalId"], "a1");
    ASSERT_EQ(value["childTasks"].size(), 2U);
    EXPECT_EQ(value["childTasks"][0]["taskId"], "t1");
    EXPECT_EQ(value["childTasks"][1]["taskId"], "t2");
    EXPECT_EQ(value["pendingTaskJoin"], json({{"joinId", "j1"},
                                              {"callId", "call1"},
                                              {"policy", "condition"},
                                              {"taskIds", {"t2", "t1"}},
                                              {"minSucceeded", 1},
                                              {"timeoutMs", 5000}}));
}

TEST(ChildTaskJson, AQueuedTaskPrintsOnlyWhatIsAlwaysThere) {
    EXPECT_EQ(childTaskToJson({}), json({{"taskId", ""},
                                         {"parentTaskId", ""},
                                         {"objective", ""},
                                         {"origin", ""},
                                         {"state", "QUEUED"},
                                         {"depth", 0},
                                         {"maxRounds", 0},
                                         {"rounds", 0},
                                         {"timeoutMs", 0},
                                         {"createdAtMs", 0},
                                         {"cancellationRequested", false}}));
}

TEST(ChildTaskJson, AFinishedTaskPrintsEverything) {
    const json value = childTaskToJson({.taskId = "t1",
                                        .parentTaskId = "root",
                                        .objective = "Count",
                                        .origin = "CHAT",
                                        .workspace = "ws_1",
                                        .access = "read",
                                        .state = ChildTaskState::Lost,
                                        .depth = 2,
                                        .maxRounds = 8,
                                        .rounds = 3,
                                        .timeoutMs = 60000,
                                        .createdAtMs = 1,
                                        .startedAtMs = 2,
                                        .finishedAtMs = 3,
                                        .completionSequence = 12,
                                        .cancellationRequested = true,
                                        .result = "four",
                                        .error = "late"});

    EXPECT_EQ(value, json({{"taskId", "t1"},
                           {"parentTaskId", "root"},
                           {"objective", "Count"},
                           {"origin", "CHAT"},
                           {"workspace", "ws_1"},
                           {"access", "read"},
                           {"state", "LOST"},
                           {"depth", 2},
                           {"maxRounds", 8},
                           {"rounds", 3},
                           {"timeoutMs", 60000},
                           {"createdAtMs", 1},
                           {"startedAtMs", 2},
                           {"finishedAtMs", 3},
                           {"completionSequence", 12},
                           {"cancellationRequested", true},
                           {"result", "four"},
                           {"error", "late"}}));
}

TEST(ChildTaskJson, TimesThatAreNotAboveZeroAreNotWritten) {
    ChildTaskRecord task;
    task.startedAtMs = -1;
    task.finishedAtMs = 0;

    EXPECT_FALSE(childTaskToJson(task).contains("startedAtMs"));
    EXPECT_FALSE(childTaskToJson(task).contains("finishedAtMs"));
}

TEST(TaskJoinJson, AJoinWithoutAnIdIsAnEmptyObject) {
    EXPECT_EQ(taskJoinToJson({}), json::object());
}

TEST(CommandResultJson, AResultPrintsItsSixKeys) {
    CommandResult result;
    result.accepted = true;
    result.duplicate = true;
    result.error = "words";
    result.firstSequence = 3;
    result.lastSequence = 5;
    result.events.resize(1);

    EXPECT_EQ(commandResultToJson(result), json({{"accepted", true},
                                                 {"duplicate", true},
                                                 {"error", "words"},
                                                 {"firstSequence", 3},
                                                 {"lastSequence", 5},
                                                 {"snapshot", snapshotToJson({})}}));
}

/// Puts a value of any type in place of a random member.
json scrambled(json object, std::mt19937_64& random) {
    static const std::vector<json> kValues{json(),        true,          -1, 5, UINT64_MAX, 1.5, "", "start_run",
                                           json::array(), json::object()};
    auto member = object.begin();
    std::advance(member, static_cast<std::ptrdiff_t>(random() % object.size()));
    if (random() % 4 == 0) {
        object.erase(member);
    } else {
        *member = kValues[random() % kValues.size()];
    }
    return object;
}

TEST(AgentJson, AnyJsonIsEitherARecordOrAnInvalidArgument) {
    std::mt19937_64 random(20240);
    int taken = 0;
    int refused = 0;
    for (int round = 0; round < 20'000; ++round) {
        const json command = scrambled(scrambled(kCommand, random), random);
        const json event = scrambled(scrambled(kEvent, random), random);
        try {
            const AgentCommand parsed = agentCommandFromJson(command);
            EXPECT_TRUE(parsed.payload.is_object());
            ++taken;
        } catch (const std::invalid_argument&) {
            ++refused;
        }
        try {
            const AgentEvent parsed = agentEventFromJson(event);
            EXPECT_TRUE(parsed.payload.is_object());
            ++taken;
        } catch (const std::invalid_argument&) {
            ++refused;
        }
    }
    EXPECT_GT(taken, 1000);
    EXPECT_GT(refused, 1000);
}

}  // namespace
}  // namespace qm::runtime
