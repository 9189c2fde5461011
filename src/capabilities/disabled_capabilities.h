#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace qm {

/// Names of the capabilities that the control plane has switched off. A name needn't stand in the registry: it may come
/// later. Any thread may call anything.
class DisabledCapabilities {
public:
    /// The whole set at once; what isn't in `names` is enabled again.
    void replaceAll(std::set<std::string> names);

    /// Enables or disables one capability.
    void set(std::string_view name, bool enabled);

    bool contains(std::string_view name) const;

private:
    mutable std::mutex mutex_;
    std::set<std::string, std::less<>> names_;
};

}  // namespace qm
