#include <gtest/gtest.h>

#include <string>

#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::Fact;
using test::factsOf;
using test::rejection;
using test::Session;
using test::stateChange;

constexpr auto kActiveStates = {RunState::Running, RunState::WaitingUser, RunState::WaitingApproval,
                                RunState::WaitingTasks, RunState::Cancelling};
constexpr auto kTerminalStates = {RunState::Completed, RunState::Failed, RunState::Cancelled};

const json kTask = {{"taskId", "t9"}, {"parentTaskId", "root"}, {"task", "Count"}, {"depth", 2}};
const json kJoin = {{"joinId", "j1"}, {"callId", "call1"}, {"policy", "all"}, {"taskIds", {"t1"}}};

json with(json object, const char* key, json value) {
    object[key] = std::move(value);
    return object;
}

json without(json object, const char* key) {
    object.erase(key);
    return object;
}

void expectRejected(const CommandResult& result, const std::string& words) {
    EXPECT_FALSE(result.accepted);
    EXPECT_EQ(result.error, words);
    EXPECT_EQ(factsOf(result.events), std::vector{rejection(words)});
}

void expectAccepted(const CommandResult& result, const std::vector<Fact>& facts, RunState state) {
    EXPECT_TRUE(result.accepted) << result.error;
    EXPECT_EQ(factsOf(result.events), facts);
    EXPECT_EQ(result.snapshot.state, state);
}

TEST(RuntimeUpdateGate, ABlankUpdateIdWritesNothing) {
    Session session;
    session.start();
    for (const char* const id : {"", " \t"}) {
        RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, json::array());
        update.updateId = id;
        update.runId.clear();
        const auto result = session.actor().applyRuntimeUpdate(update);
        EXPECT_FALSE(result.accepted);
        EXPECT_EQ(result.error, "runtime updateId must not be blank");
        EXPECT_TRUE(result.events.empty());
        EXPECT_EQ(result.snapshot.lastSequence, 3U);
        EXPECT_EQ(session.snapshot().lastSequence, 3U);
    }
}

TEST(RuntimeUpdateGate, AnEmptyRunIdWritesNothing) {
    Session session;
    session.start();
    RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, json::array());
    update.runId.clear();
    const auto result = session.actor().applyRuntimeUpdate(update);
    EXPECT_EQ(result.error, "runtime update runId must not be blank");
    EXPECT_EQ(session.snapshot().lastSequence, 3U);
}

TEST(RuntimeUpdateGate, TheOperationKeyHoldsRunAndUpdate) {
    Session session;
    session.start();
    const auto result = session.update(AgentEventType::ModelStarted);
    EXPECT_EQ(result.events.front().operationId, "runtime/run_1/u2");
    EXPECT_EQ(result.events.front().runId, "run_1");
    EXPECT_EQ(result.events.front().turnId, "turn_1");
}

TEST(RuntimeUpdateGate, TheSameUpdateAgainIsADuplicate) {
    Session session;
    session.start();
    const RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, {{"round", 1}});
    const auto first = session.actor().applyRuntimeUpdate(update);

    const auto second = session.actor().applyRuntimeUpdate(update);

    EXPECT_TRUE(second.duplicate);
    EXPECT_TRUE(second.accepted);
    EXPECT_EQ(second.firstSequence, first.firstSequence);
    EXPECT_EQ(second.lastSequence, first.lastSequence);
    EXPECT_EQ(factsOf(second.events), factsOf(first.events));
    EXPECT_EQ(session.snapshot().lastSequence, 4U);
}

