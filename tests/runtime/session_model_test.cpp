#include "runtime/session_model.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "runtime/agent_json.h"
#include "runtime/in_memory_agent_event_store.h"
#include "runtime/jsonl_agent_event_store.h"
#include "runtime/session_actor.h"
#include "runtime/session_fixture.h"
#include "support/exhaustive.h"
#include "support/temporary_directory.h"

namespace qm::runtime {
namespace {

using test::CountingIds;
using test::SessionModel;

constexpr int kSequencesPerSeed = 10;
constexpr int kOperationsPerSequence = 550;
constexpr int kSeeds = qm::test::kExhaustiveStep == 1 ? 20 : 3;
constexpr int kOperationsOfShortSequence = 150;

json answerOf(const CommandResult& result) {
    json answer = commandResultToJson(result);
    answer["events"] = json::array();
    for (const AgentEvent& event : result.events)
        answer["events"].push_back(agentEventToJson(event));
    return answer;
}

json inputOf(const std::optional<ConsumedInput>& input) {
    if (!input) return nullptr;
    return {{"content", input->content},
            {"mode", input->mode},
            {"sourceEventId", input->sourceEventId},
            {"sourceSequence", input->sourceSequence},
            {"startsNewTurn", input->startsNewTurn}};
}

/// Draws operations that are mostly possible in the present state, with all kinds of faults in between.
class Operations {
public:
    Operations(std::mt19937_64& random, const SessionModel& model) : random_(random), model_(model) {}

    bool oneIn(unsigned count) { return random_() % count == 0; }
    template <typename Value>
    Value pick(std::initializer_list<Value> values) {
        return *(values.begin() + random_() % values.size());
    }

    json command() {
        json command{{"v", oneIn(60) ? 2 : 1},
                     {"commandId", oneIn(80) ? " " : key("c")},
                     {"sessionId", oneIn(80) ? "s2" : "s1"},
                     {"timestampMs", 5},
                     {"runId", run()}};
        const bool idle = model_.state() == "IDLE" || model_.state().ends_with("ED");
        command["type"] = oneIn(idle ? 2 : 25) ? "start_run"
                                               : pick({"append_user_input", "append_user_input", "append_user_input",
                                                       "cancel_run", "resolve_approval", "resolve_approval"});
        // A cancellation ends most of what is interesting.
        if (command["type"] == "cancel_run" && !oneIn(5)) command["type"] = "append_user_input";
        command["payload"] = oneIn(60) ? json::array() : commandPayload(command["type"]);
        return command;
    }

    json update() {
        json update{{"updateId", oneIn(80) ? " " : key("u")},
                    {"runId", oneIn(60) ? "" : run()},
                    {"turnId", oneIn(40) ? "turn_0" : pick<std::string>({"", model_.turn()})}};
        update["type"] = updateType();
        update["payload"] = oneIn(60) ? json("text") : updatePayload(update["type"]);
        return update;
    }

    json completion() {
        json update = this->update();
        if (!oneIn(20)) update["type"] = "run_completed";
        if (update["payload"].is_object()) update["payload"] = {{"content", "Done."}, {"rounds", 2}};
        return update;
    }

    json safePoint() {
        return {{"updateId", oneIn(60) ? "" : key("u")},
                {"runId", run()},
                {"turnId", oneIn(40) ? "turn_0" : model_.turn()}};
    }

private:
    std::string key(const char* prefix) {
        const int number =
            oneIn(25) && next_ > 0 ? static_cast<int>(random_() % static_cast<unsigned>(next_)) : next_++;
        return prefix + std::to_string(number);
    }
    std::string run() { return oneIn(40) ? pick<std::string>({"", " ", "run_0"}) : model_.run(); }
    std::string taskId() { return "t" + std::to_string(random_() % 6); }
    std::string text() { return pick<std::string>({"one", "two", "整理", "three\nlines", "x"}); }
    /// Mostly the identifier that is expected.
    std::string id(const std::string& expected) { return oneIn(6) ? pick<std::string>({"", " ", "other"}) : expected; }

