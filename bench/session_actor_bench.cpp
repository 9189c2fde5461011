// The session actor beside the store that it writes to. Wanted: at least 100,000 commands a second on a store in
// memory ("items_per_second"), and a memory after 100,000 events that depends on the keys of the operations
// ("keptBytes/event") and not on what the events hold.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "against_limit.h"
#include "runtime/in_memory_agent_event_store.h"
#include "runtime/session_actor.h"
#include "util/json.h"

namespace {

using qm::runtime::AgentCommand;
using qm::runtime::AgentCommandType;
using qm::runtime::AgentEvent;
using qm::runtime::AgentEventType;
using qm::runtime::InMemoryAgentEventStore;
using qm::runtime::SessionActor;

/// A store that numbers events and forgets them, so that only what the actor keeps is kept.
class ForgetfulStore : public qm::runtime::AgentEventStore {
public:
    std::vector<AgentEvent> read(const std::string&, std::uint64_t) override { return {}; }
    std::vector<AgentEvent> append(const std::string&, std::uint64_t last, std::vector<AgentEvent> events) override {
        for (AgentEvent& event : events)
            event.sequence = ++last;
        return events;
    }
};

AgentCommand makeCommand(AgentCommandType type, std::string id, const std::string& runId, qm::json payload) {
    return {.v = 1,
            .commandId = std::move(id),
            .sessionId = "s1",
            .runId = runId,
            .type = type,
            .timestampMs = 1,
            .payload = std::move(payload)};
}

std::string startRun(SessionActor& actor) {
    return actor.handleCommand(makeCommand(AgentCommandType::StartRun, "start", "", {{"objective", "Tidy"}}))
        .snapshot.runId;
}

constexpr int kCommands = 20'000;

/// Commands that arrive at a session, against the bare append of the events that they cause.
void handleCommand(benchmark::State& state) {
    const auto commandOf = [](int number, const std::string& runId) {
        return makeCommand(AgentCommandType::AppendUserInput, "command-" + std::to_string(number), runId,
                           {{"content", "Please go on with the next file"}, {"mode", "queue"}});
    };
    qm::bench::runAgainstLimit(
        state, 0,
        [&] {
            SessionActor actor("s1", std::make_shared<InMemoryAgentEventStore>());
            const std::string runId = startRun(actor);
            for (int number = 0; number < kCommands; ++number) {
                benchmark::DoNotOptimize(actor.handleCommand(commandOf(number, runId)));
            }
        },
        [&] {
            InMemoryAgentEventStore store;
            for (int number = 0; number < kCommands; ++number) {
                AgentCommand command = commandOf(number, "run_0123456789abcdefghij");
                AgentEvent event;
                event.eventId = qm::runtime::randomAgentId("evt");
                event.sessionId = "s1";
                event.runId = std::move(command.runId);
                event.operationId = std::move(command.commandId);
                event.payload = std::move(command.payload);
                store.append("s1", static_cast<std::uint64_t>(number), {std::move(event)});
            }
        });
    state.SetItemsProcessed(state.iterations() * kCommands);
}

/// What stays allocated after 100,000 progress reports whose payload has so many bytes.
void memoryAfterEvents(benchmark::State& state) {
    constexpr int kEvents = 100'000;
    const std::string detail(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto iteration : state) {
        const auto before = ::mallinfo2().uordblks;
        SessionActor actor("s1", std::make_shared<ForgetfulStore>());
        const std::string runId = startRun(actor);
        for (int number = 0; number < kEvents; ++number) {
            actor.applyRuntimeUpdate({.updateId = "progress-" + std::to_string(number),
                                      .runId = runId,
                                      .turnId = "",
                                      .type = AgentEventType::ToolProgress,
                                      .payload = {{"detail", detail}}});
        }
        state.counters["keptBytes/event"] = static_cast<double>(::mallinfo2().uordblks - before) / kEvents;
    }
}

BENCHMARK(handleCommand)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(memoryAfterEvents)->Arg(100)->Arg(10'000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
