// Git that takes long, is ended midway, or runs at the same time as another.

#include <gmock/gmock.h>

#include <future>

#include "device/worktree_fixture.h"
#include "support/wait_until.h"
#include "util/log.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::HasSubstr;

class WorktreeInterruption : public WorktreeTest {
protected:
    fs::path in(const std::string& name) const { return directory_ / name; }
    static std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

    /// Lets git say that `condition` (of the shell) held for a call by making the file "arrived", and wait for the file
    /// "go" before it does its work.
    void holdGit(const std::string& condition) {
        replaceGit(condition + " && { : > " + quoted(in("arrived")) + "; until [ -e " + quoted(in("go")) +
                   " ]; do sleep 0.02; done; }\nexec \"$REAL_GIT\" \"$@\"\n");
    }
    /// Lets git sleep instead of working when `condition` holds, having said so.
    void stallGit(const std::string& condition) {
        replaceGit(condition + " && { : > " + quoted(in("arrived")) +
                   "; exec sleep 600; }\nexec \"$REAL_GIT\" \"$@\"\n");
    }

    bool arrived() const {
        return waitUntil([this] { return fs::exists(in("arrived")); });
    }
    void letGo() const { writeFile(in("go"), ""); }

    std::future<WorktreeService::CreateResult> createMeanwhile() {
        return std::async(std::launch::async, [this] { return service_.create(source_, "", 0); });
    }

    fs::path secondRepository() {
        fs::path second = in("second");
        git({"clone", "-q", ".", second.string()});
        return second;
    }
};

TEST_F(WorktreeInterruption, TheTableAnswersWhileGitRuns) {
    const auto tree = create();
    for (const char* condition : {"[ \"$1\" = rev-parse ]", "[ \"$2\" = add ]", "[ \"$1\" = checkout ]"}) {
        fs::remove(in("arrived"));
        fs::remove(in("go"));
        holdGit(condition);
        auto creation = createMeanwhile();
        ASSERT_TRUE(arrived()) << condition;

        const auto trees = service_.list();

        ASSERT_EQ(trees.size(), 1U);
        EXPECT_EQ(trees.front().id, tree.id);
        letGo();
        const auto created = creation.get();
        EXPECT_TRUE(created.ok) << created.error;
        EXPECT_TRUE(service_.remove(created.record.id, false).ok);
    }
}

TEST_F(WorktreeInterruption, OneRepositoryDoesNotWaitForAnother) {
    const std::string other = open(secondRepository());
    holdGit("[ \"$2\" = add ] && [ \"$PWD\" = " + quoted(repository_) + " ]");
    auto creation = createMeanwhile();
    ASSERT_TRUE(arrived());

    EXPECT_TRUE(service_.create(other, "", 0).ok);

    EXPECT_EQ(creation.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    letGo();
    EXPECT_TRUE(creation.get().ok);
}

TEST_F(WorktreeInterruption, TwoWaysIntoOneRepositoryAreToldForTheSame) {
    writeFile(repository_ / "sub/x", "");
    const std::string sub = open(repository_ / "sub");
    // Two additions at once would both find the directory.
    replaceGit("[ \"$2\" = add ] && { mkdir " + quoted(in("alone")) + " || exit 9; sleep 0.2; rmdir " +
               quoted(in("alone")) + "; }\nexec \"$REAL_GIT\" \"$@\"\n");

    auto creation = createMeanwhile();
    const auto second = service_.create(sub, "", 0);

    EXPECT_TRUE(second.ok) << second.error;
    EXPECT_TRUE(creation.get().ok);
}

TEST_F(WorktreeInterruption, TreesOfOneRepositoryAreFilledSideBySide) {
    // Each waits for the other.
    replaceGit("[ \"$1\" = checkout ] && { : > " + quoted(in("here-")) + "$$; until [ $(ls " +
               quoted(directory_.path()) + " | grep -c here-) = 2 ]; do sleep 0.02; done; }\n" +
               "exec \"$REAL_GIT\" \"$@\"\n");

    auto creation = createMeanwhile();
    const auto second = service_.create(source_, "", 0);

    EXPECT_TRUE(second.ok) << second.error;
    EXPECT_TRUE(creation.get().ok);
}

TEST_F(WorktreeInterruption, EachStepOfACreationHasItsOwnTimeLimit) {
    struct Case {
        const char* condition;
        WorktreeTimeouts timeouts;
        const char* error;
    };
    for (const auto& [condition, timeouts, error] :
         {Case{"[ \"$1\" = rev-parse ]", {.revParseMs = 200}, "该工作区不是 git 仓库，无法派生独立工作树"},
          Case{"[ \"$2\" = add ]", {.addMs = 200}, "创建工作树失败：git 超时"},
          Case{"[ \"$1\" = checkout ]", {.checkoutMs = 200}, "填充工作树失败：git 超时"}}) {
        stallGit(condition);
        WorktreeService service(dataDir_, workspaces_, timeouts);

        EXPECT_EQ(service.create(source_, "", 0).error, error);
        EXPECT_TRUE(nothingIsLeft()) << condition;
    }
}

TEST_F(WorktreeInterruption, TheCleanUpHasItsOwnTimeLimitAndIsDoneAllTheSame) {
    replaceGit("[ \"$1\" = checkout ] && exit 1\n[ \"$2\" = remove ] && exec sleep 600\nexec \"$REAL_GIT\" \"$@\"\n");
    WorktreeService service(dataDir_, workspaces_, {.cleanUpMs = 200});

    EXPECT_EQ(service.create(source_, "", 0).error, "填充工作树失败");

    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeInterruption, AStateThatIsNotToldInTimeIsLoggedAndTheTreeTakenBack) {
    stallGit("[ \"$1\" = status ]");
    WorktreeService service(dataDir_, workspaces_, {.statusMs = 200});
    const auto tree = create(service);

    EXPECT_TRUE(service.remove(tree.id, false).ok);

    EXPECT_THAT(recentLogLines(5), Contains(HasSubstr("WARN  state of worktree " + tree.id + " unknown：git 超时")));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeInterruption, ARemovalThatTakesTooLongIsDoneWithoutGit) {
    stallGit("[ \"$2\" = remove ]");
    WorktreeService service(dataDir_, workspaces_, {.removeMs = 200});
    const auto tree = create(service);

    EXPECT_TRUE(service.remove(tree.id, false).ok);

    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeInterruption, ABranchThatIsNotDeletedInTimeIsNotWaitedFor) {
    stallGit("[ \"$1\" = branch ] && [ \"$2\" = -D ]");
    WorktreeService service(dataDir_, workspaces_, {.deleteBranchMs = 200});
    const auto tree = create(service);

    EXPECT_TRUE(service.remove(tree.id, false).ok);

    EXPECT_FALSE(fs::exists(tree.path));
    EXPECT_TRUE(service.list().empty());
}

TEST_F(WorktreeInterruption, AnAdditionThatIsKilledWhileGitHoldsTheTreeLockedLeavesNeitherTreeNorBranch) {
    replaceGit("[ \"$2\" = add ] || exec \"$REAL_GIT\" \"$@\"\n\"$REAL_GIT\" \"$@\" || exit\necho initializing > " +
               quoted(repository_ / ".git/worktrees") + "/\"${6##*/}\"/locked\n" + "\nexec sleep 600\n");
    WorktreeService service(dataDir_, workspaces_, {.addMs = 3000});

    EXPECT_EQ(service.create(source_, "", 0).error, "创建工作树失败：git 超时");

    EXPECT_TRUE(nothingIsLeft());
    EXPECT_TRUE(!fs::exists(repository_ / ".git/worktrees") || fs::is_empty(repository_ / ".git/worktrees"));
}

TEST_F(WorktreeInterruption, ALockedTreeIsTakenBackWhole) {
    const auto tree = create();
    git({"worktree", "lock", tree.path});

    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeInterruption, ATreeThatLostItsLinkToTheRepositoryIsTakenBackWhole) {
    const auto tree = create();
    fs::remove(fs::path(tree.path) / ".git");

    EXPECT_TRUE(service_.remove(tree.id, false).ok);

    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeInterruption, TheEntryOfAnotherTreeInTheRepositoryStays) {
    const fs::path own = in("own");
    git({"worktree", "add", "-q", "-b", "mine", own.string()});
    writeFile(dataDir_ / "worktrees.json", R"([{"id":"own","path":")" + (trees() / "own").string() +
                                               R"(","sourceWorkspace":")" + source_ + R"(","branch":"none"}])");
    service_.reload();

    EXPECT_TRUE(service_.remove("own", true).ok);

    EXPECT_EQ(gitIn(own, {"rev-parse", "--abbrev-ref", "HEAD"}), "mine\n");
}

