#include "device/process_image.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "device/process_test_support.h"
#include "device/run_process.h"
#include "support/temporary_directory.h"

namespace qm {
namespace {

using test::program;
using test::shell;
using test::TemporaryDirectory;
using test::writeFile;

void makeScript(const std::filesystem::path& file, const std::string& text) {
    writeFile(file, text);
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
}

TEST(ProcessImage, InheritsTheEnvironmentIfNoneIsNamed) {
    const test::EnvironmentKept environment;
    ::setenv("QM_TEST_INHERITED", "yes", 1);

    EXPECT_EQ(runProcess(shell("echo $QM_TEST_INHERITED")).stdoutText, "yes\n");
}

TEST(ProcessImage, GetsExactlyTheEnvironmentNamed) {
    ProcessOptions options = program({"/usr/bin/env"});
    options.env = {{{"B", "2=3"}, {"A", ""}}};

    EXPECT_EQ(runProcess(options).stdoutText, "A=\nB=2=3\n");
}

TEST(ProcessImage, GetsAnEmptyEnvironmentIfThatIsNamed) {
    const test::EnvironmentKept environment;
    ::setenv("QM_TEST_INHERITED", "yes", 1);
    ProcessOptions options = program({"/usr/bin/env"});
    options.env.emplace();

    const ProcessResult result = runProcess(options);

    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.exitCode, 0);
}

TEST(ProcessImage, GetsNoVariablesWhoseNamesNoneCanHave) {
    ProcessOptions options = program({"/usr/bin/env"});
    options.env = {{{"", "1"}, {"A=B", "2"}, {std::string("C\0D", 3), "3"}, {"E", "4"}}};

    EXPECT_EQ(runProcess(options).stdoutText, "E=4\n");
}

TEST(ProcessImage, SeesNoPathThatItsEnvironmentDoesNotHold) {
    ProcessOptions options = program({"env"});
    options.env = {{{"A", "1"}}};

    // Found through the system's default path all the same.
    EXPECT_EQ(runProcess(options).stdoutText, "A=1\n");
}

TEST(ProcessImage, LooksForItsProgramInItsOwnEnvironmentAfterEnteringItsDirectory) {
    const TemporaryDirectory directory;
    makeScript(directory / "work/bin/tool", "#!/bin/sh\necho relative\n");
    ProcessOptions options = program({"tool"});
    options.cwd = directory / "work";
    options.env = {{{"PATH", "/nowhere:bin"}}};

    EXPECT_EQ(runProcess(options).stdoutText, "relative\n");
}

TEST(ProcessImage, TakesAnEmptyPathElementForItsDirectory) {
    const TemporaryDirectory directory;
    makeScript(directory / "tool", "#!/bin/sh\necho here\n");
    for (const char* path : {"", ":/nowhere", "/nowhere::/elsewhere", "/nowhere:"}) {
        ProcessOptions options = program({"tool"});
        options.cwd = directory.path();
        options.env = {{{"PATH", path}}};

        EXPECT_EQ(runProcess(options).stdoutText, "here\n") << path;
    }
}

TEST(ProcessImage, PassesOverFilesOfTheNameThatItMayNotExecute) {
    const TemporaryDirectory directory;
    writeFile(directory / "first/tool", "#!/bin/sh\necho first\n");
    makeScript(directory / "second/tool", "#!/bin/sh\necho second\n");
    writeFile(directory / "file", "");
    ProcessOptions options = program({"tool"});
    options.env = {{{"PATH", (directory / "file").string() + ":" + (directory / "first").string() + ":" +
                                 (directory / "second").string()}}};

    EXPECT_EQ(runProcess(options).stdoutText, "second\n");
}

TEST(ProcessImage, GivesAFileThatIsNoBinaryToTheShell) {
    const TemporaryDirectory directory;
    makeScript(directory / "tool", "echo \"$0|$1|$2|$#\"\n");
    ProcessOptions searched = program({"tool", "a b", "c"});
    searched.env = {{{"PATH", directory.path().string()}}};
    const std::string file = (directory / "tool").string();

    EXPECT_EQ(runProcess(searched).stdoutText, file + "|a b|c|2\n");
    EXPECT_EQ(runProcess(program({file})).stdoutText, file + "|||0\n");
}

TEST(ProcessImage, DoesNotExecuteAFileWithoutTheRight) {
    const TemporaryDirectory directory;
    writeFile(directory / "tool", "#!/bin/sh\necho no\n");

    const ProcessResult result = runProcess(program({(directory / "tool").string()}));

    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(result.stdoutText, "");
}

}  // namespace
}  // namespace qm
