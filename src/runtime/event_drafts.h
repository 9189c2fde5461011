#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/agent_records.h"
#include "runtime/session_snapshot.h"
#include "util/clock.h"
#include "util/json_fwd.h"

namespace qm::runtime {

/// Makes a fresh identifier from its prefix ("evt", "run", "turn", "question", "approval").
using IdGenerator = std::function<std::string(const std::string& prefix)>;

/// The events of one operation on a session before they are appended: the store will give them their sequences.
class EventDrafts {
public:
    /// The references must outlive the object.
    EventDrafts(const SessionSnapshot& snapshot, std::string operationId, const ClockMs& clock,
                const IdGenerator& idGenerator);

    /// Adds an event of the current run and turn.
    void add(AgentEventType type, json payload);

    /// Adds the change from the state that the session has now, before the drafts.
    void changeState(RunState to, std::string_view reason);
    void changeState(RunState from, RunState to, std::string_view reason);

    /// The events added from now on belong to this run and turn.
    void enterRun(std::string runId, std::string turnId);
    void enterTurn(std::string turnId);

    std::string newId(const std::string& prefix) const { return idGenerator_(prefix); }
    std::int64_t nowMs() const { return clock_(); }

    /// The events; the object is empty afterwards.
    std::vector<AgentEvent> take();

private:
    const SessionSnapshot& snapshot_;
    std::string operationId_;
    std::string runId_;
    std::string turnId_;
    const ClockMs& clock_;
    const IdGenerator& idGenerator_;
    std::vector<AgentEvent> events_;
};

}  // namespace qm::runtime
