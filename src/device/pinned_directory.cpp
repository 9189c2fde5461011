#include "device/pinned_directory.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <system_error>
#include <utility>

namespace qm {
namespace {

/// For calls relative to the directory and for its identity, which need no right to read it.
constexpr int kHandle = O_PATH | O_DIRECTORY | O_CLOEXEC;

}  // namespace

PinnedDirectory::PinnedDirectory(UniqueFd fd, DirectoryId id, std::filesystem::path path)
    : fd_(std::move(fd)), id_(id), path_(std::move(path)) {}

std::optional<PinnedDirectory> PinnedDirectory::open(const std::filesystem::path& directory) {
    return take(UniqueFd(::open(directory.c_str(), kHandle)));
}

std::optional<PinnedDirectory> PinnedDirectory::openEntry(int parentFd, const std::string& name) {
    return take(UniqueFd(::openat(parentFd, name.c_str(), kHandle | O_NOFOLLOW)));
}

std::optional<PinnedDirectory> PinnedDirectory::take(UniqueFd fd) {
    if (!fd) return std::nullopt;
    const auto id = directoryId(fd.get());
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd.get()), error);
    if (!id || error) return std::nullopt;
    return PinnedDirectory(std::move(fd), *id, std::move(path));
}

std::filesystem::path PinnedDirectory::handle() const {
    return "/proc/" + std::to_string(::getpid()) + "/fd/" + std::to_string(fd_.get());
}

}  // namespace qm
