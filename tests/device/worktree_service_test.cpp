#include "device/worktree_service.h"

#include <gmock/gmock.h>

#include "device/worktree_fixture.h"
#include "support/run_on_threads.h"
#include "util/json.h"
#include "util/log.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class Worktrees : public WorktreeTest {
protected:
    json savedTable() { return json::parse(readFile(dataDir_ / "worktrees.json")); }
};

TEST_F(Worktrees, ATreeIsADirectoryABranchAndAWorkspaceOfItsOwn) {
    std::int64_t now = 1'700'000'000'000;
    WorktreeService service(dataDir_, workspaces_, {}, [&now] { return now; });

    const auto result = service.create(source_, "agent 7", 5000);

    ASSERT_TRUE(result.ok) << result.error;
    const WorktreeRecord& tree = result.record;
    EXPECT_THAT(tree.id, testing::MatchesRegex("wt_[0-9a-z]+"));
    EXPECT_EQ(tree.id.size(), 11U);
    EXPECT_EQ(tree.branch, "quillmarsh/" + tree.id);
    EXPECT_EQ(tree.path, (trees() / tree.id).string());
    EXPECT_EQ(tree.owner, "agent 7");
    EXPECT_EQ(tree.sourceWorkspace, source_);
    EXPECT_EQ(tree.createdAtMs, now);
    EXPECT_EQ(tree.expiresAtMs, now + 5000);
    EXPECT_EQ(readFile(trees() / tree.id / "file"), "content\n");
    EXPECT_EQ(gitIn(tree.path, {"rev-parse", "--abbrev-ref", "HEAD"}), tree.branch + "\n");
    const auto workspace = workspaces_.find(tree.workspaceId);
    ASSERT_TRUE(workspace);
    EXPECT_EQ(workspace->hostPath, tree.path);
    EXPECT_EQ(workspace->label, "worktree " + tree.id);
    EXPECT_EQ(savedTable(), json::array({{{"id", tree.id},
                                          {"workspaceId", tree.workspaceId},
                                          {"sourceWorkspace", source_},
                                          {"branch", tree.branch},
                                          {"owner", "agent 7"},
                                          {"path", tree.path},
                                          {"createdAtMs", now},
                                          {"expiresAtMs", now + 5000}}}));
}

TEST_F(Worktrees, WorkInATreeDoesNotShowInItsSource) {
    const auto tree = create();
    writeFile(fs::path(tree.path) / "file", "changed\n");

    EXPECT_EQ(readFile(repository_ / "file"), "content\n");
    EXPECT_EQ(git({"status", "--porcelain"}), "");
}

TEST_F(Worktrees, ALeaseOfNothingIsTheDefaultAndAnEndlessOneIsCut) {
    const std::int64_t now = 1'700'000'000'000;
    WorktreeService service(dataDir_, workspaces_, {}, [] { return now; });

    EXPECT_EQ(service.create(source_, "", 0).record.expiresAtMs, now + 3'600'000);
    EXPECT_EQ(service.create(source_, "", -1).record.expiresAtMs, now + 3'600'000);
    EXPECT_EQ(service.create(source_, "", INT64_MAX).record.expiresAtMs, INT64_MAX);
}

TEST_F(Worktrees, AnUnknownSourceIsNamed) {
    EXPECT_EQ(service_.create("ws_x", "", 0).error, "未知的 workspace：ws_x");
}

TEST_F(Worktrees, AReadOnlySourceStopsCreation) {
    workspaces_.setPermission(source_, WorkspacePermission::READ_ONLY);

    const auto result = service_.create(source_, "", 0);

    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error,
              "工作区 repository 的权限档位是 READ_ONLY，此操作需要 READ_WRITE。请在 Executor 界面调整。");
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, TheNewWorkspaceHasTheSourcesLevel) {
    for (const auto level :
         {WorkspacePermission::READ_WRITE, WorkspacePermission::EXECUTE, WorkspacePermission::FULL}) {
        workspaces_.setPermission(source_, level);

        EXPECT_EQ(workspaces_.find(create().workspaceId)->permission, level);
    }
}

