#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "device/checkpoint_fixture.h"
#include "support/file_size_limit.h"
#include "support/ordinary_user.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kPartial[] = "部分文件恢复失败，工作区可能处于中间状态；请检查 failedPaths。";
constexpr char kUnrestorable[] = "以下文件的快照内容未被捕获（超预算），无法恢复；整体拒绝以避免部分恢复。";

class CheckpointRestore : public CheckpointTest {
protected:
    json restore(const std::string& id) { return service_.restore(workspace_, id); }

    json success(const std::string& id, int restored, int deleted) {
        return {{"checkpoint", id},
                {"restoredFiles", restored},
                {"deletedFiles", deleted},
                {"verified", true},
                {"partial", false}};
    }
};

TEST_F(CheckpointRestore, BringsBackModifiedAndDeletedFilesAndRemovesAddedOnes) {
    put("modified", "old");
    put("dir/deleted", "gone");
    put("same", "same");
    const Tree before = readTree(workspace_.hostPath);
    const std::string id = checkpoint();
    put("modified", "new");
    fs::remove_all(inWorkspace("dir"));
    put("added", "x");

    EXPECT_EQ(restore(id), success(id, 2, 1));
    EXPECT_EQ(readTree(workspace_.hostPath), before);
}

TEST_F(CheckpointRestore, AnUnchangedWorkspaceStaysUntouched) {
    put("a", "1");
    const std::string id = checkpoint();
    struct stat before {};
    ASSERT_EQ(stat(inWorkspace("a").c_str(), &before), 0);

    EXPECT_EQ(restore(id), success(id, 0, 0));

    struct stat after {};
    ASSERT_EQ(stat(inWorkspace("a").c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

TEST_F(CheckpointRestore, RemovesDirectoriesThatItEmptiesButNeitherOthersNorTheRoot) {
    put("keep/file", "x");
    fs::create_directories(inWorkspace("was/empty"));
    const std::string id = checkpoint();
    put("new/deep/er/file", "x");
    put("keep/new/file", "x");

    EXPECT_EQ(restore(id), success(id, 0, 2));
    EXPECT_FALSE(fs::exists(inWorkspace("new")));
    EXPECT_FALSE(fs::exists(inWorkspace("keep/new")));
    EXPECT_TRUE(fs::exists(inWorkspace("was/empty")));

    fs::remove_all(inWorkspace("keep"));
    fs::remove_all(inWorkspace("was"));
    const std::string empty = checkpoint();
    put("only", "x");
    EXPECT_EQ(restore(empty), success(empty, 0, 1));
    EXPECT_TRUE(fs::is_directory(workspace_.hostPath));
}

TEST_F(CheckpointRestore, TheRepositoryIsNeverTouched) {
    put(".git/index", "a");
    const std::string id = checkpoint();
    put(".git/index", "b");
    put(".git/new", "c");

    EXPECT_EQ(restore(id), success(id, 0, 0));
    EXPECT_EQ(readFile(inWorkspace(".git/index")), "b");
    EXPECT_EQ(readFile(inWorkspace(".git/new")), "c");
}

TEST_F(CheckpointRestore, AFileStandingWhereADirectoryBelongsMakesRoom) {
    put("a/b/c", "content");
    const std::string id = checkpoint();
    fs::remove_all(inWorkspace("a"));
    put("a", "in the way");

    EXPECT_EQ(restore(id), success(id, 1, 1));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"a/b/c", "content"}}));
}

TEST_F(CheckpointRestore, ADirectoryStandingWhereAFileBelongsIsEmptiedAndRemoved) {
    put("a", "content");
    const std::string id = checkpoint();
    fs::remove(inWorkspace("a"));
    put("a/b/c", "in the way");
    put("a/d", "in the way");
    fs::create_directories(inWorkspace("a/empty/deep"));

    EXPECT_EQ(restore(id), success(id, 1, 2));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"a", "content"}}));
}

TEST_F(CheckpointRestore, ADirectoryThatHoldsWhatIsNoFileIsNotRemovedForAFile) {
    put("a", "content");
    put("z", "1");
    const std::string id = checkpoint();
    fs::remove(inWorkspace("a"));
    fs::create_directory(inWorkspace("a"));
    fs::create_symlink("elsewhere", inWorkspace("a/link"));
    put("z", "2");

    const json result = restore(id);

    EXPECT_EQ(result.at("failedPaths"), json::array({"a"}));
    EXPECT_EQ(result.at("error"), kPartial);
    EXPECT_EQ(result.at("verified"), false);
    EXPECT_EQ(result.at("partial"), true);
    EXPECT_EQ(result.at("restoredFiles"), 1);
    EXPECT_TRUE(fs::is_symlink(inWorkspace("a/link")));
    EXPECT_EQ(readFile(inWorkspace("z")), "1");
}

