#include "device/process_child.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "device/process_host.h"
#include "device/process_test_support.h"
#include "device/refused_system_calls.h"
#include "device/run_process.h"
#include "support/temporary_directory.h"
#include "support/wait_until.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using test::awaitEnd;
using test::forkProcess;
using test::OrphanAdoption;
using test::pidIn;
using test::program;
using test::readFile;
using test::shell;
using test::statusField;
using test::statusOfForked;
using test::TemporaryDirectory;
using test::withRefusedCalls;
using test::writeFile;

/// The shell lists its own descriptors through another process, so that those of the listing aren't among them.
ProcessOptions listDescriptors() {
    return shell("ls /proc/$$/fd; true");
}

/// Descriptors of this process that close on exec doesn't apply to, as a listing would show them.
std::string descriptorsKeptOnExec() {
    std::set<int> kept{0, 1, 2};
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const int flags = ::fcntl(fd, F_GETFD);
        if (flags >= 0 && (flags & FD_CLOEXEC) == 0) kept.insert(fd);
    }
    std::string listing;
    std::set<std::string> names;
    for (const int fd : kept)
        names.insert(std::to_string(fd));
    for (const std::string& name : names)
        listing += name + "\n";
    return listing;
}

TEST(ProcessChild, SeesNoDescriptorsButTheStandardOnes) {
    const UniqueFd open(::open("/dev/null", O_RDONLY));  // NOLINT: inherited on purpose.
    ASSERT_TRUE(open);

    EXPECT_EQ(runProcess(listDescriptors()).stdoutText, "0\n1\n2\n");
}

TEST(ProcessChild, SeesNoDescriptorsOfANeighbour) {
    const auto control = std::make_shared<ProcessControl>();
    const TemporaryDirectory directory;
    ProcessOptions neighbour = shell("echo $$ > pid; sleep 100");
    neighbour.cwd = directory.path();
    std::jthread running([&] { runProcess(neighbour, control); });
    pidIn(directory / "pid");

    // Also on a kernel that can't close all descriptors at once.
    withRefusedCalls({{SYS_close_range, ENOSYS}},
                     [] { EXPECT_EQ(runProcess(listDescriptors()).stdoutText, descriptorsKeptOnExec()); });
    control->kill();
}

TEST(ProcessChild, ReadsNothingFromStandardInput) {
    EXPECT_EQ(runProcess(shell("cat; readlink /proc/self/fd/0")).stdoutText, "/dev/null\n");
}

TEST(ProcessChild, WorksForAProcessThatHasNoStandardStreamsItself) {
    EXPECT_EQ(statusOfForked([] {
                  for (const int fd : {0, 1, 2})
                      ::close(fd);
                  const auto control = std::make_shared<ProcessControl>();
                  const ProcessResult result =
                      runProcess(shell("echo out; echo err >&2; cat; ls /proc/$$/fd"), control);
                  return result.stdoutText == "out\n0\n1\n2\n" && result.stderrText == "err\n" ? 0 : 1;
              }),
              0);
}

TEST(ProcessChild, StartsWithNoSignalBlockedOrIgnored) {
    EXPECT_EQ(statusOfForked([] {
                  for (const int number : {SIGPIPE, SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGTTOU})
                      ::signal(number, SIG_IGN);
                  sigset_t all;
                  ::sigfillset(&all);
                  EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, &all, nullptr), 0);

                  const std::string status = runProcess(program({"cat", "/proc/self/status"})).stdoutText;

                  EXPECT_EQ(statusField(status, "SigBlk"), "0000000000000000");
                  EXPECT_EQ(statusField(status, "SigIgn"), "0000000000000000");
                  EXPECT_EQ(statusField(status, "SigPnd"), "0000000000000000");
                  sigset_t now;
                  EXPECT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &now), 0);
                  EXPECT_EQ(::sigismember(&now, SIGTERM), 1) << "the caller's own mask is put back";
                  return 0;
              }),
              0);
}