TEST_F(Worktrees, ADirectoryThatIsNoRepositoryIsRefusedAndNothingIsLeftBehind) {
    fs::create_directory(directory_ / "plain");
    const std::string plain = open(directory_ / "plain");

    const auto result = service_.create(plain, "", 0);

    EXPECT_EQ(result.error, "该工作区不是 git 仓库，无法派生独立工作树");
    EXPECT_FALSE(fs::exists(trees()));
    EXPECT_FALSE(fs::exists(dataDir_ / "worktrees.json"));
    EXPECT_THAT(workspaces_.list(), SizeIs(2));
}

TEST_F(Worktrees, EightTreesMayExistAndTheNinthIsRefusedUntilOneIsReturned) {
    runOnThreads(8, [this](std::size_t) {
        const auto result = service_.create(source_, "", 0);
        EXPECT_TRUE(result.ok) << result.error;
    });
    EXPECT_THAT(service_.list(), SizeIs(8));
    EXPECT_THAT(savedTable(), SizeIs(8));

    EXPECT_EQ(service_.create(source_, "", 0).error, "同时存在的工作树已达上限（8），请先归还其中一个");

    EXPECT_TRUE(service_.remove(service_.list().front().id, false).ok);
    EXPECT_TRUE(service_.create(source_, "", 0).ok);
}

TEST_F(Worktrees, ARepositoryWithoutACommitFailsWithGitsReasonAndLeavesNothing) {
    fs::create_directory(directory_ / "empty");
    gitIn(directory_ / "empty", {"init", "-q"});
    const std::string empty = open(directory_ / "empty");

    const auto result = service_.create(empty, "", 0);

    EXPECT_THAT(result.error, AllOf(StartsWith("创建工作树失败："), HasSubstr("fatal: ")));
    EXPECT_TRUE(fs::is_empty(trees()));
    EXPECT_THAT(workspaces_.list(), SizeIs(2));
}

TEST_F(Worktrees, ABranchThatCanNotBeMadeLeavesNothing) {
    git({"branch", "quillmarsh"});

    const auto result = service_.create(source_, "", 0);

    EXPECT_THAT(result.error, StartsWith("创建工作树失败："));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, ACheckoutThatFailsIsCleanedUp) {
    replaceGit("[ \"$1\" = checkout ] && { echo broken >&2; exit 1; }\nexec \"$REAL_GIT\" \"$@\"\n");

    const auto result = service_.create(source_, "", 0);

    EXPECT_EQ(result.error, "填充工作树失败：broken");
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, AnAdditionThatTakesTooLongLeavesNoDirectory) {
    replaceGit(
        "[ \"$2\" = add ] && { mkdir -p \"$6/deep/er\"; : > \"$6/deep/file\"; exec sleep 100; }\n"
        "exec \"$REAL_GIT\" \"$@\"\n");
    WorktreeService service(dataDir_, workspaces_, {.addMs = 1000});

    EXPECT_EQ(service.create(source_, "", 0).error, "创建工作树失败：git 超时");
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, AnAdditionThatFailsAtItsEndLeavesNeitherTreeNorBranch) {
    replaceGit("\"$REAL_GIT\" \"$@\" 2>/dev/null\nstatus=$?\n[ \"$2\" = add ] && exit 1\nexit $status\n");

    EXPECT_EQ(service_.create(source_, "", 0).error, "创建工作树失败");
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, ATreeThatCanNotBeRegisteredIsCleanedUp) {
    // A table that can't be written: its place is taken by a directory.
    fs::remove(dataDir_ / "workspaces.json");
    fs::create_directories(dataDir_ / "workspaces.json/x");

    const auto result = service_.create(source_, "", 0);

    EXPECT_THAT(result.error, StartsWith("无法注册工作树为工作区："));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, AReturnedTreeIsGoneWithBranchWorkspaceAndRecord) {
    const auto tree = create();

    const auto result = service_.remove(tree.id, false);

    EXPECT_TRUE(result.ok) << result.error;
    EXPECT_FALSE(result.hadUncommittedChanges);
    EXPECT_TRUE(nothingIsLeft());
    EXPECT_EQ(savedTable(), json::array());
    EXPECT_EQ(service_.remove(tree.id, false).error, "未知的 worktree：" + tree.id);
}

