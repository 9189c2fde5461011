#include "capabilities/capability_registry.h"

#include <iterator>
#include <utility>

namespace qm {

CapabilityRegistry::CapabilityRegistry() : table_(std::make_shared<const std::vector<CapabilityDef>>()) {}

void CapabilityRegistry::registerCapability(CapabilityDef definition) {
    publish([&](std::vector<CapabilityDef>& table) {
        std::erase_if(table, [&](const CapabilityDef& existing) { return existing.name == definition.name; });
        table.push_back(std::move(definition));
    });
}

void CapabilityRegistry::replaceProvider(std::string_view provider, std::vector<CapabilityDef> definitions) {
    publish([&](std::vector<CapabilityDef>& table) {
        std::erase_if(table, [&](const CapabilityDef& existing) { return existing.provider == provider; });
        table.insert(table.end(), std::make_move_iterator(definitions.begin()),
                     std::make_move_iterator(definitions.end()));
    });
}

CapabilityRegistry::Snapshot CapabilityRegistry::snapshot() const {
    const std::lock_guard lock(tableMutex_);
    return table_;
}

void CapabilityRegistry::setChangeListener(std::function<void()> listener) {
    {
        const std::lock_guard lock(listenerMutex_);
        listener_.swap(listener);
    }
    // The old listener is destroyed here, unlocked: what it owns may call back.
}

void CapabilityRegistry::publish(const std::function<void(std::vector<CapabilityDef>&)>& edit) {
    // Outlives the lock: with the old table handlers are destroyed, and what they own may call back.
    Snapshot table;
    {
        const std::lock_guard lock(tableMutex_);
        auto edited = std::make_shared<std::vector<CapabilityDef>>(*table_);
        edit(*edited);
        table = std::exchange(table_, std::move(edited));
        version_.fetch_add(1);
    }
    std::function<void()> listener;
    {
        const std::lock_guard lock(listenerMutex_);
        listener = listener_;
    }
    if (listener) listener();
}

}  // namespace qm
