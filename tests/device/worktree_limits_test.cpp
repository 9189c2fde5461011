// What a repository's own word can make git do, and how far that reaches.

#include <gmock/gmock.h>
#include <sys/syscall.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "device/refused_system_calls.h"
#include "device/worktree_fixture.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

/// Temporary files away from "/tmp", where every sandboxed command may write.
struct TemporaryFilesElsewhere {
    TemporaryFilesElsewhere() { setenv("TMPDIR", "/var/tmp", 1); }
};

/// Everything lies away from "/tmp" but `reachable_`, in which a sandboxed command may write.
class WorktreeLimits : private TemporaryFilesElsewhere, public WorktreeTest {
protected:
    WorktreeLimits() {
        std::string pattern = "/tmp/qm-test-XXXXXX";
        EXPECT_NE(mkdtemp(pattern.data()), nullptr);
        reachable_ = pattern;
        fs::create_directory(outside_);
    }
    ~WorktreeLimits() override { fs::remove_all(reachable_); }

    /// A filter's command that says in both places that it ran and then passes the text on, in capitals or as it is.
    std::string filter(const std::string& name, const std::string& transform) const {
        return "touch '" + (reachable_ / name).string() + "'; touch '" + (outside_ / name).string() +
               "' 2>/dev/null; " + transform;
    }

    void setFilter(const fs::path& directory, const std::string& smudge, const std::string& clean) {
        gitIn(directory, {"config", "filter.x.smudge", smudge});
        gitIn(directory, {"config", "filter.x.clean", clean});
    }

    bool ran(const std::string& name) const { return fs::exists(reachable_ / name); }
    bool nothingOutside() const { return fs::is_empty(outside_); }

    /// A tree of this workspace is made, seen to be the repository's, filled, unchanged, and given back whole.
    void expectOrdinaryUse(const std::string& workspace, const fs::path& directory) {
        const auto created = service_.create(workspace, "", 0);
        ASSERT_TRUE(created.ok) << created.error;
        const auto& tree = created.record;
        EXPECT_EQ(readFile(fs::path(tree.path) / "file"), "content\n");
        EXPECT_EQ(gitIn(tree.path, {"rev-parse", "--abbrev-ref", "HEAD"}), tree.branch + "\n");
        EXPECT_EQ(gitIn(tree.path, {"rev-parse", "HEAD"}), gitIn(directory, {"rev-parse", "HEAD"}));
        writeFile(fs::path(tree.path) / "new", "work");
        EXPECT_TRUE(service_.remove(tree.id, false).hadUncommittedChanges);
        fs::remove(fs::path(tree.path) / "new");
        EXPECT_TRUE(service_.remove(tree.id, false).ok);
        EXPECT_TRUE(fs::is_empty(trees()));
        EXPECT_EQ(gitIn(directory, {"branch", "--list", "quillmarsh/*"}), "");
        EXPECT_EQ(gitIn(directory, {"worktree", "list", "--porcelain"}).find("wt_"), std::string::npos);
    }

    fs::path reachable_;
    const fs::path outside_ = directory_ / "outside";
};

TEST_F(WorktreeLimits, FiltersTransformButWriteNothingBeyondTreeAndRepository) {
    setFilter(repository_, filter("smudge", "tr a-z A-Z"), filter("clean", "tr A-Z a-z"));
    writeFile(repository_ / ".git/info/attributes", "* filter=x\n");

    const auto tree = create();
    EXPECT_TRUE(ran("smudge"));
    EXPECT_EQ(readFile(fs::path(tree.path) / "file"), "CONTENT\n");
    // The same size at another time: only its content can tell, through the filter.
    fs::last_write_time(fs::path(tree.path) / "file", fs::file_time_type::clock::now() - std::chrono::hours(1));
    const auto removed = service_.remove(tree.id, false);

    EXPECT_TRUE(ran("clean"));
    EXPECT_TRUE(removed.ok) << removed.error;
    EXPECT_FALSE(removed.hadUncommittedChanges);
    EXPECT_TRUE(nothingOutside());
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeLimits, AFilterMayKeepFilesOfItsOwnInTheRepository) {
    setFilter(repository_, "cat", "cat > \"$GIT_COMMON_DIR/cleaned\"; cat \"$GIT_COMMON_DIR/cleaned\"");
    gitIn(repository_, {"config", "filter.x.required", "true"});
    writeFile(repository_ / ".git/info/attributes", "* filter=x\n");
    const auto tree = create();
    writeFile(fs::path(tree.path) / "file", "CONTENT\n");
    fs::last_write_time(fs::path(tree.path) / "file", fs::file_time_type::clock::now() - std::chrono::hours(1));

    EXPECT_TRUE(service_.remove(tree.id, false).hadUncommittedChanges);

    EXPECT_EQ(readFile(repository_ / ".git/cleaned"), "CONTENT\n");
}

