#include <gmock/gmock.h>

#include "device/checkpoint_fixture.h"
#include "support/ordinary_user.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class CheckpointDiffResult : public CheckpointTest {
protected:
    json diff(const std::string& id = "") { return service_.diff(workspace_, id); }

    static std::string numbered(int lines, const std::string& text) {
        std::string content;
        for (int line = 0; line < lines; ++line)
            content += text + std::to_string(line) + "\n";
        return content;
    }
};

TEST_F(CheckpointDiffResult, AnUnchangedWorkspaceHasNoChanges) {
    put("a", "1\n");
    CheckpointService service(dataDir_, {}, [] { return std::int64_t{1'700'000'000'123'000'000}; });
    const std::string id = checkpoint(service);

    EXPECT_EQ(service.diff(workspace_, id), json({{"checkpoint", id},
                                                  {"createdAtMs", 1700000000123},
                                                  {"complete", true},
                                                  {"changes", json::array()},
                                                  {"changeCount", 0},
                                                  {"listTruncated", false},
                                                  {"diffTruncated", false}}));
}

TEST_F(CheckpointDiffResult, ShowsAddedModifiedAndDeletedFiles) {
    put("deleted", "1234");
    put("modified", "old\n");
    put("same", "same");
    const std::string id = checkpoint();
    fs::remove(inWorkspace("deleted"));
    put("modified", "newer\n");
    put("dir/added", "123456");

    const json result = diff(id);

    const json expected = json::array({{{"path", "dir/added"}, {"status", "added"}, {"afterSizeBytes", 6}},
                                       {{"path", "modified"},
                                        {"status", "modified"},
                                        {"beforeSizeBytes", 4},
                                        {"afterSizeBytes", 6},
                                        {"diff", "--- a/modified\n+++ b/modified\n@@ -1,1 +1,1 @@\n-old\n+newer\n"}},
                                       {{"path", "deleted"}, {"status", "deleted"}, {"beforeSizeBytes", 4}}});
    EXPECT_EQ(result.at("changes"), expected);
    EXPECT_EQ(result.at("changeCount"), 3);
}

TEST_F(CheckpointDiffResult, WithoutAnIdTheNewestCheckpointOfTheWorkspaceCounts) {
    put("a", "1");
    checkpoint();
    put("a", "2");
    const std::string newest = checkpoint();
    Workspace other = workspace_;
    other.id = "ws_other";
    service_.create(other, "");

    EXPECT_EQ(diff().at("checkpoint"), newest);
    EXPECT_EQ(diff().at("changeCount"), 0);
}

TEST_F(CheckpointDiffResult, ADamagedNewestManifestIsPassedOverForTheNextOne) {
    put("a", "1");
    const std::string older = checkpoint();
    const std::string newest = checkpoint();
    writeFile(store() / newest / "manifest.json", R"({"workspaceId":"ws_12345678","createdAtNs":9e3,"files":)");

    EXPECT_EQ(diff().at("checkpoint"), older);
}

TEST_F(CheckpointDiffResult, AWorkspaceWithoutCheckpointsSaysSo) {
    EXPECT_EQ(diff(), json({{"error", "该工作区还没有 checkpoint，请先调用 create_checkpoint。"}}));
}

TEST_F(CheckpointDiffResult, IdsThatLeadElsewhereAreInvalid) {
    for (const char* id : {"ck", "x", "ck_../x", "ck_a/b", "ck_a\\b", "ck_..", "../ck_", "CK_abc"}) {
        EXPECT_EQ(diff(id), json({{"error", "无效的 checkpoint id"}})) << id;
        EXPECT_EQ(service_.restore(workspace_, id), json({{"error", "无效的 checkpoint id"}})) << id;
    }
}

TEST_F(CheckpointDiffResult, AnUnknownIdSaysThatTheCheckpointIsGone) {
    EXPECT_EQ(diff("ck_"), json({{"error", "checkpoint 不存在或已被清理：ck_"}}));
    EXPECT_EQ(diff("ck_0123456789"), json({{"error", "checkpoint 不存在或已被清理：ck_0123456789"}}));
    const std::string cut = checkpoint() + std::string("\0x", 2);
    EXPECT_EQ(diff(cut), json({{"error", "checkpoint 不存在或已被清理：" + cut}}));
}