TEST_F(CheckpointRestore, LinksAreReplacedAndNeverFollowed) {
    writeFile(directory_ / "outside/file", "outside");
    put("dir/file", "inside");
    put("plain", "plain");
    const std::string id = checkpoint();
    fs::remove_all(inWorkspace("dir"));
    fs::create_symlink(directory_ / "outside", inWorkspace("dir"));
    fs::remove(inWorkspace("plain"));
    fs::create_symlink(directory_ / "outside/file", inWorkspace("plain"));

    EXPECT_EQ(restore(id), success(id, 2, 0));

    EXPECT_EQ(readTree(directory_ / "outside"), (Tree{{"file", "outside"}}));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"dir/file", "inside"}, {"plain", "plain"}}));
    EXPECT_FALSE(fs::is_symlink(inWorkspace("dir")));
    EXPECT_FALSE(fs::is_symlink(inWorkspace("plain")));
}

TEST_F(CheckpointRestore, ALinkSwappedInMeanwhileNeverLeadsOutside) {
    writeFile(directory_ / "outside/file", "outside");
    for (int count = 0; count < 20; ++count)
        put("dir/file" + std::to_string(count), "inside");
    put("dir/file", "inside");
    const std::string id = checkpoint();
    std::atomic<bool> stop = false;
    std::jthread swapper([&] {
        fs::create_symlink(directory_ / "outside", directory_ / "link");
        while (!stop) {
            renameat2(AT_FDCWD, inWorkspace("dir").c_str(), AT_FDCWD, (directory_ / "link").c_str(), RENAME_EXCHANGE);
        }
    });

    for (int round = 0; round < 100; ++round) {
        const json result = restore(id);
        EXPECT_TRUE(result.contains("restoredFiles")) << dumpJson(result);
    }
    stop = true;
    swapper.join();

    EXPECT_EQ(readTree(directory_ / "outside"), (Tree{{"file", "outside"}}));
}

TEST_F(CheckpointRestore, AnExistingFileKeepsItsModeAndAMissingOneGetsTheDefaults) {
    put("script", "old");
    put("private", "old");
    put("gone", "old");
    const std::string id = checkpoint();
    for (const char* path : {"script", "private"})
        put(path, "new");
    fs::permissions(inWorkspace("script"), fs::perms{0754});
    fs::permissions(inWorkspace("private"), fs::perms{0600});
    fs::remove(inWorkspace("gone"));
    const mode_t previousMask = umask(027);

    EXPECT_EQ(restore(id), success(id, 3, 0));

    umask(previousMask);
    EXPECT_EQ(fs::status(inWorkspace("script")).permissions(), fs::perms{0754});
    EXPECT_EQ(fs::status(inWorkspace("private")).permissions(), fs::perms{0600});
    EXPECT_EQ(fs::status(inWorkspace("gone")).permissions(), fs::perms{0640});
}

TEST_F(CheckpointRestore, AFileRewrittenByTheSuperuserStaysItsOwners) {
    put("theirs", "old");
    const std::string id = checkpoint();
    put("theirs", "new");
    if (geteuid() == 0) {
        ASSERT_EQ(chown(inWorkspace("theirs").c_str(), 65534, 65534), 0);
    }
    struct stat before {};
    ASSERT_EQ(stat(inWorkspace("theirs").c_str(), &before), 0);

    EXPECT_EQ(restore(id), success(id, 1, 0));

    struct stat after {};
    ASSERT_EQ(stat(inWorkspace("theirs").c_str(), &after), 0);
    EXPECT_EQ(after.st_uid, before.st_uid);
    EXPECT_EQ(after.st_gid, before.st_gid);
}

TEST_F(CheckpointRestore, AReaderNeverFindsHalfAFile) {
    const std::string content(3'000'000, 'c');
    put("big", content);
    const std::string id = checkpoint();
    std::atomic<bool> stop = false;
    std::atomic<int> torn = 0;
    const std::string other(2'000'000, 'o');
    put("big", other);
    std::jthread reader([&] {
        while (!stop) {
            const std::string seen = readFile(inWorkspace("big"));
            if (seen != content && seen != other) ++torn;
        }
    });

    for (int round = 0; round < 20; ++round) {
        writeFile(directory_ / "next", other);
        fs::rename(directory_ / "next", inWorkspace("big"));
        EXPECT_EQ(restore(id), success(id, 1, 0));
    }
    stop = true;
    reader.join();

    EXPECT_EQ(torn, 0);
}