TEST(RuntimeUpdateGate, ItsFaultsAreFoundInOrder) {
    Session session;
    session.enter(RunState::Completed);
    RuntimeUpdate update = session.makeUpdate(AgentEventType::RunStarted, json::array());
    update.runId = "run_9";
    expectRejected(session.actor().applyRuntimeUpdate(update), "runtime update payload must be an object");
    update.updateId += "b";
    update.payload = json::object();
    expectRejected(session.actor().applyRuntimeUpdate(update), "runtime update targets a stale run or turn");
    update.updateId += "b";
    update.runId = "run_1";
    update.turnId = "turn_9";
    expectRejected(session.actor().applyRuntimeUpdate(update), "runtime update targets a stale run or turn");
    update.updateId += "b";
    update.turnId = "";
    expectRejected(session.actor().applyRuntimeUpdate(update), "session has no active run");
}

TEST(RuntimeUpdateGate, AnUpdateWithoutATurnFitsAnyTurn) {
    Session session;
    session.start();
    RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, json::object());
    update.turnId.clear();
    EXPECT_TRUE(session.actor().applyRuntimeUpdate(update).accepted);
}

TEST(RuntimeUpdateGate, ASessionWithoutARunTakesNoUpdate) {
    Session session;
    RuntimeUpdate update = session.makeUpdate(AgentEventType::ModelStarted, json::object());
    update.runId = "run_1";
    expectRejected(session.actor().applyRuntimeUpdate(update), "runtime update targets a stale run or turn");
}

TEST(RuntimeUpdateGate, ATerminalRunTakesOnlyTheEndOfAChildTask) {
    for (const RunState state : kTerminalStates) {
        for (int type = 0; type < kAgentEventTypes; ++type) {
            if (static_cast<AgentEventType>(type) == AgentEventType::TaskCompleted) continue;
            Session session;
            session.enter(state);
            expectRejected(session.update(static_cast<AgentEventType>(type)), "session has no active run");
        }
    }
}

TEST(RuntimeUpdateGate, TextThatIsNoUtf8IsReplacedSoThatTheFactIsKept) {
    Session session;
    session.start();
    const auto result = session.update(AgentEventType::RunFailed, {{"error", "cut \xE6\x96"}, {"nested", {"\xFF"}}});
    expectAccepted(result,
                   {{"run_failed", {{"error", "cut \xEF\xBF\xBD"}, {"nested", {"\xEF\xBF\xBD"}}}},
                    stateChange("RUNNING", "FAILED", "runtime_failed")},
                   RunState::Failed);
}

TEST(RuntimeUpdateGate, TwoTasksWhoseNamesBecomeOneByReplacementAreOneTask) {
    Session session;
    session.start();
    EXPECT_TRUE(session.update(AgentEventType::TaskQueued, with(kTask, "taskId", "\xFE")).accepted);
    expectRejected(session.update(AgentEventType::TaskQueued, with(kTask, "taskId", "\xFF")),
                   "invalid child task admission fact");
}

TEST(RuntimeUpdates, ControlEventsAreNotForTheRuntime) {
    for (const auto type : {AgentEventType::RunStarted, AgentEventType::TurnStarted, AgentEventType::UserInputQueued,
                            AgentEventType::UserInterjectionBuffered, AgentEventType::CancellationRequested,
                            AgentEventType::ApprovalResolved, AgentEventType::RunStateChanged,
                            AgentEventType::CommandRejected, static_cast<AgentEventType>(kAgentEventTypes)}) {
        Session session;
        session.start();
        expectRejected(session.update(type), "runtime cannot directly emit this control event type");
    }
}

TEST(RuntimeUpdates, ConsumedInputIsNotForTheRuntimeEither) {
    Session session;
    session.start();
    expectRejected(session.update(AgentEventType::UserInputAccepted),
                   "buffered input must be selected by SessionActor at a safe point");
}

TEST(RuntimeUpdates, ProgressIsWrittenAsItIsInEveryActiveState) {
    for (const RunState state : kActiveStates) {
        Session session;
        session.enter(state);
        for (const auto type :
             {AgentEventType::WakeScheduled, AgentEventType::AssistantMessage, AgentEventType::ModelStarted,
              AgentEventType::ModelDelta, AgentEventType::ModelCompleted, AgentEventType::ModelFailed,
              AgentEventType::ToolProposed, AgentEventType::ToolStarted, AgentEventType::ToolProgress,
              AgentEventType::ToolCompleted, AgentEventType::ToolFailed}) {
            const json payload = {{"phase", "tool"}, {"detail", "ls"}};
            expectAccepted(session.update(type, payload), {{std::string(toString(type)), payload}}, state);
        }
    }
}

