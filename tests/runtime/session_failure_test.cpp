#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "runtime/agent_json.h"
#include "runtime/session_fixture.h"

namespace qm::runtime {
namespace {

using test::CountingIds;
using test::factsOf;
using test::rejection;

/// A store in memory that fails to append while it is told to.
class FailingStore : public AgentEventStore {
public:
    std::vector<AgentEvent> read(const std::string& sessionId, std::uint64_t afterSequence) override {
        return inner_.read(sessionId, afterSequence);
    }
    std::vector<AgentEvent> append(const std::string& sessionId, std::uint64_t expectedLastSequence,
                                   std::vector<AgentEvent> events) override {
        if (fails) throw std::runtime_error("disk full");
        return inner_.append(sessionId, expectedLastSequence, std::move(events));
    }

    bool fails = false;

private:
    InMemoryAgentEventStore inner_;
};

AgentCommand makeCommand(AgentCommandType type, const char* id, const std::string& runId, json payload) {
    return {.v = 1,
            .commandId = id,
            .sessionId = "s1",
            .runId = runId,
            .type = type,
            .timestampMs = 0,
            .payload = std::move(payload)};
}

AgentCommand startCommand(const char* id) {
    return makeCommand(AgentCommandType::StartRun, id, "", {{"objective", "Tidy"}});
}

class SessionStoreFailure : public testing::Test {
protected:
    /// A running turn, with an input for the next one and, if wanted, one for itself.
    void startWithInput(bool withInterjection) {
        runId = actor.handleCommand(startCommand("start")).snapshot.runId;
        turnId = actor.snapshot().turnId;
        actor.handleCommand(makeCommand(AgentCommandType::AppendUserInput, "q", runId, {{"content", "later"}}));
        if (!withInterjection) return;
        actor.handleCommand(
            makeCommand(AgentCommandType::AppendUserInput, "i", runId, {{"content", "now"}, {"mode", "interject"}}));
    }

    RuntimeUpdate makeUpdate(AgentEventType type) const {
        return {.updateId = "u1", .runId = runId, .turnId = turnId, .type = type, .payload = {{"content", "Done."}}};
    }

    /// The operation fails with the store's words and leaves everything as it was.
    void expectNoTraceOf(const std::function<void()>& operation) {
        const json before = snapshotToJson(actor.snapshot());
        store->fails = true;
        for (int attempt = 0; attempt < 2; ++attempt) {
            try {
                operation();
                ADD_FAILURE() << "no failure";
            } catch (const std::runtime_error& error) {
                EXPECT_STREQ(error.what(), "disk full");
            }
        }
        store->fails = false;
        EXPECT_EQ(snapshotToJson(actor.snapshot()), before);
        EXPECT_EQ(store->read("s1", 0).size(), actor.snapshot().lastSequence);
    }

