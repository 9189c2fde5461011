#include "runtime/session_reducer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "runtime/agent_json.h"
#include "util/json.h"

namespace qm::runtime {
namespace {

/// A snapshot that is fed with one event after the other.
class Fold {
public:
    Fold& apply(AgentEventType type, json payload = json::object()) {
        applyEvent(snapshot_, next(type, std::move(payload)));
        return *this;
    }

    AgentEvent next(AgentEventType type, json payload = json::object()) const {
        return {.v = 1,
                .eventId = "evt_1",
                .sessionId = "s1",
                .runId = "run_1",
                .turnId = "turn_1",
                .operationId = "c1",
                .sequence = snapshot_.lastSequence + 1,
                .timestampMs = 77,
                .type = type,
                .payload = std::move(payload)};
    }

    /// The words with which the event is refused; the snapshot must not change by it.
    std::string refusalOf(const AgentEvent& event) {
        const json before = snapshotToJson(snapshot_);
        try {
            applyEvent(snapshot_, event);
        } catch (const std::exception& error) {
            EXPECT_EQ(snapshotToJson(snapshot_), before);
            return error.what();
        }
        return "no refusal";
    }

    std::string refusalOf(AgentEventType type, json payload = json::object()) {
        return refusalOf(next(type, std::move(payload)));
    }

