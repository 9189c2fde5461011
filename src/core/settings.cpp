#include "core/settings.h"

#include "util/text.h"
#include "util/utf8.h"

namespace qm {

bool Settings::isStandalone() const {
    return canonicalConnection(connection) == "STANDALONE";
}

bool Settings::isOnAccount() const {
    return !isStandalone() && canonicalAuthMode(authMode) == "ACCOUNT" && !executorToken.empty();
}

std::string_view canonicalMode(std::string_view text) {
    return equalsIgnoreCase(text, "HEAVY") ? "HEAVY" : "LIGHT";
}

std::string_view canonicalConnection(std::string_view text) {
    return equalsIgnoreCase(text, "STANDALONE") ? "STANDALONE" : "GATEWAY";
}

std::string_view canonicalAuthMode(std::string_view text) {
    return equalsIgnoreCase(text, "ACCOUNT") ? "ACCOUNT" : "MANUAL";
}

std::string maskedToken(std::string_view token) {
    if (countCodePoints(token) <= 8) return "********";
    return std::string(firstCodePoints(token, 4)) + "..." + std::string(lastCodePoints(token, 4));
}

}  // namespace qm
