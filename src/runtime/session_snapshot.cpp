#include "runtime/session_snapshot.h"

#include <algorithm>

namespace qm::runtime {

bool hasActiveChildTask(const SessionSnapshot& snapshot) {
    return std::any_of(snapshot.childTasks.begin(), snapshot.childTasks.end(),
                       [](const auto& entry) { return !isTerminal(entry.second.state); });
}

}  // namespace qm::runtime
