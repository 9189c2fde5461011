#pragma once

#include <cstdint>
#include <string>

#include "capabilities/capability_registry.h"
#include "util/json_fwd.h"

namespace qm {

/// Registers `system_info` and `device_time`, which let a model learn about the device. `version` is the program's.
void registerCoreCapabilities(CapabilityRegistry& registry, std::string version);

/// The result of `device_time` at that moment, in the time zone of the process.
json deviceTime(std::int64_t epochMs);

}  // namespace qm
