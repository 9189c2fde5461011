#include "net/ws_frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qm {
namespace {

constexpr unsigned kFinalBit = 0x80;
constexpr unsigned kMaskBit = 0x80;
constexpr unsigned kOpcodeBits = 0x0f;
constexpr unsigned kLengthBits = 0x7f;
constexpr unsigned kLength16 = 126;
constexpr unsigned kLength64 = 127;
constexpr std::size_t kMaskBytes = 4;

/// How many bytes the length takes behind the second byte.
std::size_t extendedLengthBytes(unsigned shortLength) {
    if (shortLength == kLength64) return 8;
    return shortLength == kLength16 ? 2 : 0;
}

unsigned shortLengthFor(std::size_t size) {
    if (size < kLength16) return static_cast<unsigned>(size);
    return size <= 0xffff ? kLength16 : kLength64;
}

void putBigEndian(char* target, std::size_t width, std::uint64_t value) {
    for (std::size_t i = width; i-- > 0; value >>= 8)
        target[i] = static_cast<char>(value & 0xff);
}

std::uint64_t getBigEndian(const char* source, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i)
        value = value << 8 | static_cast<unsigned char>(source[i]);
    return value;
}

}  // namespace

void applyWsMask(char* target, const char* source, std::size_t size, std::uint32_t mask, std::uint64_t offset) {
    char maskBytes[kMaskBytes];
    std::memcpy(maskBytes, &mask, sizeof maskBytes);
    char pattern[sizeof(std::uint64_t)];
    for (std::size_t i = 0; i < sizeof pattern; ++i)
        pattern[i] = maskBytes[(offset + i) % kMaskBytes];
    std::uint64_t patternWord = 0;
    std::memcpy(&patternWord, pattern, sizeof pattern);

    std::size_t i = 0;
    for (; size - i >= sizeof patternWord; i += sizeof patternWord) {
        std::uint64_t word = 0;
        std::memcpy(&word, source + i, sizeof word);
        word ^= patternWord;
        std::memcpy(target + i, &word, sizeof word);
    }
    for (; i < size; ++i)
        target[i] = static_cast<char>(source[i] ^ pattern[i % sizeof pattern]);
}

WsFrameBytes encodeWsFrame(WsOpcode opcode, std::string_view payload, std::uint32_t mask) {
    const unsigned shortLength = shortLengthFor(payload.size());
    const std::size_t lengthBytes = extendedLengthBytes(shortLength);
    WsFrameBytes frame(2 + lengthBytes + kMaskBytes + payload.size());
    char* const bytes = frame.data();
    bytes[0] = static_cast<char>(kFinalBit | static_cast<unsigned>(opcode));
    bytes[1] = static_cast<char>(kMaskBit | shortLength);
    putBigEndian(bytes + 2, lengthBytes, payload.size());
    std::memcpy(bytes + 2 + lengthBytes, &mask, kMaskBytes);
    applyWsMask(bytes + 2 + lengthBytes + kMaskBytes, payload.data(), payload.size(), mask);
    return frame;
}

WsFrameReader::Event WsFrameReader::next(std::string_view* bytes) {
    while (takeHeader(bytes) && takePayload(bytes)) {
        if (const Event event = endFrame(); event != Event::NeedsBytes) return event;
    }
    return Event::NeedsBytes;
}

std::size_t WsFrameReader::headerBytesNeeded() const {
    if (headerBytes_ < 2) return 2;
    const auto second = static_cast<unsigned char>(header_[1]);
    return 2 + extendedLengthBytes(second & kLengthBits) + ((second & kMaskBit) != 0 ? kMaskBytes : 0);
}

/// True once the frame's header is complete, which it stays until endFrame().
bool WsFrameReader::takeHeader(std::string_view* bytes) {
    while (!inPayload_) {
        const std::size_t count = std::min(headerBytesNeeded() - headerBytes_, bytes->size());
        if (count == 0) return false;
        bytes->copy(header_ + headerBytes_, count);
        bytes->remove_prefix(count);
        headerBytes_ += count;
        if (headerBytes_ >= 2 && headerBytes_ == headerBytesNeeded()) decodeHeader();
    }
    return true;
}

void WsFrameReader::decodeHeader() {
    const auto first = static_cast<unsigned char>(header_[0]);
    const auto second = static_cast<unsigned char>(header_[1]);
    const std::size_t lengthBytes = extendedLengthBytes(second & kLengthBits);
    final_ = (first & kFinalBit) != 0;
    opcode_ = static_cast<WsOpcode>(first & kOpcodeBits);
    masked_ = (second & kMaskBit) != 0;
    payloadLength_ = lengthBytes == 0 ? second & kLengthBits : getBigEndian(header_ + 2, lengthBytes);
    payloadTaken_ = 0;
    if (masked_) std::memcpy(&mask_, header_ + 2 + lengthBytes, kMaskBytes);
    inPayload_ = true;
}

/// Where the payload of the present frame belongs; null if nobody wants it.
std::string* WsFrameReader::destination() {
    switch (opcode_) {
        case WsOpcode::Continuation:
        case WsOpcode::Text:
            return &message_;
        case WsOpcode::Close:
        case WsOpcode::Ping:
            return &control_;
        default:
            return nullptr;
    }
}

/// True once the frame's payload is complete.
bool WsFrameReader::takePayload(std::string_view* bytes) {
    // Compared as what is left, since the length may be any 64-bit number.
    const std::uint64_t left = payloadLength_ - payloadTaken_;
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, bytes->size()));
    if (std::string* const target = destination(); target != nullptr && count > 0) {
        target->append(bytes->substr(0, count));
        char* const added = target->data() + target->size() - count;
        if (masked_) applyWsMask(added, added, count, mask_, payloadTaken_);
    }
    bytes->remove_prefix(count);
    payloadTaken_ += count;
    return count == left;
}

WsFrameReader::Event WsFrameReader::endFrame() {
    inPayload_ = false;
    headerBytes_ = 0;
    switch (opcode_) {
        case WsOpcode::Continuation:
        case WsOpcode::Text:
            if (!final_) return Event::NeedsBytes;
            event_ = std::exchange(message_, {});
            return Event::Message;
        case WsOpcode::Binary:
            if (final_) message_.clear();
            return Event::NeedsBytes;
        case WsOpcode::Close:
            event_ = std::exchange(control_, {});
            return Event::Close;
        case WsOpcode::Ping:
            event_ = std::exchange(control_, {});
            return Event::Ping;
        default:
            return Event::NeedsBytes;
    }
}

}  // namespace qm