TEST(UserInputRequested, OnlyARunningRunMayAsk) {
    for (const RunState state :
         {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks, RunState::Cancelling}) {
        Session session;
        session.enter(state);
        expectRejected(session.update(AgentEventType::UserInputRequested),
                       "user input can only be requested while running");
    }
}

TEST(UserInputRequested, TheRunWaitsForTheAnswer) {
    Session session;
    session.start();
    const json payload = {{"requestId", "q7"}, {"callId", "call1"}, {"questions", {"Which?"}}};
    const auto result = session.update(AgentEventType::UserInputRequested, payload);
    expectAccepted(result,
                   {{"user_input_requested", payload}, stateChange("RUNNING", "WAITING_USER", "user_input_required")},
                   RunState::WaitingUser);
    EXPECT_EQ(result.snapshot.pendingUserRequestId, "q7");
}

TEST(UserInputRequested, ABlankOrMissingIdIsFilledIn) {
    for (const json& payload : {json::object(), json({{"requestId", "  "}}), json({{"requestId", 5}})}) {
        Session session;
        session.start();
        const auto result = session.update(AgentEventType::UserInputRequested, payload);
        EXPECT_EQ(result.events.front().payload["requestId"], "question_1");
        EXPECT_EQ(result.snapshot.pendingUserRequestId, "question_1");
    }
}

TEST(ApprovalRequested, OnlyARunningRunMayAsk) {
    for (const RunState state :
         {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks, RunState::Cancelling}) {
        Session session;
        session.enter(state);
        expectRejected(session.update(AgentEventType::ApprovalRequested),
                       "approval can only be requested while running");
    }
}

TEST(ApprovalRequested, TheRunWaitsForTheDecision) {
    Session session;
    session.start();
    const json payload = {{"approvalId", "a7"}, {"summary", "Do it"}};
    const auto result = session.update(AgentEventType::ApprovalRequested, payload);
    expectAccepted(result,
                   {{"approval_requested", payload}, stateChange("RUNNING", "WAITING_APPROVAL", "approval_required")},
                   RunState::WaitingApproval);
    EXPECT_EQ(result.snapshot.pendingApprovalId, "a7");
}

TEST(ApprovalRequested, AMissingIdIsFilledIn) {
    Session session;
    session.start();
    const auto result = session.update(AgentEventType::ApprovalRequested);
    EXPECT_EQ(result.events.front().payload, json({{"approvalId", "approval_1"}}));
}

TEST(WakeFired, OnlyARunThatWaitsForTasksIsWoken) {
    for (const RunState state :
         {RunState::Running, RunState::WaitingUser, RunState::WaitingApproval, RunState::Cancelling}) {
        Session session;
        session.enter(state);
        expectRejected(session.update(AgentEventType::WakeFired, {{"joinId", "j1"}}),
                       "task wake requires WAITING_TASKS");
    }
}

TEST(WakeFired, AnotherJoinsWakeIsStale) {
    for (const json& payload : {json::object(), json({{"joinId", "j2"}}), json({{"joinId", 1}})}) {
        Session session;
        session.enter(RunState::WaitingTasks);
        expectRejected(session.update(AgentEventType::WakeFired, payload), "task wake targets a stale join");
    }
}

TEST(WakeFired, TheRunGoesOn) {
    Session session;
    session.enter(RunState::WaitingTasks);
    const json payload = {{"joinId", "j1"}, {"timedOut", true}};
    const auto result = session.update(AgentEventType::WakeFired, payload);
    expectAccepted(result, {{"wake_fired", payload}, stateChange("WAITING_TASKS", "RUNNING", "task_wake")},
                   RunState::Running);
    EXPECT_EQ(result.snapshot.pendingTaskJoin.joinId, "");
}

