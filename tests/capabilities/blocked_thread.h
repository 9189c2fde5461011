#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace qm::test {

inline pid_t currentThreadId() {
    return ::gettid();
}

/// Whether a thread of this process sleeps in the kernel, or has ended. It tells a test that a call has got as far as
/// it gets: one that should wait is waiting, one that shouldn't is done.
inline bool isBlocked(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return true;
    const auto name = line.rfind(") ");
    return name != std::string::npos && line.compare(name + 2, 1, "S") == 0;
}

}  // namespace qm::test
