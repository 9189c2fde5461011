#pragma once

#include <utility>

#include "capabilities/capability_registry.h"
#include "util/json.h"

namespace qm {

/// A row of a table of capabilities: what agents are told of one, and the function that carries it out.
template <typename Handler>
struct CapabilityEntry {
    const char* name;
    const char* displayName;
    const char* effect;
    const char* description;
    Handler handler;
    json (*parameters)();
};

/// The schema of one parameter; `type` is the name of a JSON schema type.
inline json parameterOfType(const char* type, const char* description) {
    return json{{"type", type}, {"description", description}};
}

/// Adds the capabilities of `table` (of CapabilityEntry). Each runs as `call(handler, arguments)`, on any thread, as
/// long as the registry is used.
template <typename Table, typename Call>
void registerTable(CapabilityRegistry& registry, const Table& table, const Call& call) {
    for (const auto& entry : table) {
        CapabilityDef definition;
        definition.name = entry.name;
        definition.displayName = entry.displayName;
        definition.description = entry.description;
        definition.parameters = entry.parameters();
        definition.effect = entry.effect;
        definition.handler = [handler = entry.handler, call](const json& arguments) {
            return call(handler, arguments);
        };
        registry.registerCapability(std::move(definition));
    }
}

}  // namespace qm
