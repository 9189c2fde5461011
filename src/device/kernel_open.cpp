#include "device/kernel_open.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace qm {

UniqueFd openat2(int directory, const char* path, int flags, mode_t mode, std::uint64_t resolve) {
    open_how how{};
    how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
    // The call refuses a mode without O_CREAT.
    how.mode = (flags & O_CREAT) != 0 ? mode : 0;
    how.resolve = resolve;
    while (true) {
        const auto fd = static_cast<int>(::syscall(SYS_openat2, directory, path, &how, sizeof how));
        if (fd >= 0 || errno != EINTR) return UniqueFd(fd);
    }
}

}  // namespace qm
