#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "device/refused_system_calls.h"
#include "runtime/journal_fixture.h"
#include "runtime/jsonl_agent_event_store.h"
#include "support/ordinary_user.h"
#include "support/temporary_directory.h"

namespace qm {
namespace {

using qm::test::OrdinaryUser;
using qm::test::readFile;
using qm::test::TemporaryDirectory;
using qm::test::withRefusedCalls;
using qm::test::writeFile;
using runtime::test::appendFailure;
using runtime::test::failureOf;
using runtime::test::makeEnvelope;
using runtime::test::makeEvents;
using runtime::test::openDescriptors;
using runtime::test::sealed;
using runtime::test::sequencesOf;

namespace fs = std::filesystem;

/// Lets files grow to this size only, for a while.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
        handler_ = std::signal(SIGXFSZ, SIG_IGN);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit before_{};
    void (*handler_)(int) = SIG_DFL;
};

class JournalFailure : public testing::Test {
protected:
    std::string readFailure() {
        return failureOf<std::runtime_error>([this] { store.read("s1", 0); });
    }
    std::string failureOfAppend(std::uint64_t expected = 0) {
        return appendFailure<std::runtime_error>(store, "s1", expected, makeEvents("s1", 1));
    }

    TemporaryDirectory directory;
    JsonlAgentEventStore store{directory.path()};
    const fs::path journals = directory / "agent-events";
    const fs::path file = store.fileOf("s1");
    const std::string line = sealed(makeEnvelope("s1", 1, 1)) + "\n";
};

TEST_F(JournalFailure, AFileThatCannotBeInspectedIsReported) {
    fs::create_symlink(journals, journals);
    EXPECT_EQ(readFailure(), "cannot inspect agent journal: Too many levels of symbolic links");
    EXPECT_EQ(failureOfAppend(), "cannot inspect agent journal: Too many levels of symbolic links");
}

TEST_F(JournalFailure, ADirectoryThatIsClosedToUsIsReported) {
    writeFile(file, line);
    fs::permissions(journals, fs::perms::none);
    {
        const OrdinaryUser user(directory.path());
        EXPECT_EQ(readFailure(), "cannot inspect agent journal: Permission denied");
    }
    fs::permissions(journals, fs::perms(0700));
}

TEST_F(JournalFailure, AFileThatCannotBeReadIsReported) {
    writeFile(file, line);
    fs::permissions(file, fs::perms::none);
    const OrdinaryUser user(directory.path());
    EXPECT_EQ(readFailure(), "cannot open agent journal for reading");
    EXPECT_EQ(failureOfAppend(1), "cannot open agent journal for reading");
}

TEST_F(JournalFailure, WhatIsNoRegularFileIsReported) {
    fs::create_directories(file);
    EXPECT_EQ(readFailure(), "cannot open agent journal for reading");
    EXPECT_EQ(failureOfAppend(), "cannot open agent journal for reading");
}

TEST_F(JournalFailure, ADirectoryThatCannotBeCreatedIsReported) {
    writeFile(journals, "a file");
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_EQ(failureOfAppend(), "cannot create agent journal directory: Not a directory");

    JsonlAgentEventStore below(journals / "a/file");
    EXPECT_EQ(appendFailure<std::runtime_error>(below, "s1", 0, makeEvents("s1", 1)),
              "cannot create agent journal directory: Not a directory");
}

TEST_F(JournalFailure, ADirectoryThatMayNotBeCreatedIsReported) {
    fs::permissions(directory.path(), fs::perms(0555));
    {
        const OrdinaryUser user(directory.path());
        EXPECT_EQ(failureOfAppend(), "cannot create agent journal directory: Permission denied");
    }
    fs::permissions(directory.path(), fs::perms(0755));
}

TEST_F(JournalFailure, AFileThatCannotBeCreatedIsReported) {
    fs::create_directories(journals);
    fs::permissions(journals, fs::perms(0555));
    const OrdinaryUser user(directory.path());
    EXPECT_EQ(failureOfAppend(), "cannot open agent journal for append");
}

TEST_F(JournalFailure, AFileThatCanOnlyBeReadIsReadButNotAppendedTo) {
    writeFile(file, line);
    fs::permissions(file, fs::perms(0444));
    const OrdinaryUser user(directory.path());
    EXPECT_EQ(store.read("s1", 0).size(), 1U);
    EXPECT_EQ(failureOfAppend(0), "agent journal append conflict: expected 0, actual 1");
    EXPECT_EQ(failureOfAppend(1), "cannot open agent journal for append");
}

TEST_F(JournalFailure, ATailThatCannotBeCutIsReported) {
    writeFile(file, line + "torn");
    fs::permissions(file, fs::perms(0444));
    const OrdinaryUser user(directory.path());
    EXPECT_EQ(failureOfAppend(1), "cannot repair agent journal crash tail: Permission denied");
}

TEST_F(JournalFailure, AShortWriteIsCutBackAndReported) {
    store.append("s1", 0, makeEvents("s1", 1));
    const std::string before = readFile(file);
    for (const rlim_t room : {rlim_t{1}, rlim_t{100}, rlim_t{0}}) {
        const FileSizeLimit limit(before.size() + room);
        EXPECT_EQ(failureOfAppend(1), "cannot flush agent journal append");
        EXPECT_EQ(fs::file_size(file), before.size());
    }
    EXPECT_EQ(readFile(file), before);
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), std::vector<std::uint64_t>{2});
    EXPECT_EQ(store.read("s1", 0).size(), 2U);
}

TEST_F(JournalFailure, AFailedFirstAppendLeavesAnEmptyJournal) {
    {
        const FileSizeLimit limit(10);
        EXPECT_EQ(failureOfAppend(0), "cannot flush agent journal append");
    }
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 1))), std::vector<std::uint64_t>{1});
}

TEST_F(JournalFailure, WhatAFileSystemReportsOnlyWhenAFileIsClosedIsAFailedWrite) {
    store.append("s1", 0, makeEvents("s1", 1));
    const std::string before = readFile(file);

    withRefusedCalls({{SYS_close, EDQUOT}},
                     [this] { EXPECT_EQ(failureOfAppend(1), "cannot flush agent journal append"); });

    EXPECT_EQ(readFile(file), before);
    // Refused calls close nothing, and what is left open keeps the lock.
    for (const int descriptor : openDescriptors(file))
        ::close(descriptor);
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), std::vector<std::uint64_t>{2});
    EXPECT_EQ(store.read("s1", 0).size(), 2U);
}

TEST_F(JournalFailure, NothingIsWrittenWhoseEndCouldNotBeChecked) {
    store.append("s1", 0, makeEvents("s1", 1));
    const std::string before = readFile(file);

    withRefusedCalls({{SYS_fcntl, EMFILE}},
                     [this] { EXPECT_EQ(failureOfAppend(1), "cannot open agent journal for append"); });

    EXPECT_EQ(readFile(file), before);
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), std::vector<std::uint64_t>{2});
}

TEST_F(JournalFailure, AJournalThatCannotBeRemovedIsReported) {
    fs::create_directories(file / "occupied");
    EXPECT_EQ(failureOf<std::runtime_error>([this] { store.remove("s1"); }),
              "cannot remove agent journal: Directory not empty");
}

}  // namespace
}  // namespace qm
