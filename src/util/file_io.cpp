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

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

bool replaceContent(UniqueFd fd, std::string_view content) {
    if (::ftruncate(fd.get(), 0) != 0 || !writeAll(fd.get(), content)) return false;
    // Some file systems report a full disk at close only.
    return ::close(fd.release()) == 0;
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
    struct stat status {};
    UniqueFd fd = openRegular(file, O_WRONLY | O_CREAT, 0666, status);
    return fd && replaceContent(std::move(fd), content);
}

bool writeRegularFile(const std::filesystem::path& file, std::string_view content, mode_t mode) {
    struct stat status {};
    // The umask can take rights from a new file but never add one; the mode of an old file is put right here.
    UniqueFd fd = openRegular(file, O_WRONLY | O_CREAT, mode, status);
    if (!fd || ::fchmod(fd.get(), mode) != 0) return false;
    return replaceContent(std::move(fd), content);
}

}  // namespace qm
