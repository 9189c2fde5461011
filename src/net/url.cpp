#include "net/url.h"

#include <algorithm>
#include <cstdlib>

namespace qm {
namespace {

constexpr int kHttpPort = 80;
constexpr int kHttpsPort = 443;
constexpr long kLastPort = 65535;

int defaultPort(bool tls) {
    return tls ? kHttpsPort : kHttpPort;
}

bool hasControlCharacter(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char character) {
        const auto byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f;
    });
}

/// Reads what strtol() would, so text after the digits doesn't count.
std::optional<int> parsePort(const std::string& text) {
    const long port = std::strtol(text.c_str(), nullptr, 10);
    if (port <= 0 || port > kLastPort) return std::nullopt;
    return static_cast<int>(port);
}

}  // namespace

std::string Url::hostHeader() const {
    return port == defaultPort(tls) ? host : host + ":" + std::to_string(port);
}

std::optional<Url> parseUrl(std::string_view text) {
    const auto schemeEnd = text.find("://");
    if (schemeEnd == std::string_view::npos || hasControlCharacter(text)) return std::nullopt;
    const auto scheme = text.substr(0, schemeEnd);
    if (scheme != "http" && scheme != "https") return std::nullopt;

    const auto rest = text.substr(schemeEnd + 3);
    const auto authority = rest.substr(0, rest.find('/'));
    const auto colon = authority.find(':');

    Url url;
    url.tls = scheme == "https";
    url.host = authority.substr(0, colon);
    url.port = defaultPort(url.tls);
    if (colon != std::string_view::npos) {
        const auto port = parsePort(std::string(authority.substr(colon + 1)));
        if (!port) return std::nullopt;
        url.port = *port;
    }
    if (url.host.empty()) return std::nullopt;
    url.path = rest.substr(authority.size());
    if (url.path.empty()) url.path = "/";
    return url;
}

}  // namespace qm
