#include "runtime/jsonl_agent_event_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "runtime/journal_batch.h"
#include "runtime/journal_fixture.h"
#include "support/exhaustive.h"
#include "support/temporary_directory.h"
#include "util/sha256.h"

namespace qm {
namespace {

using qm::test::kExhaustiveStep;
using qm::test::readFile;
using qm::test::TemporaryDirectory;
using qm::test::writeFile;
using runtime::AgentEvent;
using runtime::kMaxJournalBatchBytes;
using runtime::test::appendFailure;
using runtime::test::failureOf;
using runtime::test::jsonOf;
using runtime::test::makeEnvelope;
using runtime::test::makeEvent;
using runtime::test::makeEvents;
using runtime::test::sealed;
using runtime::test::sequencesOf;

using Sequences = std::vector<std::uint64_t>;

class JsonlStore : public testing::Test {
protected:
    std::filesystem::path file() const { return store.fileOf("s1"); }
    std::string content() const { return readFile(file()); }
    void write(const std::string& bytes) const { writeFile(file(), bytes); }
    std::string readFailure() {
        return failureOf<std::runtime_error>([this] { store.read("s1", 0); });
    }

    TemporaryDirectory directory;
    JsonlAgentEventStore store{directory.path()};
};

TEST_F(JsonlStore, AFileIsNamedByTheDigestOfItsSession) {
    for (const char* const id : {"s1", "../../etc/passwd", "a/b", "会话", "", "gateway:7"}) {
        const auto path = store.fileOf(id);
        EXPECT_EQ(path.parent_path(), directory / "agent-events");
        EXPECT_EQ(path.filename(), sha256Hex(id) + ".jsonl");
        EXPECT_EQ(path.filename().string().size(), 70U);
    }
}

TEST_F(JsonlStore, AnyIdIsASafeFileName) {
    for (const char* const id : {"../../escape", "a/b", "会话", " "}) {
        store.append(id, 0, makeEvents(id, 1));
        EXPECT_EQ(sequencesOf(store.read(id, 0)), Sequences{1});
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory / "agent-events"), {}), 4);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1);
}

TEST_F(JsonlStore, AnUnknownSessionHasNoEventsAndNoFile) {
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_TRUE(store.read("", 0).empty());
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(JsonlStore, EachAppendIsOneLine) {
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 2))), (Sequences{1, 2}));
    EXPECT_EQ(sequencesOf(store.append("s1", 2, makeEvents("s1", 1))), Sequences{3});
    EXPECT_EQ(content(), sealed(makeEnvelope("s1", 1, 2)) + "\n" + sealed(makeEnvelope("s1", 3, 1)) + "\n");
}

TEST_F(JsonlStore, WhatWasAppendedIsRead) {
    const auto first = store.append("s1", 0, makeEvents("s1", 2));
    const auto second = store.append("s1", 2, makeEvents("s1", 1));
    json expected = jsonOf(first);
    expected.push_back(jsonOf(second)[0]);
    JsonlAgentEventStore other(directory.path());
    for (auto* const reader : {&store, &other, &other})
        EXPECT_EQ(jsonOf(reader->read("s1", 0)), expected);
}

TEST_F(JsonlStore, AReadStartsBehindASequenceWhetherTheJournalIsKnownOrNot) {
    std::uint64_t last = 0;
    // Enough for several marks, and batches of different sizes around each.
    for (int batch = 0; batch < 400; ++batch) {
        const int count = 1 + batch % 3;
        store.append("s1", last, makeEvents("s1", count));
        last += static_cast<std::uint64_t>(count);
    }
    ASSERT_GT(content().size(), std::size_t{200'000});
    JsonlAgentEventStore fresh(directory.path());
    for (std::uint64_t after = 0; after <= last + 1; after += (1 + after / 40) * kExhaustiveStep) {
        const auto events = store.read("s1", after);
        ASSERT_EQ(events.size(), after < last ? last - after : 0) << after;
        for (std::size_t index = 0; index < events.size(); ++index)
            ASSERT_EQ(events[index].sequence, after + 1 + index);
        EXPECT_EQ(jsonOf(fresh.read("s1", after)), jsonOf(events));
    }
    EXPECT_TRUE(store.read("s1", UINT64_MAX).empty());
}

TEST_F(JsonlStore, NoEventsAreNoAppend) {
    EXPECT_TRUE(store.append("s1", 7, {}).empty());
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(JsonlStore, WhatCannotBeAppendedLeavesTheFileAsItIs) {
    store.append("s1", 0, makeEvents("s1", 2));
    const std::string before = content();

    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "", 0, {}), "sessionId must not be blank");
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 1, makeEvents("s1", 1)),
              "agent journal append conflict: expected 1, actual 2");
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 3, makeEvents("s2", 1)),
              "agent journal append conflict: expected 3, actual 2");
    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "s1", 2, {makeEvent("s1"), makeEvent("s2")}),
              "cannot append an event for another session");
    auto numbered = makeEvents("s1", 2);
    numbered[1].sequence = 4;
    EXPECT_EQ(appendFailure<std::invalid_argument>(store, "s1", 2, numbered),
              "event sequence must be assigned by the journal");
    auto noText = makeEvents("s1", 1);
    noText[0].payload["content"] = "\xFF";
    EXPECT_THROW(store.append("s1", 2, noText), json::type_error);

    EXPECT_EQ(content(), before);
    EXPECT_EQ(sequencesOf(store.append("s1", 2, makeEvents("s1", 1))), Sequences{3});
}