TEST(ProcessChild, HasNoLimitsOfASandboxThatWasNotAskedFor) {
    const std::string own = readFile("/proc/self/status");

    const std::string status = runProcess(program({"cat", "/proc/self/status"})).stdoutText;

    EXPECT_EQ(statusField(status, "NoNewPrivs"), statusField(own, "NoNewPrivs"));
    EXPECT_EQ(statusField(status, "Seccomp"), statusField(own, "Seccomp"));
}

TEST(ProcessChild, LeadsAProcessGroupOfItsOwnWithoutTerminal) {
    // The fields are the group and the terminal.
    const std::string line = runProcess(shell("cut -d' ' -f5,7 /proc/$$/stat; echo $$")).stdoutText;

    const std::string group = line.substr(0, line.find(' '));
    EXPECT_EQ(line, group + " 0\n" + group + "\n");
}

TEST(ProcessChild, CannotOpenATerminalAlsoIfTheExecutorHasOne) {
    EXPECT_EQ(statusOfForked([] {
                  ::signal(SIGHUP, SIG_IGN);  // Giving the terminal back at the end hangs up.
                  const UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
                  if (::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0 || ::setsid() < 0) return 2;
                  const UniqueFd terminal(::open(::ptsname(master.get()), O_RDWR | O_CLOEXEC));
                  if (::ioctl(terminal.get(), TIOCSCTTY, 0) != 0) return 3;
                  if (!UniqueFd(::open("/dev/tty", O_RDWR | O_CLOEXEC))) return 4;

                  const ProcessResult result =
                      runProcess(shell("(: </dev/tty) 2>/dev/null && echo opened || echo refused"));
                  if (!UniqueFd(::open("/dev/tty", O_RDWR | O_CLOEXEC))) return 5;
                  return result.stdoutText == "refused\n" ? 0 : 1;
              }),
              0);
}

TEST(ProcessChild, AWriterIntoAClosedPipeEndsQuietly) {
    EXPECT_EQ(statusOfForked([] {
                  ::signal(SIGPIPE, SIG_IGN);

                  const ProcessResult result = runProcess(shell("yes | head -1"));

                  EXPECT_EQ(result.stdoutText, "y\n");
                  EXPECT_EQ(result.stderrText, "");
                  return result.exitCode;
              }),
              0);
}

TEST(ProcessChild, ProgramsThatChangeProcessGroupsWork) {
    const ProcessResult result = runProcess(shell("timeout 1 sleep 9"));

    EXPECT_EQ(result.exitCode, 124);
    EXPECT_LT(result.durationMs, 8000);
}

TEST(ProcessChild, DiesWithAProcessThatDiesAbruptly) {
    const TemporaryDirectory directory;
    const OrphanAdoption adoption;
    ProcessOptions options = shell("echo $$ > pid; exec sleep 100");
    options.cwd = directory.path();
    const pid_t executor = forkProcess([&] {
        runProcess(options);
        return 0;
    });
    const pid_t child = pidIn(directory / "pid");

    ::kill(executor, SIGKILL);

    EXPECT_EQ(awaitEnd(executor), 128 + SIGKILL);
    EXPECT_EQ(awaitEnd(child), 128 + SIGKILL);
}

/// The hard limit of descriptors. Makes this process one that was started with a soft limit of 200 and has raised it.
std::string startWith200Descriptors() {
    rlimit limit{};
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_GT(limit.rlim_max, 200U);
    limit.rlim_cur = 200;
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);

    prepareProcessHost();

    rlimit raised{};
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &raised), 0);
    EXPECT_EQ(raised.rlim_cur, limit.rlim_max);
    return std::to_string(limit.rlim_max);
}

TEST(ProcessChild, GetsTheDescriptorLimitBackThatTheExecutorWasStartedWith) {
    EXPECT_EQ(statusOfForked([] {
                  const std::string hard = startWith200Descriptors();
                  EXPECT_EQ(runProcess(shell("ulimit -Sn; ulimit -Hn")).stdoutText, "200\n" + hard + "\n");
                  return 0;
              }),
              0);
}

