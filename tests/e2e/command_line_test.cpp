// What the command line prints and how the process ends, before anything runs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "e2e/executor_home.h"
#include "util/endpoints.h"

namespace qm::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kUsage = std::string("Quillmarsh native executor 3.0.1-native (Linux, headless)\n") +
                           "usage: qm-executor [options]\n" +  //
                           "  --gateway <url>       gateway base url, e.g. " + endpoints::kDefaultGatewayUrl + "\n" +
                           "  --token <token>       executor token\n" +                                     //
                           "  --name <name>         device display name\n" +                                //
                           "  --description <text>  device description\n" +                                 //
                           "  --mode <LIGHT|HEAVY>  executor mode\n" +                                      //
                           "  --data-dir <path>     data directory (default $HOME/.platform-executor)\n" +  //
                           "  --save                persist the provided settings and continue\n" +         //
                           "  --status              print effective settings and exit\n" +                  //
                           "  --login-password      sign in with email + password and enroll\n" +           //
                           "  --email <email>       email for --login-password (else prompted)\n" +         //
                           "  --serve               keep running while unconfigured\n" +                    //
                           "  --public-url <url>    account site (default " + endpoints::kAccountSiteUrl + ")\n" +
                           "  --help                show this help\n";

const std::string kTokenHint =
    "no executor token configured.\n"
    "run: qm-executor --login-password        (sign in with your account)\n"
    "  or qm-executor --gateway <url> --token <token> --save\n"
    "  or qm-executor --serve                   (idle until configured)\n";

constexpr ExitStatus kSuccess{.code = 0};
constexpr ExitStatus kUsageError{.code = 2};

void expectNothingTouched(const ExecutorHome& home) {
    EXPECT_TRUE(std::filesystem::is_empty(home.home())) << "files appeared in " << home.home();
}

TEST(CommandLine, HelpPrintsTheUsageAndEndsWithStatus0) {
    for (const auto* option : {"--help", "-h"}) {
        const ExecutorHome home;

        const auto run = home.run({option});

        EXPECT_EQ(run.output, kUsage);
        EXPECT_EQ(run.errorOutput, "");
        EXPECT_EQ(run.status, kSuccess);
        expectNothingTouched(home);
    }
}

TEST(CommandLine, HelpEndsAtOnceWhateverFollowsIt) {
    const ExecutorHome home;

    const auto run = home.run({"--token", "abc", "--help", "--no-such-option"});

    EXPECT_EQ(run.output, kUsage);
    EXPECT_EQ(run.status, kSuccess);
    expectNothingTouched(home);
}

TEST(CommandLine, AnUnknownOptionIsNamedBeforeTheUsageEvenIfHelpFollows) {
    const ExecutorHome home;

    const auto run = home.run({"--no-such-option", "--help"});

    EXPECT_EQ(run.output, "unknown option: --no-such-option\n" + kUsage);
    EXPECT_EQ(run.errorOutput, "");
    EXPECT_EQ(run.status, kUsageError);
    expectNothingTouched(home);
}

TEST(CommandLine, OptionsAreMatchedExactly) {
    for (const auto* option : {"", "-", "--", "--Help", "--token=abc", "--tok", "help", " --help"}) {
        const ExecutorHome home;

        const auto run = home.run({option});

        EXPECT_EQ(run.output, "unknown option: " + std::string(option) + "\n" + kUsage);
        EXPECT_EQ(run.status, kUsageError);
    }
}

TEST(CommandLine, AnOptionWithoutItsValueIsNamed) {
    for (const auto* option :
         {"--gateway", "--token", "--name", "--description", "--mode", "--data-dir", "--email", "--public-url"}) {
        const ExecutorHome home;

        const auto run = home.run({"--serve", option});

        EXPECT_EQ(run.output, "missing value for " + std::string(option) + "\n");
        EXPECT_EQ(run.errorOutput, "");
        EXPECT_EQ(run.status, kUsageError);
        expectNothingTouched(home);
    }
}

TEST(CommandLine, AValueMayLookLikeAnOption) {
    const ExecutorHome home;

    const auto run = home.run({"--name", "--help", "--status"});

    EXPECT_THAT(run.output, HasSubstr("\nname     : --help\n"));
    EXPECT_EQ(run.status, kSuccess);
}

TEST(CommandLine, OfTwoOptionsOfOneNameTheLaterWins) {
    const ExecutorHome home;

    const auto run = home.run({"--name", "first", "--status", "--name", "second"});

    EXPECT_THAT(run.output, HasSubstr("\nname     : second\n"));
}

TEST(CommandLine, WithoutATokenTheHintIsPrinted) {
    const ExecutorHome home;

    const auto run = home.run(std::vector<std::string>{});

    EXPECT_EQ(run.output, kTokenHint);
    EXPECT_EQ(run.errorOutput, "");
    EXPECT_EQ(run.status, kUsageError);
}

TEST(CommandLine, StandaloneSettingsDontWaiveTheToken) {
    const ExecutorHome home;
    home.writeDataFile("executor.properties", "connection=STANDALONE\n");

    const auto run = home.run(std::vector<std::string>{});

    EXPECT_EQ(run.output, kTokenHint);
    EXPECT_EQ(run.status, kUsageError);
}

TEST(CommandLine, SavingWithoutATokenSavesAndThenPrintsTheHint) {
    const ExecutorHome home;

    const auto run = home.run({"--name", "box", "--save"});

    EXPECT_EQ(run.output, "settings saved to " + home.dataDirectory().string() + "\n" + kTokenHint);
    EXPECT_EQ(run.status, kUsageError);
    EXPECT_THAT(home.dataFile("executor.properties"), HasSubstr("\nname=box\n"));
}

TEST(CommandLine, TheDataDirectoryIsTheOptionsThenTheEnvironmentsThenBelowHome) {
    const ExecutorHome home;
    const auto byOption = home.home() / "option";
    const auto byEnvironment = home.home() / "environment";
    const auto firstLine = [](const std::filesystem::path& path) { return "data dir : " + path.string() + "\n"; };

    auto all = home.setup({"--data-dir", byOption.string(), "--status"});
    all.environment["PLATFORM_EXECUTOR_DATA_DIR"] = byEnvironment.string();
    EXPECT_THAT(ExecutorHome::runToEnd(all).output, StartsWith(firstLine(byOption)));
    EXPECT_FALSE(std::filesystem::exists(byEnvironment));

    auto environment = home.setup({"--status"});
    environment.environment["PLATFORM_EXECUTOR_DATA_DIR"] = byEnvironment.string();
    EXPECT_THAT(ExecutorHome::runToEnd(environment).output, StartsWith(firstLine(byEnvironment)));

    auto empty = home.setup({"--data-dir", "", "--status"});
    empty.environment["PLATFORM_EXECUTOR_DATA_DIR"] = "";
    EXPECT_THAT(ExecutorHome::runToEnd(empty).output, StartsWith(firstLine(home.dataDirectory())));

    auto homeless = home.setup({"--status"});
    homeless.environment.erase("HOME");
    homeless.unset.emplace_back("HOME");
    EXPECT_THAT(ExecutorHome::runToEnd(homeless).output, StartsWith("data dir : ./.platform-executor\n"));
}

}  // namespace
}  // namespace qm::test
