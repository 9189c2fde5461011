#include "runtime/agent_types.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>
#include <string>

namespace qm::runtime {
namespace {

constexpr std::array<const char*, 9> kRunStates{"IDLE",          "RUNNING",    "WAITING_USER", "WAITING_APPROVAL",
                                                "WAITING_TASKS", "CANCELLING", "COMPLETED",    "FAILED",
                                                "CANCELLED"};
constexpr std::array<const char*, 6> kTaskStates{"QUEUED", "RUNNING", "SUCCEEDED", "FAILED", "CANCELLED", "LOST"};
constexpr std::array<const char*, 4> kCommands{"start_run", "append_user_input", "cancel_run", "resolve_approval"};
constexpr std::array<const char*, 31> kEvents{"run_started",
                                              "turn_started",
                                              "user_input_accepted",
                                              "user_input_queued",
                                              "user_interjection_buffered",
                                              "cancellation_requested",
                                              "user_input_requested",
                                              "approval_requested",
                                              "approval_resolved",
                                              "wake_scheduled",
                                              "wake_fired",
                                              "model_started",
                                              "model_delta",
                                              "model_completed",
                                              "model_failed",
                                              "tool_proposed",
                                              "tool_started",
                                              "tool_progress",
                                              "tool_completed",
                                              "tool_failed",
                                              "task_queued",
                                              "task_started",
                                              "task_cancellation_requested",
                                              "task_waiting",
                                              "task_completed",
                                              "assistant_message",
                                              "run_state_changed",
                                              "run_completed",
                                              "run_failed",
                                              "run_cancelled",
                                              "command_rejected"};

/// Every value prints as its entry of the table, and the entry parses as the value.
template <typename Enum, std::size_t Count, typename Parse>
void expectSpellings(const std::array<const char*, Count>& table, Parse parse) {
    for (std::size_t index = 0; index < Count; ++index) {
        const auto value = static_cast<Enum>(index);
        EXPECT_EQ(toString(value), table[index]);
        EXPECT_EQ(parse(table[index]), value);
    }
}

template <typename Parse>
void expectUnknown(Parse parse, const std::string& text, const std::string& words) {
    try {
        parse(text);
        ADD_FAILURE() << "'" << text << "' was taken";
    } catch (const std::invalid_argument& error) {
        EXPECT_EQ(error.what(), words);
    }
}

TEST(AgentTypes, EveryRunStateHasItsSpelling) {
    expectSpellings<RunState>(kRunStates, parseRunState);
}

TEST(AgentTypes, EveryChildTaskStateHasItsSpelling) {
    expectSpellings<ChildTaskState>(kTaskStates, parseChildTaskState);
}

TEST(AgentTypes, EveryCommandTypeHasItsSpelling) {
    expectSpellings<AgentCommandType>(kCommands, parseAgentCommandType);
}

TEST(AgentTypes, EveryEventTypeHasItsSpelling) {
    EXPECT_EQ(kEvents.size(), std::size_t{kAgentEventTypes});
    expectSpellings<AgentEventType>(kEvents, parseAgentEventType);
}

TEST(AgentTypes, AValueOutsideTheTablesPrintsAsAFixedSpelling) {
    for (const int value : {9, 31, -1, 1'000'000}) {
        EXPECT_EQ(toString(static_cast<RunState>(value)), "IDLE");
        EXPECT_EQ(toString(static_cast<ChildTaskState>(value)), "FAILED");
        EXPECT_EQ(toString(static_cast<AgentCommandType>(value)), "unknown");
        EXPECT_EQ(toString(static_cast<AgentEventType>(value == 9 ? 31 : value)), "unknown");
    }
}

TEST(AgentTypes, AnUnknownSpellingIsNamedInTheError) {
    expectUnknown(parseRunState, "idle", "unknown run state: idle");
    expectUnknown(parseChildTaskState, "DONE", "unknown child task state: DONE");
    expectUnknown(parseAgentEventType, "run_begun", "unknown agent event type: run_begun");
    expectUnknown(parseAgentCommandType, "", "unknown agent command type: ");
}

TEST(AgentTypes, ExactlyTheLastThreeRunStatesAreTerminal) {
    for (int value = 0; value < 9; ++value)
        EXPECT_EQ(isTerminal(static_cast<RunState>(value)), value >= 6) << value;
    EXPECT_FALSE(isTerminal(static_cast<RunState>(9)));
}

TEST(AgentTypes, ExactlyTheLastFourChildTaskStatesAreTerminal) {
    for (int value = 0; value < 6; ++value) {
        EXPECT_EQ(isTerminal(static_cast<ChildTaskState>(value)), value >= 2) << value;
    }
    EXPECT_FALSE(isTerminal(static_cast<ChildTaskState>(6)));
}

}  // namespace
}  // namespace qm::runtime
