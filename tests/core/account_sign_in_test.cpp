#include "core/account_sign_in.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <ctime>
#include <deque>
#include <string>
#include <vector>

#include "support/tcp_peer.h"
#include "support/wait_until.h"
#include "util/json.h"

namespace {

/// The longest wait that poll() was asked for.
std::atomic<int> longestWaitMs = 0;

}  // namespace

/// Stands before the one of the C library, so that a test needn't wait to know how long the program would.
extern "C" int poll(pollfd* events, nfds_t count, int timeoutMs) {
    if (timeoutMs > longestWaitMs) longestWaitMs = timeoutMs;
    const timespec limit{timeoutMs / 1000, timeoutMs % 1000 * 1'000'000L};
    return ::ppoll(events, count, timeoutMs < 0 ? nullptr : &limit, nullptr);
}

namespace qm {
namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;

struct Call {
    std::string url;
    json body;
    HttpHeaders headers;
};

HttpResponse answer(int status, std::string body) {
    return {.status = status, .body = std::move(body), .error = {}};
}

HttpResponse transportFailure(std::string error) {
    return {.status = 0, .body = {}, .error = std::move(error)};
}

const HttpResponse kSignedIn =
    answer(200, R"({"accessToken":"access-1","account":{"email":"user@site","displayName":"The User"}})");
const HttpResponse kEnrolled = answer(200, R"({"token":"executor-token"})");

class AccountSignInTest : public testing::Test {
protected:
    /// Signs in as a user on a device, with `answers` to the calls that are made.
    AccountLoginResult signIn(std::deque<HttpResponse> answers) {
        answers_ = std::move(answers);
        return signIn_.loginWithPassword(publicUrl_, email_, password_, "node-1", name_, mode_);
    }

    std::string publicUrl_ = "https://site.example";
    std::string email_ = "user@mail";
    std::string password_ = "pass\"word";
    std::string name_ = "My Box";
    std::string mode_ = "LIGHT";
    std::vector<Call> calls_;

private:
    HttpResponse answerNext(const std::string& url, const std::string& body, const HttpHeaders& headers) {
        calls_.push_back({url, json::parse(body), headers});
        EXPECT_FALSE(answers_.empty()) << "unexpected call of " << url;
        if (answers_.empty()) return {};
        HttpResponse next = std::move(answers_.front());
        answers_.pop_front();
        return next;
    }

    std::deque<HttpResponse> answers_;
    const AccountSignIn signIn_{
        [this](const auto& url, const auto& body, const auto& headers) { return answerNext(url, body, headers); }};
};

TEST_F(AccountSignInTest, GivesTheTokenTheAccountAndTheGateway) {
    const auto result = signIn({kSignedIn, kEnrolled});

    EXPECT_TRUE(result.ok);
    EXPECT_EQ(result.token, "executor-token");
    EXPECT_EQ(result.email, "user@site");
    EXPECT_EQ(result.displayName, "The User");
    EXPECT_EQ(result.gatewayUrl, "https://site.example/gateway");
    EXPECT_EQ(result.error, "");
}

TEST_F(AccountSignInTest, SignsInAtTheAccountSite) {
    signIn({kSignedIn, kEnrolled});

    ASSERT_THAT(calls_, SizeIs(2));
    EXPECT_EQ(calls_[0].url, "https://site.example/api/auth/login");
    EXPECT_THAT(calls_[0].headers, ElementsAre(Pair("Content-Type", "application/json")));
    EXPECT_EQ(calls_[0].body,
              (json{{"email", "user@mail"}, {"password", "pass\"word"}, {"audience", "quillmarsh-control-plane"}}));
}

TEST_F(AccountSignInTest, EnrolsTheDeviceAtTheGateway) {
    signIn({kSignedIn, kEnrolled});

    ASSERT_THAT(calls_, SizeIs(2));
    EXPECT_EQ(calls_[1].url, "https://site.example/gateway/api/executor-enrollment");
    EXPECT_THAT(calls_[1].headers,
                ElementsAre(Pair("Authorization", "Bearer access-1"), Pair("Content-Type", "application/json")));
    EXPECT_EQ(calls_[1].body,
              (json{{"deviceId", "node-1"}, {"deviceName", "My Box"}, {"clientType", "WINDOWS"}, {"mode", "LIGHT"}}));
}

TEST_F(AccountSignInTest, TrailingSlashesOfTheSiteMakeNoDoubleOnes) {
    publicUrl_ = "https://site.example//";

    const auto result = signIn({kSignedIn, kEnrolled});

    ASSERT_THAT(calls_, SizeIs(2));
    EXPECT_EQ(calls_[0].url, "https://site.example/api/auth/login");
    EXPECT_EQ(calls_[1].url, "https://site.example/gateway/api/executor-enrollment");
    EXPECT_EQ(result.gatewayUrl, "https://site.example/gateway");
}

TEST_F(AccountSignInTest, AnEmptyNameIsReplaced) {
    name_ = "";

    signIn({kSignedIn, kEnrolled});

    ASSERT_THAT(calls_, SizeIs(2));
    EXPECT_EQ(calls_[1].body.at("deviceName"), "Windows Executor");
}

TEST_F(AccountSignInTest, TheModeIsSentCanonically) {
    for (const auto& [mode, sent] :
         {std::pair{"heavy", "HEAVY"}, {"HEAVY", "HEAVY"}, {"light", "LIGHT"}, {"", "LIGHT"}, {"foo", "LIGHT"}}) {
        mode_ = mode;
        calls_.clear();
        signIn({kSignedIn, kEnrolled});
        ASSERT_THAT(calls_, SizeIs(2));
        EXPECT_EQ(calls_[1].body.at("mode"), sent);
    }
}

TEST_F(AccountSignInTest, AnEmptyEmailOrPasswordIsRefusedWithoutACall) {
    email_ = "";
    EXPECT_EQ(signIn({}).error, "邮箱和密码不能为空");

    email_ = "user@mail";
    password_ = "";
    const auto result = signIn({});

    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, "邮箱和密码不能为空");
    EXPECT_THAT(calls_, SizeIs(0));
}