TEST_F(CheckpointDiffResult, ADamagedManifestSaysSo) {
    const std::string id = checkpoint();
    for (const char* text : {"", "{", "[]", "null", "{}", R"({"files":{}})", R"({"files":[{"path":"../x"}]})"}) {
        writeFile(store() / id / "manifest.json", text);

        EXPECT_EQ(diff(id), json({{"error", "checkpoint 清单损坏：" + id}})) << text;
    }
}

TEST_F(CheckpointDiffResult, ACheckpointOfAnotherWorkspaceIsRefused) {
    const std::string id = checkpoint();
    Workspace other = workspace_;
    other.id = "ws_other";

    EXPECT_EQ(service_.diff(other, id), json({{"error", "checkpoint 不属于该 workspace"}}));
    EXPECT_EQ(service_.restore(other, id), json({{"error", "checkpoint 不属于该 workspace"}}));
}

TEST_F(CheckpointDiffResult, AChangedBinaryFileHasNoDiffAndNoMark) {
    put("binary", std::string("a\0b", 3));
    checkpoint();
    put("binary", std::string("a\0c", 3));

    const json result = diff();

    EXPECT_EQ(changeOf(result, "binary").at("status"), "modified");
    EXPECT_FALSE(changeOf(result, "binary").contains("diff"));
    EXPECT_EQ(result.at("diffTruncated"), false);
}

TEST_F(CheckpointDiffResult, AFileThatWasTooBigToCaptureIsStillCompared) {
    CheckpointService service(dataDir_, {.maxFileBytes = 10});
    put("same", "01234567890");
    put("other", "01234567890");
    checkpoint(service);
    put("other", "0123456789x");

    const json result = service.diff(workspace_, "");

    EXPECT_EQ(result.at("changeCount"), 1);
    EXPECT_FALSE(changeOf(result, "other").contains("diff"));
    EXPECT_EQ(result.at("complete"), false);
}

TEST_F(CheckpointDiffResult, TheDigestIsComparedWithoutRegardToCase) {
    put("a", "1");
    const std::string id = checkpoint();
    json changed = manifest(id);
    std::string digest = changed["files"][0]["sha256"];
    std::transform(digest.begin(), digest.end(), digest.begin(), [](unsigned char c) { return std::toupper(c); });
    changed["files"][0]["sha256"] = digest;
    writeFile(store() / id / "manifest.json", dumpJson(changed));

    EXPECT_EQ(diff(id).at("changeCount"), 0);
}

TEST_F(CheckpointDiffResult, AFileThatCouldNotBeReadIsModifiedWhateverItHolds) {
    put("a", "1");
    const std::string id = checkpoint();
    json changed = manifest(id);
    changed["files"][0]["sha256"] = "";
    changed["files"][0]["captured"] = false;
    writeFile(store() / id / "manifest.json", dumpJson(changed));

    EXPECT_EQ(changeOf(diff(id), "a").at("status"), "modified");
}

TEST_F(CheckpointDiffResult, AFileThatMayNoLongerBeReadIsModified) {
    put("a", "12\n");
    checkpoint();
    fs::permissions(inWorkspace("a"), fs::perms::none);
    const OrdinaryUser user(directory_.path());

    const json change = changeOf(diff(), "a");

    EXPECT_EQ(change, json({{"path", "a"}, {"status", "modified"}, {"beforeSizeBytes", 3}, {"afterSizeBytes", 3}}));
}

TEST_F(CheckpointDiffResult, ADiffWithBytesThatAreNotUtf8CanStillBeStoredAsJson) {
    put("latin", "caf\xe9\n");
    checkpoint();
    put("latin", "th\xe9\n");

    const json result = diff();

    EXPECT_THAT(stringMember(changeOf(result, "latin"), "diff"), HasSubstr("-caf\xEF\xBF\xBD\n+th\xEF\xBF\xBD\n"));
    EXPECT_NO_THROW(result.dump());
}

