// --login-password against scripted account and enrolment answers, on a terminal and through a pipe.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "e2e/executor_home.h"
#include "support/scripted_http_server.h"
#include "support/tcp_peer.h"

namespace qm::test {
namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr char kSignInPath[] = "/api/auth/login";
constexpr char kEnrolmentPath[] = "/gateway/api/executor-enrollment";
const std::string kPrompts = "邮箱: 密码: ";
constexpr ExitStatus kFailure{.code = 1};

/// An account service and a gateway that let everybody in.
class SignIn : public testing::Test {
protected:
    ExecutorHome home_;
    ScriptedHttpServer server_;

    void acceptAll() {
        acceptAccount();
        server_.answer(kEnrolmentPath, {.body = R"({"token":"executor-token-1"})"});
    }
    void acceptAccount() {
        server_.answer(kSignInPath, {.body = R"({"accessToken":"access-1",)"
                                             R"("account":{"email":"ada@example.test","displayName":"Ada"}})"});
    }

    ProcessSetup setup(std::vector<std::string> more = {}) const {
        std::vector<std::string> arguments{"--login-password", "--public-url", server_.url(), "--status"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return home_.setup(std::move(arguments));
    }

    /// Runs the program with `input` on a pipe.
    static FinishedRun runWithInput(ProcessSetup setup, std::string_view input) {
        setup.input = ProcessSetup::Input::Pipe;
        ExecutorProcess process(setup);
        process.type(input);
        process.closeInput();
        const auto status = process.waitForExit();
        return {status, process.output(), process.errorOutput()};
    }

    /// The text with which a sign-in fails; it must be all that is printed behind the prompts.
    std::string failure() { return failure(setup()); }
    std::string failure(const ProcessSetup& setup) {
        const auto run = runWithInput(setup, "ada@example.test\nsecret\n");
        EXPECT_EQ(run.status, kFailure);
        EXPECT_EQ(run.errorOutput, "");
        EXPECT_FALSE(std::filesystem::exists(home_.dataDirectory() / "executor.properties"));
        EXPECT_FALSE(std::filesystem::exists(home_.dataDirectory() / "executor-credential"));
        if (!run.output.starts_with(kPrompts) || !run.output.ends_with("\n")) return "unexpected output: " + run.output;
        return run.output.substr(kPrompts.size(), run.output.size() - kPrompts.size() - 1);
    }
};

TEST_F(SignIn, TakesBothAnswersFromAPipeThatDeliversThemAtOnce) {
    acceptAll();

    const auto run = runWithInput(setup(), "ada@example.test\nsecret\n");

    EXPECT_THAT(run.output, testing::StartsWith(kPrompts + "登录成功: ada@example.test / Ada\n设备凭据已保存到 " +
                                                home_.dataDirectory().string() + "\ndata dir : "));
    EXPECT_THAT(run.output, HasSubstr("\ngateway  : " + server_.url() + "/gateway\n"));
    EXPECT_THAT(run.output, EndsWith("\ntoken    : exec...en-1\n"));
    EXPECT_EQ(run.status, ExitStatus{});
    EXPECT_EQ(home_.dataFile("executor-credential"), "ZXhlY3V0b3ItdG9rZW4tMQ==");
}

TEST_F(SignIn, AsksTheAccountServiceAndThenTheGateway) {
    acceptAll();

    runWithInput(setup({"--name", "box", "--mode", "heavy"}), "ada@example.test\r\nse cret\r\n");

    const auto requests = server_.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].method + " " + requests[0].target, "POST /api/auth/login");
    EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
    EXPECT_EQ(json::parse(requests[0].body),
              (json{{"email", "ada@example.test"}, {"password", "se cret"}, {"audience", "quillmarsh-control-plane"}}));
    EXPECT_EQ(requests[1].method + " " + requests[1].target, "POST /gateway/api/executor-enrollment");
    EXPECT_EQ(requests[1].header("Content-Type"), "application/json");
    EXPECT_EQ(requests[1].header("Authorization"), "Bearer access-1");
    EXPECT_EQ(json::parse(requests[1].body), (json{{"deviceId", home_.dataFile("instance-id")},
                                                   {"deviceName", "box"},
                                                   {"clientType", "WINDOWS"},
                                                   {"mode", "HEAVY"}}));
}

