#pragma once

#include <sys/types.h>

#include <cstdint>

#include "util/unique_fd.h"

namespace qm {

/// The system call `openat2`, close-on-exec, repeated when a signal interrupts it. `resolve` holds RESOLVE_... bits.
/// Empty on failure, with `errno` set; ENOSYS on kernels before 5.6, EPERM where a filter forbids it.
UniqueFd openat2(int directory, const char* path, int flags, mode_t mode, std::uint64_t resolve);

}  // namespace qm
