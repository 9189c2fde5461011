#include "support/ws_script.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

namespace qm::test {
namespace {

constexpr std::string_view kKeyHeader = "Sec-WebSocket-Key: ";

std::string serverHeader(unsigned opcode, std::size_t size, bool final, bool masked) {
    std::string header;
    header += static_cast<char>((final ? 0x80U : 0U) | opcode);
    const unsigned maskBit = masked ? 0x80U : 0U;
    int lengthBytes = 0;
    if (size < 126) {
        header += static_cast<char>(maskBit | size);
    } else {
        lengthBytes = size < 65536 ? 2 : 8;
        header += static_cast<char>(maskBit | (size < 65536 ? 126U : 127U));
    }
    for (int i = lengthBytes - 1; i >= 0; --i)
        header += static_cast<char>(size >> (8 * i) & 0xff);
    return header;
}

}  // namespace

std::string wsAccept(const std::string& key) {
    const std::string text = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    // Room for the terminating NUL that the encoder writes.
    unsigned char encoded[4 * ((SHA_DIGEST_LENGTH + 2) / 3) + 1];
    const int size = EVP_EncodeBlock(encoded, digest, sizeof digest);
    return {reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(size)};
}

std::string wsKeyOf(const std::string& request) {
    const auto begin = request.find(kKeyHeader);
    if (begin == std::string::npos) throw std::runtime_error("no key in the handshake");
    const auto value = begin + kKeyHeader.size();
    return request.substr(value, request.find("\r\n", value) - value);
}

std::string wsSwitchingAnswer(const std::string& request) {
    return "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: " +
           wsAccept(wsKeyOf(request)) + "\r\n\r\n";
}

std::string acceptWebSocket(PeerConnection& connection) {
    auto request = connection.readUntil("\r\n\r\n");
    connection.send(wsSwitchingAnswer(request));
    return request;
}

std::string serverFrame(unsigned opcode, std::string_view payload, bool final) {
    return serverHeader(opcode, payload.size(), final, false).append(payload);
}

std::string maskedServerFrame(unsigned opcode, std::string_view payload, const unsigned char (&mask)[4]) {
    std::string frame = serverHeader(opcode, payload.size(), true, true);
    for (const unsigned char byte : mask)
        frame += static_cast<char>(byte);
    for (std::size_t i = 0; i < payload.size(); ++i)
        frame += static_cast<char>(payload[i] ^ mask[i % 4]);
    return frame;
}

ClientFrame readClientFrame(PeerConnection& connection) {
    ClientFrame frame;
    const auto start = connection.readExactly(2);
    frame.firstByte = static_cast<std::uint8_t>(start[0]);
    const auto second = static_cast<unsigned char>(start[1]);
    frame.masked = (second & 0x80U) != 0;
    frame.headerBytes = 2;
    std::size_t size = second & 0x7fU;
    if (size >= 126) {
        const auto length = connection.readExactly(size == 126 ? 2 : 8);
        frame.headerBytes += length.size();
        size = 0;
        for (const char byte : length)
            size = size << 8 | static_cast<unsigned char>(byte);
    }
    if (frame.masked) {
        frame.mask = connection.readExactly(4);
        frame.headerBytes += 4;
    }
    frame.payload = connection.readExactly(size);
    for (std::size_t i = 0; frame.masked && i < size; ++i) {
        frame.payload[i] = static_cast<char>(frame.payload[i] ^ frame.mask[i % 4]);
    }
    return frame;
}

}  // namespace qm::test