TEST_F(SignIn, AnAddressWithATrailingSlashMakesNoDoubleSlash) {
    acceptAll();
    const auto setup = home_.setup({"--login-password", "--public-url", server_.url() + "/", "--status"});

    const auto run = runWithInput(setup, "ada@example.test\nsecret\n");

    EXPECT_EQ(run.status, ExitStatus{});
    EXPECT_EQ(server_.requests().at(0).target, kSignInPath);
    EXPECT_THAT(run.output, HasSubstr("\ngateway  : " + server_.url() + "/gateway\n"));
}

TEST_F(SignIn, WithAnEmailOnTheCommandLineOnlyThePasswordIsAskedFor) {
    acceptAll();

    const auto run = runWithInput(setup({"--email", "given@example.test"}), "secret\n");

    EXPECT_THAT(run.output, testing::StartsWith("密码: 登录成功: ada@example.test / Ada\n"));
    EXPECT_EQ(json::parse(server_.requests().at(0).body).at("email"), "given@example.test");
}

TEST_F(SignIn, WithoutAnAccountInTheAnswerTheGivenEmailIsShown) {
    server_.answer(kSignInPath, {.body = R"({"accessToken":"access-1"})"});
    server_.answer(kEnrolmentPath, {.body = R"({"token":"executor-token-1"})"});

    const auto run = runWithInput(setup(), "given@example.test\nsecret\n");

    EXPECT_THAT(run.output, HasSubstr("登录成功: given@example.test"));
}

TEST_F(SignIn, ChangesTokenAndGatewayOnlyAndSavesOnce) {
    acceptAll();
    home_.writeDataFile("executor.properties", "connection=STANDALONE\nauthMode=MANUAL\nname=box\n");

    const auto run = runWithInput(setup({"--save"}), "ada@example.test\nsecret\n");

    EXPECT_THAT(run.output, Not(HasSubstr("settings saved to")));
    const auto properties = home_.dataFile("executor.properties");
    EXPECT_THAT(properties, HasSubstr("\nconnection=STANDALONE\nauthMode=MANUAL\naccountEmail=\n"));
    EXPECT_THAT(properties, HasSubstr("\nname=box\n"));
}

TEST_F(SignIn, GoesOnToTheRunPhaseWithTheNewToken) {
    acceptAll();
    auto setup = home_.setup({"--login-password", "--public-url", server_.url()});
    setup.input = ProcessSetup::Input::Pipe;

    ExecutorProcess process(setup);
    process.type("ada@example.test\nsecret\n");

    process.waitForOutput("connecting to gateway: " + server_.url() + "/gateway/ws/executor\n");
    server_.waitForRequests(3);
    EXPECT_EQ(server_.requests().at(2).header("X-Executor-Token"), "executor-token-1");
    expectOrderlyStop(process);
}

TEST_F(SignIn, OnATerminalTheEmailIsEchoedAndThePasswordIsNot) {
    acceptAll();
    auto setup = this->setup();
    setup.input = ProcessSetup::Input::Terminal;
    ExecutorProcess process(setup);

    process.waitForOutput("邮箱: ");
    EXPECT_TRUE(process.terminalEchoes());
    process.type("ada@example.test\n");
    process.waitForOutput("密码: ");
    ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); }));
    process.type("secret\n");

    EXPECT_EQ(process.waitForExit(), ExitStatus{});
    EXPECT_TRUE(process.terminalEchoes()) << "the mode was put back";
    EXPECT_THAT(process.output(), testing::StartsWith("邮箱: ada@example.test\r\n密码: \r\n登录成功: "));
    EXPECT_THAT(process.output(), Not(HasSubstr("secret")));
}

