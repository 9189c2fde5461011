#include "util/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "util/unique_fd.h"

namespace qm {
namespace {

/// What opening never waits for a peer, and never makes a terminal the process's own.
constexpr int kSafeFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;

UniqueFd openRegular(const std::filesystem::path& file, int flags, mode_t mode, struct stat& status) {
    UniqueFd fd(::open(file.c_str(), flags | kSafeFlags, mode));
    if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))) fd.reset();
    return fd;
}

bool writeAt(int fd, std::size_t offset, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = ::pwrite(fd, content.data(), content.size(), static_cast<off_t>(offset));
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(written));
        offset += static_cast<std::size_t>(written);
    }
    return true;
}

/// Some file systems report a full disk at close only, but at every close; this one leaves `fd` open for a second try.
bool flushedByClose(int fd) {
    const int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    return copy >= 0 && ::close(copy) == 0;
}

/// Replaces what the file held, `before`, in place. A failure leaves `before`.
bool replaceContent(int fd, std::string_view before, std::string_view content) {
    // What needs more space comes first, while the old content is still untouched.
    const std::size_t shared = std::min(before.size(), content.size());
    const auto size = static_cast<off_t>(content.size());
    if (writeAt(fd, shared, content.substr(shared)) && writeAt(fd, 0, content.substr(0, shared)) &&
        ::ftruncate(fd, size) == 0 && flushedByClose(fd)) {
        return true;
    }
    const int cause = errno;
    // If even this fails there is nothing left to do.
    writeAt(fd, 0, before);
    [[maybe_unused]] const int ignored = ::ftruncate(fd, static_cast<off_t>(before.size()));
    errno = cause;
    return false;
}

}  // namespace

std::optional<std::string> readRegularFile(const std::filesystem::path& file) {
    struct stat status {};
    const UniqueFd fd = openRegular(file, O_RDONLY, 0, status);
    if (!fd) return std::nullopt;
    std::string content;
    std::array<char, 16384> piece;  // NOLINT(*-member-init): written before it is read
    for (;;) {
        const ssize_t count = ::read(fd.get(), piece.data(), piece.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) return content;
        content.append(piece.data(), static_cast<std::size_t>(count));
    }
}

bool writeRegularFile(const std::filesystem::path& file, std::string_view content) {
    const std::string before = readRegularFile(file).value_or("");
    struct stat status {};
    const UniqueFd fd = openRegular(file, O_WRONLY | O_CREAT, 0666, status);
    return fd && replaceContent(fd.get(), before, content);
}

bool writeRegularFile(const std::filesystem::path& file, std::string_view content, mode_t mode) {
    const std::string before = readRegularFile(file).value_or("");
    struct stat status {};
    // The umask can take rights from a new file but never add one; the mode of an old file is put right here.
    const UniqueFd fd = openRegular(file, O_WRONLY | O_CREAT, mode, status);
    return fd && ::fchmod(fd.get(), mode) == 0 && replaceContent(fd.get(), before, content);
}

}  // namespace qm
