#include <gtest/gtest.h>

#include <string>

#include "runtime/agent_json.h"
#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::Fact;
using test::factsOf;
using test::rejection;
using test::Session;
using test::stateChange;

constexpr auto kAllStates = {
    RunState::Idle,       RunState::Running,   RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks,
    RunState::Cancelling, RunState::Completed, RunState::Failed,      RunState::Cancelled};
constexpr auto kActiveStates = {RunState::Running, RunState::WaitingUser, RunState::WaitingApproval,
                                RunState::WaitingTasks, RunState::Cancelling};
constexpr auto kTerminalStates = {RunState::Completed, RunState::Failed, RunState::Cancelled};
constexpr auto kWaitStates = {RunState::WaitingUser, RunState::WaitingApproval, RunState::WaitingTasks};

/// The command was refused with these words, the refusal was journaled as its only event, and nothing else changed.
void expectRejected(const Session& session, const CommandResult& result, const std::string& words) {
    EXPECT_FALSE(result.accepted);
    EXPECT_FALSE(result.duplicate);
    EXPECT_EQ(result.error, words);
    EXPECT_EQ(factsOf(result.events), std::vector{rejection(words)});
    EXPECT_EQ(result.firstSequence, result.lastSequence);
    EXPECT_EQ(result.lastSequence, session.snapshot().lastSequence);
}

void expectAccepted(const CommandResult& result, const std::vector<Fact>& facts, RunState state) {
    EXPECT_TRUE(result.accepted) << result.error;
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(factsOf(result.events), facts);
    EXPECT_EQ(result.snapshot.state, state);
    EXPECT_EQ(result.firstSequence, result.events.front().sequence);
    EXPECT_EQ(result.lastSequence, result.events.back().sequence);
}

void expectUntraced(const Session& session, const CommandResult& result, const std::string& words,
                    std::uint64_t sequenceBefore) {
    EXPECT_FALSE(result.accepted);
    EXPECT_FALSE(result.duplicate);
    EXPECT_EQ(result.error, words);
    EXPECT_TRUE(result.events.empty());
    EXPECT_EQ(result.firstSequence, 0U);
    EXPECT_EQ(result.lastSequence, 0U);
    EXPECT_EQ(result.snapshot.lastSequence, sequenceBefore);
    EXPECT_EQ(session.snapshot().lastSequence, sequenceBefore);
}

TEST(SessionCommandGate, ABlankCommandIdWritesNothing) {
    for (const char* const id : {"", " ", " \t\r\n\v\f"}) {
        Session session;
        AgentCommand command = session.makeCommand(AgentCommandType::StartRun, {{"objective", "x"}});
        command.commandId = id;
        expectUntraced(session, session.actor().handleCommand(command), "commandId must not be blank", 0);
    }
}

TEST(SessionCommandGate, ACommandOfAnotherSessionWritesNothing) {
    Session session;
    AgentCommand command = session.makeCommand(AgentCommandType::StartRun, {{"objective", "x"}});
    command.sessionId = "s2";
    expectUntraced(session, session.actor().handleCommand(command), "command belongs to another session", 0);
}

TEST(SessionCommandGate, AnotherVersionIsRejectedInTheJournal) {
    for (const std::uint32_t version : {0U, 2U, UINT32_MAX}) {
        Session session;
        AgentCommand command = session.makeCommand(AgentCommandType::StartRun, {{"objective", "x"}});
        command.v = version;
        expectRejected(session, session.actor().handleCommand(command), "unsupported agent command protocol version");
        EXPECT_EQ(session.journal().size(), 1U);
    }
}

TEST(SessionCommandGate, APayloadThatIsNoObjectIsRejected) {
    for (const json& payload : {json(), json("x"), json::array({1})}) {
        Session session;
        expectRejected(session, session.command(AgentCommandType::StartRun, payload),
                       "command payload must be an object");
    }
}

