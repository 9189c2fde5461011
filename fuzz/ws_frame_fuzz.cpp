// A stream of frames means the same however it is cut, and carries no more payload than bytes that came. What the
// program encodes, its reader gives back. The first byte of the input chooses the size of the pieces.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/ws_frame.h"

namespace {

using Event = qm::WsFrameReader::Event;
using Events = std::vector<std::pair<Event, std::string>>;

Events read(std::string_view bytes, std::size_t pieceSize) {
    qm::WsFrameReader reader;
    Events events;
    while (!bytes.empty()) {
        auto piece = bytes.substr(0, pieceSize);
        bytes.remove_prefix(piece.size());
        while (true) {
            const Event event = reader.next(&piece);
            if (event == Event::NeedsBytes) break;
            events.emplace_back(event, std::move(reader.payload()));
        }
        if (!piece.empty()) std::abort();
    }
    return events;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t pieceSize = data[0] % 32U + 1;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);

    const auto whole = read(bytes, bytes.size() + 1);
    if (read(bytes, pieceSize) != whole) std::abort();
    std::size_t payload = 0;
    for (const auto& [event, text] : whole)
        payload += text.size();
    if (payload > bytes.size()) std::abort();

    const auto mask = static_cast<std::uint32_t>(data[0]) * 0x01030507U;
    const auto frame = qm::encodeWsFrame(qm::WsOpcode::Text, bytes, mask);
    if (read(frame.view(), pieceSize) != Events{{Event::Message, std::string(bytes)}}) std::abort();
    return 0;
}
