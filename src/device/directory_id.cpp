#include "device/directory_id.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "util/unique_fd.h"

namespace qm {

std::optional<DirectoryId> directoryId(int fd) {
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
    return DirectoryId{status.st_dev, status.st_ino};
}

std::optional<DirectoryId> directoryId(const std::filesystem::path& directory) {
    const UniqueFd fd(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return fd ? directoryId(fd.get()) : std::nullopt;
}

}  // namespace qm