TEST(SessionCommandGate, TheEarlierOfTwoFaultsWins) {
    Session session;
    session.start();
    AgentCommand command = session.makeCommand(AgentCommandType::StartRun, json::array());
    command.commandId = " ";
    command.sessionId = "s2";
    command.v = 2;
    EXPECT_EQ(session.actor().handleCommand(command).error, "commandId must not be blank");
    command.commandId = "c1";
    EXPECT_EQ(session.actor().handleCommand(command).error, "command belongs to another session");
    command.sessionId = "s1";
    EXPECT_TRUE(session.actor().handleCommand(command).duplicate);
    command.commandId = "c9";
    EXPECT_EQ(session.actor().handleCommand(command).error, "unsupported agent command protocol version");
    command.v = 1;
    command.commandId = "c10";
    EXPECT_EQ(session.actor().handleCommand(command).error, "command payload must be an object");
}

TEST(SessionCommandGate, ACommandTypeOutsideTheTableIsRejected) {
    Session session;
    expectRejected(session, session.command(static_cast<AgentCommandType>(4), json::object()),
                   "unknown agent command type: ");
}

TEST(StartRun, AFirstRunIsWrittenAsThreeEvents) {
    Session session;
    const json payload = {{"objective", "整理 desk "}, {"source", "LOCAL_CHAT"}, {"attachmentCount", 2}};

    const auto result = session.command(AgentCommandType::StartRun, payload);

    expectAccepted(result,
                   {{"run_started", payload},
                    {"user_input_accepted", {{"content", "整理 desk "}, {"initial", true}}},
                    stateChange("IDLE", "RUNNING", "user_start")},
                   RunState::Running);
    EXPECT_EQ(result.firstSequence, 1U);
    EXPECT_EQ(result.lastSequence, 3U);
    EXPECT_EQ(result.snapshot.runId, "run_1");
    EXPECT_EQ(result.snapshot.turnId, "turn_1");
    EXPECT_EQ(result.snapshot.objective, "整理 desk ");
}

TEST(StartRun, EveryEventIsStampedAlike) {
    Session session;
    session.nowMs = 4711;

    const auto result = session.start();

    std::uint64_t sequence = 0;
    for (const AgentEvent& event : result.events) {
        EXPECT_EQ(event.v, 1U);
        EXPECT_EQ(event.sequence, ++sequence);
        EXPECT_EQ(event.eventId, "evt_" + std::to_string(sequence));
        EXPECT_EQ(event.sessionId, "s1");
        EXPECT_EQ(event.runId, "run_1");
        EXPECT_EQ(event.turnId, "turn_1");
        EXPECT_EQ(event.operationId, "c1");
        EXPECT_EQ(event.timestampMs, 4711);
    }
    EXPECT_EQ(sequence, 3U);
}

TEST(StartRun, AFirstRunCarriesNoRunId) {
    for (const char* const runId : {"run_1", " "}) {
        Session session;
        AgentCommand command = session.makeCommand(AgentCommandType::StartRun, {{"objective", "x"}});
        command.runId = runId;
        expectRejected(session, session.actor().handleCommand(command), "command targets a stale or unknown run");
        EXPECT_EQ(session.snapshot().state, RunState::Idle);
    }
}

TEST(StartRun, AnActiveRunIsNotReplaced) {
    for (const RunState state : kActiveStates) {
        Session session;
        session.enter(state);
        expectRejected(session, session.start(), "session already has an active run");
        EXPECT_EQ(session.snapshot().state, state);
    }
}

TEST(StartRun, AnObjectiveIsRequired) {
    for (const json& payload :
         {json::object(), json({{"objective", " \n"}}), json({{"objective", 5}}), json({{"objective", nullptr}})}) {
        Session session;
        expectRejected(session, session.command(AgentCommandType::StartRun, payload), "objective must not be blank");
        EXPECT_EQ(session.snapshot().runId, "");
    }
}

TEST(StartRun, TheEarlierOfTwoFaultsWins) {
    Session session;
    session.start();
    AgentCommand command = session.makeCommand(AgentCommandType::StartRun, json::object());
    command.runId = "run_9";
    EXPECT_EQ(session.actor().handleCommand(command).error, "command targets a stale or unknown run");
    EXPECT_EQ(session.command(AgentCommandType::StartRun, json::object()).error, "session already has an active run");
}

