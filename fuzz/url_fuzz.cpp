// Whatever the text, a URL that is accepted can be asked for: it has a host, a port that exists and a path, and nothing
// in it ends a request line.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "net/percent_encoding.h"
#include "net/url.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    if (const auto url = qm::parseUrl(text)) {
        if (url->host.empty() || url->host.find_first_of("/:") != std::string::npos) std::abort();
        if (url->port < 1 || url->port > 65535) std::abort();
        if (url->path.empty() || url->path.front() != '/') std::abort();
        const auto requestLine = "GET " + url->path + url->hostHeader();
        if (requestLine.find_first_of("\r\n") != std::string::npos) std::abort();
        if (!text.starts_with(url->tls ? "https://" + url->host : "http://" + url->host)) std::abort();
    }

    // An encoded text is one path element, however it looked before.
    const auto encoded = qm::percentEncode(text);
    const auto url = qm::parseUrl("http://host/" + encoded);
    if (!url || url->path != "/" + encoded) std::abort();
    return 0;
}