TEST_F(AccountSignInTest, AFailureHasNothingButItsText) {
    const auto result = signIn({kSignedIn, answer(500, "")});

    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.token, "");
    EXPECT_EQ(result.email, "");
    EXPECT_EQ(result.displayName, "");
    EXPECT_EQ(result.gatewayUrl, "");
    EXPECT_EQ(result.error, "设备注册失败: HTTP 500");
}

TEST_F(AccountSignInTest, EveryStatusFromTwoHundredToTwoNinetyNineIsASuccess) {
    for (const int status : {200, 201, 299}) {
        EXPECT_TRUE(signIn({answer(status, kSignedIn.body), answer(status, kEnrolled.body)}).ok) << status;
    }
    for (const int status : {199, 300, 302, 404}) {
        EXPECT_EQ(signIn({answer(status, kSignedIn.body)}).error, "登录失败: HTTP " + std::to_string(status));
        EXPECT_EQ(signIn({kSignedIn, answer(status, kEnrolled.body)}).error,
                  "设备注册失败: HTTP " + std::to_string(status));
    }
}

TEST_F(AccountSignInTest, AFailedSignInSaysWhy) {
    const auto errorOf = [this](const HttpResponse& response) { return signIn({response}).error; };

    EXPECT_EQ(errorOf(transportFailure("连接失败")), "登录失败: 连接失败");
    EXPECT_EQ(errorOf(answer(401, R"({"message":"x"})")), "登录失败: x");
    EXPECT_EQ(errorOf(answer(401, R"({"error":"y"})")), "登录失败: y");
    EXPECT_EQ(errorOf(answer(401, R"({"error":{"message":"z"}})")), "登录失败: z");
    EXPECT_EQ(errorOf(answer(401, R"({"message":"x","error":"y"})")), "登录失败: x");
    EXPECT_EQ(errorOf(answer(500, "<html>message</html>")), "登录失败: HTTP 500");
    EXPECT_EQ(errorOf(answer(503, "")), "登录失败: HTTP 503");
}

TEST_F(AccountSignInTest, AnAnswerWithoutAUsableReasonGivesItsStatus) {
    for (const std::string body :
         {"{}", "[]", "\"message\"", "null", R"(["message"])", R"({"error":{}})", R"({"error":["message"]})",
          R"({"message":1,"error":true})", R"({"message":null,"error":{"message":{}}})", R"({"message":""})"}) {
        EXPECT_EQ(signIn({answer(400, body)}).error, "登录失败: HTTP 400") << body;
    }
    EXPECT_EQ(signIn({answer(400, R"({"message":7,"error":"y"})")}).error, "登录失败: y");
}

TEST_F(AccountSignInTest, AFailedEnrolmentSaysWhy) {
    const auto errorOf = [this](const HttpResponse& response) { return signIn({kSignedIn, response}).error; };

    EXPECT_EQ(errorOf(transportFailure("响应读取失败")), "设备注册失败: 响应读取失败");
    EXPECT_EQ(errorOf(answer(403, R"({"message":"x"})")), "设备注册失败: x");
    EXPECT_EQ(errorOf(answer(403, R"({"error":{"message":"z"}})")), "设备注册失败: z");
    EXPECT_EQ(errorOf(answer(500, "<html>")), "设备注册失败: HTTP 500");
}

TEST_F(AccountSignInTest, AnUnreadableSignInAnswerIsAFailure) {
    EXPECT_EQ(signIn({answer(200, "<html>")}).error, "账号服务返回了无法解析的响应");
    EXPECT_EQ(signIn({answer(200, "")}).error, "账号服务返回了无法解析的响应");
    EXPECT_THAT(calls_, SizeIs(2));
}

