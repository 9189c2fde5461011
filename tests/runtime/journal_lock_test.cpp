#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/journal_file.h"
#include "runtime/journal_fixture.h"
#include "runtime/jsonl_agent_event_store.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using qm::test::kGenerousLimit;
using qm::test::readFile;
using qm::test::TemporaryDirectory;
using qm::test::waitUntil;
using qm::test::writeFile;
using runtime::JournalFile;
using runtime::test::appendFailure;
using runtime::test::failureOf;
using runtime::test::makeEnvelope;
using runtime::test::makeEvents;
using runtime::test::openDescriptors;
using runtime::test::sealed;
using runtime::test::sequencesOf;

using Sequences = std::vector<std::uint64_t>;
using std::chrono::milliseconds;

constexpr milliseconds kShort{20};
const std::string kNoReading = "cannot open agent journal for reading";
const std::string kNoAppend = "cannot open agent journal for append";

/// A lock that another program holds on a file.
class ForeignLock {
public:
    ForeignLock(const std::filesystem::path& file, int operation) : fd_(::open(file.c_str(), O_RDONLY | O_CLOEXEC)) {
        EXPECT_EQ(::flock(fd_.get(), operation | LOCK_NB), 0);
    }
    void release() { fd_.reset(); }

private:
    UniqueFd fd_;
};

/// The flags of an open descriptor, the one for close-on-exec included.
unsigned long flagsOf(int descriptor) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with("flags:")) return std::stoul(line.substr(6), nullptr, 8);
    }
    return 0;
}

/// How many times this thread has called write().
std::ptrdiff_t countDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

class JournalLock : public testing::Test {
protected:
    JournalLock() { writeFile(file, line); }

    std::string readFailure(JsonlAgentEventStore& from) {
        return failureOf<std::runtime_error>([&] { from.read("s1", 0); });
    }

    TemporaryDirectory directory;
    JsonlAgentEventStore hasty{directory.path(), kShort};
    JsonlAgentEventStore patient{directory.path(), kGenerousLimit};
    const std::filesystem::path file = hasty.fileOf("s1");
    const std::string line = sealed(makeEnvelope("s1", 1, 1)) + "\n";
};

TEST_F(JournalLock, AJournalThatAnotherKeepsLockedFailsItsOwnSessionOnly) {
    {
        const ForeignLock foreign(file, LOCK_EX);
        EXPECT_EQ(readFailure(hasty), kNoReading);
        EXPECT_EQ(appendFailure<std::runtime_error>(hasty, "s1", 1, makeEvents("s1", 1)), kNoAppend);
        EXPECT_EQ(sequencesOf(hasty.append("s2", 0, makeEvents("s2", 1))), Sequences{1});
        EXPECT_EQ(readFile(file), line);
    }
    EXPECT_EQ(sequencesOf(hasty.append("s1", 1, makeEvents("s1", 1))), Sequences{2});
    EXPECT_EQ(sequencesOf(hasty.read("s1", 0)), (Sequences{1, 2}));
}

TEST_F(JournalLock, AJournalThatAnotherReadsIsReadButNotAppendedTo) {
    const ForeignLock foreign(file, LOCK_SH);
    EXPECT_EQ(sequencesOf(hasty.read("s1", 0)), Sequences{1});
    EXPECT_EQ(appendFailure<std::runtime_error>(hasty, "s1", 1, makeEvents("s1", 1)), kNoAppend);
}

TEST_F(JournalLock, ALockThatIsGivenBackInTimeIsWaitedFor) {
    ForeignLock foreign(file, LOCK_EX);
    const int foreignDescriptor = openDescriptors(file).at(0);
    Sequences appended;
    std::jthread appender([&] { appended = sequencesOf(patient.append("s1", 1, makeEvents("s1", 1))); });
    ASSERT_TRUE(waitUntil([&] { return openDescriptors(file).size() == 2; }));
    for (const int descriptor : openDescriptors(file)) {
        if (descriptor == foreignDescriptor) continue;
        EXPECT_EQ(flagsOf(descriptor) & (O_APPEND | O_CLOEXEC), static_cast<unsigned long>(O_APPEND | O_CLOEXEC));
    }
    EXPECT_EQ(readFile(file), line);

    foreign.release();
    appender.join();

    EXPECT_EQ(appended, Sequences{2});
    EXPECT_EQ(sequencesOf(patient.read("s1", 0)), (Sequences{1, 2}));
}

TEST_F(JournalLock, AFileThatIsDeletedWhileItsLockIsWaitedForIsCreatedAnew) {
    ForeignLock foreign(file, LOCK_EX);
    std::jthread appender([this] { JournalFile::create(file, kGenerousLimit).append("first\n"); });
    ASSERT_TRUE(waitUntil([&] { return openDescriptors(file).size() == 2; }));

    std::filesystem::remove(file);
    foreign.release();
    appender.join();

    EXPECT_EQ(readFile(file), "first\n");
}