class ForeignGitDirectory : public WorktreeLimits {
protected:
    /// A repository of the agent's own, whose filters run over every file.
    fs::path makeForeign() {
        const fs::path foreign = directory_ / "foreign";
        fs::create_directory(foreign);
        gitIn(foreign, {"init", "-q", "-b", "main"});
        writeFile(foreign / "file", "content\n");
        gitIn(foreign, {"add", "."});
        gitIn(foreign, {"commit", "-q", "-m", "first"});
        setFilter(foreign, filter("smudge", "cat"), filter("clean", "cat"));
        writeFile(foreign / ".git/info/attributes", "* filter=x\n");
        return foreign / ".git";
    }

    void pointTo(const WorktreeRecord& tree, const fs::path& gitDirectory) {
        writeFile(fs::path(tree.path) / ".git", "gitdir: " + gitDirectory.string() + "\n");
        fs::last_write_time(fs::path(tree.path) / "file", fs::file_time_type::clock::now() - std::chrono::hours(1));
    }
};

TEST_F(ForeignGitDirectory, OfATreeIsNotAskedWhileTheSourceIsKnown) {
    const auto tree = create();
    pointTo(tree, makeForeign());
    writeFile(fs::path(tree.path) / "new", "work");

    EXPECT_TRUE(service_.remove(tree.id, false).hadUncommittedChanges);
    EXPECT_TRUE(service_.remove(tree.id, true).ok);

    EXPECT_FALSE(ran("clean"));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(ForeignGitDirectory, OfATreeMakesNothingWritableWithoutTheSource) {
    const auto tree = create();
    pointTo(tree, makeForeign());
    workspaces_.remove(source_);

    service_.remove(tree.id, true);

    EXPECT_TRUE(ran("clean"));
    EXPECT_TRUE(nothingOutside());
    EXPECT_FALSE(fs::exists(tree.path));
}

TEST_F(ForeignGitDirectory, OfASourceIsRefusedIfItClaimsToBePartOfAnotherRepository) {
    const fs::path claimed = directory_ / "claimed";
    fs::create_directory(claimed);
    writeFile(claimed / "HEAD", "ref: refs/heads/main\n");
    writeFile(claimed / "commondir", (repository_ / ".git").string() + "\n");
    fs::create_directory(directory_ / "source");
    writeFile(directory_ / "source/.git", "gitdir: " + claimed.string() + "\n");

    const auto result = service_.create(open(directory_ / "source"), "", 0);

    EXPECT_EQ(result.error, "该工作区不是 git 仓库，无法派生独立工作树");
    EXPECT_FALSE(fs::exists(trees()));
    EXPECT_EQ(git({"branch", "--list", "quillmarsh/*"}), "");
}

TEST_F(ForeignGitDirectory, OfATreeThatIsASourceDecidesNothingForTheRealOne) {
    const auto tree = create();
    const fs::path foreign = makeForeign();
    pointTo(tree, foreign);

    const auto second = service_.create(tree.workspaceId, "", 0);

    ASSERT_TRUE(second.ok) << second.error;
    EXPECT_TRUE(ran("smudge"));
    EXPECT_TRUE(nothingOutside());
    EXPECT_EQ(git({"branch", "--list", second.record.branch}), "");
    EXPECT_NE(gitIn(foreign, {"branch", "--list", second.record.branch}), "");
}

TEST_F(WorktreeLimits, AnOrdinaryRepositoryCanBeUsed) {
    expectOrdinaryUse(source_, repository_);
}

TEST_F(WorktreeLimits, ASubdirectoryOfARepositoryCanBeUsed) {
    writeFile(repository_ / "deep/er/x", "x");
    expectOrdinaryUse(open(repository_ / "deep/er"), repository_);
}

TEST_F(WorktreeLimits, ALinkedTreeCanBeUsedAndItsOwnCommitIsTaken) {
    const fs::path linked = directory_ / "linked";
    git({"worktree", "add", "-q", "-b", "side", linked.string()});
    gitIn(linked, {"commit", "-q", "--allow-empty", "-m", "second"});
    expectOrdinaryUse(open(linked), linked);
}

TEST_F(WorktreeLimits, ATreeCanBeUsed) {
    const auto tree = create();
    gitIn(tree.path, {"commit", "-q", "--allow-empty", "-m", "second"});

    const auto second = service_.create(tree.workspaceId, "", 0);

    ASSERT_TRUE(second.ok) << second.error;
    EXPECT_EQ(gitIn(second.record.path, {"rev-parse", "HEAD"}), gitIn(tree.path, {"rev-parse", "HEAD"}));
    EXPECT_TRUE(service_.remove(second.record.id, false).ok);
    EXPECT_TRUE(service_.remove(tree.id, false).ok);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(WorktreeLimits, ABareRepositoryCanBeUsed) {
    const fs::path bare = directory_ / "bare";
    git({"clone", "-q", "--bare", ".", bare.string()});
    expectOrdinaryUse(open(bare), bare);
}

TEST_F(WorktreeLimits, ARepositoryWithItsGitDirectoryElsewhereCanBeUsed) {
    const fs::path apart = directory_ / "apart";
    git({"clone", "-q", "--separate-git-dir", (directory_ / "its-git").string(), ".", apart.string()});
    expectOrdinaryUse(open(apart), apart);
}

TEST_F(WorktreeLimits, ARepositoryBehindALinkCanBeUsed) {
    fs::rename(repository_ / ".git", directory_ / "moved-git");
    fs::create_directory_symlink("../moved-git", repository_ / ".git");
    expectOrdinaryUse(source_, repository_);
}

TEST_F(WorktreeLimits, ASubmoduleCanBeUsed) {
    git({"-c", "protocol.file.allow=always", "submodule", "--quiet", "add", "./.git", "sub"});
    expectOrdinaryUse(open(repository_ / "sub"), repository_ / "sub");
}

TEST_F(WorktreeLimits, ADirectoryWithinTheTreesIsNoPartOfARepositoryAboveThem) {
    const auto tree = create();
    gitIn(dataDir_, {"init", "-q"});
    fs::remove(fs::path(tree.path) / ".git");

    EXPECT_EQ(service_.create(tree.workspaceId, "", 0).error, "该工作区不是 git 仓库，无法派生独立工作树");
}

TEST_F(WorktreeLimits, ADataDirectoryWithTheListsSeparatorInItsNameCanBeUsed) {
    WorktreeService service(directory_ / "da:ta", workspaces_);

    const auto tree = create(service);
    fs::remove_all(fs::path(tree.path) / ".git");
    gitIn(directory_.path(), {"init", "-q"});

    EXPECT_EQ(service.create(tree.workspaceId, "", 0).error, "该工作区不是 git 仓库，无法派生独立工作树");
    EXPECT_TRUE(service.remove(tree.id, false).ok);
    EXPECT_FALSE(fs::exists(tree.path));
}

TEST_F(WorktreeLimits, AKernelWithoutLandlockRunsGitAsItIs) {
    withRefusedCalls({{SYS_landlock_create_ruleset, ENOSYS}}, [this] {
        setFilter(repository_, filter("smudge", "cat"), "cat");
        writeFile(repository_ / ".git/info/attributes", "* filter=x\n");
        expectOrdinaryUse(source_, repository_);
    });
    EXPECT_FALSE(nothingOutside());
}

}  // namespace
}  // namespace qm::test
