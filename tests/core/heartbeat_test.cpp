#include "core/heartbeat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include "support/wait_until.h"
#include "util/log.h"

namespace qm {
namespace {

using std::chrono::milliseconds;

TEST(Heartbeat, BeatsAgainAndAgain) {
    std::atomic<int> beats = 0;
    const Heartbeat heartbeat([&] { ++beats; }, milliseconds(1));

    EXPECT_TRUE(test::waitUntil([&] { return beats >= 3; }));
}

TEST(Heartbeat, AnExceptionIsLoggedAndEndsNothing) {
    std::atomic<int> beats = 0;
    {
        const Heartbeat heartbeat(
            [&] {
                ++beats;
                throw std::runtime_error("no memory");
            },
            milliseconds(1));
        EXPECT_TRUE(test::waitUntil([&] { return beats >= 3; }));
    }

    EXPECT_THAT(recentLogLines(1).at(0), testing::EndsWith("] ERROR 后台任务 heartbeat 异常已拦截: no memory"));
}

TEST(Heartbeat, EndsWithoutWaitingForItsPeriod) {
    std::atomic<int> beats = 0;
    {
        const Heartbeat heartbeat([&] { ++beats; }, std::chrono::hours(1));
    }

    EXPECT_EQ(beats, 0);
}

}  // namespace
}  // namespace qm