TEST(StartRun, ATerminalRunGivesWayToANewOne) {
    for (const RunState state : kTerminalStates) {
        for (const bool namesOldRun : {false, true}) {
            Session session;
            session.enter(state);
            AgentCommand command = session.makeCommand(AgentCommandType::StartRun, {{"objective", "again"}});
            if (!namesOldRun) command.runId.clear();

            const auto result = session.actor().handleCommand(command);

            expectAccepted(result,
                           {{"run_started", {{"objective", "again"}}},
                            {"user_input_accepted", {{"content", "again"}, {"initial", true}}},
                            stateChange(toString(state), "RUNNING", "user_start")},
                           RunState::Running);
            EXPECT_EQ(result.snapshot.runId, "run_2");
            EXPECT_EQ(result.snapshot.turnId, "turn_2");
        }
    }
}

TEST(StartRun, ANewRunForgetsTheInputsOfTheOldOne) {
    Session session;
    session.start();
    session.append("later");
    session.append("now", "interject");
    session.update(AgentEventType::RunFailed);
    EXPECT_EQ(session.snapshot().queuedInputs, 1U);

    session.start("again");

    EXPECT_EQ(session.snapshot().queuedInputs, 0U);
    EXPECT_EQ(session.snapshot().bufferedInterjections, 0U);
    EXPECT_FALSE(session.consume());
    EXPECT_FALSE(session.complete().input);
    EXPECT_EQ(session.snapshot().state, RunState::Completed);
}

TEST(ActiveRunCommands, ARunIdIsRequiredAndMustBeTheCurrentOne) {
    for (const auto type :
         {AgentCommandType::AppendUserInput, AgentCommandType::ResolveApproval, AgentCommandType::CancelRun}) {
        for (const RunState state : kAllStates) {
            Session session;
            session.enter(state);
            AgentCommand command = session.makeCommand(type, json::object());
            command.runId = " ";
            expectRejected(session, session.actor().handleCommand(command),
                           "runId is required for an active-run command");
            command.commandId += "b";
            command.runId = "run_9";
            expectRejected(session, session.actor().handleCommand(command), "command targets a stale or unknown run");
        }
    }
}

TEST(AppendUserInput, ATerminalRunTakesNone) {
    for (const RunState state : kTerminalStates) {
        Session session;
        session.enter(state);
        expectRejected(session, session.command(AgentCommandType::AppendUserInput, json::object()),
                       "active run is already terminal");
    }
}

TEST(AppendUserInput, ContentIsRequiredInEveryState) {
    for (const RunState state : kActiveStates) {
        for (const json& payload :
             {json::object(), json({{"content", "\t"}, {"mode", "shout"}}), json({{"content", json::array()}})}) {
            Session session;
            session.enter(state);
            expectRejected(session, session.command(AgentCommandType::AppendUserInput, payload),
                           "content must not be blank");
        }
    }
}

TEST(AppendUserInput, TheModeIsQueueOrInterject) {
    for (const RunState state : kActiveStates) {
        for (const char* const mode : {"", "shout", "QUEUE"}) {
            Session session;
            session.enter(state);
            expectRejected(session, session.append("hello", mode),
                           "input mode must be queue or interject in protocol v1");
        }
    }
}

TEST(AppendUserInput, AModeOfAnotherTypeIsRejectedInTheJsonLibrarysWords) {
    Session session;
    session.start();
    expectRejected(session, session.command(AgentCommandType::AppendUserInput, {{"content", "hello"}, {"mode", 5}}),
                   "[json.exception.type_error.302] type must be string, but is number");
}

TEST(AppendUserInput, AnApprovalIsNotAnsweredByIt) {
    Session session;
    session.enter(RunState::WaitingApproval);
    expectRejected(session, session.append("yes"), "approval must be answered with resolve_approval");
}