TEST_F(AccountSignInTest, AnUnreadableEnrolmentAnswerIsAFailure) {
    EXPECT_EQ(signIn({kSignedIn, answer(200, "<html>")}).error, "网关返回了无法解析的注册响应");
    EXPECT_EQ(signIn({kSignedIn, answer(204, "")}).error, "网关返回了无法解析的注册响应");
}

TEST_F(AccountSignInTest, EveryCutOfTheAnswersIsAFailure) {
    for (std::size_t size = 0; size < kSignedIn.body.size(); ++size) {
        ASSERT_EQ(signIn({answer(200, kSignedIn.body.substr(0, size))}).error, "账号服务返回了无法解析的响应") << size;
    }
    for (std::size_t size = 0; size < kEnrolled.body.size(); ++size) {
        ASSERT_EQ(signIn({kSignedIn, answer(200, kEnrolled.body.substr(0, size))}).error,
                  "网关返回了无法解析的注册响应")
            << size;
    }
}

TEST_F(AccountSignInTest, AnAccessTokenOfAnotherTypeOrNoneIsMissing) {
    for (const std::string body : {"{}", R"({"accessToken":""})", R"({"accessToken":7})", R"({"accessToken":null})",
                                   R"({"accessToken":["a"]})", "[]", "7", "\"accessToken\""}) {
        EXPECT_EQ(signIn({answer(200, body)}).error, "账号服务未返回访问凭据") << body;
    }
}

TEST_F(AccountSignInTest, AnExecutorTokenOfAnotherTypeOrNoneIsMissing) {
    for (const std::string body : {"{}", R"({"token":""})", R"({"token":7})", R"({"token":{}})", "[]", "null"}) {
        EXPECT_EQ(signIn({kSignedIn, answer(200, body)}).error, "网关未返回 Executor 凭据") << body;
    }
}

TEST_F(AccountSignInTest, WithoutAnAccountTheGivenEmailStandsIn) {
    for (const std::string account : {"", R"(,"account":7)", R"(,"account":{})", R"(,"account":{"email":""})",
                                      R"(,"account":{"email":1,"displayName":null})"}) {
        const auto result = signIn({answer(200, R"({"accessToken":"a")" + account + "}"), kEnrolled});

        EXPECT_TRUE(result.ok);
        EXPECT_EQ(result.email, "user@mail") << account;
        EXPECT_EQ(result.displayName, "user@mail") << account;
    }
}

TEST_F(AccountSignInTest, ACredentialThatIsNoUtf8StillMakesACall) {
    password_ = "\xFF";

    EXPECT_TRUE(signIn({kSignedIn, kEnrolled}).ok);
}

TEST(AccountSignIn, ReachesTheSiteOverTheNetworkByDefault) {
    // Port 0 can't be connected to, so the call fails at once and without a peer.
    const auto result = AccountSignIn().loginWithPassword("http://127.0.0.1:0", "a@b", "p", "n", "", "");

    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error.rfind("登录失败: ", 0), 0U) << result.error;
    EXPECT_EQ(result.error.find("HTTP"), std::string::npos) << result.error;
}

TEST(AccountSignIn, WaitsThirtySecondsForASilentSite) {
    test::TcpPeer silentAtFirst([](test::PeerConnection& connection) {
        EXPECT_TRUE(test::waitUntil([] { return longestWaitMs > 0; }));
        connection.readUntil("{}");
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
    });

    const HttpResponse response = postForSignIn(silentAtFirst.url("http", "/path"), "{}", {});

    EXPECT_EQ(response.status, 200) << response.error;
    EXPECT_EQ(longestWaitMs, 30000);
}

TEST(AccountSignIn, RefusesWhatNeedsABrowserOrAForm) {
    const AccountSignIn signIn;

    const auto browser = signIn.loginWithBrowser("https://site.example", "node", "name", "LIGHT", 300);
    EXPECT_FALSE(browser.ok);
    EXPECT_EQ(browser.error, "无头版不支持浏览器登录，请用账号密码登录（--login-password）");

    const auto code = signIn.requestRegistrationCode("https://site.example", "a@b");
    EXPECT_FALSE(code.ok);
    EXPECT_EQ(code.error, "无头版不支持注册，请在桌面端或网页完成注册后再用账号密码登录");
    EXPECT_EQ(code.verificationId, "");
    EXPECT_EQ(code.resendAfterSeconds, 0);

    const auto account = signIn.registerAccount("https://site.example", "a@b", "p", "name", "id", "code");
    EXPECT_FALSE(account.ok);
    EXPECT_EQ(account.error, "无头版不支持注册，请在桌面端或网页完成注册");
}

}  // namespace
}  // namespace qm
