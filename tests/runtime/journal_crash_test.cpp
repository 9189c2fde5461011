#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>

#include "runtime/journal_fixture.h"
#include "runtime/jsonl_agent_event_store.h"
#include "support/run_on_threads.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using qm::test::kGenerousLimit;
using qm::test::runOnThreads;
using qm::test::TemporaryDirectory;
using runtime::test::makeEvents;

std::uint64_t lastSequence(JsonlAgentEventStore& store) {
    const auto events = store.read("s1", 0);
    return events.empty() ? 0 : events.back().sequence;
}

/// Appends batches until it is killed, and writes one byte for each that the store acknowledged.
[[noreturn]] void appendForever(const std::filesystem::path& directory, int acknowledgements) {
    try {
        JsonlAgentEventStore store(directory);
        std::uint64_t last = lastSequence(store);
        while (true) {
            const int count = 1 + static_cast<int>(last % 3);
            store.append("s1", last, makeEvents("s1", count));
            last += static_cast<std::uint64_t>(count);
            const auto byte = static_cast<char>(count);
            if (::write(acknowledgements, &byte, 1) != 1) break;
        }
    } catch (const std::exception&) {
        ::_exit(1);
    }
    ::_exit(2);
}

/// A child process that appends; its death is the test's to bring about.
class Appender {
public:
    explicit Appender(const std::filesystem::path& directory) {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        acknowledgements_.reset(ends[0]);
        const UniqueFd writeEnd(ends[1]);
        pid_ = ::fork();
        if (pid_ == 0) appendForever(directory, writeEnd.get());
        EXPECT_GT(pid_, 0);
    }

    /// Waits for so many acknowledgements and returns how many events they stand for.
    std::uint64_t awaitEvents(std::uint64_t batches) const {
        std::uint64_t events = 0;
        for (char byte = 0; batches > 0; --batches) {
            if (::read(acknowledgements_.get(), &byte, 1) != 1) ADD_FAILURE() << "the appender ended by itself";
            events += static_cast<std::uint64_t>(byte);
        }
        return events;
    }

    /// Kills the child and returns how many more events it had acknowledged.
    std::uint64_t kill() const {
        EXPECT_EQ(::kill(pid_, SIGKILL), 0);
        int status = 0;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        EXPECT_TRUE(WIFSIGNALED(status)) << "ended with " << status;
        std::uint64_t events = 0;
        for (char byte = 0; ::read(acknowledgements_.get(), &byte, 1) == 1;)
            events += static_cast<std::uint64_t>(byte);
        return events;
    }

private:
    UniqueFd acknowledgements_;
    pid_t pid_ = -1;
};

TEST(JournalCrash, AKillNeverLosesAnAcknowledgedBatch) {
    std::mt19937_64 random(9);
    constexpr int kKills = 500;
    constexpr int kKillsPerJournal = 25;
    for (int round = 0; round < kKills / kKillsPerJournal; ++round) {
        const TemporaryDirectory directory;
        JsonlAgentEventStore known(directory.path());
        std::uint64_t acknowledged = 0;
        for (int kill = 0; kill < kKillsPerJournal; ++kill) {
            const Appender appender(directory.path());
            acknowledged += appender.awaitEvents(random() % 4);
            for (auto delay = random() % 60'000; delay > 0; --delay)
                std::atomic_signal_fence(std::memory_order_seq_cst);
            acknowledged += appender.kill();

            JsonlAgentEventStore fresh(directory.path());
            const std::uint64_t found = lastSequence(fresh);
            ASSERT_GE(found, acknowledged);
            // At most the one batch that was written but not yet acknowledged.
            ASSERT_LE(found, acknowledged + 3);
            ASSERT_EQ(lastSequence(known), found);
            acknowledged = found;
        }
    }
}

TEST(JournalCrash, StoresThatRaceForOneFileNeverBreakIt) {
    const TemporaryDirectory directory;
    constexpr std::size_t kStores = 4;
    constexpr int kRounds = 40;
    for (int round = 0; round < kRounds; ++round) {
        const std::string session = "s" + std::to_string(round);
        std::atomic<int> successes = 0;
        runOnThreads(kStores, [&](std::size_t) {
            JsonlAgentEventStore store(directory.path(), kGenerousLimit);
            for (int attempt = 0; attempt < 10; ++attempt) {
                const auto events = store.read(session, 0);
                try {
                    store.append(session, events.size(), makeEvents(session, 1));
                    ++successes;
                } catch (const std::runtime_error& error) {
                    EXPECT_TRUE(std::string(error.what()).starts_with("agent journal append conflict: "))
                        << error.what();
                }
            }
        });
        JsonlAgentEventStore store(directory.path());
        EXPECT_EQ(store.read(session, 0).size(), static_cast<std::size_t>(successes));
        EXPECT_GE(successes, 10);
    }
}

}  // namespace
}  // namespace qm
