#include "device/checkpoint_file_io.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "util/sha256.h"

namespace qm {
namespace {

/// Fills `target` from `offset` on, less at the end of the file. Nothing on a read error.
std::optional<std::size_t> readInto(int fd, std::uint64_t offset, std::span<char> target) {
    std::size_t filled = 0;
    while (filled < target.size()) {
        const ssize_t count =
            ::pread(fd, target.data() + filled, target.size() - filled, static_cast<off_t>(offset + filled));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) break;
        filled += static_cast<std::size_t>(count);
    }
    return filled;
}

}  // namespace

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM;
}

void throwIfShortage(int error, const char* what) {
    if (isShortage(error)) throw std::system_error(error, std::generic_category(), what);
}

bool readPieces(int fd, std::uint64_t size, std::span<char> buffer, const std::function<void(std::string_view)>& sink) {
    for (std::uint64_t offset = 0; offset < size;) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size - offset));
        const auto count = readInto(fd, offset, buffer.first(wanted));
        if (!count) return false;
        if (*count > 0) sink({buffer.data(), *count});
        if (*count < wanted) return true;
        offset += *count;
    }
    return true;
}

std::optional<Fingerprint> fingerprintFile(int fd, std::uint64_t size, std::span<char> buffer) {
    Sha256 digest;
    Fingerprint result;
    const bool readable = readPieces(fd, size, buffer, [&](std::string_view piece) {
        digest.update(piece);
        result.sizeBytes += piece.size();
    });
    if (!readable) return std::nullopt;
    result.sha256 = toHex(digest.finish());
    return result;
}

std::optional<std::string> readAt(int fd, std::uint64_t offset, std::uint64_t count) {
    std::string bytes(count, '\0');
    const auto filled = readInto(fd, offset, bytes);
    if (!filled || *filled != count) return std::nullopt;
    return bytes;
}

bool writeFully(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(fd, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

bool closeWritten(UniqueFd fd) {
    // An interrupted close has closed all the same.
    return ::close(fd.release()) == 0 || errno == EINTR;
}

}  // namespace qm