TEST(AppendUserInput, AQuestionIsAnsweredOnlyWithItsRequestId) {
    for (const json& payload : {json({{"content", "red"}}), json({{"content", "red"}, {"requestId", ""}}),
                                json({{"content", "red"}, {"requestId", "q2"}})}) {
        Session session;
        session.enter(RunState::WaitingUser);
        expectRejected(session, session.command(AgentCommandType::AppendUserInput, payload),
                       "requestId is required and must match the pending question");
        EXPECT_EQ(session.snapshot().state, RunState::WaitingUser);
        EXPECT_EQ(session.snapshot().pendingUserRequestId, "q1");
    }
}

TEST(AppendUserInput, AnAnswerResumesTheRunInTheSameTurn) {
    for (const char* const mode : {"queue", "interject"}) {
        Session session;
        session.enter(RunState::WaitingUser);

        const auto result = session.command(AgentCommandType::AppendUserInput,
                                            {{"content", "red"}, {"mode", mode}, {"requestId", "q1"}});

        expectAccepted(result,
                       {{"user_input_accepted",
                         {{"content", "red"},
                          {"mode", mode},
                          {"requestId", "q1"},
                          {"answersRequest", true},
                          {"fromWaitingTasks", false}}},
                        stateChange("WAITING_USER", "RUNNING", "user_answered")},
                       RunState::Running);
        EXPECT_EQ(result.snapshot.pendingUserRequestId, "");
        EXPECT_EQ(result.snapshot.turnId, "turn_1");
        EXPECT_EQ(result.snapshot.queuedInputs + result.snapshot.bufferedInterjections, 0U);
    }
}

TEST(AppendUserInput, AWaitForTasksIsInterruptedWhateverTheRequestId) {
    for (const json& request : {json({}), json({{"requestId", "q7"}})}) {
        Session session;
        session.enter(RunState::WaitingTasks);
        json payload{{"content", "stop waiting"}};
        payload.update(request);

        const auto result = session.command(AgentCommandType::AppendUserInput, payload);

        expectAccepted(result,
                       {{"user_input_accepted",
                         {{"content", "stop waiting"},
                          {"mode", "queue"},
                          {"requestId", request.value("requestId", "")},
                          {"answersRequest", false},
                          {"fromWaitingTasks", true}}},
                        stateChange("WAITING_TASKS", "RUNNING", "user_interrupted_wait")},
                       RunState::Running);
        EXPECT_EQ(result.snapshot.pendingTaskJoin.joinId, "");
        EXPECT_TRUE(hasActiveChildTask(result.snapshot));
    }
}

TEST(AppendUserInput, ARunningTurnBuffersAnInterjection) {
    Session session;
    session.start();
    const auto result = session.append("wait", "interject");
    expectAccepted(result, {{"user_interjection_buffered", {{"content", "wait"}, {"mode", "interject"}}}},
                   RunState::Running);
    EXPECT_EQ(result.snapshot.bufferedInterjections, 1U);
    EXPECT_EQ(result.snapshot.queuedInputs, 0U);
}

TEST(AppendUserInput, InputWithoutAModeIsQueued) {
    Session session;
    session.start();
    const auto result = session.command(AgentCommandType::AppendUserInput, {{"content", "later"}});
    expectAccepted(result, {{"user_input_queued", {{"content", "later"}, {"mode", "queue"}}}}, RunState::Running);
    EXPECT_EQ(result.snapshot.queuedInputs, 1U);
}

TEST(AppendUserInput, ACancellingRunQueuesEvenAnInterjection) {
    for (const char* const mode : {"queue", "interject"}) {
        Session session;
        session.enter(RunState::Cancelling);
        const auto result = session.append("too late", mode);
        expectAccepted(result, {{"user_input_queued", {{"content", "too late"}, {"mode", mode}}}},
                       RunState::Cancelling);
        EXPECT_EQ(result.snapshot.queuedInputs, 1U);
        EXPECT_EQ(result.snapshot.bufferedInterjections, 0U);
    }
}

