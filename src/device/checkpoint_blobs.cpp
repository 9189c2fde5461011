#include "device/checkpoint_blobs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>

#include "util/sha256.h"

namespace qm {
namespace {

/// Where a content lies until its digest is known. Only one is written at a time.
constexpr char kIncoming[] = "incoming";
/// A blob holds what may be private to the user in the workspace.
constexpr mode_t kBlobMode = 0600;

[[noreturn]] void throwWriteError(int error) {
    throw std::system_error(error, std::generic_category(), "cannot write a blob");
}

/// A digest's text is also a file's name, so nothing else may become one.
bool isDigest(std::string_view text) {
    return text.size() == 2 * std::tuple_size_v<Sha256::Digest> &&
           text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

}  // namespace

std::optional<Fingerprint> CheckpointBlobs::store(int source, std::uint64_t size, std::span<char> buffer) const {
    return size <= buffer.size() ? storeSmall(source, size, buffer) : storeLarge(source, size, buffer);
}

/// A content that fits the buffer is known before it is written and needs no second name.
std::optional<Fingerprint> CheckpointBlobs::storeSmall(int source, std::uint64_t size, std::span<char> buffer) const {
    auto content = fingerprintFile(source, size, buffer);
    if (!content) return std::nullopt;
    UniqueFd blob(
        ::openat(directory_.get(), content->sha256.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kBlobMode));
    if (!blob) {
        if (errno == EEXIST) return content;
        throwWriteError(errno);
    }
    if (!writeFully(blob.get(), {buffer.data(), static_cast<std::size_t>(content->sizeBytes)})) throwWriteError(errno);
    if (!closeWritten(std::move(blob))) throwWriteError(errno);
    return content;
}

std::optional<Fingerprint> CheckpointBlobs::storeLarge(int source, std::uint64_t size, std::span<char> buffer) const {
    UniqueFd blob(::openat(directory_.get(), kIncoming, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kBlobMode));
    if (!blob) throwWriteError(errno);
    Sha256 digest;
    Fingerprint content;
    const bool readable = readPieces(source, size, buffer, [&](std::string_view piece) {
        digest.update(piece);
        content.sizeBytes += piece.size();
        if (!writeFully(blob.get(), piece)) throwWriteError(errno);
    });
    if (!closeWritten(std::move(blob))) throwWriteError(errno);
    content.sha256 = toHex(digest.finish());
    const bool wanted = readable && ::faccessat(directory_.get(), content.sha256.c_str(), F_OK, 0) != 0;
    const int outcome = wanted ? ::renameat(directory_.get(), kIncoming, directory_.get(), content.sha256.c_str())
                               : ::unlinkat(directory_.get(), kIncoming, 0);
    if (outcome != 0) throwWriteError(errno);
    if (!readable) return std::nullopt;
    return content;
}

UniqueFd CheckpointBlobs::open(const std::string& sha256) const {
    if (!directory_ || !isDigest(sha256)) return {};
    UniqueFd blob(
        ::openat(directory_.get(), sha256.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!blob) throwIfShortage(errno, "cannot open a blob");
    struct stat status {};
    if (blob && (::fstat(blob.get(), &status) != 0 || !S_ISREG(status.st_mode))) blob.reset();
    return blob;
}

}  // namespace qm