TEST(ProcessChild, StatusesAreReapedAlsoIfTheExecutorWasStartedWithThemIgnored) {
    EXPECT_EQ(statusOfForked([] {
                  ::signal(SIGCHLD, SIG_IGN);
                  // Nobody can know the status, but the run ends.
                  if (runProcess(shell("exit 3")).exitCode != -1) return 2;
                  prepareProcessHost();
                  return runProcess(shell("exit 3")).exitCode == 3 ? 0 : 1;
              }),
              0);
}

TEST(StartDetached, RefusesToStartNothing) {
    EXPECT_EQ(startDetached({}), "startDetached 需要 args");
}

TEST(StartDetached, StartsAProcessInASessionOfItsOwnThatIsNoChildOfThisOne) {
    const TemporaryDirectory directory;
    const OrphanAdoption adoption;
    const std::string script = "cd " + directory.path().string() +
                               "; exec > report; cut -d' ' -f6,7 /proc/$$/stat; ls /proc/$$/fd; "
                               "exec > pid; echo $$; exec >> report; exec grep Sig /proc/self/status";

    EXPECT_EQ(startDetached({"sh", "-c", script}), "");

    EXPECT_EQ(awaitEnd(pidIn(directory / "pid")), 0);
    const std::string report = readFile(directory / "report");
    const std::string session = report.substr(0, report.find(' '));
    EXPECT_NE(session, std::to_string(::getsid(0)));
    EXPECT_THAT(report, testing::StartsWith(session + " 0\n0\n1\n2\nSig"));
    EXPECT_EQ(statusField(report, "SigBlk"), "0000000000000000");
    EXPECT_EQ(statusField(report, "SigIgn"), "0000000000000000");
}

TEST(StartDetached, TheProcessOutlivesTheExecutor) {
    const TemporaryDirectory directory;
    const OrphanAdoption adoption;
    const std::string go = (directory / "go").string();
    const std::string script = "while ! [ -e " + go + " ]; do sleep 0.01; done; echo $$ > " + go + "ne";

    ASSERT_EQ(statusOfForked([&] { return startDetached({"sh", "-c", script}).empty() ? 0 : 1; }), 0);
    writeFile(go, "");

    EXPECT_EQ(awaitEnd(pidIn(directory / "gone")), 0);
}

TEST(StartDetached, TheProcessGetsTheDescriptorLimitBackThatTheExecutorWasStartedWith) {
    const TemporaryDirectory directory;
    const OrphanAdoption adoption;
    const std::string script = "cd " + directory.path().string() + "; (ulimit -Sn; ulimit -Hn) > report; echo $$ > pid";

    ASSERT_EQ(statusOfForked([&] {
                  writeFile(directory / "expected", "200\n" + startWith200Descriptors() + "\n");
                  return startDetached({"sh", "-c", script}).empty() ? 0 : 1;
              }),
              0);

    EXPECT_EQ(awaitEnd(pidIn(directory / "pid")), 0);
    EXPECT_EQ(readFile(directory / "report"), readFile(directory / "expected"));
}

TEST(StartDetached, AProgramThatIsNotThereIsNotNoticed) {
    const OrphanAdoption adoption;

    EXPECT_EQ(startDetached({"no-such-program-anywhere"}), "");

    EXPECT_EQ(awaitEnd(-1), 127);
}

TEST(StartDetached, WithoutANewProcessItSaysSo) {
    withRefusedCalls({{SYS_clone, EAGAIN}, {SYS_clone3, EAGAIN}, {SYS_fork, EAGAIN}, {SYS_vfork, EAGAIN}},
                     [] { EXPECT_EQ(startDetached({"true"}), "fork 失败"); });
}

}  // namespace
}  // namespace qm
