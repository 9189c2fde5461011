#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/in_memory_agent_event_store.h"
#include "runtime/session_actor.h"
#include "util/json.h"

namespace qm::runtime::test {

/// "prefix_1", "prefix_2" and so on, counted for each prefix.
class CountingIds {
public:
    std::string operator()(const std::string& prefix) { return prefix + "_" + std::to_string(++counts_[prefix]); }

private:
    std::map<std::string, int> counts_;
};

/// A type and a payload, which is what most tests look at.
struct Fact {
    std::string type;
    json payload;
    bool operator==(const Fact&) const = default;
};
void PrintTo(const Fact& fact, std::ostream* stream);

std::vector<Fact> factsOf(const std::vector<AgentEvent>& events);
Fact stateChange(std::string_view from, std::string_view to, std::string_view reason);
Fact rejection(std::string_view words);

/// An actor over a store in memory with counted identifiers and a clock that stands at 1000, and short ways to drive
/// it. Commands and updates get a fresh id and the current run.
class Session {
public:
    Session();

    CommandResult command(AgentCommandType type, json payload);
    CommandResult start(std::string_view objective = "Tidy the desk");
    CommandResult append(std::string_view content, std::string_view mode = "queue");
    CommandResult cancel(json payload = json::object());
    CommandResult resolve(json payload);
    CommandResult update(AgentEventType type, json payload = json::object());
    TurnCompletion complete(json payload = {{"content", "Done."}, {"rounds", 2}});
    std::optional<ConsumedInput> consume();

    /// Queues a child task, and starts it, with this id.
    void queueTask(const std::string& taskId);
    void startTask(const std::string& taskId);

    /// Brings a session without an active run into the state by the shortest way. WAITING_USER waits for "q1",
    /// WAITING_APPROVAL for "a1", WAITING_TASKS for the join "j1" over the task "t1".
    void enter(RunState state);

    AgentCommand makeCommand(AgentCommandType type, json payload);
    RuntimeUpdate makeUpdate(AgentEventType type, json payload);

    SessionActor& actor() { return *actor_; }
    SessionSnapshot snapshot() const { return actor_->snapshot(); }
    InMemoryAgentEventStore& store() { return *store_; }
    std::vector<AgentEvent> journal() { return store_->read("s1", 0); }

    /// Goes on with an actor that was built by a replay of the journal.
    void restart();

    std::int64_t nowMs = 1000;

private:
    std::shared_ptr<CountingIds> ids_ = std::make_shared<CountingIds>();
    std::shared_ptr<InMemoryAgentEventStore> store_ = std::make_shared<InMemoryAgentEventStore>();
    std::unique_ptr<SessionActor> actor_;
    int operations_ = 0;
};

}  // namespace qm::runtime::test