TEST_F(JsonlStore, AFirstAppendThatIsRefusedMakesNoFile) {
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 1, makeEvents("s1", 1)),
              "agent journal append conflict: expected 1, actual 0");
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(JsonlStore, ALastLineWithoutALineFeedIsIgnoredAndThenCutOff) {
    const std::string line = sealed(makeEnvelope("s1", 1, 2)) + "\n";
    for (const std::string& tail : {std::string("x"), sealed(makeEnvelope("s1", 3, 1)), std::string("\0\0", 2)}) {
        write(line + tail);
        EXPECT_EQ(sequencesOf(store.read("s1", 0)), (Sequences{1, 2}));
        EXPECT_EQ(content(), line + tail);

        EXPECT_EQ(sequencesOf(store.append("s1", 2, makeEvents("s1", 1))), Sequences{3});

        EXPECT_EQ(content(), line + sealed(makeEnvelope("s1", 3, 1)) + "\n");
    }
}

TEST_F(JsonlStore, AFileThatIsOnlyAPartOfALineIsEmpty) {
    write(sealed(makeEnvelope("s1", 1, 2)));
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 1))), Sequences{1});
    EXPECT_EQ(content(), sealed(makeEnvelope("s1", 1, 1)) + "\n");
}

TEST_F(JsonlStore, EmptyLinesAreSkipped) {
    write("\n\n" + sealed(makeEnvelope("s1", 1, 2)) + "\n\n" + sealed(makeEnvelope("s1", 3, 1)) + "\n\n");
    EXPECT_EQ(sequencesOf(store.read("s1", 0)), (Sequences{1, 2, 3}));
    store.append("s1", 3, makeEvents("s1", 1));
    EXPECT_EQ(sequencesOf(store.read("s1", 2)), (Sequences{3, 4}));
}

TEST_F(JsonlStore, BatchesMustFollowEachOther) {
    const std::string first = sealed(makeEnvelope("s1", 1, 2)) + "\n";
    write(first + first);
    EXPECT_EQ(readFailure(), "agent journal batch sequence diverged");
    write(first + sealed(makeEnvelope("s1", 4, 1)) + "\n");
    EXPECT_EQ(readFailure(), "agent journal batch sequence diverged");
    write(sealed(makeEnvelope("s1", 2, 1)) + "\n");
    EXPECT_EQ(readFailure(), "agent journal batch sequence diverged");
}

TEST_F(JsonlStore, ABatchBeforeTheWantedEventsIsValidatedToo) {
    write(sealed(makeEnvelope("s2", 1, 2)) + "\n" + sealed(makeEnvelope("s1", 3, 1)) + "\n");
    EXPECT_EQ(failureOf<std::runtime_error>([this] { store.read("s1", 2); }),
              "agent journal contains an invalid batch envelope");
    EXPECT_EQ(failureOf<std::runtime_error>([this] { store.read("s1", UINT64_MAX); }),
              "agent journal contains an invalid batch envelope");
}

TEST_F(JsonlStore, AJournalThatIsReplacedByAnotherValidOneIsReadAnew) {
    store.append("s1", 0, makeEvents("s1", 3));
    write(sealed(makeEnvelope("s1", 1, 1)) + "\n");
    EXPECT_EQ(sequencesOf(store.read("s1", 0)), Sequences{1});
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 3, makeEvents("s1", 1)),
              "agent journal append conflict: expected 3, actual 1");
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), Sequences{2});
}

TEST_F(JsonlStore, AJournalThatIsDeletedBeginsAnew) {
    store.append("s1", 0, makeEvents("s1", 3));
    std::filesystem::remove(file());
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 3, makeEvents("s1", 1)),
              "agent journal append conflict: expected 3, actual 0");
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 1))), Sequences{1});
}

