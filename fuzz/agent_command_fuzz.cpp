// Each line is a command, or an update of the runtime if it has an `updateId`. Whatever comes, the session answers, its
// journal folds to the same snapshot again, and a repeated command is a duplicate with the same answer.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "runtime/agent_json.h"
#include "runtime/in_memory_agent_event_store.h"
#include "runtime/session_actor.h"
#include "util/json.h"

namespace {

using namespace qm::runtime;

std::string counted(const std::string& prefix) {
    static int count = 0;
    return prefix + "_" + std::to_string(++count);
}

/// "run" and "turn" stand for the current ones, so that inputs can be written down beforehand.
std::string resolved(const std::string& id, const char* name, const std::string& current) {
    return id == name ? current : id;
}

void applyCommand(SessionActor& actor, const qm::json& value) {
    AgentCommand command = agentCommandFromJson(value);
    command.runId = resolved(command.runId, "run", actor.snapshot().runId);
    const CommandResult result = actor.handleCommand(command);
    if (result.accepted != result.error.empty()) std::abort();
    if (result.events.empty()) return;
    const CommandResult again = actor.handleCommand(command);
    if (!again.duplicate || again.accepted != result.accepted || again.error != result.error ||
        again.firstSequence != result.firstSequence || again.lastSequence != result.lastSequence) {
        std::abort();
    }
}

void applyUpdate(SessionActor& actor, const qm::json& value) {
    const SessionSnapshot now = actor.snapshot();
    RuntimeUpdate update;
    update.updateId = qm::stringMember(value, "updateId");
    update.runId = resolved(qm::stringMember(value, "runId", "run"), "run", now.runId);
    update.turnId = resolved(qm::stringMember(value, "turnId"), "turn", now.turnId);
    update.type = parseAgentEventType(qm::stringMember(value, "type"));
    if (const qm::json* payload = qm::findMember(value, "payload")) update.payload = *payload;
    if (qm::boolMember(value, "complete", false)) {
        actor.completeTurn(std::move(update));
    } else if (qm::boolMember(value, "safePoint", false)) {
        actor.consumeInterjection(update.updateId, update.runId, update.turnId);
    } else {
        actor.applyRuntimeUpdate(std::move(update));
    }
}

void applyLine(SessionActor& actor, std::string_view line) {
    try {
        const qm::json value = qm::parseJson(line);
        if (qm::findMember(value, "updateId") != nullptr) {
            applyUpdate(actor, value);
        } else {
            applyCommand(actor, value);
        }
    } catch (const qm::json::exception&) {
        // No JSON, or not of the expected shape: refused before the session.
        return;
    } catch (const std::invalid_argument&) {
        return;
    } catch (const std::runtime_error& error) {
        const std::string_view words = error.what();
        if (words != "safe point targets a stale run or turn" &&
            words != "interjections can only be consumed by a running turn") {
            throw;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    const auto store = std::make_shared<InMemoryAgentEventStore>();
    SessionActor actor(
        "s1", store, [] { return 1; }, counted);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        applyLine(actor, rest.substr(0, end));
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    const SessionActor replayed("s1", store);
    if (snapshotToJson(replayed.snapshot()) != snapshotToJson(actor.snapshot())) std::abort();
    return 0;
}