TEST(TaskQueued, EveryStateButCancellingAdmitsChildTasks) {
    for (const RunState state :
         {RunState::Running, RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks}) {
        Session session;
        session.enter(state);
        expectAccepted(session.update(AgentEventType::TaskQueued, kTask), {{"task_queued", kTask}}, state);
    }
    Session session;
    session.enter(RunState::Cancelling);
    expectRejected(session.update(AgentEventType::TaskQueued, kTask), "invalid child task admission fact");
}

TEST(TaskQueued, AnIncompleteFactIsRefused) {
    for (const json& payload :
         {without(kTask, "taskId"), with(kTask, "taskId", ""), with(kTask, "taskId", 7), without(kTask, "task"),
          with(kTask, "task", " \n"), without(kTask, "parentTaskId"), with(kTask, "parentTaskId", ""),
          without(kTask, "depth"), with(kTask, "depth", 1), with(kTask, "depth", "2"), with(kTask, "depth", -2)}) {
        Session session;
        session.start();
        expectRejected(session.update(AgentEventType::TaskQueued, payload), "invalid child task admission fact");
    }
}

TEST(TaskQueued, AKnownTaskIsNotQueuedAgain) {
    Session session;
    session.start();
    session.queueTask("t9");
    expectRejected(session.update(AgentEventType::TaskQueued, kTask), "invalid child task admission fact");
}

TEST(TaskQueued, TheAccessMustBeKnown) {
    for (const json& access : {json("none"), json("read"), json("write")}) {
        Session session;
        session.start();
        EXPECT_TRUE(session.update(AgentEventType::TaskQueued, with(kTask, "access", access)).accepted);
    }
    for (const json& access : {json(""), json("READ"), json(1), json()}) {
        Session session;
        session.start();
        expectRejected(session.update(AgentEventType::TaskQueued, with(kTask, "access", access)),
                       "unknown child task workspace access");
    }
}

TEST(TaskStarted, OnlyAKnownQueuedTaskStarts) {
    Session session;
    session.start();
    expectRejected(session.update(AgentEventType::TaskStarted, {{"taskId", "t1"}}), "child task is not queued");
    session.queueTask("t1");
    expectAccepted(session.update(AgentEventType::TaskStarted, {{"taskId", "t1"}}),
                   {{"task_started", {{"taskId", "t1"}}}}, RunState::Running);
    expectRejected(session.update(AgentEventType::TaskStarted, {{"taskId", "t1"}}), "child task is not queued");
}

TEST(TaskCancellationRequested, ATaskIsMarkedOnceWhileItLives) {
    Session session;
    session.start();
    const json payload = {{"taskId", "t1"}, {"reason", "user"}};
    expectRejected(session.update(AgentEventType::TaskCancellationRequested, payload),
                   "child task cannot be cancelled");
    session.startTask("t1");
    expectAccepted(session.update(AgentEventType::TaskCancellationRequested, payload),
                   {{"task_cancellation_requested", payload}}, RunState::Running);
    expectRejected(session.update(AgentEventType::TaskCancellationRequested, payload),
                   "child task cannot be cancelled");
    session.startTask("t2");
    session.update(AgentEventType::TaskCompleted, {{"taskId", "t2"}, {"state", "FAILED"}});
    expectRejected(session.update(AgentEventType::TaskCancellationRequested, {{"taskId", "t2"}}),
                   "child task cannot be cancelled");
}

TEST(TaskWaiting, OnlyARunningRunMayWait) {
    for (const RunState state :
         {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks, RunState::Cancelling}) {
        Session session;
        session.enter(state);
        expectRejected(session.update(AgentEventType::TaskWaiting, json::object()),
                       "task wait can only begin while running");
    }
}

