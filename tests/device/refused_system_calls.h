#pragma once

#include <functional>
#include <vector>

namespace qm::test {

struct RefusedCall {
    int number = 0;
    int error = 0;
};

/// Runs `body` on a thread on which the kernel answers the given system calls with their errors, as an older kernel or
/// one without resources would. What is started from there, threads and processes, lives under the same rule.
void withRefusedCalls(const std::vector<RefusedCall>& calls, const std::function<void()>& body);

/// Runs `body` on a thread on which a system call never comes back, like one into a file system that has gone away.
void withHangingCall(int number, const std::function<void()>& body);

/// Runs `body` on a thread on which the kernel says that its Landlock has the given version, though it keeps the rules
/// of its own.
void withLandlockVersion(int version, const std::function<void()>& body);

}  // namespace qm::test