TEST_F(CheckpointDiffResult, ListsFiveHundredChangesAndCountsAll) {
    for (int count = 0; count < 500; ++count)
        put("f" + std::to_string(count), "x");
    const std::string full = checkpoint();
    fs::remove_all(workspace_.hostPath);
    fs::create_directory(workspace_.hostPath);
    const json exact = diff(full);
    put("added", "x");
    const json beyond = diff(full);

    EXPECT_EQ(exact.at("changes").size(), 500U);
    EXPECT_EQ(exact.at("changeCount"), 500);
    EXPECT_EQ(exact.at("listTruncated"), false);
    EXPECT_EQ(beyond.at("changes").size(), 500U);
    EXPECT_EQ(beyond.at("changeCount"), 501);
    EXPECT_EQ(beyond.at("listTruncated"), true);
}

TEST_F(CheckpointDiffResult, DiffsBeyondTheBudgetAreLeftOutAndMarked) {
    // Each diff takes about 12 kB, so four fit into 49152 bytes and later small ones still do.
    for (const char* path : {"a", "b", "c", "d", "e"})
        put(path, "x\n");
    put("f", "x\n");
    checkpoint();
    for (const char* path : {"a", "b", "c", "d", "e"})
        put(path, numbered(1000, "some text "));
    put("f", "y\n");

    const json result = diff();

    for (const char* path : {"a", "b", "c", "f"})
        EXPECT_TRUE(changeOf(result, path).contains("diff")) << path;
    EXPECT_FALSE(changeOf(result, "e").contains("diff"));
    EXPECT_EQ(result.at("diffTruncated"), true);
    std::size_t total = 0;
    for (const auto& change : result.at("changes"))
        total += stringMember(change, "diff").size();
    EXPECT_LE(total, 49152U);
}

TEST_F(CheckpointDiffResult, ADiffThatFillsTheBudgetToTheByteIsTakenAndOneByteMoreIsNot) {
    // One line of the length that makes the diff as long as the budget; long lines are never cut.
    const std::string frame = "--- a/a\n+++ b/a\n@@ -0,0 +1,1 @@\n+\n[diff truncated]\n";
    put("a", "");
    checkpoint();
    put("a", std::string(49152 - frame.size(), 'x'));
    const json exact = diff();
    put("a", std::string(49152 - frame.size() + 1, 'x'));
    const json beyond = diff();

    EXPECT_EQ(stringMember(changeOf(exact, "a"), "diff").size(), 49152U);
    EXPECT_EQ(exact.at("diffTruncated"), false);
    EXPECT_FALSE(changeOf(beyond, "a").contains("diff"));
    EXPECT_EQ(beyond.at("diffTruncated"), true);
}

TEST_F(CheckpointDiffResult, AUsedUpBudgetLeavesDiffsOutWithoutAMark) {
    const std::string frame = "--- a/a\n+++ b/a\n@@ -0,0 +1,1 @@\n+\n[diff truncated]\n";
    put("a", "");
    put("b", "x");
    checkpoint();
    put("a", std::string(49152 - frame.size(), 'x'));
    put("b", "y");

    const json result = diff();

    EXPECT_FALSE(changeOf(result, "b").contains("diff"));
    EXPECT_EQ(result.at("diffTruncated"), false);
}

TEST_F(CheckpointDiffResult, ATextOf262144BytesHasADiffAndALongerOneNone) {
    put("exact", std::string(262140, 'x') + "\nab\n");
    put("longer", std::string(262140, 'x') + "\nabc\n");
    checkpoint();
    put("exact", "x");
    put("longer", "x");

    const json result = diff();

    // Both diffs would be over the budget, but only that of the shorter text is made at all.
    EXPECT_EQ(result.at("diffTruncated"), true);
    put("exact", std::string(262140, 'x') + "\nab\n");
    EXPECT_EQ(diff().at("changeCount"), 1);
    EXPECT_EQ(diff().at("diffTruncated"), false);
}

TEST_F(CheckpointDiffResult, AChangeInTheRepositoryIsNeverSeen) {
    put(".git/HEAD", "a");
    put(".git/index", "a");
    checkpoint();
    put(".git/index", "b");
    fs::remove(inWorkspace(".git/HEAD"));

    EXPECT_EQ(diff().at("changeCount"), 0);
}

TEST_F(CheckpointDiffResult, AFileReplacedByALinkIsDeleted) {
    put("a", "1");
    checkpoint();
    fs::remove(inWorkspace("a"));
    fs::create_symlink("elsewhere", inWorkspace("a"));

    EXPECT_EQ(changeOf(diff(), "a").at("status"), "deleted");
}

}  // namespace
}  // namespace qm::test
