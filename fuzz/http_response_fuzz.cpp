// A response means the same however it is cut, its body isn't longer than what came, and a sink gets at least what
// would have been kept. The first byte of the input chooses the size of the pieces.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "net/http_response.h"

namespace {

qm::HttpResponse parse(std::string_view bytes, std::size_t pieceSize, qm::HttpResponseParser::Options options = {}) {
    qm::HttpResponseParser parser(std::move(options));
    while (!bytes.empty()) {
        if (!parser.feed(bytes.substr(0, pieceSize))) break;
        bytes.remove_prefix(std::min(pieceSize, bytes.size()));
    }
    return parser.finish();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t pieceSize = data[0] % 32U + 1;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    const auto whole = parse(bytes, bytes.size() + 1);
    const auto inPieces = parse(bytes, pieceSize);
    if (whole.status != inPieces.status || whole.body != inPieces.body || whole.error != inPieces.error) std::abort();
    if ((whole.status == 0) == whole.error.empty()) std::abort();
    if (whole.body.size() > bytes.size()) std::abort();

    std::string sunk;
    const auto withSink = parse(bytes, pieceSize, {.bodyLimit = {}, .sink = [&sunk](std::string_view part) {
                                                       sunk += part;
                                                       return true;
                                                   }});
    if (withSink.status != whole.status || !sunk.starts_with(whole.body)) std::abort();

    const auto limited = parse(bytes, pieceSize, {.bodyLimit = 8, .sink = {}});
    if (limited.body.size() > 8 + pieceSize) std::abort();
    return 0;
}
