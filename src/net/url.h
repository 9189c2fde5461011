#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qm {

/// The parts of an "http" or "https" URL that a request needs.
struct Url {
    bool tls = false;
    std::string host;
    int port = 0;
    /// Path and query exactly as they were given, at least "/".
    std::string path;

    /// What a `Host` header holds: the port stands there only when it isn't the scheme's own.
    std::string hostHeader() const;
};

/// Splits a URL at its first "://", the next "/" and the authority's first ":". Nothing when the scheme isn't "http" or
/// "https" in lower case, the host is empty, the port isn't in 1..65535, or a control character stands anywhere: a line
/// break would end the request line. IPv6 literals in brackets aren't recognised.
std::optional<Url> parseUrl(std::string_view text);

}  // namespace qm
