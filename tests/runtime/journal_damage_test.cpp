#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/journal_fixture.h"
#include "runtime/jsonl_agent_event_store.h"
#include "support/exhaustive.h"
#include "support/temporary_directory.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using qm::test::kExhaustiveStep;
using qm::test::readFile;
using qm::test::TemporaryDirectory;
using qm::test::writeFile;
using runtime::test::failureOf;
using runtime::test::makeEnvelope;
using runtime::test::makeEvents;
using runtime::test::sealed;

/// Puts a new file in place of one: some file systems force a file to the disk when it is cut to nothing and rewritten.
void replaceFile(const std::filesystem::path& file, const std::string& content) {
    std::filesystem::remove(file);
    writeFile(file, content);
}

/// A journal of four batches with 1, 2, 3 and 1 events.
std::string fourBatches() {
    std::string content;
    std::uint64_t next = 1;
    for (const int count : {1, 2, 3, 1}) {
        content += sealed(makeEnvelope("s1", next, count)) + "\n";
        next += static_cast<std::uint64_t>(count);
    }
    return content;
}

/// The sequence after so many complete batches of fourBatches().
std::uint64_t lastSequenceOf(std::ptrdiff_t batches) {
    static constexpr std::uint64_t kLast[] = {0, 1, 3, 6, 7};
    return kLast[batches];
}

/// A file whose bytes are changed in place, its times put back after each change.
class Patch {
public:
    explicit Patch(const std::filesystem::path& file) : fd_(::open(file.c_str(), O_RDWR | O_CLOEXEC)) {
        EXPECT_EQ(::fstat(fd_.get(), &status_), 0);
    }

    void put(std::size_t at, char byte) const {
        ASSERT_EQ(::pwrite(fd_.get(), &byte, 1, static_cast<off_t>(at)), 1);
        const timespec times[] = {status_.st_atim, status_.st_mtim};
        ASSERT_EQ(::futimens(fd_.get(), times), 0);
    }

private:
    UniqueFd fd_;
    struct stat status_ {};
};

/// What a reader must say of a content that no digest fits any more, told without the code under test.
std::string verdictOn(const std::string& content) {
    std::size_t begin = 0;
    for (std::size_t end = content.find('\n'); end != std::string::npos; end = content.find('\n', begin)) {
        const std::string line = content.substr(begin, end - begin);
        begin = end + 1;
        if (line.empty()) continue;
        const json value = json::parse(line, nullptr, false);
        const bool isEnvelope = value.is_object() && value.contains("v") && value["v"] == 1 &&
                                value.contains("sessionId") && value["sessionId"] == "s1" && value.contains("events") &&
                                value["events"].is_array() && !value["events"].empty();
        if (!isEnvelope) return "agent journal contains an invalid batch envelope";
        if (sealed(makeEnvelope("s1", 1, 1)) == line) continue;
        if (sealed(makeEnvelope("s1", 2, 2)) == line) continue;
        return "agent journal checksum mismatch";
    }
    return "no failure";
}

TEST(JournalDamage, EveryCutOfAJournalReadsAsItsCompleteBatches) {
    const std::string content = fourBatches();
    const TemporaryDirectory directory;
    JsonlAgentEventStore known(directory.path());
    const auto file = known.fileOf("s1");
    for (std::size_t size = 0; size <= content.size(); size += kExhaustiveStep) {
        const std::string cut = content.substr(0, size);
        const std::string complete = cut.substr(0, cut.rfind('\n') + 1);
        const std::uint64_t last = lastSequenceOf(std::count(cut.begin(), cut.end(), '\n'));
        replaceFile(file, cut);
        JsonlAgentEventStore fresh(directory.path());
        ASSERT_EQ(fresh.read("s1", 0).size(), last) << size;
        ASSERT_EQ(known.read("s1", 0).size(), last) << size;

        JsonlAgentEventStore& writer = size % 2 == 0 ? fresh : known;
        const auto appended = writer.append("s1", last, makeEvents("s1", 1));

        ASSERT_EQ(appended.front().sequence, last + 1);
        ASSERT_EQ(readFile(file), complete + sealed(makeEnvelope("s1", last + 1, 1)) + "\n") << size;
    }
}

