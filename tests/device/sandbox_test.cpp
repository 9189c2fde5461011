#include "device/sandbox.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <string>

#include "device/process_test_support.h"
#include "device/refused_system_calls.h"
#include "device/run_process.h"
#include "support/temporary_directory.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

namespace fs = std::filesystem;
using test::program;
using test::shell;
using test::statusField;
using test::statusOfForked;
using test::withLandlockVersion;
using test::withRefusedCalls;
using test::writeFile;

TEST(SandboxMode, HasTheNamesOfTheArguments) {
    EXPECT_STREQ(sandboxModeText(SandboxMode::OFF), "OFF");
    EXPECT_STREQ(sandboxModeText(SandboxMode::WORKSPACE), "WORKSPACE");
    EXPECT_STREQ(sandboxModeText(SandboxMode::READ_ONLY), "READ_ONLY");
    EXPECT_EQ(static_cast<int>(SandboxMode::OFF), 0);
    EXPECT_EQ(static_cast<int>(SandboxMode::WORKSPACE), 1);
    EXPECT_EQ(static_cast<int>(SandboxMode::READ_ONLY), 2);
}

TEST(SandboxMode, IsParsedInAllCapitalsOrAllSmallLettersAndOtherwiseOff) {
    EXPECT_EQ(parseSandboxMode("WORKSPACE"), SandboxMode::WORKSPACE);
    EXPECT_EQ(parseSandboxMode("workspace"), SandboxMode::WORKSPACE);
    EXPECT_EQ(parseSandboxMode("READ_ONLY"), SandboxMode::READ_ONLY);
    EXPECT_EQ(parseSandboxMode("read_only"), SandboxMode::READ_ONLY);
    for (const char* other : {"", "OFF", "off", "Workspace", "READONLY", "read-only", " WORKSPACE", "WORKSPACES"}) {
        EXPECT_EQ(parseSandboxMode(other), SandboxMode::OFF) << other;
    }
}

TEST(PlanSandbox, OffLimitsNothing) {
    const SandboxPolicy policy = planSandbox(SandboxMode::OFF, "/work");

    EXPECT_EQ(policy.mode, SandboxMode::OFF);
    EXPECT_TRUE(policy.writablePaths.empty());
    EXPECT_FALSE(policy.blockNetwork);
}

TEST(PlanSandbox, WorkspaceMakesItsRootWritable) {
    const SandboxPolicy policy = planSandbox(SandboxMode::WORKSPACE, "/work");

    EXPECT_EQ(policy.mode, SandboxMode::WORKSPACE);
    EXPECT_THAT(policy.writablePaths, testing::ElementsAre(fs::path("/work")));
    EXPECT_TRUE(policy.blockNetwork);
}

TEST(PlanSandbox, WorkspaceWithoutRootHasNothingWritable) {
    EXPECT_TRUE(planSandbox(SandboxMode::WORKSPACE, "").writablePaths.empty());
}

TEST(PlanSandbox, ReadOnlyMakesNothingWritable) {
    const SandboxPolicy policy = planSandbox(SandboxMode::READ_ONLY, "/work");

    EXPECT_EQ(policy.mode, SandboxMode::READ_ONLY);
    EXPECT_TRUE(policy.writablePaths.empty());
    EXPECT_TRUE(policy.blockNetwork);
}

TEST(ProbeSandbox, NamesTheVersionOfTheKernel) {
    withLandlockVersion(4, [] {
        const SandboxProbe probe = probeSandbox();

        EXPECT_TRUE(probe.filesystem);
        EXPECT_TRUE(probe.network);
        EXPECT_EQ(probe.detail, "Landlock ABI 4 + seccomp");
    });
}

TEST(ProbeSandbox, SaysThatAKernelWithoutLandlockRestrictsNoFiles) {
    for (const int error : {ENOSYS, EOPNOTSUPP}) {
        withRefusedCalls({{SYS_landlock_create_ruleset, error}}, [] {
            const SandboxProbe probe = probeSandbox();

            EXPECT_FALSE(probe.filesystem);
            EXPECT_TRUE(probe.network);
            EXPECT_EQ(probe.detail, "内核不支持 Landlock，文件访问不会被强制限制");
        });
    }
}