TEST_F(CheckpointRestore, FilesWhoseNamesAreNotUtf8AreNeverDeleted) {
    put("a", "1");
    const std::string id = checkpoint();
    put("caf\xe9", "kept");
    put("new/caf\xe9", "kept");
    put("new/plain", "deleted");

    EXPECT_EQ(restore(id), success(id, 0, 1));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"a", "1"}, {"caf\xe9", "kept"}, {"new/caf\xe9", "kept"}}));
}

TEST_F(CheckpointRestore, TheDataDirectoryInsideTheWorkspaceIsLeftAlone) {
    CheckpointService service(inWorkspace(".data"));
    put("a", "1");
    const std::string id = checkpoint(service);
    put("a", "2");
    put(".data/settings", "kept");

    EXPECT_EQ(service.restore(workspace_, id), success(id, 1, 0));
    EXPECT_EQ(readFile(inWorkspace(".data/settings")), "kept");
    EXPECT_EQ(service.diff(workspace_, id).at("changeCount"), 0);
}

TEST_F(CheckpointRestore, NothingIsWrittenIntoADataDirectoryThatCameToLieWhereFilesWere) {
    put("place/settings", "of the workspace");
    const std::string id = checkpoint();
    fs::remove_all(inWorkspace("place"));
    fs::rename(dataDir_, inWorkspace("place"));
    CheckpointService moved(inWorkspace("place"));

    const json result = moved.restore(workspace_, id);

    EXPECT_EQ(result.at("failedPaths"), json::array({"place/settings"}));
    EXPECT_FALSE(fs::exists(inWorkspace("place/settings")));
}

TEST_F(CheckpointRestore, AClippedCheckpointIsRefused) {
    CheckpointService service(dataDir_, {.maxFiles = 1});
    put("a", "1");
    put("b", "1");
    const std::string id = checkpoint(service);
    put("a", "2");

    EXPECT_EQ(restore(id), json({{"error", "该 checkpoint 建立时文件数超上限，快照不完整，拒绝恢复。"}}));
    EXPECT_EQ(readFile(inWorkspace("a")), "2");
}

TEST_F(CheckpointRestore, AWorkspaceThatGrewBeyondTheLimitIsRefused) {
    CheckpointService service(dataDir_, {.maxFiles = 1});
    put("a", "1");
    const std::string id = checkpoint(service);
    put("a", "2");
    put("b", "1");

    EXPECT_EQ(service.restore(workspace_, id),
              json({{"error", "当前工作区文件数超过上限，拒绝恢复以避免遗漏新增文件。"}}));
    EXPECT_EQ(readFile(inWorkspace("a")), "2");
}

TEST_F(CheckpointRestore, AFileThatWasTooBigDoesNoHarmAsLongAsItIsUnchanged) {
    CheckpointService service(dataDir_, {.maxFileBytes = 4});
    put("big", "12345");
    put("small", "1");
    const std::string id = checkpoint(service);
    put("small", "2");

    EXPECT_EQ(service.restore(workspace_, id), success(id, 1, 0));
}

TEST_F(CheckpointRestore, ChangedFilesWithoutContentRefuseTheWholeAndTheFirstFiveAreNamed) {
    CheckpointService service(dataDir_, {.maxFileBytes = 4});
    for (const char* path : {"b1", "b2", "b3", "b4", "b5", "b6"})
        put(path, "12345");
    put("small", "1");
    const std::string id = checkpoint(service);
    for (const char* path : {"b1", "b2", "b3", "b4", "b5", "b6"})
        put(path, "54321");
    put("small", "2");
    put("added", "x");

    EXPECT_EQ(service.restore(workspace_, id),
              json({{"error", kUnrestorable}, {"unrestorable", {"b1", "b2", "b3", "b4", "b5"}}}));
    EXPECT_EQ(readFile(inWorkspace("small")), "2");
    EXPECT_TRUE(fs::exists(inWorkspace("added")));
}

TEST_F(CheckpointRestore, AMissingBlobRefusesTheWhole) {
    put("a", "1");
    const std::string id = checkpoint();
    put("a", "2");
    fs::remove_all(store() / id / "blobs");

    EXPECT_EQ(restore(id), json({{"error", kUnrestorable}, {"unrestorable", {"a"}}}));
}

TEST_F(CheckpointRestore, ADigestThatLeadsOutOfTheStoreIsNoBlob) {
    put("a", "1");
    writeFile(directory_ / "outside", "secret");
    const std::string id = checkpoint();
    put("a", "2");
    json changed = manifest(id);
    changed["files"][0]["sha256"] = "../../../../outside";
    writeFile(store() / id / "manifest.json", dumpJson(changed));

    EXPECT_EQ(restore(id), json({{"error", kUnrestorable}, {"unrestorable", {"a"}}}));
}

