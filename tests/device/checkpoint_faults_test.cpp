// Checkpoints where the system refuses something, where a restore was killed, and where the root is reached in a
// roundabout way.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <functional>
#include <system_error>

#include "device/checkpoint_fixture.h"
#include "device/checkpoint_restore.h"
#include "device/refused_system_calls.h"
#include "support/ordinary_user.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class CheckpointFaults : public CheckpointTest {
protected:
    /// What `operation` gives on a thread on which every opening fails with `error`.
    static json whileOpeningFails(int error, const std::function<json()>& operation) {
        json result;
        withRefusedCalls({{SYS_openat, error}, {SYS_openat2, error}}, [&] { result = operation(); });
        return result;
    }

    CheckpointManifest manifestOf(const std::string& id) const {
        return parseManifest(readFile(store() / id / "manifest.json")).value();
    }

    std::vector<std::string> walkedFiles() const {
        return CheckpointTree(workspace_.hostPath, std::nullopt).walk(5000).files;
    }
};

TEST_F(CheckpointFaults, AFileIsMissingOnlyIfTheSystemSaysSo) {
    put("file", "12345");
    const CheckpointTree tree(workspace_.hostPath, std::nullopt);
    for (const int error : {ENOENT, ENOTDIR, ELOOP, EXDEV}) {
        withRefusedCalls({{SYS_openat2, error}}, [&] {
            EXPECT_TRUE(tree.openFile("file").missing) << error;
            EXPECT_TRUE(tree.openUncertain("file").missing) << error;
        });
    }
    for (const int error : {EACCES, EIO, ENAMETOOLONG, ETXTBSY, EINVAL}) {
        withRefusedCalls({{SYS_openat2, error}}, [&] {
            const auto listed = tree.openFile("file");
            const auto uncertain = tree.openUncertain("file");
            EXPECT_FALSE(listed.missing || uncertain.missing) << error;
            EXPECT_FALSE(listed.fd || uncertain.fd) << error;
        });
    }
    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        withRefusedCalls({{SYS_openat2, error}}, [&] {
            EXPECT_THROW(tree.openFile("file"), std::system_error) << error;
            EXPECT_THROW(tree.openUncertain("file"), std::system_error) << error;
        });
    }
}

TEST_F(CheckpointFaults, AStoreThatCanNotBeOpenedForLackOfDescriptorsIsNotTakenForEmpty) {
    put("file", "x");
    const std::string id = checkpoint();
    put("file", "y");

    for (const int error : {EMFILE, ENFILE, ENOMEM}) {
        for (const std::string& asked : {id, std::string()}) {
            EXPECT_THAT(
                stringMember(whileOpeningFails(error, [&] { return service_.diff(workspace_, asked); }), "error"),
                testing::StartsWith("cannot open a checkpoint"));
        }
        EXPECT_THAT(stringMember(whileOpeningFails(error, [&] { return service_.restore(workspace_, id); }), "error"),
                    testing::StartsWith("cannot open a checkpoint"));
    }
    EXPECT_EQ(readFile(inWorkspace("file")), "y");
}

TEST_F(CheckpointFaults, BlobsThatCanNotBeOpenedForLackOfDescriptorsAreNotTakenForLost) {
    put("file", "x");
    const std::string id = checkpoint();
    const CheckpointStore store(dataDir_ / "checkpoints");
    const CheckpointBlobs blobs = store.blobs(id);
    const std::string digest = manifestOf(id).files.at(0).sha256;

    withRefusedCalls({{SYS_openat, EMFILE}}, [&] {
        EXPECT_THROW(store.blobs(id), std::system_error);
        EXPECT_THROW(blobs.open(digest), std::system_error);
    });
    withRefusedCalls({{SYS_openat, EACCES}}, [&] { EXPECT_FALSE(blobs.open(digest)); });
    EXPECT_TRUE(blobs.open(digest));
}

TEST_F(CheckpointFaults, AShortageInTheMiddleOfARestoreIsReportedForTheFilesThatItHit) {
    put("one", "1");
    put("two", "2");
    const std::string id = checkpoint();
    put("one", "changed");
    put("two", "changed");
    const CheckpointManifest manifest = manifestOf(id);
    const CheckpointTree tree(workspace_.hostPath, std::nullopt);
    std::array<char, 4096> buffer{};
    const RestorePlan plan = planRestore(tree, tree.walk(10), manifest, buffer);
    const CheckpointBlobs blobs = CheckpointStore(store()).blobs(id);

    RestoreOutcome outcome;
    withRefusedCalls({{SYS_openat, EMFILE}}, [&] { outcome = carryOutRestore(tree, plan, blobs, buffer); });

    EXPECT_THAT(outcome.failedPaths, ElementsAre("one", "two"));
    EXPECT_EQ(outcome.restoredFiles, 0U);
    EXPECT_EQ(readFile(inWorkspace("one")), "changed");
    EXPECT_THAT(walkedFiles(), ElementsAre("one", "two"));
}

