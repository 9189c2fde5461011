#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "device/checkpoint_fixture.h"
#include "support/file_size_limit.h"
#include "support/ordinary_user.h"
#include "support/run_on_threads.h"
#include "util/sha256.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kOverBudget[] = "部分文件超过内容预算，只记录了指纹；这些文件改动后无法恢复。";

class CheckpointCreate : public CheckpointTest {
protected:
    json create(const std::string& label = "") { return service_.create(workspace_, label); }

    json fileOf(const std::string& id, const std::string& path) const {
        const json whole = manifest(id);
        for (const auto& file : whole.at("files")) {
            if (file.at("path") == path) return file;
        }
        return {};
    }

    std::vector<std::string> pathsOf(const std::string& id) const {
        std::vector<std::string> paths;
        const json whole = manifest(id);
        for (const auto& file : whole.at("files"))
            paths.push_back(file.at("path"));
        return paths;
    }
};

TEST_F(CheckpointCreate, AnEmptyWorkspaceGivesACompleteCheckpointWithoutFiles) {
    const json result = create();

    EXPECT_EQ(result.at("fileCount"), 0);
    EXPECT_EQ(result.at("complete"), true);
    EXPECT_FALSE(result.contains("warning"));
    EXPECT_THAT(stringMember(result, "checkpoint"), testing::MatchesRegex("ck_[0-9a-z]+"));
    EXPECT_EQ(stringMember(result, "checkpoint").size(), 13U);
}

TEST_F(CheckpointCreate, TheManifestHasItsKeysAndIsCompactJson) {
    put("b/x.txt", "hello");
    put(".git/HEAD", "\n ref: refs/heads/main \r\n");
    CheckpointService service(dataDir_, {}, [] { return std::int64_t{1700000000123456789}; });

    const std::string id = stringMember(service.create(workspace_, "标签"), "checkpoint");

    EXPECT_EQ(readFile(store() / id / "manifest.json"),
              R"({"clipped":false,"complete":true,"createdAtMs":1700000000123,"createdAtNs":1700000000123456789,)"
              R"("files":[{"captured":true,"path":"b/x.txt","sha256":")" +
                  sha256Hex("hello") + R"(","sizeBytes":5}],"gitHead":"ref: refs/heads/main","id":")" + id +
                  R"(","label":"标签","workspaceId":"ws_12345678"})");
    EXPECT_EQ(readFile(store() / id / "blobs" / sha256Hex("hello")), "hello");
}

TEST_F(CheckpointCreate, TheStoreIsForTheUsersEyesOnly) {
    put("secret", "s");

    const std::string id = checkpoint();

    for (const auto& path : {store(), store() / id, store() / id / "blobs"}) {
        EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all) << path;
    }
    for (const auto& path : {store() / id / "manifest.json", store() / id / "blobs" / sha256Hex("s")}) {
        EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write) << path;
    }
}

TEST_F(CheckpointCreate, EqualFilesShareABlobWithinACheckpointAndNotBetweenTwo) {
    put("one", "same");
    put("two", "same");

    const std::string first = checkpoint();
    const std::string second = checkpoint();

    for (const auto& id : {first, second}) {
        EXPECT_THAT(pathsOf(id), ElementsAre("one", "two"));
        EXPECT_EQ(std::distance(fs::directory_iterator(store() / id / "blobs"), {}), 1);
        EXPECT_EQ(fs::hard_link_count(store() / id / "blobs" / sha256Hex("same")), 1U);
    }
}

TEST_F(CheckpointCreate, ListsPathsSortedByBytes) {
    for (const char* path : {"a/b", "a-b", "B", "ä", "a.b", "z"})
        put(path, path);

    EXPECT_THAT(pathsOf(checkpoint()), ElementsAre("B", "a-b", "a.b", "a/b", "z", "ä"));
}

TEST_F(CheckpointCreate, WalksHiddenNamesButNotTheRepositoryOfTheRoot) {
    put(".hidden/.env", "x");
    put(".git/config", "x");
    put("sub/.git/config", "x");
    put(".gitignore", "x");

    EXPECT_THAT(pathsOf(checkpoint()), ElementsAre(".gitignore", ".hidden/.env", "sub/.git/config"));
}

