#include "core/loop_control.h"

#include <gtest/gtest.h>

#include <future>

#include "support/wait_until.h"

namespace qm {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;

/// Runs a wait of an hour on another thread; the future gives its result.
std::future<bool> waitAnHour(LoopControl& loop) {
    return std::async(std::launch::async, [&loop] { return loop.waitFor(hours(1)); });
}

bool endsSoon(std::future<bool>& wait) {
    return wait.wait_for(test::kGenerousLimit) == std::future_status::ready;
}

TEST(LoopControl, AWaitEndsWhenItsTimeIsOver) {
    LoopControl loop;
    EXPECT_TRUE(loop.waitFor(milliseconds(1)));
}

TEST(LoopControl, AStopEndsAWait) {
    LoopControl loop;
    auto wait = waitAnHour(loop);

    loop.stop();

    ASSERT_TRUE(endsSoon(wait));
    EXPECT_FALSE(wait.get());
    EXPECT_FALSE(loop.running());
    EXPECT_TRUE(loop.interrupted());
}

TEST(LoopControl, AReconnectRequestEndsAWait) {
    LoopControl loop;
    loop.beginRound();
    auto wait = waitAnHour(loop);

    loop.requestReconnect();

    ASSERT_TRUE(endsSoon(wait));
    EXPECT_TRUE(wait.get());
}

TEST(LoopControl, ARequestBeforeTheWaitIsNotLost) {
    LoopControl loop;
    loop.beginRound();
    loop.requestReconnect();

    EXPECT_TRUE(loop.interrupted());
    EXPECT_TRUE(loop.waitFor(hours(1)));
}

TEST(LoopControl, ARequestDoesNotEndTheWaitOfTheNextRound) {
    LoopControl loop;
    loop.beginRound();
    loop.requestReconnect();
    loop.beginRound();

    EXPECT_FALSE(loop.interrupted());
    auto wait = waitAnHour(loop);
    EXPECT_EQ(wait.wait_for(milliseconds(50)), std::future_status::timeout);
    loop.stop();
    EXPECT_TRUE(endsSoon(wait));
}

TEST(LoopControl, AStopIsForGood) {
    LoopControl loop;
    loop.stop();
    loop.beginRound();

    EXPECT_TRUE(loop.interrupted());
    EXPECT_FALSE(loop.waitFor(hours(1)));
}

}  // namespace
}  // namespace qm