    SessionSnapshot& operator*() { return snapshot_; }
    SessionSnapshot* operator->() { return &snapshot_; }

private:
    SessionSnapshot snapshot_;
};

json change(const char* from, const char* to) {
    return {{"from", from}, {"to", to}, {"reason", "test"}};
}

Fold withTask(ChildTaskState state = ChildTaskState::Queued) {
    Fold fold;
    fold.apply(AgentEventType::TaskQueued, {{"taskId", "t1"}});
    fold->childTasks["t1"].state = state;
    return fold;
}

TEST(SessionReducer, AnotherVersionIsRefused) {
    Fold fold;
    for (const std::uint32_t version : {0U, 2U, UINT32_MAX}) {
        AgentEvent event = fold.next(AgentEventType::ModelDelta);
        event.v = version;
        EXPECT_EQ(fold.refusalOf(event), "unsupported agent event protocol version");
    }
}

TEST(SessionReducer, ASnapshotWithoutASessionTakesTheEvents) {
    Fold fold;
    fold.apply(AgentEventType::ModelDelta);
    EXPECT_EQ(fold->sessionId, "s1");
}

TEST(SessionReducer, AnEventOfAnotherSessionIsRefused) {
    Fold fold;
    fold->sessionId = "s2";
    EXPECT_EQ(fold.refusalOf(AgentEventType::ModelDelta), "event belongs to another session");
}

TEST(SessionReducer, ASequenceThatDoesNotFollowIsRefused) {
    Fold fold;
    fold->lastSequence = 4;
    for (const std::uint64_t sequence : {0U, 4U, 6U}) {
        AgentEvent event = fold.next(AgentEventType::ModelDelta);
        event.sequence = sequence;
        EXPECT_EQ(fold.refusalOf(event), "agent event sequence is not contiguous");
    }
}

TEST(SessionReducer, TheVersionIsTestedBeforeTheSessionAndTheSessionBeforeTheSequence) {
    Fold fold;
    fold->sessionId = "s2";
    fold->lastSequence = 4;
    AgentEvent event = fold.next(AgentEventType::RunStateChanged, change("RUNNING", "FAILED"));
    event.v = 2;
    event.sequence = 9;
    EXPECT_EQ(fold.refusalOf(event), "unsupported agent event protocol version");
    event.v = 1;
    EXPECT_EQ(fold.refusalOf(event), "event belongs to another session");
    event.sessionId = "s2";
    EXPECT_EQ(fold.refusalOf(event), "agent event sequence is not contiguous");
    event.sequence = 5;
    EXPECT_EQ(fold.refusalOf(event), "run state replay diverged");
}

TEST(SessionReducer, AStartedRunResetsEverythingButTheState) {
    Fold fold;
    fold->sessionId = "s1";
    fold->runId = "run_0";
    fold->turnId = "turn_0";
    fold->objective = "old";
    fold->state = RunState::Failed;
    fold->lastSequence = 20;
    fold->queuedInputs = 2;
    fold->bufferedInterjections = 3;
    fold->cancellationRequested = true;
    fold->pendingUserRequestId = "q";
    fold->pendingApprovalId = "a";
    fold->childTasks["t1"] = {};
    fold->pendingTaskJoin.joinId = "j";

    fold.apply(AgentEventType::RunStarted, {{"objective", "new"}, {"source", "LOCAL_CHAT"}});

    EXPECT_EQ(snapshotToJson(*fold), json({{"sessionId", "s1"},
                                           {"runId", "run_1"},
                                           {"turnId", "turn_1"},
                                           {"objective", "new"},
                                           {"state", "FAILED"},
                                           {"lastSequence", 21},
                                           {"queuedInputs", 0},
                                           {"bufferedInterjections", 0},
                                           {"cancellationRequested", false},
                                           {"childTasks", json::array()}}));
}

TEST(SessionReducer, TheStateAfterATerminalRunChangesFromThatTerminalState) {
    Fold fold;
    fold->state = RunState::Completed;
    fold.apply(AgentEventType::RunStarted);
    EXPECT_EQ(fold->state, RunState::Completed);
    EXPECT_EQ(fold.refusalOf(AgentEventType::RunStateChanged, change("IDLE", "RUNNING")), "run state replay diverged");
    fold.apply(AgentEventType::RunStateChanged, change("COMPLETED", "RUNNING"));
    EXPECT_EQ(fold->state, RunState::Running);
}

TEST(SessionReducer, ANewTurnClearsWhatTheOldOneWaitedFor) {
    Fold fold;
    fold->turnId = "turn_0";
    fold->pendingUserRequestId = "q";
    fold->pendingApprovalId = "a";
    fold.apply(AgentEventType::TurnStarted);
    EXPECT_EQ(fold->turnId, "turn_1");
    EXPECT_EQ(fold->pendingUserRequestId, "");
    EXPECT_EQ(fold->pendingApprovalId, "");
}

TEST(SessionReducer, InputsAreCountedInAndOut) {
    Fold fold;
    fold.apply(AgentEventType::UserInputQueued).apply(AgentEventType::UserInputQueued);
    fold.apply(AgentEventType::UserInterjectionBuffered);
    EXPECT_EQ(fold->queuedInputs, 2U);
    EXPECT_EQ(fold->bufferedInterjections, 1U);

    fold.apply(AgentEventType::UserInputAccepted, {{"fromQueue", true}, {"fromInterjection", false}});
    EXPECT_EQ(fold->queuedInputs, 1U);
    EXPECT_EQ(fold->bufferedInterjections, 1U);

    fold.apply(AgentEventType::UserInputAccepted, {{"fromQueue", false}, {"fromInterjection", true}});
    EXPECT_EQ(fold->queuedInputs, 1U);
    EXPECT_EQ(fold->bufferedInterjections, 0U);
}

TEST(SessionReducer, TheCountsNeverGoBelowZero) {
    Fold fold;
    fold.apply(AgentEventType::UserInputAccepted, {{"fromQueue", true}, {"fromInterjection", true}});
    EXPECT_EQ(fold->queuedInputs, 0U);
    EXPECT_EQ(fold->bufferedInterjections, 0U);
}

TEST(SessionReducer, AnAcceptedInputAnswersTheQuestionAndEndsAWaitForTasks) {
    Fold fold;
    fold->pendingUserRequestId = "q";
    fold->pendingTaskJoin.joinId = "j";
    fold.apply(AgentEventType::UserInputAccepted, {{"fromWaitingTasks", false}});
    EXPECT_EQ(fold->pendingUserRequestId, "");
    EXPECT_EQ(fold->pendingTaskJoin.joinId, "j");
    fold.apply(AgentEventType::UserInputAccepted, {{"fromWaitingTasks", true}});
    EXPECT_EQ(fold->pendingTaskJoin.joinId, "");
}

TEST(SessionReducer, ACancellationIsRememberedUnlessTheRunHadEnded) {
    Fold fold;
    fold.apply(AgentEventType::CancellationRequested, {{"alreadyTerminal", true}});
    EXPECT_FALSE(fold->cancellationRequested);
    fold.apply(AgentEventType::CancellationRequested, {{"alreadyTerminal", false}});
    EXPECT_TRUE(fold->cancellationRequested);
    fold.apply(AgentEventType::CancellationRequested, {{"alreadyTerminal", true}});
    EXPECT_TRUE(fold->cancellationRequested);
}

TEST(SessionReducer, QuestionsAndApprovalsArePendingUntilTheyAreResolved) {
    Fold fold;
    fold.apply(AgentEventType::UserInputRequested, {{"requestId", "q1"}});
    EXPECT_EQ(fold->pendingUserRequestId, "q1");
    fold.apply(AgentEventType::ApprovalRequested, {{"approvalId", "a1"}});
    EXPECT_EQ(fold->pendingApprovalId, "a1");
    fold.apply(AgentEventType::ApprovalResolved);
    EXPECT_EQ(fold->pendingApprovalId, "");
}

TEST(SessionReducer, AQueuedTaskIsRecorded) {
    Fold fold;
    fold.apply(AgentEventType::TaskQueued, {{"taskId", "t1"},
                                            {"parentTaskId", "root"},
                                            {"task", "Count"},
                                            {"origin", "CHAT"},
                                            {"workspace", "ws_1"},
                                            {"access", "write"},
                                            {"depth", 2},
                                            {"maxRounds", 8},
                                            {"timeoutMs", 60000},
                                            {"createdAtMs", 5}});
    EXPECT_EQ(childTaskToJson(fold->childTasks.at("t1")), json({{"taskId", "t1"},
                                                                {"parentTaskId", "root"},
                                                                {"objective", "Count"},
                                                                {"origin", "CHAT"},
                                                                {"workspace", "ws_1"},
                                                                {"access", "write"},
                                                                {"state", "QUEUED"},
                                                                {"depth", 2},
                                                                {"maxRounds", 8},
                                                                {"rounds", 0},
                                                                {"timeoutMs", 60000},
                                                                {"createdAtMs", 5},
                                                                {"cancellationRequested", false}}));
}

TEST(SessionReducer, AQueuedTaskHasDefaultsForAccessAndCreation) {
    Fold fold = withTask();
    EXPECT_EQ(fold->childTasks.at("t1").access, "none");
    EXPECT_EQ(fold->childTasks.at("t1").createdAtMs, 77);
}

TEST(SessionReducer, ATaskWithoutAnIdOrWithAKnownOneIsRefused) {
    Fold fold = withTask();
    const char* const words = "queued child task identity is invalid or duplicated";
    EXPECT_EQ(fold.refusalOf(AgentEventType::TaskQueued), words);
    EXPECT_EQ(fold.refusalOf(AgentEventType::TaskQueued, {{"taskId", ""}}), words);
    EXPECT_EQ(fold.refusalOf(AgentEventType::TaskQueued, {{"taskId", "t1"}}), words);
}

TEST(SessionReducer, NumbersBeyondTheirFieldReadAsTheNearestOnes) {
    Fold fold;
    fold.apply(AgentEventType::TaskQueued, {{"taskId", "t1"}, {"depth", 4294967298}, {"maxRounds", -4294967298}});
    EXPECT_EQ(fold->childTasks.at("t1").depth, INT32_MAX);
    EXPECT_EQ(fold->childTasks.at("t1").maxRounds, INT32_MIN);
}

TEST(SessionReducer, NumbersBeyondTheSignedRangeReadAsTheLargestOnes) {
    Fold fold;
    fold.apply(AgentEventType::TaskQueued, {{"taskId", "t1"},
                                            {"depth", UINT64_MAX},
                                            {"maxRounds", UINT64_MAX},
                                            {"timeoutMs", UINT64_MAX},
                                            {"createdAtMs", std::uint64_t{INT64_MAX} + 1}});
    fold.apply(AgentEventType::TaskStarted, {{"taskId", "t1"}, {"startedAtMs", UINT64_MAX}});
    fold.apply(AgentEventType::TaskWaiting,
               {{"joinId", "j1"}, {"minSucceeded", UINT64_MAX}, {"timeoutMs", UINT64_MAX}});
    fold.apply(AgentEventType::TaskCompleted,
               {{"taskId", "t1"}, {"state", "LOST"}, {"rounds", UINT64_MAX}, {"finishedAtMs", UINT64_MAX}});

    const ChildTaskRecord& task = fold->childTasks.at("t1");
    for (const std::int32_t number : {task.depth, task.maxRounds, task.rounds, fold->pendingTaskJoin.minSucceeded})
        EXPECT_EQ(number, INT32_MAX);
    for (const std::int64_t number :
         {task.timeoutMs, task.createdAtMs, task.startedAtMs, task.finishedAtMs, fold->pendingTaskJoin.timeoutMs}) {
        EXPECT_EQ(number, INT64_MAX);
    }
}

TEST(SessionReducer, ANumberWithAFractionReadsAsAbsent) {
    Fold fold;
    fold.apply(AgentEventType::TaskQueued, {{"taskId", "t1"}, {"depth", 2.0}, {"timeoutMs", 1e30}});
    EXPECT_EQ(fold->childTasks.at("t1").depth, 0);
    EXPECT_EQ(fold->childTasks.at("t1").timeoutMs, 0);
}

TEST(SessionReducer, AQueuedTaskStarts) {
    Fold fold = withTask();
    fold.apply(AgentEventType::TaskStarted, {{"taskId", "t1"}, {"startedAtMs", 9}});
    EXPECT_EQ(fold->childTasks.at("t1").state, ChildTaskState::Running);
    EXPECT_EQ(fold->childTasks.at("t1").startedAtMs, 9);
}

TEST(SessionReducer, AStartWithoutATimeTakesTheEvents) {
    Fold fold = withTask();
    fold.apply(AgentEventType::TaskStarted, {{"taskId", "t1"}});
    EXPECT_EQ(fold->childTasks.at("t1").startedAtMs, 77);
}

TEST(SessionReducer, OnlyAQueuedTaskStarts) {
    EXPECT_EQ(Fold().refusalOf(AgentEventType::TaskStarted, {{"taskId", "t1"}}), "child task start replay diverged");
    for (const auto state : {ChildTaskState::Running, ChildTaskState::Succeeded, ChildTaskState::Failed,
                             ChildTaskState::Cancelled, ChildTaskState::Lost}) {
        EXPECT_EQ(withTask(state).refusalOf(AgentEventType::TaskStarted, {{"taskId", "t1"}}),
                  "child task start replay diverged");
    }
}

TEST(SessionReducer, ATaskThatHasNotEndedCanBeMarkedForCancellation) {
    for (const auto state : {ChildTaskState::Queued, ChildTaskState::Running}) {
        Fold fold = withTask(state);
        fold.apply(AgentEventType::TaskCancellationRequested, {{"taskId", "t1"}});
        EXPECT_TRUE(fold->childTasks.at("t1").cancellationRequested);
        EXPECT_EQ(fold->childTasks.at("t1").state, state);
    }
    const char* const words = "child task cancellation replay diverged";
    EXPECT_EQ(Fold().refusalOf(AgentEventType::TaskCancellationRequested, {{"taskId", "t1"}}), words);
    EXPECT_EQ(withTask(ChildTaskState::Lost).refusalOf(AgentEventType::TaskCancellationRequested, {{"taskId", "t1"}}),
              words);
}

TEST(SessionReducer, AWaitFillsTheJoin) {
    Fold fold;
    fold.apply(AgentEventType::TaskWaiting, {{"joinId", "j1"},
                                             {"callId", "call1"},
                                             {"policy", "condition"},
                                             {"taskIds", {"t1", "t2"}},
                                             {"minSucceeded", 2},
                                             {"timeoutMs", 900}});
    EXPECT_EQ(taskJoinToJson(fold->pendingTaskJoin), json({{"joinId", "j1"},
                                                           {"callId", "call1"},
                                                           {"policy", "condition"},
                                                           {"taskIds", {"t1", "t2"}},
                                                           {"minSucceeded", 2},
                                                           {"timeoutMs", 900}}));
}

TEST(SessionReducer, AJoinWithoutAPolicyWaitsForAll) {
    Fold fold;
    fold.apply(AgentEventType::TaskWaiting, {{"joinId", "j1"}});
    EXPECT_EQ(fold->pendingTaskJoin.policy, "all");
    EXPECT_TRUE(fold->pendingTaskJoin.taskIds.empty());
}

TEST(SessionReducer, AWaitWithoutAnObjectIsRefused) {
    EXPECT_EQ(Fold().refusalOf(AgentEventType::TaskWaiting, json::array()), "agent event payload must be an object");
}

TEST(SessionReducer, AWakeClearsTheJoin) {
    Fold fold;
    fold->pendingTaskJoin.joinId = "j1";
    fold.apply(AgentEventType::WakeFired);
    EXPECT_EQ(fold->pendingTaskJoin.joinId, "");
}

TEST(SessionReducer, ACompletedTaskIsRecorded) {
    for (const auto state : {ChildTaskState::Queued, ChildTaskState::Running}) {
        Fold fold = withTask(state);
        fold.apply(AgentEventType::TaskCompleted, {{"taskId", "t1"},
                                                   {"state", "FAILED"},
                                                   {"rounds", 4},
                                                   {"finishedAtMs", 8},
                                                   {"result", "half"},
                                                   {"error", "late"}});
        const ChildTaskRecord& task = fold->childTasks.at("t1");
        EXPECT_EQ(task.state, ChildTaskState::Failed);
        EXPECT_EQ(task.rounds, 4);
        EXPECT_EQ(task.finishedAtMs, 8);
        EXPECT_EQ(task.completionSequence, 2U);
        EXPECT_EQ(task.result, "half");
        EXPECT_EQ(task.error, "late");
    }
}

TEST(SessionReducer, ACompletionWithoutATimeTakesTheEvents) {
    Fold fold = withTask();
    fold.apply(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "LOST"}});
    EXPECT_EQ(fold->childTasks.at("t1").finishedAtMs, 77);
}