TEST_F(SignIn, InterruptingTheHiddenPromptPutsTheEchoBack) {
    for (const auto& [key, signal] : {std::pair{"\x03", SIGINT}, std::pair{"\x1c", SIGQUIT}}) {
        auto setup = this->setup({"--email", "ada@example.test"});
        setup.input = ProcessSetup::Input::Terminal;
        ExecutorProcess process(setup);
        process.waitForOutput("密码: ");
        ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); }));

        process.type(key);

        EXPECT_EQ(process.waitForExit(), (ExitStatus{.signal = signal}));
        EXPECT_TRUE(process.terminalEchoes());
    }
}

TEST_F(SignIn, ASignalFromOutsideAtTheHiddenPromptPutsTheEchoBackToo) {
    auto setup = this->setup({"--email", "ada@example.test"});
    setup.input = ProcessSetup::Input::Terminal;
    ExecutorProcess process(setup);
    process.waitForOutput("密码: ");
    ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); }));

    process.sendSignal(SIGTERM);

    EXPECT_EQ(process.waitForExit(), (ExitStatus{.signal = SIGTERM}));
    EXPECT_TRUE(process.terminalEchoes());
}

TEST_F(SignIn, AnIgnoredSignalStaysIgnoredAtTheHiddenPrompt) {
    acceptAll();
    auto setup = ExecutorHome::prepared("trap '' INT", this->setup({"--email", "ada@example.test"}));
    setup.input = ProcessSetup::Input::Terminal;
    ExecutorProcess process(setup);
    process.waitForOutput("密码: ");
    ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); }));

    process.sendSignal(SIGINT);
    process.type("secret\n");

    EXPECT_EQ(process.waitForExit(), ExitStatus{}) << process.output();
    EXPECT_TRUE(process.terminalEchoes());
}

TEST_F(SignIn, StoppingTheHiddenPromptPutsTheEchoBackUntilItGoesOn) {
    acceptAll();
    // A shell with job control gives the program a process group that can be stopped, and the terminal.
    auto setup = ExecutorHome::prepared("set -m\n\"$0\" \"$@\"\necho stopped; read -r word; fg; exit",
                                        this->setup({"--email", "ada@example.test"}));
    setup.input = ProcessSetup::Input::Terminal;
    ExecutorProcess process(setup);
    process.waitForOutput("密码: ");
    ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); }));

    process.type("\x1a");
    process.waitForOutput("stopped\r\n");
    EXPECT_TRUE(process.terminalEchoes());

    process.type("go\n");
    ASSERT_TRUE(waitUntil([&] { return !process.terminalEchoes(); })) << process.output();
    process.type("secret\n");

    EXPECT_EQ(process.waitForExit(), ExitStatus{}) << process.output();
    EXPECT_TRUE(process.terminalEchoes());
    EXPECT_THAT(process.output(), HasSubstr("登录成功: "));
    EXPECT_THAT(process.output(), Not(HasSubstr("secret")));
}

TEST_F(SignIn, ASignalAtTheFirstPromptEndsTheProcessByIt) {
    for (const int signal : {SIGINT, SIGTERM}) {
        auto setup = this->setup();
        setup.input = ProcessSetup::Input::Terminal;
        ExecutorProcess process(setup);
        process.waitForOutput("邮箱: ");

        process.sendSignal(signal);

        EXPECT_EQ(process.waitForExit(), (ExitStatus{.signal = signal}));
        EXPECT_EQ(process.output(), "邮箱: ");
    }
}

TEST_F(SignIn, ASignalWhileTheAccountServiceIsSilentEndsTheProcessByIt) {
    server_.answer(kSignInPath, {.neverAnswer = true});
    std::size_t requests = 0;
    for (const int signal : {SIGINT, SIGTERM}) {
        auto setup = this->setup();
        setup.input = ProcessSetup::Input::Pipe;
        ExecutorProcess process(setup);
        process.type("ada@example.test\nsecret\n");
        server_.waitForRequests(++requests);

        process.sendSignal(signal);

        EXPECT_EQ(process.waitForExit(), (ExitStatus{.signal = signal}));
        EXPECT_EQ(process.output(), kPrompts);
    }
}

