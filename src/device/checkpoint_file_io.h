#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qm {

/// Digest and length of the same bytes.
struct Fingerprint {
    std::uint64_t sizeBytes = 0;
    std::string sha256;  ///< Lower-case hexadecimal.
};

/// Reads from the start of a file, at most `size` bytes, and gives them to `sink` in pieces that fill `buffer`; a file
/// that has become shorter ends earlier. Taking the size that the file had when it was opened keeps a file that grows
/// all the time from being read for ever. False on a read error; what `sink` throws passes through.
bool readPieces(int fd, std::uint64_t size, std::span<char> buffer, const std::function<void(std::string_view)>& sink);

/// The fingerprint of at most `size` bytes of a file; nothing on a read error.
std::optional<Fingerprint> fingerprintFile(int fd, std::uint64_t size, std::span<char> buffer);

/// Exactly `count` bytes from `offset` on; nothing on a read error and if the file ends before.
std::optional<std::string> readAt(int fd, std::uint64_t offset, std::uint64_t count);

/// Writes all of `bytes` at the descriptor's position. On failure false, with `errno` set and a part written.
bool writeFully(int fd, std::string_view bytes);

}  // namespace qm