TEST(TaskWaiting, AnIncompleteJoinIsRefused) {
    const std::vector<std::pair<json, std::string>> cases{
        {without(kJoin, "joinId"), "task wait requires joinId and callId"},
        {with(kJoin, "callId", ""), "task wait requires joinId and callId"},
        {with(kJoin, "policy", ""), "unknown task join policy"},
        {with(kJoin, "policy", 1), "unknown task join policy"},
        {with(with(kJoin, "policy", "most"), "taskIds", json::array()), "unknown task join policy"},
        {without(kJoin, "taskIds"), "task wait requires at least one task"},
        {with(kJoin, "taskIds", json::array()), "task wait requires at least one task"},
        {with(kJoin, "taskIds", "t1"), "task wait requires at least one task"},
        {with(kJoin, "taskIds", {"t1", "t2"}), "task wait references an unknown child task"},
        {with(kJoin, "taskIds", {"t1", 5}), "task wait references an unknown child task"},
        {with(kJoin, "policy", "condition"), "condition join requires minSucceeded greater than zero"},
        {with(with(kJoin, "policy", "condition"), "minSucceeded", 0),
         "condition join requires minSucceeded greater than zero"},
    };
    for (const auto& [payload, words] : cases) {
        Session session;
        session.start();
        session.queueTask("t1");
        expectRejected(session.update(AgentEventType::TaskWaiting, payload), words);
        EXPECT_EQ(session.snapshot().state, RunState::Running);
    }
}

TEST(TaskWaiting, EveryPolicyWaits) {
    for (const json& payload :
         {kJoin, without(kJoin, "policy"), with(kJoin, "policy", "any"), with(kJoin, "policy", "idle"),
          with(with(kJoin, "policy", "condition"), "minSucceeded", 1)}) {
        Session session;
        session.start();
        session.queueTask("t1");
        const auto result = session.update(AgentEventType::TaskWaiting, payload);
        expectAccepted(result,
                       {{"task_waiting", payload},
                        {"wake_scheduled", payload},
                        stateChange("RUNNING", "WAITING_TASKS", "waiting_for_tasks")},
                       RunState::WaitingTasks);
        EXPECT_EQ(result.snapshot.pendingTaskJoin.joinId, "j1");
    }
}

TEST(TaskCompleted, OnlyALivingTaskEndsAndInATerminalState) {
    Session session;
    session.start();
    const char* const words = "invalid child task completion fact";
    expectRejected(session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "LOST"}}), words);
    session.queueTask("t1");
    for (const json& state : {json(), json("QUEUED"), json("RUNNING"), json("DONE"), json(2)}) {
        expectRejected(session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", state}}), words);
    }
    const json payload = {{"taskId", "t1"}, {"state", "CANCELLED"}};
    expectAccepted(session.update(AgentEventType::TaskCompleted, payload), {{"task_completed", payload}},
                   RunState::Running);
    expectRejected(session.update(AgentEventType::TaskCompleted, payload), words);
}

TEST(TaskCompleted, EveryTerminalStateIsTaken) {
    for (const char* const state : {"SUCCEEDED", "FAILED", "CANCELLED", "LOST"}) {
        Session session;
        session.start();
        session.startTask("t1");
        const auto result = session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", state}});
        EXPECT_TRUE(result.accepted);
        EXPECT_EQ(toString(result.snapshot.childTasks.at("t1").state), state);
    }
}

TEST(TaskCompleted, ATaskMayEndAfterItsCancelledRun) {
    Session session;
    session.start();
    session.startTask("t1");
    session.update(AgentEventType::RunCancelled);
    const auto result = session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "SUCCEEDED"}});
    EXPECT_TRUE(result.accepted);
    EXPECT_EQ(result.snapshot.state, RunState::Cancelled);
    EXPECT_FALSE(hasActiveChildTask(result.snapshot));
}

TEST(TaskCompleted, ATaskOfAFailedRunWasLostAlready) {
    Session session;
    session.start();
    session.startTask("t1");
    session.update(AgentEventType::RunFailed);
    expectRejected(session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "SUCCEEDED"}}),
                   "invalid child task completion fact");
}

