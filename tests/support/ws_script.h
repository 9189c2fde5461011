#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "support/tcp_peer.h"

namespace qm::test {

/// The server's side of the WebSocket protocol for scripts of a TcpPeer, byte by byte and written apart from the
/// program's own code.

/// The value that answers a handshake with this key.
std::string wsAccept(const std::string& key);

/// The value of the request's Sec-WebSocket-Key header.
std::string wsKeyOf(const std::string& request);

/// A whole "101 Switching Protocols" answer to `request`.
std::string wsSwitchingAnswer(const std::string& request);

/// Reads a handshake request, accepts it and returns it.
std::string acceptWebSocket(PeerConnection& connection);

/// A frame as a server sends it, without mask.
std::string serverFrame(unsigned opcode, std::string_view payload, bool final = true);

/// The same with a mask, which servers normally don't use.
std::string maskedServerFrame(unsigned opcode, std::string_view payload, const unsigned char (&mask)[4]);

struct ClientFrame {
    std::uint8_t firstByte = 0;
    bool masked = false;
    /// Bytes of the header, mask included.
    std::size_t headerBytes = 0;
    std::string mask;
    std::string payload;
};

ClientFrame readClientFrame(PeerConnection& connection);

}  // namespace qm::test
