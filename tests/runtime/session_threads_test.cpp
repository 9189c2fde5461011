#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "runtime/agent_json.h"
#include "runtime/in_memory_agent_event_store.h"
#include "runtime/jsonl_agent_event_store.h"
#include "runtime/session_actor.h"
#include "support/run_on_threads.h"
#include "support/temporary_directory.h"

namespace qm::runtime {
namespace {

using qm::test::runOnThreads;

constexpr std::size_t kThreads = 16;

AgentCommand makeCommand(AgentCommandType type, std::string id, const std::string& runId, json payload) {
    return {.v = 1,
            .commandId = std::move(id),
            .sessionId = "s1",
            .runId = runId,
            .type = type,
            .timestampMs = 0,
            .payload = std::move(payload)};
}

/// What every thread remembers of its operations: the key, and where the events stand.
class Answers {
public:
    void note(const std::string& key, const CommandResult& result) {
        const std::lock_guard lock(mutex_);
        ranges_[key].insert({result.firstSequence, result.lastSequence});
        fresh_[key] += result.duplicate ? 0 : 1;
    }

    /// Each key was carried out once, and all its callers got the same place.
    void expectOnePlaceForEachKey() {
        for (const auto& [key, ranges] : ranges_) {
            EXPECT_EQ(ranges.size(), 1U) << key;
            EXPECT_EQ(fresh_[key], 1) << key;
        }
    }

private:
    std::mutex mutex_;
    std::map<std::string, std::set<std::pair<std::uint64_t, std::uint64_t>>> ranges_;
    std::map<std::string, int> fresh_;
};

void expectContiguous(const std::vector<AgentEvent>& events) {
    for (std::size_t index = 0; index < events.size(); ++index)
        ASSERT_EQ(events[index].sequence, index + 1);
}

TEST(SessionThreads, SixteenThreadsWriteOneJournalWithoutAGap) {
    const auto store = std::make_shared<InMemoryAgentEventStore>();
    SessionActor actor("s1", store);
    const std::string runId =
        actor.handleCommand(makeCommand(AgentCommandType::StartRun, "start", "", {{"objective", "x"}})).snapshot.runId;
    Answers answers;
    constexpr int kRounds = 120;

    runOnThreads(kThreads, [&](std::size_t number) {
        for (int round = 0; round < kRounds; ++round) {
            // Four threads share each key.
            const std::string key = std::to_string(number / 4) + "-" + std::to_string(round);
            answers.note("c" + key, actor.handleCommand(makeCommand(
                                        AgentCommandType::AppendUserInput, "c" + key, runId,
                                        {{"content", key}, {"mode", round % 2 == 0 ? "queue" : "interject"}})));
            answers.note("u" + key, actor.applyRuntimeUpdate({.updateId = key,
                                                              .runId = runId,
                                                              .turnId = "",
                                                              .type = AgentEventType::ToolProgress,
                                                              .payload = {{"detail", key}}}));
            const auto page = actor.readEvents(actor.snapshot().lastSequence, 4);
            EXPECT_GE(page.snapshot.lastSequence, page.events.empty() ? 0 : page.events.back().sequence);
        }
    });

    answers.expectOnePlaceForEachKey();
    const auto events = store->read("s1", 0);
    expectContiguous(events);
    EXPECT_EQ(events.size(), 3 + 2 * (kThreads / 4) * kRounds);
    EXPECT_EQ(actor.snapshot().lastSequence, events.size());
    EXPECT_EQ(snapshotToJson(SessionActor("s1", store).snapshot()), snapshotToJson(actor.snapshot()));
}

TEST(SessionThreads, NoInputIsLostOrHandedOutTwiceWhileTurnsEnd) {
    const auto store = std::make_shared<InMemoryAgentEventStore>();
    SessionActor actor("s1", store);
    const std::string runId =
        actor.handleCommand(makeCommand(AgentCommandType::StartRun, "start", "", {{"objective", "x"}})).snapshot.runId;
    constexpr int kInputs = 60;
    std::mutex mutex;
    std::multiset<std::string> sent;
    std::multiset<std::string> received;
    std::atomic<int> ids = 0;

    runOnThreads(kThreads, [&](std::size_t number) {
        for (int round = 0; round < kInputs; ++round) {
            const std::string id = std::to_string(number) + "-" + std::to_string(round);
            if (number % 2 == 0) {
                const auto result = actor.handleCommand(
                    makeCommand(AgentCommandType::AppendUserInput, id, runId,
                                {{"content", id}, {"mode", round % 2 == 0 ? "queue" : "interject"}}));
                const std::lock_guard lock(mutex);
                if (result.accepted) sent.insert(id);
                continue;
            }
            std::optional<ConsumedInput> input;
            if (round % 3 == 0) {
                const std::string turnId = actor.snapshot().turnId;
                try {
                    input = actor.consumeInterjection("safe-" + id, runId, turnId);
                } catch (const std::runtime_error&) {
                    // Another thread ended the turn in between.
                    continue;
                }
            } else if (actor.snapshot().queuedInputs > kThreads) {
                // More inputs are waiting than threads could take before this one, so the run can't end here.
                input = actor
                            .completeTurn({.updateId = "turn-" + std::to_string(++ids),
                                           .runId = runId,
                                           .turnId = "",
                                           .type = AgentEventType::RunCompleted,
                                           .payload = {{"content", "Done."}}})
                            .input;
            }
            const std::lock_guard lock(mutex);
            if (input) received.insert(input->content);
        }
    });

    ASSERT_EQ(actor.snapshot().state, RunState::Running);
    while (const auto input = actor
                                  .completeTurn({.updateId = "turn-" + std::to_string(++ids),
                                                 .runId = runId,
                                                 .turnId = "",
                                                 .type = AgentEventType::RunCompleted,
                                                 .payload = {{"content", "Done."}}})
                                  .input) {
        received.insert(input->content);
    }
    EXPECT_EQ(received, sent);
    EXPECT_EQ(sent.size(), kThreads / 2 * kInputs);
    EXPECT_EQ(actor.snapshot().state, RunState::Completed);
    expectContiguous(store->read("s1", 0));
}

TEST(SessionThreads, ActorsOfSeveralSessionsShareOneJournalStore) {
    const qm::test::TemporaryDirectory directory;
    const auto store = std::make_shared<JsonlAgentEventStore>(directory.path());

    runOnThreads(kThreads, [&](std::size_t number) {
        const std::string session = "s" + std::to_string(number);
        SessionActor actor(session, store);
        AgentCommand start = makeCommand(AgentCommandType::StartRun, "start", "", {{"objective", session}});
        start.sessionId = session;
        const std::string runId = actor.handleCommand(start).snapshot.runId;
        for (int round = 0; round < 20; ++round) {
            actor.applyRuntimeUpdate({.updateId = std::to_string(round),
                                      .runId = runId,
                                      .turnId = "",
                                      .type = AgentEventType::ModelStarted,
                                      .payload = json::object()});
        }
        EXPECT_EQ(actor.snapshot().lastSequence, 23U);
    });

    JsonlAgentEventStore fresh(directory.path());
    for (std::size_t number = 0; number < kThreads; ++number) {
        const auto events = fresh.read("s" + std::to_string(number), 0);
        EXPECT_EQ(events.size(), 23U);
        expectContiguous(events);
    }
}

TEST(SessionThreads, IdsOfShortLivedThreadsNeverRepeat) {
    std::mutex mutex;
    std::set<std::string> ids;
    constexpr int kRounds = 100;
    for (int round = 0; round < kRounds; ++round) {
        runOnThreads(kThreads, [&](std::size_t) {
            std::string id = randomAgentId("evt");
            const std::lock_guard lock(mutex);
            ids.insert(std::move(id));
        });
    }
    EXPECT_EQ(ids.size(), kThreads * kRounds);
}

}  // namespace
}  // namespace qm::runtime
