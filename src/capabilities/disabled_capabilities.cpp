#include "capabilities/disabled_capabilities.h"

#include <utility>

namespace qm {

void DisabledCapabilities::replaceAll(std::set<std::string> names) {
    std::set<std::string, std::less<>> replacement;
    replacement.merge(names);
    const std::lock_guard lock(mutex_);
    names_.swap(replacement);
}

void DisabledCapabilities::set(std::string_view name, bool enabled) {
    const std::lock_guard lock(mutex_);
    const auto position = names_.find(name);
    if (!enabled && position == names_.end()) names_.emplace(name);
    if (enabled && position != names_.end()) names_.erase(position);
}

bool DisabledCapabilities::contains(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    return names_.contains(name);
}

}  // namespace qm
