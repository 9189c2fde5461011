#include "runtime/agent_json.h"

#include <concepts>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "util/json.h"

namespace qm::runtime {
namespace {

/// Reads the fields of one record. An absent key leaves the default; a value of another type is an error that names
/// the record and the key.
class FieldReader {
public:
    FieldReader(const json& object, std::string_view record) : object_(object), record_(record) {}

    void read(std::string_view key, std::string& field) const {
        const json* member = findMember(object_, key);
        if (member == nullptr) return;
        if (!member->is_string()) fail(key, "a string");
        field = member->get_ref<const std::string&>();
    }

    template <std::integral Integer>
    void read(std::string_view key, Integer& field) const {
        const json* member = findMember(object_, key);
        if (member == nullptr) return;
        if (!member->is_number_integer() || !fits<Integer>(*member)) fail(key, "an integer");
        field = member->get<Integer>();
    }

    void readVersion(std::uint32_t& version) const {
        const json* member = findMember(object_, "v");
        if (member == nullptr) return;
        if (!member->is_number_integer()) fail("v", "an integer");
        version =
            fits<std::uint32_t>(*member) ? member->get<std::uint32_t>() : std::numeric_limits<std::uint32_t>::max();
    }

    /// The payload if it is an object, otherwise null.
    const json* payload() const {
        const json* member = findMember(object_, "payload");
        return member != nullptr && member->is_object() ? member : nullptr;
    }

private:
    template <std::integral Integer>
    static bool fits(const json& number) {
        return number.is_number_unsigned() ? std::in_range<Integer>(number.get<std::uint64_t>())
                                           : std::in_range<Integer>(number.get<std::int64_t>());
    }

    [[noreturn]] void fail(std::string_view key, std::string_view type) const {
        throw std::invalid_argument(std::string(record_).append(" ").append(key).append(" must be ").append(type));
    }

    const json& object_;
    std::string_view record_;
};

void putUnlessEmpty(json& object, const char* key, const std::string& value) {
    if (!value.empty()) object[key] = value;
}

}  // namespace

AgentCommand agentCommandFromJson(const json& value) {
    if (!value.is_object()) throw std::invalid_argument("agent command must be an object");
    const FieldReader fields(value, "agent command");
    AgentCommand command;
    fields.readVersion(command.v);
    fields.read("commandId", command.commandId);
    fields.read("sessionId", command.sessionId);
    fields.read("runId", command.runId);
    command.type = parseAgentCommandType(stringMember(value, "type"));
    fields.read("timestampMs", command.timestampMs);
    if (value.contains("payload")) {
        const json* payload = fields.payload();
        if (payload == nullptr) throw std::invalid_argument("agent command payload must be an object");
        command.payload = *payload;
    }
    return command;
}

json agentCommandToJson(const AgentCommand& command) {
    json value{{"v", command.v},
               {"commandId", command.commandId},
               {"sessionId", command.sessionId},
               {"type", toString(command.type)},
               {"timestampMs", command.timestampMs},
               {"payload", command.payload}};
    putUnlessEmpty(value, "runId", command.runId);
    return value;
}

AgentEvent agentEventFromJson(json value) {
    if (!value.is_object()) throw std::invalid_argument("agent event must be an object");
    const FieldReader fields(value, "agent event");
    AgentEvent event;
    fields.readVersion(event.v);
    fields.read("eventId", event.eventId);
    fields.read("sessionId", event.sessionId);
    fields.read("runId", event.runId);
    fields.read("turnId", event.turnId);
    fields.read("operationId", event.operationId);
    fields.read("sequence", event.sequence);
    fields.read("timestampMs", event.timestampMs);
    event.type = parseAgentEventType(stringMember(value, "type"));
    if (fields.payload() == nullptr) throw std::invalid_argument("agent event payload must be an object");
    event.payload = std::move(value["payload"]);
    return event;
}

json agentEventToJson(const AgentEvent& event) {
    json value{{"v", kAgentProtocolVersion}, {"eventId", event.eventId},         {"sessionId", event.sessionId},
               {"sequence", event.sequence}, {"timestampMs", event.timestampMs}, {"type", toString(event.type)}};
    value["payload"] = event.payload;
    putUnlessEmpty(value, "runId", event.runId);
    putUnlessEmpty(value, "turnId", event.turnId);
    putUnlessEmpty(value, "operationId", event.operationId);
    return value;
}

json childTaskToJson(const ChildTaskRecord& task) {
    json value{{"taskId", task.taskId},
               {"parentTaskId", task.parentTaskId},
               {"objective", task.objective},
               {"origin", task.origin},
               {"state", toString(task.state)},
               {"depth", task.depth},
               {"maxRounds", task.maxRounds},
               {"rounds", task.rounds},
               {"timeoutMs", task.timeoutMs},
               {"createdAtMs", task.createdAtMs},
               {"cancellationRequested", task.cancellationRequested}};
    putUnlessEmpty(value, "workspace", task.workspace);
    putUnlessEmpty(value, "access", task.access);
    putUnlessEmpty(value, "result", task.result);
    putUnlessEmpty(value, "error", task.error);
    if (task.startedAtMs > 0) value["startedAtMs"] = task.startedAtMs;
    if (task.finishedAtMs > 0) value["finishedAtMs"] = task.finishedAtMs;
    if (task.completionSequence != 0) value["completionSequence"] = task.completionSequence;
    return value;
}

json taskJoinToJson(const PendingTaskJoin& join) {
    if (join.joinId.empty()) return json::object();
    return {{"joinId", join.joinId},   {"callId", join.callId},       {"policy", join.policy},
            {"taskIds", join.taskIds}, {"timeoutMs", join.timeoutMs}, {"minSucceeded", join.minSucceeded}};
}

json snapshotToJson(const SessionSnapshot& snapshot) {
    json value{{"sessionId", snapshot.sessionId},
               {"state", toString(snapshot.state)},
               {"lastSequence", snapshot.lastSequence},
               {"queuedInputs", snapshot.queuedInputs},
               {"bufferedInterjections", snapshot.bufferedInterjections},
               {"cancellationRequested", snapshot.cancellationRequested},
               {"childTasks", json::array()}};
    putUnlessEmpty(value, "runId", snapshot.runId);
    putUnlessEmpty(value, "turnId", snapshot.turnId);
    putUnlessEmpty(value, "objective", snapshot.objective);
    putUnlessEmpty(value, "pendingUserRequestId", snapshot.pendingUserRequestId);
    putUnlessEmpty(value, "pendingApprovalId", snapshot.pendingApprovalId);
    for (const auto& [taskId, task] : snapshot.childTasks)
        value["childTasks"].push_back(childTaskToJson(task));
    if (!snapshot.pendingTaskJoin.joinId.empty()) value["pendingTaskJoin"] = taskJoinToJson(snapshot.pendingTaskJoin);
    return value;
}

json commandResultToJson(const CommandResult& result) {
    return {{"accepted", result.accepted},
            {"duplicate", result.duplicate},
            {"error", result.error},
            {"firstSequence", result.firstSequence},
            {"lastSequence", result.lastSequence},
            {"snapshot", snapshotToJson(result.snapshot)}};
}

}  // namespace qm::runtime