    json commandPayload(const std::string& type) {
        json payload = json::object();
        if (type == "start_run") {
            if (!oneIn(20)) payload["objective"] = oneIn(20) ? "  " : text();
            if (oneIn(3)) payload["source"] = "LOCAL_CHAT";
        } else if (type == "append_user_input") {
            if (!oneIn(20)) payload["content"] = oneIn(20) ? "\t" : text();
            if (!oneIn(3)) payload["mode"] = oneIn(20) ? pick({"", "shout"}) : pick({"queue", "interject"});
            if (!oneIn(4)) payload["requestId"] = id(model_.question());
        } else if (type == "cancel_run") {
            if (!oneIn(4)) payload["scope"] = pick({"turn", "foreground_tools", "child_tasks", "all", "", "some"});
        } else {
            if (!oneIn(10)) payload["decision"] = pick({"approve", "revise", "cancel", "maybe", " "});
            if (oneIn(2)) payload["approvalId"] = id(model_.approval());
            if (oneIn(3)) payload["comment"] = text();
        }
        return payload;
    }

    std::string updateType() {
        if (oneIn(6)) return std::string(toString(static_cast<AgentEventType>(random_() % kAgentEventTypes)));
        if (model_.state() == "WAITING_TASKS" && oneIn(3)) return "wake_fired";
        if (model_.state() == "CANCELLING" && oneIn(4)) return "run_cancelled";
        return pick<std::string>({"task_queued", "task_queued", "task_queued", "task_started", "task_started",
                                  "task_completed", "task_completed", "task_completed", "task_cancellation_requested",
                                  "task_waiting", "task_waiting", "tool_started", "user_input_requested",
                                  "approval_requested", "assistant_message"});
    }

    json updatePayload(const std::string& type) {
        json payload{{"note", text()}};
        if (type.starts_with("task_") && !oneIn(20)) payload["taskId"] = taskId();
        if (type == "task_queued") {
            payload["task"] = oneIn(20) ? " " : text();
            payload["parentTaskId"] = oneIn(20) ? "" : "root";
            payload["depth"] = oneIn(20) ? 1 : 2;
            if (oneIn(2)) payload["access"] = oneIn(10) ? "all" : pick({"none", "read", "write"});
            if (oneIn(2)) payload["workspace"] = "ws_1";
            if (oneIn(2)) payload["createdAtMs"] = 77;
            if (oneIn(2)) payload["maxRounds"] = 8;
        } else if (type == "task_started") {
            if (oneIn(2)) payload["startedAtMs"] = 78;
        } else if (type == "task_completed") {
            payload["state"] = pick({"SUCCEEDED", "FAILED", "CANCELLED", "LOST", "RUNNING", "NONE"});
            if (oneIn(2)) payload["result"] = text();
            if (oneIn(2)) payload["error"] = text();
            if (oneIn(2)) payload["rounds"] = 3;
        } else if (type == "task_waiting") {
            joinPayload(payload);
        } else if (type == "user_input_requested") {
            if (oneIn(2)) payload["requestId"] = pick({"q1", "q2", " "});
        } else if (type == "approval_requested") {
            if (oneIn(2)) payload["approvalId"] = pick({"a1", "a2", ""});
        } else if (type == "wake_fired") {
            payload["joinId"] = pick({"j1", "j2"});
        }
        return payload;
    }

    void joinPayload(json& payload) {
        payload["joinId"] = oneIn(20) ? "" : pick({"j1", "j2"});
        payload["callId"] = oneIn(20) ? "" : "call1";
        if (!oneIn(3)) payload["policy"] = pick({"all", "any", "idle", "condition", "most"});
        payload["taskIds"] = json::array();
        for (auto count = random_() % 3; count > 0; --count)
            payload["taskIds"].push_back(taskId());
        if (oneIn(2)) payload["minSucceeded"] = random_() % 2;
    }

    std::mt19937_64& random_;
    const SessionModel& model_;
    int next_ = 0;
};

/// An actor and the model side by side.
class SideBySide {
public:
    explicit SideBySide(std::shared_ptr<AgentEventStore> store) : store_(std::move(store)) { restart(); }

    SessionModel& model() { return model_; }

