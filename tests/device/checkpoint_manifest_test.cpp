#include "device/checkpoint_manifest.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <fstream>
#include <random>

#include "support/temporary_directory.h"
#include "util/json.h"
#include "util/unique_fd.h"

namespace qm::test {
namespace {

CheckpointManifest example(std::size_t files) {
    CheckpointManifest manifest;
    manifest.id = "ck_0123456789";
    manifest.workspaceId = "ws_12345678";
    manifest.label = R"(a "label" with ],"gitHead": in it)";
    manifest.createdAtMs = 1700000000123;
    manifest.createdAtNs = 1700000000123456789;
    manifest.complete = true;
    manifest.gitHead = "ref: refs/heads/main";
    for (std::size_t index = 0; index < files; ++index) {
        manifest.files.push_back(
            {R"(dir/"files":[ )" + std::to_string(index), index, std::string(64, 'a'), index % 2 == 0});
    }
    return manifest;
}

class ManifestSummary : public testing::Test {
protected:
    std::optional<CheckpointSummary> summaryOf(std::string_view text) {
        writeFile(directory_ / "manifest.json", text);
        const UniqueFd fd(::open((directory_ / "manifest.json").c_str(), O_RDONLY | O_CLOEXEC));
        return readManifestSummary(fd.get());
    }

    TemporaryDirectory directory_;
};

TEST(CheckpointManifest, ComesBackFromItsTextAsItWas) {
    const CheckpointManifest manifest = example(3);

    const auto parsed = parseManifest(manifestText(manifest));

    ASSERT_TRUE(parsed);
    EXPECT_EQ(manifestText(*parsed), manifestText(manifest));
    EXPECT_EQ(parsed->files.at(2).path, manifest.files.at(2).path);
    EXPECT_EQ(parsed->files.at(2).sizeBytes, 2U);
    EXPECT_TRUE(parsed->files.at(2).captured);
    EXPECT_FALSE(parsed->files.at(1).captured);
}

TEST(CheckpointManifest, MissingMembersReadAsDefaults) {
    const auto parsed = parseManifest(R"({"files":[{"path":"a","sizeBytes":-1}],"createdAtMs":"x"})");

    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->workspaceId, "");
    EXPECT_EQ(parsed->createdAtMs, 0);
    EXPECT_FALSE(parsed->clipped);
    EXPECT_EQ(parsed->files.at(0).sizeBytes, 0U);
    EXPECT_EQ(parsed->files.at(0).sha256, "");
}

TEST(CheckpointManifest, PathsThatCouldLeadOutOfAWorkspaceMakeItInvalid) {
    for (const char* path : {"", "/", "/etc/passwd", "..", "a/../b", "a/..", ".", "a/.", "./a", "a//b", "a/",
                             "a\\u0000b", ".git", ".git/config"}) {
        const std::string text = std::string(R"({"files":[{"path":")") + path + R"("}]})";
        EXPECT_FALSE(parseManifest(text)) << text;
    }
    for (const char* path : {"...", "a..b/c", ".gitignore", "a/.git/config", ".hidden"}) {
        const std::string text = std::string(R"({"files":[{"path":")") + path + R"("}]})";
        EXPECT_TRUE(parseManifest(text)) << text;
    }
}

TEST(CheckpointManifest, EveryCutOfOneIsNoManifest) {
    const std::string text = manifestText(example(2));
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_FALSE(parseManifest(std::string_view(text).substr(0, length))) << length;
    }
}

TEST(CheckpointManifest, RandomBytesAreEitherRefusedOrReadWithoutHarm) {
    std::mt19937 random(5);
    const std::string valid = manifestText(example(2));
    for (int round = 0; round < 5000; ++round) {
        std::string text = valid;
        for (int change = 0; change < 3; ++change)
            text[random() % text.size()] = static_cast<char>(random() % 256);
        const auto parsed = parseManifest(text);
        if (!parsed) continue;
        for (const auto& file : parsed->files)
            EXPECT_EQ(file.path.find(".."), std::string::npos);
    }
}

TEST_F(ManifestSummary, IsTheSameForShortAndLongLists) {
    for (const std::size_t files : {0U, 1U, 50U, 5000U}) {
        const auto summary = summaryOf(manifestText(example(files)));

        ASSERT_TRUE(summary) << files;
        EXPECT_EQ(summary->workspaceId, "ws_12345678");
        EXPECT_EQ(summary->sortKey, 1700000000123456789);
    }
}

/// Bytes that the calling thread has read so far.
std::uint64_t bytesRead() {
    std::ifstream io("/proc/thread-self/io");
    std::string name;
    std::uint64_t count = 0;
    io >> name >> count;
    EXPECT_EQ(name, "rchar:");
    return count;
}

TEST_F(ManifestSummary, ReadsOnlyTheEndsOfALongManifest) {
    const std::string text = manifestText(example(5000));
    ASSERT_GT(text.size(), 400'000U);
    writeFile(directory_ / "manifest", text);
    const UniqueFd fd(::open((directory_ / "manifest").c_str(), O_RDONLY | O_CLOEXEC));
    const std::uint64_t ownReading = bytesRead();
    const std::uint64_t before = bytesRead();

    const auto summary = readManifestSummary(fd.get());

    const std::uint64_t after = bytesRead();
    ASSERT_TRUE(summary);
    EXPECT_LT(after - before - (before - ownReading), 16'000U);
}

TEST_F(ManifestSummary, IsFoundBehindALabelOfAnyLength) {
    CheckpointManifest manifest = example(200);
    manifest.label = std::string(100'000, 'l') + R"(],"gitHead":"x","workspaceId":"ws_wrong"})";

    EXPECT_EQ(summaryOf(manifestText(manifest)).value().workspaceId, "ws_12345678");
}

TEST_F(ManifestSummary, IsFoundInAManifestThatIsLaidOutOtherwise) {
    const json manifest = json::parse(manifestText(example(300)));

    EXPECT_EQ(summaryOf(dumpJsonPretty(manifest)).value().sortKey, 1700000000123456789);
}

TEST_F(ManifestSummary, UsesTheMillisecondsWithoutNanoseconds) {
    EXPECT_EQ(summaryOf(R"({"files":[],"createdAtMs":5})").value().sortKey, 5'000'000);
    EXPECT_EQ(summaryOf(R"({"files":[],"createdAtMs":5,"createdAtNs":-3})").value().sortKey, 5'000'000);
    EXPECT_EQ(summaryOf(R"({"files":[],"createdAtMs":5,"createdAtNs":1})").value().sortKey, 1);
    EXPECT_EQ(summaryOf(R"({"files":[],"createdAtMs":9223372036854775807})").value().sortKey,
              9'223'372'036'854 * 1'000'000);
}

TEST_F(ManifestSummary, ThereIsNoneForWhatIsNoManifest) {
    for (const char* text : {"", "{", "[]", "{}", R"({"files":1})", R"({"files":[)"}) {
        EXPECT_FALSE(summaryOf(text)) << text;
    }
    const std::string whole = manifestText(example(500));
    for (const std::size_t missing : {1U, 2U, 30U, 100U, 5000U, 20000U}) {
        EXPECT_FALSE(summaryOf(std::string_view(whole).substr(0, whole.size() - missing))) << missing;
    }
}

}  // namespace
}  // namespace qm::test
