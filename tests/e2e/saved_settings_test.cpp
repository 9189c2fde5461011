// --save and --status: what is shown, what is kept, and what the command line can't change.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// The value that --status shows behind `label`, with more options in front of it.
std::string statusValue(const ExecutorHome& home, const std::string& label, std::vector<std::string> options = {}) {
    options.emplace_back("--status");
    const auto output = home.run(std::move(options)).output;
    const auto start = output.find(label + ": ");
    if (start == std::string::npos) return "no line of " + label + " in " + output;
    const auto value = start + label.size() + 2;
    return output.substr(value, output.find('\n', value) - value);
}

std::string shownToken(const std::string& token) {
    const ExecutorHome home;
    return statusValue(home, "token    ", {"--token", token});
}

TEST(Status, ShowsTheSixEffectiveSettings) {
    const ExecutorHome home;
    home.writeDataFile("instance-id", " 0a1b2c3d-0000-4000-8000-0123456789ab\n");

    const auto run = home.run({"--gateway", "http://gateway.test:8080/base", "--token", "abcdefghijkl", "--name",
                               "my box", "--mode", "HEAVY", "--status"});

    EXPECT_EQ(run.output, "data dir : " + home.dataDirectory().string() +
                              "\n"
                              "gateway  : http://gateway.test:8080/base\n"
                              "mode     : HEAVY\n"
                              "name     : my box\n"
                              "nodeId   : 0a1b2c3d-0000-4000-8000-0123456789ab\n"
                              "token    : abcd...ijkl\n");
    EXPECT_EQ(run.errorOutput, "");
    EXPECT_EQ(run.status, ExitStatus{});
    EXPECT_FALSE(std::filesystem::exists(home.dataDirectory() / "executor.properties")) << "--status must not save";
}

TEST(Status, MasksTheToken) {
    const ExecutorHome unconfigured;
    EXPECT_EQ(statusValue(unconfigured, "token    "), "(not configured)");
    EXPECT_EQ(shownToken("x"), "********");
    EXPECT_EQ(shownToken("12345678"), "********");
    EXPECT_EQ(shownToken("123456789"), "1234...6789");
}

TEST(Status, MasksATokenAtCodePoints) {
    EXPECT_EQ(shownToken("äöüßäöüß"), "********");
    EXPECT_EQ(shownToken("äöüß-ÄÖÜ€"), "äöüß...ÄÖÜ€");
}