    std::shared_ptr<FailingStore> store = std::make_shared<FailingStore>();
    SessionActor actor{"s1", store};
    std::string runId;
    std::string turnId;
};

TEST_F(SessionStoreFailure, ACommandIsFreshAfterwards) {
    expectNoTraceOf([this] { actor.handleCommand(startCommand("c1")); });

    const auto result = actor.handleCommand(startCommand("c1"));

    EXPECT_TRUE(result.accepted);
    EXPECT_FALSE(result.duplicate);
    EXPECT_EQ(result.firstSequence, 1U);
}

TEST_F(SessionStoreFailure, ARejectedCommandIsFreshAfterwards) {
    AgentCommand command = startCommand("c2");
    command.v = 2;
    expectNoTraceOf([&] { actor.handleCommand(command); });

    command.v = 1;
    const auto result = actor.handleCommand(command);

    EXPECT_TRUE(result.accepted);
    EXPECT_FALSE(result.duplicate);
}

TEST_F(SessionStoreFailure, AnUpdateIsFreshAfterwards) {
    startWithInput(false);
    expectNoTraceOf([this] { actor.applyRuntimeUpdate(makeUpdate(AgentEventType::UserInputRequested)); });

    const auto result = actor.applyRuntimeUpdate(makeUpdate(AgentEventType::UserInputRequested));

    EXPECT_TRUE(result.accepted);
    EXPECT_FALSE(result.duplicate);
    EXPECT_EQ(result.snapshot.state, RunState::WaitingUser);
}

TEST_F(SessionStoreFailure, ARejectedUpdateIsFreshAfterwards) {
    startWithInput(false);
    expectNoTraceOf([this] { actor.applyRuntimeUpdate(makeUpdate(AgentEventType::RunCompleted)); });
    EXPECT_TRUE(actor.applyRuntimeUpdate(makeUpdate(AgentEventType::ModelStarted)).accepted);
}

TEST_F(SessionStoreFailure, AConsumptionLeavesTheInputInItsBuffer) {
    startWithInput(true);
    expectNoTraceOf([this] { actor.consumeInterjection("x1", runId, turnId); });
    EXPECT_EQ(actor.snapshot().bufferedInterjections, 1U);

    const auto input = actor.consumeInterjection("x1", runId, turnId);

    ASSERT_TRUE(input);
    EXPECT_FALSE(input->result.duplicate);
    EXPECT_EQ(input->content, "now");
}

TEST_F(SessionStoreFailure, APromotionLeavesTheInputsInTheirBuffersAndTheTurnAsItIs) {
    startWithInput(true);
    for (const char* const content : {"now", "later"}) {
        const std::string turnBefore = actor.snapshot().turnId;
        RuntimeUpdate update = makeUpdate(AgentEventType::RunCompleted);
        update.updateId = content;
        update.turnId = turnBefore;
        expectNoTraceOf([&] { actor.completeTurn(update); });

        const auto completion = actor.completeTurn(update);

        EXPECT_FALSE(completion.result.duplicate);
        ASSERT_TRUE(completion.input);
        EXPECT_EQ(completion.input->content, content);
        EXPECT_NE(completion.result.snapshot.turnId, turnBefore);
    }
}

TEST_F(SessionStoreFailure, ACompletionLeavesTheRunRunning) {
    runId = actor.handleCommand(startCommand("start")).snapshot.runId;
    expectNoTraceOf([this] { actor.completeTurn(makeUpdate(AgentEventType::RunCompleted)); });
    EXPECT_EQ(actor.completeTurn(makeUpdate(AgentEventType::RunCompleted)).result.snapshot.state, RunState::Completed);
}

/// An exception without a text.
struct Wordless : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

/// An actor whose identifiers for runs are made by a function that may throw.
class SessionHandlerFailure : public testing::Test {
protected:
    std::function<void()> onRunId = [] {};
    CountingIds ids;
    std::shared_ptr<InMemoryAgentEventStore> store = std::make_shared<InMemoryAgentEventStore>();
    SessionActor actor{"s1", store, [] { return std::int64_t{1}; },
                       [this](const std::string& prefix) {
                           if (prefix == "run") onRunId();
                           return ids(prefix);
                       }};
};

TEST_F(SessionHandlerFailure, AnyStandardExceptionIsARejectionInItsWords) {
    onRunId = [] { throw std::bad_function_call(); };
    const auto result = actor.handleCommand(startCommand("c1"));
    EXPECT_FALSE(result.accepted);
    EXPECT_EQ(result.error, "bad_function_call");
    EXPECT_EQ(factsOf(result.events), std::vector{rejection("bad_function_call")});
}

TEST_F(SessionHandlerFailure, AnExceptionWithoutATextIsAnInvalidCommand) {
    onRunId = [] { throw Wordless(); };
    const auto result = actor.handleCommand(startCommand("c1"));
    EXPECT_FALSE(result.accepted);
    EXPECT_EQ(factsOf(result.events), std::vector{rejection("invalid command")});
    EXPECT_EQ(actor.handleCommand(startCommand("c1")).error, "invalid command");
    EXPECT_EQ(store->read("s1", 0).size(), 1U);
}

TEST_F(SessionHandlerFailure, AnyOtherExceptionPassesThroughAndChangesNothing) {
    onRunId = [] { throw 5; };
    EXPECT_THROW(actor.handleCommand(startCommand("c1")), int);
    EXPECT_EQ(actor.snapshot().lastSequence, 0U);
    EXPECT_TRUE(store->read("s1", 0).empty());

    onRunId = [] {};
    const auto result = actor.handleCommand(startCommand("c1"));

    EXPECT_TRUE(result.accepted);
    EXPECT_FALSE(result.duplicate);
}

}  // namespace
}  // namespace qm::runtime