TEST(SessionReducer, ATaskCompletesOnceAndInATerminalState) {
    const char* const diverged = "child task completion replay diverged";
    EXPECT_EQ(Fold().refusalOf(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "LOST"}}), diverged);
    EXPECT_EQ(
        withTask(ChildTaskState::Lost).refusalOf(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "LOST"}}),
        diverged);
    for (const char* const state : {"QUEUED", "RUNNING"}) {
        EXPECT_EQ(withTask().refusalOf(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", state}}),
                  "child task completed with a non-terminal state");
    }
    EXPECT_EQ(withTask().refusalOf(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "DONE"}}),
              "unknown child task state: DONE");
}

TEST(SessionReducer, ATaskThatEndsAfterItsRunStillFoldsIn) {
    Fold fold = withTask(ChildTaskState::Running);
    fold->state = RunState::Cancelled;
    fold.apply(AgentEventType::TaskCompleted, {{"taskId", "t1"}, {"state", "SUCCEEDED"}});
    EXPECT_EQ(fold->childTasks.at("t1").state, ChildTaskState::Succeeded);
}

TEST(SessionReducer, ATerminalStateClearsEverythingThatWasPending) {
    for (const char* const state : {"COMPLETED", "FAILED", "CANCELLED"}) {
        Fold fold;
        fold->state = RunState::Running;
        fold->pendingUserRequestId = "q";
        fold->pendingApprovalId = "a";
        fold->pendingTaskJoin.joinId = "j";
        fold.apply(AgentEventType::RunStateChanged, change("RUNNING", state));
        EXPECT_EQ(toString(fold->state), state);
        EXPECT_EQ(fold->pendingUserRequestId + fold->pendingApprovalId + fold->pendingTaskJoin.joinId, "");
    }
}

