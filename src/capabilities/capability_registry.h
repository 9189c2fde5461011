#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "capabilities/capability_def.h"

namespace qm {

/// The process-wide table of capabilities. Copy-on-write: readers hold an immutable snapshot as long as they like and
/// never wait for a change in progress longer than it takes to copy a pointer. Any thread may call anything.
class CapabilityRegistry {
public:
    using Snapshot = std::shared_ptr<const std::vector<CapabilityDef>>;

    CapabilityRegistry();

    /// Adds a definition at the end of the table, after removing one of the same name.
    void registerCapability(CapabilityDef definition);

    /// Removes every definition of `provider` and appends `definitions` in their order, as one change. Names are not
    /// compared with other providers': look-ups take the first match in table order.
    void replaceProvider(std::string_view provider, std::vector<CapabilityDef> definitions);

    Snapshot snapshot() const;

    /// Raised by one on every change.
    std::uint64_t version() const { return version_.load(); }

    /// Replaces the one listener, called after every change on the thread that made it, with no lock held. Empty
    /// removes it; a call that is already under way may still reach the old one.
    void setChangeListener(std::function<void()> listener);

private:
    void publish(const std::function<void(std::vector<CapabilityDef>&)>& edit);

    mutable std::mutex tableMutex_;
    Snapshot table_;
    std::atomic<std::uint64_t> version_{0};
    std::mutex listenerMutex_;
    std::function<void()> listener_;
};

}  // namespace qm