TEST(ProbeSandbox, IsLoggedInOneLine) {
    withLandlockVersion(7, [] { logSandboxSupport(); });
    withRefusedCalls({{SYS_landlock_create_ruleset, ENOSYS}}, [] { logSandboxSupport(); });

    EXPECT_THAT(
        recentLogLines(2),
        testing::ElementsAre(
            testing::EndsWith(
                R"(INFO  sandbox support: {"detail":"Landlock ABI 7 + seccomp","filesystem":true,"network":true})"),
            testing::AllOf(testing::HasSubstr("WARN  sandbox support: "),
                           testing::HasSubstr(R"("filesystem":false,"network":true})"))));
}

/// A workspace and a directory beside it, both away from "/tmp", which has a rule of its own.
class SandboxTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string name = "/var/tmp/qm-sandbox-XXXXXX";
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        base_ = fs::canonical(name);
        workspace = base_ / "workspace";
        outside = base_ / "outside";
        fs::create_directory(workspace);
        fs::create_directory(outside);
        writeFile(outside / "old", "old\n");
    }
    void TearDown() override {
        if (!base_.empty()) fs::remove_all(base_);
    }

    ProcessResult run(SandboxMode mode, const std::string& command) const {
        ProcessOptions options = shell(command);
        options.cwd = workspace;
        options.sandbox = planSandbox(mode, workspace);
        return runProcess(options);
    }

    /// Status of a process that applies the sandbox and then returns what `body` returns; 77 if it can't be applied.
    int statusInside(SandboxMode mode, const std::function<int()>& body) const {
        return statusOfForked([&] { return applySandbox(planSandbox(mode, workspace)) ? body() : 77; });
    }

    fs::path workspace;
    fs::path outside;

private:
    fs::path base_;
};