TEST_F(JournalLock, AFileThatIsDeletedWhileItsLockIsWaitedForIsNoFileToOpen) {
    for (const auto access : {JournalFile::Access::Read, JournalFile::Access::Append}) {
        writeFile(file, line);
        ForeignLock foreign(file, LOCK_EX);
        bool isOpen = true;
        std::jthread opener([&] { isOpen = JournalFile::open(file, access, kGenerousLimit).has_value(); });
        ASSERT_TRUE(waitUntil([&] { return openDescriptors(file).size() == 2; }));

        std::filesystem::remove(file);
        foreign.release();
        opener.join();

        EXPECT_FALSE(isOpen);
    }
}

TEST_F(JournalLock, AFileToCreateThatAnotherKeepsLockedCannotBeOpened) {
    const ForeignLock foreign(file, LOCK_SH);
    EXPECT_EQ(failureOf<std::runtime_error>([this] { JournalFile::create(file, kShort); }), kNoAppend);
}

TEST_F(JournalLock, ARemovalThatRacesWithAppendsNeverLosesABatchThatIsAcknowledgedBehindIt) {
    JsonlAgentEventStore remover(directory.path(), kGenerousLimit);
    std::atomic<int> begun = 0;
    std::atomic<int> done = 0;
    std::uint64_t last = 1;
    const auto appendOnce = [&] {
        const int doneBefore = done;
        try {
            last = patient.append("s1", last, makeEvents("s1", 1)).back().sequence;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "agent journal append conflict: expected " + std::to_string(last) + ", actual 0");
            last = 0;
            return;
        }
        const std::size_t found = JsonlAgentEventStore(directory.path(), kGenerousLimit).read("s1", 0).size();
        // Without a removal in between the batch is there; with one, none or all of the journal.
        if (begun == doneBefore) {
            EXPECT_EQ(found, last);
        }
        EXPECT_TRUE(found == 0 || found == last) << found;
    };
    std::jthread removals([&] {
        for (int round = 0; round < 300; ++round) {
            ++begun;
            remover.remove("s1");
            ++done;
            std::this_thread::yield();
        }
    });
    while (done < 300)
        appendOnce();
    removals.join();

    appendOnce();
    const std::uint64_t before = last;
    appendOnce();

    EXPECT_EQ(last, before + 1);
    EXPECT_EQ(patient.read("s1", 0).size(), last);
}

TEST_F(JournalLock, NoFileStaysOpenBetweenCalls) {
    const auto before = countDescriptors();
    const auto expectNoneMore = [&](const char* behind) { EXPECT_EQ(countDescriptors(), before) << behind; };
    hasty.read("s1", 0);
    expectNoneMore("read");
    hasty.read("absent", 0);
    expectNoneMore("read of an absent journal");
    hasty.append("s1", 1, makeEvents("s1", 1));
    hasty.append("s2", 0, makeEvents("s2", 1));
    expectNoneMore("append");
    EXPECT_THROW(hasty.append("s1", 1, makeEvents("s1", 1)), std::runtime_error);
    EXPECT_THROW(hasty.append("absent", 1, makeEvents("absent", 1)), std::runtime_error);
    EXPECT_THROW(hasty.append("s1", 2, makeEvents("s2", 1)), std::invalid_argument);
    expectNoneMore("refused append");
    writeFile(file, line + "torn");
    hasty.append("s1", 1, makeEvents("s1", 1));
    expectNoneMore("repair");
    {
        const ForeignLock foreign(file, LOCK_EX);
        EXPECT_EQ(readFailure(hasty), kNoReading);
        EXPECT_EQ(appendFailure<std::runtime_error>(hasty, "s1", 2, makeEvents("s1", 1)), kNoAppend);
    }
    expectNoneMore("lock");
    writeFile(file, line + "damage\n");
    EXPECT_THROW(hasty.read("s1", 0), std::runtime_error);
    EXPECT_THROW(hasty.append("s1", 1, makeEvents("s1", 1)), std::runtime_error);
    expectNoneMore("damage");
    hasty.remove("s1");
    expectNoneMore("removal");
}

#if !defined(__SANITIZE_ADDRESS__)
// UndefinedBehaviorSanitizer, which comes with it, writes into a pipe to see whether memory can be read.
std::uint64_t writeCalls() {
    std::ifstream counters("/proc/thread-self/io");
    for (std::string line; std::getline(counters, line);) {
        if (line.starts_with("syscw:")) return std::stoull(line.substr(6));
    }
    ADD_FAILURE() << "no counter";
    return 0;
}

TEST_F(JournalLock, ABatchIsWrittenByOneWrite) {
    std::uint64_t last = 0;
    const auto expectOneWrite = [&](std::size_t contentBytes) {
        auto events = makeEvents("new", 3);
        events[1].payload["content"] = std::string(contentBytes, 'x');
        const std::uint64_t before = writeCalls();
        hasty.append("new", last, std::move(events));
        EXPECT_EQ(writeCalls(), before + 1);
        last += 3;
    };
    expectOneWrite(10);
    expectOneWrite(3'000'000);
    std::ofstream(hasty.fileOf("new"), std::ios::app) << "torn";
    expectOneWrite(10);
}
#endif

}  // namespace
}  // namespace qm