TEST_F(CheckpointCreate, AFileNamedLikeTheRepositoryIsLeftOutToo) {
    put(".git", "gitdir: elsewhere");

    const std::string id = checkpoint();

    EXPECT_THAT(pathsOf(id), IsEmpty());
    EXPECT_EQ(manifest(id).at("gitHead"), "");
}

TEST_F(CheckpointCreate, TheGitHeadIsCutTo200Bytes) {
    put(".git/HEAD", "  " + std::string(200, 'h') + "x\n");

    EXPECT_EQ(manifest(checkpoint()).at("gitHead"), std::string(200, 'h'));
}

TEST_F(CheckpointCreate, RecordsNeitherLinksNorWhatLiesBehindThemNorSpecialFiles) {
    writeFile(directory_ / "outside/secret", "s");
    put("real/file", "x");
    fs::create_symlink(directory_ / "outside", inWorkspace("link"));
    fs::create_symlink("real", inWorkspace("inner"));
    fs::create_symlink("real/file", inWorkspace("file-link"));
    fs::create_symlink("nowhere", inWorkspace("dangling"));
    ASSERT_EQ(mkfifo(inWorkspace("pipe").c_str(), 0600), 0);

    const json result = create();

    EXPECT_THAT(pathsOf(result.at("checkpoint")), ElementsAre("real/file"));
    EXPECT_EQ(result.at("complete"), true);
}

TEST_F(CheckpointCreate, LeavesOutNamesThatAreNotUtf8AndSaysThatItIsIncomplete) {
    put("good", "x");
    put("caf\xe9", "x");
    put("d\xff/inner", "x");
    put("\xed\xa0\x80", "a surrogate");

    const json result = create();

    EXPECT_THAT(pathsOf(result.at("checkpoint")), ElementsAre("good"));
    EXPECT_EQ(result.at("fileCount"), 1);
    EXPECT_EQ(result.at("complete"), false);
    EXPECT_EQ(result.at("warning"), kOverBudget);
}

TEST_F(CheckpointCreate, LeavesOutTheDataDirectoryInsideTheWorkspace) {
    put("file", "x");
    put("app/.data/settings", "x");
    CheckpointService service(inWorkspace("app/.data"));

    const json first = service.create(workspace_, "");
    const json second = service.create(workspace_, "");

    EXPECT_EQ(first.at("fileCount"), 1);
    EXPECT_EQ(second.at("fileCount"), 1);
    EXPECT_EQ(second.at("complete"), true);
}

TEST_F(CheckpointCreate, AFileOfTheGreatestSizeIsCapturedAndALongerOneOnlyFingerprinted) {
    put("exact", std::string(4194304, 'a'));
    const json exact = create();
    put("longer", std::string(4194305, 'b'));
    const json longer = create();

    EXPECT_EQ(exact.at("complete"), true);
    EXPECT_EQ(fileOf(exact.at("checkpoint"), "exact").at("captured"), true);
    EXPECT_EQ(longer.at("complete"), false);
    EXPECT_EQ(longer.at("warning"), kOverBudget);
    const json file = fileOf(longer.at("checkpoint"), "longer");
    EXPECT_EQ(file.at("captured"), false);
    EXPECT_EQ(file.at("sizeBytes"), 4194305);
    EXPECT_EQ(file.at("sha256"), sha256Hex(std::string(4194305, 'b')));
    EXPECT_FALSE(fs::exists(store() / stringMember(longer, "checkpoint") / "blobs" / stringMember(file, "sha256")));
}

TEST_F(CheckpointCreate, ContentsOfEverySizeAroundTheReadingBufferAreStoredWhole) {
    for (const std::size_t size : {0U, 1U, 262143U, 262144U, 262145U, 524288U, 1000000U}) {
        std::string content(size, 'x');
        for (std::size_t index = 0; index < size; ++index)
            content[index] = static_cast<char>(index * 7 % 251);
        put("size-" + std::to_string(size), content);
    }

    const std::string id = checkpoint();

    const json whole = manifest(id);
    for (const auto& file : whole.at("files")) {
        const std::string content = readFile(inWorkspace(file.at("path")));
        EXPECT_EQ(file.at("sizeBytes"), content.size());
        EXPECT_EQ(file.at("sha256"), sha256Hex(content));
        EXPECT_EQ(readFile(store() / id / "blobs" / stringMember(file, "sha256")), content);
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(store() / id / "blobs"), {}), 7);
}