TEST(ResolveApproval, OnlyARunThatWaitsForApprovalTakesIt) {
    for (const RunState state : {RunState::Running, RunState::WaitingUser, RunState::WaitingTasks, RunState::Cancelling,
                                 RunState::Completed, RunState::Failed, RunState::Cancelled}) {
        Session session;
        session.enter(state);
        expectRejected(session, session.resolve(json::object()), "run is not waiting for approval");
    }
}

TEST(ResolveApproval, ItsFaultsAreFoundInOrder) {
    Session session;
    session.enter(RunState::WaitingApproval);
    expectRejected(session, session.resolve({{"approvalId", "a2"}}), "decision must not be blank");
    expectRejected(session, session.resolve({{"decision", " "}}), "decision must not be blank");
    expectRejected(session, session.resolve({{"decision", "maybe"}, {"approvalId", "a2"}}), "approvalId is stale");
    expectRejected(session, session.resolve({{"decision", "maybe"}}),
                   "approval decision must be approve, revise, or cancel");
    EXPECT_EQ(session.snapshot().state, RunState::WaitingApproval);
    EXPECT_EQ(session.snapshot().pendingApprovalId, "a1");
}

TEST(ResolveApproval, AnAbsentEmptyOrMatchingApprovalIdIsAccepted) {
    for (const json& id : {json(json::object()), json({{"approvalId", ""}}), json({{"approvalId", "a1"}})}) {
        Session session;
        session.enter(RunState::WaitingApproval);
        json payload{{"decision", "approve"}};
        payload.update(id);
        EXPECT_TRUE(session.resolve(payload).accepted);
    }
}

TEST(ResolveApproval, ApprovalResumesTheRun) {
    Session session;
    session.enter(RunState::WaitingApproval);
    const auto result = session.resolve({{"decision", "approve"}, {"comment", "go"}});
    expectAccepted(result,
                   {{"approval_resolved", {{"approvalId", "a1"}, {"decision", "approve"}, {"comment", "go"}}},
                    stateChange("WAITING_APPROVAL", "RUNNING", "approval_granted")},
                   RunState::Running);
    EXPECT_EQ(result.snapshot.pendingApprovalId, "");
}

TEST(ResolveApproval, ARevisionResumesTheRun) {
    Session session;
    session.enter(RunState::WaitingApproval);
    expectAccepted(session.resolve({{"decision", "revise"}}),
                   {{"approval_resolved", {{"approvalId", "a1"}, {"decision", "revise"}}},
                    stateChange("WAITING_APPROVAL", "RUNNING", "plan_revision_requested")},
                   RunState::Running);
}

TEST(ResolveApproval, ACancelledPlanEndsTheRun) {
    Session session;
    session.enter(RunState::WaitingApproval);
    expectAccepted(
        session.resolve({{"decision", "cancel"}, {"comment", 5}}),
        {{"approval_resolved", {{"approvalId", "a1"}, {"decision", "cancel"}}},
         {"run_cancelled",
          {{"reason", "approval_cancelled"}, {"content", "Execution was cancelled at the plan checkpoint."}}},
         stateChange("WAITING_APPROVAL", "CANCELLED", "approval_cancelled")},
        RunState::Cancelled);
}

TEST(ResolveApproval, ACancelledPlanKeepsTheUsersComment) {
    Session session;
    session.enter(RunState::WaitingApproval);
    expectAccepted(session.resolve({{"decision", "cancel"}, {"comment", "too risky"}}),
                   {{"approval_resolved", {{"approvalId", "a1"}, {"decision", "cancel"}, {"comment", "too risky"}}},
                    {"run_cancelled", {{"reason", "approval_cancelled"}, {"content", "too risky"}}},
                    stateChange("WAITING_APPROVAL", "CANCELLED", "approval_cancelled")},
                   RunState::Cancelled);
}

Fact cancellation(std::string_view scope, bool alreadyRequested, bool alreadyTerminal) {
    return {"cancellation_requested",
            {{"scope", scope}, {"alreadyRequested", alreadyRequested}, {"alreadyTerminal", alreadyTerminal}}};
}