TEST_F(WorktreeInterruption, ShutdownEndsGitInEveryStepOfACreation) {
    for (const char* condition : {"[ \"$1\" = rev-parse ]", "[ \"$2\" = add ]", "[ \"$1\" = checkout ]"}) {
        fs::remove(in("arrived"));
        stallGit(condition);
        WorktreeService service(dataDir_, workspaces_);
        auto creation = std::async(std::launch::async, [&] { return service.create(source_, "", 0); });
        ASSERT_TRUE(arrived()) << condition;

        service.shutdown();

        ASSERT_EQ(creation.wait_for(kGenerousLimit), std::future_status::ready) << condition;
        EXPECT_EQ(creation.get().error, "执行器正在停止");
        EXPECT_TRUE(!fs::exists(trees()) || fs::is_empty(trees()));
        EXPECT_TRUE(service.list().empty());
        EXPECT_EQ(service.create(source_, "", 0).error, "执行器正在停止");
    }
}

TEST_F(WorktreeInterruption, ShutdownDiscardsNoWorkOfWhichTheStateCouldNotBeToldAnyMore) {
    const auto tree = create();
    writeFile(fs::path(tree.path) / "new", "work");
    stallGit("[ \"$1\" = status ]");
    auto removal = std::async(std::launch::async, [&] { return service_.remove(tree.id, true); });
    ASSERT_TRUE(arrived());

    service_.shutdown();

    ASSERT_EQ(removal.wait_for(kGenerousLimit), std::future_status::ready);
    EXPECT_EQ(removal.get().error, "执行器正在停止");
    EXPECT_EQ(service_.remove(tree.id, false).error, "执行器正在停止");
    EXPECT_EQ(readFile(fs::path(tree.path) / "new"), "work");
    EXPECT_EQ(service_.list().size(), 1U);
}

TEST_F(WorktreeInterruption, ARemovalThatShutdownEndsIsFinishedAfterTheNextStart) {
    const auto tree = create();
    stallGit("[ \"$2\" = remove ]");
    auto removal = std::async(std::launch::async, [&] { return service_.remove(tree.id, false); });
    ASSERT_TRUE(arrived());

    service_.shutdown();

    ASSERT_EQ(removal.wait_for(kGenerousLimit), std::future_status::ready);
    EXPECT_FALSE(removal.get().ok);
    replaceGit("exec \"$REAL_GIT\" \"$@\"\n");
    WorktreeService after(dataDir_, workspaces_);
    after.reload();
    EXPECT_TRUE(after.remove(tree.id, false).ok);
    service_.reload();
    EXPECT_TRUE(nothingIsLeft());
}

}  // namespace
}  // namespace qm::test