    void restart() {
        actor_ = std::make_unique<SessionActor>(
            "s1", store_, [this] { return model_.nowMs; },
            [ids = ids_](const std::string& prefix) { return (*ids)(prefix); });
        ASSERT_EQ(snapshotToJson(actor_->snapshot()), model_.snapshot());
    }

    void command(const json& command) {
        ++model_.nowMs;
        const json expected = model_.command(command);
        ASSERT_EQ(answerOf(actor_->handleCommand(recordOf(command))), expected) << command;
        if (expected["lastSequence"] != 0) recorded_.push_back({&SideBySide::command, command});
    }

    void update(const json& update) {
        ++model_.nowMs;
        const json expected = model_.update(update);
        ASSERT_EQ(answerOf(actor_->applyRuntimeUpdate(updateOf(update))), expected) << update;
        if (expected["lastSequence"] != 0) recorded_.push_back({&SideBySide::update, update});
    }

    void complete(const json& update) {
        ++model_.nowMs;
        json expected = model_.complete(update);
        const TurnCompletion completion = actor_->completeTurn(updateOf(update));
        json answer = answerOf(completion.result);
        answer["input"] = inputOf(completion.input);
        if (!expected.contains("input")) expected["input"] = nullptr;
        ASSERT_EQ(answer, expected) << update;
        if (expected["lastSequence"] != 0) recorded_.push_back({&SideBySide::complete, update});
    }

    void consume(const json& point) {
        ++model_.nowMs;
        const json expected = model_.consume(point);
        json answer;
        try {
            const auto input = actor_->consumeInterjection(point["updateId"], point["runId"], point["turnId"]);
            if (input) {
                answer = answerOf(input->result);
                answer["input"] = inputOf(input);
            }
        } catch (const std::exception& error) {
            answer = {{"throws", error.what()}};
        }
        ASSERT_EQ(answer, expected) << point;
        if (expected.contains("lastSequence")) recorded_.push_back({&SideBySide::consume, point});
    }

    /// Whatever was ever written down is a duplicate with the same answer; every `stride`th operation is tried.
    void repeat(std::size_t stride) {
        const std::uint64_t before = actor_->snapshot().lastSequence;
        const auto recorded = std::exchange(recorded_, {});
        for (std::size_t index = recorded.size() % stride; index < recorded.size(); index += stride) {
            const auto& [operate, operation] = recorded[index];
            (this->*operate)(operation);
            if (testing::Test::HasFatalFailure()) return;
        }
        ASSERT_EQ(actor_->snapshot().lastSequence, before);
    }

    /// The type of every event that was written, with its reason where it has one.
    void collectFacts(std::set<std::string>& facts) const {
        for (const AgentEvent& event : store_->read("s1", 0)) {
            std::string fact(toString(event.type));
            if (event.payload.contains("reason")) fact.append(" ").append(event.payload["reason"]);
            facts.insert(std::move(fact));
        }
    }

    /// Goes on with a replay from another store.
    void moveTo(std::shared_ptr<AgentEventStore> store) {
        auto events = store_->read("s1", 0);
        for (AgentEvent& event : events)
            event.sequence = 0;
        store->append("s1", 0, std::move(events));
        store_ = std::move(store);
        restart();
    }

private:
    static AgentCommand recordOf(const json& command) {
        AgentCommand record;
        record.v = command["v"];
        record.commandId = command["commandId"];
        record.sessionId = command["sessionId"];
        record.runId = command["runId"];
        record.type = parseAgentCommandType(command["type"].get<std::string>());
        record.payload = command["payload"];
        return record;
    }

    static RuntimeUpdate updateOf(const json& update) {
        return {.updateId = update["updateId"],
                .runId = update["runId"],
                .turnId = update["turnId"],
                .type = parseAgentEventType(update["type"].get<std::string>()),
                .payload = update["payload"]};
    }

