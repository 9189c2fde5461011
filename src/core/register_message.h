#pragma once

#include "capabilities/capability_registry.h"
#include "core/settings.h"
#include "model/model_state.h"
#include "util/json_fwd.h"

namespace qm {

/// The `register` frame: who this executor is and what it can do. `extensions` is the array of installed extensions.
json registerMessage(const Settings& settings, const ModelState& model,
                     const CapabilityRegistry::Snapshot& capabilities, json extensions);

}  // namespace qm