TEST(SessionReducer, AnotherStateKeepsWhatIsPending) {
    Fold fold;
    fold->state = RunState::Running;
    fold->pendingUserRequestId = "q";
    fold.apply(AgentEventType::RunStateChanged, change("RUNNING", "WAITING_USER"));
    EXPECT_EQ(fold->state, RunState::WaitingUser);
    EXPECT_EQ(fold->pendingUserRequestId, "q");
}

TEST(SessionReducer, AStateChangeToAnUnknownStateIsRefused) {
    EXPECT_EQ(Fold().refusalOf(AgentEventType::RunStateChanged, change("IDLE", "ASLEEP")), "unknown run state: ASLEEP");
}

TEST(SessionReducer, AllOtherTypesOnlyAdvanceTheSequence) {
    for (const auto type : {AgentEventType::WakeScheduled, AgentEventType::ModelStarted, AgentEventType::ModelDelta,
                            AgentEventType::ModelCompleted, AgentEventType::ModelFailed, AgentEventType::ToolProposed,
                            AgentEventType::ToolStarted, AgentEventType::ToolProgress, AgentEventType::ToolCompleted,
                            AgentEventType::ToolFailed, AgentEventType::AssistantMessage, AgentEventType::RunCompleted,
                            AgentEventType::RunFailed, AgentEventType::RunCancelled, AgentEventType::CommandRejected,
                            static_cast<AgentEventType>(kAgentEventTypes), static_cast<AgentEventType>(-1)}) {
        Fold fold;
        fold->sessionId = "s1";
        fold->lastSequence = 1;
        json expected = snapshotToJson(*fold);
        expected["lastSequence"] = 2;
        fold.apply(type, {{"objective", "x"}, {"requestId", "q"}, {"joinId", "j"}, {"to", "FAILED"}});
        EXPECT_EQ(snapshotToJson(*fold), expected) << toString(type);
    }
}

TEST(SessionReducer, AnActiveChildTaskIsOneThatHasNotEnded) {
    EXPECT_FALSE(hasActiveChildTask({}));
    for (int value = 0; value < 6; ++value) {
        const auto state = static_cast<ChildTaskState>(value);
        EXPECT_EQ(hasActiveChildTask(*withTask(state)), !isTerminal(state)) << toString(state);
    }
}

}  // namespace
}  // namespace qm::runtime
