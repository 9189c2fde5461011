#include "core/account_sign_in.h"

#include <optional>
#include <utility>

#include "core/settings.h"
#include "util/json.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr int kTimeoutMs = 30000;
constexpr char kAudience[] = "quillmarsh-control-plane";
/// The only client type that the gateway knows, whatever system the executor runs on.
constexpr char kClientType[] = "WINDOWS";
constexpr char kFallbackName[] = "Windows Executor";

/// Ends a sign-in with the text that its result carries.
struct SignInFailure {
    std::string text;
};

AccountLoginResult failure(std::string error) {
    AccountLoginResult result;
    result.error = std::move(error);
    return result;
}

bool succeeded(const HttpResponse& response) {
    return response.error.empty() && response.status >= 200 && response.status <= 299;
}

/// The JSON text in `body`; nothing if it is none.
std::optional<json> parsedBody(const HttpResponse& response) {
    json body = json::parse(response.body, nullptr, false);
    if (body.is_discarded()) return std::nullopt;
    return body;
}

/// Why a call failed, in the most telling words that its answer has.
std::string extractedError(const HttpResponse& response) {
    if (!response.error.empty()) return response.error;
    const json body = parsedBody(response).value_or(json());
    for (const std::string& text : {stringMember(body, "message"), stringMember(body, "error"),
                                    stringMember(objectMember(body, "error"), "message")}) {
        if (!text.empty()) return text;
    }
    return "HTTP " + std::to_string(response.status);
}

/// The JSON that came back for one of the two calls; throws SignInFailure with `failedPrefix` and the reason, or with
/// `unparsable` if the answer is no JSON.
json answerOf(const HttpResponse& response, const std::string& failedPrefix, const std::string& unparsable) {
    if (!succeeded(response)) throw SignInFailure{failedPrefix + extractedError(response)};
    auto body = parsedBody(response);
    if (!body) throw SignInFailure{unparsable};
    return *std::move(body);
}

/// String member `key` of an answer; throws SignInFailure with `missing` if it is absent, empty or no string.
std::string requiredMember(const json& answer, std::string_view key, const std::string& missing) {
    std::string value = stringMember(answer, key);
    if (value.empty()) throw SignInFailure{missing};
    return value;
}

std::string nonEmptyMember(const json& object, std::string_view key, const std::string& fallback) {
    std::string value = stringMember(object, key);
    return value.empty() ? fallback : value;
}

}  // namespace

HttpResponse postForSignIn(const std::string& url, const std::string& body, const HttpHeaders& headers) {
    return HttpClient(kTimeoutMs).post(url, body, headers);
}

AccountSignIn::AccountSignIn(HttpPost post) : post_(std::move(post)) {}

AccountLoginResult AccountSignIn::loginWithPassword(std::string_view publicUrl, const std::string& email,
                                                    const std::string& password, std::string_view nodeId,
                                                    std::string_view name, std::string_view mode) const try {
    if (email.empty() || password.empty()) throw SignInFailure{"邮箱和密码不能为空"};
    const std::string site(withoutTrailingSlashes(publicUrl));

    const json credentials = {{"email", email}, {"password", password}, {"audience", kAudience}};
    const json session =
        answerOf(post_(site + "/api/auth/login", dumpJson(credentials), {{"Content-Type", "application/json"}}),
                 "登录失败: ", "账号服务返回了无法解析的响应");
    const std::string accessToken = requiredMember(session, "accessToken", "账号服务未返回访问凭据");

    AccountLoginResult result;
    result.gatewayUrl = site + "/gateway";
    const json device = {{"deviceId", nodeId},
                         {"deviceName", name.empty() ? kFallbackName : name},
                         {"clientType", kClientType},
                         {"mode", canonicalMode(mode)}};
    const json registration =
        answerOf(post_(result.gatewayUrl + "/api/executor-enrollment", dumpJson(device),
                       {{"Content-Type", "application/json"}, {"Authorization", "Bearer " + accessToken}}),
                 "设备注册失败: ", "网关返回了无法解析的注册响应");
    result.token = requiredMember(registration, "token", "网关未返回 Executor 凭据");

    const json& account = objectMember(session, "account");
    result.email = nonEmptyMember(account, "email", email);
    result.displayName = nonEmptyMember(account, "displayName", email);
    result.ok = true;
    return result;
} catch (const SignInFailure& reason) {
    return failure(reason.text);
}

AccountLoginResult AccountSignIn::loginWithBrowser(std::string_view, std::string_view, std::string_view,
                                                   std::string_view, std::int32_t) const {
    return failure("无头版不支持浏览器登录，请用账号密码登录（--login-password）");
}

RegistrationCodeResult AccountSignIn::requestRegistrationCode(std::string_view, std::string_view) const {
    RegistrationCodeResult result;
    result.error = "无头版不支持注册，请在桌面端或网页完成注册后再用账号密码登录";
    return result;
}

AccountLoginResult AccountSignIn::registerAccount(std::string_view, std::string_view, std::string_view,
                                                  std::string_view, std::string_view, std::string_view) const {
    return failure("无头版不支持注册，请在桌面端或网页完成注册");
}

}  // namespace qm
