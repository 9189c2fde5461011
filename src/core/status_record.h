#pragma once

#include <cstddef>

#include "core/connection_state.h"
#include "core/settings.h"
#include "model/model_state.h"
#include "util/json_fwd.h"

namespace qm {

/// What the executor tells its local user interface about itself.
struct ExecutorStatus {
    ConnectionState state = ConnectionState::NotConfigured;
    Settings settings;
    ModelState model;
    std::size_t capabilityCount = 0;
    std::size_t workspaceCount = 0;
};

/// The status as the local interface shows it.
json statusRecord(const ExecutorStatus& status);

}  // namespace qm
