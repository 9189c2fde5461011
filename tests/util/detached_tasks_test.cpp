#include "util/detached_tasks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <latch>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "device/refused_system_calls.h"
#include "support/run_on_threads.h"
#include "support/wait_until.h"
#include "util/log.h"

namespace qm {
namespace {

using test::kGenerousLimit;
using testing::EndsWith;

constexpr std::chrono::hours kForever{1};

/// A task that says where it runs.
std::thread::id threadOf(DetachedTasks& tasks) {
    std::thread::id id;
    tasks.run("id", [&] { id = std::this_thread::get_id(); });
    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    return id;
}

TEST(DetachedTasks, RunTheTaskOnAnotherThread) {
    DetachedTasks tasks;

    EXPECT_NE(threadOf(tasks), std::this_thread::get_id());
}

TEST(DetachedTasks, CountTheTasksThatRun) {
    DetachedTasks tasks;
    std::latch release(1);
    EXPECT_EQ(tasks.count(), 0U);
    EXPECT_TRUE(tasks.waitUntilIdle(std::chrono::milliseconds(0)));

    for (int i = 0; i < 3; ++i)
        tasks.run("waiting", [&] { release.wait(); });

    EXPECT_EQ(tasks.count(), 3U);
    EXPECT_FALSE(tasks.waitUntilIdle(std::chrono::milliseconds(1)));
    release.count_down();
    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    EXPECT_EQ(tasks.count(), 0U);
}

TEST(DetachedTasks, ATaskNeverWaitsForAFreeThread) {
    DetachedTasks tasks(kForever);
    constexpr int kTasks = 32;
    // Each task ends only when all have begun.
    std::latch allRun(kTasks);

    for (int i = 0; i < kTasks; ++i)
        tasks.run("together", [&] { allRun.arrive_and_wait(); });

    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
}

TEST(DetachedTasks, ATaskNeverWaitsForAFreeThreadWhenSomeAreIdle) {
    DetachedTasks tasks(kForever);
    for (const int count : {2, 5, 9, 3, 20}) {
        std::latch allRun(count);
        for (int i = 0; i < count; ++i)
            tasks.run("together", [&] { allRun.arrive_and_wait(); });
        ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit)) << count;
    }
}

TEST(DetachedTasks, AnIdleThreadTakesTheNextTask) {
    DetachedTasks tasks(kForever);
    const auto first = threadOf(tasks);

    // The thread turns idle a moment after its task was counted out, so the very next task may miss it.
    EXPECT_TRUE(test::waitUntil([&] { return threadOf(tasks) == first; }));
}

TEST(DetachedTasks, AThreadEndsWhenItHasBeenIdleForTheGivenTime) {
    DetachedTasks tasks(std::chrono::milliseconds(1));
    auto alive = std::make_shared<int>(0);
    tasks.run("leaves a mark that dies with the thread", [held = alive] {
        thread_local std::shared_ptr<int> mark;
        mark = held;
    });

    EXPECT_TRUE(test::waitUntil([&] { return alive.use_count() == 1; }));
}

TEST(DetachedTasks, IdleThreadsEndWithTheObject) {
    auto alive = std::make_shared<int>(0);
    {
        DetachedTasks tasks(kForever);
        tasks.run("leaves a mark that dies with the thread", [held = alive] {
            thread_local std::shared_ptr<int> mark;
            mark = held;
        });
        ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    }

    EXPECT_TRUE(test::waitUntil([&] { return alive.use_count() == 1; }));
}

TEST(DetachedTasks, RunningTasksOutliveTheObject) {
    const auto release = std::make_shared<std::latch>(1);
    const auto ended = std::make_shared<std::latch>(1);
    {
        DetachedTasks tasks;
        tasks.run("outlives", [release, ended] {
            release->wait();
            ended->count_down();
        });
    }

    release->count_down();

    ended->wait();
    EXPECT_TRUE(ended->try_wait());
}

TEST(DetachedTasks, ATaskThatWasHandedOverRunsThoughTheObjectGoes) {
    for (int round = 0; round < 200; ++round) {
        const auto ran = std::make_shared<std::latch>(2);
        {
            DetachedTasks tasks(kForever);
            tasks.run("first", [ran] { ran->count_down(); });
            ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
            tasks.run("second", [ran] { ran->count_down(); });
        }
        ASSERT_TRUE(test::waitUntil([&] { return ran->try_wait(); })) << round;
    }
}

