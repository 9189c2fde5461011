#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "util/unique_fd.h"

namespace qm {

/// Whether a failed call says nothing about the file: descriptors or memory ran out. A file that is taken for missing
/// then would be reported as deleted, or its content as lost.
bool isShortage(int error);

/// Throws std::system_error with `what` if `error`, an errno, is a shortage; otherwise nothing.
void throwIfShortage(int error, const char* what);

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

/// Closes a file that was written: some file systems report a full disk only now. On failure false, with `errno` set.
bool closeWritten(UniqueFd fd);

}  // namespace qm