TEST_F(CheckpointCreate, TheTotalOfContentsIsLimitedAndSmallerFilesStillFit) {
    CheckpointService service(dataDir_, {.maxTotalBytes = 1000});
    put("a", std::string(600, 'a'));
    put("b", std::string(401, 'b'));
    put("c", std::string(400, 'c'));

    const json result = service.create(workspace_, "");

    const std::string id = result.at("checkpoint");
    EXPECT_EQ(fileOf(id, "a").at("captured"), true);
    EXPECT_EQ(fileOf(id, "b").at("captured"), false);
    EXPECT_EQ(fileOf(id, "c").at("captured"), true);
    EXPECT_EQ(result.at("warning"), kOverBudget);
}

TEST_F(CheckpointCreate, TheRealLimitsAreThoseOfTheProtocol) {
    const CheckpointLimits limits;

    EXPECT_EQ(limits.maxFiles, 5000U);
    EXPECT_EQ(limits.maxFileBytes, 4U * 1024 * 1024);
    EXPECT_EQ(limits.maxTotalBytes, 256U * 1024 * 1024);
    EXPECT_EQ(limits.retained, 8U);
}

TEST_F(CheckpointCreate, TakesAsManyFilesAsTheLimitAndSaysWhenThereAreMore) {
    CheckpointService service(dataDir_, {.maxFiles = 3});
    for (const char* path : {"a", "b/c", "d"})
        put(path, path);
    const json exact = service.create(workspace_, "");
    put("e", "e");
    const json clipped = service.create(workspace_, "");

    EXPECT_EQ(exact.at("complete"), true);
    EXPECT_EQ(clipped.at("fileCount"), 3);
    EXPECT_EQ(clipped.at("complete"), false);
    EXPECT_EQ(clipped.at("warning"), "工作区文件数超过快照上限，快照不完整；未纳入的文件无法 diff/恢复。");
    EXPECT_EQ(manifest(clipped.at("checkpoint")).at("clipped"), true);
}

TEST_F(CheckpointCreate, AFileThatMayNotBeReadMakesItIncomplete) {
    put("open", "x");
    put("closed", "12345");
    fs::permissions(inWorkspace("closed"), fs::perms::none);
    const OrdinaryUser user(directory_.path());

    const json result = create();

    const json file = fileOf(result.at("checkpoint"), "closed");
    EXPECT_EQ(file.at("sha256"), "");
    EXPECT_EQ(file.at("captured"), false);
    EXPECT_EQ(file.at("sizeBytes"), 5);
    EXPECT_EQ(result.at("complete"), false);
    EXPECT_EQ(result.at("fileCount"), 2);
}

TEST_F(CheckpointCreate, SkipsADirectoryThatMayNotBeRead) {
    put("open", "x");
    put("closed/inner", "x");
    fs::permissions(inWorkspace("closed"), fs::perms::none);
    {
        const OrdinaryUser user(directory_.path());

        EXPECT_THAT(pathsOf(checkpoint()), ElementsAre("open"));
    }
    fs::permissions(inWorkspace("closed"), fs::perms::owner_all);
}

TEST_F(CheckpointCreate, AStoreThatCanNotBeMadeIsAnError) {
    writeFile(dataDir_ / "checkpoints", "a file");

    EXPECT_EQ(create(), json({{"error", "无法创建 checkpoint 存储目录"}}));

    CheckpointService below(dataDir_ / "checkpoints/deeper");
    EXPECT_EQ(below.create(workspace_, ""), json({{"error", "无法创建 checkpoint 存储目录"}}));
}