TEST(RunCompleted, OnlyARunningRunCompletes) {
    for (const RunState state :
         {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks, RunState::Cancelling}) {
        Session session;
        session.enter(state);
        expectRejected(session.update(AgentEventType::RunCompleted),
                       "run cannot complete from the current control state");
    }
}

TEST(RunCompleted, PendingInputMustBePromoted) {
    for (const char* const mode : {"queue", "interject"}) {
        Session session;
        session.start();
        session.queueTask("t1");
        session.append("more", mode);
        expectRejected(session.update(AgentEventType::RunCompleted),
                       "pending input requires atomic completeTurn promotion");
    }
}

TEST(RunCompleted, ActiveChildTasksMustBeJoined) {
    Session session;
    session.start();
    session.queueTask("t1");
    expectRejected(session.update(AgentEventType::RunCompleted), "active child tasks require an explicit task join");
}

TEST(RunCompleted, TheRunIsComplete) {
    Session session;
    session.start();
    const json payload = {{"content", "Done."}, {"rounds", 3}};
    expectAccepted(session.update(AgentEventType::RunCompleted, payload),
                   {{"run_completed", payload}, stateChange("RUNNING", "COMPLETED", "runtime_completed")},
                   RunState::Completed);
}

TEST(RunFailed, EveryActiveStateFails) {
    for (const RunState state : kActiveStates) {
        Session session;
        session.enter(state);
        if (state == RunState::WaitingTasks) {
            session.update(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "SUCCEEDED"}});
        }
        expectAccepted(
            session.update(AgentEventType::RunFailed, {{"error", "broken"}}),
            {{"run_failed", {{"error", "broken"}}}, stateChange(toString(state), "FAILED", "runtime_failed")},
            RunState::Failed);
    }
}

TEST(RunFailed, TasksThatHaveNotEndedAreLostInOrderOfTheirIds) {
    Session session;
    session.start();
    session.startTask("t2");
    session.queueTask("t1");
    session.startTask("t3");
    session.update(AgentEventType::TaskCompleted, {{"taskId", "t3"}, {"state", "SUCCEEDED"}});
    session.nowMs = 5000;
    const auto lost = [](const char* taskId) {
        return Fact{"task_completed",
                    {{"taskId", taskId},
                     {"state", "LOST"},
                     {"error", "parent run failed before the child task settled"},
                     {"finishedAtMs", 5000}}};
    };

    const auto result = session.update(AgentEventType::RunFailed, {{"error", "broken"}});

    expectAccepted(result,
                   {lost("t1"),
                    lost("t2"),
                    {"run_failed", {{"error", "broken"}}},
                    stateChange("RUNNING", "FAILED", "runtime_failed")},
                   RunState::Failed);
    EXPECT_EQ(result.snapshot.childTasks.at("t1").state, ChildTaskState::Lost);
    EXPECT_EQ(result.snapshot.childTasks.at("t1").finishedAtMs, 5000);
    EXPECT_EQ(result.snapshot.childTasks.at("t1").completionSequence, result.firstSequence);
}

TEST(RunCancelled, EveryActiveStateConfirmsACancellation) {
    for (const RunState state : kActiveStates) {
        Session session;
        session.enter(state);
        const json payload = {{"content", "half"}, {"rounds", 1}};
        expectAccepted(
            session.update(AgentEventType::RunCancelled, payload),
            {{"run_cancelled", payload}, stateChange(toString(state), "CANCELLED", "cancellation_confirmed")},
            RunState::Cancelled);
    }
}

TEST(RunCancelled, ChildTasksAreLeftToTheirOwnEnd) {
    Session session;
    session.start();
    session.startTask("t1");
    const auto result = session.update(AgentEventType::RunCancelled);
    EXPECT_EQ(result.snapshot.childTasks.at("t1").state, ChildTaskState::Running);
}

}  // namespace
}  // namespace qm::runtime