    std::shared_ptr<AgentEventStore> store_;
    std::shared_ptr<CountingIds> ids_ = std::make_shared<CountingIds>();
    SessionModel model_{"s1"};
    std::unique_ptr<SessionActor> actor_;
    std::vector<std::pair<void (SideBySide::*)(const json&), json>> recorded_;
};

void drive(SideBySide& session, Operations& operations, int count) {
    for (int operation = 0; operation < count && !testing::Test::HasFatalFailure(); ++operation) {
        if (operations.oneIn(150)) session.restart();
        if (operations.oneIn(3)) {
            session.command(operations.command());
        } else if (operations.oneIn(8)) {
            session.complete(operations.completion());
        } else if (operations.oneIn(6)) {
            session.consume(operations.safePoint());
        } else {
            session.update(operations.update());
        }
    }
}

/// What must have happened at least once for the comparison to mean something.
const std::set<std::string> kEveryFact{"approval_requested",
                                       "approval_resolved",
                                       "assistant_message",
                                       "cancellation_requested",
                                       "command_rejected",
                                       "model_completed",
                                       "model_delta",
                                       "model_failed",
                                       "model_started",
                                       "run_cancelled",
                                       "run_cancelled approval_cancelled",
                                       "run_cancelled checkpoint_cancelled",
                                       "run_completed",
                                       "run_failed",
                                       "run_started",
                                       "run_state_changed approval_cancelled",
                                       "run_state_changed approval_granted",
                                       "run_state_changed approval_required",
                                       "run_state_changed cancellation_confirmed",
                                       "run_state_changed checkpoint_cancelled",
                                       "run_state_changed plan_revision_requested",
                                       "run_state_changed runtime_completed",
                                       "run_state_changed runtime_failed",
                                       "run_state_changed task_wake",
                                       "run_state_changed user_answered",
                                       "run_state_changed user_cancelled",
                                       "run_state_changed user_input_required",
                                       "run_state_changed user_interrupted_wait",
                                       "run_state_changed user_start",
                                       "run_state_changed waiting_for_tasks",
                                       "task_cancellation_requested",
                                       "task_cancellation_requested run_cancelled",
                                       "task_completed",
                                       "task_queued",
                                       "task_started",
                                       "task_waiting",
                                       "tool_completed",
                                       "tool_failed",
                                       "tool_progress",
                                       "tool_proposed",
                                       "tool_started",
                                       "turn_started pending_interjection",
                                       "turn_started queued_user_input",
                                       "user_input_accepted",
                                       "user_input_queued",
                                       "user_input_requested",
                                       "user_interjection_buffered",
                                       "wake_fired",
                                       "wake_scheduled"};

class SessionAgainstModel : public testing::TestWithParam<int> {};

TEST_P(SessionAgainstModel, TheActorAnswersWritesAndRemembersWhatTheModelDoes) {
    std::mt19937_64 random(static_cast<std::uint64_t>(GetParam()));
    const qm::test::TemporaryDirectory directory;
    std::set<std::string> facts;
    for (int sequence = 0; sequence < kSequencesPerSeed && !HasFatalFailure(); ++sequence) {
        SCOPED_TRACE(sequence);
        const auto journal = std::make_shared<JsonlAgentEventStore>(directory / std::to_string(sequence));
        const bool onDisk = sequence == 0;
        SideBySide session(onDisk ? std::shared_ptr<AgentEventStore>(journal)
                                  : std::make_shared<InMemoryAgentEventStore>());
        Operations operations(random, session.model());
        // An answer to a repetition reads the journal, so all of them are tried only where it is short.
        const bool isShort = sequence == 1;
        drive(session, operations, (isShort ? kOperationsOfShortSequence : kOperationsPerSequence) - 50);
        if (HasFatalFailure()) return;
        // From here on an actor that was rebuilt from the journal must be no other.
        if (onDisk) {
            session.restart();
        } else {
            session.moveTo(journal);
        }
        session.repeat(isShort ? 1 : 9);
        if (HasFatalFailure()) return;
        drive(session, operations, 50);
        session.collectFacts(facts);
    }
    EXPECT_EQ(facts, kEveryFact);
}

INSTANTIATE_TEST_SUITE_P(Seeds, SessionAgainstModel, testing::Range(1, kSeeds + 1));

}  // namespace
}  // namespace qm::runtime