TEST_F(Worktrees, UncommittedWorkKeepsATreeUnlessForced) {
    const auto tree = create();
    writeFile(fs::path(tree.path) / "new", "work");

    const auto kept = service_.remove(tree.id, false);

    EXPECT_FALSE(kept.ok);
    EXPECT_TRUE(kept.hadUncommittedChanges);
    EXPECT_EQ(kept.error, "工作树内还有未提交的改动；确认要丢弃请用 force=true");
    EXPECT_EQ(readFile(fs::path(tree.path) / "new"), "work");
    EXPECT_TRUE(workspaces_.find(tree.workspaceId));
    EXPECT_THAT(service_.list(), SizeIs(1));

    const auto forced = service_.remove(tree.id, true);
    EXPECT_TRUE(forced.ok);
    EXPECT_TRUE(forced.hadUncommittedChanges);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(Worktrees, NewFilesAndSubmodulesCountWhateverTheConfigurationHides) {
    git({"config", "status.showUntrackedFiles", "no"});
    git({"config", "diff.ignoreSubmodules", "all"});
    const auto tree = create();
    writeFile(fs::path(tree.path) / "new", "work");

    EXPECT_TRUE(service_.remove(tree.id, false).hadUncommittedChanges);

    EXPECT_EQ(readFile(fs::path(tree.path) / "new"), "work");
    fs::remove(fs::path(tree.path) / "new");
    gitIn(tree.path, {"-c", "protocol.file.allow=always", "submodule", "--quiet", "add", repository_.string(), "sub"});
    gitIn(tree.path, {"commit", "-q", "-m", "with a submodule"});
    gitIn(fs::path(tree.path) / "sub", {"commit", "-q", "--allow-empty", "-m", "new"});
    EXPECT_TRUE(service_.remove(tree.id, false).hadUncommittedChanges);
}

TEST_F(Worktrees, ATreeDeletedByHandCanStillBeReturned) {
    const auto tree = create();
    fs::remove_all(tree.path);

    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_TRUE(nothingIsLeft());
    EXPECT_THAT(recentLogLines(10), Contains(HasSubstr("WARN  state of worktree " + tree.id + " unknown")));
}

TEST_F(Worktrees, ATreeWhoseSourceIsNoWorkspaceAnyMoreCanStillBeReturned) {
    const auto tree = create();
    workspaces_.remove(source_);

    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_FALSE(fs::exists(tree.path));
    EXPECT_THAT(workspaces_.list(), IsEmpty());
    EXPECT_THAT(service_.list(), IsEmpty());
}

TEST_F(Worktrees, ATreeWhoseRepositoryWasDeletedCanStillBeReturned) {
    const auto tree = create();
    fs::remove_all(repository_);

    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_FALSE(fs::exists(tree.path));
    EXPECT_THAT(service_.list(), IsEmpty());
}

TEST_F(Worktrees, NothingOutsideTheTreesIsRemovedWhateverTheTableSays) {
    writeFile(directory_ / "precious/file", "kept");
    writeFile(trees() / "wt_aaaaaaaa/file", "another tree");
    const auto record = [&](const std::string& id, const fs::path& path) {
        return json{{"id", id}, {"path", path.string()}, {"sourceWorkspace", "ws_gone"}, {"branch", "b"}};
    };
    writeFile(dataDir_ / "worktrees.json",
              dumpJson(json::array({record("wt_00000001", directory_ / "precious"), record("..", directory_.path()),
                                    record("wt_../../precious", trees() / "wt_../../precious"), record("wt_", trees()),
                                    record("/", "/"), record(".", trees() / "."),
                                    record(std::string("wt_aaaaaaaa\0", 12), trees() / "wt_aaaaaaaa"),
                                    record("", trees()), record("wt_00000002", trees() / "wt_aaaaaaaa"),
                                    record("wt_00000003", "/"), record("wt_00000004", "")})));
    service_.reload();
    EXPECT_THAT(service_.list(), SizeIs(10));

    for (const auto& tree : service_.list())
        EXPECT_TRUE(service_.remove(tree.id, true).ok);

    EXPECT_EQ(readFile(directory_ / "precious/file"), "kept");
    EXPECT_EQ(readFile(trees() / "wt_aaaaaaaa/file"), "another tree");
    EXPECT_TRUE(fs::exists(repository_ / "file"));
}

TEST_F(Worktrees, ATreeIsTheSameHoweverTheWayToItIsWritten) {
    fs::create_directory_symlink(dataDir_, directory_ / "link");
    for (const fs::path& way : {directory_ / "./data/../data", directory_ / "link"}) {
        const auto tree = create();
        json table = savedTable();
        table[0]["path"] = (way / "worktrees" / tree.id).string();
        writeFile(dataDir_ / "worktrees.json", dumpJson(table));
        service_.reload();
        workspaces_.remove(source_);

        EXPECT_TRUE(service_.remove(tree.id, false).ok);

        EXPECT_FALSE(fs::exists(tree.path)) << way;
        source_ = open(repository_);
        gitIn(repository_, {"worktree", "prune"});
    }
}

TEST_F(Worktrees, ADataDirectoryBehindALinkGivesTreesWithoutLinks) {
    fs::create_directories(directory_ / "real");
    fs::create_directory_symlink("real", directory_ / "link");
    WorktreeService service(directory_ / "link/./data", workspaces_);

    const auto tree = create(service);

    EXPECT_EQ(tree.path, (directory_ / "real/data/worktrees" / tree.id).string());
    WorktreeService after(directory_ / "real/data", workspaces_);
    after.reload();
    EXPECT_TRUE(after.remove(tree.id, false).ok);
    EXPECT_TRUE(fs::is_empty(directory_ / "real/data/worktrees"));
}

TEST_F(Worktrees, RecordsAreTakenAsTheyStand) {
    const auto kept = create();
    json table = savedTable();
    table.push_back({{"id", "Tree 1"}, {"branch", "other"}, {"owner", "o"}, {"expiresAtMs", 7}});
    table.push_back({{"id", "wt_UPPER"}});
    table.push_back({{"id", ""}});
    table.push_back({{"id", 5}});
    writeFile(dataDir_ / "worktrees.json", dumpJson(table));
    service_.reload();

    const auto trees = service_.list();

    ASSERT_THAT(trees, SizeIs(3));
    EXPECT_EQ(trees.at(0).id, kept.id);
    EXPECT_EQ(trees.at(1).id, "Tree 1");
    EXPECT_EQ(trees.at(1).branch, "other");
    EXPECT_EQ(trees.at(1).owner, "o");
    EXPECT_EQ(trees.at(1).expiresAtMs, 7);
    EXPECT_EQ(trees.at(2).id, "wt_UPPER");
}

TEST_F(Worktrees, ALinkInThePlaceOfATreeIsNotFollowed) {
    const auto tree = create();
    writeFile(directory_ / "precious/file", "kept");
    fs::remove_all(tree.path);
    fs::create_directory_symlink(directory_ / "precious", tree.path);
    workspaces_.remove(source_);

    EXPECT_TRUE(service_.remove(tree.id, true).ok);

    EXPECT_EQ(readFile(directory_ / "precious/file"), "kept");
}

TEST_F(Worktrees, AnExpiredTreeIsReclaimedAtTheNextStartWithTheWorkItHolds) {
    std::int64_t now = 1'700'000'000'000;
    WorktreeService before(dataDir_, workspaces_, {}, [&now] { return now; });
    const auto expired = before.create(source_, "", 1000).record;
    const auto exact = before.create(source_, "", 1001).record;
    const auto lasting = before.create(source_, "", 60'000).record;
    writeFile(fs::path(expired.path) / "work", "uncommitted");
    WorkspaceRegistry workspaces(dataDir_);
    workspaces.load();
    WorktreeService after(dataDir_, workspaces);
    after.reload();
    EXPECT_THAT(after.list(), SizeIs(3));

    after.prune(now + 1001);

    ASSERT_THAT(after.list(), SizeIs(2));
    EXPECT_EQ(after.list().at(0).id, exact.id);
    EXPECT_EQ(after.list().at(1).id, lasting.id);
    EXPECT_FALSE(fs::exists(expired.path));
    EXPECT_FALSE(workspaces.find(expired.workspaceId));
    EXPECT_TRUE(workspaces.find(lasting.workspaceId));
    EXPECT_EQ(git({"branch", "--list", expired.branch}), "");
    EXPECT_THAT(recentLogLines(10), Contains(EndsWith("INFO  reclaimed expired worktree " + expired.id +
                                                      ", uncommitted changes discarded")));
}

TEST_F(Worktrees, ATreeWithoutALeaseIsNeverReclaimed) {
    writeFile(dataDir_ / "worktrees.json", R"([{"id":"wt_a","expiresAtMs":0},{"id":"wt_b","expiresAtMs":-5},)"
                                           R"({"id":"wt_c"},{"id":"wt_d","expiresAtMs":"soon"}])");
    service_.reload();

    service_.prune(INT64_MAX);

    EXPECT_THAT(service_.list(), SizeIs(4));
}

TEST_F(Worktrees, AFileThatIsNoTableIsAnEmptyTable) {
    for (const char* text :
         {"", "{", "null", "{}", R"({"worktrees":[{"id":"wt_a"}]})", "5", R"([1,null,"wt_a",[],{}])"}) {
        writeFile(dataDir_ / "worktrees.json", text);
        service_.reload();

        EXPECT_THAT(service_.list(), IsEmpty()) << text;
    }
    fs::remove(dataDir_ / "worktrees.json");
    service_.reload();
    EXPECT_THAT(service_.list(), IsEmpty());
    EXPECT_TRUE(service_.create(source_, "", 0).ok);
}

TEST_F(Worktrees, EveryCutOfTheFileIsReadWithoutHarm) {
    create();
    const std::string whole = readFile(dataDir_ / "worktrees.json");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        writeFile(dataDir_ / "worktrees.json", whole.substr(0, length));
        service_.reload();
        ASSERT_THAT(service_.list(), IsEmpty());
    }
}

TEST_F(Worktrees, ATableThatCanNotBeSavedStillCountsWhileTheProcessLives) {
    fs::create_directories(dataDir_ / "worktrees.json/x");

    const auto tree = create();

    EXPECT_THAT(service_.list(), SizeIs(1));
    EXPECT_THAT(recentLogLines(5), Contains(HasSubstr("WARN  table of worktrees not saved")));
    EXPECT_TRUE(service_.remove(tree.id, false).ok);
}

TEST_F(Worktrees, ARelativeDataDirectoryIsMadeAbsoluteBeforeGitSeesIt) {
    fs::current_path(directory_.path());
    WorktreeService service("relative/data", workspaces_);

    const auto tree = create(service);

    EXPECT_EQ(tree.path, (directory_ / "relative/data/worktrees" / tree.id).string());
    EXPECT_EQ(readFile(directory_ / "relative/data/worktrees" / tree.id / "file"), "content\n");
    EXPECT_TRUE(service.remove(tree.id, false).ok);
    EXPECT_FALSE(fs::exists(tree.path));
}

TEST_F(Worktrees, ADataDirectoryThatCanNotBeMadeIsAnError) {
    writeFile(directory_ / "blocked", "a file");
    WorktreeService service(directory_ / "blocked/data", workspaces_);

    EXPECT_EQ(service.create(source_, "", 0).error, "创建工作树失败：Not a directory");
}

TEST_F(Worktrees, HooksOfTheRepositoryDoNotRun) {
    const std::string hook = "#!/bin/sh\ntouch '" + (directory_ / "hook-ran").string() + "'\n";
    for (const char* name : {"post-checkout", "post-index-change", "reference-transaction", "fsmonitor-watchman"}) {
        writeFile(repository_ / ".git/hooks" / name, hook);
        fs::permissions(repository_ / ".git/hooks" / name, fs::perms::owner_all);
    }
    writeFile(directory_ / "monitor", hook);
    fs::permissions(directory_ / "monitor", fs::perms::owner_all);
    git({"-c", "core.hooksPath=/dev/null", "config", "core.fsmonitor", (directory_ / "monitor").string()});
    git({"-c", "core.hooksPath=/dev/null", "config", "core.hooksPath", (repository_ / ".git/hooks").string()});

    const auto tree = create();
    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_FALSE(fs::exists(directory_ / "hook-ran"));
}

}  // namespace
}  // namespace qm::test