TEST_F(JsonlStore, ARemovedJournalIsGoneAndTheOthersStay) {
    store.append("s1", 0, makeEvents("s1", 3));
    store.append("s2", 0, makeEvents("s2", 1));
    store.remove("s1");
    store.remove("s1");
    store.remove("never existed");
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_TRUE(store.read("s1", 0).empty());
    EXPECT_EQ(store.read("s2", 0).size(), 1U);
    EXPECT_EQ(sequencesOf(store.append("s1", 0, makeEvents("s1", 1))), Sequences{1});
}

/// An event that makes the line of a first batch this long.
std::vector<AgentEvent> eventsForLineOf(std::size_t bytes) {
    AgentEvent event = makeEvent("s1");
    event.sequence = 1;
    event.payload = {{"content", ""}};
    const std::size_t overhead = runtime::encodeJournalBatch("s1", {event}).size();
    event.sequence = 0;
    event.payload["content"] = std::string(bytes - overhead, 'x');
    return {event};
}

TEST_F(JsonlStore, ABatchOfSixteenMebibytesIsKept) {
    store.append("s1", 0, eventsForLineOf(kMaxJournalBatchBytes));
    EXPECT_EQ(std::filesystem::file_size(file()), kMaxJournalBatchBytes + 1);
    JsonlAgentEventStore other(directory.path());
    EXPECT_EQ(sequencesOf(other.read("s1", 0)), Sequences{1});
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), Sequences{2});
    EXPECT_EQ(sequencesOf(other.read("s1", 0)), (Sequences{1, 2}));
}

TEST_F(JsonlStore, OneByteMoreIsRefusedAndTheTailStays) {
    write("torn");
    EXPECT_EQ(appendFailure<std::length_error>(store, "s1", 0, eventsForLineOf(kMaxJournalBatchBytes + 1)),
              "agent journal append batch exceeds 16 MiB");
    EXPECT_EQ(content(), "torn");
}

TEST_F(JsonlStore, ALineBeyondTheLimitIsFatalOnlyIfItIsComplete) {
    const std::string first = sealed(makeEnvelope("s1", 1, 1)) + "\n";
    for (const std::size_t excess : {std::size_t{1}, std::size_t{700'000}}) {
        const std::string overlong(kMaxJournalBatchBytes + excess, 'x');
        write(first + overlong);
        EXPECT_EQ(sequencesOf(store.read("s1", 0)), Sequences{1});
        write(first + overlong + "\n");
        EXPECT_EQ(readFailure(), "agent journal batch exceeds 16 MiB");
        write(first + overlong + "\n" + sealed(makeEnvelope("s1", 2, 1)) + "\n");
        EXPECT_EQ(readFailure(), "agent journal batch exceeds 16 MiB");
    }
    write(first + std::string(kMaxJournalBatchBytes, 'x') + "\n");
    EXPECT_EQ(readFailure(), "agent journal contains an invalid batch envelope");

    write(first + std::string(kMaxJournalBatchBytes * 2, 'x'));
    EXPECT_EQ(sequencesOf(store.append("s1", 1, makeEvents("s1", 1))), Sequences{2});
    EXPECT_EQ(content(), first + sealed(makeEnvelope("s1", 2, 1)) + "\n");
}

TEST_F(JsonlStore, NobodyElseMayReadAJournal) {
    const auto before = ::umask(0);
    store.append("s1", 0, makeEvents("s1", 1));
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat((directory / "agent-events").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U);
    ASSERT_EQ(::stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(JsonlStore, DirectoriesAboveAreCreated) {
    JsonlAgentEventStore deep(directory / "a/b");
    deep.append("s1", 0, makeEvents("s1", 1));
    EXPECT_TRUE(std::filesystem::exists(directory / "a/b/agent-events"));
    EXPECT_EQ(deep.read("s1", 0).size(), 1U);
}

TEST_F(JsonlStore, TwoStoresOnOneFileSeeTheConflict) {
    JsonlAgentEventStore other(directory.path());
    store.append("s1", 0, makeEvents("s1", 1));
    EXPECT_EQ(appendFailure<std::runtime_error>(other, "s1", 0, makeEvents("s1", 1)),
              "agent journal append conflict: expected 0, actual 1");
    other.append("s1", 1, makeEvents("s1", 2));
    EXPECT_EQ(appendFailure<std::runtime_error>(store, "s1", 1, makeEvents("s1", 1)),
              "agent journal append conflict: expected 1, actual 3");
    store.append("s1", 3, makeEvents("s1", 1));
    EXPECT_EQ(sequencesOf(other.read("s1", 0)), (Sequences{1, 2, 3, 4}));
}

}  // namespace
}  // namespace qm