TEST(CancelRun, AnUnknownScopeIsRejected) {
    for (const char* const scope : {"", "TURN", "everything"}) {
        Session session;
        session.start();
        expectRejected(session, session.cancel({{"scope", scope}}), "unknown cancellation scope");
    }
}

TEST(CancelRun, AnyScopeMovesARunningRunToCancelling) {
    for (const char* const scope : {"turn", "foreground_tools", "child_tasks", "all"}) {
        Session session;
        session.start();
        const auto result = session.cancel({{"scope", scope}});
        expectAccepted(result,
                       {cancellation(scope, false, false), stateChange("RUNNING", "CANCELLING", "user_cancelled")},
                       RunState::Cancelling);
        EXPECT_TRUE(result.snapshot.cancellationRequested);
    }
}

TEST(CancelRun, TheScopeIsTheTurnByDefault) {
    Session session;
    session.start();
    EXPECT_EQ(session.cancel().events.front().payload["scope"], "turn");
}

TEST(CancelRun, ASecondRequestOnlyNotesThatItCame) {
    Session session;
    session.enter(RunState::Cancelling);
    expectAccepted(session.cancel(), {cancellation("turn", true, false)}, RunState::Cancelling);
}

TEST(CancelRun, ATerminalRunIsNotAnError) {
    for (const RunState state : kTerminalStates) {
        Session session;
        session.enter(state);
        const auto result = session.cancel();
        expectAccepted(result, {cancellation("turn", false, true)}, state);
        EXPECT_FALSE(result.snapshot.cancellationRequested);
    }
}

TEST(CancelRun, AWaitIsCancelledInTheSameBatch) {
    for (const RunState state : kWaitStates) {
        Session session;
        session.enter(state);
        const auto result = session.cancel();
        expectAccepted(result,
                       {cancellation("turn", false, false),
                        stateChange(toString(state), "CANCELLING", "checkpoint_cancelled"),
                        {"run_cancelled", {{"reason", "checkpoint_cancelled"}}},
                        stateChange("CANCELLING", "CANCELLED", "checkpoint_cancelled")},
                       RunState::Cancelled);
        EXPECT_EQ(result.snapshot.pendingUserRequestId, "");
        EXPECT_EQ(result.snapshot.pendingApprovalId, "");
        EXPECT_EQ(result.snapshot.pendingTaskJoin.joinId, "");
    }
}

TEST(CancelRun, ChildTasksAreMarkedOnlyForTheScopesThatNameThem) {
    for (const char* const scope : {"turn", "foreground_tools", "child_tasks", "all"}) {
        Session session;
        session.start();
        session.startTask("t2");
        session.queueTask("t1");
        session.startTask("t3");
        session.update(AgentEventType::TaskCompleted, {{"taskId", "t3"}, {"state", "SUCCEEDED"}});
        session.queueTask("t4");
        session.update(AgentEventType::TaskCancellationRequested, {{"taskId", "t4"}});

        const auto result = session.cancel({{"scope", scope}});

        std::vector<Fact> expected{cancellation(scope, false, false)};
        if (std::string_view(scope) == "child_tasks" || std::string_view(scope) == "all") {
            expected.push_back({"task_cancellation_requested", {{"taskId", "t1"}, {"reason", "run_cancelled"}}});
            expected.push_back({"task_cancellation_requested", {{"taskId", "t2"}, {"reason", "run_cancelled"}}});
        }
        expected.push_back(stateChange("RUNNING", "CANCELLING", "user_cancelled"));
        expectAccepted(result, expected, RunState::Cancelling);
    }
}

TEST(CancelRun, TasksThatOutlivedTheirRunCanStillBeMarked) {
    Session session;
    session.start();
    session.startTask("t1");
    session.update(AgentEventType::RunCancelled);
    expectAccepted(session.cancel({{"scope", "all"}}),
                   {cancellation("all", false, true),
                    {"task_cancellation_requested", {{"taskId", "t1"}, {"reason", "run_cancelled"}}}},
                   RunState::Cancelled);
}

}  // namespace
}  // namespace qm::runtime