TEST_F(CheckpointFaults, AFileThatIsFoundFullOnlyWhenItIsClosedIsReportedAndTheOldOneStays) {
    put("file", "old");
    const std::string id = checkpoint();
    put("file", "new");

    json result;
    withRefusedCalls({{SYS_close, ENOSPC}}, [&] { result = service_.restore(workspace_, id); });

    EXPECT_EQ(result.at("failedPaths"), json::array({"file"}));
    EXPECT_EQ(result.at("verified"), false);
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"file", "new"}}));
}

TEST_F(CheckpointFaults, ACloseThatASignalInterruptsHasClosed) {
    put("file", "old");
    const std::string id = checkpoint();
    put("file", "new");

    json created;
    json restored;
    withRefusedCalls({{SYS_close, EINTR}}, [&] {
        created = service_.create(workspace_, "");
        restored = service_.restore(workspace_, id);
    });

    EXPECT_EQ(created.at("complete"), true) << dumpJson(created);
    EXPECT_EQ(restored.at("verified"), true) << dumpJson(restored);
}

TEST_F(CheckpointFaults, AFileBeyondTheLongestPathIsUnreadableAndLeftAlone) {
    const std::string name(250, 'd');
    std::string path;
    UniqueFd directory(::open(workspace_.hostPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int depth = 0; depth < 16; ++depth) {
        ASSERT_EQ(mkdirat(directory.get(), name.c_str(), 0700), 0);
        directory = UniqueFd(::openat(directory.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        path += name + "/";
    }
    const std::string file(100, 'f');
    ASSERT_GT(path.size() + file.size(), 4095U);
    ASSERT_TRUE(UniqueFd(::openat(directory.get(), file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)));
    put("short", "1");

    const json created = service_.create(workspace_, "");
    put("short", "2");
    const std::string id = created.at("checkpoint");

    EXPECT_EQ(created.at("complete"), false);
    EXPECT_EQ(created.at("fileCount"), 2);
    EXPECT_EQ(changeOf(service_.diff(workspace_, id), path + file).at("status"), "modified");
    EXPECT_EQ(service_.restore(workspace_, id).at("verified"), true);
    EXPECT_EQ(readFile(inWorkspace("short")), "1");
    EXPECT_EQ(::faccessat(directory.get(), file.c_str(), F_OK, 0), 0);
}

TEST_F(CheckpointFaults, APipeInThePlaceOfAFileIsReplacedWithoutBeingOpened) {
    put("file", "x");
    const std::string id = checkpoint();
    fs::remove(inWorkspace("file"));
    ASSERT_EQ(mkfifo(inWorkspace("file").c_str(), 0600), 0);
    const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.get(), inWorkspace("file").c_str(), IN_OPEN), 0);

    const json shown = service_.diff(workspace_, id);
    const json restored = service_.restore(workspace_, id);

    std::array<char, 4096> events{};
    EXPECT_EQ(read(watch.get(), events.data(), events.size()) > 0 &&
                  (reinterpret_cast<const inotify_event*>(events.data())->mask & IN_OPEN) != 0,
              false);
    EXPECT_EQ(changeOf(shown, "file").at("status"), "deleted");
    EXPECT_EQ(restored.at("verified"), true);
    EXPECT_EQ(readFile(inWorkspace("file")), "x");
}

TEST_F(CheckpointFaults, AFileThatSomebodyElseDeletedMeanwhileIsDeleted) {
    put("kept", "x");
    const std::string id = checkpoint();
    put("added", "x");
    put("dir/added", "x");
    const CheckpointManifest manifest = manifestOf(id);
    const CheckpointTree tree(workspace_.hostPath, std::nullopt);
    std::array<char, 4096> buffer{};
    const RestorePlan plan = planRestore(tree, tree.walk(10), manifest, buffer);
    EXPECT_THAT(plan.toDelete, ElementsAre("added", "dir/added"));
    fs::remove(inWorkspace("added"));
    fs::remove_all(inWorkspace("dir"));

    const auto outcome = carryOutRestore(tree, plan, CheckpointStore(store()).blobs(id), buffer);

    EXPECT_TRUE(outcome.failedPaths.empty());
    EXPECT_EQ(outcome.deletedFiles, 0U);
}

TEST_F(CheckpointFaults, WhatAKilledRestoreLeftIsNoFileAndTheNextRestoreRemovesIt) {
    CheckpointService service(dataDir_, {.maxFiles = 3});
    put("a", "1");
    put("dir/b", "2");
    put("dir/c", "3");
    put(".restoring-0123456789ab", "half");
    put("dir/.restoring-abcdefghijkl", "half");
    put("gone/.restoring-000000000000", "half");

    const json created = service.create(workspace_, "");
    const std::string id = created.at("checkpoint");
    const json shown = service.diff(workspace_, id);
    const json restored = service.restore(workspace_, id);

    EXPECT_EQ(created.at("fileCount"), 3);
    EXPECT_EQ(created.at("complete"), true);
    EXPECT_EQ(shown.at("changeCount"), 0);
    EXPECT_EQ(
        restored,
        json({{"checkpoint", id}, {"restoredFiles", 0}, {"deletedFiles", 0}, {"verified", true}, {"partial", false}}));
    EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"a", "1"}, {"dir/b", "2"}, {"dir/c", "3"}}));
    EXPECT_FALSE(fs::exists(inWorkspace("gone")));
}

