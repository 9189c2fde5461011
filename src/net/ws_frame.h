#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qm {

enum class WsOpcode : std::uint8_t { Continuation = 0, Text = 1, Binary = 2, Close = 8, Ping = 9, Pong = 10 };

/// Bytes of a frame ready to be sent. The memory isn't cleared first, which for large payloads is half the work.
class WsFrameBytes {
public:
    explicit WsFrameBytes(std::size_t size) : bytes_(std::make_unique_for_overwrite<char[]>(size)), size_(size) {}

    char* data() { return bytes_.get(); }
    std::string_view view() const { return {bytes_.get(), size_}; }

private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_;
};

/// Writes `size` bytes of `source` to `target` (the same place is allowed), XORed with the four bytes of `mask` in the
/// order they have in memory, beginning with mask byte `offset % 4`.
void applyWsMask(char* target, const char* source, std::size_t size, std::uint32_t mask, std::uint64_t offset = 0);

/// A complete client frame, header and masked payload in one buffer, FIN set.
WsFrameBytes encodeWsFrame(WsOpcode opcode, std::string_view payload, std::uint32_t mask);

/// Takes a server's stream of frames apart, in pieces of any size.
///
/// Nothing is set aside for a length that was only announced: memory grows with the bytes that came. Payloads that
/// nobody wants (binary, pong, unknown) aren't kept at all.
class WsFrameReader {
public:
    enum class Event {
        NeedsBytes,  ///< all bytes are used up
        Message,     ///< payload() is a complete text message
        Ping,        ///< payload() is a ping's payload
        Close,       ///< payload() is a close frame's payload
    };

    /// Takes bytes from the front of `*bytes` up to the next event.
    Event next(std::string_view* bytes);

    /// What the last event brought; may be moved from.
    std::string& payload() { return event_; }

private:
    std::size_t headerBytesNeeded() const;
    bool takeHeader(std::string_view* bytes);
    void decodeHeader();
    bool takePayload(std::string_view* bytes);
    Event endFrame();
    std::string* destination();

    // Longest header: 2 bytes, a length of 8, a mask of 4.
    static constexpr std::size_t kMaxHeaderBytes = 14;

    char header_[kMaxHeaderBytes] = {};
    std::size_t headerBytes_ = 0;
    bool inPayload_ = false;

    bool final_ = false;
    WsOpcode opcode_ = WsOpcode::Continuation;
    bool masked_ = false;
    std::uint32_t mask_ = 0;
    std::uint64_t payloadTaken_ = 0;
    std::uint64_t payloadLength_ = 0;

    // A control frame may stand between the fragments of a message, so each has a place of its own.
    std::string message_;
    std::string control_;
    std::string event_;
};

}  // namespace qm
