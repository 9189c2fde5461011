#include "device/process_control.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "device/process_test_support.h"
#include "device/run_process.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using std::chrono::microseconds;
using test::program;
using test::shell;

/// A thread that kills one control after the other, each a given time after it was handed over.
class Killer {
public:
    Killer() : thread_([this](const std::stop_token& stop) { run(stop); }) {}

    void killAfter(std::shared_ptr<ProcessControl> control, microseconds delay) {
        control_ = std::move(control);
        delay_ = delay;
        handedOver_.store(true);
        handedOver_.notify_one();
    }
    void awaitKill() { handedOver_.wait(true); }

    ~Killer() {
        thread_.request_stop();
        handedOver_.store(true);
        handedOver_.notify_one();
    }
    Killer(const Killer&) = delete;
    Killer& operator=(const Killer&) = delete;

private:
    void run(const std::stop_token& stop) {
        // The kernel may otherwise wake the thread up to 50 microseconds late.
        ::prctl(PR_SET_TIMERSLACK, 1, 0, 0, 0);
        for (;;) {
            handedOver_.wait(false);
            if (stop.stop_requested()) return;
            const auto moment = std::chrono::steady_clock::now() + delay_;
            while (std::chrono::steady_clock::now() < moment)
                std::this_thread::yield();
            control_->kill();
            handedOver_.store(false);
            handedOver_.notify_one();
        }
    }

    std::shared_ptr<ProcessControl> control_;
    microseconds delay_{0};
    std::atomic<bool> handedOver_{false};
    std::jthread thread_;
};

bool hasChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

TEST(ProcessControl, AKillAskedForBeforeTheStartTakesEffectAtAttachment) {
    const auto control = std::make_shared<ProcessControl>();
    control->kill();

    const ProcessResult result = runProcess(shell("sleep 60"), control);

    EXPECT_TRUE(result.started);
    EXPECT_TRUE(result.cancelled);
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.exitCode, 128 + SIGKILL);
}