TEST_F(CheckpointFaults, OnlyTheExactFormOfALeftoverIsOne) {
    for (const char* name : {".restoring-0123456789a", ".restoring-0123456789abc", ".restoring-0123456789aB",
                             "restoring-0123456789ab0", ".restoring-", ".restoring-0123456789a."})
        put(name, "mine");
    fs::create_directory(inWorkspace(".restoring-dir000000000"));
    put(".restoring-dirdirdirdir/file", "mine");
    fs::create_symlink("nowhere", inWorkspace(".restoring-linklinklink"));
    const Tree before = readTree(workspace_.hostPath);

    const std::string id = checkpoint();
    EXPECT_EQ(service_.restore(workspace_, id).at("verified"), true);

    EXPECT_EQ(manifest(id).at("files").size(), before.size());
    EXPECT_EQ(readTree(workspace_.hostPath), before);
    EXPECT_TRUE(fs::is_symlink(inWorkspace(".restoring-linklinklink")));
}

TEST_F(CheckpointFaults, ACheckpointThatIsRemovedHalfIsNoneAnyMore) {
    put("file", "x");
    const std::string id = checkpoint();
    // Enough that can't be removed for the removal to end before it comes to the manifest in the order of the listing.
    for (int count = 0; count < 30; ++count)
        writeFile(store() / id / std::to_string(count) / "file", "x");
    {
        const OrdinaryUser user(directory_.path());
        for (const auto& entry : fs::directory_iterator(store() / id)) {
            if (entry.is_directory()) fs::permissions(entry, fs::perms::none);
        }

        CheckpointStore(store()).remove(id);

        EXPECT_TRUE(fs::exists(store() / id / "blobs"));
        EXPECT_TRUE(CheckpointStore(store()).idsOfWorkspace(workspace_.id).empty());
    }
    EXPECT_THAT(stringMember(service_.diff(workspace_, id), "error"), HasSubstr("不存在或已被清理"));
    for (const auto& entry : fs::directory_iterator(store() / id))
        fs::permissions(entry, fs::perms::owner_all);
}

TEST_F(CheckpointFaults, AMissingBlobLeavesAChangeWithoutItsDiffAndWithoutAMark) {
    put("file", "before\n");
    const std::string id = checkpoint();
    fs::remove(store() / id / "blobs" / manifestOf(id).files.at(0).sha256);
    put("file", "after\n");

    const json shown = service_.diff(workspace_, id);

    EXPECT_EQ(changeOf(shown, "file"),
              json({{"path", "file"}, {"status", "modified"}, {"beforeSizeBytes", 7}, {"afterSizeBytes", 6}}));
    EXPECT_EQ(shown.at("diffTruncated"), false);
}

TEST_F(CheckpointFaults, ARootThatIsReachedThroughLinksIsAWorkspaceLikeAnother) {
    put("file", "1\n");
    fs::create_directory_symlink(directory_.path(), directory_ / "link");
    const fs::path before = fs::current_path();
    fs::current_path(directory_.path());
    for (const fs::path& root :
         {directory_ / "link/work", directory_ / "link/work/../link/./work/", fs::path("link/work")}) {
        Workspace linked = workspace_;
        linked.hostPath = root;
        put("file", "1\n");

        const json created = service_.create(linked, "");
        ASSERT_FALSE(created.contains("error")) << root << dumpJson(created);
        put("file", "2\n");
        put("new", "x");

        EXPECT_EQ(service_.diff(linked, "").at("changeCount"), 2) << root;
        EXPECT_EQ(service_.restore(linked, created.at("checkpoint")).at("verified"), true) << root;
        EXPECT_EQ(readTree(workspace_.hostPath), (Tree{{"file", "1\n"}})) << root;
    }
    fs::current_path(before);
}

TEST_F(CheckpointFaults, ARootThatLeadsNowhereIsAnError) {
    fs::create_directory_symlink("loop", directory_ / "loop");
    fs::create_directory_symlink("nowhere", directory_ / "dangling");
    for (const fs::path& root : {directory_ / "loop", directory_ / "dangling", directory_ / "none", fs::path()}) {
        Workspace broken = workspace_;
        broken.hostPath = root;

        EXPECT_THAT(stringMember(service_.create(broken, ""), "error"), testing::StartsWith("工作区根目录不可用"))
            << root;
    }
    EXPECT_TRUE(stored().empty());
}

}  // namespace
}  // namespace qm::test
