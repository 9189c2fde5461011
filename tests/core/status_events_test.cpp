#include "core/status_events.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/run_on_threads.h"

namespace qm {
namespace {

using States = std::vector<ConnectionState>;
using enum ConnectionState;

TEST(StatusEvents, TellEachChangeOfStateOnce) {
    States shown;
    StatusEvents events([&](ConnectionState state) { shown.push_back(state); });

    for (const auto state : {NotConfigured, Connecting, Connecting, Disconnected, Disconnected, Connecting})
        events.setState(state);

    EXPECT_EQ(shown, (States{Connecting, Disconnected, Connecting}));
    EXPECT_EQ(events.state(), Connecting);
}

TEST(StatusEvents, TellOfTheRestOfTheRecordWithTheStateAsItIs) {
    States shown;
    StatusEvents events([&](ConnectionState state) { shown.push_back(state); });

    events.recordChanged();
    events.setState(Standalone);
    events.recordChanged();

    EXPECT_EQ(shown, (States{NotConfigured, Standalone, Standalone}));
}

TEST(StatusEvents, AreLeftToTheThreadThatIsPushingAndKeepTheirOrder) {
    States shown;
    std::latch pushing(1);
    std::latch release(1);
    StatusEvents events([&](ConnectionState state) {
        if (shown.empty()) {
            pushing.count_down();
            release.wait();
        }
        shown.push_back(state);
    });
    std::jthread pusher([&] { events.recordChanged(); });
    pushing.wait();

    // None of these waits for the thread that pushes the old state.
    events.setState(Connecting);
    events.setState(Connected);
    events.recordChanged();
    EXPECT_EQ(events.state(), Connected);
    release.count_down();
    pusher.join();

    EXPECT_EQ(shown, (States{NotConfigured, Connecting, Connected}));
}

TEST(StatusEvents, MayBeCausedByThePushOfOne) {
    States shown;
    StatusEvents* causes = nullptr;
    StatusEvents events([&](ConnectionState state) {
        shown.push_back(state);
        if (shown.size() == 1) {
            causes->setState(Disconnected);
            EXPECT_EQ(shown.size(), 1U) << "one at a time";
        }
    });
    causes = &events;

    events.setState(Connecting);

    EXPECT_EQ(shown, (States{Connecting, Disconnected}));
}

TEST(StatusEvents, GoOnAfterAPushThatThrows) {
    States shown;
    StatusEvents events([&](ConnectionState state) {
        if (state == Connecting) throw std::runtime_error("no memory");
        shown.push_back(state);
    });

    EXPECT_THROW(events.setState(Connecting), std::runtime_error);
    events.setState(Connected);

    EXPECT_EQ(shown, (States{Connected}));
}

TEST(StatusEvents, TheLastOneShowsWhatIsTrueLast) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<int> record = 0;
        int lastShown = 0;
        StatusEvents events([&](ConnectionState) { lastShown = record; });

        test::runOnThreads(4, [&](std::size_t) {
            for (int i = 0; i < 10; ++i) {
                ++record;
                events.recordChanged();
            }
        });

        ASSERT_EQ(lastShown, 40) << round;
    }
}

}  // namespace
}  // namespace qm