TEST(Status, TheIdentityIsMadeOnceAndKept) {
    const ExecutorHome home;

    const auto first = statusValue(home, "nodeId   ");
    const auto second = statusValue(home, "nodeId   ");

    EXPECT_THAT(first, MatchesRegex("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
    EXPECT_EQ(second, first);
    EXPECT_THAT(home.dataFile("instance-id"), HasSubstr(first));
}

TEST(Save, KeepsTheSettingsAndTheTokenInFilesOfTheirOwn) {
    const ExecutorHome home;

    const auto run = home.run({"--gateway", "http://host:1///", "--token", "secret-token", "--name", "Ünï box",
                               "--description", " leading space", "--mode", "heavy", "--save", "--status"});

    EXPECT_THAT(run.output, testing::StartsWith("settings saved to " + home.dataDirectory().string() +
                                                "\ndata dir : " + home.dataDirectory().string() +
                                                "\ngateway  : http://host:1\nmode     : HEAVY\n"));
    EXPECT_EQ(run.status, ExitStatus{});
    EXPECT_EQ(home.dataFile("executor.properties"),
              "# quillmarsh Executor local settings (credential stored separately)\n"
              "gatewayUrl=http\\://host\\:1\n"
              "mode=HEAVY\n"
              "name=\\u00DCn\\u00EF box\n"
              "description=\\ leading space\n"
              "connection=GATEWAY\n"
              "authMode=MANUAL\n"
              "accountEmail=\n"
              "autoUpdate=true\n");
    EXPECT_EQ(home.dataFile("executor-credential"), "c2VjcmV0LXRva2Vu");
    struct stat status {};
    ASSERT_EQ(stat((home.dataDirectory() / "executor-credential").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST(Save, WhatWasSavedIsThereAtTheNextStart) {
    const ExecutorHome home;
    home.run({"--gateway", "http://host:1", "--token", "secret-token", "--name", "Ünï box", "--save", "--status"});

    EXPECT_EQ(statusValue(home, "gateway  "), "http://host:1");
    EXPECT_EQ(statusValue(home, "name     "), "Ünï box");
    EXPECT_EQ(statusValue(home, "token    "), "secr...oken");
}

TEST(Save, WithoutTheOptionNothingIsKept) {
    const ExecutorHome home;

    home.run({"--gateway", "http://host:1", "--token", "secret-token", "--status"});

    EXPECT_EQ(statusValue(home, "gateway  "), "http://127.0.0.1:9090");
    EXPECT_EQ(statusValue(home, "token    "), "(not configured)");
}

TEST(Save, FailsBeforeThePropertiesIfTheTokenCantBeWritten) {
    const ExecutorHome home;
    writeFile(home.home() / "file", "");
    const auto dataDirectory = home.home() / "file" / "data";

    const auto run = home.run({"--data-dir", dataDirectory.string(), "--token", "secret-token", "--save", "--status"});

    EXPECT_EQ(run.output,
              "failed to save settings: unable to write " + (dataDirectory / "executor-credential").string() + "\n");
    EXPECT_EQ(run.status, (ExitStatus{.code = 1}));
}

TEST(Save, FailsIfThePropertiesCantBeWritten) {
    const ExecutorHome home;
    std::filesystem::create_directories(home.dataDirectory() / "executor.properties");

    const auto run = home.run({"--token", "secret-token", "--save"});

    EXPECT_EQ(run.output, "failed to save settings: unable to write executor.properties\n");
    EXPECT_EQ(run.status, (ExitStatus{.code = 1}));
    EXPECT_EQ(home.dataFile("executor-credential"), "c2VjcmV0LXRva2Vu") << "the credential is the new one already";
}

TEST(Save, AFullDiskLeavesWhatWasSaved) {
    const ExecutorHome home;
    home.run({"--gateway", "http://host:1", "--token", "secret-token", "--name", "box", "--save", "--status"});
    const auto properties = home.dataFile("executor.properties");

    // No file may be longer than 512 bytes.
    const auto run = ExecutorHome::runToEnd(ExecutorHome::prepared(
        "ulimit -f 1", home.setup({"--name", "other", "--description", std::string(1000, 'd'), "--save"})));

    EXPECT_EQ(run.output, "failed to save settings: unable to write executor.properties\n");
    EXPECT_EQ(run.status, (ExitStatus{.code = 1}));
    EXPECT_EQ(home.dataFile("executor.properties"), properties);
    EXPECT_EQ(statusValue(home, "name     "), "box");
    EXPECT_EQ(statusValue(home, "token    "), "secr...oken");
}

TEST(Overlay, AnUnknownModeMeansLight) {
    const ExecutorHome home;
    EXPECT_EQ(statusValue(home, "mode     ", {"--mode", "fast"}), "LIGHT");
    EXPECT_EQ(statusValue(home, "mode     ", {"--mode", "heavy"}), "HEAVY");
}

TEST(Overlay, ModeLightLeavesASavedHeavyAsItIs) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "mode=HEAVY\n");
    EXPECT_EQ(statusValue(home, "mode     ", {"--mode", "LIGHT"}), "HEAVY");
    EXPECT_EQ(statusValue(home, "mode     ", {"--mode", "light"}), "LIGHT") << "compared as typed";
}

TEST(Overlay, AGatewayEqualToTheDefaultIsNotApplied) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "gatewayUrl=http\\://saved\\:1\n");
    EXPECT_EQ(statusValue(home, "gateway  ", {"--gateway", "http://127.0.0.1:9090"}), "http://saved:1");
    EXPECT_EQ(statusValue(home, "gateway  ", {"--gateway", "http://127.0.0.1:9090/"}), "http://127.0.0.1:9090")
        << "compared as typed, before slashes are cut";
}

TEST(Overlay, ADescriptionEqualToTheDefaultIsNotApplied) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "description=mine\n");

    home.run({"--description", "Quillmarsh native executor", "--save", "--status"});

    EXPECT_THAT(home.dataFile("executor.properties"), HasSubstr("\ndescription=mine\n"));
}

TEST(Overlay, EmptyTokenAndNameAreNotApplied) {
    const ExecutorHome home;
    home.run({"--token", "secret-token", "--name", "box", "--save", "--status"});
    EXPECT_EQ(statusValue(home, "token    ", {"--token", "", "--name", ""}), "secr...oken");
    EXPECT_EQ(statusValue(home, "name     ", {"--token", "", "--name", ""}), "box");
}

TEST(Settings, ATokenOfAnOlderFileMovesToTheCredential) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "executorToken=legacy-token\n");

    EXPECT_EQ(statusValue(home, "token    "), "lega...oken");

    EXPECT_EQ(home.dataFile("executor-credential"), "bGVnYWN5LXRva2Vu");
    EXPECT_THAT(home.dataFile("executor.properties"), HasSubstr("executorToken")) << "until the next save";
    home.run({"--save", "--status"});
    EXPECT_THAT(home.dataFile("executor.properties"), Not(HasSubstr("executorToken")));
}

}  // namespace
}  // namespace qm::test
