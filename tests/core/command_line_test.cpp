#include "core/command_line.h"

#include <gtest/gtest.h>

namespace qm {
namespace {

CommandLine accepted(const std::vector<std::string>& arguments) {
    auto parsed = parseCommandLine(arguments);
    EXPECT_TRUE(std::holds_alternative<CommandLine>(parsed));
    return std::get<CommandLine>(std::move(parsed));
}

CommandLineExit refused(const std::vector<std::string>& arguments) {
    auto parsed = parseCommandLine(arguments);
    EXPECT_TRUE(std::holds_alternative<CommandLineExit>(parsed));
    return std::get<CommandLineExit>(std::move(parsed));
}

TEST(CommandLine, IsTheDefaultsWithoutArguments) {
    const CommandLine line = accepted({});

    EXPECT_TRUE(line.dataDir.empty());
    EXPECT_EQ(line.publicUrl, endpoints::kAccountSiteUrl);
    EXPECT_EQ(line.email, "");
    EXPECT_FALSE(line.login || line.serve || line.status || line.save);
    EXPECT_EQ(line.overrides.gatewayUrl, "http://127.0.0.1:9090");
}

TEST(CommandLine, TakesEveryOption) {
    const CommandLine line = accepted(
        {"--gateway", "http://g", "--token",      "t",       "--name", "n",        "--description",    "d",
         "--mode",    "heavy",    "--data-dir",   "/x",      "--save", "--status", "--login-password", "--email",
         "e@x",       "--serve",  "--public-url", "http://p"});

    EXPECT_EQ(line.overrides.gatewayUrl, "http://g");
    EXPECT_EQ(line.overrides.executorToken, "t");
    EXPECT_EQ(line.overrides.name, "n");
    EXPECT_EQ(line.overrides.description, "d");
    EXPECT_EQ(line.overrides.mode, "heavy");
    EXPECT_EQ(line.dataDir, "/x");
    EXPECT_EQ(line.email, "e@x");
    EXPECT_EQ(line.publicUrl, "http://p");
    EXPECT_TRUE(line.save && line.status && line.login && line.serve);
}

TEST(CommandLine, LetsTheLaterOfTwoOptionsWin) {
    EXPECT_EQ(accepted({"--name", "first", "--name", "second"}).overrides.name, "second");
}

TEST(CommandLine, TakesAnOptionLookalikeAsAValue) {
    EXPECT_EQ(accepted({"--name", "--help"}).overrides.name, "--help");
}

TEST(CommandLine, RefusesAValueOptionThatStandsLast) {
    for (const std::string name :
         {"--gateway", "--token", "--name", "--description", "--mode", "--data-dir", "--email", "--public-url"}) {
        const CommandLineExit end = refused({name});
        EXPECT_EQ(end.status, 2);
        EXPECT_EQ(end.output, "missing value for " + name + "\n");
    }
}

TEST(CommandLine, RefusesAnUnknownOptionAndShowsTheUsage) {
    const CommandLineExit end = refused({"--serve", "-v"});

    EXPECT_EQ(end.status, 2);
    EXPECT_EQ(end.output, "unknown option: -v\n" + usageText());
}

TEST(CommandLine, MatchesOptionsExactly) {
    EXPECT_EQ(refused({"--name=x"}).output.substr(0, 25), "unknown option: --name=x\n");
    EXPECT_EQ(refused({"--Save"}).status, 2);
    EXPECT_EQ(refused({""}).output.substr(0, 17), "unknown option: \n");
}

TEST(CommandLine, HelpEndsTheParsingWhateverFollows) {
    for (const char* help : {"--help", "-h"}) {
        const CommandLineExit end = refused({help, "--nonsense"});
        EXPECT_EQ(end.status, 0);
        EXPECT_EQ(end.output, usageText());
    }
    EXPECT_EQ(refused({"--nonsense", "--help"}).status, 2);
}

TEST(CommandLine, TheUsageReadsToTheByte) {
    const std::string site = endpoints::kAccountSiteUrl;
    EXPECT_EQ(usageText(),
              "Quillmarsh native executor 3.0.1-native (Linux, headless)\n"
              "usage: qm-executor [options]\n"
              "  --gateway <url>       gateway base url, e.g. " +
                  site +
                  "/gateway\n"
                  "  --token <token>       executor token\n"
                  "  --name <name>         device display name\n"
                  "  --description <text>  device description\n"
                  "  --mode <LIGHT|HEAVY>  executor mode\n"
                  "  --data-dir <path>     data directory (default $HOME/.platform-executor)\n"
                  "  --save                persist the provided settings and continue\n"
                  "  --status              print effective settings and exit\n"
                  "  --login-password      sign in with email + password and enroll\n"
                  "  --email <email>       email for --login-password (else prompted)\n"
                  "  --serve               keep running while unconfigured\n"
                  "  --public-url <url>    account site (default " +
                  site +
                  ")\n"
                  "  --help                show this help\n");
}

TEST(Overlay, TakesWhatDiffersFromTheDefault) {
    Settings settings;
    settings.mode = "LIGHT";
    Settings typed;
    typed.gatewayUrl = "http://host:1///";
    typed.description = "mine";
    typed.mode = "heavy";
    typed.executorToken = "token";
    typed.name = "box";

    overlaySettings(settings, typed);

    EXPECT_EQ(settings.gatewayUrl, "http://host:1");
    EXPECT_EQ(settings.description, "mine");
    EXPECT_EQ(settings.mode, "HEAVY");
    EXPECT_EQ(settings.executorToken, "token");
    EXPECT_EQ(settings.name, "box");
}

TEST(Overlay, LeavesSavedValuesWhereTheDefaultWasTyped) {
    Settings settings;
    settings.gatewayUrl = "http://saved";
    settings.description = "saved";
    settings.mode = "HEAVY";
    settings.executorToken = "saved";
    settings.name = "saved";
    const Settings typed;  // As with "--mode LIGHT" and the other defaults typed out.

    overlaySettings(settings, typed);

    EXPECT_EQ(settings.gatewayUrl, "http://saved");
    EXPECT_EQ(settings.description, "saved");
    EXPECT_EQ(settings.mode, "HEAVY");
    EXPECT_EQ(settings.executorToken, "saved");
    EXPECT_EQ(settings.name, "saved");
}

TEST(Overlay, ComparesAsTyped) {
    Settings settings;
    settings.gatewayUrl = "http://saved";
    settings.mode = "HEAVY";
    Settings typed;
    typed.gatewayUrl = "http://127.0.0.1:9090/";  // The default but for the slash.
    typed.mode = "light";

    overlaySettings(settings, typed);

    EXPECT_EQ(settings.gatewayUrl, "http://127.0.0.1:9090");
    EXPECT_EQ(settings.mode, "LIGHT");
}

TEST(Overlay, AnUnknownModeIsLight) {
    Settings settings;
    settings.mode = "HEAVY";
    Settings typed;
    typed.mode = "fast";

    overlaySettings(settings, typed);

    EXPECT_EQ(settings.mode, "LIGHT");
}

}  // namespace
}  // namespace qm
