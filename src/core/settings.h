#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qm {

/// The persistent configuration of one executor. Field order and names are those of its file.
struct Settings {
    std::string gatewayUrl = "http://127.0.0.1:9090";  ///< http or https, without trailing "/".
    std::string mode = "LIGHT";                        ///< "LIGHT" or "HEAVY".
    std::string name;                                  ///< Display name of the device, filled at load.
    std::string description = "Quillmarsh native executor";
    std::string nodeId;         ///< Stable identity of the instance, filled at load.
    std::string executorToken;  ///< The gateway credential; never in the properties file.
    std::int32_t reserved = 0;  ///< Copied with the record, read by nothing.
    bool autoUpdate = true;
    std::string connection = "GATEWAY";  ///< "GATEWAY" or "STANDALONE".
    std::string authMode = "MANUAL";     ///< "MANUAL" or "ACCOUNT".
    std::string accountEmail;

    bool isStandalone() const;
    /// Signed in with an account: not standalone, authMode "ACCOUNT" and a token. Without its token an account record
    /// counts as a manual one.
    bool isOnAccount() const;
};

/// Canonical spellings: the second word if `text` equals it ignoring case, otherwise the first.
std::string_view canonicalMode(std::string_view text);        ///< "LIGHT" or "HEAVY"
std::string_view canonicalConnection(std::string_view text);  ///< "GATEWAY" or "STANDALONE"
std::string_view canonicalAuthMode(std::string_view text);    ///< "MANUAL" or "ACCOUNT"

/// A token as it may be shown: "********" for at most 8 characters, otherwise the first 4, "..." and the last 4.
/// The caller deals with an empty one.
std::string maskedToken(std::string_view token);

}  // namespace qm