TEST(ProcessControl, AKillTakesTheWholeGroup) {
    const test::TemporaryDirectory directory;
    const auto control = std::make_shared<ProcessControl>();
    ProcessOptions options = shell("sh -c 'echo $$ > pid; sleep 60' & sleep 60 & wait");
    options.cwd = directory.path();
    std::jthread killer([&] {
        test::pidIn(directory / "pid");
        control->kill();
    });

    // Every member holds the output: the run ends only with the last of them.
    const ProcessResult result = runProcess(options, control);

    EXPECT_TRUE(result.cancelled);
    EXPECT_EQ(result.exitCode, 128 + SIGKILL);
    EXPECT_LT(result.durationMs, 20'000);
}

TEST(ProcessControl, AKillAfterTheEndDoesNothing) {
    const auto control = std::make_shared<ProcessControl>();

    const ProcessResult result = runProcess(shell("exit 4"), control);
    control->kill();

    EXPECT_FALSE(result.cancelled);
    EXPECT_EQ(result.exitCode, 4);
    EXPECT_TRUE(control->killRequested());
}

/// A process that leads a group of its own and ends with status 5 once it is told to, unless it is killed before.
class GroupLeader {
public:
    GroupLeader() {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        const UniqueFd readEnd(ends[0]);
        writeEnd_.reset(ends[1]);
        pid_ = test::forkProcess([&] {
            writeEnd_.reset();
            char byte = 0;
            return ::read(readEnd.get(), &byte, 1) == 0 ? 5 : 6;
        });
        EXPECT_EQ(::setpgid(pid_, pid_), 0);
    }
    pid_t pid() const { return pid_; }
    int endWhenTold() {
        writeEnd_.reset();
        return test::awaitEnd(pid_);
    }

private:
    UniqueFd writeEnd_;
    pid_t pid_ = -1;
};

TEST(ProcessControl, AKillThatHasNotReachedTheGroupYetReachesItBeforeTheGroupIsForgotten) {
    GroupLeader leader;
    ProcessControl control;
    control.kill();
    // The group is known from here on, and the kill came too early to see it.
    EXPECT_FALSE(control.announce(leader.pid()));

    EXPECT_TRUE(control.detach());

    EXPECT_EQ(test::awaitEnd(leader.pid()), 128 + SIGKILL);
}

TEST(ProcessControl, AGroupThatWasForgottenIsNotKilled) {
    GroupLeader leader;
    ProcessControl control;
    control.attach(leader.pid(), -1);
    EXPECT_FALSE(control.detach());

    control.kill();

    EXPECT_EQ(leader.endWhenTold(), 5);
}

TEST(ProcessControl, NothingWasAskedForAtFirst) {
    EXPECT_FALSE(ProcessControl().killRequested());
}

TEST(ProcessControl, ManyKillsAreAsGoodAsOne) {
    const auto control = std::make_shared<ProcessControl>();
    std::jthread running([&] { EXPECT_EQ(runProcess(shell("sleep 60"), control).exitCode, 128 + SIGKILL); });
    constexpr std::size_t kKillers = 8;
    std::vector<std::jthread> killers;
    killers.reserve(kKillers);
    while (killers.size() < kKillers) {
        killers.emplace_back([&] {
            for (int count = 0; count < 100; ++count)
                control->kill();
        });
    }
}

// A kill that is lost lets its child sleep for a minute: 10,000 of these races, one of which went wrong, would show.
// The moments are spread over the time that a launch takes, whatever that is on this machine.

/// `rounds` calls of `round`, on four threads, because a round mostly waits. Each thread has its own killer and the
/// same random numbers in every run.
void race(int rounds, const std::function<void(Killer& killer, std::mt19937& random)>& round) {
    constexpr int kThreads = 4;
    std::vector<std::jthread> threads;
    threads.reserve(kThreads);
    for (unsigned seed = 0; seed < kThreads; ++seed) {
        threads.emplace_back([&round, rounds, seed] {
            std::mt19937 random(seed);  // NOLINT: the same moments in every run.
            Killer killer;
            for (int count = 0; count < rounds / kThreads && !testing::Test::HasFailure(); ++count) {
                round(killer, random);
            }
        });
    }
    threads.clear();
    EXPECT_FALSE(hasChildren());
}

TEST(ProcessControlRaces, NoKillBeforeTheLaunchIsLost) {
    race(2000, [](Killer&, std::mt19937&) {
        const auto control = std::make_shared<ProcessControl>();
        control->kill();

        const ProcessResult result = runProcess(program({"/bin/sleep", "60"}), control);

        EXPECT_TRUE(result.cancelled);
        EXPECT_EQ(result.exitCode, 128 + SIGKILL);
    });
}

TEST(ProcessControlRaces, NoKillAroundTheAttachmentIsLost) {
    race(4000, [](Killer& killer, std::mt19937& random) {
        const auto control = std::make_shared<ProcessControl>();
        killer.killAfter(control, microseconds(random() % 1000));

        const ProcessResult result = runProcess(program({"/bin/sleep", "60"}), control);

        killer.awaitKill();
        EXPECT_TRUE(result.cancelled);
        EXPECT_EQ(result.exitCode, 128 + SIGKILL);
        EXPECT_LT(result.durationMs, 50'000);
    });
}

TEST(ProcessControlRaces, AKillAroundTheEndHitsTheChildOrNothing) {
    race(4000, [](Killer& killer, std::mt19937& random) {
        const auto control = std::make_shared<ProcessControl>();
        killer.killAfter(control, microseconds(random() % 2500));

        const ProcessResult result = runProcess(program({"/bin/true"}), control);

        killer.awaitKill();
        EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 128 + SIGKILL) << result.exitCode;
        EXPECT_TRUE(result.exitCode == 0 || result.cancelled);
    });
}

/// Reaps the members of a group, orphans that this process has adopted, until there are none.
bool groupEnds(pid_t group) {
    return test::waitUntil([group] { return ::waitpid(-group, nullptr, WNOHANG) < 0 && errno == ECHILD; });
}

TEST(ProcessControlRaces, NoJobOutlivesARunThatWasKilled) {
    const test::OrphanAdoption adoption;
    race(1000, [](Killer& killer, std::mt19937& random) {
        const auto control = std::make_shared<ProcessControl>();
        killer.killAfter(control, microseconds(random() % 4000));

        // The job keeps the output: the shell ends at once, and the run with the kill.
        ProcessOptions options = shell("echo $$; yes & exit 0");
        options.maxOutputBytes = 20;
        const ProcessResult result = runProcess(options, control);

        killer.awaitKill();
        EXPECT_TRUE(result.cancelled);
        if (result.stdoutText.empty()) return;  // Killed before there could be a job.
        const auto group = static_cast<pid_t>(std::stol(result.stdoutText));
        EXPECT_TRUE(groupEnds(group)) << ::kill(-group, SIGKILL);
    });
}

}  // namespace
}  // namespace qm