TEST(JournalDamage, EveryFlippedBitOfACompleteLineIsFoundByAFreshStoreAndByOneThatKnewTheFile) {
    const std::string content = sealed(makeEnvelope("s1", 1, 1)) + "\n" + sealed(makeEnvelope("s1", 2, 2)) + "\n";
    const TemporaryDirectory directory;
    JsonlAgentEventStore known(directory.path());
    const auto file = known.fileOf("s1");
    writeFile(file, content);
    ASSERT_EQ(known.read("s1", 0).size(), 3U);
    const Patch patch(file);
    // The last line feed is left alone: without it the line isn't complete.
    for (std::size_t flip = 0; flip < 8 * (content.size() - 1); flip += kExhaustiveStep) {
        const std::size_t at = flip / 8;
        std::string changed = content;
        changed[at] = static_cast<char>(static_cast<unsigned char>(changed[at]) ^ (1U << flip % 8));
        const std::string expected = verdictOn(changed);
        ASSERT_NE(expected, "no failure") << flip;
        patch.put(at, changed[at]);
        JsonlAgentEventStore fresh(directory.path());

        ASSERT_EQ(failureOf<std::runtime_error>([&] { fresh.read("s1", 0); }), expected) << flip;
        ASSERT_EQ(failureOf<std::runtime_error>([&] { known.read("s1", 3); }), expected) << flip;
        ASSERT_EQ(failureOf<std::runtime_error>([&] { known.append("s1", 3, makeEvents("s1", 1)); }), expected) << flip;
        ASSERT_EQ(std::filesystem::file_size(file), content.size());

        patch.put(at, content[at]);
        if (flip % 8 != at % 8) continue;
        ASSERT_EQ(known.read("s1", 0).size(), 3U);
    }
}

/// Puts every other value in place of one byte of a file that `known` has read to sequence 3.
void expectEveryValueIsFound(JsonlAgentEventStore& known, const std::filesystem::path& directory,
                             const std::string& content, std::size_t at, const std::vector<int>& values) {
    const Patch patch(known.fileOf("s1"));
    for (const int value : values) {
        std::string changed = content;
        changed[at] = static_cast<char>(value);
        if (changed[at] == content[at]) continue;
        // The library takes a NUL as the end of its input; a reader must not.
        const std::string expected =
            value == 0 ? "agent journal contains an invalid batch envelope" : verdictOn(changed);
        patch.put(at, changed[at]);
        JsonlAgentEventStore fresh(directory);
        ASSERT_EQ(failureOf<std::runtime_error>([&] { fresh.read("s1", 0); }), expected) << at << " " << value;
        ASSERT_EQ(failureOf<std::runtime_error>([&] { known.read("s1", 3); }), expected) << at << " " << value;
        ASSERT_EQ(failureOf<std::runtime_error>([&] { fresh.append("s1", 3, makeEvents("s1", 1)); }), expected)
            << at << " " << value;
    }
    patch.put(at, content[at]);
}

TEST(JournalDamage, NoLineIsLostByAnotherByteInPlaceOfTheLineFeedBeforeItOrByANulAnywhere) {
    const std::string first = sealed(makeEnvelope("s1", 1, 1)) + "\n";
    const std::string content = first + sealed(makeEnvelope("s1", 2, 2)) + "\n";
    const TemporaryDirectory directory;
    JsonlAgentEventStore known(directory.path());
    writeFile(known.fileOf("s1"), content);
    ASSERT_EQ(known.read("s1", 0).size(), 3U);
    std::vector<int> every(256);
    std::iota(every.begin(), every.end(), 0);

    expectEveryValueIsFound(known, directory.path(), content, first.size() - 1, every);
    for (std::size_t at = 0; at + 1 < content.size(); at += kExhaustiveStep)
        expectEveryValueIsFound(known, directory.path(), content, at, {0});

    EXPECT_EQ(readFile(known.fileOf("s1")), content);
}

TEST(JournalDamage, ALineThatIsAcceptedTwiceDoesNotHideTheDamageBehindIt) {
    const TemporaryDirectory directory;
    JsonlAgentEventStore store(directory.path());
    const std::string good = sealed(makeEnvelope("s1", 1, 1)) + "\n";
    writeFile(store.fileOf("s1"), good + "damage\n");
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_EQ(failureOf<std::runtime_error>([&] { store.read("s1", 0); }),
                  "agent journal contains an invalid batch envelope");
    }
    EXPECT_EQ(readFile(store.fileOf("s1")), good + "damage\n");
    writeFile(store.fileOf("s1"), good);
    EXPECT_EQ(store.read("s1", 0).size(), 1U);
}

TEST(JournalDamage, RandomBytesNeverHarmAReader) {
    std::mt19937_64 random(5);
    const TemporaryDirectory directory;
    JsonlAgentEventStore store(directory.path());
    const std::string content = fourBatches();
    for (int round = 0; round < 3000; ++round) {
        std::string changed = content;
        for (auto edits = random() % 4; edits > 0; --edits) {
            const std::size_t at = random() % changed.size();
            changed.replace(at, random() % 40, std::string(random() % 3, static_cast<char>(random())));
            if (changed.empty()) break;
        }
        replaceFile(store.fileOf("s1"), changed);
        try {
            const auto events = store.read("s1", 0);
            for (std::size_t index = 0; index < events.size(); ++index)
                ASSERT_EQ(events[index].sequence, index + 1);
        } catch (const std::runtime_error& error) {
            EXPECT_TRUE(std::string(error.what()).starts_with("agent journal ")) << error.what();
        }
    }
}

}  // namespace
}  // namespace qm