TEST(DetachedTasks, NoTaskIsLostWhenIdleThreadsEndAtTheSameMoment) {
    // An idle time of nothing makes threads end just as tasks are handed to them.
    DetachedTasks tasks(std::chrono::milliseconds(0));
    std::atomic<int> ran = 0;
    constexpr int kRounds = 5000;

    for (int i = 0; i < kRounds; ++i) {
        tasks.run("counts", [&] { ++ran; });
        if (i % 7 == 0) {
            ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
        }
    }

    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    EXPECT_EQ(ran, kRounds);
}

TEST(DetachedTasks, TakeTasksFromManyThreadsAndFromTasks) {
    DetachedTasks tasks(std::chrono::milliseconds(1));
    std::atomic<int> ran = 0;
    test::runOnThreads(4, [&](std::size_t) {
        for (int i = 0; i < 300; ++i) {
            tasks.run("outer", [&] {
                tasks.run("inner", [&] { ++ran; });
                ++ran;
            });
        }
    });

    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    EXPECT_EQ(ran, 2 * 4 * 300);
}

TEST(DetachedTasks, WhatATaskHoldsIsGoneBeforeItIsCountedOut) {
    DetachedTasks tasks;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;

    tasks.run("holds", [taken = std::move(held)] { EXPECT_EQ(*taken, 0); });

    ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    EXPECT_TRUE(watched.expired());
}

TEST(DetachedTasks, AnExceptionIsLoggedAndCountedOut) {
    DetachedTasks tasks;

    tasks.run("metrics", [] { throw std::runtime_error("no luck"); });

    ASSERT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    ASSERT_THAT(recentLogLines(1), testing::SizeIs(1));
    EXPECT_THAT(recentLogLines(1)[0], EndsWith("] ERROR 后台任务 metrics 异常已拦截: no luck"));
}

TEST(DetachedTasks, AThreadSurvivesTheExceptionOfItsTask) {
    DetachedTasks tasks(kForever);
    std::atomic<int> ran = 0;

    for (int i = 0; i < 100; ++i) {
        tasks.run("throws", [&] {
            ++ran;
            throw 1;
        });
    }

    EXPECT_TRUE(tasks.waitUntilIdle(kGenerousLimit));
    EXPECT_EQ(ran, 100);
}

TEST(DetachedTasks, ATaskForWhichThereIsNoThreadIsDestroyedAndLogged) {
    DetachedTasks tasks;
    auto held = std::make_shared<int>(0);
    const std::weak_ptr<int> watched = held;
    std::atomic<bool> ran = false;

    test::withRefusedCalls({{SYS_clone, EAGAIN}, {SYS_clone3, EAGAIN}},
                           [&] { tasks.run("execute", [&ran, taken = std::move(held)] { ran = true; }); });

    EXPECT_FALSE(ran);
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(tasks.count(), 0U);
    EXPECT_TRUE(tasks.waitUntilIdle(std::chrono::milliseconds(0)));
    EXPECT_THAT(recentLogLines(1).at(0),
                EndsWith("] ERROR 后台任务 execute 异常已拦截: Resource temporarily unavailable"));
    EXPECT_NE(threadOf(tasks), std::this_thread::get_id()) << "the next task finds a thread again";
}

TEST(RunGuarded, LogsAnExceptionWithTheName) {
    runGuarded("execute", [] { throw std::runtime_error("what it says"); });

    EXPECT_THAT(recentLogLines(1)[0], EndsWith("] ERROR 后台任务 execute 异常已拦截: what it says"));
}

TEST(RunGuarded, LogsWhatIsNoExceptionObjectAsUnknown) {
    runGuarded("execute", [] { throw 42; });

    EXPECT_THAT(recentLogLines(1)[0], EndsWith("] ERROR 后台任务 execute 抛出未知异常，已拦截"));
}

TEST(RunGuarded, LogsNothingForATaskThatEnds) {
    const auto before = recentLogLines(300);
    bool ran = false;

    runGuarded("execute", [&] { ran = true; });

    EXPECT_TRUE(ran);
    EXPECT_EQ(recentLogLines(300), before);
}

}  // namespace
}  // namespace qm