TEST_F(SandboxTest, WorkspaceModeWritesInsideTheWorkspace) {
    const ProcessResult result = run(SandboxMode::WORKSPACE,
                                     "mkdir -p a/b && echo text > a/b/file && ln -s file a/b/link && rm a/b/link && "
                                     "mkfifo pipe && cat a/b/file");

    EXPECT_EQ(result.stderrText, "");
    EXPECT_EQ(result.stdoutText, "text\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(SandboxTest, WorkspaceModeWritesInTmpAndToDevices) {
    const test::TemporaryDirectory temporary;
    ASSERT_EQ(temporary.path().native().rfind("/tmp/", 0), 0U);

    const ProcessResult result =
        run(SandboxMode::WORKSPACE, "echo text > " + (temporary / "file").string() + " && echo text > /dev/null");

    EXPECT_EQ(result.stderrText, "");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(test::readFile(temporary / "file"), "text\n");
}

TEST_F(SandboxTest, WorkspaceModeReadsAndExecutesEverywhere) {
    const ProcessResult result =
        run(SandboxMode::WORKSPACE, "cat " + (outside / "old").string() + " && ls / >/dev/null && /bin/echo executed");

    EXPECT_EQ(result.stdoutText, "old\nexecuted\n");
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(SandboxTest, WorkspaceModeChangesNothingOutside) {
    const std::string where = "export OUT='" + outside.string() + "'; ";
    for (const char* command : {"echo x > $OUT/new", "echo x >> $OUT/old", "rm $OUT/old", "mkdir $OUT/dir",
                                "rmdir $OUT", "ln -s x $OUT/link", "mkfifo $OUT/pipe", "cp $OUT/old $OUT/copy",
                                "mv $OUT/old $OUT/moved", "sh -c 'sh -c \"echo x > $OUT/new\"'"}) {
        const ProcessResult result = run(SandboxMode::WORKSPACE, where + command);

        EXPECT_NE(result.exitCode, 0) << command;
        EXPECT_THAT(result.stderrText, testing::HasSubstr("Permission denied")) << command;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(outside), fs::directory_iterator()), 1);
    EXPECT_EQ(test::readFile(outside / "old"), "old\n");
}

TEST_F(SandboxTest, NothingIsMovedOrLinkedAcrossTheBorder) {
    writeFile(workspace / "mine", "mine");
    EXPECT_EQ(statusInside(SandboxMode::WORKSPACE,
                           [&] {
                               const auto refused = [](int result) {
                                   return result == -1 && (errno == EXDEV || errno == EACCES);
                               };
                               if (!refused(::rename((workspace / "mine").c_str(), (outside / "out").c_str())))
                                   return 1;
                               if (!refused(::rename((outside / "old").c_str(), (workspace / "in").c_str()))) return 2;
                               if (!refused(::link((workspace / "mine").c_str(), (outside / "out").c_str()))) return 3;
                               if (!refused(::link((outside / "old").c_str(), (workspace / "in").c_str()))) return 4;
                               return 0;
                           }),
              0);
    EXPECT_TRUE(fs::exists(workspace / "mine"));
    EXPECT_TRUE(fs::exists(outside / "old"));
}

TEST_F(SandboxTest, FilesAreMovedAndLinkedBetweenDirectoriesOfTheWorkspace) {
    writeFile(workspace / "a/one", "1");
    fs::create_directory(workspace / "b");
    EXPECT_EQ(statusInside(SandboxMode::WORKSPACE,
                           [&] {
                               if (::link((workspace / "a/one").c_str(), (workspace / "b/two").c_str()) != 0) return 1;
                               return ::rename((workspace / "a/one").c_str(), (workspace / "b/one").c_str()) == 0 ? 0
                                                                                                                  : 2;
                           }),
              0);
}

TEST_F(SandboxTest, AKernelOfTheFirstVersionWorksWithoutTheRightToMoveBetweenDirectories) {
    writeFile(workspace / "a/one", "1");
    fs::create_directory(workspace / "b");
    withLandlockVersion(1, [&] {
        const ProcessResult inside = run(SandboxMode::WORKSPACE, "echo x > file && mv a/one a/two && cat file a/two");
        EXPECT_EQ(inside.stdoutText, "x\n1");
        const ProcessResult outOf = run(SandboxMode::WORKSPACE, "echo x > " + (outside / "new").string());
        EXPECT_THAT(outOf.stderrText, testing::HasSubstr("Permission denied"));
        // That version refuses all of these; mv would copy instead.
        EXPECT_EQ(run(SandboxMode::WORKSPACE, "ln a/two b/two").exitCode, 1);
    });
    EXPECT_FALSE(fs::exists(workspace / "b/two"));
}

TEST_F(SandboxTest, RightsOfLaterKernelsAreNotTakenAway) {
    // Such a kernel knows a right to cut files short, which is beyond the mask.
    EXPECT_EQ(
        statusInside(SandboxMode::READ_ONLY, [&] { return ::truncate((outside / "old").c_str(), 1) == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(test::readFile(outside / "old"), "o");
}

/// Makes `root` the root directory of the calling process, for which it takes a user namespace if it has to.
bool enterRoot(const fs::path& root) {
    if (::chroot(root.c_str()) != 0 && (::unshare(CLONE_NEWUSER) != 0 || ::chroot(root.c_str()) != 0)) return false;
    return ::chdir("/") == 0;
}

TEST_F(SandboxTest, ASystemWithoutTmpAndDevicesIsNoFailure) {
    const auto statusBelow = [&](const fs::path& root) {
        return statusOfForked([&] {
            if (!enterRoot(root)) return 2;
            if (!applySandbox(planSandbox(SandboxMode::WORKSPACE, "/workspace"))) return 3;
            if (!UniqueFd(::open("/workspace/new", O_WRONLY | O_CREAT | O_CLOEXEC, 0600))) return 4;
            return UniqueFd(::open("/outside/new", O_WRONLY | O_CREAT | O_CLOEXEC, 0600)) ? 5 : 0;
        });
    };
    const fs::path root = workspace.parent_path();

    EXPECT_EQ(statusBelow(root), 0);
    // No rule for a directory can be made of a file.
    writeFile(root / "tmp", "");
    writeFile(root / "dev", "");
    EXPECT_EQ(statusBelow(root), 0);
}

TEST_F(SandboxTest, ReadOnlyModeWritesNowhere) {
    const test::TemporaryDirectory temporary;
    for (const std::string& target : {(workspace / "file").string(), (temporary / "file").string(),
                                      (outside / "file").string(), std::string("/dev/null")}) {
        const ProcessResult result = run(SandboxMode::READ_ONLY, "echo x > " + target);

        EXPECT_NE(result.exitCode, 0) << target;
        EXPECT_THAT(result.stderrText, testing::HasSubstr("Permission denied")) << target;
    }
    EXPECT_TRUE(fs::is_empty(workspace));
    EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(SandboxTest, ReadOnlyModeReadsAndExecutes) {
    EXPECT_EQ(run(SandboxMode::READ_ONLY, "cat " + (outside / "old").string()).stdoutText, "old\n");
}

TEST_F(SandboxTest, OpeningConnectionsIsRefusedCallByCall) {
    struct Call {
        const char* name;
        long number;
    };
    constexpr std::array<Call, 6> kCalls{{{"connect", SYS_connect},
                                          {"bind", SYS_bind},
                                          {"listen", SYS_listen},
                                          {"accept", SYS_accept},
                                          {"accept4", SYS_accept4},
                                          {"sendto", SYS_sendto}}};
    for (const SandboxMode mode : {SandboxMode::WORKSPACE, SandboxMode::READ_ONLY}) {
        for (const Call& call : kCalls) {
            const auto failure = [&call] {
                return ::syscall(call.number, -1, nullptr, 0, 0, nullptr, 0) == -1 ? errno : 0;
            };
            EXPECT_EQ(failure(), EBADF) << call.name;
            EXPECT_EQ(statusInside(mode, failure), EPERM) << call.name;
        }
    }
}

TEST_F(SandboxTest, SocketsAndThoseConnectedAlreadyGoOnWorking) {
    EXPECT_EQ(statusInside(SandboxMode::WORKSPACE,
                           [] {
                               const UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
                               if (!socket) return 1;
                               std::array<int, 2> pair{};
                               if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) return 2;
                               const UniqueFd left(pair[0]);
                               const UniqueFd right(pair[1]);
                               char byte = 'x';
                               iovec part{&byte, 1};
                               msghdr message{};
                               message.msg_iov = &part;
                               message.msg_iovlen = 1;
                               if (::sendmsg(left.get(), &message, 0) != 1) return 3;
                               return ::recv(right.get(), &byte, 1, 0) == 1 ? 0 : 4;
                           }),
              0);
}

TEST_F(SandboxTest, ACommandCanSeeThatItsLimitsAreOn) {
    const std::string status = run(SandboxMode::WORKSPACE, "exec cat /proc/self/status").stdoutText;

    EXPECT_EQ(statusField(status, "NoNewPrivs"), "1");
    EXPECT_EQ(statusField(status, "Seccomp"), "2");
}

TEST_F(SandboxTest, OffAppliesNothing) {
    EXPECT_EQ(run(SandboxMode::OFF, "echo x > " + (outside / "new").string()).exitCode, 0);
    EXPECT_EQ(statusInside(SandboxMode::OFF, [] { return ::connect(-1, nullptr, 0) == -1 ? errno : 0; }), EBADF);
}

TEST_F(SandboxTest, AWorkspaceThatIsGoneEndsTheChildWith126) {
    ProcessOptions options = shell("echo ran");
    options.sandbox = planSandbox(SandboxMode::WORKSPACE, workspace / "gone");

    const ProcessResult result = runProcess(options);

    EXPECT_TRUE(result.started);
    EXPECT_EQ(result.exitCode, 126);
    EXPECT_EQ(result.stdoutText, "");
}

TEST_F(SandboxTest, ACommandDoesNotRunIfAnyLimitCannotBeApplied) {
    for (const int call : {SYS_landlock_create_ruleset, SYS_landlock_add_rule, SYS_landlock_restrict_self, SYS_prctl}) {
        withRefusedCalls({{call, ENOSYS}}, [&] {
            for (const SandboxMode mode : {SandboxMode::WORKSPACE, SandboxMode::READ_ONLY}) {
                const ProcessResult result = run(mode, "echo ran");

                EXPECT_EQ(result.exitCode, 126) << call;
                EXPECT_EQ(result.stdoutText, "") << call;
            }
            EXPECT_EQ(run(SandboxMode::OFF, "echo ran").stdoutText, "ran\n") << call;
        });
    }
}

TEST_F(SandboxTest, AnExecutableWithoutTheRightIsNoFailureOfTheSandbox) {
    writeFile(workspace / "tool", "#!/bin/sh\necho no\n");
    ProcessOptions options = program({"./tool"});
    options.cwd = workspace;
    options.sandbox = planSandbox(SandboxMode::WORKSPACE, workspace);

    EXPECT_EQ(runProcess(options).exitCode, 127);
}

TEST_F(SandboxTest, TheExecutorItselfStaysUnrestricted) {
    ASSERT_EQ(run(SandboxMode::WORKSPACE, "true").exitCode, 0);

    writeFile(outside / "new", "x");

    EXPECT_EQ(statusField(test::readFile("/proc/self/status"), "Seccomp"),
              statusField(runProcess(program({"cat", "/proc/self/status"})).stdoutText, "Seccomp"));
}

}  // namespace
}  // namespace qm
