#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "net/http_client.h"

namespace qm {

/// What a sign-in brought, or why it failed.
struct AccountLoginResult {
    bool ok = false;
    std::string token;  ///< The executor token.
    std::string email;
    std::string displayName;
    std::string gatewayUrl;  ///< Base URL, without trailing "/".
    std::string error;       ///< For the user, when ok is false.
};

/// What asking for a registration code brought, or why it failed.
struct RegistrationCodeResult {
    bool ok = false;
    std::string verificationId;
    std::int32_t resendAfterSeconds = 0;
    std::string error;
};

/// One POST; fails by value like HttpClient::post().
using HttpPost =
    std::function<HttpResponse(const std::string& url, const std::string& body, const HttpHeaders& headers)>;

/// A POST of an HttpClient with the 30 s limit that sign-in has.
HttpResponse postForSignIn(const std::string& url, const std::string& body, const HttpHeaders& headers);

/// Turns an account's email and password into an executor token.
///
/// Every call runs on the caller's thread and blocks it up to the limits of `post`. Nothing is stored: the caller saves
/// what it wants to keep. This build has no browser and no forms, so the entry points that would need them refuse.
class AccountSignIn {
public:
    explicit AccountSignIn(HttpPost post = postForSignIn);

    /// Signs in at the account site `publicUrl`, whose trailing "/" don't matter, and enrols the device `nodeId` at the
    /// gateway that stands at "/gateway" below it. `mode` is "HEAVY" in any case, everything else counts as "LIGHT"; an
    /// empty `name` becomes "Windows Executor".
    AccountLoginResult loginWithPassword(std::string_view publicUrl, const std::string& email,
                                         const std::string& password, std::string_view nodeId, std::string_view name,
                                         std::string_view mode) const;

    AccountLoginResult loginWithBrowser(std::string_view publicUrl, std::string_view nodeId, std::string_view name,
                                        std::string_view mode, std::int32_t timeoutSeconds) const;
    RegistrationCodeResult requestRegistrationCode(std::string_view publicUrl, std::string_view email) const;
    AccountLoginResult registerAccount(std::string_view publicUrl, std::string_view email, std::string_view password,
                                       std::string_view displayName, std::string_view verificationId,
                                       std::string_view code) const;

private:
    HttpPost post_;
};

}  // namespace qm