TEST_F(CheckpointRestore, ABlobOfAnotherContentLeavesTheFileAsItIs) {
    put("a", "original");
    const std::string id = checkpoint();
    put("a", "changed");
    for (const auto& blob : fs::directory_iterator(store() / id / "blobs"))
        writeFile(blob.path(), "damaged");

    const json result = restore(id);

    EXPECT_EQ(result.at("failedPaths"), json::array({"a"}));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"a", "changed"}}));
}

TEST_F(CheckpointRestore, AFileThatCanBeReadNeitherThenNorNowIsLeftAlone) {
    put("closed", "x");
    put("open", "1");
    fs::permissions(inWorkspace("closed"), fs::perms::none);
    const OrdinaryUser user(directory_.path());
    const std::string id = checkpoint();
    put("open", "2");

    EXPECT_EQ(restore(id), success(id, 1, 0));
}

TEST_F(CheckpointRestore, ADirectoryThatMayNotBeWrittenFailsForItsFilesOnly) {
    put("locked/added-later", "x");
    put("locked/changed", "1");
    fs::remove(inWorkspace("locked/added-later"));
    put("open", "1");
    const std::string id = checkpoint();
    put("locked/added-later", "x");
    put("locked/changed", "2");
    put("open", "2");
    fs::permissions(inWorkspace("locked"), fs::perms{0555});
    const OrdinaryUser user(directory_.path());

    const json result = restore(id);

    EXPECT_EQ(result.at("failedPaths"), json::array({"locked/changed", "locked/added-later"}));
    EXPECT_EQ(result.at("restoredFiles"), 1);
    EXPECT_EQ(result.at("deletedFiles"), 0);
    EXPECT_EQ(readFile(inWorkspace("open")), "1");
    EXPECT_EQ(readFile(inWorkspace("locked/changed")), "2");
}

TEST_F(CheckpointRestore, AWriteThatFailsInTheMiddleIsReportedForThoseFilesOnly) {
    put("big1", std::string(100'000, 'a'));
    put("big2", std::string(300'000, 'a'));
    put("small", "1");
    const std::string id = checkpoint();
    put("big1", "changed");
    fs::remove(inWorkspace("big2"));
    put("small", "2");
    put("added", "x");

    json result;
    {
        const FileSizeLimit limit(50'000);
        result = restore(id);
    }

    EXPECT_EQ(result, json({{"checkpoint", id},
                            {"restoredFiles", 1},
                            {"deletedFiles", 1},
                            {"verified", false},
                            {"partial", true},
                            {"failedPaths", {"big1", "big2"}},
                            {"error", kPartial}}));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"big1", "changed"}, {"small", "1"}}));
    EXPECT_EQ(restore(id), success(id, 2, 0));
}

TEST_F(CheckpointRestore, AVanishedWorkspaceIsAnError) {
    const std::string id = checkpoint();
    fs::remove_all(workspace_.hostPath);

    EXPECT_THAT(stringMember(restore(id), "error"), testing::StartsWith("工作区根目录不可用"));
    EXPECT_THAT(stringMember(service_.diff(workspace_, id), "error"), testing::StartsWith("工作区根目录不可用"));
}

TEST_F(CheckpointRestore, AfterRandomEditsTheTreeIsTheSameByteForByte) {
    std::mt19937 random(99);
    const auto below = [&random](int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(random); };
    const auto path = [&] {
        std::string text;
        for (int depth = below(3); depth >= 0; --depth)
            text += std::string(1, static_cast<char>('a' + below(5))) + "/";
        return text.substr(0, text.size() - 1);
    };
    // Puts a file, whatever stands in its way.
    const auto replace = [&](const std::string& name) {
        for (fs::path parent = fs::path(name).parent_path(); !parent.empty(); parent = parent.parent_path()) {
            if (fs::is_regular_file(inWorkspace(parent.string()))) fs::remove(inWorkspace(parent.string()));
        }
        fs::remove_all(inWorkspace(name));
        std::string content(static_cast<std::size_t>(below(2000)), '\0');
        for (char& byte : content)
            byte = static_cast<char>(below(256));
        put(name, content);
    };

    for (int round = 0; round < 60; ++round) {
        for (int count = 0; count < 12; ++count)
            replace(path());
        const Tree before = readTree(workspace_.hostPath);
        const std::string id = checkpoint();
        for (int edits = 1 + below(15); edits > 0; --edits) {
            if (below(3) == 0) {
                std::error_code notThere;
                fs::remove_all(inWorkspace(path()), notThere);
            } else {
                replace(path());
            }
        }

        const json result = restore(id);

        ASSERT_EQ(result.at("verified"), true) << "round " << round << ": " << dumpJson(result);
        ASSERT_EQ(readTree(workspace_.hostPath), before) << "round " << round;
        ASSERT_EQ(service_.diff(workspace_, id).at("changeCount"), 0);
    }
}

}  // namespace
}  // namespace qm::test
