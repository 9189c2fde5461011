#include "device/worktree_git.h"

#include <gmock/gmock.h>

#include <map>
#include <sstream>

#include "device/worktree_fixture.h"

namespace qm::test {
namespace {

namespace fs = std::filesystem;

using Environment = std::map<std::string, std::string>;

ProcessResult ended(int exitCode, std::string errors) {
    ProcessResult result;
    result.started = true;
    result.exitCode = exitCode;
    result.stderrText = std::move(errors);
    return result;
}

class WorktreeGitCalls : public WorktreeTest {
protected:
    /// Lets every call of git leave its arguments, one a line, in the file "calls".
    void recordCalls(const std::string& more = "") {
        replaceGit("printf '%s|' \"$PWD\" \"$@\" >> '" + (directory_ / "calls").string() + "'\necho >> '" +
                   (directory_ / "calls").string() + "'\n" + more + "exec \"$REAL_GIT\" \"$@\"\n");
    }

    GitCall status() const {
        GitCall call;
        call.directory = directory_.path();
        call.arguments = {"status"};
        call.timeoutMs = 60'000;
        return call;
    }

    std::vector<std::string> calls() {
        std::vector<std::string> lines;
        std::istringstream stream(readFile(directory_ / "calls"));
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }
};

TEST_F(WorktreeGitCalls, ArgumentsAndDirectoriesAreExactlyThoseOfTheTable) {
    recordCalls();

    const auto tree = service_.create(source_, "", 0).record;
    service_.remove(tree.id, false);

    const std::string source = repository_.string() + "|";
    EXPECT_THAT(calls(),
                testing::ElementsAre(source + "rev-parse|--git-dir|",
                                     source + "worktree|add|--no-checkout|-b|" + tree.branch + "|" + tree.path + "|",
                                     tree.path + "|checkout|", tree.path + "|status|--porcelain|",
                                     source + "worktree|remove|--force|" + tree.path + "|",
                                     source + "branch|-D|" + tree.branch + "|"));
}

TEST_F(WorktreeGitCalls, AFailedCheckoutIsCleanedUpByTheCallsOfTheTable) {
    recordCalls("[ \"$1\" = checkout ] && exit 1\n");

    service_.create(source_, "", 0);

    const std::string source = repository_.string() + "|";
    const std::string tree = trees().string() + "/wt_[0-9a-z]+[|]";
    const auto matches = [](const std::string& text) { return testing::MatchesRegex(text); };
    std::string start;
    for (const char character : source)
        start += character == '|' || character == '.' ? std::string("[") + character + "]" : std::string(1, character);
    const std::string branch = "quillmarsh/wt_[0-9a-z]+[|]";
    EXPECT_THAT(calls(), testing::ElementsAre(matches(start + "rev-parse[|]--git-dir[|]"),
                                              matches(start + "worktree[|]add[|]--no-checkout[|]-b[|]" + branch + tree),
                                              matches(tree + "checkout[|]"),
                                              matches(start + "worktree[|]remove[|]--force[|]" + tree),
                                              matches(start + "branch[|]-D[|]" + branch)));
}

TEST_F(WorktreeGitCalls, TheTimeLimitsAreThoseOfTheTable) {
    const WorktreeTimeouts timeouts;

    EXPECT_EQ(timeouts.revParseMs, 15000);
    EXPECT_EQ(timeouts.addMs, 120000);
    EXPECT_EQ(timeouts.checkoutMs, 180000);
    EXPECT_EQ(timeouts.statusMs, 60000);
    EXPECT_EQ(timeouts.cleanUpMs, 60000);
    EXPECT_EQ(timeouts.removeMs, 120000);
    EXPECT_EQ(timeouts.deleteBranchMs, 60000);
}

TEST_F(WorktreeGitCalls, InheritedGitVariablesAreDroppedAndOthersKept) {
    replaceGit("exec env\n");
    setenv("GIT_DIR", "/elsewhere", 1);
    setenv("GIT_CONFIG_PARAMETERS", "'core.hooksPath=/evil'", 1);
    setenv("GIT_CONFIG_KEY_7", "core.editor", 1);
    setenv("GITHUB", "kept", 1);

    std::istringstream lines(WorktreeGit("/trees").run(status()).stdoutText);

    Environment environment;
    for (std::string line; std::getline(lines, line);) {
        const auto equals = line.find('=');
        if (line.starts_with("GIT")) environment[line.substr(0, equals)] = line.substr(equals + 1);
    }
    EXPECT_EQ(environment, (Environment{{"GITHUB", "kept"},
                                        {"GIT_CEILING_DIRECTORIES", "/trees"},
                                        {"GIT_CONFIG_COUNT", "4"},
                                        {"GIT_CONFIG_KEY_0", "core.hooksPath"},
                                        {"GIT_CONFIG_VALUE_0", "/dev/null"},
                                        {"GIT_CONFIG_KEY_1", "core.fsmonitor"},
                                        {"GIT_CONFIG_VALUE_1", "false"},
                                        {"GIT_CONFIG_KEY_2", "status.showUntrackedFiles"},
                                        {"GIT_CONFIG_VALUE_2", "normal"},
                                        {"GIT_CONFIG_KEY_3", "diff.ignoreSubmodules"},
                                        {"GIT_CONFIG_VALUE_3", "none"},
                                        {"GIT_OPTIONAL_LOCKS", "0"}}));
}

TEST_F(WorktreeGitCalls, ACeilingThatAListCanNotHoldIsLeftOut) {
    replaceGit("exec env\n");

    EXPECT_THAT(WorktreeGit("/tre:es").run(status()).stdoutText,
                testing::Not(testing::HasSubstr("GIT_CEILING_DIRECTORIES")));
}

TEST_F(WorktreeGitCalls, TheRepositoryIsNamedInTheSourceAndInTheTree) {
    replaceGit("echo \"$1 $2 $GIT_DIR $GIT_COMMON_DIR\" >> '" + (directory_ / "dirs").string() +
               "'\nexec \"$REAL_GIT\" \"$@\"\n");

    const auto tree = create();
    service_.remove(tree.id, false);

    const std::string common = (repository_ / ".git").string();
    const std::string own = common + "/worktrees/" + tree.id + " " + common + "\n";
    EXPECT_EQ(readFile(directory_ / "dirs"), "rev-parse --git-dir  \nworktree add " + common + " \ncheckout  " + own +
                                                 "status --porcelain " + own + "worktree remove " + common +
                                                 " \nbranch -D " + common + " \n");
}

TEST_F(WorktreeGitCalls, AfterShutdownNothingIsStarted) {
    recordCalls();
    WorktreeGit git("/trees");
    git.shutdown();

    const auto result = git.run(status());

    EXPECT_FALSE(result.started);
    EXPECT_TRUE(result.cancelled);
    EXPECT_TRUE(git.isShutDown());
    EXPECT_FALSE(std::filesystem::exists(directory_ / "calls"));
}

TEST_F(WorktreeGitCalls, OutputBeyondTheCapIsDropped) {
    replaceGit("head -c 100000 /dev/zero | tr '\\0' x\n");

    const auto result = WorktreeGit("/trees").run(status());

    EXPECT_EQ(result.stdoutText.size(), 98304U);
}

TEST(WorktreeGit, AFailureIsTheLabelAndTheReason) {
    ProcessResult unstarted;
    unstarted.error = "fork 失败";
    ProcessResult slow = ended(137, "half a line");
    slow.timedOut = true;

    EXPECT_EQ(WorktreeGit::failureText("创建工作树失败", unstarted), "创建工作树失败：无法执行 git");
    EXPECT_EQ(WorktreeGit::failureText("创建工作树失败", slow), "创建工作树失败：git 超时");
    EXPECT_EQ(WorktreeGit::failureText("创建工作树失败", ended(1, " \r\n\tfatal: no\n\n")),
              "创建工作树失败：fatal: no");
    EXPECT_EQ(WorktreeGit::failureText("创建工作树失败", ended(1, " \n")), "创建工作树失败");
}

TEST(WorktreeGit, AReasonIsCutBehind400BytesWithAMark) {
    EXPECT_EQ(WorktreeGit::failureText("x", ended(1, std::string(400, 'e'))), "x：" + std::string(400, 'e'));
    EXPECT_EQ(WorktreeGit::failureText("x", ended(1, std::string(401, 'e'))), "x：" + std::string(400, 'e') + "…");
    // A character of three bytes would end behind byte 401.
    EXPECT_EQ(WorktreeGit::failureText("x", ended(1, std::string(398, 'e') + "错")),
              "x：" + std::string(398, 'e') + "…");
}

TEST(WorktreeGit, OnlyAnExitWithZeroInTimeSucceeds) {
    ProcessResult late = ended(0, "");
    late.timedOut = true;

    EXPECT_TRUE(WorktreeGit::succeeded(ended(0, "warning")));
    EXPECT_FALSE(WorktreeGit::succeeded(ended(1, "")));
    EXPECT_FALSE(WorktreeGit::succeeded(late));
    EXPECT_FALSE(WorktreeGit::succeeded(ProcessResult()));
}

}  // namespace
}  // namespace qm::test
