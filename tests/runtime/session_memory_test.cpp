#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>

#include "runtime/session_actor.h"
#include "util/json.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The runtime's own; its header isn't installed everywhere.
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();  // NOLINT(bugprone-reserved-identifier)
#else
#include <malloc.h>
#endif

namespace qm::runtime {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kEvents = 10'000;
std::size_t allocatedBytes() {
    return __sanitizer_get_current_allocated_bytes();
}
#else
constexpr std::size_t kEvents = 100'000;
std::size_t allocatedBytes() {
    const auto info = ::mallinfo2();
    return info.uordblks + info.hblkhd;
}
#endif

/// A store that numbers events and forgets them.
class ForgettingStore : public AgentEventStore {
public:
    std::vector<AgentEvent> read(const std::string&, std::uint64_t) override { return {}; }
    std::vector<AgentEvent> append(const std::string&, std::uint64_t expectedLastSequence,
                                   std::vector<AgentEvent> events) override {
        for (AgentEvent& event : events)
            event.sequence = ++expectedLastSequence;
        return events;
    }
};

/// What an actor holds behind so many events whose payloads have this size.
std::size_t growthWith(std::size_t payloadBytes) {
    SessionActor actor("s1", std::make_shared<ForgettingStore>());
    const std::string runId = actor
                                  .handleCommand({.v = 1,
                                                  .commandId = "start",
                                                  .sessionId = "s1",
                                                  .runId = "",
                                                  .type = AgentCommandType::StartRun,
                                                  .timestampMs = 0,
                                                  .payload = {{"objective", "x"}}})
                                  .snapshot.runId;
    const std::size_t before = allocatedBytes();
    for (std::size_t number = 0; number < kEvents; ++number) {
        actor.applyRuntimeUpdate({.updateId = "a long enough identifier " + std::to_string(number),
                                  .runId = runId,
                                  .turnId = "",
                                  .type = AgentEventType::ToolProgress,
                                  .payload = {{"detail", std::string(payloadBytes, 'x')}}});
    }
    EXPECT_EQ(actor.snapshot().lastSequence, kEvents + 3);
    return allocatedBytes() - before;
}

TEST(SessionMemory, AnActorKeepsOnlyTheKeysOfWhatItWroteAndNoCopyOfTheEvents) {
    const std::size_t small = growthWith(10);
    const std::size_t large = growthWith(1000);

    // The key of each operation and what was answered.
    EXPECT_GT(small, kEvents * 50);
    EXPECT_LT(small, kEvents * 400);
    // Nothing of the payloads.
    EXPECT_LT(large, small + kEvents * 20);
}

}  // namespace
}  // namespace qm::runtime