TEST_F(SignIn, EmailAndPasswordMustNotBeEmpty) {
    for (const auto* input : {"", "\n\n", "ada@example.test\n\n", "\nsecret\n", "ada@example.test"}) {
        const auto run = runWithInput(setup(), input);

        EXPECT_EQ(run.output, kPrompts + "邮箱和密码不能为空\n");
        EXPECT_EQ(run.status, kFailure);
    }
    EXPECT_TRUE(server_.requests().empty());
}

TEST_F(SignIn, ARefusalShowsTheMessageOfTheAccountService) {
    server_.answer(kSignInPath, {.status = 401, .body = R"({"message":"x"})"});
    EXPECT_EQ(failure(), "登录失败: x");
}

TEST_F(SignIn, ARefusalMayCarryItsTextAsErrorOrInsideOne) {
    server_.answer(kSignInPath, {.status = 400, .body = R"({"error":"plain"})"});
    server_.answer(kSignInPath, {.status = 400, .body = R"({"error":{"message":"nested"}})"});
    EXPECT_EQ(failure(), "登录失败: plain");
    EXPECT_EQ(failure(), "登录失败: nested");
}

TEST_F(SignIn, ARefusalWithoutATextShowsTheStatus) {
    server_.answer(kSignInPath, {.status = 500, .body = "<html>oops</html>", .contentType = "text/html"});
    EXPECT_EQ(failure(), "登录失败: HTTP 500");
}

TEST_F(SignIn, ARedirectIsARefusal) {
    server_.answer(kSignInPath, {.status = 302, .headers = {{"Location", server_.url() + "/elsewhere"}}});
    EXPECT_EQ(failure(), "登录失败: HTTP 302");
    EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(SignIn, AnAccountServiceThatIsntThere) {
    const RefusingPort port;
    const auto url = "http://127.0.0.1:" + std::to_string(port.port());
    EXPECT_EQ(failure(home_.setup({"--login-password", "--public-url", url})),
              "登录失败: TCP 连接失败: Connection refused");
}

TEST_F(SignIn, AnAccountSiteThatIsNoUrl) {
    EXPECT_EQ(failure(home_.setup({"--login-password", "--public-url", "nonsense"})),
              "登录失败: 无法解析 URL: nonsense/api/auth/login");
}

TEST_F(SignIn, AnAnswerOfTheAccountServiceThatIsNoJson) {
    server_.answer(kSignInPath, {.body = "welcome"});
    EXPECT_EQ(failure(), "账号服务返回了无法解析的响应");
}

TEST_F(SignIn, AnAnswerWithoutAnAccessToken) {
    for (const auto* body : {"{}", R"({"accessToken":""})", R"({"accessToken":7})", R"({"accessToken":null})"}) {
        server_.answer(kSignInPath, {.body = body});
    }
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(failure(), "账号服务未返回访问凭据");
    }
}

TEST_F(SignIn, AGatewayThatRefusesTheDevice) {
    acceptAccount();
    server_.answer(kEnrolmentPath, {.status = 403, .body = R"({"message":"too many devices"})"});
    EXPECT_EQ(failure(), "设备注册失败: too many devices");
}

TEST_F(SignIn, AnAnswerOfTheGatewayThatIsNoJson) {
    acceptAccount();
    server_.answer(kEnrolmentPath, {.status = 201, .body = "ok"});
    EXPECT_EQ(failure(), "网关返回了无法解析的注册响应");
}

TEST_F(SignIn, AnEnrolmentWithoutAToken) {
    acceptAccount();
    for (const auto* body : {"{}", R"({"token":""})", R"({"token":[1]})"}) {
        server_.answer(kEnrolmentPath, {.body = body});
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(failure(), "网关未返回 Executor 凭据");
    }
}

TEST_F(SignIn, AResultThatCantBeSavedIsSaid) {
    acceptAll();
    std::filesystem::create_directories(home_.dataDirectory() / "executor.properties");

    const auto run = runWithInput(setup(), "ada@example.test\nsecret\n");

    EXPECT_EQ(run.output, kPrompts + "登录成功但保存失败: unable to write executor.properties\n");
    EXPECT_EQ(run.status, kFailure);
}

}  // namespace
}  // namespace qm::test