TEST_F(CheckpointCreate, ABlobThatCanNotBeWrittenFailsTheCreationWithoutATrace) {
    put("a", "small");
    put("big", std::string(400'000, 'x'));
    const std::string first = checkpoint();

    for (const std::size_t limit : {std::size_t{100'000}, std::size_t{300'000}}) {
        const FileSizeLimit full(limit);
        EXPECT_EQ(service_.create(workspace_, ""), json({{"error", "无法写入 checkpoint 内容"}}));
    }

    EXPECT_THAT(stored(), ElementsAre(first));
    EXPECT_EQ(service_.create(workspace_, "").at("complete"), true);
}

TEST_F(CheckpointCreate, AManifestThatCanNotBeWrittenFailsTheCreationWithoutATrace) {
    for (int count = 0; count < 200; ++count)
        put("file" + std::to_string(count), "x");
    json result;
    {
        const FileSizeLimit full(10'000);
        result = service_.create(workspace_, "");
    }

    EXPECT_EQ(result, json({{"error", "无法写入 checkpoint 清单"}}));
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(CheckpointCreate, AVanishedWorkspaceIsAnErrorThatLeavesNothingBehindAndLetsTheNextCallIn) {
    checkpoint();
    fs::remove_all(workspace_.hostPath);

    const json result = create();

    EXPECT_THAT(stringMember(result, "error"), testing::StartsWith("工作区根目录不可用"));
    EXPECT_THAT(stored(), SizeIs(1));
    fs::create_directory(workspace_.hostPath);
    EXPECT_EQ(create().at("complete"), true);
}

TEST_F(CheckpointCreate, TheNinthCheckpointRemovesTheOldestOfItsWorkspaceOnly) {
    Workspace other = workspace_;
    other.id = "ws_other";
    const std::string foreign = stringMember(service_.create(other, ""), "checkpoint");
    writeFile(store() / "ck_damaged00/manifest.json", "{");
    std::vector<std::string> own(8);
    for (auto& id : own)
        id = checkpoint();
    EXPECT_THAT(stored(), SizeIs(10));

    own.push_back(checkpoint());

    EXPECT_FALSE(fs::exists(store() / own.front()));
    own.erase(own.begin());
    own.push_back(foreign);
    own.emplace_back("ck_damaged00");
    EXPECT_THAT(stored(), testing::UnorderedElementsAreArray(own));
}

TEST_F(CheckpointCreate, PruningSparesTheCheckpointJustMadeWhenTheClockSteppedBack) {
    std::int64_t now = 1'000'000'000'000;
    CheckpointService service(dataDir_, {}, [&now] { return now; });
    std::vector<std::string> ids;
    for (int count = 0; count < 8; ++count) {
        now += 1000;
        ids.push_back(checkpoint(service));
    }
    now = 5;

    const std::string newest = checkpoint(service);

    EXPECT_TRUE(fs::exists(store() / newest / "manifest.json"));
    EXPECT_FALSE(fs::exists(store() / ids.front()));
    EXPECT_THAT(stored(), SizeIs(8));
}

TEST_F(CheckpointCreate, OrdersManifestsWithoutNanosecondsByTheirMilliseconds) {
    std::int64_t now = 2'000'000'000'000'000'000;
    CheckpointService service(dataDir_, {.retained = 2}, [&now] { return ++now; });
    const std::string first = checkpoint(service);
    json older = manifest(first);
    older["createdAtNs"] = 0;
    older["createdAtMs"] = 2'000'000'000'001;
    writeFile(store() / first / "manifest.json", dumpJson(older));
    const std::string second = checkpoint(service);

    const std::string third = checkpoint(service);

    EXPECT_THAT(stored(), testing::UnorderedElementsAre(first, third));
    EXPECT_FALSE(fs::exists(store() / second));
}

TEST_F(CheckpointCreate, AFileThatChangesMeanwhileIsStoredAsItWasRead) {
    std::atomic<bool> stop = false;
    put("busy", std::string(300000, 'a'));
    std::thread writer([&] {
        for (unsigned round = 0; !stop; ++round) {
            const std::string content(200000 + (round * 37) % 300000, static_cast<char>('a' + round % 26));
            writeFile(inWorkspace("busy"), content);
        }
    });

    for (int round = 0; round < 60; ++round) {
        const std::string id = checkpoint();
        const json file = fileOf(id, "busy");
        const std::string blob = readFile(store() / id / "blobs" / stringMember(file, "sha256"));
        EXPECT_EQ(file.at("sizeBytes"), blob.size());
        EXPECT_EQ(file.at("sha256"), sha256Hex(blob));
    }
    stop = true;
    writer.join();
}

TEST_F(CheckpointCreate, ManyThreadsAreServedOneAfterTheOther) {
    put("file", "x");
    std::atomic<int> failures = 0;
    runOnThreads(8, [&](std::size_t number) {
        Workspace own = workspace_;
        own.id = "ws_" + std::to_string(number % 2);
        for (int round = 0; round < 5; ++round) {
            const json created = service_.create(own, "");
            if (created.contains("error") || service_.diff(own, "").contains("error")) ++failures;
        }
    });

    EXPECT_EQ(failures, 0);
    EXPECT_THAT(stored(), SizeIs(16));
}

}  // namespace
}  // namespace qm::test
